#!/usr/bin/env bash
# Runs every test on a fresh machine: installs what is missing, builds the release, the
# 32-bit (-m32, the library without udev and libblockdev), the clang, the sanitizer and
# the Debian package configurations (warnings are errors) and runs each through ctest
# (the package configuration's one test makes the packages, installs them on this
# machine, uses them and purges them).
#
# The work is pipelined to keep both cores busy: each configuration's tests run while
# the next configuration builds, and the release's qemu guest scenarios, which keep one
# core busy for minutes, run in the background from the moment the release is built
# (they touch no device of this machine). Only one host ctest runs at a time, since
# host tests share loop devices and mounts. Every run writes its own log; the logs are
# printed in a fixed order once all have ended, the sanitizer run last, so that ctest's
# summary ends the output. Each stage is stamped with the seconds since the start.
set -uo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --guest || exit 1

jobs=$(nproc)
logs=build/test-logs
mkdir -p "$logs"
rm -f "$logs"/*.log

stamp() { echo "=== $* (at ${SECONDS} s)"; }

build() {
  stamp "configure and build: $1"
  cmake --preset "$1" >/dev/null && cmake --build --preset "$1"
}

# The background runs; killed when this script ends early.
guests=
host=
trap 'kill $guests $host 2>/dev/null' EXIT

status=0
# Waits for the host test run in the background, if any, and notes its failure.
wait_host() {
  [[ -n $host ]] || return 0
  wait "$host" || status=1
  host=
}
# Starts the host tests of a configuration in the background, after the previous run.
start_host() {
  wait_host
  stamp "tests: $1 (in the background)"
  ctest --preset "$1" "${@:2}" -j "$jobs" >"$logs/$1.log" 2>&1 &
  host=$!
}

build ci-release || exit 1
stamp "tests: qemu guest scenarios (in the background)"
ctest --preset ci-release -L system >"$logs/guests.log" 2>&1 &
guests=$!
start_host ci-release -LE system
for preset in ci-m32 ci-clang ci-debug ci-deb; do
  build "$preset" || exit 1
  start_host "$preset"
done
wait_host
stamp "host tests done"
wait "$guests" || status=1
guests=
stamp "guest scenarios done"

# The package test passes itself over on a machine that has fsic packages or /etc/fsic
# already; a fresh machine has neither, so there it means a run left them behind.
if grep -q '\*\*\*Skipped' "$logs/ci-deb.log"; then
  echo "=== the package test was skipped: fsic packages or /etc/fsic are on this machine"
  status=1
fi

for run in ci-release ci-m32 ci-clang guests ci-deb ci-debug; do
  echo "=== tests: $run"
  cat "$logs/$run.log"
done
exit $status
