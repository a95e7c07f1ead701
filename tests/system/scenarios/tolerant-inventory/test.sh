#!/bin/bash
# The designed inventory refuses a machine with a disk without a serial; the tolerant one
# lists every disk, gives whole-disk file systems a volume numbered 0, identifies each
# volume (by serial and number, or by UUID), finds it again in a new list, by device
# path and by UUID, and reads a file through its mount. The volume of the disk with a
# serial is mounted read-write by the system meanwhile, and written to all the time:
# it is read through a read-only bind of the system's mount, a file of it is put under
# control, and the system's mount is the same afterwards and still writable.
# Every volume's /hello.txt is put under control and the list saved; after a reboot that
# attaches the disks in the opposite order, each entry finds its volume again (by UUID,
# by serial and number 0, by serial and number). Afterwards nothing is mounted under
# /tmp and nothing is left there.
set -u
source "$FSIC_SCENARIO_CHECKS"

if [[ $FSIC_BOOT == 2 ]]; then
  echo "== second boot"
  "$FSIC_TOLERANT" --find-list "$FSIC_STATE_DIR/list"
  echo "status $?"
  echo "entries left in /tmp: $(tmp_entries)"
  echo "mounts under /tmp: $(tmp_mounts)"
  exit
fi

# The system's mount: its options, super-block options, source and type.
mkdir -p /run/data
mount -o rw,nosuid,relatime /dev/vda1 /run/data
line_of_mount() { awk '$5 == "/run/data" { print $6 }' /proc/self/mountinfo; }
before="$(line_of_mount) $(awk '$5 == "/run/data" { sub(/.* - /, ""); print }' /proc/self/mountinfo)"
# The system keeps writing elsewhere on the volume.
(while :; do echo "entry $((n = ${n:-0} + 1))" >>/run/data/log.txt; sleep 0.01; done) &
writer=$!

"$FSIC_TOLERANT"
echo "status $?"
"$FSIC_TOLERANT" --control /run/data /hello.txt
echo "status $?"

after="$(line_of_mount) $(awk '$5 == "/run/data" { sub(/.* - /, ""); print }' /proc/self/mountinfo)"
echo "system mount: $before"
[[ $after == "$before" ]] && echo "system mount unchanged" || echo "system mount now: $after"
kill -0 $writer && echo "the system's writer still runs"
kill $writer
wait $writer 2>/dev/null
echo "written by the system meanwhile: $([[ $(wc -l </run/data/log.txt) -gt 0 ]] && echo yes || echo no)"
touch /run/data/written-after && echo "still writable"
umount /run/data
"$FSIC_TOLERANT" --save-list "$FSIC_STATE_DIR/list"
echo "status $?"
echo "entries left in /tmp: $(tmp_entries)"
echo "mounts under /tmp: $(tmp_mounts)"
