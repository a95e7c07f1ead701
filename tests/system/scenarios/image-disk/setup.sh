#!/bin/bash
# The loop driver as a stock system loads it (module autoloading is off in the guest):
# max_part 0, the library asks for partition scanning itself.
set -euxo pipefail
modprobe loop
