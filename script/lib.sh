# Sourced by the scripts: strict mode, the repository as the current folder, Debian's tools.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export PATH="/usr/bin:$PATH" # a Python of the user's own may bring another cmake and ninja
cmake=${CMAKE:-cmake}
python=${PYTHON:-python3}

fail() {
  echo "$*" >&2
  exit 1
}

# Configures and builds one preset: build PRESET [TARGET...]
build() {
  "$cmake" --preset "$1" --no-warn-unused-cli \
    -D Python3_EXECUTABLE="$(command -v "$python")" >/dev/null &&
    "$cmake" --build --preset "$1" ${2:+--target "${@:2}"}
}

# Runs a preset's C++ tests.
test_cpp() {
  ctest --test-dir "build/$1" -j "$(nproc)" --output-on-failure
}

# Runs the Python tests with a preset's module.
test_python() {
  DECISION_BOUNDS_MODULE_DIR=build/$1/engines "$python" -m pytest tests/python
}
