// What the table benchmarks share: a 116-byte value the size of the LFIB route record, keyed
// by a label, and the timing helpers.
#pragma once

#include <algorithm>
#include <chrono>
#include <compare>
#include <cstdint>
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

}  // namespace Bench
