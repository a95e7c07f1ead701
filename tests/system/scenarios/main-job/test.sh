#!/bin/bash
# The main job: fsic on a machine whose disks are real to its kernel (the command
# scenario's machine: a partition of a disk with a serial holding a disk image, a
# whole-disk file system without a serial, an LVM volume). The volumes, a keyed
# baseline, a change made behind fsic's back, the check that finds it.
source "$FSIC_SCENARIO_CHECKS"
F=$FSIC
mkdir -p /run/fsic /run/m
cd /run/fsic
show() { echo "\$ $*"; "$@"; echo "(exit status $?)"; echo; }

fsic() { "$F" "$@"; }
show fsic volumes
cat > policy <<'P'
image win part:CMD-SER-1:1 /images/disk.img
[part:CMD-SER-1:1]
file /bin/tool data attrs
dir  /etc each-file recursive data attrs
[image:win:1]
dir  /WINDOWS/system32 each-file data attrs mask=*.dll mask=*.exe
[dev:/dev/vdb]
dir  /data each-file data attrs
[lvm:vg-cmd/lv_data]
dir  /srv recursive data attrs
P
echo "\$ cat policy"; cat policy; echo
show fsic keygen --key key
show fsic init --policy policy --db db --key key
show fsic check --db db --key key
echo "# behind fsic's back: /etc/hosts of part:CMD-SER-1:1 gets a line, /data/notes.txt"
echo "# of the whole disk goes"
mount /dev/vda1 /run/m && printf '10.0.0.1 evil\n' >> /run/m/etc/hosts &&
  touch -d @1800000000 /run/m/etc/hosts && umount /run/m
mount /dev/vdb /run/m && rm /run/m/data/notes.txt &&
  touch -d @1800000000 /run/m/data && umount /run/m
echo
show fsic check --db db --key key
show fsic update --db db --key key --accept /etc/hosts -q
show fsic check --db db --key key
