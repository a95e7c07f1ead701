#!/bin/bash
# Two ext4 file systems on real partitions and two on LVM volumes: one of each pair with
# a journal that needs recovery (the device is imaged while the file system is mounted
# read-write, as a crash leaves it, and the image is written back), the other with a
# corrupt inode (victim.txt's extent header broken with debugfs).
set -euxo pipefail
modprobe dm_mod
pvcreate --norestorefile --uuid PVsaf0-0000-0000-0000-0000-0000-000001 /dev/vda1
vgcreate vg-safe /dev/vda1
lvcreate -n lv_dirty -L 16m vg-safe
lvcreate -n lv_corrupt -L 16m vg-safe

mnt=/run/setup-mnt
mkdir -p $mnt

fill() {
  printf 'hello\n' >$mnt/hello.txt
  head -c 20000 /dev/zero | tr '\0' v >$mnt/victim.txt
}

make_dirty() {
  mkfs.ext4 -q -U "$2" "$1"
  mount "$1" $mnt
  fill
  sync -f $mnt/hello.txt
  printf 'written before the crash\n' >$mnt/after.txt
  sync -f $mnt/after.txt
  dd if="$1" of=/run/dirty.img bs=1M status=none
  umount $mnt
  dd if=/run/dirty.img of="$1" bs=1M conv=fsync status=none
  rm /run/dirty.img
  dumpe2fs -h "$1" 2>/dev/null | grep -q needs_recovery
}

make_corrupt() {
  mkfs.ext4 -q -U "$2" "$1"
  mount "$1" $mnt
  fill
  umount $mnt
  debugfs -w -R "set_inode_field /victim.txt block[0] 0" "$1"
}

make_dirty /dev/sda1 0b1c2d3e-6101-4a5b-8c6d-7e8f90a1b2c1
make_corrupt /dev/sda2 0b1c2d3e-6102-4a5b-8c6d-7e8f90a1b2c2
make_dirty /dev/vg-safe/lv_dirty 0b1c2d3e-6201-4a5b-8c6d-7e8f90a1b2c1
make_corrupt /dev/vg-safe/lv_corrupt 0b1c2d3e-6202-4a5b-8c6d-7e8f90a1b2c2
