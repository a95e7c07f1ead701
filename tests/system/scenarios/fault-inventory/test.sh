#!/bin/bash
# Allocation failures in the block-device inventory: the disk list, the LVM groups and an
# image disk with their own allocations failing in turn, an allocation failing inside
# GLib, a storing volume that does not mount, a udev that does not settle and a PATH
# without lvm. After each step: no loop device attached, nothing mounted under /tmp,
# nothing left in /tmp.
set -u
# What is left in /tmp and mounted under it, not counting the build tree that the harness
# shares at its own path when it lives under /tmp.
tmp_entries() {
  local n=0 e
  for e in /tmp/* /tmp/.[!.]* /tmp/..?*; do
    [[ -e $e || -L $e ]] || continue
    [[ -n ${BUILD_DIR:-} && $BUILD_DIR/ == "$e"/* ]] && continue
    n=$((n + 1))
  done
  echo "$n"
}
tmp_mounts() {
  awk -v b="${BUILD_DIR:-}" '$2 ~ "^/tmp/" && $2 != b { n++ } END { print n + 0 }' /proc/self/mounts
}
prog=$FSIC_FAULT_INVENTORY

# Each step is announced on stdout and stderr alike, so that error lines can be told
# apart.
step() { echo "== $*"; echo "== $*" >&2; }

afterwards() {
  local name file loops=()
  while read -r name file; do loops+=("$name $file"); done < <(losetup -n -l -O NAME,BACK-FILE | sort)
  echo "-- loop devices attached: ${loops[*]:-none}"
  echo "-- mounts under /tmp: $(tmp_mounts)"
  echo "-- entries in /tmp: $(tmp_entries)"
}

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
udevadm settle
afterwards

step "no lvm on PATH"
PATH=/nonexistent "$prog" lvm-once
echo "status $?"
afterwards
