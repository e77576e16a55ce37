"""The Python surface of the extension modules under hostile calls: the sweep
and random call sequences of surface_fuzz.py run in a child process, which
must end normally (a crash there is a fault here)."""

import os
import subprocess
import sys

# Seconds of random call sequences after the full sweep.
RANDOM_SECONDS = 20


def test_hostile_calls_never_crash_the_process(tmp_path):
    script = os.path.join(os.path.dirname(__file__), "surface_fuzz.py")
    # The calls may make files (a database named by a fuzzed path): they are
    # made in a folder of the test's own.
    run = subprocess.run([sys.executable, script, str(RANDOM_SECONDS)], capture_output=True,
                         text=True, timeout=900, cwd=tmp_path)
    assert run.returncode == 0, run.stderr[-4000:]
    assert "fuzzed" in run.stdout
