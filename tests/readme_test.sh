#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The README's program compiles as it stands, and runs after the README's swap to the simulator.
# usage: readme_test.sh SOURCE_DIR LIBRARY_DIR COMPILER [FLAGS...]
set -euo pipefail
source_dir=$1 library_dir=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
block() { awk -v want="$1" '/^```cpp/ { n++; on = (n == want); next } /^```/ { on = 0 } on' "$source_dir/README.md"; }
compile() { "$@" -std=c++17 -Wall -Wextra -I"$source_dir/include" "$work/program.cpp" -o "$work/program" -L"$library_dir" -lvelta -Wl,-rpath,"$library_dir" -pthread; }

block 1 >"$work/program.cpp"
[ "$(grep -c . "$work/program.cpp")" -le 28 ]
compile "$@"
{
  block 2 | grep '^#include'
  block 1 | sed -e '/MasterControllerClient arm/d' -e "s|.*InitAsTcpClient.*|$(block 2 | grep 'arm(' | tr -d '\n')|"
} >"$work/program.cpp"
compile "$@"
timeout 20 "$work/program" | grep -x 'joint 2 is at 30.00'
