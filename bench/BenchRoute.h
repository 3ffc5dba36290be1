// What the table benchmarks share: a 116-byte value the size of the LFIB route record, keyed
// by a label, and the timing helpers.
#pragma once

#include <time.h>

#include <algorithm>
#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "zinc/Hash.h"

namespace Bench {

// How a key hashes its label. The table benchmarks compare this table with hash maps from
// other libraries, and a comparison of two hash tables holds only when both hash the keys the
// same way: `identity` is how those maps hash an integer by default (boost::hash, std::hash:
// consecutive labels never collide), `mixed` is how the LFIB's own keys hash (the framework's
// accumulator, so labels scatter and chains form as they will in the published tables).
enum class LabelHash { mixed, identity };

template <LabelHash kHash>
struct LabelKey {
  uint32_t label = 0;
  uint32_t hash() const { return kHash == LabelHash::mixed ? Zinc::Hash::finalize(label) : label; }
  auto operator<=>(const LabelKey&) const = default;
};
template <LabelHash kHash>
struct LabelRoute {
  using Key = LabelKey<kHash>;
  Key k;
  uint32_t words[28] = {};
  Key key() const { return k; }
  static const char* typeName() {
    return kHash == LabelHash::mixed ? "Bench::Route" : "Bench::IdentityRoute";
  }
};
using RouteKey = LabelKey<LabelHash::mixed>;
using Route = LabelRoute<LabelHash::mixed>;
using IdentityKey = LabelKey<LabelHash::identity>;
using IdentityRoute = LabelRoute<LabelHash::identity>;
static_assert(sizeof(Route) == 116 && sizeof(IdentityRoute) == 116);

// For the other libraries' hash maps: labels hashed as the LFIB's keys hash them.
struct MixedLabelHash {
  size_t operator()(uint32_t label) const { return RouteKey{label}.hash(); }
};

template <class R = Route>
R makeRoute(uint32_t label, uint32_t version) {
  R r;
  r.k.label = label;
  for (uint32_t i = 0; i < 28; ++i) r.words[i] = label ^ (version * 2654435761u) ^ i;
  return r;
}

using Clock = std::chrono::steady_clock;
inline double seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}
inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// This process's own processor time (user and system), in nanoseconds: on a busy machine a
// steadier measure than the wall clock.
inline int64_t cpuNs() {
  timespec t;
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// Tells a profiler listening on `fifo` (if any) to start or stop sampling: with
// `perf record -D -1 --control fifo:FIFO` it sees only what lies between the two.
inline void perfControl(const std::string& fifo, const char* command) {
  if (fifo.empty()) return;
  if (FILE* f = std::fopen(fifo.c_str(), "w")) {
    std::fprintf(f, "%s\n", command);
    std::fclose(f);
  }
}

// The same, for the profiler named by $BENCH_PERF_FIFO, if that is set.
inline void perfControlFromEnv(const char* command) {
  const char* fifo = std::getenv("BENCH_PERF_FIFO");
  perfControl(fifo ? fifo : "", command);
}

}  // namespace Bench
