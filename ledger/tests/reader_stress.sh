#!/usr/bin/env bash
# Long run of the multi-process reader test: READER_STRESS_OPS writer operations (default
# 10^8) against two reader processes. Usage: ledger/tests/reader_stress.sh [ops] [builddir]
set -euo pipefail
cd "$(dirname "$0")/../.."
ops=${1:-100000000}
build=${2:-build}
ninja -C "$build" -j2 ledger_reader_multiprocess_test
READER_STRESS_OPS=$ops "$build/ledger_reader_multiprocess_test" \
  --gtest_filter='ReaderMultiProcess.TwoReadersFollowAChurningWriter'
