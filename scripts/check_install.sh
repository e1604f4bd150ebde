#!/usr/bin/env bash
# Checks that a clean clone installs, by both routes, and runs its README:
#  1. CMake: build (no tests, no benchmarks), `cmake --install` into a prefix;
#     the program's --version, the man page, pkg-config, the Octave files,
#     and tests/cmake_consume built against the installed package and run.
#  2. pip: `pip install --no-build-isolation` into a fresh virtual
#     environment (with the system's NumPy and Dask), then from another
#     folder: import, __version__, the `shapewiener` command (same bits as
#     the installed program) and `python -m shapewiener.batch`.
#  3. scripts/check_readme.sh in the clone.
# The clone is of this repository's HEAD, in a temporary folder with no
# ../shared beside it. Usage: scripts/check_install.sh [--keep]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/shapewiener-install.XXXXXX")
[ "${1:-}" = --keep ] && echo "check_install: keeping $work" || trap 'rm -rf "$work"' EXIT
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-2}
clone=$work/shapewiener
prefix=$work/prefix
git clone -q "$root" "$clone"
version=$(head -n 1 "$clone/VERSION")
step() { echo "== check_install: $*"; }
fail() { echo "check_install: FAILED: $*" >&2; exit 1; }
expect_version() {  # expect_version <what> <printed>
  [ "$2" = "$version" ] || [ "$2" = "shapewiener $version" ] || fail "$1 printed '$2', VERSION is $version"
}

step "CMake build and install into $prefix"
cmake -S "$clone" -B "$clone/build" -DSHAPEWIENER_BUILD_TESTS=OFF -DSHAPEWIENER_BUILD_BENCH=OFF > /dev/null
nice cmake --build "$clone/build" > "$work/build.log" 2>&1 || { tail -40 "$work/build.log"; fail "build"; }
cmake --install "$clone/build" --prefix "$prefix" > /dev/null
expect_version "bin/shapewiener --version" "$("$prefix/bin/shapewiener" --version)"
for f in include/shapewiener/denoise.h include/shapewiener/filter.h include/shapewiener/version.h \
         lib/cmake/shapewiener/shapewienerConfig.cmake lib/pkgconfig/shapewiener.pc; do
  [ -f "$prefix/$f" ] || fail "$f not installed"
done
[ -z "$(find "$prefix/include" -path '*/src/*')" ] || fail "private headers installed"
man_page=$prefix/share/man/man1/shapewiener.1
if command -v help2man > /dev/null; then
  MANWIDTH=80 man -l "$man_page" > "$work/man.txt" 2> /dev/null || fail "man -l $man_page"
  grep -q "SHAPEWIENER DENOISE" "$work/man.txt" || fail "the man page lacks the denoise command"
  grep -q "$version" "$work/man.txt" || fail "the man page lacks the version"
  echo "man page: $(wc -l < "$work/man.txt") lines"
else
  [ "${CI:-}" != true ] || fail "help2man missing"
  echo "check_install: help2man not found: no man page to check" >&2
fi
if command -v mkoctfile > /dev/null; then
  [ -f "$prefix/share/shapewiener/octave/shapewiener_denoise.mex" ] || fail "Octave files not installed"
  octave-cli --no-gui --quiet --eval "addpath('$prefix/share/shapewiener/octave');
    out = shapewiener_denoise(0.5 + 0.1 * randn(32), 'sigma', 0.1, 'preset', 'fast');
    assert(isequal(size(out), [32 32]))" || fail "the installed Octave files"
fi

step "outside CMake project (tests/cmake_consume) against the installed package"
cmake -S "$clone/tests/cmake_consume" -B "$work/consume" -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
cmake --build "$work/consume" > /dev/null
"$work/consume/consume"
step "the same program through pkg-config"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
expect_version "pkg-config --modversion" "$(pkg-config --modversion shapewiener)"
# shellcheck disable=SC2046  # the flags are words
g++ -std=c++17 -O1 "$clone/tests/cmake_consume/consume.cpp" -o "$work/consume_pc" \
    $(pkg-config --cflags --libs shapewiener)
"$work/consume_pc" > /dev/null

step "pip install into a fresh virtual environment"
/usr/bin/python3 -m venv --system-site-packages "$work/venv"
(cd "$clone" && "$work/venv/bin/pip" install --no-build-isolation --no-index -q .) \
  > "$work/pip.log" 2>&1 || { tail -40 "$work/pip.log"; fail "pip install"; }
cd /tmp
expect_version "shapewiener.__version__" \
  "$("$work/venv/bin/python3" -c "import shapewiener; print(shapewiener.__version__)")"
expect_version "venv shapewiener --version" "$("$work/venv/bin/shapewiener" --version)"
"$work/venv/bin/python3" -m shapewiener.batch --help > /dev/null || fail "python -m shapewiener.batch"
"$work/venv/bin/python3" -c "import shapewiener.dask" || fail "import shapewiener.dask"
for sw in "$prefix/bin/shapewiener" "$work/venv/bin/shapewiener"; do
  "$sw" simulate "$clone/data/camera.png" "$work/noisy.npy" --sigma 0.1 --seed 3
  "$sw" denoise "$work/noisy.npy" "$work/out_$(basename "$(dirname "$(dirname "$sw")")").npy" \
        --sigma 0.1 --preset fast --quiet
done
cmp "$work/out_prefix.npy" "$work/out_venv.npy" || fail "pip's shapewiener and the installed one differ"
"$work/venv/bin/python3" - "$work/noisy.npy" "$work/out_venv.npy" <<'PY' || fail "Python and CLI differ"
import sys
import numpy as np
import shapewiener
noisy, cli = (np.load(p) for p in sys.argv[1:])
assert np.array_equal(shapewiener.denoise(noisy, sigma=0.1, preset="fast"), cli)
PY
echo "pip: version $version from /tmp; the shapewiener command gives the installed program's bits and shapewiener.denoise's"
cd "$root"

step "README commands in the clone"
"$clone/scripts/check_readme.sh" "$clone"
echo "check_install: both routes and the README commands pass (version $version)"
