#!/usr/bin/env bash
# Builds the libFuzzer targets (clang) and runs each for a bounded time
# from its seed corpus in fuzz/corpus/<target>. A crash fails the run and
# leaves the input in $FUZZ_ARTIFACTS (default /tmp). Prints one summary
# line per target.
#   scripts/fuzz.sh [--seconds N] [TARGET...]
# N defaults to FUZZ_SECONDS, else 30 (CI); a nightly run gives 1800 or
# more. TARGET: fuzz_device_life and the like; all of them by default.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-30}
targets=""
while [ $# -gt 0 ]; do
    case "$1" in
    --seconds)
        seconds=${2:?--seconds needs a number}
        shift 2
        ;;
    -*)
        echo "usage: scripts/fuzz.sh [--seconds N] [TARGET...]" >&2
        exit 2
        ;;
    *)
        targets="$targets ${1%.cpp}"
        shift
        ;;
    esac
done
case "$seconds" in
'' | *[!0-9]*)
    echo "scripts/fuzz.sh: --seconds takes a whole number, not '$seconds'" >&2
    exit 2
    ;;
esac
scripts/setup.sh

cmake --preset fuzz >/dev/null
[ -n "$targets" ] || targets=$(cd fuzz && ls fuzz_*.cpp 2>/dev/null | sed 's/\.cpp$//' | tr '\n' ' ')
for target in $targets; do
    if [ ! -f "fuzz/$target.cpp" ]; then
        echo "scripts/fuzz.sh: no fuzz target $target (fuzz/$target.cpp)" >&2
        exit 2
    fi
done
if [ -z "$targets" ]; then
    echo "fuzz       no fuzz targets"
    exit 0
fi
# shellcheck disable=SC2086
cmake --build --preset fuzz --target $targets
status=0
for name in $targets; do
    target=build/fuzz/fuzz/$name
    corpus_seed="fuzz/corpus/${name#fuzz_}"
    work=$(mktemp -d)
    [ -d "$corpus_seed" ] && cp -r "$corpus_seed/." "$work/"
    log=$(mktemp)
    if "$target" "$work" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="${FUZZ_ARTIFACTS:-/tmp}/${name}-" >"$log" 2>&1; then
        execs=$(grep -m1 'stat::number_of_executed_units' "$log" | awk '{print $2}')
        cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | awk '{print $2}')
        printf '%-10s %-28s %s executions in %ss, %s edges covered, no crash\n' fuzz "$name" \
            "${execs:-?}" "$seconds" "${cov:-?}"
    else
        printf '%-10s %-28s CRASH\n' fuzz "$name"
        tail -40 "$log"
        status=1
    fi
    rm -rf "$work"
done
exit $status
