#!/usr/bin/env python3
"""Checks the code of a linked driver image against what the x64 kernel
allows and what Driver Verifier's code integrity check and Windows' tools
flag; run by scripts/windows-check.sh.

    image-code-check.py IMAGE.sys IMAGE.map OBJDUMP

Prints "ok: ..." or "FAIL: ..." lines:
  - no AVX (VEX or ymm/zmm), x87 or MMX instruction;
  - every function that writes xmm6-xmm15 saves them in its unwind data;
  - every pool allocation asks for a non-executable pool type, directly or
    through the POOL_NX_OPTIN variable that DriverEntry sets;
  - the largest stack frame, from the unwind data.
"""

import re
import struct
import subprocess
import sys

image, mapfile, objdump = sys.argv[1:4]
data = open(image, "rb").read()
pe = struct.unpack_from("<I", data, 0x3C)[0]
opt = pe + 24
base = struct.unpack_from("<Q", data, opt + 24)[0]
sections = []
for i in range(struct.unpack_from("<H", data, pe + 6)[0]):
    h = opt + struct.unpack_from("<H", data, pe + 20)[0] + 40 * i
    vsize, va, rsize, raw = struct.unpack_from("<IIII", data, h + 8)
    sections.append((va, max(vsize, rsize), raw))


def at(rva):
    for va, size, raw in sections:
        if va <= rva < va + size:
            return raw + rva - va
    raise ValueError("rva %#x outside the sections" % rva)


def directory(index):
    return struct.unpack_from("<II", data, opt + 112 + 8 * index)


# The map's names: global symbols, and the .text$NAME input sections of
# -ffunction-sections for static functions (mangled).
names = {}
pending = None
for line in open(mapfile):
    words = line.split()
    if pending and words and words[0].startswith("0x"):
        names.setdefault(int(words[0], 16), pending)
        pending = None
        continue
    pending = None
    if words and words[0].startswith(".text$"):
        if len(words) > 1 and words[1].startswith("0x"):
            names.setdefault(int(words[1], 16), words[0][6:])
        else:
            pending = words[0][6:]
    elif len(words) >= 2 and re.fullmatch(r"0x[0-9a-f]{16}", words[0]) and not words[1].startswith("0x"):
        names[int(words[0], 16)] = line.split(None, 1)[1].strip()


def demangled(symbol):
    if not symbol.startswith("_Z"):
        return symbol
    try:
        return subprocess.run(["c++filt", symbol], capture_output=True, text=True).stdout.strip() or symbol
    except OSError:
        return symbol


def name(address):
    below = [a for a in names if a <= address]
    if not below:
        return "%#x" % address
    nearest = max(below)
    return demangled(names[nearest]) + ("+%#x" % (address - nearest) if address != nearest else "")


# Imports: IAT slot address -> name.
slots = {}
d = directory(1)[0]
while d:  # a descriptor of zeros ends the table
    lookup, _, _, dll_name, thunks = struct.unpack_from("<IIIII", data, at(d))
    if not dll_name and not thunks:
        break
    i = 0
    while True:
        entry = struct.unpack_from("<Q", data, at((lookup or thunks) + 8 * i))[0]
        if not entry:
            break
        if not entry >> 63:
            slots[base + thunks + 8 * i] = data[at(entry + 2):].split(b"\0", 1)[0].decode()
        i += 1
    d += 20

# Functions and what their unwind data says (x64 exception handling,
# UNWIND_CODE): the frame they allocate and the xmm registers they save.
functions = []
rva, size = directory(3)
for e in range(size // 12):
    begin, end, unwind = struct.unpack_from("<III", data, at(rva) + 12 * e)
    u = at(unwind)
    count = data[u + 2]
    codes = struct.unpack_from("<%dH" % count, data, u + 4)
    frame, saved, k = 8, set(), 0
    while k < count:
        op, info = (codes[k] >> 8) & 15, codes[k] >> 12
        if op == 0:                      # UWOP_PUSH_NONVOL
            frame, k = frame + 8, k + 1
        elif op == 1:                    # UWOP_ALLOC_LARGE
            if info == 0:
                frame, k = frame + 8 * codes[k + 1], k + 2
            else:
                frame, k = frame + (codes[k + 1] | codes[k + 2] << 16), k + 3
        elif op == 2:                    # UWOP_ALLOC_SMALL
            frame, k = frame + 8 * info + 8, k + 1
        elif op in (4, 8):               # UWOP_SAVE_NONVOL, UWOP_SAVE_XMM128
            saved |= {info} if op == 8 else set()
            k += 2
        elif op in (5, 9):               # the _FAR forms
            saved |= {info} if op == 9 else set()
            k += 3
        elif op == 10:                   # UWOP_PUSH_MACHFRAME
            frame, k = frame + (48 if info else 40), k + 1
        else:
            k += 1
    functions.append((base + begin, base + end, frame, saved))
functions.sort()


def function_at(address):
    for begin, end, frame, saved in functions:
        if begin <= address < end:
            return begin, frame, saved
    return None


lines = subprocess.run([objdump, "-d", "-w", image], capture_output=True, text=True,
                       check=True).stdout.splitlines()
instructions = []
for line in lines:
    m = re.match(r"\s*([0-9a-f]+):\t[0-9a-f ]+\t(?:(?:rex\S*|notrack|bnd) )*(\S+)\s*(.*)$", line)
    if m:
        instructions.append((int(m.group(1), 16), m.group(2), m.group(3)))

failures = []
unsaved, avx, x87, mmx = {}, [], [], []
for address, mnemonic, operands in instructions:
    plain = operands.split("#")[0].strip()
    # "Using extended processor features in Windows drivers": AVX state is
    # the driver's to save; x87 and MMX registers are unavailable to x64
    # kernel code ("Using Floating Point in a WDM Driver").
    if re.search(r"%[yz]mm\d", plain) or (mnemonic.startswith("v") and mnemonic not in ("verr", "verw")):
        avx.append(name(address))
    if mnemonic.startswith("f") or mnemonic in ("emms", "femms") or "%st" in plain:
        x87.append(name(address))
    if re.search(r"%mm[0-7]", plain):
        mmx.append(name(address))
    # xmm6-xmm15 are nonvolatile in the x64 convention: a function that
    # writes one must have saved it, and say so in its unwind data.
    m = re.search(r"%xmm(\d+)$", plain)
    if m and int(m.group(1)) >= 6:
        fn = function_at(address)
        if not fn or int(m.group(1)) not in fn[2]:
            key = name(fn[0] if fn else address)
            unsaved.setdefault(key, set()).add(int(m.group(1)))

for what, found in (("AVX", avx), ("x87", x87), ("MMX", mmx)):
    if found:
        failures.append("%d %s instruction(s), in %s" % (len(found), what, ", ".join(sorted(set(found))[:4])))
    else:
        print("ok: no %s instructions" % what)
if unsaved:
    failures.append("xmm6-xmm15 written without a save in the unwind data: " +
                    "; ".join("%s (xmm%s)" % (f, ",".join(map(str, sorted(r)))) for f, r in sorted(unsaved.items())))
else:
    saving = sum(1 for f in functions if f[3])
    print("ok: every function that writes xmm6-xmm15 saves them in its unwind data (%d do)" % saving)

# Pool types (code integrity, 0x2000): each allocation's first argument (ecx)
# is an NX type or the POOL_NX_OPTIN variable, which the image sets to
# NonPagedPoolNx.
variable = [a for a, n in names.items() if n == "ExDefaultNonPagedPoolType"]
allocators = {s for s, n in slots.items() if n.startswith("ExAllocatePool")}


def target_of(operands):
    """The address objdump notes after '#' for a RIP-relative operand."""
    m = re.search(r"# 0x([0-9a-f]+)", operands)
    return int(m.group(1), 16) if m else None


# The linker's import stubs (jmp *slot outside every function) stand for their import.
stubs = {a for a, m, o in instructions
         if m == "jmp" and o.startswith("*") and not function_at(a) and target_of(o) in allocators}


def allocation(mnemonic, operands):
    if mnemonic not in ("call", "jmp"):
        return False
    if operands.startswith("*"):
        return target_of(operands) in allocators
    target = re.match(r"(?:0x)?([0-9a-f]+)", operands)
    return bool(target) and int(target.group(1), 16) in stubs


calls, bad = 0, []
for index, (address, mnemonic, operands) in enumerate(instructions):
    fn = function_at(address)
    if not fn or not allocation(mnemonic, operands):
        continue
    calls += 1
    begin = fn[0]
    verdict = "ecx is not set in its function"
    for back_address, back_mnemonic, back_operands in reversed(instructions[:index]):
        if back_address < begin:
            break
        plain = back_operands.split("#")[0].strip()
        if not re.search(r",%(e|r)cx$|^%(e|r)cx$", plain) or back_mnemonic.startswith(("cmp", "test", "push")):
            continue
        value = re.match(r"\$(0x[0-9a-f]+|\d+),%[er]cx$", plain)
        source = target_of(back_operands)
        if back_mnemonic.startswith("xor") and plain in ("%ecx,%ecx", "%rcx,%rcx"):
            verdict = "pool type 0 (NonPagedPool, executable)"
        elif value:
            v = int(value.group(1), 0)
            verdict = None if v & 1 or v & 0x200 else "pool type %#x (executable)" % v
        elif back_mnemonic.startswith("mov") and source in variable:
            verdict = None
        else:
            verdict = "pool type from '%s %s'" % (back_mnemonic, plain)
        break
    if verdict:
        bad.append("%s: %s" % (name(address), verdict))
# The opt-in is DriverEntry's: the variable set to NonPagedPoolNx there or in
# a function DriverEntry calls.
stores = {function_at(a)[0] for a, m, o in instructions if m.startswith("mov") and o.startswith("$0x200,") and
          function_at(a) and target_of(o) in variable}
entry = base + struct.unpack_from("<I", data, opt + 16)[0]
entry_end = next((end for begin, end, _, _ in functions if begin == entry), entry)
reached = {entry} | {int(o.split()[0], 16) for a, m, o in instructions
                     if entry <= a < entry_end and m == "call" and re.match(r"[0-9a-f]+ ", o)}
if bad:
    failures.append("executable pool type at %d of %d allocation(s): %s" % (len(bad), calls, "; ".join(bad)))
elif calls and variable and not stores & reached:
    failures.append("pool types come from ExDefaultNonPagedPoolType, which DriverEntry does not set to "
                    "NonPagedPoolNx (ExInitializeDriverRuntime(DrvRtPoolNxOptIn))")
else:
    print("ok: %d pool allocation(s) ask for non-executable pool (%s)" %
          (calls, "the POOL_NX_OPTIN opt-in" if variable else "NX pool types"))

if functions:
    begin, end, frame, saved = max(functions, key=lambda f: f[2])
    print("ok: largest stack frame %d bytes, %s" % (frame, name(begin)))
for failure in failures:
    print("FAIL: " + failure)
