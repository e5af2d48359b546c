#!/usr/bin/env bash
# Prints the exported function names declared in core/imgapi.h, one a line.
# Used to write win/trnw6w95.def and by check_exports.sh.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
tr '\n' ' ' < "$here/core/imgapi.h" | grep -oE 'IMGEXPORT [^;(]*IMGAPI +[A-Za-z_0-9]+ *\(' |
  sed -E 's/.*IMGAPI +([A-Za-z_0-9]+) *\(/\1/' | sort
