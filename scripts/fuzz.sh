#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, ASan + UBSan) in build-fuzz and runs
# each for a fixed time from its seed corpus in fuzz/corpus/<harness>.
#   bash scripts/fuzz.sh                  30 s per harness (CI)
#   FUZZ_SECONDS=600 bash scripts/fuzz.sh longer runs
#   FUZZ_RUNS=1000000 bash scripts/fuzz.sh a fixed number of executions instead
#   FUZZ_SEED=0 bash scripts/fuzz.sh      a new random seed (the default, 1,
#                                         makes a CI run reproducible)
# New inputs go to build-fuzz/corpus/<harness> (the seeds stay as they are);
# a finding stops the run, leaves crash-* / leak-* / timeout-* in build-fuzz
# and makes the script fail. Reproduce one with:
#   build-fuzz/fuzz/fuzz_<harness> build-fuzz/crash-...
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
BUILD_DIR=${FUZZ_BUILD_DIR:-build-fuzz}
SECONDS_EACH=${FUZZ_SECONDS:-30}
RUNS=${FUZZ_RUNS:-}
SEED=${FUZZ_SEED:-1}
HARNESSES=(measurement_file model_building model_file)

CC=clang CXX=clang++ cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKELMA_SANITIZE=ON -DKELMA_BUILD_FUZZERS=ON -DKELMA_BUILD_TESTS=OFF -DKELMA_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD_DIR" --target "${HARNESSES[@]/#/fuzz_}"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for h in "${HARNESSES[@]}"; do
  corpus="$BUILD_DIR/corpus/$h"
  mkdir -p "$corpus"
  limit=(-max_total_time="$SECONDS_EACH")
  if [ -n "$RUNS" ]; then limit=(-runs="$RUNS"); fi
  dict=()
  if [ -f "fuzz/$h.dict" ]; then dict=(-dict="fuzz/$h.dict"); fi
  # Model files of six and seven inks (seeds included) run past 16 KiB.
  max_len=16384
  if [ "$h" = model_file ]; then max_len=65536; fi
  echo "== fuzz_$h: ${limit[*]} -seed=$SEED"
  # -timeout: one input taking over 10 s is a finding; -rss_limit_mb bounds memory.
  "$BUILD_DIR/fuzz/fuzz_$h" "${limit[@]}" "${dict[@]}" -seed="$SEED" -timeout=10 -rss_limit_mb=2048 -max_len=$max_len \
    -artifact_prefix="$BUILD_DIR/" -print_final_stats=1 "$corpus" "fuzz/corpus/$h"
done
