#!/usr/bin/env bash
# Runs the Python suite for CTest:
#   run_pytest.sh PYTHON PACKAGE_DIR TESTS_DIR BUILD_DIR
# Exit 77 (skipped) when pytest or NumPy is missing, except under CI=true,
# where that is a failure, as is a run that collects no tests (pytest's 5).
set -u
python=$1
export PYTHONPATH="$2${PYTHONPATH:+:$PYTHONPATH}"
export SHAPEWIENER_BUILD_DIR=$4
if ! "$python" -c "import pytest, numpy" 2>/dev/null; then
  if [ "${CI:-}" = true ]; then
    echo "FAILED: $python lacks pytest or NumPy (CI=true)"
    exit 1
  fi
  echo "SKIPPED: $python lacks pytest or NumPy (install python3-pytest, python3-numpy)"
  exit 77
fi
cd "$3" || exit 1
"$python" -m pytest -q -p no:cacheprovider -rs .
rc=$?
if [ "$rc" -eq 5 ]; then
  echo "FAILED: pytest collected no tests"
  exit 1
fi
exit "$rc"
