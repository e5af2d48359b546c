#!/usr/bin/env bash
# `make test`: the native build with -Werror and its suite, the Windows cross
# builds with the export check and the wine64 run, then the ASan+UBSan build
# running the same suite.  Ends with ctest's summary.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs" >/dev/null
echo "test.sh: native suite"
(cd build && ctest -j"$jobs" --output-on-failure | tail -n 3)

bash scripts/windows.sh

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTRNW_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs" >/dev/null
echo "test.sh: ASan+UBSan suite"
cd build-asan
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest -j"$jobs" --output-on-failure | tail -n 3
