#!/usr/bin/env bash
# Checks the package scripts/package.sh made, the way a Windows machine would
# before installing it, as far as that can be done here:
#   - osslsigncode verifies the .sys's embedded signature, the catalog's
#     signature, and the .sys against the catalog (verify -catalog);
#   - scripts/package-verify.py, written apart from tools/make-catalog,
#     recomputes every member digest (the .sys's Authenticode digest, the
#     INF's plain one, SHA-1 and SHA-256) and the signed image's CheckSum;
#   - a copy of the .sys and a copy of the INF with one byte changed are
#     refused, each by name (osslsigncode cannot read an INF: the second
#     reading refuses that one);
#   - the signed image still loads and runs on the host (mme-sim --driver);
#   - scripts/symbolize.sh turns an offset in DriverEntry into DriverEntry
#     and a line of its definition.
# Ends with "package-check: N passed, M failed". Exit status 1 on a failure.
set -uo pipefail
cd "$(dirname "$0")/.."

WIN_BUILD=${MME_WINDOWS_BUILD_DIR:-build/windows}
HOST_BUILD=${MME_HOST_BUILD_DIR:-build/default}
PKG=$WIN_BUILD/package
NAME=mmeusbaudio
CA=build/test-signing/$NAME-test.pem
OSSLSIGNCODE=${OSSLSIGNCODE:-osslsigncode}
passed=0 failed=0
pass() { echo "package-check: ok: $*"; passed=$((passed + 1)); }
fail() { echo "package-check: FAIL: $*"; failed=$((failed + 1)); }

[ -f "$PKG/$NAME.cat" ] || { echo "package-check: no package in $PKG (scripts/package.sh)"; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The test certificate is the trusted root here, as on the test machine;
# a package signed with a real certificate is checked against the system's.
ca_args=()
[ -f "$PKG/$NAME-test.cer" ] && ca_args+=(-CAfile "$CA")

verify() { # ARGS...: osslsigncode verify into $work/log; true only when it verified
    "$OSSLSIGNCODE" verify "${ca_args[@]}" "$@" >"$work/log" 2>&1 &&
        grep -q '^Signature verification: ok' "$work/log"
}
# What osslsigncode computed itself, to hold against the second reading.
calculated() { sed -n 's/^Calculated message digest *: *\([0-9A-F]*\).*/\1/p' "$work/log" | head -1 | tr 'A-F' 'a-f'; }
second() { python3 scripts/package-verify.py digest "$1" "$2"; }

if verify -in "$PKG/$NAME.sys" && [ "$(calculated)" = "$(second "$PKG/$NAME.sys" sha256)" ]; then
    pass "osslsigncode verify $NAME.sys: embedded SHA-256 signature good, its digest $(calculated | cut -c1-16)... is the second reading's"
else
    fail "osslsigncode verify $NAME.sys (embedded signature, digest $(calculated) against $(second "$PKG/$NAME.sys" sha256))"
    tail -5 "$work/log"
fi
if verify -in "$PKG/$NAME.cat"; then
    pass "osslsigncode verify $NAME.cat: catalog signature good ($(sed -n 's/^[[:space:]]*Subject: //p' "$work/log" | head -1))"
else
    fail "osslsigncode verify $NAME.cat"
    tail -5 "$work/log"
fi
for f in "$NAME.sys" "$NAME.inf"; do
    if verify -catalog "$PKG/$NAME.cat" -in "$PKG/$f"; then
        algorithm=$(sed -n 's/^Message digest algorithm *: *//p' "$work/log" | head -1 | tr 'A-Z' 'a-z')
        if [ "$(calculated)" = "$(second "$PKG/$f" "$algorithm")" ]; then
            pass "osslsigncode verify -catalog $NAME.cat $f: member found by its $algorithm $(calculated | cut -c1-16)..."
        else
            fail "osslsigncode verify -catalog $f matched $(calculated), the second reading computes $(second "$PKG/$f" "$algorithm")"
        fi
    elif [ "$f" = "$NAME.inf" ] && grep -qiE 'unsupported input file type|unrecognized file type' "$work/log"; then
        echo "package-check: note: osslsigncode reads no INF (no flat-file support); the second reading checks $f"
    else
        fail "osslsigncode verify -catalog $NAME.cat $f"
        tail -5 "$work/log"
    fi
done

if out=$(python3 scripts/package-verify.py catalog "$PKG/$NAME.cat" "$PKG/$NAME.sys" "$PKG/$NAME.inf"); then
    while read -r line; do pass "second reading: ${line#package-verify: }"; done <<<"$out"
else
    fail "second reading: ${out##*REFUSED: }"
fi
out=$(python3 scripts/package-verify.py checksum "$PKG/$NAME.sys") && pass "${out#package-verify: } (after signing)" ||
    fail "${out#package-verify: REFUSED: }"

# One byte changed in each member: in the .sys's code, in the INF's text.
text_at=$(x86_64-w64-mingw32-objdump -h "$PKG/$NAME.sys" | awk '$2 == ".text" { print $6; exit }')
cp "$PKG/$NAME.sys" "$work/$NAME.sys"
printf '\xcc' | dd of="$work/$NAME.sys" bs=1 seek=$((16#$text_at + 0x40)) conv=notrunc status=none
sed '0,/^Provider/s/^Provider/provider/' "$PKG/$NAME.inf" >"$work/$NAME.inf"
cmp -s "$PKG/$NAME.inf" "$work/$NAME.inf" && fail "the INF copy was not changed"
if verify -catalog "$PKG/$NAME.cat" -in "$work/$NAME.sys"; then
    fail "osslsigncode verify -catalog accepts $NAME.sys with a byte changed"
else
    reason=$(grep -m1 -E 'Catalog verification: failed|not found in the specified catalog' "$work/log" ||
        tail -1 "$work/log")
    pass "osslsigncode verify -catalog refuses $NAME.sys with a byte changed ($reason)"
fi
for f in "$NAME.sys" "$NAME.inf"; do
    others=("$PKG/$NAME.sys" "$PKG/$NAME.inf")
    others=("${others[@]/$PKG\/$f/$work/$f}")
    if out=$(python3 scripts/package-verify.py catalog "$PKG/$NAME.cat" "${others[@]}"); then
        fail "second reading accepts $f with a byte changed"
    else
        pass "second reading refuses $f with a byte changed: ${out##*REFUSED: $work/}"
    fi
done

# The signed image (certificate table appended) on the host's loader.
sim=$HOST_BUILD/tools/mme-sim
if [ -x "$sim" ]; then
    if out=$("$sim" --driver "$PKG/$NAME.sys" loopback --seconds 1 2>&1) && grep -q 'PASS' <<<"$out"; then
        pass "mme-sim runs the signed image: $(grep -m1 -o 'PASS: [^,]*' <<<"$out")"
    else
        fail "mme-sim --driver $PKG/$NAME.sys loopback"
        tail -3 <<<"$out"
    fi
fi

# An offset inside DriverEntry resolves to DriverEntry, in the file and
# between the lines that define it.
entry=$(x86_64-w64-mingw32-nm "$WIN_BUILD/windows/$NAME.unstripped.sys" | awk '$3 == "DriverEntry" { print $1 }')
base=$(x86_64-w64-mingw32-objdump -p "$WIN_BUILD/windows/$NAME.unstripped.sys" | awk '$1 == "ImageBase" { print $2 }')
offset=$(printf '0x%x' $((16#$entry - 16#$base + 8)))
file=$(grep -rl --include='*.cpp' -E '^(extern "C" )?NTSTATUS (NTAPI )?DriverEntry\(' driver | head -1)
first=$(grep -n -E '^(extern "C" )?NTSTATUS (NTAPI )?DriverEntry\(' "$file" | cut -d: -f1)
last=$(awk -v from="$first" 'NR > from && /^}/ { print NR; exit }' "$file")
out=$(MME_WINDOWS_BUILD_DIR=$WIN_BUILD scripts/symbolize.sh --image "$PKG/$NAME.sys" "$NAME+$offset")
line=$(sed -n "1s|.* at $file:\([0-9]*\).*|\1|p" <<<"$out")
if grep -q "^$NAME+$offset: DriverEntry at $file:" <<<"$out" && [ "$line" -ge "$first" ] && [ "$line" -le "$last" ]; then
    pass "symbolize: $out (DriverEntry is $file:$first-$last)"
else
    fail "symbolize $NAME+$offset gave \"$out\", not DriverEntry in $file:$first-$last"
fi

echo "package-check: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
