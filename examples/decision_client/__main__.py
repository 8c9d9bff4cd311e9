"""`python3 -m decision_client`: see `decision_client.cli`."""

import sys

INSTALL = "cmake --install build/release --component engines --prefix examples/decision_client"

try:
    import decision_client.engines.decision_bounds  # noqa: F401
except ModuleNotFoundError as error:
    if error.name != "decision_client.engines.decision_bounds":
        raise
    sys.exit(f"decision_client: the module is not installed in this package yet; run: {INSTALL}")

try:
    from decision_client.cli import main
except ModuleNotFoundError as error:
    if error.name not in ("httpx", "platformdirs", "rich", "tenacity"):
        raise
    package = f"package {error.name} (Debian: python3-{error.name})"
    sys.exit(f"decision_client: {sys.executable} has no {package}")

sys.exit(main())
