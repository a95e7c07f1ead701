#!/bin/bash
# No disks at all and no volume groups.
exec "$FSIC_DRIVER"
