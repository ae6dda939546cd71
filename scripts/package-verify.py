#!/usr/bin/env python3
"""A second reading of the driver package, written apart from
tools/make-catalog and osslsigncode and from the documents alone:

  catalog CAT FILE[=NAME]...
      Each FILE must be the catalog's member NAME (default: its own name),
      listed by its SHA-1 and by its SHA-256 digest: the subject is the
      digest in upper-case hex, the indirect data holds the digest, and the
      subject type is the PE or the flat-file one. A PE image's digest is
      the Authenticode one ("Windows Authenticode Portable Executable
      Signature Format", Calculating the PE Image Hash), a flat file's the
      digest of its bytes. The catalog is PKCS #7 SignedData around a
      certificate trust list (CTL_INFO) and must carry a signer.
  checksum IMAGE
      The optional header's CheckSum must be the image's checksum (PE
      format: the kernel checks it for every driver it loads).
  digest FILE sha1|sha256
      Prints the digest a catalog holds for FILE.

Prints one line per file; a refusal names the file and what differs, and
the exit status is 1.
"""
import hashlib
import os
import struct
import sys

OID_SIGNED_DATA = "1.2.840.113549.1.7.2"
OID_CTL = "1.3.6.1.4.1.311.10.1"
OID_NAME_VALUE = "1.3.6.1.4.1.311.12.2.1"
OID_MEMBER_INFO = "1.3.6.1.4.1.311.12.2.2"
OID_INDIRECT_DATA = "1.3.6.1.4.1.311.2.1.4"
OID_PE_IMAGE_DATA = "1.3.6.1.4.1.311.2.1.15"
OID_CAB_DATA = "1.3.6.1.4.1.311.2.1.25"
OID_SHA1 = "1.3.14.3.2.26"
OID_SHA256 = "2.16.840.1.101.3.4.2.1"
SUBJECT_PE = "{C689AAB8-8E78-11D0-8C47-00C04FC295EE}"
SUBJECT_FLAT = "{DE351A42-8E59-11D0-8C47-00C04FC295EE}"
ALGORITHMS = {OID_SHA1: "sha1", OID_SHA256: "sha256"}


class Refused(Exception):
    pass


# ---- DER (X.690), only what the catalog uses ----

def der(data, at=0):
    """(tag, content, end) of the element at `at`."""
    tag = data[at]
    length = data[at + 1]
    at += 2
    if length & 0x80:
        count = length & 0x7F
        if count == 0 or count > 4:
            raise Refused(f"DER length form {length:#x} not allowed")
        length = int.from_bytes(data[at:at + count], "big")
        at += count
    if at + length > len(data):
        raise Refused("DER element runs past its container")
    return tag, data[at:at + length], at + length


def children(content):
    out, at = [], 0
    while at < len(content):
        tag, value, at = der(content, at)
        out.append((tag, value))
    return out


def oid(content):
    first = content[0]
    parts = [min(first // 40, 2), first - 40 * min(first // 40, 2)]
    value = 0
    for b in content[1:]:
        value = value << 7 | (b & 0x7F)
        if not b & 0x80:
            parts.append(value)
            value = 0
    return ".".join(map(str, parts))


def expect(element, tag, what):
    if element[0] != tag:
        raise Refused(f"{what}: tag {element[0]:#x}, expected {tag:#x}")
    return element[1]


# ---- the catalog ----

def read_catalog(path):
    """{(NAME, algorithm): member} and the number of signers."""
    data = open(path, "rb").read()
    tag, content, end = der(data)
    info = children(expect((tag, content), 0x30, "ContentInfo"))
    if oid(expect(info[0], 0x06, "contentType")) != OID_SIGNED_DATA:
        raise Refused(f"{path}: not PKCS #7 SignedData")
    signed = children(expect(children(expect(info[1], 0xA0, "content"))[0], 0x30, "SignedData"))
    # version, digestAlgorithms, encapContentInfo, [0] certificates?,
    # [1] crls?, signerInfos
    encap = children(expect(signed[2], 0x30, "encapContentInfo"))
    if oid(expect(encap[0], 0x06, "eContentType")) != OID_CTL:
        raise Refused(f"{path}: the content is not a certificate trust list")
    signers = children(expect(signed[-1], 0x31, "signerInfos"))
    ctl = children(expect(children(expect(encap[1], 0xA0, "eContent"))[0], 0x30, "CTL"))
    # CTL_INFO: version?, subjectUsage, listIdentifier?, sequenceNumber?,
    # thisUpdate, nextUpdate?, subjectAlgorithm, trustedSubjects?, [0]?
    i = 1 if ctl[0][0] == 0x02 else 0
    usage = [oid(expect(e, 0x06, "subjectUsage")) for e in children(expect(ctl[i], 0x30, "usage"))]
    if "1.3.6.1.4.1.311.12.1.1" not in usage:
        raise Refused(f"{path}: the trust list is not a catalog list")
    i += 1
    while ctl[i][0] in (0x04, 0x02):
        i += 1
    i += 1  # thisUpdate
    if ctl[i][0] in (0x17, 0x18):
        i += 1  # nextUpdate
    i += 1  # subjectAlgorithm
    members = {}
    for subject in children(expect(ctl[i], 0x30, "trustedSubjects")) if i < len(ctl) else []:
        parts = children(expect(subject, 0x30, "TrustedSubject"))
        tag = expect(parts[0], 0x04, "subjectIdentifier").decode("utf-16-le").rstrip("\0")
        member = {"tag": tag, "names": {}}
        for attribute in children(expect(parts[1], 0x31, "attributes")):
            kind, values = children(expect(attribute, 0x30, "attribute"))
            kind = oid(expect((kind[0], kind[1]), 0x06, "attribute type"))
            value = children(expect(values, 0x31, "attribute values"))[0]
            fields = children(expect(value, 0x30, "attribute value"))
            if kind == OID_NAME_VALUE:
                name = expect(fields[0], 0x1E, "name").decode("utf-16-be")
                member["names"][name] = expect(fields[2], 0x04, "value").decode("utf-16-le").rstrip("\0")
            elif kind == OID_MEMBER_INFO:
                member["subject type"] = expect(fields[0], 0x1E, "subject GUID").decode("utf-16-be").rstrip("\0")
            elif kind == OID_INDIRECT_DATA:
                member["data type"] = oid(expect(children(expect(fields[0], 0x30, "data"))[0], 0x06, "type"))
                digest = children(expect(fields[1], 0x30, "DigestInfo"))
                algorithm = oid(expect(children(expect(digest[0], 0x30, "algorithm"))[0], 0x06, "OID"))
                member["algorithm"] = ALGORITHMS.get(algorithm, algorithm)
                member["digest"] = expect(digest[1], 0x04, "digest")
        name = member["names"].get("File", "").lower()
        key = (name, member.get("algorithm"))
        if key in members:
            raise Refused(f"{path}: {name} is listed twice with {key[1]}")
        members[key] = member
    return members, len(signers)


# ---- PE images ----

def pe_layout(data):
    if data[:2] != b"MZ":
        return None
    pe = struct.unpack_from("<I", data, 0x3C)[0]
    if data[pe:pe + 4] != b"PE\0\0":
        return None
    sections, optional_size = struct.unpack_from("<H", data, pe + 6)[0], struct.unpack_from("<H", data, pe + 20)[0]
    opt = pe + 24
    magic = struct.unpack_from("<H", data, opt)[0]
    directories = {0x20B: 112, 0x10B: 96}[magic]
    return {
        "checksum": opt + 64,
        "cert entry": opt + directories + 4 * 8,
        "headers": struct.unpack_from("<I", data, opt + 60)[0],
        "sections": [struct.unpack_from("<II", data, opt + optional_size + 40 * i + 16)
                     for i in range(sections)],  # (SizeOfRawData, PointerToRawData)
    }


def authenticode(data, algorithm):
    """The image digest, step by step as the Authenticode document lists it."""
    layout = pe_layout(data)
    cert_offset, cert_size = struct.unpack_from("<II", data, layout["cert entry"])
    if cert_size and cert_offset + cert_size != len(data):
        raise Refused("the certificate table is not the end of the file")
    h = hashlib.new(algorithm)
    h.update(data[:layout["checksum"]])                                   # steps 3-4
    h.update(data[layout["checksum"] + 4:layout["cert entry"]])           # step 5-6
    h.update(data[layout["cert entry"] + 8:layout["headers"]])            # step 7
    summed = layout["headers"]                                            # step 8
    for size, offset in sorted((s for s in layout["sections"] if s[0]), key=lambda s: s[1]):
        h.update(data[offset:offset + size])                              # steps 9-13
        summed += size
    h.update(data[summed:len(data) - cert_size])                          # step 14
    return h.digest()


def pe_checksum(data, field):
    """The PE CheckSum: a 16-bit one's-complement-style sum of the file's
    words with the field itself taken as zero, plus the file length."""
    padded = data[:field] + b"\0\0\0\0" + data[field + 4:]
    if len(padded) % 2:
        padded += b"\0"
    total = 0
    for (word,) in struct.iter_unpack("<H", padded):
        total += word
        total = (total & 0xFFFF) + (total >> 16)
    return ((total & 0xFFFF) + (total >> 16)) + len(data)


# ---- commands ----

def check_member(members, path, name):
    data = open(path, "rb").read()
    pe = pe_layout(data) is not None
    seen = []
    for algorithm in ("sha1", "sha256"):
        digest = authenticode(data, algorithm) if pe else hashlib.new(algorithm, data).digest()
        member = members.get((name, algorithm))
        if member is None:
            raise Refused(f"{path}: the catalog lists no {algorithm} member named {name}")
        if member.get("digest") != digest or member["tag"] != digest.hex().upper():
            raise Refused(f"{path}: {algorithm} {digest.hex()[:16]}... is not the catalog's "
                          f"{member.get('digest', b'').hex()[:16]}... for {name}")
        want_type = (OID_PE_IMAGE_DATA, SUBJECT_PE) if pe else (OID_CAB_DATA, SUBJECT_FLAT)
        if (member.get("data type"), member.get("subject type")) != want_type:
            raise Refused(f"{path}: {name} is listed as {member.get('subject type')}, not as a "
                          f"{'PE image' if pe else 'flat file'}")
        seen.append(f"{algorithm} {digest.hex()[:16]}...")
    kind = "PE image, Authenticode digest" if pe else "flat file"
    print(f"package-verify: {name}: {kind}: {', '.join(seen)} match the catalog")


def main(argv):
    if len(argv) >= 3 and argv[1] == "catalog":
        try:
            members, signers = read_catalog(argv[2])
            if signers == 0:
                raise Refused(f"{argv[2]}: the catalog carries no signature")
            files = set()
            for arg in argv[3:]:
                path, _, name = arg.partition("=")
                name = (name or os.path.basename(path)).lower()
                files.add(name)
                check_member(members, path, name)
            extra = {n for n, _ in members} - files
            if extra:
                raise Refused(f"{argv[2]}: lists files not checked here: {', '.join(sorted(extra))}")
        except (Refused, IndexError, KeyError, struct.error, UnicodeDecodeError) as e:
            print(f"package-verify: REFUSED: {e}")
            return 1
        return 0
    if len(argv) == 4 and argv[1] == "digest" and argv[3] in ("sha1", "sha256"):
        data = open(argv[2], "rb").read()
        digest = authenticode(data, argv[3]) if pe_layout(data) else hashlib.new(argv[3], data).digest()
        print(digest.hex())
        return 0
    if len(argv) == 3 and argv[1] == "checksum":
        data = open(argv[2], "rb").read()
        layout = pe_layout(data)
        stored = struct.unpack_from("<I", data, layout["checksum"])[0]
        computed = pe_checksum(data, layout["checksum"])
        if stored != computed:
            print(f"package-verify: REFUSED: {argv[2]}: CheckSum {stored:#x}, the image sums to {computed:#x}")
            return 1
        print(f"package-verify: {os.path.basename(argv[2])}: CheckSum {stored:#x} is the image's")
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
