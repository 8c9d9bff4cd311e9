"""The examples of README and guide do what they say."""

import os
import re
import subprocess
import sys

import pytest
from conftest import FOLDER, REPOSITORY

EXAMPLES = [
    text
    for page in ("README.md", "docs/guide.md")
    for text in re.findall(r"```python\n(.*?)```", (REPOSITORY / page).read_text("utf-8"), re.S)
]
RUN = """import runpy, sys, time, decision_client.engines
decision_client.engines.__path__[:], began = [sys.argv[2]], time.monotonic()
runpy.run_path(sys.argv[1], run_name="__main__")
print(time.monotonic() - began)"""


@pytest.mark.parametrize("number", range(max(8, len(EXAMPLES))))  # a page may lose none
def test_an_example_of_the_documents_runs_and_the_recipes_threads_at_once(number, tmp_path):
    (program := tmp_path / "example.py").write_text(EXAMPLES[number], "utf-8")
    paths = os.environ | {"PYTHONPATH": ":".join(sys.path)}
    command = [sys.executable, "-W", "error", "-c", RUN, str(program), str(FOLDER)]
    ended = subprocess.run(command, env=paths, capture_output=True, text=True, timeout=50)
    assert ended.returncode == 0 and "Warning" not in ended.stderr, ended.stderr
    latencies = float(ended.stdout.split()[-1]) / 0.1
    alone_then_all = 1 + 64 / 16  # 64 where they take turns
    assert number > 0 or alone_then_all <= latencies < 2 * alone_then_all
