#!/bin/bash
# vg-fault/lv_one (ext4) on partition 2, active; the loop driver as a stock system loads it.
set -euxo pipefail
modprobe dm_mod
modprobe loop
pvcreate --norestorefile --uuid PVflt0-0000-0000-0000-0000-0000-000001 /dev/vda2
vgcreate vg-fault /dev/vda2
lvcreate -n lv_one -L 8m vg-fault
mkfs.ext4 -q -L one -U 0b1c2d3e-5301-4a5b-8c6d-7e8f90a1b2c1 /dev/vg-fault/lv_one
