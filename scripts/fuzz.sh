#!/usr/bin/env bash
# Builds the libFuzzer targets (clang) and runs each for a bounded time
# (FUZZ_SECONDS, default 30) from its seed corpus in fuzz/corpus/<target>.
# A crash fails the run. Prints one summary line per target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
seconds=${FUZZ_SECONDS:-30}

cmake --preset fuzz >/dev/null
targets=$(cd fuzz && ls fuzz_*.cpp 2>/dev/null | sed 's/\.cpp$//' | tr '\n' ' ')
if [ -z "$targets" ]; then
    echo "fuzz       no fuzz targets"
    exit 0
fi
# shellcheck disable=SC2086
cmake --build --preset fuzz --target $targets
status=0
for target in build/fuzz/fuzz/fuzz_*; do
    [ -x "$target" ] || continue
    name=$(basename "$target")
    corpus_seed="fuzz/corpus/${name#fuzz_}"
    work=$(mktemp -d)
    [ -d "$corpus_seed" ] && cp -r "$corpus_seed/." "$work/"
    log=$(mktemp)
    if "$target" "$work" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="${FUZZ_ARTIFACTS:-/tmp}/${name}-" >"$log" 2>&1; then
        execs=$(grep -m1 'stat::number_of_executed_units' "$log" | awk '{print $2}')
        printf '%-10s %-28s %s executions in %ss, no crash\n' fuzz "$name" "${execs:-?}" "$seconds"
    else
        printf '%-10s %-28s CRASH\n' fuzz "$name"
        tail -40 "$log"
        status=1
    fi
    rm -rf "$work"
done
exit $status
