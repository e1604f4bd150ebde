#!/usr/bin/env bash
# Builds the libFuzzer target fuzz_gateway with clang (AddressSanitizer,
# UndefinedBehaviorSanitizer, the whole library instrumented for coverage)
# and runs it.
#
# Usage: scripts/fuzz.sh [seconds] [build directory] [-- libFuzzer options...]
#   seconds          how long to fuzz (default 300)
#   build directory  default: build-fuzz
# The corpus is kept in <build directory>/fuzz-corpus, and crashing inputs
# are written to <build directory>/fuzz-artifacts. A crash file can be
# described and replayed with any build's fuzz_random:
#   build-asan/fuzz/fuzz_random --input build-fuzz/fuzz-artifacts/crash-...
#
# Needs clang and its runtime libraries (Debian: clang, libclang-rt-dev).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=300
build="$root/build-fuzz"
if [ $# -gt 0 ] && [ "$1" != "--" ]; then seconds=$1; shift; fi
if [ $# -gt 0 ] && [ "$1" != "--" ]; then build=$1; shift; fi
if [ $# -gt 0 ] && [ "$1" = "--" ]; then shift; fi
cxx=${CXX:-clang++}

log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { CXX=$cxx cmake -S "$root" -B "$build" -DSHAPEWIENER_SANITIZE=ON \
         -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSHAPEWIENER_BUILD_TOOLS=OFF \
         -DSHAPEWIENER_BUILD_OCTAVE=OFF -DSHAPEWIENER_BUILD_MATLAB=OFF \
         -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link &&
       cmake --build "$build" -j "$(nproc)" --target fuzz_gateway fuzz_random; } >"$log" 2>&1; then
  cat "$log"
  echo "fuzz.sh: the build failed (is $cxx clang?)" >&2
  exit 1
fi

mkdir -p "$build/fuzz-corpus" "$build/fuzz-artifacts"
exec "$build/fuzz/fuzz_gateway" -max_total_time="$seconds" -max_len=64 -len_control=0 -timeout=20 \
  -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="$build/fuzz-artifacts/" "$@" \
  "$build/fuzz-corpus"
