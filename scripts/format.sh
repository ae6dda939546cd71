#!/usr/bin/env bash
# Formats every C++ source with the repository's .clang-format.
# With --check, changes nothing and fails when a file is not formatted.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--check" ]; then
    if clang-format --dry-run --Werror "${files[@]}" 2>/dev/null; then
        echo "format     ${#files[@]} files formatted"
    else
        clang-format --dry-run "${files[@]}" 2>&1 | grep -E '^[^ ].*warning' | cut -d: -f1 | sort -u
        echo "format     files not formatted (run scripts/format.sh)"
        exit 1
    fi
else
    clang-format -i "${files[@]}"
fi
