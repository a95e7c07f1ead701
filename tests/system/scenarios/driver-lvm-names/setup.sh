#!/bin/bash
set -euxo pipefail
modprobe dm_mod
pvcreate --norestorefile --uuid PVname-0000-0000-0000-0000-0000-000001 /dev/disk/by-id/virtio-NAMES-1
pvcreate --norestorefile --uuid PVaoff-0000-0000-0000-0000-0000-000002 /dev/disk/by-id/virtio-NAMES-2
vgcreate my-vg /dev/disk/by-id/virtio-NAMES-1
vgcreate all-off /dev/disk/by-id/virtio-NAMES-2
lvcreate -n my-lv -L 8m my-vg
lvcreate -n x--y -L 4m my-vg
lvcreate -an -Zn -n off-1 -L 4m all-off
lvcreate -an -Zn -n off-2 -L 4m all-off
