#!/usr/bin/env bash
# Configures a native build folder as a Debian packager builds the library:
# CMAKE_BUILD_TYPE=Release (-O3) with the distribution's hardening flags
# (dpkg-buildflags with hardening=+all; CPPFLAGS join the compile flags, as
# debhelper passes them), where dpkg-buildflags exists.  Further arguments go
# to cmake as they are (`-DTRNW_WERROR=ON` for the developers' build).
# Usage: configure.sh DIR [CMAKE_ARGUMENTS...]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1
shift
flags=()
if command -v dpkg-buildflags >/dev/null; then
  export DEB_BUILD_MAINT_OPTIONS=hardening=+all
  cppflags=$(dpkg-buildflags --get CPPFLAGS)
  ldflags=$(dpkg-buildflags --get LDFLAGS)
  flags=("-DCMAKE_C_FLAGS=$(dpkg-buildflags --get CFLAGS) $cppflags"
         "-DCMAKE_CXX_FLAGS=$(dpkg-buildflags --get CXXFLAGS) $cppflags"
         "-DCMAKE_EXE_LINKER_FLAGS=$ldflags" "-DCMAKE_SHARED_LINKER_FLAGS=$ldflags")
fi
mkdir -p "$dir"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release "${flags[@]}" "$@"
