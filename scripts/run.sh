#!/usr/bin/env bash
# Builds kelma and runs the main job on the embedded press model: accuracy on
# the APTEC PC10 chart, out/spectra.png and out/proof.png, timings.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
KELMA_PYTHON_DIR="$PWD/build/python" /usr/bin/python3 cli/kelma demo --out out "$@"
