#!/usr/bin/env bash
# Sets up, builds and runs every test of the host build.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
# The image suites (CTest names "Image.*", "ImageLoader.*", "ImageProbe.*",
# "Differential.*") run the Windows build of the driver: build it first
# when the cross toolchain is here; without it they skip.
if command -v x86_64-w64-mingw32-g++-win32 >/dev/null || command -v x86_64-w64-mingw32-g++ >/dev/null; then
    cmake --preset windows
    cmake --build --preset windows
fi
cmake --preset default
cmake --build --preset default
ctest --preset default -j"$(nproc)"
