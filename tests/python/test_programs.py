"""Programs that would crash, hang or fail if the module did, each in a process of its own."""

import os
import subprocess
import sys
from pathlib import Path

import decision_bounds as bounds
import pytest

PROGRAMS = """objects_made_by_new_alone callables_that_misbehave cycles_and_chains
    interpreters_of_their_own daemon_threads_at_the_end_of_the_interpreter
    memory_that_fails_at_each_step collections_that_misbehave""".split()


@pytest.mark.parametrize("name", PROGRAMS)
def test_a_program_ends_well(name):
    if name.startswith("memory"):
        pytest.importorskip("_testcapi", reason="libpython3.11-testsuite is not installed")
    command = [sys.executable, "-X", "faulthandler", Path(__file__).with_name("programs.py"), name]
    environment = os.environ | {"PYTHONPATH": str(Path(bounds.__file__).parent)}
    ended = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=120)
    assert (ended.returncode, ended.stderr) == (0, "")
