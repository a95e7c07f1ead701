#!/usr/bin/env bash
# The Debian packages of a package build (FSIC_PACKAGE_DEB): made with cpack; their
# files, fields and lintian's findings held against what is expected here; then
# installed on this machine with dpkg and used as an administrator and a programmer
# would (the command with its default files, its manual page, its units, its bash
# completion; a C program through pkg-config and a CMake project against libfsic-dev),
# and purged again, whatever happens. Root. Skipped (77) when fsic packages are
# installed already or /etc/fsic exists: those are not this test's to remove.
#   check-packages.sh <build dir> <version>
set -euo pipefail
build=$1 version=$2
here=$(cd "$(dirname "$0")" && pwd)
consumer=$here/../install
packages=(fsic libfsic0 libfsic-dev)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
deb_version=$version-1

if [[ $(id -u) -ne 0 ]]; then
  echo "check-packages: skipped: needs root (dpkg -i)"
  exit 77
fi
for p in "${packages[@]}"; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'installed$'; then
    echo "check-packages: skipped: $p is installed on this machine"
    exit 77
  fi
done
if [[ -e /etc/fsic || -e /var/lib/fsic ]]; then
  echo "check-packages: skipped: /etc/fsic or /var/lib/fsic exists on this machine"
  exit 77
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/fsic-packages.XXXXXX")
installed=
cleanup() {
  if [[ -n $installed ]]; then
    dpkg -P "${packages[@]}" >/dev/null 2>&1 || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "check-packages: $*" >&2
  exit 1
}

echo "== cpack"
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack failed"; }
debs=()
for p in "${packages[@]}"; do
  deb=$build/packages/${p}_${deb_version}_$(dpkg --print-architecture).deb
  [[ -f $deb ]] || fail "no $deb"
  debs+=("$deb")
done

echo "== files and fields"
for i in "${!packages[@]}"; do
  p=${packages[$i]}
  # Regular files and links (with their targets), without the leading "./".
  dpkg-deb -c "${debs[$i]}" | awk '$1 !~ /^d/ { $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); sub(/^\.\//, ""); print }' |
    sort >"$work/$p.files"
  sed -e "s/@VERSION@/$version/g" -e "s/@MULTIARCH@/$multiarch/g" "$here/$p.files" |
    sort >"$work/$p.expected"
  diff -u "$work/$p.expected" "$work/$p.files" || fail "$p: the files differ from $p.files"
  for field in Package Version Section Depends Recommends; do
    echo "$p: $field: $(dpkg-deb -f "${debs[$i]}" "$field")"
  done
done
[[ $(dpkg-deb -f "${debs[0]}" Version) == "$deb_version" ]] || fail "fsic: not version $deb_version"
for dep in libudev1 libblockdev-lvm2; do
  dpkg-deb -f "${debs[0]}" Depends | grep -qw "$dep" || fail "fsic does not depend on $dep"
done
dpkg-deb -f "${debs[0]}" Recommends | grep -qw lvm2 || fail "fsic does not recommend lvm2"
dpkg-deb -f "${debs[2]}" Depends | grep -q "libfsic0 (= $deb_version)" ||
  fail "libfsic-dev does not depend on its libfsic0"
dpkg-deb -I "${debs[0]}" conffiles | grep -qx /etc/fsic/policy || fail "the policy is not a conffile"

echo "== lintian"
if command -v lintian >/dev/null; then
  # Findings as "package: tag", held against those that a locally built package keeps
  # (lintian.expected says why each one stays).
  lintian --tag-display-limit 0 "${debs[@]}" >"$work/lintian.log" 2>&1 || true
  cat "$work/lintian.log"
  awk '/^[EWIX]: / { sub(/:$/, "", $2); print $2, $3 }' "$work/lintian.log" | sort -u >"$work/lintian.found"
  grep -v '^#' "$here/lintian.expected" | sed '/^$/d' | sort -u >"$work/lintian.wanted"
  diff -u "$work/lintian.wanted" "$work/lintian.found" || fail "lintian's findings differ from lintian.expected"
else
  echo "lintian is not installed: left out"
fi

echo "== dpkg -i"
installed=yes
dpkg -i "${debs[@]}" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -i failed"; }
[[ $(fsic --version) == "fsic $version" ]] || fail "fsic --version: $(fsic --version)"
[[ $(man -w fsic) == /usr/share/man/man1/fsic.1.gz ]] || fail "man -w fsic: $(man -w fsic)"
[[ $(stat -c %a /var/lib/fsic) == 700 ]] || fail "/var/lib/fsic is not private to root"
# Not enabled before there is a database.
wants=/etc/systemd/system/timers.target.wants/fsic-check.timer
[[ ! -e $wants && ! -L $wants ]] || fail "the timer is enabled without a database"

echo "== the units"
units=(/lib/systemd/system/fsic-check.service /lib/systemd/system/fsic-check.timer)
systemd-analyze verify "${units[@]}" 2>&1 | tee "$work/verify.log"
if grep -q 'fsic-check' "$work/verify.log"; then
  fail "systemd-analyze verify found something in the units"
fi
grep -qx 'ExecStart=/usr/bin/fsic check --json --no-progress' "${units[0]}" ||
  fail "the service does not run the installed fsic"
grep -qx 'ConditionPathExists=/var/lib/fsic/fsic.db' "${units[0]}" ||
  fail "the service does not wait for the default database"

echo "== bash completion"
complete_words() {
  bash -c 'source /usr/share/bash-completion/completions/fsic
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _fsic; echo "${COMPREPLY[*]}"' _ "$@"
}
[[ $(complete_words fsic ch) == check ]] || fail "completion of 'fsic ch': $(complete_words fsic ch)"
[[ $(complete_words fsic init --no) == "--no-key --no-progress" ]] ||
  fail "completion of 'fsic init --no': $(complete_words fsic init --no)"

echo "== the default files"
# No key yet: the check names the default key; without a key, the default database.
status=0
fsic check -q 2>"$work/err" || status=$?
cat "$work/err"
[[ $status == 19 ]] && grep -q /etc/fsic/key "$work/err" || fail "check without a key: status $status"
status=0
fsic show --no-key 2>"$work/err" || status=$?
cat "$work/err"
[[ $status == 18 ]] && grep -q /var/lib/fsic/fsic.db "$work/err" || fail "show: status $status"
# The first init makes the default key and writes the default database; a policy whose
# only section is optional and absent here measures nothing.
printf '[mount:/nonexistent-fsic-test] optional\nfile /x data\n' >"$work/policy"
fsic init --policy "$work/policy" --no-progress
[[ $(stat -c '%a %s' /etc/fsic/key) == "600 32" ]] || fail "the default key is not 32 bytes, mode 0600"
fsic check --no-progress
fsic show
# Beside an existing database a missing key is not made anew (it would not match):
# init says that the key is missing.
mv /etc/fsic/key "$work/key"
status=0
fsic init --policy "$work/policy" --no-progress 2>"$work/err" || status=$?
cat "$work/err"
[[ $status == 19 && ! -e /etc/fsic/key ]] && grep -q /etc/fsic/key "$work/err" ||
  fail "init beside a database without its key: status $status, a key made: $([[ -e /etc/fsic/key ]] && echo yes)"
mv "$work/key" /etc/fsic/key
fsic check --no-progress -q

echo "== a C program and a CMake project against libfsic-dev"
cc -std=c11 -Wall -Wextra -Werror "$consumer/consumer.c" -o "$work/consumer" $(pkg-config --cflags --libs fsic)
"$work/consumer"
cmake -S "$consumer/cmake_consumer" -B "$work/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer_c"
"$work/cmake/consumer_cxx"
"$work/cmake/consumer_cxx_static"

echo "== dpkg -P"
dpkg -P "${packages[@]}" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -P failed"; }
installed=
for gone in /usr/bin/fsic /etc/fsic /var/lib/fsic /usr/include/fsic; do
  [[ ! -e $gone ]] || fail "$gone is left after the purge"
done
echo "check-packages: ok"
