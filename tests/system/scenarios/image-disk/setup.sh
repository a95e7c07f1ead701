#!/bin/bash
# Loop devices that scan partition tables (module autoloading is off in the guest).
set -euxo pipefail
modprobe loop max_part=15
