#!/usr/bin/env bash
# Runs, in a repository (default: this one; CI passes a fresh clone), every
# README block marked `<!-- runnable -->` (the fenced block that follows the
# marker), the examples of the Octave help texts, and scripts/demo.sh; each
# as written, from the repository root, under bash -euo pipefail. Exits
# non-zero at the first that fails.
#   scripts/check_readme.sh [REPOSITORY]
set -euo pipefail
repo=$(cd "${1:-$(dirname "$0")/..}" && pwd)
cd "$repo"
blocks=$(mktemp -d "${TMPDIR:-/tmp}/shapewiener-readme.XXXXXX")
trap 'rm -rf "$blocks"' EXIT

# The fenced blocks after the markers, one file each (indentation removed).
awk -v dir="$blocks" '
  /<!-- runnable -->/ { want = 1; next }
  want && /^[[:space:]]*```/ { if (inside) { inside = 0; want = 0; close(file) } else { inside = 1; n++; file = sprintf("%s/block%02d.sh", dir, n); indent = match($0, /[^ ]/) - 1 } ; next }
  inside { print substr($0, indent + 1) > file }
' README.md
count=$(find "$blocks" -name 'block*.sh' | wc -l)
[ "$count" -gt 0 ] || { echo "check_readme: no runnable block in README.md" >&2; exit 1; }

run() {  # run <label> <script>
  local start=$SECONDS
  echo "== $1"
  sed 's/^/   | /' "$2"
  if ! bash -euo pipefail "$2" > "$blocks/log" 2>&1; then
    cat "$blocks/log"
    echo "check_readme: FAILED: $1" >&2
    exit 1
  fi
  echo "   ok ($((SECONDS - start)) s)"
}
for b in "$blocks"/block*.sh; do
  run "README.md block $(basename "$b" .sh | tr -dc 0-9)" "$b"
done

# The Octave help examples: the indented lines after "Example" in each help
# text, run against the built MEX files.
if command -v octave-cli > /dev/null; then
  cmake --build build -j2 --target octave_mex octave_denoise_mex > /dev/null
  for help in octave/shapewiener.m octave/shapewiener_denoise.m octave/shapewiener_estimate_noise.m; do
    code=$(awk '/^%   Example/ { on = 1; next } on && /^%     / { print substr($0, 6); next } on { exit }' "$help")
    [ -n "$code" ] || { echo "check_readme: no example in $help" >&2; exit 1; }
    printf "addpath('build/octave');\n%s\n" "$code" > "$blocks/example.m"
    printf 'octave-cli --no-gui --quiet %q\n' "$blocks/example.m" > "$blocks/example.sh"
    run "example of $help" "$blocks/example.sh"
  done
else
  echo "check_readme: octave-cli not found: the Octave help examples are not run" >&2
  [ "${CI:-}" != true ] || exit 1
fi

echo scripts/demo.sh > "$blocks/demo.sh"
run "scripts/demo.sh" "$blocks/demo.sh"
echo "check_readme: all $count README blocks, the help examples and the demo ran"
