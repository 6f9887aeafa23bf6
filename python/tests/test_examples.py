"""The examples run as a user runs them and print what they promise."""
import os
import subprocess
import sys

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples")


def test_quickstart_runs():
    env = dict(os.environ, PYTHONPATH=os.path.join(EXAMPLES, ".."))
    out = subprocess.run([sys.executable, os.path.join(EXAMPLES, "quickstart.py")], env=env,
                         capture_output=True, text=True, timeout=120)
    assert out.returncode == 0, out.stderr
    assert "singular: -206" in out.stdout
    assert "poses: (1000, 4, 4) threads: 1" in out.stdout
