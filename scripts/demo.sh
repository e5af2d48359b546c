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
