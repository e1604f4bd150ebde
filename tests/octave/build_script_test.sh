#!/usr/bin/env bash
# Runs octave/build_shapewiener.m in Octave into a temporary folder and calls
# the function it built once.
# Usage: build_script_test.sh <repository root>
# Exit code 77 (reported by CTest as skipped) when Octave or mkoctfile is
# missing; 1 under CI.
set -u
root=$1
# Under CI (CI=true) a missing tool is an error, not a skip.
skip=77
[ "${CI:-}" = "true" ] && skip=1
for tool in octave-cli mkoctfile; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "*** SKIPPED: $tool not found; build_shapewiener was not tested (install Debian's octave and liboctave-dev) ***"
    exit $skip
  fi
done
work=$(mktemp -d "${TMPDIR:-/tmp}/shapewiener-buildtest.XXXXXX")
trap 'rm -rf "$work"' EXIT
octave-cli --norc --no-history --no-window-system --eval "
  addpath('$root/octave');
  built = build_shapewiener('$work/out');
  rmpath('$root/octave');
  addpath('$work/out'); addpath('$root/tests/octave');
  if ~strcmp(which('shapewiener'), built)
    error('shapewiener resolves to %s, not to %s', which('shapewiener'), built);
  end
  if ~exist(fullfile('$work/out', 'shapewiener.m'), 'file')
    error('the help file was not copied beside the MEX file');
  end
  args = make_valid_args(4, 3, 2, 32);
  out = shapewiener(args{:});
  if ~isequal(size(out), [4, 3]) || ~isa(out, 'double') || any(isnan(out(:)))
    error('unexpected result from the built filter');
  end
  printf('build_shapewiener built and ran %s\n', built);"
