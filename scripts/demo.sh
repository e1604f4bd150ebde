#!/usr/bin/env bash
# The main job: builds the demo program and filters the built-in test image
# (data/camera.png with coloured noise), printing PSNR and times and writing
# the images to out/. Extra arguments go to the demo (try --help).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if ! dpkg-query -W -f='${Status}' libpng-dev 2>/dev/null | grep -q "install ok installed"; then
  "$root/scripts/install_deps.sh" --demo
fi
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release > /dev/null
cmake --build "$root/build" -j "$(nproc)" --target shapewiener_demo
"$root/build/tools/shapewiener_demo" "$@"
