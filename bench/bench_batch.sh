#!/usr/bin/env bash
# trnw batch over 200 fax pages on one worker process and on two: each page
# (Group 4 TIFF, 2550 x 3300 at 300 dpi) is decoded, turned a quarter and
# saved as Group 4 again.  The pages come from the library itself: the
# sample page of trnw_samplegen, saved by trnw as Group 4, plain, mirrored,
# upside down and both, then copied.  Each run is timed twice and the faster
# time kept; prints both and their ratio.  No timing is asserted.
# Usage: bench_batch.sh [BUILD_DIR] (default build; PAGES=N for another count)
set -euo pipefail
cd "$(dirname "$0")/.."
bin=${1:-build}/bin
pages=${PAGES:-200}
work=$(mktemp -d "${TMPDIR:-/tmp}/trnw-batch.XXXXXX")
trap 'rm -rf "$work"' EXIT

"$bin/trnw_samplegen" "$work" >/dev/null
mkdir -p "$work/pages"
variants=("" "--flip x" "--flip y" "--rotate 180")
for k in "${!variants[@]}"; do
  "$bin/trnw" convert "$work/page.dib" "$work/variant$k.tif" --type 10 ${variants[$k]}
done
for ((i = 0; i < pages; i++)); do
  cp "$work/variant$((i % ${#variants[@]})).tif" "$(printf '%s/pages/page%03d.tif' "$work" "$i")"
done

# The faster of two runs of `trnw batch -j N`, in seconds.
best_time() {
  local best=
  for run in 1 2; do
    rm -rf "$work/out"
    local start end
    start=$(date +%s.%N)
    "$bin/trnw" batch -j "$1" "$work/pages" "$work/out" --rotate 90 --type 10 2>/dev/null
    end=$(date +%s.%N)
    best=$(awk -v t="$(awk -v a="$start" -v b="$end" 'BEGIN { print b - a }')" -v best="$best" \
           'BEGIN { print (best == "" || t < best) ? t : best }')
  done
  [[ $(ls "$work/out" | wc -l) == "$pages" ]] || { echo "bench_batch: not every page converted" >&2; exit 1; }
  echo "$best"
}

one=$(best_time 1)
two=$(best_time 2)
awk -v n="$pages" -v one="$one" -v two="$two" -v cpus="$(nproc)" 'BEGIN {
  printf "bench_batch: %d fax pages (G4 -> turn 90 -> G4), %d processors: -j 1 %.2f s, -j 2 %.2f s: %.2f times faster\n",
         n, cpus, one, two, one / two }'
