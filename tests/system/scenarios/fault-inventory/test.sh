#!/bin/bash
# Allocation failures in the block-device inventory: the disk list, the LVM groups and an
# image disk with their own allocations failing in turn, an allocation failing inside
# GLib, a storing volume that does not mount, a udev that does not settle and a PATH
# without lvm. After each step: no loop device attached, nothing mounted under /tmp,
# nothing left in /tmp.
set -u
source "$FSIC_SCENARIO_CHECKS"
prog=$FSIC_FAULT_INVENTORY

run() { "$prog" "$@"; echo "status $?"; afterwards; }

step "the disk list"
run create
step "the LVM groups"
run lvm
step "the image disk"
run image
step "an allocation inside GLib"
run glib
step "a storing volume of a wrong type"
run wrong-type

# udev stopped, with its queue marked busy: the image is attached, udev does not settle
# (8), and the loop device is detached again.
step "udev does not settle"
udevd=$(pidof systemd-udevd)
kill -STOP $udevd
: >/run/udev/queue
run image-once
rm -f /run/udev/queue
kill -CONT $udevd
settle
afterwards

step "no lvm on PATH"
PATH=/nonexistent "$prog" lvm-once
echo "status $?"
afterwards
