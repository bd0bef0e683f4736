# SPDX-License-Identifier: MIT
# Shared by the scripts; sourced, with the repository's top as the current folder.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)} CTEST_PARALLEL_LEVEL=${CTEST_PARALLEL_LEVEL:-$(nproc)}

build_packages=(g++ make cmake picojson-dev libcli11-dev libfmt-dev nlohmann-json3-dev libncurses-dev gnuplot-nox
                libarchive-dev libboost-dev libmosquitto-dev libpcap-dev libssl-dev)
test_packages=(libgtest-dev python3 python3-pytest pkg-config tshark tmux util-linux
               mosquitto mosquitto-clients openssl python3-websockets
               chromium chromium-driver python3-selenium)
check_packages=(clang clang-format clang-tidy cppcheck)
bench_packages=(libbenchmark-dev nlohmann-json3-dev gnuplot-nox rt-tests)
package_packages=(abigail-tools dpkg-dev gzip lintian man-db)
proof_packages=(gcovr valgrind)
arm64_packages=(g++-aarch64-linux-gnu qemu-user)
python_packages=(pybind11-dev python3-dev python3-numpy)
package_packages+=("${python_packages[@]}")
test_packages+=("${python_packages[@]}" mypy python3-build python3-matplotlib python3-pip python3-setuptools python3-venv
                python3-wheel)

# need PACKAGE... installs the Debian packages that are missing, and nothing else.
need() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null)" = 'install ok installed' ] || missing+=("$package")
  done
  [ "${#missing[@]}" -eq 0 ] && return
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "missing packages, and neither root nor sudo to install them: ${missing[*]}" >&2; exit 1; }
    as_root=(sudo)
  fi
  echo "installing ${missing[*]}"
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# quietly COMMAND... shows the command's output only if it fails.
quietly() {
  local log
  log=$(mktemp)
  "$@" >"$log" 2>&1 || { cat "$log" >&2; rm -f "$log"; exit 1; }
  rm -f "$log"
}

# build PRESET [cmake --build arguments]
build() {
  local preset=$1
  shift
  echo "building ($preset)"
  quietly cmake --preset "$preset"
  quietly cmake --build --preset "$preset" "$@"
}

# package_flags sets the compiler's flags to those of the distribution, for the preset "package".
package_flags() {
  export CXXFLAGS LDFLAGS DEB_BUILD_MAINT_OPTIONS=hardening=+all
  CXXFLAGS="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)"
  LDFLAGS=$(dpkg-buildflags --get LDFLAGS)
}
