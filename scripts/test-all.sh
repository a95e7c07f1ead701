#!/usr/bin/env bash
# Runs every test on a fresh machine: installs what is missing, builds the release, the
# 32-bit (-m32, the library without udev and libblockdev), the clang and the sanitizer
# configurations (warnings are errors) and runs each through ctest. The release's qemu
# guest scenarios, which keep one core busy for minutes, run in the background from the
# moment the release is built, beside the other builds and tests (they touch no device
# of this machine); their output follows the clang run. The sanitizer run comes last,
# so ctest's summary ends the output. ctest runs as many tests at once as there are
# cores (tests that share devices and mounts are marked to run alone).
set -uo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --guest || exit 1

jobs=$(nproc)

build() {
  echo "=== configure and build: $1"
  cmake --preset "$1" >/dev/null && cmake --build --preset "$1"
}

guests=
guest_log=build/ci-release/guest-scenarios.log
# Stops the background guest scenarios when this script ends early.
trap '[[ -n $guests ]] && kill $guests 2>/dev/null' EXIT

build ci-release || exit 1
echo "=== tests: release, qemu guest scenarios (in the background, output below)"
ctest --preset ci-release -L system >"$guest_log" 2>&1 &
guests=$!
for preset in ci-m32 ci-clang ci-debug; do
  build "$preset" || exit 1
done

status=0
echo "=== tests: release"
ctest --preset ci-release -LE system -j "$jobs" || status=1
echo "=== tests: 32-bit"
ctest --preset ci-m32 -j "$jobs" || status=1
echo "=== tests: clang"
ctest --preset ci-clang -j "$jobs" || status=1
echo "=== tests: release, qemu guest scenarios"
wait $guests || status=1
guests=
cat "$guest_log"
echo "=== tests: sanitizers"
ctest --preset ci-debug -j "$jobs" || status=1
exit $status
