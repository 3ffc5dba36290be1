// What the table benchmarks share: a 116-byte value the size of the LFIB route record, keyed
// by a label, and the timing helpers.
#pragma once

#include <time.h>

#include <algorithm>
#include <chrono>
#include <compare>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "zinc/Hash.h"

namespace Bench {

struct RouteKey {
  uint32_t label = 0;
  uint32_t hash() const { return Zinc::Hash::finalize(label); }
  auto operator<=>(const RouteKey&) const = default;
};
struct Route {
  RouteKey k;
  uint32_t words[28] = {};
  RouteKey key() const { return k; }
  static const char* typeName() { return "Bench::Route"; }
};
static_assert(sizeof(Route) == 116);

inline Route makeRoute(uint32_t label, uint32_t version) {
  Route r;
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

}  // namespace Bench
