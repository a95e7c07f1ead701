#!/bin/bash
# Allocation failures in the block-device inventory, every allocation of the process
# failing in turn (libudev's and libc's too; for the image disk every third): the disk
# list and an image disk. A failure ends in a status, or is absorbed inside libudev or
# libc and the result is the normal one; only a value that libudev drops while reading
# its database (a partition's uuid or file-system type) may be missing then. After each
# step: no loop device attached, nothing mounted under /tmp, nothing left in /tmp.
set -u
source "$FSIC_SCENARIO_CHECKS"
prog=$FSIC_FAULT_INVENTORY

# The numbers of allocations, and how their failures ended, depend on the versions of
# libudev and libc and vary a little from run to run (libudev seeds its hash tables at
# random): the full lines are kept in the build tree, and here the numbers are N.
anonymous_counts() {
  sed -E 's/: [0-9]+ injection points/: N injection points/; s/; endings: .*$//;
          s/^(runs with a value lost inside libudev:) [0-9]+$/\1 N/'
}
keep="$BUILD_DIR/tests/system/fault-inventory-udev"

step "the disk list"
"$prog" create-all | tee "$keep.create.out" | anonymous_counts
echo "status ${PIPESTATUS[0]}"
afterwards
step "the image disk"
"$prog" image-all 3 | tee "$keep.image.out" | anonymous_counts
echo "status ${PIPESTATUS[0]}"
afterwards
