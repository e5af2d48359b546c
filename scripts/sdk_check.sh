#!/usr/bin/env bash
# The SDK part of `make test`, after sdk.sh.  Unpacks the zips into a scratch
# folder and builds against what they hold alone, not the build tree:
# - the consumer program (tests/package/consumer.c), built with mingw-w64
#   against the 64-bit zip's import library, runs under wine64 beside the
#   zip's DLL: it decodes a Group 4 page that ImageMagick makes and saves it
#   as a BMP, which is compared with ImageMagick's reading of the page;
# - a program without a C runtime that takes the address of every function
#   of imgapi.h, compiled by clang for MSVC and linked by lld-link (MSVC's
#   linker, command line and defaults, /SAFESEH for 32 bits, included)
#   against each zip's trnw6w95.lib, the 32-bit one with its stdcall names:
#   it must import every function from trnw6w95.dll by its plain name.  The
#   64-bit one runs under wine64, calls IMG_ifl_version and exits with the
#   version (major << 4 | minor).
set -euo pipefail
cd "$(dirname "$0")/.."
version=$(sed -nE 's/^project\(trnw VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
major=${version%%.*} minor=${version#*.}
work=$(mktemp -d "${TMPDIR:-/tmp}/trnw-sdk.XXXXXX")
trap 'rm -rf "$work"' EXIT
export WINEDEBUG=-all
wine64=$(command -v wine64 || echo /usr/lib/wine/wine64)

fail() {
  echo "sdk_check: $*" >&2
  exit 1
}

for bits in 32 64; do
  unzip -q "dist/trnw6w95-$version-win$bits.zip" -d "$work"
done
sdk32=$work/trnw6w95-$version-win32 sdk64=$work/trnw6w95-$version-win64

# The mingw-w64 consumer under wine64.
x86_64-w64-mingw32-gcc -Wall -Wextra -Werror -O2 -I "$sdk64" tests/package/consumer.c "$sdk64/trnw6w95.lib" \
  -o "$sdk64/consumer.exe"
convert -size 333x207 pattern:checkerboard -monochrome -compress Group4 "$sdk64/page.tif"
out=$(cd "$sdk64" && "$wine64" ./consumer.exe page.tif page.bmp 2>&1) || fail "consumer.exe: $out"
grep -q 'saved as page.bmp' <<<"$out" || fail "consumer.exe did not run under wine64: $out"
differ=$(compare -quiet -metric AE "$sdk64/page.tif" "$sdk64/page.bmp" null: 2>&1) || true
[[ $differ == 0 ]] || fail "the page saved under wine64 differs from ImageMagick's reading ($differ pixels)"

# MSVC's view of the import libraries: every export resolved by lld-link.
{
  echo '#include "imgapi.h"'
  echo 'const void *const kEveryExport[] = {'
  bash scripts/gen_def.sh | sed 's/.*/    (const void *)\&&,/'
  echo '};'
  echo 'int entry(void)'
  echo '{'
  echo '    int32_t major = 0, minor = 0;'
  echo '    IMG_ifl_version(&major, &minor);'
  echo '    return kEveryExport[0] ? major << 4 | minor : 0;'
  echo '}'
} >"$work/msvc.c"
for target in i686:x86:"$sdk32" x86_64:x64:"$sdk64"; do
  IFS=: read -r arch machine sdk <<<"$target"
  clang --target=$arch-pc-windows-msvc -ffreestanding -O1 -Wall -Werror -I "$sdk" -c "$work/msvc.c" \
    -o "$work/msvc-$arch.obj"
  lld-link /nologo /machine:$machine /entry:entry /subsystem:console /nodefaultlib /opt:noref \
    /out:"$sdk/msvc.exe" "$work/msvc-$arch.obj" "$sdk/trnw6w95.lib" || fail "lld-link against the $arch import library"
  imports=$(x86_64-w64-mingw32-objdump -p "$sdk/msvc.exe" | awk '$3 ~ /^IMG/ {print $3}' | sort)
  [[ "$imports" == "$(bash scripts/gen_def.sh)" ]] || fail "the $arch program's imports are not imgapi.h's plain names"
done
status=0
(cd "$sdk64" && "$wine64" ./msvc.exe) || status=$?
[[ $status == $((major << 4 | minor)) ]] || fail "msvc.exe under wine64 exited with $status"
echo "sdk_check: the SDK zips link with mingw-w64 and (lld-link) MSVC; their consumer ran under wine64"
