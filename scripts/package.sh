#!/usr/bin/env bash
# Makes the Windows driver package, build/windows/package/:
#   mmeusbaudio.sys       the driver, with an embedded SHA-256 Authenticode signature
#   mmeusbaudio.inf       the INF, DriverVer set from the build
#   mmeusbaudio.cat       the catalog of the two (tools/make-catalog), signed
#   mmeusbaudio-test.cer  the test certificate's public part (test signing only)
# Signs with a test certificate made on first use in build/test-signing/
# (never committed), or with --cert FILE.pfx (--pass-file FILE for its
# password, --timestamp URL for an RFC 3161 time-stamp server).
# --driver-ver "MM/DD/YYYY,W.X.Y.Z" overrides the DriverVer taken from git:
# the commit's date and 1.0.<commits>.0.
#
# Environment: MME_WINDOWS_BUILD_DIR (default build/windows, the `windows`
# preset), MME_HOST_BUILD_DIR (default build/default, for make-catalog) or
# MME_MAKE_CATALOG (a built make-catalog; the CMake target passes it),
# OSSLSIGNCODE (default osslsigncode).
set -euo pipefail
cd "$(dirname "$0")/.."

cert_pfx="" pass_file="" timestamp="" driver_ver=""
while [ $# -gt 0 ]; do
    case "$1" in
    --cert) cert_pfx=$(realpath "$2"); shift 2 ;;
    --pass-file) pass_file=$(realpath "$2"); shift 2 ;;
    --timestamp) timestamp=$2; shift 2 ;;
    --driver-ver) driver_ver=$2; shift 2 ;;
    *) echo "usage: scripts/package.sh [--cert FILE.pfx [--pass-file FILE]] [--timestamp URL]" \
        "[--driver-ver MM/DD/YYYY,W.X.Y.Z]" >&2; exit 2 ;;
    esac
done

WIN_BUILD=${MME_WINDOWS_BUILD_DIR:-build/windows}
HOST_BUILD=${MME_HOST_BUILD_DIR:-build/default}
PKG=$WIN_BUILD/package
NAME=mmeusbaudio

quiet() { # COMMAND...: its output only when it fails
    local out
    out=$("$@" 2>&1) || { echo "$out" >&2; return 1; }
}
scripts/setup.sh
quiet cmake --preset windows -B "$WIN_BUILD"
quiet cmake --build "$WIN_BUILD" -j 2 --target $NAME
make_catalog=${MME_MAKE_CATALOG:-}
if [ -z "$make_catalog" ]; then
    [ -f "$HOST_BUILD/CMakeCache.txt" ] ||
        quiet cmake -S . -B "$HOST_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
    quiet cmake --build "$HOST_BUILD" -j 2 --target make-catalog
    make_catalog=$HOST_BUILD/tools/make-catalog/make-catalog
fi
echo "package: built $WIN_BUILD/windows/$NAME.sys and $make_catalog"

# The signing certificate: the one given, or the test certificate.
sign_args=()
if [ -n "$cert_pfx" ]; then
    sign_args=(-pkcs12 "$cert_pfx")
    if [ -n "$pass_file" ]; then sign_args+=(-readpass "$pass_file"); else sign_args+=(-pass ""); fi
else
    keys=build/test-signing
    if [ ! -f "$keys/$NAME-test.pfx" ]; then
        mkdir -p "$keys"
        chmod 700 "$keys"
        # Self-signed and for code signing only: on the test machine it goes
        # into Trusted Root Certification Authorities and Trusted Publishers.
        openssl req -x509 -newkey rsa:3072 -sha256 -nodes -days 1825 \
            -subj "/CN=MME USB Audio test signing (not for release)" \
            -addext "basicConstraints=critical,CA:FALSE" \
            -addext "keyUsage=critical,digitalSignature" \
            -addext "extendedKeyUsage=codeSigning" \
            -keyout "$keys/$NAME-test.key" -out "$keys/$NAME-test.pem" 2>/dev/null
        openssl pkcs12 -export -inkey "$keys/$NAME-test.key" -in "$keys/$NAME-test.pem" \
            -name "$NAME test signing" -passout pass: -out "$keys/$NAME-test.pfx"
        echo "package: made the test certificate $keys/$NAME-test.pem"
    fi
    sign_args=(-pkcs12 "$keys/$NAME-test.pfx" -pass "")
fi
[ -z "$timestamp" ] || sign_args+=(-ts "$timestamp")

# DriverVer: the commit's date (UTC) and 1.0.<commits>.0, so a later build
# ranks above an earlier one ("INF DriverVer directive").
if [ -z "$driver_ver" ]; then
    if commit_time=$(git log -1 --format=%ct 2>/dev/null); then
        driver_ver="$(TZ=UTC0 date -d "@$commit_time" +%m/%d/%Y),1.0.$(git rev-list --count HEAD).0"
    else
        commit_time=$(date +%s)
        driver_ver="$(TZ=UTC0 date +%m/%d/%Y),1.0.0.0"
    fi
fi
catalog_time=${commit_time:-$(date +%s)}

rm -rf "$PKG.part"
mkdir -p "$PKG.part"
sign() { # IN OUT
    local log
    if ! log=$("${OSSLSIGNCODE:-osslsigncode}" sign "${sign_args[@]}" -h sha256 -in "$1" -out "$2" 2>&1); then
        echo "$log" >&2
        echo "package: signing $(basename "$1") failed" >&2
        exit 1
    fi
}
sign "$WIN_BUILD/windows/$NAME.sys" "$PKG.part/$NAME.sys"
sed -E "s|^(DriverVer *= *).*|\1$driver_ver|" windows/$NAME.inf >"$PKG.part/$NAME.inf"
grep -q "^DriverVer *= *$driver_ver\$" "$PKG.part/$NAME.inf" || {
    echo "package: the INF has no DriverVer line to set" >&2
    exit 1
}
catalog_file=$(sed -n 's/^CatalogFile *= *\([^ ;]*\).*/\1/p' "$PKG.part/$NAME.inf" | tr -d '\r')
[ "$catalog_file" = "$NAME.cat" ] || {
    echo "package: the INF names the catalog \"$catalog_file\", the package's is $NAME.cat" >&2
    exit 1
}
mapfile -t hwids < <(python3 scripts/inf-check.py --hardware-ids "$PKG.part/$NAME.inf")
hwid_args=()
for id in "${hwids[@]}"; do hwid_args+=(--hwid "$id"); done
"$make_catalog" --out "$PKG.part/$NAME.unsigned.cat" --os 10_X64 --time "$catalog_time" \
    "${hwid_args[@]}" "$PKG.part/$NAME.sys" "$PKG.part/$NAME.inf" | sed 's/^make-catalog: /package: /'
sign "$PKG.part/$NAME.unsigned.cat" "$PKG.part/$NAME.cat"
rm "$PKG.part/$NAME.unsigned.cat"
if [ -z "$cert_pfx" ]; then
    openssl x509 -in "$keys/$NAME-test.pem" -outform DER -out "$PKG.part/$NAME-test.cer"
fi
rm -rf "$PKG"
mv "$PKG.part" "$PKG"

signer=$(openssl pkcs7 -inform DER -in "$PKG/$NAME.cat" -print_certs -noout 2>/dev/null |
    sed -n 's/^subject=//p' | head -1)
echo "package: $PKG (DriverVer $driver_ver, signed by \"$signer\")"
for f in "$PKG"/*; do
    printf 'package:   %-22s %7d bytes  sha256 %s\n' "$(basename "$f")" "$(stat -c %s "$f")" \
        "$(sha256sum "$f" | cut -c1-16)..."
done
