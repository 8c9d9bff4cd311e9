"""Each hazard in an interpreter of its own: where the module is at fault, it crashes or hangs."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

HAZARDS = sorted(path.stem for path in Path(__file__).parent.glob("hazards/*.py"))
RUN = """import faulthandler, importlib, sys
faulthandler.dump_traceback_later(120, exit=True)  # seconds; it shows the stack of every thread
importlib.import_module("hazards." + sys.argv[1]).main()"""


@pytest.mark.timeout(300)  # above the limit of the hazard itself
@pytest.mark.parametrize("hazard", HAZARDS)
def test_a_hazard_is_survived(hazard):
    if hazard == "memory_that_fails":
        pytest.importorskip("_testcapi", reason="libpython3.11-testsuite is not installed")
    command = [sys.executable, "-X", "faulthandler", "-c", RUN, hazard]
    environment = os.environ | {"PYTHONPATH": os.pathsep.join(sys.path)}
    ended = subprocess.run(command, env=environment, capture_output=True, text=True)
    assert (ended.returncode, ended.stderr) == (0, "")
