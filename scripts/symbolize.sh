#!/usr/bin/env bash
# Turns offsets in the driver image into functions and source lines:
#
#   scripts/symbolize.sh [--image FILE.sys] OFFSET...
#
# OFFSET is what a crash dump or a debugger shows for the module:
# mmeusbaudio+0x1a2b, mmeusbaudio.sys+1a2b or just 0x1a2b (an offset from
# the image's base). The image (default build/windows/windows/mmeusbaudio.sys,
# or the signed copy in the package) must be the stripped twin of the
# unstripped image the build keeps beside it: both carry the same CodeView
# debug directory (GUID and age), and a mismatch is refused. Inlined calls
# are printed innermost first, as the compiler recorded them.
set -euo pipefail
cd "$(dirname "$0")/.."

TRIPLET=x86_64-w64-mingw32
image=${MME_WINDOWS_BUILD_DIR:-build/windows}/windows/mmeusbaudio.sys
offsets=()
while [ $# -gt 0 ]; do
    case "$1" in
    --image) image=$2; shift 2 ;;
    -*) echo "usage: scripts/symbolize.sh [--image FILE.sys] OFFSET..." >&2; exit 2 ;;
    *) offsets+=("$1"); shift ;;
    esac
done
[ "${#offsets[@]}" -gt 0 ] || { echo "usage: scripts/symbolize.sh [--image FILE.sys] OFFSET..." >&2; exit 2; }

# The unstripped image of a build lies beside its .sys; a packaged copy
# points back to the build that made it.
debug=$(dirname "$image")/mmeusbaudio.unstripped.sys
[ -f "$debug" ] || debug=${MME_WINDOWS_BUILD_DIR:-build/windows}/windows/mmeusbaudio.unstripped.sys
for f in "$image" "$debug"; do
    [ -f "$f" ] || { echo "symbolize: $f not found (build the windows preset)" >&2; exit 1; }
done

build_id() { # the RSDS signature and age of the image's debug directory
    "$TRIPLET-objdump" -p "$1" | sed -n 's/.*format RSDS signature \([0-9a-f]*\) age \([0-9]*\).*/\1 \2/p'
}
id=$(build_id "$image")
if [ -z "$id" ]; then
    echo "symbolize: $image has no CodeView debug directory" >&2
    exit 1
elif [ "$id" != "$(build_id "$debug")" ]; then
    echo "symbolize: $image (build id $id) is not the link that made $debug" >&2
    exit 1
fi

base=$("$TRIPLET-objdump" -p "$debug" | awk '$1 == "ImageBase" { print $2 }')
status=0
for offset in "${offsets[@]}"; do
    hex=${offset##*+}
    hex=${hex#0x}
    if ! [[ "$hex" =~ ^[0-9a-fA-F]+$ ]]; then
        echo "symbolize: $offset is not an offset" >&2
        status=1
        continue
    fi
    address=$(printf '0x%x' $((16#$base + 16#$hex)))
    frames=$("$TRIPLET-addr2line" -f -C -i -p -e "$debug" "$address" | sed 's| at \./| at |')
    if grep -q '^??' <<<"$frames"; then
        echo "mmeusbaudio+0x$hex: not in the driver's code"
        status=1
    else
        sed "1s|^|mmeusbaudio+0x$hex: |; 2,\$s|^ *(inlined by) |    inlined into |" <<<"$frames"
    fi
done
exit $status
