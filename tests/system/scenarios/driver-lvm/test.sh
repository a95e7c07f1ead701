#!/bin/bash
# The driver's LVM scenario on lv_home holding /test, then every scenario's way out
# when the machine lacks what it needs: a partition without a file system, no
# partition 5, no /test, no active volume, no group, a single disk with a single
# partition, no disk at all. Each step is announced on stdout and stderr alike, so
# that the error lines can be told apart. After each step nothing is mounted under
# /tmp and nothing is left there.
set -u
source "$FSIC_SCENARIO_CHECKS"
shopt -s nullglob
prog=$FSIC_IMAGE_DISK

afterwards() {
  echo "-- mounts under /tmp: $(tmp_mounts)," \
    "entries in /tmp: $(tmp_entries)"
}
run() { "$prog" "$@" </dev/null; echo "status $?"; afterwards; }

step "test_lvm"
run lvm
step "test_mount: partition 2 has no file system"
run mount
step "test_mount2: no partition 5 on the second disk"
run mount2
step "test_image_disk: no partition 5 on the second disk"
run image-disk

step "test_lvm: /test removed"
mkdir -p /run/home
mount /dev/vg-data/lv_home /run/home && rm /run/home/test && umount /run/home
run lvm
step "test_lvm: lv_home inactive"
vgchange -q -an vg-data >/dev/null
run lvm
step "test_lvm: no volume group"
vgremove -q -f vg-data >/dev/null
run lvm

step "one disk with one partition left"
echo 1 >/sys/block/sda/device/delete
settle
echo "disks: $(cd /sys/block && echo vd* sd*)"
run mount
run image-disk
step "no disk left"
virtio=$(readlink /sys/block/vda/device)
echo "${virtio##*/}" >/sys/bus/virtio/drivers/virtio_blk/unbind
settle
echo "disks: $(cd /sys/block && echo vd* sd*)"
run mount
run image-disk
