#!/bin/bash
# The driver's report of a machine with disks of every kind and two LVM groups.
exec "$FSIC_DRIVER"
