// Keel::Range: an inclusive range of allocator numbers [min, max]; empty when max < min.
#pragma once

#include <cstdint>
#include <ostream>

namespace Keel {

class Range {
 public:
  constexpr Range() = default;
  constexpr Range(int64_t min, int64_t max) : min_(min), max_(max) {}

  constexpr int64_t min() const { return min_; }
  constexpr int64_t max() const { return max_; }
  constexpr bool empty() const { return max_ < min_; }
  constexpr int64_t size() const { return empty() ? 0 : max_ - min_ + 1; }
  constexpr bool contains(int64_t n) const { return n >= min_ && n <= max_; }

  friend constexpr bool operator==(const Range&, const Range&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Range& r) {
    return os << "Range(" << r.min_ << ", " << r.max_ << ")";
  }

 private:
  int64_t min_ = 0;
  int64_t max_ = -1;
};

}  // namespace Keel
