#!/usr/bin/env bash
# Mutation check of the test suite: applies one-line arithmetic mutants to
# the core, one at a time, on a copy of the tree; rebuilds incrementally;
# runs the fast part of the suite (the golden checksums, whole-call
# semantics, core properties, validation, the reference path against the
# fast paths and thread counts; not the workloads, not Octave) and
# reports which mutants survive. Every listed mutant must be caught. Not
# part of CI: it takes about a minute per mutant on two cores.
#
# Usage: scripts/mutants.sh [work directory [pattern]]
#   work directory  default: a temporary one; reused (incremental) when given
#   pattern         run only the mutants whose line contains this text
# Exit status 1 when a mutant survives or does not apply.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=${1:-$(mktemp -d "${TMPDIR:-/tmp}/shapewiener-mutants.XXXXXX")}
pattern=${2:-}
mkdir -p "$work/src"
git -C "$root" ls-files -co --exclude-standard | tar -C "$root" -cf - -T - | tar -C "$work/src" -xf -

# file @@ original text @@ mutated text (each original must occur exactly once)
mutants=$(cat <<'LIST'
src/estimate/wiener.h @@ variance + sigma * ((factor * factor) * sigma) @@ variance + (sigma * sigma) * (factor * factor)
src/estimate/wiener.h @@ static_cast<float>(de / (static_cast<double>(noise) * lambda + de)) @@ static_cast<float>(de / static_cast<float>(static_cast<double>(noise) * lambda + de))
src/estimate/wiener.h @@ (static_cast<double>(dc_noise) * lambda) / shape_size @@ (static_cast<double>(dc_noise) * lambda) / (shape_size + 1.0)
src/estimate/wiener.h @@ ((dc_factor * dc_factor) * dc_noise_level) * dc_noise_level @@ (dc_factor * dc_factor) * (dc_noise_level * dc_noise_level)
src/shape/gather.h @@ ((td + 2.0) * 1e-17 + mean) @@ ((td + 1.0) * 1e-17 + mean)
src/shape/gather.h @@ pilot[q] = pilot[q] + static_cast<double>(step + 13) * 3e-17 @@ pilot[q] = pilot[q] + static_cast<double>(step + 12) * 3e-17
src/shape/gather.h @@ const double size = static_cast<double>(n); @@ const double size = static_cast<double>(n + 1);
src/shape/shape.h @@ return diff < 0; @@ return diff <= 0;
src/shape/shape.h @@ direction_scale[(d + 5) % 8] @@ direction_scale[(d + 3) % 8]
src/estimate/aggregate.h @@ clipped = 1.0f > v ? @@ clipped = 1.0f < v ?
src/estimate/aggregate.h @@ 1.0 / (static_cast<double>(estimate_variance) * shape_size) @@ 1.0 / static_cast<double>(estimate_variance * static_cast<float>(shape_size))
src/estimate/aggregate.h @@ static_cast<float>(static_cast<double>(weight_sum[p]) + weight) @@ weight_sum[p] + static_cast<float>(weight)
src/spectrum/noise_level.h @@ (u == 0 || u == half) ? psd[u] @@ (u == 0) ? psd[u]
src/spectrum/noise_level.h @@ for (uint32_t u = 0; u <= half; ++u) @@ for (uint32_t u = 0; u < half; ++u)
src/spectrum/noise_level.h @@ static_cast<float>(std::sqrt(acc / nn) * noise_level_factor) @@ static_cast<float>(std::sqrt(acc / nn)) * static_cast<float>(noise_level_factor)
src/transform/shape_transform.h @@ for (uint32_t s = 1; s < len; ++s) { @@ for (uint32_t s = 1; s + 1 < len; ++s) {
src/transform/shape_transform.h @@ static_cast<double>(acc) + static_cast<double>(c[f]) * col[f] @@ static_cast<double>(acc) + static_cast<double>(c[f] * static_cast<float>(col[f]))
src/spectrum/block_spectrum.cpp @@ re = re + (p * c - q * s); @@ re = (re + p * c) - q * s;
src/spectrum/fft32.cpp @@ return {fl(v.re * c) + fl(v.im * s), fl(v.im * c) - fl(v.re * s)}; @@ return {fl(v.re * c + v.im * s), fl(v.im * c) - fl(v.re * s)};
src/driver/workspace.cpp @@ re = next_re; @@ re = static_cast<float>(next_re);
src/driver/filter.cpp @@ if (cs.coverage_count[q] > coverage_threshold) continue; @@ if (cs.coverage_count[q] >= coverage_threshold) continue;
src/driver/check.cpp @@ if (p < 1 || static_cast<uint64_t>(p) > pixels) { @@ if (p < 1 || static_cast<uint64_t>(p) >= pixels) {
LIST
)

tests=(test_golden test_filter test_core test_validation test_fast_paths test_threads)
log="$work/build.log"
echo "mutants.sh: building the tests in $work/build"
cmake -S "$work/src" -B "$work/build" -DCMAKE_BUILD_TYPE=Release -DSHAPEWIENER_BUILD_TOOLS=OFF \
  -DSHAPEWIENER_BUILD_OCTAVE=OFF >"$log" 2>&1
cmake --build "$work/build" -j 2 --target "${tests[@]}" >>"$log" 2>&1 || { cat "$log"; exit 1; }

survived=0
total=0
while IFS= read -r line; do
  [ -z "$pattern" ] || grep -qF -- "$pattern" <<<"$line" || continue
  file=${line%% @@ *}
  rest=${line#* @@ }
  old=${rest%% @@ *}
  new=${rest#* @@ }
  total=$((total + 1))
  target="$work/src/$file"
  cp "$target" "$target.orig"
  if [ "$(grep -cF -- "$old" "$target")" != 1 ]; then
    echo "NOT APPLIED  $file: $old"
    survived=$((survived + 1))
    continue
  fi
  OLD=$old NEW=$new perl -pi -e 's/\Q$ENV{OLD}\E/$ENV{NEW}/' "$target"
  verdict="SURVIVED"
  if ! cmake --build "$work/build" -j 2 --target "${tests[@]}" >>"$log" 2>&1; then
    verdict="BUILD FAILED"
  else
    for t in "${tests[@]}"; do
      if ! "$work/build/tests/$t" --gtest_filter='-Workload.*' --gtest_brief=1 >"$work/run.log" 2>&1; then
        verdict="caught by $t"
        break
      fi
    done
  fi
  [ "${verdict:0:6}" = "caught" ] || survived=$((survived + 1))
  printf '%-22s %s: %s  ->  %s\n' "$verdict" "$file" "$old" "$new"
  cp "$target.orig" "$target"
  rm -f "$target.orig"
done <<<"$mutants"
# Leave the copy as it was built, so that a rerun starts from a clean build.
cmake --build "$work/build" -j 2 --target "${tests[@]}" >>"$log" 2>&1 || true
echo "mutants.sh: $((total - survived)) of $total mutants caught"
[ "$survived" -eq 0 ]
