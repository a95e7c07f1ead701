#!/usr/bin/env bash
# Runs every test on a fresh machine: installs what is missing, builds the release, the
# 32-bit (-m32, the library without udev and libblockdev), the clang and the sanitizer
# configurations (warnings are errors) and runs each through ctest. The sanitizer run
# comes last, so ctest's summary ends the output.
set -uo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --guest || exit 1

for preset in ci-release ci-m32 ci-clang ci-debug; do
  echo "=== configure and build: $preset"
  cmake --preset "$preset" >/dev/null || exit 1
  cmake --build --preset "$preset" || exit 1
done

status=0
echo "=== tests: release"
ctest --preset ci-release || status=1
echo "=== tests: 32-bit"
ctest --preset ci-m32 || status=1
echo "=== tests: clang"
ctest --preset ci-clang || status=1
echo "=== tests: sanitizers"
ctest --preset ci-debug || status=1
exit $status
