#!/usr/bin/env bash
# The main job: builds the `shapewiener` command line, adds coloured noise to
# the built-in test image (data/camera.png), denoises it with the fast and
# the default preset, prints PSNR and times, and writes out/noisy.png,
# out/fast.png and out/denoised.png. Arguments: [sigma [seed]].
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
sigma=${1:-25.5}
seed=${2:-20240607}
need=()
for p in libpng-dev libtiff-dev libcli11-dev zlib1g-dev cmake g++; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || need+=("$p")
done
[ ${#need[@]} -eq 0 ] || "$root/scripts/install_deps.sh" --demo
sw="$root/build/tools/shapewiener"
if [ -x "$sw" ]; then
  echo "Bringing build/tools/shapewiener up to date..."
else
  echo "Building the shapewiener command line into build/ (Release; the first time takes about"
  echo "2 minutes on 2 cores, later runs only rebuild what changed)..."
fi
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release > /dev/null
cmake --build "$root/build" -j "$(nproc)" --target shapewiener > /dev/null
out="$root/out"
mkdir -p "$out"

# Coloured noise: white Gaussian noise through the 3 x 3 binomial kernel,
# scaled so that its per-pixel standard deviation is sigma.
printf '1 2 1\n2 4 2\n1 2 1\n' > "$out/kernel.txt"
"$sw" simulate "$root/data/camera.png" "$out/noisy.npy" --sigma "$sigma" \
  --kernel "$out/kernel.txt" --seed "$seed"
"$sw" convert "$out/noisy.npy" "$out/noisy.png" --type uint8
echo "image  data/camera.png (512 x 512), coloured noise sigma $sigma (3x3 binomial kernel), seed $seed"
printf 'noisy     '; "$sw" compare "$out/noisy.npy" "$root/data/camera.png"
for preset in fast default; do
  name=$([ "$preset" = default ] && echo denoised || echo "$preset")
  start=$(date +%s.%N)
  "$sw" denoise "$out/noisy.npy" "$out/$name.npy" --kernel "$out/kernel.txt" --sigma "$sigma" \
    --preset "$preset" --quiet
  end=$(date +%s.%N)
  "$sw" convert "$out/$name.npy" "$out/$name.png" --type uint8
  printf '%-9s ' "$preset"
  "$sw" compare "$out/$name.npy" "$root/data/camera.png" | tr -d '\n'
  awk -v s="$start" -v e="$end" 'BEGIN { printf "   (%.2f s)\n", e - s }'
done
echo "wrote  out/noisy.png, out/fast.png, out/denoised.png"
