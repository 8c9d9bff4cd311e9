"""Puts the module in place, as built or as installed: under its own name, and in the example
client's `engines`."""

import os
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
FOLDER = Path(os.environ.get("DECISION_BOUNDS_MODULE_DIR", REPOSITORY / "build/release/engines"))
if not [*FOLDER.glob("decision_bounds.*.so"), *FOLDER.glob("decision_bounds/__init__.*.so")]:
    raise pytest.UsageError(f"no module in {FOLDER} (set DECISION_BOUNDS_MODULE_DIR)")
sys.path[:0] = [str(FOLDER), str(REPOSITORY / "examples")]

import decision_client.engines  # noqa: E402
from support import Kind  # noqa: E402

decision_client.engines.__path__[:] = [str(FOLDER)]  # not one that was installed there


@pytest.fixture(params=["budget", "spend"])
def which(request):
    return request.param


@pytest.fixture(params=["plain", "subclass", "other condition"])
def kind(request):
    return Kind(request.param)
