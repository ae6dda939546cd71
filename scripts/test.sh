#!/usr/bin/env bash
# Sets up, builds and runs every test of the host build.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default
cmake --build --preset default
ctest --preset default -j"$(nproc)"
