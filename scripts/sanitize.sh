#!/usr/bin/env bash
# Builds the project with AddressSanitizer and UndefinedBehaviorSanitizer and
# runs the test suite there, the bounded fuzz run (fuzz_random) included.
# Leak detection is on; any sanitizer report fails its test.
#
# Usage: scripts/sanitize.sh [build directory]   (default: build-asan)
#
# The Octave suites are left to the plain build: a sanitizer build makes no
# MEX file, since Octave itself is not built with the sanitizers.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-"$root/build-asan"}
jobs=$(nproc)

log=$(mktemp)
trap 'rm -f "$log"' EXIT
run_quietly() {
  if ! "$@" >"$log" 2>&1; then
    cat "$log"
    echo "sanitize.sh: failed: $*" >&2
    exit 1
  fi
}

run_quietly cmake -S "$root" -B "$build" -DSHAPEWIENER_SANITIZE=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSHAPEWIENER_BUILD_TOOLS=OFF
run_quietly cmake --build "$build" -j "$jobs"

# Sanitizer reports end the process with an error; leaks are reported at exit.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=1"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:+$UBSAN_OPTIONS:}print_stacktrace=1:halt_on_error=1"
status=0
(cd "$build" && ctest --output-on-failure --no-tests=error -j "$jobs" -E '^octave') >"$log" 2>&1 || status=$?
if [ "$status" -ne 0 ]; then
  cat "$log"
  echo "sanitize.sh: tests failed under the sanitizers (build in $build)" >&2
  exit "$status"
fi
grep -E 'tests passed|Total Test time' "$log" || true
echo "sanitize.sh: all tests passed under AddressSanitizer and UndefinedBehaviorSanitizer."
