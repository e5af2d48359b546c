#!/usr/bin/env bash
# Runs every benchmark, then repeats their RATIO and MS lines as one summary
# (ratio = the peer's time / ours; MS = our milliseconds) so that runs can be
# compared line by line.  Benches whose peer library is missing are skipped.
set -u
cd "$(dirname "$0")/.."
log=build/bench.log
: >"$log"

run() {
    if [ -x "./build/bin/$1" ]; then
        "./build/bin/$1" 2>&1 | tee -a "$log"
    else
        echo "$1: not built (its peer library is missing)"
    fi
}

for bench in bench_runs bench_rotate bench_lzw bench_ccitt_encode bench_palette bench_tiff_write \
             bench_ccitt_decode bench_dither bench_cals bench_pcx bench_tiff_read bench_tga \
             bench_display bench_gif bench_png bench_jpeg; do
    run "$bench"
done
bash bench/bench_batch.sh 2>&1 | tee -a "$log"

echo
echo "summary (ratio = peer time / ours)"
grep -E '^(RATIO|MS) ' "$log" || echo "  (no summary lines)"
