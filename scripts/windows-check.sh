#!/usr/bin/env bash
# Builds the driver for Windows (the `windows` preset) and checks, without
# Windows, what a kernel loader and the port-class library rely on:
#   - the image: PE32+ x86-64, not a DLL, native subsystem, entry point =
#     DriverEntry, WDM driver / dynamic base / NX flags, base relocations,
#     no TLS, no section both writable and executable, OS and subsystem
#     version 10.0, a CodeView debug directory, a true CheckSum;
#   - its code (scripts/image-code-check.py): no AVX, x87 or MMX
#     instruction, xmm6-xmm15 saved in the unwind data of every function
#     that writes them, every pool allocation non-executable (the
#     POOL_NX_OPTIN opt-in in DriverEntry); the largest stack frame;
#   - its imports: only ntoskrnl.exe, HAL.dll and portcls.sys, no C or C++
#     runtime, and only the services the driver's platform names;
#   - its objects: no static constructors or thread-local data (nothing
#     would run or allocate them);
#   - the INF: installs this image and registers the driver's subdevice
#     names under the DDK's category GUIDs, and follows the INF rules of
#     scripts/inf-check.py (each failure names its rule);
#   - layouts: tools/layout-dump's table from the Windows build equals the
#     host build's, line for line.
# Then it relinks deliberately broken variants of the image, and breaks a
# copy of the INF once per rule, and makes sure each check above rejects its
# fault. MME_WINDOWS_BUILD_DIR builds elsewhere than build/windows. Prints the import list. Exits non-zero
# on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."

HOST_BUILD=${MME_HOST_BUILD_DIR:-build/winhost}
WIN_BUILD=${MME_WINDOWS_BUILD_DIR:-build/windows}
TRIPLET=x86_64-w64-mingw32
OBJDUMP=$TRIPLET-objdump
SYS=$WIN_BUILD/windows/mmeusbaudio.sys
MAP=$WIN_BUILD/windows/mmeusbaudio.map
OBJ_DIR=$WIN_BUILD/windows/CMakeFiles/mmeusbaudio.dir
INF=windows/mmeusbaudio.inf
LAYOUT_EXE=$WIN_BUILD/layout-dump/layout-dump.exe
HOST_LAYOUT_DUMP=$HOST_BUILD/tools/layout-dump/layout-dump

failures=0
fail() {
    echo "windows-check: FAIL: $*"
    failures=$((failures + 1))
}
ok() { echo "windows-check: ok: $*"; }

# Allowed imports per DLL: the driver's platform services as Windows
# provides them (ExAllocatePool is ExAllocatePoolWithTag under POOL_TAGGING;
# RtlCopyMemory, RtlMoveMemory and RtlZeroMemory are memcpy, memmove and
# memset; the interlocked operations, IRQL, IoGetNextIrpStackLocation,
# IoSetCompletionRoutine and KeGetCurrentThread are inline on x64), plus the
# spin lock, DPC-flush and run-down protection services, and the version
# query of the NX pool opt-in (ExInitializeDriverRuntime).
ALLOWED_NTOSKRNL="DbgPrint RtlAssert KeGetCurrentThread KeDelayExecutionThread
  KeInitializeTimer KeInitializeDpc KeSetTimer KeCancelTimer
  ObfReferenceObject ObfDereferenceObject IoAllocateIrp IoFreeIrp IofCallDriver
  ExAllocatePoolWithTag ExFreePoolWithTag memcmp memcpy memmove memset
  KeAcquireSpinLockRaiseToDpc KeReleaseSpinLock KeAcquireSpinLockAtDpcLevel
  KeReleaseSpinLockFromDpcLevel KeFlushQueuedDpcs ExInitializeRundownProtection
  ExReInitializeRundownProtection ExAcquireRundownProtection ExReleaseRundownProtection
  ExWaitForRundownProtectionRelease RtlIsNtDdiVersionAvailable"
ALLOWED_PORTCLS="PcInitializeAdapterDriver PcAddAdapterDevice PcNewPort PcRegisterSubdevice
  PcRegisterPhysicalConnection PcNewServiceGroup"
ALLOWED_HAL=""

# check_image IMAGE MAP [quiet]: headers and imports of a linked image.
check_image() {
    local image=$1 map=$2 quiet=${3:-}
    local headers sections
    headers=$("$OBJDUMP" -p "$image")
    sections=$("$OBJDUMP" -h "$image")
    field() { awk -v name="$1" '$1 == name { print $2; exit }' <<<"$headers"; }
    directory_size() { awk -v name="$1" 'index($0, name) { print $4; exit }' <<<"$headers"; }

    grep -q "file format pei-x86-64" <<<"$headers" && ok "PE image for x86-64" ||
        fail "not a pei-x86-64 image"
    [ "$(field Magic)" = "020b" ] && ok "PE32+" || fail "optional header magic $(field Magic), not 020b (PE32+)"
    awk '/^Characteristics/ { f = 1; next } f && /^\t/ { print; next } f { exit }' <<<"$headers" |
        grep -qx $'\tDLL' && fail "image is marked as a DLL" || ok "image is not a DLL"
    [ "$(field Subsystem)" = "00000001" ] && ok "subsystem native (1)" ||
        fail "subsystem $(field Subsystem), not 1 (native)"

    local entry base driver_entry
    entry=$((16#$(field AddressOfEntryPoint)))
    base=$((16#$(field ImageBase)))
    driver_entry=$(awk '$2 == "DriverEntry" && $1 ~ /^0x/ { print $1; exit }' "$map")
    if [ "$entry" -eq 0 ]; then
        fail "no entry point"
    elif [ -z "$driver_entry" ]; then
        fail "DriverEntry is not in the link map"
    elif [ $((base + entry)) -ne $((driver_entry)) ]; then
        fail "entry point $(printf 0x%x $((base + entry))) is not DriverEntry ($driver_entry)"
    else
        ok "entry point is DriverEntry ($(printf 0x%x "$entry"))"
    fi

    local dllchars flag
    dllchars=$(awk '/^DllCharacteristics/ { f = 1; next } f && /^\t\t/ { print $1; next } f { exit }' <<<"$headers")
    for flag in WDM_DRIVER DYNAMIC_BASE NX_COMPAT; do
        grep -qx "$flag" <<<"$dllchars" && ok "DllCharacteristics $flag" ||
            fail "DllCharacteristics lacks $flag"
    done

    # Windows 10 drivers say so (PE format: Major/MinorOperatingSystemVersion,
    # Major/MinorSubsystemVersion).
    local version kind
    for kind in OSystem Subsystem; do
        version="$(field "Major${kind}Version").$(field "Minor${kind}Version")"
        [ "$version" = "10.0" ] && ok "${kind/OSystem/OS} version 10.0" ||
            fail "${kind/OSystem/OS} version $version, not 10.0 (what Windows 10 drivers carry)"
    done
    # A CodeView (RSDS) entry is what ties a crash dump to this link's symbols.
    local rsds
    rsds=$(sed -n 's/.*format RSDS signature \([0-9a-f]*\) age \([0-9]*\).*/\1 age \2/p' <<<"$headers")
    [ -n "$rsds" ] && ok "CodeView debug directory (build id $rsds)" ||
        fail "no CodeView debug directory (a crash dump could not be tied to the symbols)"
    # The kernel checks every driver's CheckSum (PE format, CheckSum).
    local sum
    sum=$(python3 scripts/package-verify.py checksum "$image") && ok "${sum#package-verify: }" ||
        fail "${sum#package-verify: REFUSED: }"

    local reloc_size tls_size wx
    reloc_size=$(directory_size "Base Relocation Directory")
    if [ $((16#${reloc_size:-0})) -gt 0 ] && grep -q ' \.reloc ' <<<"$sections"; then
        ok "base relocations present ($((16#$reloc_size)) bytes)"
    else
        fail "no base relocations (the kernel could not load the image at another address)"
    fi
    tls_size=$(directory_size "Thread Storage Directory")
    [ $((16#${tls_size:-0})) -eq 0 ] && ok "no TLS directory" || fail "image has a TLS directory"
    wx=$(awk '/^ *[0-9]+ / { name = $2; next } /CODE/ && !/READONLY/ { print name }' <<<"$sections")
    [ -z "$wx" ] && ok "no writable code section" || fail "writable code section(s): $wx"
    local line
    while read -r line; do
        case "$line" in
        "ok: "*) ok "${line#ok: }" ;;
        "FAIL: "*) fail "${line#FAIL: }" ;;
        *) fail "image-code-check: $line" ;;
        esac
    done < <(python3 scripts/image-code-check.py "$image" "$map" "$OBJDUMP" 2>&1)

    local imports dlls dll lower fn list unused
    imports=$(awk '
        /^\tDLL Name:/ { dll = $3; next }
        /^The / { dll = "" }
        dll != "" && /^\t[0-9a-f]+\t/ { print dll, $NF }
        dll != "" && /^$/ { dll = "" }' <<<"$headers")
    dlls=$(awk '/^\tDLL Name:/ { print $3 }' <<<"$headers")
    if [ -z "$quiet" ]; then
        echo "windows-check: imports of $(basename "$image"):"
        awk '{ printf "    %-14s %s\n", $1, $2 }' <<<"$imports"
    fi
    [ -n "$dlls" ] || fail "the image imports nothing (not linked against the kernel?)"
    for dll in $dlls; do
        lower=$(tr '[:upper:]' '[:lower:]' <<<"$dll")
        case "$lower" in
        ntoskrnl.exe | hal.dll | portcls.sys) ok "imports from $dll" ;;
        msvcr* | msvcp* | ucrtbase* | api-ms-win-crt-* | vcruntime* | libstdc++* | libgcc* | libwinpthread*)
            fail "imports from the C/C++ runtime DLL $dll" ;;
        *) fail "imports from $dll (only ntoskrnl.exe, HAL.dll and portcls.sys are allowed)" ;;
        esac
    done
    while read -r dll fn; do
        [ -n "$dll" ] || continue
        case "$(tr '[:upper:]' '[:lower:]' <<<"$dll")" in
        ntoskrnl.exe) list=$ALLOWED_NTOSKRNL ;;
        portcls.sys) list=$ALLOWED_PORTCLS ;;
        hal.dll) list=$ALLOWED_HAL ;;
        *) continue ;; # the DLL itself has failed above
        esac
        grep -qw -- "$fn" <<<"$list" ||
            fail "imports $fn from $dll, a service the driver's platform does not name"
    done <<<"$imports"
    if [ -z "$quiet" ]; then
        unused=""
        for fn in $ALLOWED_NTOSKRNL $ALLOWED_PORTCLS; do
            grep -qw -- "$fn" <<<"$(awk '{ print $2 }' <<<"$imports")" || unused="$unused $fn"
        done
        [ -z "$unused" ] || echo "windows-check: not imported (inline on x64, or not used):$unused"
    fi
}

# check_objects OBJECT...: no static initialisation the kernel would skip.
check_objects() {
    local obj names found=""
    [ "$#" -gt 0 ] || fail "no driver objects found"
    for obj in "$@"; do
        names=$("$OBJDUMP" -h "$obj" | awk '/^ *[0-9]+ / { print $2 }')
        if grep -qE '^(\.ctors|\.dtors|\.init_array|\.fini_array|\.CRT\$X|\.tls)' <<<"$names"; then
            found="$found ${obj##*/}"
        fi
    done
    [ -z "$found" ] && ok "no static constructors or thread-local data in $# objects" ||
        fail "static constructors or thread-local data (never run in a driver) in:$found"
}

# check_inf WINDOWS_LAYOUT: the INF against the image name, the driver's
# subdevice names and the DDK's category GUIDs (from the Windows layout).
check_inf() {
    local win_layout=$1 name value category inf ddk
    inf_string() {
        awk -F= -v key="$1" '{ k = $1; gsub(/[ \t]/, "", k) } k == key {
            v = $2; sub(/^[ \t]*"/, "", v); sub(/"[ \t\r]*$/, "", v); print v; exit }' "$INF"
    }
    grep -qiE "^ServiceBinary *= *%1[23]%\\\\$(basename "$SYS")" "$INF" &&
        ok "INF service runs $(basename "$SYS")" || fail "INF ServiceBinary is not $(basename "$SYS")"
    for name in Wave Topology; do
        value=$(inf_string "KSNAME_$name")
        if [ "$value" != "$name" ]; then
            fail "INF KSNAME_$name is \"$value\", not \"$name\""
        elif ! grep -rqF "MME_WIDE(\"$name\")" driver --include='*.cpp'; then
            fail "the driver registers no subdevice named \"$name\""
        else
            ok "INF registers the driver's \"$name\" subdevice"
        fi
    done
    for category in AUDIO RENDER CAPTURE TOPOLOGY; do
        inf=$(inf_string "KSCATEGORY_$category" | tr '[:lower:]' '[:upper:]')
        ddk=$(awk -v n="KSCATEGORY_$category" '$1 == n && $2 == "guid" { print $3 }' "$win_layout")
        if [ -z "$inf" ] || [ "$inf" != "$ddk" ]; then
            fail "INF KSCATEGORY_$category is \"$inf\", the DDK's is \"$ddk\""
        elif ! grep -qE "^AddInterface *= *%KSCATEGORY_$category%" "$INF"; then
            fail "INF registers no interface in KSCATEGORY_$category"
        else
            ok "INF KSCATEGORY_$category $inf"
        fi
    done
    check_inf_rules "$INF"
}

# check_inf_rules FILE.inf: scripts/inf-check.py's rules, each result
# named by its rule.
check_inf_rules() {
    local line
    while read -r line; do
        case "$line" in
        "inf-check: FAIL: "*) fail "INF ${line#inf-check: FAIL: }" ;;
        "inf-check: ok: "*) ok "INF ${line#inf-check: ok: }" ;;
        esac
    done < <(python3 scripts/inf-check.py "$1")
}

# check_layouts HOST_LAYOUT WINDOWS_LAYOUT
check_layouts() {
    if [ ! -s "$1" ] || [ ! -s "$2" ]; then
        fail "a layout table is empty"
    elif ! diff -u --label host "$1" --label windows "$2"; then
        fail "host and Windows layouts differ (lines above)"
    else
        ok "host and Windows layouts identical ($(wc -l <"$1") entries: sizes, offsets, slots, conventions, values, GUIDs)"
    fi
}

# check_method_codegen [HOST_FLAGS...]: the host's g++ with the Windows
# convention and mingw's g++ must compile interface methods alike, since the
# image and the host call each other's: which register carries `this`, the
# arguments and a hidden result pointer, and where an 8-byte union such as
# LARGE_INTEGER comes back (RAX for both; MSVC would use a hidden pointer,
# which is why no interface slot returns one). Frame and stack-offset
# details may differ and are left out of the comparison.
check_method_codegen() {
    local dir=$self_test_dir/codegen
    mkdir -p "$dir"
    cat >"$dir/probe.cpp" <<'PROBE'
#if defined(_WIN32) || defined(MME_PROBE_DEFAULT_CONVENTION)
#define CALLCONV
#else
#define CALLCONV __attribute__((ms_abi))
#endif
typedef union { struct { unsigned lo; int hi; } u; long long q; } Large;
struct Big { long long a, b; };
struct Probe {
    virtual Large CALLCONV small(int) = 0;
    virtual Big CALLCONV big(int) = 0;
    virtual Large* CALLCONV spelled(Large*, int) = 0;
};
long long CALLCONV callSmall(Probe* p) { return p->small(7).q; }
long long CALLCONV callBig(Probe* p) { return p->big(7).b; }
long long CALLCONV callSpelled(Probe* p) { Large r; return p->spelled(&r, 7)->q; }
struct Impl : Probe {
    Large CALLCONV small(int x) override { Large r; r.q = x; return r; }
    Big CALLCONV big(int x) override { return Big{x, 2 * (long long)x}; }
    Large* CALLCONV spelled(Large* r, int x) override { r->q = x; return r; }
};
Impl gImpl;
PROBE
    local flags=(-O2 -S -fno-asynchronous-unwind-tables -fno-exceptions -fno-rtti -fno-devirtualize)
    instructions() { # the functions' instructions, without frame and stack details
        awk '/^_Z[A-Za-z0-9_]*:/ { print; f = 1; next } f && /^\t[a-z]/ { print }
             /\.seh_endproc|\.cfi_endproc|^\t\.size/ { f = 0 }' "$1" |
            grep -vE '%rsp|%rbp|^\sleave$' | sed 's/\.L[0-9]*/.L/'
    }
    if ! g++ "${flags[@]}" "$@" -o "$dir/host.s" "$dir/probe.cpp" ||
        ! "$TRIPLET-g++" "${flags[@]}" -o "$dir/win.s" "$dir/probe.cpp"; then
        fail "the method convention probe does not compile"
    elif ! diff -u --label host <(instructions "$dir/host.s") --label windows \
        <(instructions "$dir/win.s"); then
        fail "host and Windows compile interface methods differently (lines above)"
    else
        ok "host and Windows compile interface methods alike ($(instructions "$dir/win.s" | grep -c '^_Z') functions)"
    fi
}

# expect_rejected WHAT PATTERN COMMAND...: COMMAND (a check, run in a
# subshell so its failures do not count) must report a failure matching
# PATTERN.
expect_rejected() {
    local what=$1 pattern=$2 output
    shift 2
    output=$("$@")
    if grep -q "FAIL: .*$pattern" <<<"$output"; then
        echo "windows-check: self-test: rejects $what"
    else
        fail "self-test: $what passed the checks"
    fi
}

self_test() {
    local dir=$self_test_dir link_flags objects
    # The driver's link, as windows/CMakeLists.txt has it (--build-id makes
    # the same CodeView entry as its --pdb, without writing a PDB), then
    # stripped by the linker instead of objcopy.
    link_flags=(-nostdlib -Wl,--subsystem,native -Wl,--entry,DriverEntry -Wl,--wdmdriver
        -Wl,--dynamicbase -Wl,--enable-reloc-section -Wl,--nxcompat -Wl,--high-entropy-va -Wl,--image-base,0x140000000
        -Wl,--disable-auto-import -Wl,--disable-runtime-pseudo-reloc -Wl,--gc-sections
        -Wl,--major-os-version,10 -Wl,--minor-os-version,0
        -Wl,--major-subsystem-version,10 -Wl,--minor-subsystem-version,0 -s)
    mapfile -t objects < <(find "$OBJ_DIR" -name '*.obj' | sort)
    relink() { # NAME EXTRA...
        local name=$1 debug=-Wl,--build-id
        shift
        [ "$name" != nodebugdir ] || debug=-Wl,--build-id=none
        "$TRIPLET-g++" "${link_flags[@]}" "$debug" "$@" -Wl,-Map,"$dir/$name.map" "${objects[@]}" \
            "$WIN_BUILD/windows/libportcls.a" -lntoskrnl -lhal -lksguid -o "$dir/$name.sys"
    }

    # The relink itself must pass, or the rejections below prove nothing.
    relink same
    if grep -q "FAIL" <<<"$(check_image "$dir/same.sys" "$dir/same.map" quiet)"; then
        fail "self-test: the unchanged relink fails the checks"
    fi

    relink norelocs -Wl,--disable-reloc-section
    expect_rejected "an image without base relocations" "no base relocations" \
        check_image "$dir/norelocs.sys" "$dir/norelocs.map" quiet
    relink dll -shared
    expect_rejected "an image linked as a DLL" "marked as a DLL" \
        check_image "$dir/dll.sys" "$dir/dll.map" quiet
    relink console -Wl,--subsystem,console
    expect_rejected "a console-subsystem image" "subsystem" \
        check_image "$dir/console.sys" "$dir/console.map" quiet
    relink wrongentry -Wl,--entry,_purecall
    expect_rejected "an entry point other than DriverEntry" "is not DriverEntry" \
        check_image "$dir/wrongentry.sys" "$dir/wrongentry.map" quiet
    relink oldos -Wl,--major-os-version,4 -Wl,--minor-os-version,0
    expect_rejected "OS version 4.0" "OS version 4.0, not 10.0" \
        check_image "$dir/oldos.sys" "$dir/oldos.map" quiet
    relink oldsubsystem -Wl,--major-subsystem-version,5 -Wl,--minor-subsystem-version,2
    expect_rejected "subsystem version 5.2" "Subsystem version 5.2, not 10.0" \
        check_image "$dir/oldsubsystem.sys" "$dir/oldsubsystem.map" quiet
    relink nodebugdir
    expect_rejected "an image without a debug directory" "no CodeView debug directory" \
        check_image "$dir/nodebugdir.sys" "$dir/nodebugdir.map" quiet
    cp "$dir/same.sys" "$dir/badsum.sys"
    printf '\xcc' | dd of="$dir/badsum.sys" bs=1 seek=$((16#400)) conv=notrunc status=none
    expect_rejected "a byte changed after the link (CheckSum)" "CheckSum" \
        check_image "$dir/badsum.sys" "$dir/same.map" quiet

    printf '%s\n' '__declspec(dllimport) void KeBugCheck(unsigned long);' \
        'void mmeSelfTestExtra(unsigned long c) { KeBugCheck(c); }' >"$dir/extra.c"
    "$TRIPLET-gcc" -c -O2 "$dir/extra.c" -o "$dir/extra.obj"
    relink extraimport "$dir/extra.obj" -Wl,--undefined,mmeSelfTestExtra
    expect_rejected "an import the platform does not name" "KeBugCheck" \
        check_image "$dir/extraimport.sys" "$dir/extraimport.map" quiet

    printf '%s\n' '__declspec(dllimport) int atoi(const char*);' \
        'int mmeSelfTestCrt(const char* s) { return atoi(s); }' >"$dir/crt.c"
    "$TRIPLET-gcc" -c -O2 "$dir/crt.c" -o "$dir/crt.obj"
    relink crt "$dir/crt.obj" -Wl,--undefined,mmeSelfTestCrt -lmsvcrt
    expect_rejected "an import from the C runtime" "C/C++ runtime DLL" \
        check_image "$dir/crt.sys" "$dir/crt.map" quiet

    printf '%s\n' 'typedef float v8sf __attribute__((vector_size(32)));' \
        'void mmeSelfTestAvx(v8sf* a, const v8sf* b) { *a += *b; }' >"$dir/avx.c"
    "$TRIPLET-gcc" -c -O2 -mavx "$dir/avx.c" -o "$dir/avx.obj"
    relink avx "$dir/avx.obj" -Wl,--undefined,mmeSelfTestAvx
    expect_rejected "AVX instructions" "AVX instruction" check_image "$dir/avx.sys" "$dir/avx.map" quiet

    # Code the x64 kernel does not allow: x87 (mingw's long double), MMX, an
    # xmm register written without a save in the unwind data, pool asked
    # for as executable.
    printf '%s\n' 'long double mmeSelfTestX87(long double a, long double b) { return a * b; }' >"$dir/x87.c"
    printf '%s\n' 'void mmeSelfTestMmx(void) { __asm__ volatile("pxor %mm0, %mm0\n\temms"); }' >"$dir/mmx.c"
    printf '%s\n' '__declspec(dllimport) void* ExAllocatePoolWithTag(int, unsigned long long, unsigned long);' \
        'void* mmeSelfTestPool(void) { return ExAllocatePoolWithTag(0, 16, 0x74736554); }' >"$dir/pool.c"
    printf '%s\n' '.text' '.globl mmeSelfTestXmm' '.def mmeSelfTestXmm; .scl 2; .type 32; .endef' \
        '.seh_proc mmeSelfTestXmm' 'mmeSelfTestXmm:' '.seh_endprologue' 'pxor %xmm6, %xmm6' 'ret' \
        '.seh_endproc' >"$dir/xmm.s"
    local fault
    for fault in "x87:x87 instruction" "mmx:MMX instruction" "pool:pool type 0" "xmm:xmm6-xmm15 written"; do
        local probe=${fault%%:*} source
        source=$(ls "$dir/$probe".[cs])
        "$TRIPLET-gcc" -c -O2 "$source" -o "$dir/$probe.obj"
        relink "$probe" "$dir/$probe.obj" -Wl,--undefined,mmeSelfTest${probe^}
        expect_rejected "code with a fault ($probe)" "${fault#*:}" check_image "$dir/$probe.sys" "$dir/$probe.map" quiet
    done

    printf '%s\n' 'int mmeSelfTestValue();' 'int gSelfTest = mmeSelfTestValue();' >"$dir/ctor.cpp"
    "$TRIPLET-g++" -c -O2 "$dir/ctor.cpp" -o "$dir/ctor.obj"
    expect_rejected "a static constructor" "static constructors" \
        check_objects "${objects[@]}" "$dir/ctor.obj"

    expect_rejected "methods without the Windows convention on host" "compile interface methods differently" \
        check_method_codegen -DMME_PROBE_DEFAULT_CONVENTION

    # The INF once broken per rule (RULE|sed script); each must fail by name.
    local mutation rule
    while IFS='|' read -r rule mutation; do
        sed -e "$mutation" "$INF" >"$dir/$rule.inf"
        cmp -s "$INF" "$dir/$rule.inf" && fail "self-test: the INF mutation for $rule changed nothing"
        expect_rejected "an INF breaking $rule" "INF $rule:" check_inf_rules "$dir/$rule.inf"
    done <<'MUTATIONS'
encoding|1s/$/ \xe9/
version-signature|s/^Signature *=.*/Signature = "$CHICAGO$"/
class-guid|s/^ClassGuid *=.*/ClassGuid = {4d36e97d-e325-11ce-bfc1-08002be10318}/
provider|/^Provider *=/d
driver-ver|s|^DriverVer *=.*|DriverVer = 13/01/2024,1.0.0.0|
catalog-file|/^CatalogFile *=/d
pnp-lockdown|/^PnpLockdown *=/d
strings-defined|/^DiskName *=/d
models-decorated|s/, NTamd64\.10\.0$/, NTamd64/
include-needs|0,/^Needs *=/{/^Needs *=/d}
sections-defined|s/^AddReg *= *MME\.AddReg$/AddReg = MME.AddRegNone/
destination-dirs|/^\[DestinationDirs\]/a DefaultDestDir = 12
source-disks|s/^mmeusbaudio\.sys *= *1$/mmeusbaudio.sys = 2/
driver-store-dirid|s/^MME\.CopyFiles\.System *= *12/MME.CopyFiles.System = 13/
service-binary|s/^ServiceBinary *= *%12%/ServiceBinary = %13%/
sections-used|$a [MME.Unused]\nHKR,,Unused,,1
MUTATIONS

    local host=$1 win=$2
    sed 's/^\(KSDATARANGE_AUDIO.MaximumChannels offset\) 64$/\1 68/' "$win" >"$dir/layout"
    expect_rejected "a layout difference" "layouts differ" check_layouts "$host" "$dir/layout"

    # The table reader refuses a cut-off image with a message, or reads it
    # whole when the cut spares the table; it never crashes.
    local size cut rc bad=""
    size=$(stat -c %s "$LAYOUT_EXE")
    for cut in 0 2 64 300 1024 $((size / 2)) $((size - 1)); do
        head -c "$cut" "$LAYOUT_EXE" >"$dir/cut.exe"
        rc=0
        "$HOST_LAYOUT_DUMP" --pe "$dir/cut.exe" >"$dir/cut.out" 2>"$dir/cut.err" || rc=$?
        if [ "$rc" -eq 0 ] && cmp -s "$dir/cut.out" "$win"; then
            continue
        elif [ "$rc" -ne 2 ] || ! grep -q '^layout-dump: ' "$dir/cut.err"; then
            bad="$bad $cut:$rc"
        fi
    done
    [ -z "$bad" ] && echo "windows-check: self-test: layout-dump refuses cut-off images" ||
        fail "self-test: layout-dump on cut-off images (bytes:exit status):$bad"
}

main() {
    local tool
    for tool in cmake ninja "$TRIPLET-g++" "$TRIPLET-gcc" "$OBJDUMP" "$TRIPLET-dlltool" python3; do
        command -v "$tool" >/dev/null || {
            echo "windows-check: $tool not found (scripts/setup.sh installs it)" >&2
            exit 2
        }
    done

    cmake --preset windows -B "$WIN_BUILD" >/dev/null
    cmake --build "$WIN_BUILD" -j 2
    if [ ! -f "$HOST_BUILD/CMakeCache.txt" ]; then
        cmake -S . -B "$HOST_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMME_BENCH=OFF >/dev/null
    fi
    cmake --build "$HOST_BUILD" -j 2 --target layout-dump

    local objects
    mapfile -t objects < <(find "$OBJ_DIR" -name '*.obj' | sort)
    host_layout=$(mktemp)
    win_layout=$(mktemp)
    self_test_dir=$(mktemp -d)
    trap 'rm -rf "$host_layout" "$win_layout" "$self_test_dir"' EXIT
    "$HOST_LAYOUT_DUMP" >"$host_layout" || fail "host layout-dump failed"
    "$HOST_LAYOUT_DUMP" --pe "$LAYOUT_EXE" >"$win_layout" ||
        fail "cannot read the layout table of $LAYOUT_EXE"

    check_image "$SYS" "$MAP"
    check_objects "${objects[@]}"
    check_inf "$win_layout"
    check_layouts "$host_layout" "$win_layout"
    check_method_codegen

    if [ "$failures" -eq 0 ]; then
        self_test "$host_layout" "$win_layout"
    fi

    if [ "$failures" -ne 0 ]; then
        echo "windows-check: $failures failure(s)"
        exit 1
    fi
    echo "windows-check: all checks passed"
}

main "$@"
