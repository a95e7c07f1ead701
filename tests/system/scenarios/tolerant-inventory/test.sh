#!/bin/bash
# The designed inventory refuses a machine with a disk without a serial; the tolerant one
# lists every disk, gives whole-disk file systems a volume numbered 0, identifies each
# volume (by serial and number, or by UUID), finds it again in a new list, by device
# path and by UUID, and reads a file through its mount. Afterwards nothing is mounted
# under /tmp and nothing is left there.
set -u
source "$FSIC_SCENARIO_CHECKS"
"$FSIC_TOLERANT"
echo "status $?"
echo "entries left in /tmp: $(tmp_entries)"
echo "mounts under /tmp: $(tmp_mounts)"
