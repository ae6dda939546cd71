#!/usr/bin/env python3
"""Fails on a dead relative link in the repository's Markdown files.

Every inline link and image, and every reference definition, in each *.md
file git knows of (tracked, or new and not ignored) is resolved against the
file's folder (a leading / against the repository's root). The target must
be a file or folder of the same set, so a link into a build directory, which
a fresh clone lacks, is dead too. An anchor must name a heading of the
target (or of the file itself), spelt as GitHub spells heading ids.
Web links are not looked at. Prints each dead link as FILE:LINE: LINK (why)
and ends with one summary line.

    scripts/link-check.py [REPOSITORY]
"""
import os
import re
import subprocess
import sys
import urllib.parse

FENCE = re.compile(r"^ {0,3}(```|~~~)")
# [text](target "title") and ![alt](target); the text may hold one level of
# brackets and run over several lines.
INLINE = re.compile(
    r"!?\[(?:[^\[\]]|\[[^\[\]]*\])*\]\(\s*(<[^>\n]*>|[^\s)]+)(?:\s+(?:\"[^\"]*\"|'[^']*'))?\s*\)"
)
REFERENCE = re.compile(r"^ {0,3}\[[^\]]+\]:\s*(<[^>\n]*>|\S+)", re.MULTILINE)
CODE_SPAN = re.compile(r"(`+)(?:.|\n)*?\1")
HEADING = re.compile(r"^ {0,3}#{1,6}\s+(.*?)\s*#*\s*$")


def repository_files(root):
    out = subprocess.run(
        ["git", "-C", root, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        check=True,
        capture_output=True,
    ).stdout.decode()
    files = {f for f in out.split("\0") if f and os.path.isfile(os.path.join(root, f))}
    folders = {""}
    for f in files:
        d = os.path.dirname(f)
        while d not in folders:
            folders.add(d)
            d = os.path.dirname(d)
    return files, folders


def prose(text, spans=True):
    """The text with code blocks (and code spans) blanked, line numbers kept."""
    lines = text.split("\n")
    fenced = None
    previous_blank = True
    in_indented = False
    for i, line in enumerate(lines):
        m = FENCE.match(line)
        if fenced:
            if m and m.group(1) == fenced:
                fenced = None
            lines[i] = ""
            continue
        if m:
            fenced = m.group(1)
            lines[i] = ""
            continue
        blank = not line.strip()
        indented = line.startswith("    ") and not blank
        if indented and (previous_blank or in_indented):
            in_indented = True
            lines[i] = ""
        elif not blank:
            in_indented = False
        previous_blank = blank
    joined = "\n".join(lines)
    if not spans:
        return joined
    return CODE_SPAN.sub(lambda m: re.sub(r"[^\n]", " ", m.group(0)), joined)


def slug(heading):
    text = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)  # a link's text
    text = text.replace("`", "").strip().lower()
    text = re.sub(r"[^\w\- ]", "", text)
    return text.replace(" ", "-")


def anchors(path, cache={}):
    if path not in cache:
        ids, seen = set(), {}
        with open(path, encoding="utf-8") as f:
            body = prose(f.read(), spans=False)
        for line in body.split("\n"):
            m = HEADING.match(line)
            if not m:
                continue
            base = slug(m.group(1))
            n = seen.get(base, 0)
            seen[base] = n + 1
            ids.add(base if n == 0 else f"{base}-{n}")
        cache[path] = ids
    return cache[path]


def check(root):
    files, folders = repository_files(root)
    markdown = sorted(f for f in files if f.endswith(".md"))
    links = dead = 0
    for md in markdown:
        with open(os.path.join(root, md), encoding="utf-8") as f:
            text = prose(f.read())
        found = [(m.start(), m.group(1)) for m in INLINE.finditer(text)]
        found += [(m.start(), m.group(1)) for m in REFERENCE.finditer(text)]
        for offset, target in sorted(found):
            target = target.strip("<>")
            if re.match(r"^[a-zA-Z][a-zA-Z0-9+.-]*:", target) or target.startswith("//"):
                continue  # a web or mail address
            links += 1
            where = f"{md}:{text.count(chr(10), 0, offset) + 1}"
            path, _, anchor = target.partition("#")
            path = urllib.parse.unquote(path)
            if path.startswith("/"):
                resolved = os.path.normpath(path.lstrip("/"))
            elif path:
                resolved = os.path.normpath(os.path.join(os.path.dirname(md), path))
            else:
                resolved = md
            resolved = "" if resolved == "." else resolved
            why = None
            if resolved.startswith(".."):
                why = "outside the repository"
            elif resolved not in files and resolved not in folders:
                why = (
                    "not in the repository, only in this tree"
                    if os.path.exists(os.path.join(root, resolved))
                    else "no such file or folder"
                )
            elif anchor and resolved.endswith(".md") and resolved in files:
                if urllib.parse.unquote(anchor).lower() not in anchors(os.path.join(root, resolved)):
                    why = f"no heading #{anchor} in {resolved}"
            if why:
                dead += 1
                print(f"{where}: {target} ({why})")
    verdict = "none dead" if dead == 0 else f"{dead} dead"
    print(f"{links} relative links in {len(markdown)} Markdown files, {verdict}")
    return dead == 0


if __name__ == "__main__":
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..")
    sys.exit(0 if check(os.path.abspath(root)) else 1)
