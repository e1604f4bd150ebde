#!/usr/bin/env bash
# Builds the Octave package tarball, installs it into a temporary prefix with
# pkg (the user's package lists stay untouched), loads it, calls the filter
# and checks the help text.
# Usage: package_test.sh <repository root> <version> [<source>...]
# (the sources, relative to the root, default to make_package.sh's list)
# Exit code 77 (reported by CTest as skipped) when Octave, mkoctfile or make
# is missing; 1 under CI.
set -u
root=$1
version=$2
shift 2
# Under CI (CI=true) a missing tool is an error, not a skip.
skip=77
[ "${CI:-}" = "true" ] && skip=1
for tool in octave-cli mkoctfile make tar gzip; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "*** SKIPPED: $tool not found; the Octave package was not tested (install Debian's octave and liboctave-dev) ***"
    exit $skip
  fi
done
work=$(mktemp -d "${TMPDIR:-/tmp}/shapewiener-pkgtest.XXXXXX")
trap 'rm -rf "$work"' EXIT
tarball=$("$root/octave/make_package.sh" "$work/dist" "$version" "$@") || exit 1
echo "built $tarball"
# HOME points into the work folder too, so that nothing Octave writes for
# the user (history, package lists) leaves it.
HOME=$work octave-cli --norc --no-history --no-window-system --eval \
  "addpath('$root/tests/octave'); check_installed_package('$tarball', '$work');"
