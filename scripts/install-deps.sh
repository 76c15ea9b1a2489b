#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the front ends need.
# Safe to run again: packages already present are skipped, and apt is only
# touched when something is missing. Needs root (or sudo) on Debian 12.
set -euo pipefail

PACKAGES=(
  cmake ninja-build g++ pkg-config
  libboost-thread-dev libboost-dev
  libgtest-dev libbenchmark-dev
  liblcms2-dev libeigen3-dev
  clang libclang-rt-dev
  octave liboctave-dev
  python3-pybind11 python3-numpy python3-pytest python3-scipy python3-matplotlib
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
