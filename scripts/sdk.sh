#!/usr/bin/env bash
# `make sdk`: one zip per Windows architecture for application developers,
# dist/trnw6w95-VERSION-win32.zip and -win64.zip, each holding trnw6w95.dll,
# trnw.exe, imgapi.h, trnw6w95.def, the import library trnw6w95.lib and a
# README.  The import library is made with mingw-w64's dlltool from a .def
# file; mingw-w64 and MSVC both link against it.  The 32-bit one maps the
# callers' stdcall names (IMG_x@N) to the DLL's plain exports (--kill-at)
# and is marked safe for MSVC's /SAFESEH.
# Builds the DLLs in build-win-ARCH as windows.sh does, when needed.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
version=$(sed -nE 's/^project\(trnw VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
mkdir -p dist

for arch in i686 x86_64; do
  dir=build-win-$arch
  [[ -f $dir/CMakeCache.txt ]] || bash scripts/windows_configure.sh "$arch"
  cmake --build "$dir" -j"$jobs" --target trnw6w95 trnw >"$dir/sdk-build.log" 2>&1 ||
    { cat "$dir/sdk-build.log"; exit 1; }
  if [[ $arch == i686 ]]; then
    bits=32 kill_at=--kill-at
    { echo "LIBRARY trnw6w95.dll"; echo "EXPORTS"; bash scripts/gen_def.sh --decorated; } >"$dir/sdk-import.def"
  else
    bits=64 kill_at=
    cp win/trnw6w95.def "$dir/sdk-import.def"
  fi
  name=trnw6w95-$version-win$bits
  stage=$dir/sdk/$name
  rm -rf "$stage"
  mkdir -p "$stage"
  cp "$dir/bin/trnw6w95.dll" "$dir/bin/trnw.exe" core/imgapi.h win/trnw6w95.def "$stage/"
  $arch-w64-mingw32-dlltool --dllname trnw6w95.dll --def "$dir/sdk-import.def" \
    --output-lib "$stage/trnw6w95.lib" $kill_at
  if [[ $arch == i686 ]]; then
    # MSVC links 32-bit programs with /SAFESEH by default and refuses objects
    # not marked safe; import objects hold no exception handlers, so each is
    # marked (@feat.00 = 1) as MSVC's own are.
    i686-w64-mingw32-objcopy --add-symbol '@feat.00=1,local' "$stage/trnw6w95.lib"
  fi
  # The README with Windows line ends; the 32-bit paragraph in the 32-bit zip only.
  awk -v version="$version" -v bits="$bits" -v gcc="$arch-w64-mingw32-gcc" '
    /^@IF32@$/ { skip = bits != 32; next }
    /^@END@$/ { skip = 0; next }
    skip { next }
    { gsub(/@VERSION@/, version); gsub(/@PLATFORM@/, bits "-bit"); gsub(/@GCC@/, gcc); printf "%s\r\n", $0 }
  ' win/SDK-README.txt >"$stage/README.txt"
  rm -f "dist/$name.zip"
  (cd "$dir/sdk" && zip -qr "../../dist/$name.zip" "$name")
  echo "sdk.sh: dist/$name.zip"
done
