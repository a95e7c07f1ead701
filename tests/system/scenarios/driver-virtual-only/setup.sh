#!/bin/bash
# Virtual block devices only: they are not disks.
set -euxo pipefail
modprobe loop max_loop=2
modprobe brd rd_nr=1 rd_size=1024
modprobe dm_mod
dmsetup create fsic-zero --table "0 2048 zero"
