#!/usr/bin/env bash
# Builds the project and runs every test: the Release build's suites
# (GoogleTest and Octave), then the whole suite again under AddressSanitizer
# and UndefinedBehaviorSanitizer, together with the bounded fuzz run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release
cmake --build "$root/build" -j "$jobs"
(cd "$root/build" && ctest --output-on-failure -j "$jobs")
"$root/scripts/sanitize.sh" "$root/build-asan"
echo "All tests passed."
