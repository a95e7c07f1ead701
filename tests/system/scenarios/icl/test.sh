#!/bin/bash
# The integrity-list scenario on partition 1 of the first disk, the same partition
# held twice, and a file of an LVM volume. Afterwards: the volumes are byte for byte
# unchanged, nothing is left in /tmp and nothing is mounted there.
set -u
source "$FSIC_SCENARIO_CHECKS"
volumes() { sha256sum /dev/sda1 /dev/mapper/vg--data-lv_home; }
before=$(volumes)
"$FSIC_ICL_SCENARIO" icl
echo "== two holds"
"$FSIC_ICL_SCENARIO" two-holds
echo "== lvm volume"
"$FSIC_ICL_SCENARIO" lvm-file
echo "== afterwards"
if [[ $(volumes) == "$before" ]]; then echo "volumes unchanged"; else echo "volumes CHANGED"; fi
echo "entries left in /tmp: $(tmp_entries)"
echo "mounts under /tmp: $(tmp_mounts)"
