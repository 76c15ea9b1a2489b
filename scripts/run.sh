#!/usr/bin/env bash
# Builds kelma and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
./build/apps/kelma_demo
