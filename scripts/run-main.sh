#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing, builds the command fsic
# (release, nothing else), and runs it in a qemu guest whose disks are real to its
# kernel: a partition of a disk with a serial that holds a disk image, a whole-disk file
# system without a serial, and an LVM volume. It lists the volumes, makes a keyed
# baseline of all four kinds, changes two files behind fsic's back, and checks, accepts
# one change and checks again (tests/system/scenarios/main-job/test.sh; the system test
# of that name holds its exact output). Exits with the guest script's status.
#
# On a real machine, run fsic directly as root: build/release/cli/fsic volumes
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --guest
cmake --preset release >/dev/null
# Only what the guest run uses. The guest sees the build tree at its own path and keeps
# its kernel and initramfs in the cache directory below; it needs nothing else.
cmake --build --preset release --target fsic

build=$PWD/build/release
echo "=== fsic in the guest (machine: tests/system/scenarios/command/machine.json)"
exec /usr/bin/python3 tests/system/run-guest.py \
  --machine tests/system/scenarios/command/machine.json \
  --script tests/system/scenarios/main-job/test.sh \
  --build-dir "$build" --cache-dir "$build/tests/system/cache" \
  --env FSIC_SCENARIO_CHECKS="$build/tests/system/scenario-checks.sh" \
  --env FSIC="$build/cli/fsic"
