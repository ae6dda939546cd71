#!/usr/bin/env bash
# How fast mme-sim's loopback runs in virtual time, in audio seconds per CPU
# second, and how much memory it takes, at the default format and at the
# default device's widest one. A benchmark, not a test: run it on an
# otherwise idle machine. CI does not run it.
#
#   bench/soak-bench.sh [path/to/mme-sim]    (default build/default/tools/mme-sim)
#
# Prints one line per format against its target and exits non-zero when a
# target is missed. The port's service drained at the end of each period is
# what the targets apply to; with a concurrent service the figure is printed
# without a target.
set -euo pipefail
cd "$(dirname "$0")/.."
sim=${1:-build/default/tools/mme-sim}
[ -x "$sim" ] || { echo "soak-bench: $sim not built (cmake --build --preset default --target mme-sim)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "soak-bench: needs /usr/bin/time (scripts/setup.sh installs it)" >&2; exit 1; }

memory_limit_kb=$((64 * 1024))
failed=0

# run FORMAT SECONDS [EXTRA...] -> "cpu_seconds max_rss_kb" on stdout
run() {
    local format=$1 seconds=$2
    shift 2
    local log
    log=$(mktemp)
    if ! /usr/bin/time -f '%U %S %M' -o "$log" "$sim" --format "$format" "$@" loopback \
        --seconds "$seconds" >"$log.out" 2>&1 || ! grep -q 'PASS: bit-exact' "$log.out"; then
        cat "$log.out" >&2
        rm -f "$log" "$log.out"
        echo "soak-bench: the loopback at $format did not pass" >&2
        return 1
    fi
    awk '{ printf "%.3f %d\n", $1 + $2, $3 }' "$log"
    rm -f "$log" "$log.out"
}

measure() {
    local format=$1 seconds=$2 target=$3
    read -r cpu rss < <(run "$format" "$seconds")
    local ratio verdict
    ratio=$(awk -v s="$seconds" -v c="$cpu" 'BEGIN { printf "%.0f", (c > 0 ? s / c : 1e9) }')
    verdict=ok
    if [ "$ratio" -lt "$target" ] || [ "$rss" -gt "$memory_limit_kb" ]; then
        verdict=MISSED
        failed=1
    fi
    printf 'soak %-12s %6d s audio in %7.2f s CPU = %6dx real time (target %dx), max RSS %d MB (target < 64 MB): %s\n' \
        "$format" "$seconds" "$cpu" "$ratio" "$target" "$((rss / 1024))" "$verdict"
}

measure 48000/2/24 600 1000
measure 192000/8/24 120 100

# The port's service on a concurrent thread, when this build has one.
if "$sim" --help 2>&1 | grep -q -- '--port-service'; then
    read -r cpu rss < <(run 192000/8/24 120 --port-service concurrent)
    awk -v c="$cpu" 'BEGIN { printf "soak 192000/8/24 with the concurrent port service: %.0fx real time (no target)\n", 120 / c }'
else
    echo "soak with the concurrent port service: n/a (this build's port services inside the period callback)"
fi
exit $failed
