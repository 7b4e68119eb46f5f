#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, when missing. Run as root (or
# with sudo available) on Debian 12.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev clang-format
  libgtest-dev googletest libbenchmark-dev
  libyaml-cpp-dev
  libcli11-dev nlohmann-json3-dev pkg-config
  mingw-w64 wine wine64 wine64-tools
  xvfb xdotool x11-apps fonts-vlgothic  # the target picker's tests: screen, mouse and keys, xwd
  # screenshots, a font for the Japanese dialog
  gdb gdbserver lldb python3-lldb-14  # the real debuggers the GDB bridge is tested with
  python3-dev pybind11-dev python3-pytest python3-setuptools python3-wheel  # the Python package
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
[ "$(id -u)" -ne 0 ] && as_root=(sudo)
echo "installing: ${missing[*]}"
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
  "${missing[@]}"
