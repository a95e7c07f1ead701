#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing and builds the library,
# the driver and the tools in the release configuration.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --guest
cmake --preset release >/dev/null
cmake --build --preset release
echo "built: build/release/libfsic.so, build/release/libfsic.a"
