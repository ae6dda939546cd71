#!/usr/bin/env bash
# Runs the whole test suite under AddressSanitizer + UndefinedBehaviorSanitizer
# and again under ThreadSanitizer (the port services streams from a DPC thread,
# so every stream test is a concurrency test). Prints one summary line each.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

summary() { printf '%-10s %s\n' "$1" "$2"; }

cmake --preset asan >/dev/null
cmake --build --preset asan
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
asan_log=$(mktemp)
ctest --preset asan -j"$(nproc)" | tee "$asan_log"
summary "asan+ubsan" "$(grep -E 'tests passed|tests failed' "$asan_log" | tail -1)"

cmake --preset tsan >/dev/null
cmake --build --preset tsan
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
tsan_log=$(mktemp)
ctest --preset tsan -j"$(nproc)" | tee "$tsan_log"
summary "tsan" "$(grep -E 'tests passed|tests failed' "$tsan_log" | tail -1)"
