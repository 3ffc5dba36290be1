// Bounded arrays held inside a value.
//
// InlineArray<E, Index>: at most Index::maxValue + 1 elements of E, indexed by the bounded type
// Index, with a count. Elements at or past the count are always zero, so the used prefix alone
// decides equality, order, hash and the serialised form:
//   elemIs(i, v)  i == count appends; i > count grows the count to i + 1 (zeros in between)
//   elemDel(i)    zeroes element i; when it was the last one the count also shrinks past
//                 every trailing zero element
// Serialised as a 32-bit count followed by the used elements only. A value type holding an
// InlineArray has no construction from its text form.
//
// FixedList<E, N>: a short list (at most N elements) that is part of a scalar, such as a label
// stack. Printed and parsed as [a, b]; always serialised at full size (count, then N elements,
// unused ones zero) so that its holder keeps a fixed serialised size.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <string>

#include "zinc/Exception.h"
#include "zinc/ValueTraits.h"

namespace Zinc {

template <class E, class Index>
class InlineArray {
 public:
  static constexpr uint32_t capacity = uint32_t(Index::maxValue) + 1;
  using Element = E;

  uint32_t count() const { return count_; }
  const E& elem(Index i) const { return elems_[i.value()]; }
  void elemIs(Index i, const E& v) {
    elems_[i.value()] = v;
    if (i.value() >= count_) count_ = uint32_t(i.value()) + 1;
  }
  void elemDel(Index i) {
    if (i.value() >= count_) return;
    elems_[i.value()] = E{};
    if (uint32_t(i.value()) + 1 != count_) return;
    while (count_ > 0 && ValueTraits<E>::equal(elems_[count_ - 1], E{})) --count_;
  }
  void elemDelAll() {
    std::fill(elems_, elems_ + count_, E{});
    count_ = 0;
  }
  const E* begin() const { return elems_; }
  const E* end() const { return elems_ + count_; }

  friend bool operator==(const InlineArray& a, const InlineArray& b) {
    if (a.count_ != b.count_) return false;
    for (uint32_t i = 0; i < a.count_; ++i) {
      if (!ValueTraits<E>::equal(a.elems_[i], b.elems_[i])) return false;
    }
    return true;
  }
  // Element by element, then the shorter first.
  static int compare(const InlineArray& a, const InlineArray& b) {
    uint32_t n = std::min(a.count_, b.count_);
    for (uint32_t i = 0; i < n; ++i) {
      if (int c = compareOf(a.elems_[i], b.elems_[i])) return c;
    }
    return a.count_ < b.count_ ? -1 : a.count_ > b.count_ ? 1 : 0;
  }
  friend bool operator<(const InlineArray& a, const InlineArray& b) { return compare(a, b) < 0; }

  // Replaces the contents with `n` elements read from `in` (n already checked).
  const uint8_t* loadElements(const uint8_t* in, const uint8_t* end, uint32_t n) {
    elemDelAll();
    for (uint32_t i = 0; i < n; ++i) in = ValueTraits<E>::load(in, end, elems_[i]);
    count_ = n;
    return in;
  }

 private:
  uint32_t count_ = 0;
  E elems_[capacity] = {};
};

[[noreturn]] void arrayCountViolated(uint32_t count, uint32_t capacity);

template <class E, class Index>
struct ValueTraits<InlineArray<E, Index>> {
  using A = InlineArray<E, Index>;
  using ET = ValueTraits<E>;
  static_assert(ET::fixedSize, "inline array elements must have a fixed serialised size");
  static constexpr bool hasCollection = true;
  static constexpr bool serializable = true;
  static constexpr bool fixedSize = false;
  static constexpr size_t maxSize = 4 + A::capacity * ET::maxSize;

  static bool less(const A& a, const A& b) { return a < b; }
  static int compare(const A& a, const A& b) { return A::compare(a, b); }
  static bool equal(const A& a, const A& b) { return a == b; }
  static void mix(Hash& h, const A& a) {
    h.mix(a.count());
    for (const E& e : a) ET::mix(h, e);
  }
  static void print(std::ostream& os, const A& a) {
    os << '[';
    for (uint32_t i = 0; i < a.count(); ++i) {
      if (i) os << ", ";
      ET::print(os, a.begin()[i]);
    }
    os << ']';
  }
  static size_t length(const A& a) { return 4 + a.count() * ET::maxSize; }
  static uint8_t* store(const A& a, uint8_t* out) {
    out = storeLe<uint32_t>(out, a.count());
    for (const E& e : a) out = ET::store(e, out);
    return out;
  }
  static uint32_t countAt(const uint8_t* in, const uint8_t* end) {
    needBytes(in, end, 4);
    uint32_t n = loadLe<uint32_t>(in);
    if (n > A::capacity) arrayCountViolated(n, A::capacity);
    return n;
  }
  static const uint8_t* load(const uint8_t* in, const uint8_t* end, A& a) {
    uint32_t n = countAt(in, end);
    needBytes(in + 4, end, n * ET::maxSize);
    return a.loadElements(in + 4, end, n);
  }
  static size_t lengthAt(const uint8_t* in, const uint8_t* end) {
    size_t len = 4 + countAt(in, end) * ET::maxSize;
    needBytes(in, end, len);
    return len;
  }
};

[[noreturn]] void listFull(size_t capacity);

template <class E, size_t N>
class FixedList : public Leaf<FixedList<E, N>> {
  using ET = ValueTraits<E>;

 public:
  static constexpr size_t capacity = N;
  static constexpr size_t zincSize = 4 + N * ET::maxSize;

  FixedList() = default;
  FixedList(std::initializer_list<E> items) {
    for (const E& e : items) push(e);
  }
  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  const E& operator[](size_t i) const { return elems_[i]; }
  const E* begin() const { return elems_; }
  const E* end() const { return elems_ + count_; }
  void push(const E& e) {
    if (count_ >= N) listFull(N);
    elems_[count_++] = e;
  }
  void clear() { *this = FixedList(); }

  bool operator==(const FixedList& o) const {
    return count_ == o.count_ && std::equal(begin(), end(), o.begin(), ET::equal);
  }
  bool zincLess(const FixedList& o) const {
    return std::lexicographical_compare(begin(), end(), o.begin(), o.end(), ET::less);
  }
  uint32_t hash() const {
    Hash h;
    h.mix(count_);
    for (const E& e : *this) ET::mix(h, e);
    return h.result();
  }
  void zincPrint(std::ostream& os) const {
    os << '[';
    for (uint32_t i = 0; i < count_; ++i) {
      if (i) os << ", ";
      ET::print(os, elems_[i]);
    }
    os << ']';
  }
  static FixedList zincParse(StrepParser& p) {
    FixedList list;
    p.expect("[");
    if (p.accept("]")) return list;
    do {
      E e{};
      ET::parse(p, e);
      list.push(e);
    } while (p.accept(","));
    p.expect("]");
    return list;
  }
  void zincStore(uint8_t* out) const {
    out = storeLe<uint32_t>(out, count_);
    for (size_t i = 0; i < N; ++i) out = ET::store(elems_[i], out);
  }
  static FixedList zincLoad(const uint8_t* in) {
    FixedList list;
    uint32_t n = loadLe<uint32_t>(in);
    if (n > N) arrayCountViolated(n, N);
    const uint8_t* end = in + zincSize;
    in += 4;
    for (uint32_t i = 0; i < n; ++i) in = ET::load(in, end, list.elems_[i]);
    list.count_ = n;
    return list;
  }

 private:
  uint32_t count_ = 0;
  E elems_[N] = {};
};

}  // namespace Zinc
