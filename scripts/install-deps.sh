#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the front ends need.
# Safe to run again: packages already present are skipped, and apt is only
# touched when something is missing. Needs root (or sudo) on Debian 12.
set -euo pipefail

# Every package a build step, a test or a front end imports, by name.
PACKAGES=(
  # the library and its tests
  cmake ninja-build g++ pkg-config binutils
  libboost-thread-dev libboost-dev
  libgtest-dev libbenchmark-dev
  liblcms2-dev libeigen3-dev
  # Little CMS's transicc and tificc: the tests apply the ICC profiles with them
  liblcms2-utils
  # fuzzing (clang's libFuzzer)
  clang libclang-rt-dev
  # Octave front end (MEX files, .m files)
  octave liboctave-dev
  # Python front end: the extension and its build, the kelma package
  python3-dev python3-pybind11 python3-numpy
  # pip install . --no-build-isolation (setuptools drives CMake), venvs
  python3-setuptools python3-wheel python3-pip python3-venv
  # kelma.dask
  python3-dask python3-distributed
  # the command line: plots (matplotlib) and CMYK TIFF/JPEG images (Pillow)
  python3-matplotlib python3-pil
  # tests and benchmarks
  python3-pytest python3-scipy
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}" >&2
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
