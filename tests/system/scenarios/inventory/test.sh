#!/bin/bash
# Prints what the inventory reads about every block device, and LVM's view of the
# volume groups. Shell built-ins where possible: every program started costs time
# in the emulated machine.
set -euo pipefail

# attr FILE: a sysfs attribute, "-" when the device has none.
attr() { if [[ -r $1 ]]; then echo "$(<"$1")"; else echo -; fi; }

for entry in /sys/class/block/*; do
  path=$(cd -P "$entry" && pwd)
  echo "== ${entry##*/}"
  echo "sysfs=$path"
  if [[ $path == /sys/devices/virtual/* ]]; then echo "virtual=yes"; else echo "virtual=no"; fi
  echo "removable=$(attr "$path/removable")"
  echo "partition=$(attr "$path/partition")"
  declare -A prop=()
  while IFS='=' read -r key value; do
    prop[$key]=$value
  done < <(udevadm info --query=property --path="$path")
  for key in ID_SERIAL_SHORT ID_SERIAL ID_FS_TYPE ID_FS_UUID DEVNAME; do
    echo "$key=${prop[$key]:--}"
  done
  unset prop
  if [[ -e $path/dm/name ]]; then echo "dm/name=$(<"$path/dm/name")"; fi
done

echo "== vgs"
vgs --noheadings --nameprefixes -o vg_name,pv_count,lv_count --sort vg_name | sed 's/^ *//'
echo "== lvs"
lvs --noheadings --nameprefixes --units m -o vg_name,lv_name,lv_active,lv_size \
  --sort vg_name,lv_name | sed 's/^ *//'
