#!/usr/bin/env bash
# Checks that each product exports exactly the functions declared in
# core/imgapi.h, with undecorated names (no stdcall @N), and that
# win/trnw6w95.def lists the same names.
# Usage: check_exports.sh FILE...   (.dll files through objdump -p, .so through nm -D)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
expected=$(bash "$here/scripts/gen_def.sh")
status=0

def=$(sed -n '/^EXPORTS/,$p' "$here/win/trnw6w95.def" | tail -n +2 | awk 'NF {print $1}' | sort)
if [[ "$def" != "$expected" ]]; then
  echo "check_exports: win/trnw6w95.def differs from core/imgapi.h:"
  diff <(echo "$expected") <(echo "$def") || true
  status=1
fi

for file in "$@"; do
  case "$file" in
    *.dll)
      objdump=x86_64-w64-mingw32-objdump
      actual=$($objdump -p "$file" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
               sed -nE 's/^\s*\[ *[0-9]+\] (.+)$/\1/p' | sort) ;;
    *)
      actual=$(nm -D --defined-only "$file" | awk '$2 == "T" {print $3}' | sort) ;;
  esac
  if grep -q '@' <<<"$actual"; then
    echo "check_exports: $file exports decorated names:"; grep '@' <<<"$actual"; status=1
  fi
  if [[ "$actual" != "$expected" ]]; then
    echo "check_exports: $file exports differ from core/imgapi.h (< declared, > exported):"
    diff <(echo "$expected") <(echo "$actual") || true
    status=1
  else
    echo "check_exports: $file: $(wc -l <<<"$actual") exports, exactly those of imgapi.h"
  fi
done
exit $status
