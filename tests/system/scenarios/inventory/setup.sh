#!/bin/bash
# Two volume groups: vg-data with an active ext4 volume and an inactive one, and
# vg-spare without volumes.
set -euxo pipefail
modprobe dm_mod
pv_data=/dev/disk/by-id/virtio-LVM-PV-4
pv_spare=/dev/disk/by-id/virtio-LVM-PV-5
# Fixed identifiers, so that udev's ID_FS_UUID of the disks is known in advance.
pvcreate --norestorefile --uuid PVdata-0000-0000-0000-0000-0000-000004 "$pv_data"
pvcreate --norestorefile --uuid PVspar-0000-0000-0000-0000-0000-000005 "$pv_spare"
vgcreate vg-data "$pv_data"
vgcreate vg-spare "$pv_spare"
lvcreate -n lv_home -L 16m vg-data
lvcreate -an -Zn -n lv-off -L 8m vg-data
mkfs.ext4 -q -L home -U 0b1c2d3e-0401-4a5b-8c6d-7e8f90a1b2c1 /dev/vg-data/lv_home
