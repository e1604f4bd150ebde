#!/usr/bin/env bash
# Writes the man page of the command line from its --help texts:
#   man_page.sh <shapewiener program> <output .1 file>
# The top-level help makes the synopsis and options; every command's own
# help becomes a section of its own.
set -euo pipefail
# Run by its bare name, so that the usage lines say "shapewiener".
export PATH="$(cd "$(dirname "$1")" && pwd):$PATH"
program=$(basename "$1")
out=$2
extra=$(mktemp "${TMPDIR:-/tmp}/shapewiener-man.XXXXXX")
trap 'rm -f "$extra"' EXIT
for command in denoise simulate compare convert filter; do
  echo "[shapewiener $command]"
  "$program" "$command" --help | sed -e 's/^/  /' -e 's/\\/\\\\/g' -e '1i .nf' -e '$a .fi'
  echo
done > "$extra"
mkdir -p "$(dirname "$out")"
"${SHAPEWIENER_HELP2MAN:-help2man}" --no-info --no-discard-stderr --section 1 \
  --name "denoise grey-scale images with white or coloured noise" \
  --include "$extra" --output "$out" "$program"
