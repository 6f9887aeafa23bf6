#!/usr/bin/env python3
"""Counts non-blank lines of the tests against the hand-written code that is not a test.

Source files are those ending in .c .cpp .h .hpp .inc .py .sh .cmake .in and every CMakeLists.txt.
Tests: tests/, python/tests/, fuzz/. Code: src/, include/, tools/, python/ outside its tests,
bench/, examples/, cmake/ and the top CMakeLists.txt. Generated files count on neither side: the
entry files src/*/*_entries.cpp, include/omkm.h and tests/sweep_calls.inc. Prints both figures and
their ratio; with --max-ratio R, exits 1 when tests exceed R times the code.
"""
import argparse
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parent.parent
SUFFIXES = {".c", ".cpp", ".h", ".hpp", ".inc", ".py", ".sh", ".cmake", ".in"}
TESTS = ("tests/", "python/tests/", "fuzz/")
CODE = ("src/", "include/", "tools/", "python/", "bench/", "examples/", "cmake/")
GENERATED = re.compile(r"^(src/[^/]+/[^/]+_entries\.cpp|include/omkm\.h|tests/sweep_calls\.inc)$")


def side(rel):
    if GENERATED.match(rel):
        return "generated"
    if rel.startswith(TESTS):
        return "tests"
    if rel.startswith(CODE) or rel == "CMakeLists.txt":
        return "code"
    return None


def count(root=ROOT):
    totals = {"tests": 0, "code": 0, "generated": 0}
    for path in sorted(root.rglob("*")):
        rel = path.relative_to(root).as_posix()
        if not path.is_file() or rel.startswith((".git/", "build")):
            continue
        if path.suffix not in SUFFIXES and path.name != "CMakeLists.txt":
            continue
        where = side(rel)
        if where:
            text = path.read_text(errors="replace")
            totals[where] += sum(1 for line in text.splitlines() if line.strip())
    return totals


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--max-ratio", type=float, help="fail when tests / code exceeds this")
    args = ap.parse_args()
    t = count()
    ratio = t["tests"] / t["code"]
    print(f"tests                  {t['tests']:7,d}")
    print(f"hand-written code      {t['code']:7,d}")
    print(f"generated (neither)    {t['generated']:7,d}")
    print(f"tests / code           {ratio:7.1%}")
    if args.max_ratio is not None and ratio > args.max_ratio:
        raise SystemExit(f"tests are {ratio:.1%} of the code, above {args.max_ratio:.0%}")


if __name__ == "__main__":
    main()
