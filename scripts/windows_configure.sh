#!/usr/bin/env bash
# Configures the mingw-w64 cross build of one Windows architecture (i686 or
# x86_64) in build-win-ARCH: release, warnings as errors, GoogleTest built
# from its sources, static libjpeg and libpng from scripts/win_deps.sh (built
# on the first run).  Used by windows.sh and sdk.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
arch=$1
dir=build-win-$arch
bash scripts/win_deps.sh "$arch"
mkdir -p "$dir"
cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-$arch.cmake -DCMAKE_BUILD_TYPE=Release \
      -DTRNW_GTEST_FROM_SOURCE=ON -DTRNW_WERROR=ON >"$dir/configure.log" 2>&1 || { cat "$dir/configure.log"; exit 1; }
