#!/usr/bin/env bash
# Long runs of the multi-process reader tests: READER_STRESS_OPS writer operations (default
# 10^8) against two reader processes on a table of fixed-size values, then a tenth as many
# against a reader of a table whose values live in slabs.
# Usage: ledger/tests/reader_stress.sh [ops] [builddir]
set -euo pipefail
cd "$(dirname "$0")/../.."
ops=${1:-100000000}
build=${2:-build}
ninja -C "$build" -j2 ledger_reader_multiprocess_test ledger_slab_reader_test
READER_STRESS_OPS=$ops "$build/ledger_reader_multiprocess_test" \
  --gtest_filter='ReaderMultiProcess.TwoReadersFollowAChurningWriter'
READER_STRESS_OPS=$ops "$build/ledger_slab_reader_test" \
  --gtest_filter='SlabReaderProcess.FollowsAChurnThatGrowsAndShrinksTheTable'
