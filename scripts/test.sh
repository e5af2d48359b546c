#!/usr/bin/env bash
# `make test`: the layering check, the native release build with -Werror and
# its suite, the install with two consumer builds, the Python package's
# tests, the Windows cross builds with the export check and the wine64 run,
# the Windows SDK zips with their consumer under wine64, a short run of every
# fuzz target, then the ASan+UBSan build running the same suite.  Ends with
# ctest's summary.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}

# Runs a command quietly into a log: on success prints the log's last lines,
# on failure the whole log, and fails.
quiet() {
  local log=$1 lines=$2
  shift 2
  if "$@" >"$log" 2>&1; then
    tail -n "$lines" "$log"
  else
    cat "$log"
    echo "test.sh: failed: $*" >&2
    return 1
  fi
}

bash scripts/check_layers.sh

# The developers' build: a packager's release build (Debian's hardening
# flags, -O3) with warnings as errors.
mkdir -p build
quiet build/configure.log 0 bash scripts/configure.sh build -DTRNW_WERROR=ON
quiet build/build.log 0 cmake --build build -j"$jobs"
echo "test.sh: native suite (at ${SECONDS} s)"
quiet build/ctest.log 3 ctest --test-dir build -j"$jobs" --output-on-failure

echo "test.sh: install into a temporary prefix, consumers through pkg-config and find_package (at ${SECONDS} s)"
quiet build/install_check.log 1 bash scripts/install_check.sh build
echo "test.sh: the Python package against Pillow (at ${SECONDS} s)"
quiet build/pytest.log 1 env TRNW_LIBRARY=build/lib/libtrnw6w95.so PYTHONDONTWRITEBYTECODE=1 \
  /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests

echo "test.sh: Windows builds (at ${SECONDS} s)"
bash scripts/windows.sh
echo "test.sh: Windows SDK zips, their consumer under wine64 (at ${SECONDS} s)"
quiet build/sdk.log 0 bash scripts/sdk.sh
quiet build/sdk_check.log 1 bash scripts/sdk_check.sh

echo "test.sh: every fuzz target, replaying its regression inputs and fuzzing briefly (at ${SECONDS} s)"
mkdir -p build-fuzz
quiet build-fuzz/fuzz.log 0 bash scripts/fuzz.sh 5
grep '^fuzz.sh' build-fuzz/fuzz.log || true

mkdir -p build-asan
quiet build-asan/configure.log 0 cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTRNW_SANITIZE=ON -DTRNW_WERROR=ON
quiet build-asan/build.log 0 cmake --build build-asan -j"$jobs"
echo "test.sh: ASan+UBSan suite (at ${SECONDS} s)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1
quiet build-asan/ctest.log 3 ctest --test-dir build-asan -j"$jobs" --output-on-failure
echo "test.sh: done in ${SECONDS} s"
