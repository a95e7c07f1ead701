#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing, builds the library and the
# driver (release), and runs the driver in a qemu guest whose disks are real to its
# kernel: a virtio disk and a SCSI disk with serial numbers and partitions (primary,
# extended, logical), a removable USB stick, and two LVM volume groups. Prints the
# driver's report and exits with its status.
#
# On a real machine, run the driver directly as root (it needs sysfs, a running udev
# and, for the LVM part, the lvm2 tools): build/release/test/fsic-driver
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --guest
cmake --preset release >/dev/null
# Only what the guest run uses: the driver and the library it links. The guest sees the
# build tree at its own path (the driver finds libfsic.so there) and keeps its kernel
# and initramfs in the cache directory below; it needs nothing else from the tree.
cmake --build --preset release --target fsic_shared fsic_static fsic-driver

build=$PWD/build/release
echo "=== fsic-driver in the guest (machine: tests/system/scenarios/inventory/machine.json)"
exec /usr/bin/python3 tests/system/run-guest.py \
  --machine tests/system/scenarios/inventory/machine.json \
  --script tests/system/scenarios/driver-report/test.sh \
  --build-dir "$build" --cache-dir "$build/tests/system/cache" \
  --env FSIC_DRIVER="$build/test/fsic-driver"
