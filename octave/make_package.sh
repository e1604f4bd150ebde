#!/usr/bin/env bash
# Builds the Octave package shapewiener-<version>.tar.gz.
#
# Usage: make_package.sh <outdir> [<version>]
#   <outdir>   folder that receives the tarball (created if needed)
#   <version>  package version; default: the file VERSION at the top
# The sources are the library's (src/sources.txt) and the MEX gateway.
#
# Install and use in Octave:
#   pkg install <outdir>/shapewiener-<version>.tar.gz
#   pkg load shapewiener
#   help shapewiener
#
# The package holds DESCRIPTION, COPYING, INDEX, pre_install.m, inst/shapewiener.m and
# inst/shapewiener_denoise.m (the help texts), inst/shapewiener_estimate_noise.m and src/ with the library's
# sources, the gateways and a Makefile, which `pkg install` runs to compile
# shapewiener.mex and shapewiener_denoise.mex with the installing Octave's
# mkoctfile. Set SOURCE_DATE_EPOCH to fix the Date field and the file times.
set -euo pipefail

if [ $# -lt 1 ]; then
  echo "usage: $0 <outdir> [<version>]" >&2
  exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
outdir=$1
shift
if [ $# -ge 1 ]; then
  version=$1
  shift
else
  version=$(head -n 1 "$root/VERSION")
fi
if ! [[ $version =~ ^[0-9]+(\.[0-9]+)*$ ]]; then
  echo "$0: no usable version ('$version'); pass it as the second argument" >&2
  exit 2
fi
sources=(src/mex/gateway.cpp src/mex/denoise_gateway.cpp)
library=()
while read -r s; do
  case $s in ''|'#'*) ;; *) sources+=("$s"); library+=("${s#src/}") ;; esac
done < "$root/src/sources.txt"
# The filter's gateway and the denoiser's.
targets=(shapewiener.mex shapewiener_denoise.mex)
helps=(shapewiener.m shapewiener_denoise.m shapewiener_estimate_noise.m)

epoch=${SOURCE_DATE_EPOCH:-$(date +%s)}
date=$(date -u -d "@$epoch" +%Y-%m-%d)
name=shapewiener-$version
mkdir -p "$outdir"
outdir=$(cd "$outdir" && pwd)
stage=$(mktemp -d "${TMPDIR:-/tmp}/shapewiener-package.XXXXXX")
trap 'rm -rf "$stage"' EXIT
pkg=$stage/$name
mkdir -p "$pkg/inst" "$pkg/src"

sed -e "s/@VERSION@/$version/" -e "s/@DATE@/$date/" "$here/package/DESCRIPTION.in" \
  > "$pkg/DESCRIPTION"
cp "$root/LICENSE" "$pkg/COPYING"
# pkg install runs pre_install.m first: it announces the compilation.
cp "$here/package/pre_install.m" "$pkg/pre_install.m"
for h in "${helps[@]}"; do
  cp "$here/$h" "$pkg/inst/$h"
done
{
  head -n 2 "$here/package/INDEX"
  for h in "${helps[@]}"; do echo " ${h%.m}"; done
} > "$pkg/INDEX"

# The sources keep their folders under src/, as they include each other by
# those paths. Every header of the filter comes along; the host's own mex.h
# is used.
for s in "${sources[@]}"; do
  case $s in
    src/*) ;;
    *) echo "$0: $s is not under src/" >&2; exit 2 ;;
  esac
  mkdir -p "$pkg/$(dirname "$s")"
  cp "$root/$s" "$pkg/$s"
done
(cd "$root" && find src -name '*.h') | while read -r h; do
  mkdir -p "$pkg/$(dirname "$h")"
  cp "$root/$h" "$pkg/$h"
done
# The public headers go to src/include/shapewiener/.
mkdir -p "$pkg/src/include"
cp -r "$root/include/shapewiener" "$pkg/src/include/"
cp "$root/cmake/mex_exports.map" "$pkg/src/mex_exports.map"
sed -e "s|@LIBRARY@|${library[*]}|" -e "s|@TARGETS@|${targets[*]}|" \
  "$here/package/Makefile" > "$pkg/src/Makefile"

tarball=$outdir/$name.tar.gz
tar -C "$stage" --sort=name --owner=0 --group=0 --numeric-owner \
    --mtime="@$epoch" -cf - "$name" | gzip -n -9 > "$tarball"
echo "$tarball"
