#!/usr/bin/env bash
# Configures and builds kelma into BUILD_DIR (default: build). Extra arguments
# go to CMake, e.g. -DKELMA_SANITIZE=ON.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
BUILD_DIR=${BUILD_DIR:-build}
cmake -S . -B "$BUILD_DIR" -G Ninja "$@" >/dev/null
cmake --build "$BUILD_DIR"
