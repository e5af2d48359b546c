#!/usr/bin/env bash
# The install part of `make test`: installs a native build (default build/)
# into a temporary prefix, as `cmake --install` does for a user, and checks
# what lands there:
# - the consumer program (tests/package/consumer.c) built twice against the
#   installed library, through pkg-config and through find_package(trnw6w95),
#   each run on a Group 4 page that ImageMagick makes, its output compared
#   with ImageMagick's reading of the page;
# - the installed trnw runs (it finds the library beside it), and its man
#   page names the same commands and options as `trnw --help`;
# - the installed Python package loads the installed library.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(mktemp -d "${TMPDIR:-/tmp}/trnw-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
  echo "install_check: $*" >&2
  exit 1
}

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
"$prefix/bin/trnw" version >/dev/null || fail "the installed trnw does not run"

convert -size 333x207 pattern:checkerboard -monochrome -compress Group4 "$work/page.tif"
# Runs a consumer on the page and compares its output with the page.
run_consumer() {
  local output=$work/$1
  shift
  "$@" "$work/page.tif" "$output" >/dev/null || fail "$*: failed"
  local differ
  differ=$(compare -quiet -metric AE "$work/page.tif" "$output" null: 2>&1) || true
  [[ $differ == 0 ]] || fail "$output differs from the page ($differ pixels)"
}

pc=$(find "$prefix" -name trnw6w95.pc)
[[ -n $pc ]] || fail "no trnw6w95.pc installed"
export PKG_CONFIG_PATH=${pc%/*}
cc -Wall -Wextra -Werror tests/package/consumer.c $(pkg-config --cflags --libs trnw6w95) -o "$work/consumer-pc"
run_consumer pc.bmp env LD_LIBRARY_PATH="$(pkg-config --variable=libdir trnw6w95)" "$work/consumer-pc"

cmake -S tests/package -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; exit 1; }
cmake --build "$work/cmake" >>"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; exit 1; }
run_consumer cmake.tif "$work/cmake/consumer"  # the imported target carries the library's path

# The man page's bold words hold every command and option of --help, and its
# options are those of --help.
help=$("$prefix/bin/trnw" --help)
page=$(grep -oE '\\fB[^\\]+\\fR' "$prefix/share/man/man1/trnw.1" | sed -E 's/\\f[BR]//g' | sort -u)
help_options=$(grep -oE -- '(^|[[ ,])--?[a-z][a-z-]*' <<<"$help" | tr -d '[ ,' | sort -u)
page_options=$(grep -E '^--?[a-z]' <<<"$page")
if [[ "$help_options" != "$page_options" ]]; then
  diff <(echo "$help_options") <(echo "$page_options") | sed 's/^/install_check: < --help, > man page: /' >&2
  fail "the man page and --help name different options"
fi
for command in $(sed -nE 's/^  ([a-z]+)[ ,].*/\1/p' <<<"$help"); do
  grep -qx "$command" <<<"$page" || fail "the man page lacks the command $command"
done

env -u TRNW_LIBRARY PYTHONPATH="$prefix/lib/python3/dist-packages" /usr/bin/python3 -c \
  'import trnw; assert trnw.version() == (6, 12), trnw.version()' || fail "the installed Python package"
echo "install_check: installed into a temporary prefix; consumers through pkg-config and find_package ran; man page matches --help"
