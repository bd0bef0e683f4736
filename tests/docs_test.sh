#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Every code block of README and docs compiles or runs, and every relative link leads somewhere.
# usage: docs_test.sh SOURCE_DIR BUILD_DIR COMPILER [FLAGS...]
#
#   cpp    a program is built, and run when it needs no arm; anything else compiles as a part of a function that has
#          a client named `arm`
#   text, json  after a program that ran: its output (json without white space); other json is a command document
#   sh     runs, with what needs root, a network or an arm replaced: a controller is simulated if `velta` was built
#   cmake  builds the last program with the installed library
#   python compiles
#   none   a look at a terminal: the velta commands after "$ " are ones that the program takes
set -euo pipefail
source_dir=$(realpath "$1") build_dir=$(realpath "$2")
shift 2
work=$(mktemp -d) controller=
trap '[ -z "$controller" ] || kill "$controller" 2>/dev/null; rm -rf "$work"' EXIT
prefix=$work/prefix
mkdir "$work/bin" "$work/blocks"
echo '{}' >"$work/limits.json" # a file that a page names
page='' number=0
fail() { echo "docs_test: $page, block $number: $*" >&2; exit 1; }
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "failed: $*"; }; }
compile() { quietly "$@" -std=c++17 -Wall -Wextra -I"$source_dir/include" -L"$build_dir" -lvelta -Wl,-rpath,"$build_dir" -pthread; }
sanitized() { [[ " $* " == *fsanitize* ]]; }
shown() { tr -d '[:space:]' <"$1"; }
installed() { [ -d "$prefix" ] || quietly cmake --install "$build_dir" --prefix "$prefix"; }
prelude=$(printf '#include <%s>\n' fcntl.h pthread.h sched.h sys/mman.h MasterControllerClient.h \
  MasterControllerClientMock.h atomic chrono cstdio string thread iostream iterator)
cat >"$work/document.cpp" <<EOF
$prelude
int main() {
  MasterControllerClient arm(6);
  return arm.PushSendQueueJson({std::istreambuf_iterator<char>(std::cin), {}}, false) ? 0 : 1;
}
EOF
compile "$@" "$work/document.cpp" -o "$work/document"

stub() { printf '#!/usr/bin/env bash\n%s\n' "$2" >"$work/bin/$1"; chmod +x "$work/bin/$1"; }
printf -v quoted_build_dir %q "$build_dir" # for the programs' texts below
stub sudo 'exec "$@"'
stub ldconfig ''
stub apt ''
stub cmake 'case $1 in
  --preset) grep -q "\"name\": \"$2\"" CMakePresets.json ;;
  --build) grep -q "\"name\": \"$3\"" CMakePresets.json ;;
  --install) [ "$2" = build/release ] && '"$(command -v cmake)"' --install '"$quoted_build_dir"' --prefix '"$prefix"' ;;
esac'
stub g++ 'exec '"$(command -v "$1")"' "${@//\/usr\/local/'"$prefix"'}" -L'"$prefix"'/lib'
stub velta 'set -- "${@//192.168.0.10:5000/127.0.0.1:$VELTA_PORT}"
exec timeout 20 '"$quoted_build_dir"'/tools/velta "${@//0.0.0.0/127.0.0.1}"'
velta=$build_dir/tools/velta
if [ -x "$velta" ]; then
  "$velta" sim -n 6 tcp://127.0.0.1:0 >"$work/sim" & controller=$!
  for _ in $(seq 100); do grep -q listening "$work/sim" && break; sleep 0.1; done
  VELTA_PORT=$(sed -n 's|^listening on tcp://127.0.0.1:||p' "$work/sim")
  export VELTA_PORT
fi

run_shell() { # a block, line by line, where the line's own program has been replaced
  sanitized "${compiler[@]}" && return
  installed
  while IFS= read -r line; do
    case $line in
      '' | '#'*) ;;
      ./scripts/* | .ci/run*) [ -x "$source_dir/${line%% *}" ] || fail "$line" ;;
      velta\ *) [ ! -x "$velta" ] || (cd "$work" && PATH=$work/bin:$PATH quietly bash -ec "$line") ;;
      cmake\ * | sudo\ cmake\ *) (cd "$source_dir" && PATH=$work/bin:$PATH quietly bash -ec "$line") ;;
      *) (cd "$work" && export PATH=$work/bin:$PATH PKG_CONFIG_PATH="$(dirname "$(find "$prefix" -name velta.pc)")" &&
        quietly bash -ec "$line") ;;
    esac
  done <"$1"
}

run_session() { # a session: status 2 is bad usage, and all others depend on what is there
  [ -x "$velta" ] || return 0
  local line
  while IFS= read -r line; do
    (cd "$work" && PATH=$work/bin:$PATH timeout 2 bash -o pipefail -c "${line#"$ "}" </dev/null >"$work/log" 2>&1) && continue
    [ $? -ne 2 ] || { cat "$work/log" >&2; fail "bad usage: $line"; }
  done < <(grep '^\$ velta ' "$1" | sed 's/ &$//')
}

compiler=("$@")
cd "$source_dir"
for page in README.md docs/*.md; do
  number=0 ran=''
  rm -rf "$work"/blocks/*
  awk -v to="$work/blocks/" '/^```/ { if (on) { on = 0 } else { on = 1; file = sprintf("%s%03d.%s", to, ++n, substr($0, 4)); printf "" >file } next }
    on { print >file }' "$page"
  for block in "$work"/blocks/*; do
    [ -e "$block" ] || continue
    number=$((number + 1))
    kind=${block##*.}
    case $kind in
      cpp)
        ran=''
        if grep -q 'int main' "$block"; then
          cp "$block" "$work/move.cpp"
          compile "${compiler[@]}" "$work/move.cpp" -o "$work/program"
          grep -qE 'InitAs|"(tcp|udp)://192' "$block" || ran=1
          [ -z "$ran" ] || timeout 30 "$work/program" >"$work/output" || fail "the program fails"
        else
          { echo "$prelude"; grep '^#include' "$block" || true
            echo 'void Fragment(MasterControllerClient& arm); void Fragment(MasterControllerClient& arm) { (void)arm; {'
            grep -v '^#include' "$block"; echo '} }'; } >"$work/fragment.cpp"
          quietly "${compiler[@]}" -std=c++17 -Wall -Wextra -Werror -Wno-unused-variable -I"$source_dir/include" \
            -fsyntax-only "$work/fragment.cpp"
        fi ;;
      text | json)
        if [ -n "$ran" ]; then
          [ "$(shown "$work/output")" = "$(shown "$block")" ] || { cat "$work/output" >&2; fail "other output"; }
        elif [ "$kind" = json ]; then
          "$work/document" <"$block" || fail "no command document"
        fi
        ran='' ;;
      sh) run_shell "$block" ;;
      cmake)
        sanitized "${compiler[@]}" && continue
        installed
        mkdir -p "$work/project" && cp "$block" "$work/project/CMakeLists.txt" && cp "$work/move.cpp" "$work/project/"
        CXX=${compiler[0]} quietly cmake -S "$work/project" -B "$work/project/build" -Dvelta_ROOT="$prefix"
        quietly cmake --build "$work/project/build" ;;
      python) ! command -v python3 >/dev/null || quietly python3 -m py_compile "$block" ;;
      '') run_session "$block" ;;
      *) fail "a block of kind '$kind'" ;;
    esac
  done
  { grep -o '](\([^)#:]*\))' "$page" || true; } | tr -d '()]' | while IFS= read -r target; do
    [ -e "$(dirname "$page")/$target" ] || { echo "docs_test: $page: no such page: $target" >&2; exit 1; }
  done
done

# The README's program runs with the simulator in place of the arm.
page=README.md
awk '/^```cpp/ { n++; on = (n == 1); next } /^```/ { on = 0 } on' README.md >"$work/blocks/first"
[ "$(grep -c . "$work/blocks/first")" -le 28 ] || fail "the program is too long"
sed 's|"tcp://.*";|"sim:";|' "$work/blocks/first" >"$work/simulated.cpp"
compile "${compiler[@]}" "$work/simulated.cpp" -o "$work/program"
grep -qx 'joint 2 is at 30.00' <<<"$(timeout 20 "$work/program")" || fail "the simulated joint does not arrive"
