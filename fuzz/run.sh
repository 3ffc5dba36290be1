#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan+UBSan) and runs each for SECONDS seconds.
# Usage: fuzz/run.sh [SECONDS]
# FUZZ_SEED and FUZZ_RUNS make a run repeatable (CI sets both: a fixed seed and a fixed
# number of inputs, so that a CI run explores exactly what a developer can replay).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build-fuzz
cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DMPLS_FUZZ=ON -DMPLS_SANITIZE=ON -DMPLS_TESTS=OFF >/dev/null
targets=(ledger_table_fuzz reader_fuzz record_fuzz ledger_tool_fuzz)
ninja -C "$build" -j2 "${targets[@]}"
status=0
for target in "${targets[@]}"; do
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"
  echo "== $target for ${seconds}s"
  ASAN_OPTIONS=detect_leaks=1 "$build/fuzz/$target" -max_total_time="$seconds" \
    -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
    ${FUZZ_SEED:+-seed=$FUZZ_SEED} ${FUZZ_RUNS:+-runs=$FUZZ_RUNS} -artifact_prefix="$build/" "$corpus" || status=$?
done
exit $status
