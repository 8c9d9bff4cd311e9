"""Each hazard in an interpreter of its own: where the module is at fault, it crashes or hangs."""

import os
import subprocess
import sys
from pathlib import Path

import decision_bounds as bounds
import pytest

HERE = Path(__file__).parent


@pytest.mark.timeout(300)  # each has a limit of its own, and shows the stack of every thread
@pytest.mark.parametrize("hazard", sorted(HERE.glob("hazards/*.py")), ids=lambda path: path.stem)
def test_a_hazard_is_survived(hazard):
    if hazard.stem == "memory_that_fails":
        pytest.importorskip("_testcapi", reason="libpython3.11-testsuite is not installed")
    path = f"{Path(bounds.__file__).parent}{os.pathsep}{HERE}"
    command, environment = [sys.executable, "-X", "faulthandler", hazard], {"PYTHONPATH": path}
    ended = subprocess.run(command, env=os.environ | environment, capture_output=True, text=True)
    assert (ended.returncode, ended.stderr) == (0, "")
