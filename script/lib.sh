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
  local made_for=
  if [[ -e build/$1/CMakeCache.txt ]]; then
    made_for=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "build/$1/CMakeCache.txt")
  fi
  if [[ -e build/$1 && ! -w build/$1 ]]; then
    echo "build/$1 belongs to another user: remove it, or work in a copy of your own" >&2
    return 1
  elif [[ $made_for && ! $made_for -ef . ]]; then
    echo "build/$1 was made for the folder $made_for: remove it, and begin again" >&2
    return 1
  fi
  "$cmake" --preset "$1" --no-warn-unused-cli \
    -D Python3_EXECUTABLE="$(command -v "$python")" >/dev/null &&
    "$cmake" --build --preset "$1" ${2:+--target "${@:2}"}
}

# Runs a preset's C++ tests.
test_cpp() {
  ctest --test-dir "build/$1" -j "$(nproc)" --output-on-failure
}

# Runs the Python tests with a preset's module: test_python PRESET [OPTION OF PYTEST...]
test_python() {
  DECISION_BOUNDS_MODULE_DIR=build/$1/engines "$python" -m pytest tests/python "${@:2}"
}
