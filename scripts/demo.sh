#!/usr/bin/env bash
# Sets up, builds and runs mme-sim on its built-in default device.
# Arguments are passed to mme-sim (see mme-sim --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target mme-sim
exec build/default/tools/mme-sim "$@"
