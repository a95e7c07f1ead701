#!/usr/bin/env bash
# Installs every Debian package that building, testing and benchmarking fsic needs.
# Idempotent: packages already present are left alone and apt-get is not run at all
# when nothing is missing.
#
#   scripts/install-deps.sh            build + unit/integration tests + benchmarks
#   scripts/install-deps.sh --guest    also what the qemu system tests need
#   scripts/install-deps.sh --fuzz     also what the libFuzzer build needs (scripts/fuzz.sh)
set -euo pipefail

packages=(
  # build (clang: the second compiler of the tests, and the fuzzers')
  build-essential cmake ninja-build pkg-config clang
  # the dialect: formatting and the clang CI configuration's static checks
  clang-format clang-tidy
  # library dependencies
  libudev-dev libblkid-dev libblockdev-dev libblockdev-lvm-dev libblockdev-lvm2 lvm2 libglib2.0-dev
  # blockdev/lvm.h includes libdevmapper.h, which libblockdev-lvm-dev does not pull in
  libdevmapper-dev
  # tests and test oracles / benchmark peers
  libgtest-dev libgmock-dev libgcrypt20-dev librhash-dev rhash libbotan-2-dev
  # the command's JSON reports are checked against their schema; aide is the command's
  # benchmark peer
  python3 python3-jsonschema aide
  # the install test formats the manual page
  groff-base
  # the Debian packages: made with dpkg-dev's tools, checked with lintian, installed
  # and used (man -w, systemd-analyze verify, deb-systemd-helper in the scripts)
  dpkg-dev lintian man-db systemd init-system-helpers
  # integration tests: real ext4 images on loop devices
  e2fsprogs util-linux mount kmod
  # the 32-bit (-m32) build of the portable code; its GoogleTest is built from these
  # sources
  gcc-multilib g++-multilib googletest
  # its tests' emulator, where the kernel does not run 32-bit programs itself
  qemu-user
)

for opt in "$@"; do
  case $opt in
    --guest) packages+=(qemu-system-x86 linux-image-amd64 busybox-static udev fdisk python3) ;;
    # clang's sanitizer and libFuzzer runtimes
    --fuzz) packages+=(libclang-rt-dev) ;;
    *) echo "install-deps: unknown option $opt" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
if [[ $(id -u) -ne 0 ]]; then
  echo "install-deps: must run as root to install packages" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "install-deps: done"
