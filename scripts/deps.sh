#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need
# (the Windows builds' static libjpeg and libpng: scripts/win_deps.sh).
# Idempotent and quiet: does nothing when everything is present, and runs
# `apt-get update` once before installing what is missing.
set -euo pipefail

packages=(
  cmake make gcc g++ pkg-config
  libgtest-dev googletest
  gcc-mingw-w64-i686 g++-mingw-w64-i686 gcc-mingw-w64-x86-64 g++-mingw-w64-x86-64 binutils-mingw-w64-i686
  binutils-mingw-w64-x86-64 wine64
  clang libclang-rt-14-dev llvm-14
  imagemagick python3-pil
  libvips-tools
  libtiff-tools libtiff-dev netpbm
  libgif-dev giflib-tools ghostscript epstool
  dpkg-dev scdoc zip unzip lld python3-numpy python3-pytest
  libpng-dev zlib1g-dev libjpeg62-turbo-dev libjpeg-turbo-progs pngcheck
  nasm libz-mingw-w64-dev xz-utils
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=""
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "deps.sh: need root to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
echo "deps.sh: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive DEBCONF_NOWARNINGS=yes
$sudo apt-get update -qq >/dev/null
$sudo apt-get install -y -qq "${missing[@]}" >/dev/null
