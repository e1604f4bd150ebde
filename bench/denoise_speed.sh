#!/usr/bin/env bash
# Whole-denoise speed, two builds side by side on one machine: wall time and
# peak memory (/usr/bin/time -v) of `shapewiener denoise` on camera 512 x 512
# with white noise and with coloured noise (3 x 3 binomial kernel), sigma 25.5
# (0.1 of the 8-bit range the image is read in),
# for the fast and default presets on 1 and 2 threads. The two builds run
# alternately, case by case, `reps` times each (the table gives the median).
# Usage: bench/denoise_speed.sh OLD_CLI NEW_CLI [reps]
set -euo pipefail
old=$1
new=$2
reps=${3:-3}
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf '1 2 1\n2 4 2\n1 2 1\n' > "$work/kernel.txt"
"$new" simulate "$root/data/camera.png" "$work/white.npy" --sigma 25.5 --seed 20240607
"$new" simulate "$root/data/camera.png" "$work/coloured.npy" --sigma 25.5 --kernel "$work/kernel.txt" \
  --seed 20240607
# Prints "seconds kilobytes" of one run.
measure() {
  /usr/bin/time -v "$@" 2> "$work/time.txt" > /dev/null
  awk -F': ' '/Elapsed \(wall clock\)/ { n = split($2, t, ":"); s = t[n] + (n > 1 ? 60 * t[n-1] : 0) }
              /Maximum resident/ { kb = $2 } END { printf "%.2f %d\n", s, kb }' "$work/time.txt"
}
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "| noise | preset | threads | old s | new s | old/new | old MiB | new MiB |"
echo "|---|---|---|---|---|---|---|---|"
for noise in white coloured; do
  args=(--sigma 25.5)
  [ "$noise" = coloured ] && args+=(--kernel "$work/kernel.txt")
  for preset in fast default; do
    for threads in 1 2; do
      : > "$work/old"; : > "$work/new"
      for ((r = 0; r < reps; r++)); do
        for which in old new; do
          cli=$old; [ "$which" = new ] && cli=$new
          measure "$cli" denoise "$work/$noise.npy" "$work/out_$which.npy" "${args[@]}" \
            --preset "$preset" --threads "$threads" --quiet >> "$work/$which"
        done
      done
      to=$(cut -d' ' -f1 "$work/old" | median); tn=$(cut -d' ' -f1 "$work/new" | median)
      mo=$(cut -d' ' -f2 "$work/old" | sort -n | tail -1); mn=$(cut -d' ' -f2 "$work/new" | sort -n | tail -1)
      same=$(cmp -s "$work/out_old.npy" "$work/out_new.npy" && echo "" || echo " (bits differ)")
      awk -v n="$noise" -v p="$preset" -v t="$threads" -v a="$to" -v b="$tn" -v c="$mo" -v d="$mn" -v s="$same" \
        'BEGIN { printf "| %s | %s | %s | %.2f | %.2f | %.2f%s | %.0f | %.0f |\n", n, p, t, a, b, a / b, s, c / 1024, d / 1024 }'
    done
  done
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
