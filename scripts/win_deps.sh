#!/usr/bin/env bash
# The static libraries the Windows DLLs link: libjpeg-turbo (SIMD on, with
# nasm) and libpng (against the zlib of Debian's libz-mingw-w64-dev), built
# with mingw-w64 from Debian's source packages for each architecture given
# (default: i686 x86_64) and installed into build-win-deps/ARCH/{include,lib}.
#
# The sources come from `apt-get source` into build-win-deps/src; the first
# run enables Debian's source entries when they are missing (a deb-src copy
# of /etc/apt/sources.list.d/debian.sources, then `apt-get update`; root or
# sudo needed).  Cached: an architecture whose stamp matches the source
# versions is not built again, and a second run does nothing.
# Usage: win_deps.sh [ARCH...]   Called by windows_configure.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD/build-win-deps
jobs=${JOBS:-2}
packages=(libjpeg-turbo libpng1.6)
archs=("$@")
[[ ${#archs[@]} -gt 0 ]] || archs=(i686 x86_64)

log() { echo "win_deps.sh: $*" >&2; }

# Runs a command quietly into a log; on failure prints the log's end and fails.
quiet() {
  local logfile=$1
  shift
  "$@" >"$logfile" 2>&1 || { tail -n 40 "$logfile" >&2; log "failed: $* (log $logfile)"; return 1; }
}

# The unpacked source folder of a package, "" when it is not there yet.
source_dir() {
  local dir
  for dir in "$root/src/$1"-*/; do
    [[ -d $dir ]] && { echo "${dir%/}"; return; }
  done
}

# Whether every architecture's stamp names the sources now unpacked.
all_built() {
  local arch
  for arch in "${archs[@]}"; do
    [[ -f $root/$arch/.stamp && "$(cat "$root/$arch/.stamp")" == "$(stamp_text)" ]] || return 1
  done
}

stamp_text() {
  local p
  for p in "${packages[@]}"; do basename "$(source_dir "$p")"; done
}

sudo=""
if [[ $(id -u) -ne 0 ]]; then
  sudo="sudo"
fi

# apt-get source needs deb-src entries: the same archives as the deb ones.
enable_source_entries() {
  if grep -rqsE '^(Types:.*deb-src|deb-src )' /etc/apt/sources.list /etc/apt/sources.list.d/; then
    return
  fi
  local deb=/etc/apt/sources.list.d/debian.sources
  [[ -f $deb ]] || { log "no $deb to derive source entries from"; exit 1; }
  log "enabling Debian source entries (/etc/apt/sources.list.d/debian-src.sources)"
  sed -E 's/^Types:.*/Types: deb-src/' "$deb" | $sudo tee /etc/apt/sources.list.d/debian-src.sources >/dev/null
  $sudo apt-get update -qq >/dev/null
}

fetch_sources() {
  local p missing=()
  for p in "${packages[@]}"; do
    [[ -n $(source_dir "$p") ]] || missing+=("$p")
  done
  [[ ${#missing[@]} -eq 0 ]] && return
  enable_source_entries
  mkdir -p "$root/src"
  for p in "${missing[@]}"; do
    fetch_source "$p"
  done
}

# The candidate version first; when a mirror lacks its files (a security
# update not mirrored yet), the other versions the source entries list,
# newest first.
fetch_source() {
  local p=$1 version
  log "apt-get source $p"
  for version in "" $(apt-cache showsrc "$p" | sed -n 's/^Version: //p' | sort -rV); do
    (cd "$root/src" && apt-get source -qq "$p${version:+=$version}" >"$root/src/$p.log" 2>&1) || continue
    [[ -n $(source_dir "$p") ]] && return
  done
  cat "$root/src/$p.log" >&2
  log "apt-get source could not fetch $p"
  exit 1
}

build_arch() {
  local arch=$1 triple=$1-w64-mingw32 prefix=$root/$1 work=$root/build/$1
  local toolchain=$PWD/cmake/mingw-$arch.cmake
  rm -rf "$prefix" "$work"
  mkdir -p "$work"
  local common=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release
                -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR="$prefix/lib")
  log "building static libjpeg-turbo for $arch"
  quiet "$work/jpeg.log" cmake -S "$(source_dir libjpeg-turbo)" -B "$work/jpeg" "${common[@]}" \
    -DENABLE_SHARED=OFF -DENABLE_STATIC=ON -DWITH_TURBOJPEG=OFF -DWITH_SIMD=ON -DREQUIRE_SIMD=ON \
    -DCMAKE_ASM_NASM_COMPILER=nasm
  quiet "$work/jpeg-build.log" cmake --build "$work/jpeg" -j"$jobs" --target install
  log "building static libpng for $arch"
  quiet "$work/png.log" cmake -S "$(source_dir libpng1.6)" -B "$work/png" "${common[@]}" \
    -DPNG_SHARED=OFF -DPNG_STATIC=ON -DPNG_TESTS=OFF -DPNG_EXECUTABLES=OFF -DSKIP_INSTALL_PROGRAMS=ON \
    -DZLIB_LIBRARY="/usr/$triple/lib/libz.a" -DZLIB_INCLUDE_DIR="/usr/$triple/include"
  quiet "$work/png-build.log" cmake --build "$work/png" -j"$jobs" --target install
  for lib in libjpeg.a libpng16.a; do
    [[ -f $prefix/lib/$lib ]] || { log "$prefix/lib/$lib was not installed"; exit 1; }
  done
  stamp_text >"$prefix/.stamp"
  rm -rf "$work"
}

fetch_sources
all_built && exit 0
for arch in "${archs[@]}"; do
  if [[ -f $root/$arch/.stamp && "$(cat "$root/$arch/.stamp")" == "$(stamp_text)" ]]; then
    continue
  fi
  [[ -f /usr/$arch-w64-mingw32/lib/libz.a ]] || { log "no mingw zlib for $arch (Debian package libz-mingw-w64-dev)"; exit 1; }
  build_arch "$arch"
done
rmdir "$root/build" 2>/dev/null || true
log "static libjpeg and libpng in $root/{$(IFS=,; echo "${archs[*]}")}"
