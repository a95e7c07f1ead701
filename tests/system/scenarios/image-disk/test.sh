#!/bin/bash
# The driver's image-disk and mount scenarios on a machine whose second disk stores a
# service-console disk image, the disk list with that image added (its partitions
# identified and mounted), the same while udev lags behind, removal of an image while
# its partition is held, and the two mount scenarios driven through their standard
# input. After each step: no loop device attached, nothing mounted under /tmp, nothing
# left in /tmp.
set -u
source "$FSIC_SCENARIO_CHECKS"
shopt -s extglob
prog=$FSIC_IMAGE_DISK
vmdk=/esxconsole-4d419ba4-033a-75af-64ae-000c2917e0bf/esxconsole-flat.vmdk

# The mount line of a directory: device, file system type and options.
mount_of() {
  local dev dir type opts rest
  while read -r dev dir type opts rest; do
    if [[ $dir == "$1" ]]; then
      # A read-only loop device names the device it lies over.
      local backing=/sys/block/${dev#/dev/}/loop/backing_file
      [[ $dev == /dev/loop* && -e $backing ]] && dev="$dev over $(<"$backing")"
      echo "$dev $type $opts"
      return
    fi
  done </proc/self/mounts
  echo "not mounted"
}

# A mount directory with the base directory's name (date, time and pid) replaced.
anonymous() {
  if [[ $1 =~ ^/tmp/fs\.[0-9]{17}\.[0-9]+/([a-z0-9]+)$ ]]; then
    echo "/tmp/fs.<stamp>.<pid>/${BASH_REMATCH[1]}"
  else
    echo "unexpected directory: $1"
  fi
}

# wait_unmounted DIR: up to 10 s until DIR is no mount point any more.
wait_unmounted() {
  local i
  for ((i = 0; i < 200; i++)); do
    [[ $(mount_of "$1") == "not mounted" ]] && return 0
    sleep 0.05
  done
  return 1
}

# wait_bound FILE: up to 10 s until a loop device holds a file whose name ends in FILE.
wait_bound() {
  local i f
  for ((i = 0; i < 1000; i++)); do
    for f in /sys/block/loop*/loop/backing_file; do
      [[ -e $f && $(<"$f") == *"$1" ]] && return 0
    done
    sleep 0.01
  done
  return 1
}

step "test_image_disk"
"$prog" image-disk
echo "status $?"
afterwards

step "the image in the disk list"
"$prog" report test "$vmdk"
echo "status $?"
afterwards

# udev held up while the image is bound: the partitions are read only once udev has
# handled their events, not while their udev records do not exist yet.
step "the image in the disk list while udev lags behind"
udevd=$(pidof systemd-udevd)
kill -STOP $udevd
"$prog" report test "$vmdk" &
report_pid=$!
wait_bound "$vmdk" || echo "the image was not bound"
sleep 0.2
kill -CONT $udevd
wait "$report_pid"
echo "status $?"
afterwards

step "removal while a partition is held"
"$prog" hold test "$vmdk"
echo "status $?"
afterwards

step "test_mount"
coproc MOUNT { "$prog" mount; }
mount_pid=$MOUNT_PID
read -r -u "${MOUNT[0]}" line1
read -r -u "${MOUNT[0]}" line2
dir1=${line1#*: } dir2=${line2#*: }
echo "printed: ${line1%%: *}: $(anonymous "$dir1")"
echo "printed: ${line2%%: *}: $(anonymous "$dir2")"
echo "mounted: $(mount_of "$dir1"); $(mount_of "$dir2")"
echo "same base directory: $([[ ${dir1%/*} == "${dir2%/*}" ]] && echo yes || echo no)"
echo "partition 1: $(<"$dir1/one.txt")"
echo "partition 2: $(<"$dir2/two.txt")"
printf x >&"${MOUNT[1]}"
wait_unmounted "$dir2" || echo "partition 2 still mounted"
echo "after one character: partition 2 $(mount_of "$dir2"), partition 1 $(mount_of "$dir1")"
echo "directory of partition 2 left: $([[ -e $dir2 ]] && echo yes || echo no)"
printf x >&"${MOUNT[1]}"
wait "$mount_pid"
echo "status $?"
afterwards

step "test_mount2"
coproc MOUNT2 { "$prog" mount2; }
mount2_pid=$MOUNT2_PID
dir=
for ((i = 0; i < 200 && ${#dir} == 0; i++)); do
  while read -r d mp rest; do
    [[ $mp == /tmp/fs.* ]] && dir=$mp
  done </proc/self/mounts
  ((${#dir})) || sleep 0.05
done
echo "held: $(anonymous "$dir"): $(mount_of "$dir")"
printf x >&"${MOUNT2[1]}"
wait "$mount2_pid"
echo "status $?"
afterwards
