#!/usr/bin/env python3
"""Plants the faults of tools/faults.txt one at a time and records whether the test suite sees them.

Each fault is a one-line change to one source line of the library or of the Python package. The
script works on a copy of the repository's working tree (tracked and untracked files that git does
not ignore, so uncommitted work counts) in a scratch directory, never on the repository itself:

  1. parse tools/faults.txt and validate every entry (the file exists, the original text occurs
     exactly once in it, within one line); a bad entry stops the script with a non-zero status;
  2. copy the working tree into the scratch directory, configure a Release build there once
     (build/ inside it, through ccache when ccache is on PATH), build everything and run the suite
     clean; a failing clean suite stops the script;
  3. for each fault: apply it, rebuild incrementally, run the suite as README gives it (stopping at
     the first failure), record CAUGHT with the first failing test, MISSED, or NOBUILD when the
     library no longer builds, then restore the file.

Output, one line per fault as it goes, then a summary:
    CAUGHT  <id>  <first failing test>
    MISSED  <id>
    NOBUILD <id>

The exit status is 0 whatever was caught or missed (the run is a measurement); it is non-zero only
for a bad list, a NOBUILD, or a clean suite that does not pass.

Usage:
    python3 tools/plant_faults.py [--scratch DIR] [--only ID ...] [--out FILE] [--list]
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FAULTS = os.path.join(REPO, "tools", "faults.txt")
DEFAULT_SCRATCH = "/tmp/omkm-faults/src"

# Where faults may be planted: hand-written sources of the libraries and of the Python package.
ALLOWED = re.compile(r"^(src/.+\.(h|cpp)|include/omkm\.hpp|include/omkm_eigen\.hpp|python/omkm/[^/]+\.(py|c))$")
# Never there: tests, fuzzing, tools, benchmarks and generated files.
FORBIDDEN = re.compile(r"^(tests/|python/tests/|fuzz/|tools/|bench/|include/omkm\.h$)|_entries\.cpp$")
AREAS = ("frame", "driver", "core", "add", "move", "transpose", "saxpy", "mul", "scale", "dot", "norm",
         "gaxpy", "lu", "chol", "qr", "det", "inv", "esym", "egen", "gfx-vec", "gfx-xform", "gfx-point", "py", "cpp")
ID = re.compile(r"^[a-z0-9]+(-[a-z0-9]+)+$")


class Fault:
    def __init__(self, fid, path, line):
        self.id, self.path, self.line = fid, path, line
        self.what = None      # the '#' line saying what the fault breaks
        self.old = None       # the original text ('-' line)
        self.new = None       # its replacement ('+' line)


def parse(text):
    """The faults of the list, in order, and the problems found while reading it. A block is
    '@ id path', one '#' line, '- original', '+ replacement'; blank lines and '#' lines may stand
    between blocks."""
    faults, problems = [], []
    cur = None
    for n, raw in enumerate(text.split("\n"), 1):
        line = raw.rstrip("\r")
        if line.startswith("@ "):
            parts = line[2:].split()
            if len(parts) != 2:
                problems.append(f"line {n}: expected '@ <id> <path>'")
                cur = None
                continue
            cur = Fault(parts[0], parts[1], n)
            faults.append(cur)
        elif line.startswith("- ") or line == "-":
            if cur is None or cur.old is not None:
                problems.append(f"line {n}: '-' line outside a fault block or repeated")
            else:
                cur.old = line[2:]
        elif line.startswith("+ ") or line == "+":
            if cur is None or cur.old is None or cur.new is not None:
                problems.append(f"line {n}: '+' line must follow the '-' line of a fault block")
            else:
                cur.new = line[2:]
        elif line.startswith("#"):
            # The first '#' line of a block (before its '-' line) says what the fault breaks; any
            # other is a comment between blocks.
            if cur is not None and cur.what is None and cur.old is None:
                cur.what = line[1:].strip()
        elif line.strip():
            problems.append(f"line {n}: unexpected text {line.strip()[:60]!r}")
    return faults, problems


def validate(faults, root):
    """Problems with the faults against the files under root, one string each."""
    problems, seen = [], set()
    for f in faults:
        where = f"fault {f.id} (line {f.line})"
        if f.id in seen:
            problems.append(f"{where}: duplicate id")
        seen.add(f.id)
        if not ID.match(f.id) or not any(f.id.startswith(a + "-") for a in AREAS):
            problems.append(f"{where}: id must be kebab-case and start with an area prefix")
        if not f.what:
            problems.append(f"{where}: no '#' line saying what the fault breaks")
        if f.old is None or f.new is None:
            problems.append(f"{where}: needs both a '-' and a '+' line")
            continue
        if not f.old.strip():
            problems.append(f"{where}: the original text is empty")
            continue
        if f.old == f.new:
            problems.append(f"{where}: the replacement equals the original")
        if not ALLOWED.match(f.path) or FORBIDDEN.search(f.path):
            problems.append(f"{where}: {f.path} is not a hand-written source of the library or package")
            continue
        full = os.path.join(root, f.path)
        if not os.path.isfile(full):
            problems.append(f"{where}: {f.path} does not exist")
            continue
        with open(full, encoding="utf-8") as fh:
            content = fh.read()
        count = content.count(f.old)
        if count != 1:
            problems.append(f"{where}: the original text occurs {count} times in {f.path}, not once")
    return problems


def run(cmd, cwd, log=None):
    """Runs cmd in cwd; its output goes to the log file (or is discarded). Returns the exit status."""
    with open(log or os.devnull, "a") as out:
        return subprocess.run(cmd, cwd=cwd, stdout=out, stderr=subprocess.STDOUT).returncode


def working_tree_files():
    """The repository's files as git sees the working tree: tracked and untracked, not ignored."""
    out = subprocess.run(["git", "-C", REPO, "ls-files", "-co", "--exclude-standard", "-z"],
                         check=True, stdout=subprocess.PIPE).stdout.decode()
    return sorted({p for p in out.split("\0") if p and os.path.isfile(os.path.join(REPO, p))})


def sync_copy(scratch):
    """Makes scratch a copy of the working tree, leaving its build/ directory alone. Files whose
    content is already the same keep their time stamps, so a later run rebuilds only what changed;
    files that are no longer in the tree are removed."""
    files = working_tree_files()
    wanted = set(files)
    for rel in files:
        src, dst = os.path.join(REPO, rel), os.path.join(scratch, rel)
        with open(src, "rb") as fh:
            data = fh.read()
        if os.path.isfile(dst) and not os.path.islink(dst):
            with open(dst, "rb") as fh:
                if fh.read() == data:
                    continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        shutil.copy2(src, dst)
    for dirpath, dirnames, filenames in os.walk(scratch):
        rel_dir = os.path.relpath(dirpath, scratch)
        if rel_dir == ".":
            dirnames[:] = [d for d in dirnames if d != "build"]
        for name in filenames:
            rel = os.path.normpath(os.path.join(rel_dir, name))
            if rel not in wanted:
                os.remove(os.path.join(dirpath, name))


def first_failed(build):
    """The name of the first test in ctest's list of failed tests ('index:name' lines)."""
    log = os.path.join(build, "Testing", "Temporary", "LastTestsFailed.log")
    try:
        with open(log) as fh:
            for line in fh:
                line = line.strip()
                if line:
                    return line.split(":", 1)[-1]
    except OSError:
        pass
    return "(no failed test recorded)"


def suite(scratch, log):
    """Runs the suite as README gives it, stopping at the first failure. Returns (passed, first
    failing test)."""
    build = os.path.join(scratch, "build")
    stale = os.path.join(build, "Testing", "Temporary", "LastTestsFailed.log")
    if os.path.exists(stale):
        os.remove(stale)
    rc = run(["ctest", "--test-dir", "build", "-j2", "--stop-on-failure", "--timeout", "300"], scratch, log)
    return rc == 0, (None if rc == 0 else first_failed(build))


def build(scratch, log):
    return run(["cmake", "--build", "build", "-j2"], scratch, log) == 0


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--scratch", default=DEFAULT_SCRATCH, help=f"scratch directory (default {DEFAULT_SCRATCH})")
    ap.add_argument("--only", nargs="+", metavar="ID", help="plant only these faults")
    ap.add_argument("--out", help="also write the result lines and the summary to this file")
    ap.add_argument("--list", action="store_true", help="print the ids of the faults and exit")
    args = ap.parse_args()

    with open(FAULTS, encoding="utf-8") as fh:
        faults, problems = parse(fh.read())
    problems += validate(faults, REPO)
    if problems:
        for p in problems:
            print(f"tools/faults.txt: {p}", file=sys.stderr)
        return 2
    if args.list:
        for f in faults:
            print(f.id)
        return 0
    if args.only:
        known = {f.id for f in faults}
        unknown = [i for i in args.only if i not in known]
        if unknown:
            print(f"unknown fault ids: {' '.join(unknown)}", file=sys.stderr)
            return 2
        faults = [f for f in faults if f.id in set(args.only)]

    scratch = os.path.abspath(args.scratch)
    if os.path.commonpath([scratch, REPO]) == REPO:
        print("the scratch directory must lie outside the repository", file=sys.stderr)
        return 2
    os.makedirs(scratch, exist_ok=True)
    log = os.path.join(os.path.dirname(scratch), "plant_faults.log")
    out = open(args.out, "w") if args.out else None
    start = time.time()

    def emit(line):
        print(line, flush=True)
        if out:
            out.write(line + "\n")
            out.flush()

    # The clean copy, configured once, built and tested.
    sync_copy(scratch)
    configure = ["cmake", "-S", ".", "-B", "build", "-DCMAKE_BUILD_TYPE=Release"]
    if shutil.which("ccache"):
        configure += ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_C_COMPILER_LAUNCHER=ccache"]
    print(f"scratch copy {scratch}; build log {log}", flush=True)
    if run(configure, scratch, log) != 0 or not build(scratch, log):
        print("the clean copy does not configure or build; see the log", file=sys.stderr)
        return 1
    passed, failing = suite(scratch, log)
    if not passed:
        print(f"the clean suite fails ({failing}); no fault was planted", file=sys.stderr)
        return 1
    print(f"clean suite passes ({time.time() - start:.0f} s); planting {len(faults)} faults", flush=True)

    caught, missed, nobuild = [], [], []
    for f in faults:
        path = os.path.join(scratch, f.path)
        with open(path, encoding="utf-8") as fh:
            original = fh.read()
        try:
            with open(path, "w", encoding="utf-8") as fh:
                fh.write(original.replace(f.old, f.new, 1))
            if not build(scratch, log):
                nobuild.append(f.id)
                emit(f"NOBUILD {f.id}")
                continue
            passed, failing = suite(scratch, log)
            if passed:
                missed.append(f.id)
                emit(f"MISSED  {f.id}")
            else:
                caught.append(f.id)
                emit(f"CAUGHT  {f.id}  {failing}")
        finally:
            with open(path, "w", encoding="utf-8") as fh:
                fh.write(original)

    minutes = (time.time() - start) / 60
    emit(f"# {len(faults)} faults: {len(caught)} caught, {len(missed)} missed, {len(nobuild)} nobuild; "
         f"total time {minutes:.1f} min")
    if out:
        out.close()
    return 1 if nobuild else 0


if __name__ == "__main__":
    sys.exit(main())
