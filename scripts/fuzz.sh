#!/usr/bin/env bash
# `make fuzz`: builds every fuzz/*.cpp target with clang's libFuzzer, ASan and
# UBSan into build-fuzz/, replays the saved regression inputs of each target
# (fuzz/regress/<target>/, one file per input: every fuzz finding is saved there),
# then fuzzes each target for ${1:-30} seconds with its corpus in
# build-fuzz/corpus/<target>/, ${JOBS:-2} targets at a time.  Crash inputs
# land in build-fuzz/artifacts/.
# Exits non-zero when a regression input or the fuzzing crashes a target.
#
# Needs clang and libFuzzer (Debian: clang, libclang-rt-14-dev).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
cc=${FUZZ_CXX:-clang++}
out=build-fuzz

if ! command -v "$cc" >/dev/null; then
  echo "fuzz.sh: $cc not found (Debian packages clang and libclang-rt-14-dev)" >&2
  exit 1
fi

# The library, built once for all targets: every layer and the POSIX
# platform layer.
shopt -s nullglob
lib_sources=(core/*.cpp codecs/*.cpp color/*.cpp process/*.cpp formats/*.cpp pipeline/*.cpp
             display/*.cpp platform/posix.cpp)
targets=(fuzz/*.cpp)
shopt -u nullglob
if [[ ${#targets[@]} -eq 0 ]]; then
  echo "fuzz.sh: no fuzz targets in fuzz/" >&2
  exit 1
fi

common=(-g -O1 -std=gnu++20 -Wall -Wextra -Werror -fno-omit-frame-pointer -fno-sanitize-recover=all
        -I . -I core)
mkdir -p "$out/obj" "$out/corpus" "$out/artifacts"

# A check that libFuzzer is there, with a clear message when it is not.
probe="$out/obj/probe.cpp"
printf '#include <stddef.h>\n#include <stdint.h>\nextern "C" int LLVMFuzzerTestOneInput(const uint8_t *d, size_t n) { (void)d; (void)n; return 0; }\n' >"$probe"
if ! "$cc" -fsanitize=fuzzer,address,undefined "$probe" -o "$out/obj/probe" 2>"$out/obj/probe.log"; then
  echo "fuzz.sh: $cc cannot link -fsanitize=fuzzer (install libclang-rt-14-dev):" >&2
  cat "$out/obj/probe.log" >&2
  exit 1
fi

jobs=${JOBS:-2}

# Runs "$@" in the background, keeping at most $jobs running.
throttle() {
  while [[ $(jobs -rp | wc -l) -ge $jobs ]]; do wait -n || true; done
  "$@" &
}

objects=()
for src in "${lib_sources[@]}"; do
  obj="$out/obj/$(echo "${src%.cpp}" | tr '/' '_').o"
  rm -f "$obj" # a failed compile leaves none, found below
  throttle "$cc" "${common[@]}" -fsanitize=fuzzer-no-link,address,undefined -c "$src" -o "$obj"
  objects+=("$obj")
done
for pid in $(jobs -rp); do wait "$pid"; done
for obj in "${objects[@]}"; do
  [[ -s $obj ]] || { echo "fuzz.sh: $obj did not compile" >&2; exit 1; }
done

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# One target: build, replay its regression inputs, fuzz.  Its report goes to
# $out/<name>.report, its verdict to $out/<name>.verdict.
run_target() {
  local src=$1 name bin log corpus runs cov
  name=$(basename "${src%.cpp}")
  bin="$out/$name"
  exec >"$out/$name.report" 2>&1
  echo failed >"$out/$name.verdict"
  "$cc" "${common[@]}" -fsanitize=fuzzer,address,undefined "$src" "${objects[@]}" -o "$bin" || return 0
  echo "fuzz.sh: built $bin"

  # Regression inputs first: each runs once.
  local regress=(fuzz/regress/"$name"/*)
  if [[ -d fuzz/regress/$name && -e ${regress[0]} ]]; then
    if ! "$bin" "${regress[@]}" >"$out/$name.regress.log" 2>&1; then
      echo "fuzz.sh: $name: a regression input crashes it (see $out/$name.regress.log)"
      tail -n 30 "$out/$name.regress.log"
      return 0
    fi
    echo "fuzz.sh: $name: ${#regress[@]} regression inputs pass"
  fi

  corpus="$out/corpus/$name"
  mkdir -p "$corpus"
  local seeds=()
  [[ -d fuzz/regress/$name ]] && seeds=(fuzz/regress/"$name")
  log="$out/$name.log"
  if "$bin" -max_total_time="$seconds" -timeout=25 -print_final_stats=1 \
       -artifact_prefix="$out/artifacts/$name-" "$corpus" "${seeds[@]}" >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)
    cov=$(grep -E '^#[0-9]+.*(DONE|pulse|NEW|REDUCE)' "$log" | tail -n 1 | grep -o 'cov: [0-9]*' || true)
    echo "fuzz.sh: $name: no crash in ${seconds}s (${runs:-?} runs, ${cov:-cov: ?}, corpus $(ls "$corpus" | wc -l) files)"
    echo passed >"$out/$name.verdict"
  else
    echo "fuzz.sh: $name: CRASH (log $log, input in $out/artifacts/)"
    grep -E 'ERROR|SUMMARY|runtime error|fuzz_[a-z_]+:|Test unit written' "$log" | head -n 20 || true
  fi
}

# The targets run $jobs at a time; their reports are printed in order.
for src in "${targets[@]}"; do
  throttle run_target "$src"
done
for pid in $(jobs -rp); do wait "$pid" || true; done

failed=()
for src in "${targets[@]}"; do
  name=$(basename "${src%.cpp}")
  cat "$out/$name.report"
  [[ $(cat "$out/$name.verdict" 2>/dev/null) == passed ]] || failed+=("$name")
done

if [[ ${#failed[@]} -gt 0 ]]; then
  echo "fuzz.sh: failed: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz.sh: all ${#targets[@]} targets ran without a crash"
