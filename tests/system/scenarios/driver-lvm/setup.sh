#!/bin/bash
# vg-data/lv_home (ext4) holding the file /test with fixed attributes.
set -euxo pipefail
modprobe dm_mod
pvcreate --norestorefile --uuid PVdrv0-0000-0000-0000-0000-0000-000001 /dev/vda1
vgcreate vg-data /dev/vda1
lvcreate -n lv_home -L 16m vg-data
mkfs.ext4 -q -L home -U 0b1c2d3e-4201-4a5b-8c6d-7e8f90a1b2c1 /dev/vg-data/lv_home
mkdir -p /run/setup-home
mount /dev/vg-data/lv_home /run/setup-home
printf 'home test file\n' > /run/setup-home/test
chmod 0640 /run/setup-home/test
chown 1000:100 /run/setup-home/test
touch -d @1710504000 /run/setup-home/test
umount /run/setup-home
