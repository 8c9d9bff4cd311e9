"""The examples of README and guide do what they say."""

import re
import subprocess
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
EXAMPLES = [
    (page, number, text)
    for page in ("README.md", "docs/guide.md")
    for number, text in enumerate(
        re.findall(r"```python\n(.*?)```", (REPOSITORY / page).read_text("utf-8"), re.DOTALL), 1
    )
]


@pytest.mark.parametrize("example", EXAMPLES, ids=lambda example: f"{example[0]}-{example[1]}")
def test_an_example_of_the_documents_runs(example, tmp_path):
    (program := tmp_path / "example.py").write_text(example[2], "utf-8")
    run = f"import sys, decision_client.engines as e; e.__path__[:] = [sys.argv[1]]\n{{}}"
    run = run.format(f"import runpy; runpy.run_path({str(program)!r}, run_name='__main__')")
    paths = {"PYTHONPATH": ":".join(sys.path), "PATH": ""}
    folder = Path(sys.modules["decision_bounds"].__file__).parent
    if folder.name == "decision_bounds":  # installed as a package
        folder = folder.parent
    command = [sys.executable, "-W", "error", "-c", run, str(folder)]
    ended = subprocess.run(command, env=paths, capture_output=True, text=True, timeout=50)
    assert ended.returncode == 0 and "Warning" not in ended.stderr, ended.stderr


def test_every_page_has_its_examples():
    assert len(EXAMPLES) >= 8
