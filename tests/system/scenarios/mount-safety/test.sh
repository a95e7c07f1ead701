#!/bin/bash
# Files of the four volumes put under control through the library: the sha256 of each
# device is the same before and after (the figures go to the console log), a journal
# that needs recovery still needs it, and the corrupt inode's error is recorded
# nowhere on the device. Afterwards nothing is mounted under /tmp and nothing is left
# there, and no loop device is bound.
set -u
source "$FSIC_SCENARIO_CHECKS"

journal() {
  if dumpe2fs -h "$1" 2>/dev/null | grep -q needs_recovery; then echo "needs recovery"; else echo "clean"; fi
}
errors() {
  local n
  n=$(dumpe2fs -h "$1" 2>/dev/null | sed -n 's/^FS Error count: *//p')
  echo "error records: ${n:-none}"
}

for dev in /dev/sda1 /dev/sda2 /dev/mapper/vg--safe-lv_dirty /dev/mapper/vg--safe-lv_corrupt; do
  echo "== $dev"
  echo "before: $(journal "$dev"), $(errors "$dev")"
  before=$(sha256sum <"$dev")
  "$FSIC_ICL_SCENARIO" add "$dev" /hello.txt /victim.txt
  echo "status $?"
  after=$(sha256sum <"$dev")
  echo "<3>mount-safety: $dev sha256 before ${before%% *} after ${after%% *}" >/dev/kmsg
  if [[ $before == "$after" ]]; then echo "device unchanged"; else echo "device CHANGED"; fi
  echo "after: $(journal "$dev"), $(errors "$dev")"
done
echo "== afterwards"
echo "entries left in /tmp: $(tmp_entries)"
echo "mounts under /tmp: $(tmp_mounts)"
echo "loop devices bound: $(losetup -n -O NAME | wc -l)"
