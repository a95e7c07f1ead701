#!/bin/bash
# The same machine with LVM unusable: no `lvm` program on the driver's PATH.
exec env PATH=/nonexistent "$FSIC_DRIVER"
