import ctypes
import os
import re
import subprocess
import sys

import numpy as np
import pytest

import omkm
from omkm import _lib

HEADER = os.path.join(os.path.dirname(__file__), "..", "..", "include", "omkm.h")


def header_functions():
    """name -> argument letters (p pointer, i int, f element by value) of the standard members."""
    text = open(HEADER).read()
    out = {}
    for m in re.finditer(r"OMKM_API OmkStatus omkm(\w+?)_(32f|64f)\((.*?)\);", text, re.S):
        letters = ""
        for arg in m.group(3).split(","):
            arg = " ".join(arg.split())
            letters += "p" if "*" in arg else "f" if arg.startswith("Omk") else "i"
        out[m.group(1), m.group(2)] = letters
    return out


def test_signatures_match_the_header():
    checked = 0
    for (name, suffix), letters in header_functions().items():
        op = name.split("_")[0]
        fixed_size = re.search(r"\d", name)      # v3, mm4x4: no strides, no checks
        if name in _lib._FIXED or op in ("Add", "Sub", "Mul") and not fixed_size:
            assert _lib.signature(name) == letters, name
            checked += 1
    assert checked > 250


def test_every_used_function_is_declared():
    x = np.eye(3)[None].repeat(2, 0) + 1
    omkm.matmul(x, x)
    omkm.solve(x, np.ones((2, 3)))
    for (name, dt), f in _lib._cache.items():
        assert f.restype is ctypes.c_int
        assert len(f.argtypes) == len(_lib.signature(name))


def test_threads():
    default = omkm.get_num_threads()
    assert default >= 1
    try:
        omkm.set_num_threads(1)
        assert omkm.get_num_threads() == 1
        omkm.set_num_threads(3)
        assert omkm.get_num_threads() == 3
    finally:
        omkm.set_num_threads(0)
    assert omkm.get_num_threads() == default
    with pytest.raises(ValueError):
        omkm.set_num_threads(-1)


def test_library_found_through_env():
    assert os.path.exists(omkm.library_path)
    if os.environ.get("OMKM_LIBRARY"):
        assert omkm.library_path == os.environ["OMKM_LIBRARY"]


def test_import_error_names_every_place(monkeypatch):
    places = [("$OMKM_LIBRARY", "/nonexistent/libomkm.so"), ("the system loader", "libomkm-missing.so.7")]
    monkeypatch.setattr(_lib, "_candidates", lambda: iter(places))
    with pytest.raises(ImportError) as info:
        _lib._load()
    for what, where in places:
        assert what in str(info.value) and where in str(info.value)


def test_bad_env_path_falls_back_and_is_listed():
    code = "import omkm, sys; print(omkm.library_path)"
    env = dict(os.environ, OMKM_LIBRARY="/nonexistent/libomkm.so")
    r = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True,
                       cwd=os.path.join(os.path.dirname(__file__), ".."))
    assert r.returncode == 0, r.stderr
    assert r.stdout.strip() != "/nonexistent/libomkm.so"
