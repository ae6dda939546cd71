#!/usr/bin/env bash
# Fails when driver code outside driver/platform/ uses a compiler-specific
# extension (GCC/Clang builtins, atomics, attributes, vector types, inline
# assembly, predefined byte-order macros), so that any Windows kernel
# compiler, cl.exe included, builds the driver. platform/ wraps what the
# driver needs of them.
set -euo pipefail
cd "$(dirname "$0")/.."
pattern='__atomic_|__sync_|__builtin_|__attribute__|vector_size|__asm__|\basm[[:space:]]*\(|__BYTE_ORDER__|__typeof__'
files=$(git ls-files 'driver/*.cpp' 'driver/*.h' ':!driver/platform' | wc -l)
if hits=$(git grep -nE "$pattern" -- 'driver/*.cpp' 'driver/*.h' ':!driver/platform'); then
    echo "$hits"
    echo "extensions $(wc -l <<<"$hits") compiler-specific uses outside driver/platform/ (see above)"
    exit 1
fi
echo "extensions none in $files driver sources outside driver/platform/"
