#!/bin/bash
# Lists the block devices that are not virtual (loop, dm, ram, ...): none here.
count=0
echo "non-virtual block devices:"
for entry in /sys/class/block/*; do
  [[ -e $entry ]] || continue
  path=$(readlink -f "$entry")
  [[ $path == /sys/devices/virtual/* ]] && continue
  echo "  ${entry##*/} $path"
  count=$((count + 1))
done
echo "count: $count"
