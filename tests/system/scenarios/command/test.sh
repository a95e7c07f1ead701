#!/bin/bash
# fsic end to end: volumes, a keyed init over a partition, an image partition, a
# whole-disk file system without a serial and an LVM volume; tampering, check, selective
# and full update, compare, show; refused databases and keys; a held lock; SIGTERM and
# SIGKILL in the middle of an update.
source "$FSIC_SCENARIO_CHECKS"
F=$FSIC
W=/run/fsic
mkdir -p $W /run/m
cd $W

# Times and run lengths vary: the reports' are replaced by fixed words.
normalize() {
  sed -E 's/"(database_created|new_database_created|start_time)": "[0-9TZ:-]+"/"\1": "TIME"/g
          s/"run_time_seconds": [0-9.]+/"run_time_seconds": SECONDS/
          s/written [0-9TZ:-]+ on [^,]*,/written TIME on HOST,/'
}
run() { "$@"; echo "-- exit $?"; }
sum() { sha256sum "$1" | cut -c1-16; }
wait_for() { # wait_for SECONDS COMMAND...: until the command succeeds
  local end=$((SECONDS + $1)); shift
  until "$@"; do ((SECONDS < end)) || return 1; sleep 0.05; done
}
no_loops() { [[ -z $(losetup -n -l) ]]; }

step "the volumes"
run $F volumes
run $F volumes --json

step "a key, never overwritten"
run $F keygen --key $W/key
stat -c '%a %s' $W/key
run $F keygen --key $W/key

step "a policy with an error names its line; nothing is written"
printf '[part:CMD-SER-1:1]\nfile /bin/tool data attrs\ndir /etc each-fiel\n' > bad.policy
run $F init --policy bad.policy --db $W/db --key $W/key
ls $W

step "a selector that matches nothing names its line"
printf '[part:NO-SUCH:1]\nfile /x data\n' > none.policy
run $F init --policy none.policy --db $W/db --key $W/key

step "init"
cat > policy <<'P'
image win part:CMD-SER-1:1 /images/disk.img
[part:CMD-SER-1:1]
file /bin/tool data attrs
dir  /etc each-file recursive data attrs
[image:win:1]
dir  /WINDOWS/system32 each-file data attrs mask=*.dll mask=*.exe
[dev:/dev/vdb]                   # the whole disk without a serial: kept as uuid:
dir  /data each-file data attrs
[lvm:vg-cmd/lv_data]
dir  /srv recursive data attrs   # one hash over the directory
P
run $F init --policy policy --db $W/db --key $W/key --no-progress
run $F init --policy policy --db $W/db --key $W/key
stat -c '%a' $W/db
afterwards

step "show"
$F show --db $W/db --key $W/key | normalize
echo "-- exit ${PIPESTATUS[0]}"
$F show --db $W/db --key $W/key --json | normalize
echo "-- exit ${PIPESTATUS[0]}"

step "a volume selected by where the running system mounts it is kept by its own name"
mount -o ro /dev/vda1 /run/m
printf '[mount:/run/m]\nfile /etc/passwd data\n[mount:/nowhere] optional\nfile /x data\n' > mount.policy
run $F init --policy mount.policy --db $W/db.mount --no-key
umount /run/m
$F show --db $W/db.mount --no-key | normalize

step "check: nothing changed"
run $F check --db $W/db --key $W/key
cp $W/db $W/db.first

step "tamper: content, chmod, chown, touch, add, remove, a file replaced by a directory"
mount /dev/vda1 /run/m
printf '10.0.0.1 evil\n' >> /run/m/etc/hosts
touch -d @1800000000 /run/m/etc/hosts
chmod 0600 /run/m/etc/passwd
chown 1000:1000 /run/m/bin/tool
touch -d @1800000100 /run/m/etc/app.conf
printf 'new = 1\n' > /run/m/etc/sub/new.conf
touch -d @1800000200 /run/m/etc/sub/new.conf
rm /run/m/etc/sub/b.conf
rm /run/m/etc/replaced
mkdir /run/m/etc/replaced
printf 'inside\n' > /run/m/etc/replaced/inside
touch -d @1800000300 /run/m/etc/replaced/inside /run/m/etc/replaced /run/m/etc/sub /run/m/etc
umount /run/m
mount /dev/vdb /run/m
rm /run/m/data/notes.txt
touch -d @1800000400 /run/m/data
umount /run/m

step "check --json reports exactly that"
$F check --db $W/db --key $W/key --json | normalize
echo "-- exit ${PIPESTATUS[0]}"

step "check, as text"
run $F check --db $W/db --key $W/key

step "update --accept one path, then check again"
run $F update --db $W/db --key $W/key --accept /etc/hosts -q
run $F check --db $W/db --key $W/key -q
$F check --db $W/db --key $W/key --json | normalize | grep -c '"path": "/etc/hosts"'

step "update --accept on a volume that has no such change"
run $F update --db $W/db --key $W/key --accept /etc/passwd --volume image:win:1 -q

step "update everything, then nothing differs"
run $F update --db $W/db --key $W/key -q
run $F check --db $W/db --key $W/key

step "compare the first database with the new one"
$F compare $W/db.first $W/db --key $W/key --json | normalize
echo "-- exit ${PIPESTATUS[0]}"

step "a tampered database, a wrong key, no key, a short file"
cp $W/db $W/db.bad
at=$(($(stat -c %s $W/db) - 40))   # a byte of the integrity list: one bit flipped
byte=$(od -An -tu1 -j $at -N1 $W/db)
printf "\\x$(printf %02x $((byte ^ 1)))" | dd of=$W/db.bad bs=1 seek=$at conv=notrunc status=none
run $F check --db $W/db.bad --key $W/key -q
$F keygen --key $W/other
run $F check --db $W/db --key $W/other -q
run $F check --db $W/db --no-key -q
head -c 20 $W/db > $W/db.short
run $F check --db $W/db.short --key $W/key -q
printf 'NOTADB' > $W/db.magic
run $F show --db $W/db.magic --no-key
chmod 0640 $W/key
run $F check --db $W/db --key $W/key -q
chmod 0600 $W/key

step "a database locked by another fsic"
exec 9>$W/db.lock
flock -n 9 || echo "the lock was not taken"
run $F update --db $W/db --key $W/key -q
exec 9>&-

# An update that is surely under way when it is killed: a database of a directory of
# large sparse files on the LVM volume, and the kill sent once fsic has them open.
step "a database that takes long to update"
mount /dev/vg-cmd/lv_data /run/m
mkdir /run/m/slow
truncate -s 32M /run/m/slow/big-1 /run/m/slow/big-2
umount /run/m
printf '[lvm:vg-cmd/lv_data]\ndir /slow each-file data\n' > slow.policy
run $F init --policy slow.policy --db $W/slow.db --key $W/key -q
reading_big() { ls -l /proc/[0-9]*/fd/ 2>/dev/null | grep -q '/slow/big-2$'; }

step "SIGTERM in the middle of an update: 25, the old database, nothing left"
before=$(sum $W/slow.db)
rm -f progress
$F update --db $W/slow.db --key $W/key --progress -q 2>progress &
pid=$!
wait_for 60 reading_big || echo "not reading"
kill -TERM $pid
wait $pid
echo "-- exit $?"
[[ $(sum $W/slow.db) == "$before" ]] && echo "database unchanged"
ls $W | grep -c '\.new$'
wait_for 10 no_loops || echo "loop devices left"
afterwards

step "SIGKILL in the middle of an update: the old database, no mount"
rm -f progress
$F update --db $W/slow.db --key $W/key --progress -q 2>progress &
pid=$!
wait_for 60 reading_big || echo "not reading"
exec 3>&2 2>/dev/null   # without the shell's "Killed" line, which names the pid
kill -KILL $pid
wait $pid
status=$?
exec 2>&3 3>&-
echo "-- exit $status"
[[ $(sum $W/slow.db) == "$before" ]] && echo "database unchanged"
wait_for 10 no_loops || echo "loop devices left"
echo "-- mounts of fsic anywhere: $(grep -c ' /tmp/fs\.' /proc/self/mountinfo)"
echo "-- entries in /tmp after the kill: $(tmp_entries)"
echo "-- the next run removes what the killed one left"
run $F check --db $W/db --key $W/key -q
afterwards
