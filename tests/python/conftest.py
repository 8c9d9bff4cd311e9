"""Puts the built module in place: under its own name, and in the example client's `engines`."""

import importlib.util
import os
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
RELEASE = REPOSITORY / "build/release/engines"
FOLDER = Path(os.environ.get("DECISION_BOUNDS_MODULE_DIR") or RELEASE).resolve()
if not any(FOLDER.glob("decision_bounds.*.so")):
    raise pytest.UsageError(f"no built module in {FOLDER} (set DECISION_BOUNDS_MODULE_DIR)")
sys.path[:0] = [str(FOLDER), str(REPOSITORY / "examples")]

import decision_bounds  # noqa: E402
import decision_client.engines  # noqa: E402
from support import Kind  # noqa: E402

decision_client.engines.__path__[:] = [str(FOLDER)]  # not one that was installed there


@pytest.fixture
def import_fresh():
    """Imports a module of one test's own, whose types may be patched."""

    def import_it():
        spec = importlib.util.spec_from_file_location("a.decision_bounds", decision_bounds.__file__)
        spec.loader.exec_module(module := importlib.util.module_from_spec(spec))
        return module

    return import_it


@pytest.fixture
def fresh(import_fresh):
    return import_fresh()


@pytest.fixture(params=["budget", "spend"])
def which(request):
    return request.param


@pytest.fixture(params=["plain", "subclass", "other condition"])
def kind(request):
    return Kind(request.param)
