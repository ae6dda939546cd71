#!/usr/bin/env python3
"""Checks a driver INF, from its text, against the rules InfVerif applies to a
non-universal, non-declarative INF and against what Microsoft's INF
documentation asks. Each failure is one line naming its rule:

    inf-check: FAIL: <rule>: <what is wrong>

scripts/windows-check.sh runs it on windows/mmeusbaudio.inf and feeds it a
broken copy per rule to see each one refuse. Exit status 1 on any failure.

Usage: inf-check.py FILE.inf
       inf-check.py --hardware-ids FILE.inf   (prints the ids its models install on)
"""
import datetime
import re
import sys

# Windows 10 version 1709: the first build that runs drivers from the driver
# store (DIRID 13); "Run from Driver Store" and "Using Dirids".
DRIVER_STORE_BUILD = 16299
MEDIA_CLASS_GUID = "{4d36e96c-e325-11ce-bfc1-08002be10318}"
# Sections the INF format itself defines; they need no reference.
FORMAT_SECTIONS = {"version", "manufacturer", "strings", "sourcedisksnames",
                   "sourcedisksfiles", "destinationdirs"}


class Inf:
    def __init__(self, raw):
        self.sections = {}  # lower-case name -> (name, [(key or None, value)])
        self.order = []
        current = None
        for line in raw.splitlines():
            line = strip_comment(line).strip()
            if not line:
                continue
            m = re.fullmatch(r"\[([^\]]+)\]", line)
            if m:
                name = m.group(1).strip()
                current = self.sections.setdefault(name.lower(), (name, []))
                self.order.append(name.lower())
                continue
            if current is None:
                continue
            key, sep, value = line.partition("=")
            entry = (key.strip(), value.strip()) if sep else (None, line)
            current[1].append(entry)

    def has(self, name):
        return name.lower() in self.sections

    def entries(self, name):
        return self.sections.get(name.lower(), (name, []))[1]

    def values(self, section, key):
        return [v for k, v in self.entries(section) if k and k.lower() == key.lower()]

    def value(self, section, key):
        found = self.values(section, key)
        return found[0] if found else None


def strip_comment(line):
    out, quoted = [], False
    for c in line:
        if c == '"':
            quoted = not quoted
        elif c == ";" and not quoted:
            break
        out.append(c)
    return "".join(out)


def fields(value):
    return [f.strip() for f in value.split(",")]


def unquote(value):
    return value[1:-1] if len(value) >= 2 and value[0] == value[-1] == '"' else value


class Checker:
    def __init__(self, path):
        self.path = path
        self.failures = 0
        self.referenced = set()

    def fail(self, rule, text):
        print(f"inf-check: FAIL: {rule}: {text}")
        self.failures += 1

    def ok(self, rule, text):
        print(f"inf-check: ok: {rule}: {text}")

    def run(self):
        data = open(self.path, "rb").read()
        # InfVerif 1003: ANSI or UTF-16 LE. Ours is ASCII, so it reads the
        # same in every code page.
        if data.startswith(b"\xff\xfe"):
            text = data.decode("utf-16-le")
            self.ok("encoding", "UTF-16 LE")
        elif any(b >= 0x80 or b == 0 for b in data):
            self.fail("encoding", "bytes outside ASCII without a UTF-16 LE byte order mark")
            text = data.decode("latin-1")
        else:
            text = data.decode("ascii")
            self.ok("encoding", "ASCII")
        self.inf = Inf(text)
        self.strings = {k.lower(): unquote(v) for k, v in self.inf.entries("Strings") if k}
        for check in (self.version, self.strings_defined, self.models, self.install_sections,
                      self.destination_dirs, self.source_disks, self.driver_store,
                      self.services, self.sections_used):
            check()
        return self.failures

    def version(self):
        inf = self.inf
        # InfVerif 1001 and "INF Version section".
        sig = unquote(inf.value("Version", "Signature") or "")
        if sig.lower() == "$windows nt$":
            self.ok("version-signature", sig)
        else:
            self.fail("version-signature", f'[Version] Signature is "{sig}", not "$Windows NT$"')
        cls, guid = inf.value("Version", "Class"), inf.value("Version", "ClassGuid")
        # "System-Defined Device Setup Classes": MEDIA and its GUID together.
        if (cls or "").upper() == "MEDIA" and (guid or "").lower() == MEDIA_CLASS_GUID:
            self.ok("class-guid", f"MEDIA {guid}")
        else:
            self.fail("class-guid", f"Class {cls} with ClassGuid {guid}, not MEDIA {MEDIA_CLASS_GUID}")
        provider = inf.value("Version", "Provider")
        if provider and self.expand(provider).strip():
            self.ok("provider", self.expand(provider))
        else:
            self.fail("provider", "[Version] has no Provider")
        self.driver_ver(inf.value("Version", "DriverVer"))
        cat = inf.value("Version", "CatalogFile")
        # "INF Version section": a PnP package names its catalog, a file name
        # without a path.
        if cat and re.fullmatch(r"[^\\/:]+\.cat", cat, re.I):
            self.ok("catalog-file", cat)
        else:
            self.fail("catalog-file", f"CatalogFile is {cat!r}, not the name of a .cat file")
        lockdown = inf.value("Version", "PnpLockdown")
        if lockdown == "1":
            self.ok("pnp-lockdown", "PnpLockdown = 1")
        else:
            self.fail("pnp-lockdown", f"PnpLockdown is {lockdown!r}, not 1 (drivers lock their files)")

    def driver_ver(self, value):
        # "INF DriverVer directive": mm/dd/yyyy,w.x.y.z, each part 0..65535.
        m = re.fullmatch(r"(\d\d)/(\d\d)/(\d{4})\s*,\s*(\d+)\.(\d+)\.(\d+)\.(\d+)", value or "")
        if not m:
            self.fail("driver-ver", f"DriverVer {value!r} is not mm/dd/yyyy,w.x.y.z")
            return
        try:
            datetime.date(int(m.group(3)), int(m.group(1)), int(m.group(2)))
        except ValueError:
            self.fail("driver-ver", f"DriverVer date {value.split(',')[0]} is not a date")
            return
        if any(int(p) > 65535 for p in m.groups()[3:]):
            self.fail("driver-ver", f"DriverVer version part above 65535 in {value}")
            return
        self.ok("driver-ver", value)

    def expand(self, value):
        return re.sub(r"%([^%]+)%", lambda m: self.strings.get(m.group(1).lower(), m.group(0)), value)

    def strings_defined(self):
        missing = set()
        for lname in self.inf.order:
            if lname == "strings":
                continue
            for k, v in self.inf.entries(lname):
                for token in re.findall(r"%([^%\s]*)%", (k or "") + "=" + v):
                    if token and not token.isdigit() and token.lower() not in self.strings:
                        missing.add(token)
        if missing:
            self.fail("strings-defined", "no [Strings] entry for %" + "%, %".join(sorted(missing)) + "%")
        else:
            self.ok("strings-defined", f"{len(self.strings)} strings, every token defined")

    def models(self):
        """[Manufacturer] -> models sections -> install sections, with the
        lowest Windows build each models section can install on."""
        inf = self.inf
        self.installs = {}  # install section -> lowest build
        before = self.failures
        entries = inf.entries("Manufacturer")
        if not entries:
            self.fail("models-decorated", "[Manufacturer] is empty")
            return
        for _, value in entries:
            parts = fields(value)
            base, decorations = parts[0], parts[1:]
            # "INF Manufacturer section": an x64 driver's models carry the
            # NTamd64 decoration; undecorated ones are for x86 only.
            if not decorations or any(not d.lower().startswith("ntamd64") for d in decorations):
                self.fail("models-decorated", f"{value}: every models decoration must be NTamd64[.os]")
            for d in decorations:
                section = f"{base}.{d}"
                self.referenced.add(section.lower())
                m = re.fullmatch(r"ntamd64(?:\.(\d+)\.(\d+)(?:\.\d*\.\d*\.(\d+))?)?", d, re.I)
                if not m:
                    self.fail("models-decorated", f"{d} is not NTamd64[.major.minor[...build]]")
                    continue
                major = int(m.group(1) or 0)
                build = int(m.group(3) or 0)
                if major < 10:
                    self.fail("models-decorated", f"{d} installs before Windows 10, which the image does not target")
                if not inf.has(section):
                    self.fail("sections-defined", f"models section [{section}] is missing")
                    continue
                for k, v in inf.entries(section):
                    install = fields(v)[0]
                    self.installs[install] = min(build, self.installs.get(install, build))
        if self.failures == before:
            self.ok("models-decorated", ", ".join(f"{i} from Windows 10.0{'.' + str(b) if b else ''}"
                                                  for i, b in self.installs.items()))

    def install_section(self, install):
        for suffix in (".NTamd64", ".NT", ""):
            if self.inf.has(install + suffix):
                return install + suffix
        return None

    def install_sections(self):
        self.copy_lists = {}  # install section -> [file-list sections]
        before = self.failures
        for install in self.installs:
            section = self.install_section(install)
            if not section:
                self.fail("sections-defined", f"install section {install} is missing")
                continue
            self.referenced.add(section.lower())
            for sub in (".Services", ".Interfaces"):
                if self.inf.has(section + sub):
                    self.referenced.add((section + sub).lower())
            includes = self.inf.values(section, "Include")
            needs = self.inf.values(section, "Needs")
            # "Specifying the Source and Target Locations for Device Files"
            # and "INF DDInstall section": Needs names sections of the INFs
            # that Include brings in; one without the other does nothing.
            if bool(includes) != bool(needs):
                self.fail("include-needs", f"[{section}] has {'Include' if includes else 'Needs'} without "
                          f"{'Needs' if includes else 'Include'}")
            lists = []
            for key in ("CopyFiles", "AddReg"):
                for v in self.inf.values(section, key):
                    for name in fields(v):
                        if name.startswith("@"):
                            continue
                        self.need_section(name, f"{key} of [{section}]")
                        if key == "CopyFiles":
                            lists.append(name)
            self.copy_lists[install] = lists
            for k, v in self.inf.entries(section + ".Interfaces"):
                if k and k.lower() == "addinterface":
                    f = fields(v)
                    if len(f) > 2 and f[2]:
                        self.need_section(f[2], f"AddInterface of [{section}.Interfaces]")
                        for add in self.inf.values(f[2], "AddReg"):
                            for name in fields(add):
                                self.need_section(name, f"AddReg of [{f[2]}]")
        self.uses_include = any(self.inf.values(self.install_section(i) or "", "Include")
                                for i in self.installs)
        if self.failures == before:
            self.ok("include-needs", "each Include has its Needs")

    def need_section(self, name, where):
        self.referenced.add(name.lower())
        if not self.inf.has(name):
            self.fail("sections-defined", f"[{name}] named by {where} is missing")

    def destination_dirs(self):
        dirs = {k.lower(): fields(v)[0] for k, v in self.inf.entries("DestinationDirs") if k}
        self.dest = dirs
        bad = False
        # "INF DestinationDirs section": an INF with Include/Needs has no
        # DefaultDestDir and names each file list.
        if self.uses_include and "defaultdestdir" in dirs:
            self.fail("destination-dirs", "DefaultDestDir in an INF that uses Include/Needs "
                      "(the including INF's default overrides the included INFs' own)")
            bad = True
        for lists in self.copy_lists.values():
            for name in lists:
                if name.lower() not in dirs:
                    self.fail("destination-dirs", f"file list [{name}] has no DestinationDirs entry")
                    bad = True
        if not bad:
            self.ok("destination-dirs", ", ".join(f"{k} = {v}" for k, v in dirs.items()))

    def source_disks(self):
        disks = {k.strip() for k, _ in self.inf.entries("SourceDisksNames") if k}
        files = {k.lower(): fields(v)[0] for k, v in self.inf.entries("SourceDisksFiles") if k}
        bad = False
        # "INF SourceDisksFiles section": each copied file has a source disk.
        for lists in self.copy_lists.values():
            for name in lists:
                for k, v in self.inf.entries(name):
                    copied = fields(k if k else v)[0].lower()
                    if copied not in files:
                        self.fail("source-disks", f"{copied} (in [{name}]) is not in [SourceDisksFiles]")
                        bad = True
                    elif files[copied] not in disks:
                        self.fail("source-disks", f"{copied} is on disk {files[copied]}, "
                                  "which [SourceDisksNames] does not name")
                        bad = True
        if not bad:
            self.ok("source-disks", f"{len(files)} file(s), each on a named disk")

    def dirid_of(self, install):
        default = self.dest.get("defaultdestdir")
        return [(name, self.dest.get(name.lower(), default)) for name in self.copy_lists.get(install, [])]

    def driver_store(self):
        bad = False
        for install, build in self.installs.items():
            want = "13" if build >= DRIVER_STORE_BUILD else "12"
            for name, dirid in self.dirid_of(install):
                if dirid == "13" and build < DRIVER_STORE_BUILD:
                    self.fail("driver-store-dirid", f"[{name}] goes to DIRID 13 from build {build}; "
                              f"the driver store runs drivers from build {DRIVER_STORE_BUILD} on")
                    bad = True
                elif dirid != want:
                    self.fail("driver-store-dirid", f"[{name}] goes to DIRID {dirid} from build {build}, "
                              f"not DIRID {want}")
                    bad = True
        if not bad:
            self.ok("driver-store-dirid", f"DIRID 13 from build {DRIVER_STORE_BUILD}, 12 before")

    def services(self):
        bad = False
        for install in self.installs:
            section = self.install_section(install)
            if not section:
                continue
            adds = self.inf.values(section + ".Services", "AddService")
            assoc = [fields(a) for a in adds if len(fields(a)) > 2 and int(fields(a)[1], 0) & 2]
            # "INF AddService directive": a PnP function driver's service
            # carries SPSVCINST_ASSOCSERVICE.
            if len(assoc) != 1:
                self.fail("service-binary", f"[{section}.Services] needs one AddService with "
                          "SPSVCINST_ASSOCSERVICE (0x2)")
                bad = True
                continue
            svc = assoc[0][2]
            self.need_section(svc, f"AddService of [{section}.Services]")
            want = {"ServiceType": "1", "StartType": "3", "ErrorControl": "1"}
            for key, value in want.items():
                got = self.inf.value(svc, key)
                if got is None or int(got, 0) != int(value):
                    self.fail("service-binary", f"[{svc}] {key} is {got}, not {value} (kernel driver, "
                              "demand start for PnP, normal errors)")
                    bad = True
            binary = self.inf.value(svc, "ServiceBinary") or ""
            m = re.fullmatch(r"%(\d+)%\\([^\\]+)", binary)
            copied = {(d, fields(k if k else v)[0].lower())
                      for name, d in self.dirid_of(install) for k, v in self.inf.entries(name)}
            if not m or (m.group(1), m.group(2).lower()) not in copied:
                self.fail("service-binary", f"[{svc}] ServiceBinary {binary} is not where "
                          f"[{section}] copies a file ({', '.join(f'%{d}%' + chr(92) + f for d, f in sorted(copied))})")
                bad = True
        if not bad:
            self.ok("service-binary", "each service runs the binary its install section copies")

    def sections_used(self):
        unused = [self.inf.sections[n][0] for n in dict.fromkeys(self.inf.order)
                  if n not in FORMAT_SECTIONS and n not in self.referenced]
        if unused:
            self.fail("sections-used", "never referenced: [" + "], [".join(unused) + "]")
        else:
            self.ok("sections-used", f"{len(set(self.inf.order))} sections, each referenced")


def hardware_ids(path):
    inf = Inf(open(path, encoding="latin-1").read())
    ids = []
    for _, value in inf.entries("Manufacturer"):
        base, *decorations = fields(value)
        for d in decorations or [""]:
            for _, v in inf.entries(f"{base}.{d}" if d else base):
                ids += [i for i in fields(v)[1:] if i and i not in ids]
    return ids


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--hardware-ids":
        print("\n".join(hardware_ids(sys.argv[2])))
        return 0
    if len(sys.argv) != 2:
        print("\n".join(__doc__.strip().splitlines()[-2:]), file=sys.stderr)
        return 2
    return 1 if Checker(sys.argv[1]).run() else 0


if __name__ == "__main__":
    sys.exit(main())
