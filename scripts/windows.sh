#!/usr/bin/env bash
# The Windows part of `make test`: cross-builds trnw6w95.dll for i686 and
# x86_64 with mingw-w64, checks the export tables of both DLLs and of
# libtrnw6w95.so against core/imgapi.h, and runs the x86_64 test suite under
# wine64 (and the i686 suite too when this wine can run 32-bit programs).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}

for arch in i686 x86_64; do
  dir=build-win-$arch
  bash scripts/windows_configure.sh "$arch"
  cmake --build "$dir" -j"$jobs" >"$dir/build.log" 2>&1 || { cat "$dir/build.log"; exit 1; }
  echo "windows.sh: built $dir/bin/trnw6w95.dll"
done

bash scripts/check_exports.sh build/lib/libtrnw6w95.so build-win-i686/bin/trnw6w95.dll \
  build-win-x86_64/bin/trnw6w95.dll

# The 32-bit import library's name@N must be what the compiler gives each function.
compiled=$(i686-w64-mingw32-nm build-win-i686/lib/libtrnw_static.a | awk '$2 == "T" && $3 ~ /^_IMG/ {print substr($3, 2)}' | sort)
if [[ "$compiled" != "$(bash scripts/gen_def.sh --decorated)" ]]; then
  echo "windows.sh: stdcall decorations differ from scripts/gen_def.sh --decorated:"
  diff <(echo "$compiled") <(bash scripts/gen_def.sh --decorated) || true
  exit 1
fi
echo "windows.sh: i686 import library decorations match the compiled functions"

# The DLLs carry the C++ runtime inside: they import system DLLs only.
system_dlls='^(KERNEL32|msvcrt|USER32|GDI32|ADVAPI32)\.dll$'
for arch in i686 x86_64; do
  imports=$(x86_64-w64-mingw32-objdump -p build-win-$arch/bin/trnw6w95.dll | sed -nE 's/^\s*DLL Name: (.+)$/\1/p')
  if grep -vqE "$system_dlls" <<<"$imports"; then
    echo "windows.sh: build-win-$arch/bin/trnw6w95.dll imports more than system DLLs:"
    grep -vE "$system_dlls" <<<"$imports"
    exit 1
  fi
  echo "windows.sh: $arch DLL imports $(echo $imports)"
done

export WINEDEBUG=-all
wine64=$(command -v wine64 || echo /usr/lib/wine/wine64)
# Runs a test executable under wine; wine can exit 0 without running anything,
# so the suite's own verdict is read from its output.
run_suite() {
  local dir=$1 runner=$2 out
  out=$(cd "$dir" && "$runner" ./trnw_tests.exe --gtest_brief=1 2>&1) || true
  echo "$out" | tail -n 30
  grep -q '^\[  PASSED  \]' <<<"$out" && ! grep -q '^\[  FAILED  \]' <<<"$out"
}

echo "windows.sh: x86_64 test suite under wine64"
run_suite build-win-x86_64/bin "$wine64"

# wine32 cannot be installed on these machines; run the 32-bit suite only
# where a wine that runs 32-bit programs exists.
if command -v wine >/dev/null &&
   (cd build-win-i686/bin && timeout 60 wine ./trnw.exe version 2>/dev/null) | grep -q '^trnw 6\.12'; then
  echo "windows.sh: i686 test suite under wine"
  run_suite build-win-i686/bin wine
else
  echo "windows.sh: no 32-bit wine here: the i686 DLL is built and export-checked, not run"
fi
