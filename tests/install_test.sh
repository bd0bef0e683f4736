#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# A program of somebody else builds and runs against the installed library, found in each way that users know.
# usage: install_test.sh tree BUILD_DIR COMPILER [FLAGS...]     installs the build tree, and moves what was installed
#        install_test.sh debs PACKAGE_DIR COMPILER [FLAGS...]   unpacks the packages into an empty root
set -euo pipefail
mode=$1 from=$(realpath "$2")
shift 2
source_dir=$(realpath "$(dirname "$0")/..")
stranger=$source_dir/tests/stranger
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "install_test: $*" >&2; exit 1; }
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "failed: $*"; }; }
runs() { [ "$(LD_LIBRARY_PATH=${2:-} timeout 20 "$1" | tail -n 1)" = "velta 2.1.0" ] || fail "$1 does not run"; }

if [ "$mode" = tree ]; then
  quietly cmake --install "$from" --prefix "$work/first"
  mv "$work/first" "$work/moved"
  prefix=$work/moved
else
  for deb in "$from"/*.deb; do dpkg-deb -x "$deb" "$work/root"; done
  prefix=$work/root/usr
  apt-get -qq --simulate install "$from"/*.deb >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "the packages do not install"; }
fi
library_dir=$(dirname "$(find "$prefix" -name libvelta.so.2)")
grep -rl "$work/first\|$source_dir" "$prefix/include" "$library_dir"/cmake "$library_dir"/pkgconfig &&
  fail "a path of the build machine was installed"
grep -q 'SONAME  *libvelta.so.2$' <<<"$(objdump -p "$library_dir/libvelta.so.2")" || fail "no SONAME"
flags=(-std=c++17 -Wall -Wextra -Werror)

# Every header compiles by itself.
for header in "$prefix"/include/velta/*.h; do
  "$@" "${flags[@]}" -fsyntax-only -include "$header" -x c++ /dev/null || fail "$header"
done

"$@" "${flags[@]}" -I"$prefix/include/velta" "$stranger/main.cpp" -o "$work/plain" -L"$library_dir" -lvelta
runs "$work/plain" "$library_dir"

export PKG_CONFIG_PATH=$library_dir/pkgconfig PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
[ "$(pkg-config --modversion velta)" = 2.1.0 ] || fail "pkg-config has another version"
read -ra found <<<"$(pkg-config --cflags --libs velta)"
"$@" "${flags[@]}" "$stranger/main.cpp" -o "$work/by_pkg_config" "${found[@]}"
runs "$work/by_pkg_config" "$library_dir"

export CXX=$1 CXXFLAGS=${*:2}
quietly cmake -S "$stranger" -B "$work/found" -Dvelta_ROOT="$prefix"
quietly cmake --build "$work/found"
runs "$work/found/stranger" # CMake set the path to the library
grep -q "=> $library_dir/libvelta.so.2 " <<<"$(ldd "$work/found/stranger")" || fail "another libvelta was found"

if [ -x "$prefix/bin/velta" ]; then
  runs_from=''
  [ "$mode" = debs ] && runs_from=$library_dir
  [ "$(LD_LIBRARY_PATH=$runs_from "$prefix/bin/velta" --version)" = 2.1.0 ] || fail "velta does not run"
  page=$(find "$prefix/share/man" -name 'velta.1*')
  if command -v man >/dev/null; then
    [ -z "$(MANWIDTH=100 man --warnings=w -l "$page" 2>&1 >/dev/null)" ] || fail "the man page has warnings"
  fi
  bash -n "$prefix/share/bash-completion/completions/velta"
fi
[ "$mode" = debs ] && exit

quietly cmake -S "$stranger" -B "$work/inside" -DVELTA_SOURCE="$source_dir"
quietly cmake --build "$work/inside" -j 2
runs "$work/inside/stranger"
