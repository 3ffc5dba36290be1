#!/usr/bin/env bash
# Long runs of the multi-process table tests, scaled by OPS (default 10^8):
#  - OPS writer operations against two reader processes on a table of fixed-size values, then
#    a tenth as many against a reader of a table whose values live in slabs;
#  - OPS/10^5 writers killed with SIGKILL after a random time while two readers follow, which
#    must end equal to the last writer's table;
#  - OPS/10^5 writers killed at a random point of their own code, for each kind of table: the
#    next writer adopts or recovers the files and loses nothing acknowledged.
# Usage: ledger/tests/stress.sh [ops] [builddir]
set -euo pipefail
cd "$(dirname "$0")/../.."
ops=${1:-100000000}
build=${2:-build}
kills=$((ops / 100000 > 3 ? ops / 100000 : 3))
ninja -C "$build" -j2 ledger_reader_multiprocess_test ledger_slab_reader_test ledger_crash_test
READER_STRESS_OPS=$ops "$build/ledger_reader_multiprocess_test" \
  --gtest_filter='ReaderMultiProcess.TwoReadersFollowAChurningWriter'
READER_STRESS_OPS=$ops "$build/ledger_slab_reader_test" \
  --gtest_filter='SlabReaderProcess.FollowsAChurnThatGrowsAndShrinksTheTable'
READER_STRESS_KILLS=$kills "$build/ledger_reader_multiprocess_test" \
  --gtest_filter='ReaderMultiProcess.WriterKilledAndRestartedReadersResync'
CRASH_ROUNDS=$kills "$build/ledger_crash_test"
