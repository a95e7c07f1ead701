#!/bin/bash
# Loop devices in the way of image disks, on the machine of the image-disk scenario:
# loop0 taken by someone else (the storing volume's read-only mount takes loop1, the
# image loop2); two images A then B (destroying the list detaches B first); the loop driver with its default max_part of 0 (the image's
# partitions appear all the same: the library asks for partition scanning); the driver
# with two loop devices, both taken (a third is asked of loop-control). After
# each step: no loop device left attached by the program, nothing mounted under /tmp,
# nothing left in /tmp.
set -u
source "$FSIC_SCENARIO_CHECKS"
prog=$FSIC_IMAGE_DISK
vmdk=/esxconsole-4d419ba4-033a-75af-64ae-000c2917e0bf/esxconsole-flat.vmdk
plain=/images/plain.img

# Files for the loop devices taken by "someone else" (not in /tmp, which must stay
# empty).
truncate -s 1M /dev/shm/busy0.img /dev/shm/busy1.img

step "loop0 taken"
losetup /dev/loop0 /dev/shm/busy0.img
"$prog" report test "$vmdk"
echo "status $?"
afterwards
losetup -d /dev/loop0

step "two images, A then B"
"$prog" report A "$vmdk" B "$plain"
echo "status $?"
afterwards

step "the loop driver's default max_part"
rmmod loop && modprobe loop && settle
echo "loop max_part: $(</sys/module/loop/parameters/max_part)"
"$prog" report test "$vmdk"
echo "status $?"
afterwards

step "two loop devices, both taken: a third is asked for"
rmmod loop && modprobe loop max_loop=2 && settle
echo "loop devices: $(cd /sys/class/block && echo loop*)"
losetup /dev/loop0 /dev/shm/busy0.img
losetup /dev/loop1 /dev/shm/busy1.img
"$prog" report test "$vmdk"
echo "status $?"
"$prog" image-disk
echo "status $?"
afterwards
losetup -d /dev/loop0 /dev/loop1
rm /dev/shm/busy0.img /dev/shm/busy1.img
afterwards
