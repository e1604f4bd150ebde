#!/usr/bin/env bash
# Installs what building and testing need, from Debian's packages. Packages
# already present are left alone; nothing is installed when all are there.
#   scripts/install_deps.sh          everything: build, tests, Octave, fuzzing
#   scripts/install_deps.sh --demo   only what the command line and the demo need
#   scripts/install_deps.sh --bench  only the Python packages of bench/quality
set -euo pipefail
packages=(cmake g++ make pkg-config libpng-dev libtiff-dev libjpeg-dev zlib1g-dev libcli11-dev)
if [ "${1:-}" = "--bench" ]; then
  packages=(python3-numpy python3-scipy python3-skimage python3-pil python3-pytest)
elif [ "${1:-}" != "--demo" ]; then
  packages+=(googletest libgtest-dev libgmock-dev octave liboctave-dev clang libclang-rt-dev)
  # The Python module and its suite (pybind11, pytest, NumPy, Dask, image I/O).
  packages+=(python3-dev pybind11-dev python3-pybind11 python3-pytest python3-numpy python3-dask
             python3-distributed python3-skimage python3-imageio)
  # The install checks: the man page, pip into a virtual environment, man -l.
  packages+=(help2man python3-venv python3-pip python3-setuptools python3-wheel man-db git)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "All build and test dependencies are installed."
  exit 0
fi
echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
