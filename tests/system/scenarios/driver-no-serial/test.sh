#!/bin/bash
# A non-removable disk that udev gives no serial number.
exec "$FSIC_DRIVER"
