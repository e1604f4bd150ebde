#!/usr/bin/env bash
# A colour image against a grey one of the same size and noise, side by side:
# scikit-image's astronaut (512 x 512 x 3, 8-bit) and its luminance
# (0.299 R + 0.587 G + 0.114 B) as the grey image, sigma 20 white noise and
# sigma 20 noise through the 3 x 3 binomial kernel (independent in R, G, B),
# given and blind (estimated), default preset. Every CLI given runs every
# case alternately, grey then colour, `reps` times; the table gives medians of
# the wall time and the user CPU time, and colour / grey.
# Usage: bench/colour_speed.sh THREADS REPS CLI [CLI ...]
set -euo pipefail
threads=$1
reps=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 - "$work" <<'EOF'
import sys
import numpy as np
import skimage.data
from PIL import Image
rgb = skimage.data.astronaut()[:, :, :3]
Image.fromarray(rgb).save(sys.argv[1] + "/colour.png")
grey = np.rint(rgb.astype(np.float64) @ np.array([0.299, 0.587, 0.114]))
Image.fromarray(grey.clip(0, 255).astype(np.uint8)).save(sys.argv[1] + "/grey.png")
EOF
printf '1 2 1\n2 4 2\n1 2 1\n' > "$work/kernel.txt"
for img in grey colour; do
  "$1" simulate "$work/$img.png" "$work/${img}_white.png" --sigma 20 --seed 3 --type uint8
  "$1" simulate "$work/$img.png" "$work/${img}_kernel.png" --sigma 20 --kernel "$work/kernel.txt" \
    --seed 3 --type uint8
done
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "| CLI | noise | grey s | colour s | colour / grey | grey CPU s | colour CPU s | CPU colour / grey |"
echo "|---|---|---|---|---|---|---|---|"
for noise in white kernel blind_white blind_kernel; do
  args=()
  case $noise in
    white) args=(--sigma 20) ;;
    kernel) args=(--sigma 20 --kernel "$work/kernel.txt") ;;
  esac
  file=${noise#blind_}
  for ((i = 1; i <= $#; i++)); do : > "$work/t$i.grey"; : > "$work/t$i.colour"; done
  for ((r = 0; r < reps; r++)); do
    for ((i = 1; i <= $#; i++)); do
      cli=${!i}
      for img in grey colour; do
        /usr/bin/time -f '%e %U' -o "$work/time.txt" "$cli" denoise "$work/${img}_$file.png" \
          "$work/out.png" "${args[@]}" --threads "$threads" --quiet > /dev/null
        cat "$work/time.txt" >> "$work/t$i.$img"
      done
    done
  done
  for ((i = 1; i <= $#; i++)); do
    gw=$(cut -d' ' -f1 "$work/t$i.grey" | median); cw=$(cut -d' ' -f1 "$work/t$i.colour" | median)
    gu=$(cut -d' ' -f2 "$work/t$i.grey" | median); cu=$(cut -d' ' -f2 "$work/t$i.colour" | median)
    awk -v c="$i" -v n="$noise" -v a="$gw" -v b="$cw" -v x="$gu" -v y="$cu" \
      'BEGIN { printf "| %s | %s | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f |\n", c, n, a, b, b / a, x, y, y / x }'
  done
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
