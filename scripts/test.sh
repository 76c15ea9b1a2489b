#!/usr/bin/env bash
# Builds kelma and runs every test. With --sanitize, builds a separate tree
# with AddressSanitizer + UndefinedBehaviorSanitizer and runs the tests there;
# with --tsan, a tree with ThreadSanitizer and the concurrency tests only.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" = "--tsan" ]; then
  export BUILD_DIR=${BUILD_DIR:-build-tsan}
  bash scripts/build.sh -DKELMA_SANITIZE_THREAD=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo
elif [ "${1:-}" = "--sanitize" ]; then
  export BUILD_DIR=${BUILD_DIR:-build-asan}
  bash scripts/build.sh -DKELMA_SANITIZE=ON -DKELMA_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
else
  export BUILD_DIR=${BUILD_DIR:-build}
  bash scripts/build.sh
fi
ctest --test-dir "$BUILD_DIR" --output-on-failure -j 2
