#!/usr/bin/env bash
# Prints the exported function names declared in core/imgapi.h, one a line.
# With --decorated, prints each as name@N, N the bytes of its arguments on
# i686 (every argument of the interface is a 32-bit value or a pointer), for
# the 32-bit import library.  Used to write win/trnw6w95.def, by
# check_exports.sh and by the i686 build.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
prototypes=$(tr '\n' ' ' < "$here/core/imgapi.h" | grep -oE 'IMGEXPORT [^;(]*IMGAPI +[A-Za-z_0-9]+ *\([^)]*\)')
if [[ "${1:-}" == "--decorated" ]]; then
  while IFS= read -r p; do
    name=$(sed -E 's/.*IMGAPI +([A-Za-z_0-9]+) *\(.*/\1/' <<<"$p")
    args=$(sed -E 's/.*\((.*)\)/\1/' <<<"$p" | tr -s ' ')
    if grep -qE 'int64|double|long long' <<<"$args"; then
      echo "gen_def.sh: $name has an argument wider than 32 bits" >&2; exit 1
    fi
    if [[ -z "${args// /}" || "${args// /}" == "void" ]]; then n=0
    else n=$(( ($(tr -cd ',' <<<"$args" | wc -c) + 1) * 4 )); fi
    echo "$name@$n"
  done <<<"$prototypes" | sort
else
  sed -E 's/.*IMGAPI +([A-Za-z_0-9]+) *\(.*/\1/' <<<"$prototypes" | sort
fi
