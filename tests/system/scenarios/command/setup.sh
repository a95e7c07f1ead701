#!/bin/bash
# vg-cmd/lv_data (ext4) with two files of 2 MiB and a small one, fixed attributes.
set -euxo pipefail
modprobe dm_mod
pvcreate --norestorefile --uuid PVcmd0-0000-0000-0000-0000-0000-000003 /dev/disk/by-id/virtio-CMD-PV-3
vgcreate vg-cmd /dev/disk/by-id/virtio-CMD-PV-3
lvcreate -n lv_data -L 24m vg-cmd
mkfs.ext4 -q -L data -U 0b1c2d3e-8401-4a5b-8c6d-7e8f90a1b2c1 /dev/vg-cmd/lv_data
mkdir -p /run/setup-data
mount /dev/vg-cmd/lv_data /run/setup-data
mkdir /run/setup-data/srv
head -c 2097152 /dev/zero | tr '\0' 'a' > /run/setup-data/srv/big-1
head -c 2097152 /dev/zero | tr '\0' 'b' > /run/setup-data/srv/big-2
printf 'small\n' > /run/setup-data/srv/small
chown -R 0:0 /run/setup-data/srv
chmod 0644 /run/setup-data/srv/*
touch -d @1700000000 /run/setup-data/srv/* /run/setup-data/srv /run/setup-data
umount /run/setup-data
