#!/usr/bin/env python3
"""Checks that every code snippet of the guide is taken from a built file.

In README.md and docs/*.md, a fenced code block preceded by `<!-- snippet: PATH -->` must appear,
line for line and consecutively, in PATH (relative to the repository). A fenced C block without
such a marker is an error, so that no C code in the guide can drift from the examples.
"""
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
MARK = re.compile(r"<!--\s*snippet:\s*(\S+)\s*-->")


def blocks(text):
    """(marker path or None, language, lines, line number) of each fenced block."""
    lines = text.splitlines()
    i = 0
    while i < len(lines):
        m = re.match(r"^```(\w*)\s*$", lines[i])
        if not m:
            i += 1
            continue
        prev = lines[i - 1] if i > 0 else ""
        mark = MARK.search(prev)
        j = i + 1
        while j < len(lines) and not lines[j].startswith("```"):
            j += 1
        yield (mark.group(1) if mark else None, m.group(1), lines[i + 1:j], i + 1)
        i = j + 1


def contains(haystack, needle):
    hay = [l.rstrip() for l in haystack]
    ned = [l.rstrip() for l in needle]
    return any(hay[k:k + len(ned)] == ned for k in range(len(hay) - len(ned) + 1))


def main():
    errors = []
    docs = [ROOT / "README.md"] + sorted((ROOT / "docs").glob("*.md")) if (ROOT / "docs").is_dir() else [ROOT / "README.md"]
    checked = 0
    for doc in docs:
        for path, lang, body, line in blocks(doc.read_text()):
            where = f"{doc.relative_to(ROOT)}:{line}"
            if path is None:
                if lang in ("c", "cpp", "cmake"):
                    errors.append(f"{where}: a {lang} block without a snippet marker")
                continue
            source = ROOT / path
            if not source.is_file():
                errors.append(f"{where}: {path} does not exist")
            elif not contains(source.read_text().splitlines(), body):
                errors.append(f"{where}: the block is not in {path} as it stands")
            checked += 1
    for e in errors:
        print(e)
    print(f"{checked} snippets checked, {len(errors)} errors")
    return 1 if errors or checked == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
