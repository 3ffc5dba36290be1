#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan+UBSan) and runs each for SECONDS seconds.
# Usage: fuzz/run.sh [SECONDS]
# FUZZ_SEED and FUZZ_RUNS make a run repeatable (CI sets both: a fixed seed and a fixed
# number of inputs, so that a CI run explores exactly what a developer can replay).
# Each target's corpus starts from its seeds in fuzz/seeds/<target>.tar.gz: inputs that earlier
# campaigns found reaching deep into the code, replayed first on every run so that a change
# that breaks on one of them is caught at once. FUZZ_SAVE_SEEDS=1 ends the run by merging the
# corpus into the smallest set that covers as much, and writing that back as the seeds.
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
  seeds="fuzz/seeds/$target.tar.gz"
  mkdir -p "$corpus"
  if [ -f "$seeds" ] && [ -z "$(ls -A "$corpus")" ]; then tar -xzf "$seeds" -C "$corpus"; fi
  echo "== $target for ${seconds}s"
  ASAN_OPTIONS=detect_leaks=1 "$build/fuzz/$target" -max_total_time="$seconds" \
    -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
    ${FUZZ_SEED:+-seed=$FUZZ_SEED} ${FUZZ_RUNS:+-runs=$FUZZ_RUNS} -artifact_prefix="$build/" "$corpus" || status=$?
done
if [ "${FUZZ_SAVE_SEEDS:-0}" = 1 ]; then
  for target in "${targets[@]}"; do
    merged=$(mktemp -d)
    if ! "$build/fuzz/$target" -merge=1 -timeout=10 "$merged" "$build/corpus/$target" \
      >"$build/merge-$target.log" 2>&1 || [ -z "$(ls -A "$merged")" ]; then
      echo "== $target: merge failed, seeds kept (see $build/merge-$target.log)"
      rm -rf "$merged"
      status=1
      continue
    fi
    tar --sort=name --mtime=@0 --owner=0 --group=0 --numeric-owner -C "$merged" -cf - . |
      gzip -n >"fuzz/seeds/$target.tar.gz"
    echo "== $target: $(ls "$merged" | wc -l) seeds"
    rm -rf "$merged"
  done
fi
exit $status
