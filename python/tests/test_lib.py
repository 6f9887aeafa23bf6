import os
import re
import subprocess
import sys

import pytest

import omkm
from omkm import _lib

HEADER = os.path.join(os.path.dirname(__file__), "..", "..", "include", "omkm.h")
EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples")


def test_signatures_match_the_header():
    checked = 0
    for m in re.finditer(r"OMKM_API OmkStatus omkm(\w+?)_(32f|64f)\((.*?)\);", open(HEADER).read(), re.S):
        name, args = m.group(1), m.group(3).split(",")
        letters = "".join("p" if "*" in a else "f" if a.strip().startswith("Omk") else "i" for a in args)
        fixed_size = re.search(r"\d", name)      # v3, mm4x4: no strides, no checks
        if name in _lib._FIXED or name.split("_")[0] in ("Add", "Sub", "Mul") and not fixed_size:
            assert _lib.signature(name) == letters, name
            checked += 1
    assert checked > 250


def test_threads():
    default = omkm.get_num_threads()
    try:
        omkm.set_num_threads(default + 1)
        assert omkm.get_num_threads() == default + 1
    finally:
        omkm.set_num_threads(0)                           # back to the default
    assert omkm.get_num_threads() == default
    with pytest.raises(ValueError):
        omkm.set_num_threads(-1)


def test_import_error_names_every_place(monkeypatch):
    places = [("$OMKM_LIBRARY", "/nonexistent/libomkm.so"), ("the system loader", "libomkm-missing.so.7")]
    monkeypatch.setattr(_lib, "_candidates", lambda: iter(places))
    with pytest.raises(ImportError) as info:
        _lib._load()
    for what, where in places:
        assert what in str(info.value) and where in str(info.value)


def test_library_lookup():
    if os.environ.get("OMKM_LIBRARY"):
        assert omkm.library_path == os.environ["OMKM_LIBRARY"]
    code = "import omkm; print(omkm.library_path)"             # a bad $OMKM_LIBRARY falls back
    env = dict(os.environ, OMKM_LIBRARY="/nonexistent/libomkm.so")
    r = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True,
                       cwd=os.path.join(os.path.dirname(__file__), ".."))
    assert r.returncode == 0, r.stderr
    assert r.stdout.strip() != "/nonexistent/libomkm.so"


def test_quickstart_runs():
    env = dict(os.environ, PYTHONPATH=os.path.join(EXAMPLES, ".."))
    out = subprocess.run([sys.executable, os.path.join(EXAMPLES, "quickstart.py")], env=env,
                         capture_output=True, text=True, timeout=120)
    assert out.returncode == 0, out.stderr
    assert "singular: -206" in out.stdout
    assert "poses: (1000, 4, 4) threads: 1" in out.stdout
