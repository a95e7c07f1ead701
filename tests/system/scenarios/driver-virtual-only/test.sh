#!/bin/bash
# Loop, RAM and device-mapper devices are left out: the report is the heading alone.
echo "block devices:" /sys/class/block/*
exec "$FSIC_DRIVER"
