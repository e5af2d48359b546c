#!/usr/bin/env bash
# `make demo`: makes the bundled samples with our own generator and runs the
# library's main job on them, writing into out/.
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p samples out
[[ -f samples/page.dib && -f samples/photo.dib ]] || ./build/bin/trnw_samplegen samples
./build/bin/trnw version
./build/bin/trnw runs samples/page.dib out/page.dib
cmp -s samples/page.dib out/page.dib && echo "out/page.dib: identical to the sample after the run store"
./build/bin/trnw runs samples/photo.dib out/photo.dib
# The decode and save pipelines: detect, decode, crop or reduce, save by extension or type.
./build/bin/trnw convert samples/page.dib out/page.bmp
./build/bin/trnw convert samples/photo.dib out/photo.bmp
./build/bin/trnw convert samples/photo.dib out/photo-crop.bmp --crop 170,90,300,300
./build/bin/trnw convert samples/page.dib out/page-thumb.bmp --size 255x330
./build/bin/trnw convert samples/page.dib out/page-rect.dib --rect 100,150,1200,600 --type 48
# Rotate, flip and invert, also on the run-coded fax page.
./build/bin/trnw convert samples/page.dib out/page-90.bmp --rotate 90
./build/bin/trnw convert samples/page.dib out/page-skew.bmp --rotate 3.5
./build/bin/trnw convert samples/photo.dib out/photo-30.bmp --rotate 30 --flip x
./build/bin/trnw convert samples/photo.dib out/photo-negative.bmp --invert
# Dithering and colour conversion: Stucki diffusion to a run-coded 1-bit picture.
./build/bin/trnw convert samples/photo.dib out/photo-stucki.bmp --dither stucki
# Palette selection: an adaptive 16-colour octree palette in 4 bits.
./build/bin/trnw convert samples/photo.dib out/photo-octree16.bmp --colors octree:16:4
./build/bin/trnw info samples/page.dib samples/photo.dib out/*.bmp out/page-rect.dib
