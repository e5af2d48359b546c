#!/usr/bin/env bash
# `make fuzz`: builds every fuzz/*.cpp target with clang's libFuzzer, ASan and
# UBSan into build-fuzz/, replays the saved regression inputs of each target
# (fuzz/regress/<target>/, one file per input: every fuzz finding is saved there),
# merges the target's seeds into its corpus build-fuzz/corpus/<target>/, then
# fuzzes each target for ${1:-30} seconds, ${JOBS:-2} targets at a time, with
# its dictionary fuzz/dict/<target>.dict when there is one.  Each target's
# summary line gives its runs, rate (exec/s), coverage and corpus size.
# Crash inputs land in build-fuzz/artifacts/.
#
# Seeds: scripts/fuzz_seeds.py writes small files of every format and variant
# the library reads, made by independent tools (absent ones are skipped),
# into build-fuzz/seeds/<target>/, while the library compiles.
#
# Campaign: with FUZZ_COVERAGE=1, or when FUZZ_SECONDS is set (as `make fuzz
# FUZZ_SECONDS=N` sets it) or the run is 60 seconds or longer, and
# FUZZ_COVERAGE is not 0, each corpus is minimised after its run (libFuzzer
# -merge=1), and a coverage build (clang -fprofile-instr-generate
# -fcoverage-mapping, in build-fuzz/coverage/) runs every target once over
# its corpus; llvm-cov's per-file summary of the library's sources is printed
# and written to build-fuzz/coverage.txt.  `make test`'s short run (`fuzz.sh
# 5`) skips it.
#
# fuzz/ignorelist.txt names the few library functions built with less
# instrumentation, and why.  Exits non-zero when a regression input or the
# fuzzing crashes a target.
#
# Needs clang and libFuzzer (Debian: clang, libclang-rt-14-dev); the coverage
# report llvm-profdata-14 and llvm-cov-14 (Debian: llvm-14).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
cc=${FUZZ_CXX:-clang++}
out=build-fuzz

if ! command -v "$cc" >/dev/null; then
  echo "fuzz.sh: $cc not found (Debian packages clang and libclang-rt-14-dev)" >&2
  exit 1
fi

coverage=${FUZZ_COVERAGE:-}
if [[ -z $coverage ]]; then
  coverage=0
  [[ -n ${FUZZ_SECONDS:-} || $seconds -ge 60 ]] && coverage=1
fi

# The library, built once for all targets: every layer and the POSIX
# platform layer with the portable device context.
shopt -s nullglob
lib_sources=(core/*.cpp codecs/*.cpp color/*.cpp process/*.cpp formats/*.cpp pipeline/*.cpp
             display/*.cpp platform/posix.cpp platform/surface.cpp)
targets=(fuzz/*.cpp)
shopt -u nullglob
if [[ ${#targets[@]} -eq 0 ]]; then
  echo "fuzz.sh: no fuzz targets in fuzz/" >&2
  exit 1
fi

# The image libraries the library links (Debian's libpng-dev, zlib1g-dev,
# libjpeg62-turbo-dev).
libs=(-lpng -lz -ljpeg)
common=(-g -O1 -std=gnu++20 -Wall -Wextra -Werror -fno-omit-frame-pointer -fno-sanitize-recover=all
        -I . -I core)
ignore=(-fsanitize-ignorelist=fuzz/ignorelist.txt -fsanitize-coverage-ignorelist=fuzz/ignorelist.txt)
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

# The seeds, made while the library compiles (python3 with the tools it
# finds; nothing when python3 is absent).
python=$(command -v /usr/bin/python3 || command -v python3 || true)
if [[ -n $python ]]; then
  "$python" scripts/fuzz_seeds.py "$out/seeds" >"$out/seeds.log" 2>&1 &
  seeds_pid=$!
else
  rm -rf "$out/seeds"
  seeds_pid=
fi

# Compiles the library sources into $1/ with the flags that follow.
compile_library() {
  local dir=$1 src obj
  shift
  mkdir -p "$dir"
  library_objects=()
  for src in "${lib_sources[@]}"; do
    obj="$dir/$(echo "${src%.cpp}" | tr '/' '_').o"
    rm -f "$obj" # a failed compile leaves none, found below
    throttle "$cc" "${common[@]}" "$@" -c "$src" -o "$obj"
    library_objects+=("$obj")
  done
  for pid in $(jobs -rp); do [[ $pid == "$seeds_pid" ]] || wait "$pid" || true; done
  for obj in "${library_objects[@]}"; do
    [[ -s $obj ]] || { echo "fuzz.sh: $obj did not compile" >&2; exit 1; }
  done
}

compile_library "$out/obj" -fsanitize=fuzzer-no-link,address,undefined "${ignore[@]}"
objects=("${library_objects[@]}")
if [[ -n $seeds_pid ]]; then
  wait "$seeds_pid" || echo "fuzz.sh: the seed script failed (see $out/seeds.log); fuzzing without seeds"
  seeds_pid=
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# Minimises a corpus in place: every input of "$@" that adds coverage, once.
minimise() {
  local bin=$1 corpus=$2
  shift 2
  rm -rf "$corpus.min"
  mkdir -p "$corpus.min"
  if "$bin" -merge=1 "$corpus.min" "$corpus" "$@" >"$bin.minimise.log" 2>&1; then
    rm -rf "$corpus"
    mv "$corpus.min" "$corpus"
  else
    rm -rf "$corpus.min"
    echo "fuzz.sh: $(basename "$bin"): minimising $corpus failed (see $bin.minimise.log)"
  fi
}

# One target: build, replay its regression inputs, merge its seeds, fuzz.
# Its report goes to $out/<name>.report, its verdict to $out/<name>.verdict.
run_target() {
  local src=$1 name bin log corpus runs rate cov added dict=()
  name=$(basename "${src%.cpp}")
  bin="$out/$name"
  exec >"$out/$name.report" 2>&1
  echo failed >"$out/$name.verdict"
  "$cc" "${common[@]}" -fsanitize=fuzzer,address,undefined "$src" "${objects[@]}" "${libs[@]}" -o "$bin" || return 0
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
  local seeded=""
  if [[ -d $out/seeds/$name ]]; then
    if "$bin" -merge=1 "$corpus" "$out/seeds/$name" >"$out/$name.seeds.log" 2>&1; then
      added=$(grep -o 'MERGE-OUTER: [0-9]* new files' "$out/$name.seeds.log" | grep -o '[0-9]\+' || true)
      seeded=", ${added:-?} of $(ls "$out/seeds/$name" | wc -l) seeds new"
    else
      echo "fuzz.sh: $name: merging the seeds failed (see $out/$name.seeds.log)"
    fi
  fi
  local seeds=()
  [[ -d fuzz/regress/$name ]] && seeds=(fuzz/regress/"$name")
  [[ -f fuzz/dict/$name.dict ]] && dict=(-dict="fuzz/dict/$name.dict")
  log="$out/$name.log"
  if "$bin" -max_total_time="$seconds" -timeout=25 -print_final_stats=1 "${dict[@]}" \
       -artifact_prefix="$out/artifacts/$name-" "$corpus" "${seeds[@]}" >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)
    rate=$(grep -o 'stat::average_exec_per_sec: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)
    cov=$(grep -E '^#[0-9]+.*(DONE|pulse|NEW|REDUCE)' "$log" | tail -n 1 | grep -o 'cov: [0-9]*' || true)
    [[ $coverage == 1 ]] && minimise "$bin" "$corpus" "${seeds[@]}"
    echo "fuzz.sh: $name: no crash in ${seconds}s (${runs:-?} runs, ${rate:-?} exec/s, ${cov:-cov: ?}," \
      "corpus $(ls "$corpus" | wc -l) files$seeded)"
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

sed -n 's/^fuzz_seeds.py: /fuzz.sh: seeds: /p' "$out/seeds.log" 2>/dev/null || true
failed=()
for src in "${targets[@]}"; do
  name=$(basename "${src%.cpp}")
  cat "$out/$name.report"
  [[ $(cat "$out/$name.verdict" 2>/dev/null) == passed ]] || failed+=("$name")
done

# The coverage of the corpora: each target built with clang's source-based
# coverage (libFuzzer's driver, no sanitizers) runs once over its corpus and
# regression inputs; the profiles are merged and summed per library file.
report_coverage() {
  local profdata llvmcov dir=$out/coverage src name bin binaries=() corpora
  profdata=$(command -v "${LLVM_PROFDATA:-llvm-profdata-14}" || command -v llvm-profdata || true)
  llvmcov=$(command -v "${LLVM_COV:-llvm-cov-14}" || command -v llvm-cov || true)
  if [[ -z $profdata || -z $llvmcov ]]; then
    echo "fuzz.sh: no coverage report: llvm-profdata-14 and llvm-cov-14 not found (Debian package llvm-14)"
    return 0
  fi
  echo "fuzz.sh: coverage build in $dir"
  rm -rf "$dir/profiles"
  mkdir -p "$dir/profiles"
  local flags=(-fprofile-instr-generate -fcoverage-mapping)
  compile_library "$dir/obj" -fsanitize=fuzzer-no-link "${flags[@]}"
  for src in "${targets[@]}"; do
    name=$(basename "${src%.cpp}")
    rm -f "$dir/$name"
    throttle "$cc" "${common[@]}" -fsanitize=fuzzer "${flags[@]}" "$src" "${library_objects[@]}" \
      "${libs[@]}" -o "$dir/$name"
  done
  for pid in $(jobs -rp); do wait "$pid" || true; done
  for src in "${targets[@]}"; do
    name=$(basename "${src%.cpp}")
    [[ -x $dir/$name ]] || { echo "fuzz.sh: $dir/$name did not build: not counted"; continue; }
    binaries+=("$dir/$name")
    corpora=("$out/corpus/$name")
    [[ -d fuzz/regress/$name ]] && corpora+=(fuzz/regress/"$name")
    throttle env LLVM_PROFILE_FILE="$dir/profiles/$name.profraw" \
      "$dir/$name" -runs=0 -timeout=25 "${corpora[@]}" >"$dir/$name.log" 2>&1
  done
  for pid in $(jobs -rp); do wait "$pid" || true; done
  if [[ ${#binaries[@]} -eq 0 ]] || ! "$profdata" merge -sparse "$dir"/profiles/*.profraw -o "$dir/merged.profdata"; then
    echo "fuzz.sh: no coverage report: no target built or ran (see $dir/*.log)"
    return 1
  fi
  local objects_args=("${binaries[0]}")
  for bin in "${binaries[@]:1}"; do objects_args+=(-object "$bin"); done
  "$llvmcov" report -instr-profile="$dir/merged.profdata" "${objects_args[@]}" \
    core codecs color process formats pipeline display platform >"$out/coverage.txt"
  cat "$out/coverage.txt"
  echo "fuzz.sh: coverage of the library's sources written to $out/coverage.txt"
}

if [[ ${#failed[@]} -gt 0 ]]; then
  echo "fuzz.sh: failed: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz.sh: all ${#targets[@]} targets ran without a crash"
if [[ $coverage == 1 ]]; then
  report_coverage
fi
