#!/usr/bin/env bash
# Benchmarks against peer libraries. Usage: bench/run.sh writer|reader|lfib
# Builds in Release (build-bench/), installs the peers' Debian packages if they are missing,
# and runs the benchmark; its output ends with `figure ...` and `ratio ...` lines.
set -euo pipefail
cd "$(dirname "$0")/.."
which=${1:-writer}
case "$which" in
  writer) target=ledger_writer_bench ;;
  reader) target=ledger_reader_bench ;;
  lfib) target=lfib_bench ;;
  *) echo "usage: bench/run.sh writer|reader|lfib" >&2; exit 2 ;;
esac

missing=()
[ -f /usr/include/lmdb.h ] || missing+=(liblmdb-dev)
[ -d /usr/include/boost/interprocess ] || missing+=(libboost-dev)
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
fi

cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DMPLS_BENCH=ON -DMPLS_TESTS=OFF \
  >/dev/null
ninja -C build-bench -j2 "$target"
"build-bench/bench/$target" "${@:2}"
