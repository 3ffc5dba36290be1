// ValueSet<E>: a set of values held inside a value (for records that carry a collection, such as
// a route with its vias). Kept sorted, so iteration, the text form "[a, b]" and the hash are the
// same in every process. A value type holding a ValueSet has no construction from its text form
// and no serialised form.
#pragma once

#include <algorithm>
#include <cstddef>
#include <ostream>
#include <vector>

#include "zinc/ValueTraits.h"

namespace Zinc {

template <class E>
class ValueSet {
 public:
  using Element = E;

  size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }
  bool contains(const E& e) const {
    auto it = lowerBound(e);
    return it != items_.end() && ValueTraits<E>::equal(*it, e);
  }
  // Adds e, replacing an equal element; returns whether it was new.
  bool insert(const E& e) {
    auto it = lowerBound(e);
    if (it != items_.end() && ValueTraits<E>::equal(*it, e)) {
      *it = e;
      return false;
    }
    items_.insert(it, e);
    return true;
  }
  // Removes e; returns whether it was there.
  bool erase(const E& e) {
    auto it = lowerBound(e);
    if (it == items_.end() || !ValueTraits<E>::equal(*it, e)) return false;
    items_.erase(it);
    return true;
  }
  void clear() { items_.clear(); }

  friend bool operator==(const ValueSet& a, const ValueSet& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), ValueTraits<E>::equal);
  }
  static int compare(const ValueSet& a, const ValueSet& b) {
    size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) {
      if (int c = compareOf(a.items_[i], b.items_[i])) return c;
    }
    return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
  }

 private:
  auto lowerBound(const E& e) const {
    return std::lower_bound(items_.begin(), items_.end(), e, ValueTraits<E>::less);
  }
  auto lowerBound(const E& e) {
    return std::lower_bound(items_.begin(), items_.end(), e, ValueTraits<E>::less);
  }
  std::vector<E> items_;
};

template <class E>
struct ValueTraits<ValueSet<E>> {
  using S = ValueSet<E>;
  static constexpr bool hasCollection = true;
  static constexpr bool serializable = false;
  static constexpr bool fixedSize = false;
  static constexpr size_t maxSize = 0;

  static bool less(const S& a, const S& b) { return S::compare(a, b) < 0; }
  static int compare(const S& a, const S& b) { return S::compare(a, b); }
  static bool equal(const S& a, const S& b) { return a == b; }
  static void mix(Hash& h, const S& s) {
    Hash inner;
    inner.mix(static_cast<uint32_t>(s.size()));
    for (const E& e : s) ValueTraits<E>::mix(inner, e);
    h.mix(inner.result());
  }
  static void print(std::ostream& os, const S& s) {
    os << '[';
    bool first = true;
    for (const E& e : s) {
      if (!first) os << ", ";
      first = false;
      ValueTraits<E>::print(os, e);
    }
    os << ']';
  }
};

}  // namespace Zinc
