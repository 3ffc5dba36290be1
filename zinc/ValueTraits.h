// What the generic value code needs to know about each kind of attribute type.
//
// ValueTraits<X> gives, for every type that may be an attribute of a value type:
//   less(a, b), equal(a, b)     ordering and equality (types made of parts also give
//                               compare(a, b), a three-way comparison in one pass)
//   mix(Hash&, x)               feeds x into a hash accumulator (one mix for scalars, the
//                               value's own hash() for values and leaves)
//   print(os, x), parse(p, x)   the text form and its reader
//   hasCollection               true when x holds an inline array (no construction from text)
//   serializable, fixedSize, maxSize
//   length(x)                   bytes of x's serialised form
//   store(x, out) -> out + length(x)
//   load(in, end, x) -> in + length; throws Zinc::Exception when [in, end) is too short and
//                               Zinc::RangeException when the bytes hold an impossible value
//   lengthAt(in, end)           bytes of the serialised value that starts at `in`
// Serialised forms are packed and little-endian, field after field, without padding.
//
// Kinds: integers, bool (4 bytes), floating point, Zinc::String (and types derived from it;
// not serialisable), enumerations declared with ZINC_ENUM, words declared with ZINC_BOUNDED
// or ZINC_BITSET, leaves (hand-made scalar types deriving from Zinc::Leaf, such as addresses),
// value types declared with ZINC_VALUE, and Zinc::InlineArray.
#pragma once

#include <bit>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include "zinc/Exception.h"
#include "zinc/Hash.h"
#include "zinc/Strep.h"
#include "zinc/String.h"

namespace Zinc {

template <class X>
struct ValueTraits;

// ---- serialisation helpers ----

template <std::integral I>
inline uint8_t* storeLe(uint8_t* out, I v) {
  using U = std::make_unsigned_t<I>;
  U u = static_cast<U>(v);
  if constexpr (std::endian::native == std::endian::little) {
    // One plain store: the byte loop below gets vectorised into shuffles over arrays.
    std::memcpy(out, &u, sizeof(I));
  } else {
    for (size_t i = 0; i < sizeof(I); ++i) out[i] = static_cast<uint8_t>(u >> (8 * i));
  }
  return out + sizeof(I);
}

template <std::integral I>
inline I loadLe(const uint8_t* in) {
  using U = std::make_unsigned_t<I>;
  U u = 0;
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(&u, in, sizeof(I));
  } else {
    for (size_t i = 0; i < sizeof(I); ++i) u = static_cast<U>(u | (U(in[i]) << (8 * i)));
  }
  return static_cast<I>(u);
}

[[noreturn]] void truncatedInput(size_t needed, size_t available);

inline void needBytes(const uint8_t* in, const uint8_t* end, size_t n) {
  if (in > end || static_cast<size_t>(end - in) < n) {
    truncatedInput(n, in > end ? 0 : static_cast<size_t>(end - in));
  }
}

// Serialisation of a type whose stored form always has N bytes.
template <size_t N>
struct FixedSerial {
  static constexpr bool serializable = true;
  static constexpr bool fixedSize = true;
  static constexpr size_t maxSize = N;
  template <class X>
  static constexpr size_t length(const X&) {
    return N;
  }
  static size_t lengthAt(const uint8_t* in, const uint8_t* end) {
    needBytes(in, end, N);
    return N;
  }
};

struct NoCollection {
  static constexpr bool hasCollection = false;
};

// ---- integers ----

template <class I>
requires std::is_integral_v<I> &&(!std::is_same_v<I, bool>)struct ValueTraits<I>
    : FixedSerial<sizeof(I)>, NoCollection {
  static bool less(I a, I b) { return a < b; }
  static bool equal(I a, I b) { return a == b; }
  static void mix(Hash& h, I v) {
    if constexpr (sizeof(I) <= 4) {
      h.mix(static_cast<uint32_t>(v));
    } else {
      h.mix64(static_cast<uint64_t>(v));
    }
  }
  static void print(std::ostream& os, I v) {
    if constexpr (std::is_signed_v<I>) {
      os << static_cast<int64_t>(v);
    } else {
      os << static_cast<uint64_t>(v);
    }
  }
  static void parse(StrepParser& p, I& v) { v = p.integerOf<I>(typeName()); }
  static uint8_t* store(I v, uint8_t* out) { return storeLe(out, v); }
  static const uint8_t* load(const uint8_t* in, const uint8_t* end, I& v) {
    needBytes(in, end, sizeof(I));
    v = loadLe<I>(in);
    return in + sizeof(I);
  }
  static std::string typeName() {
    return std::string(std::is_signed_v<I> ? "int" : "uint") + std::to_string(8 * sizeof(I));
  }
};

// ---- bool: stored as a 32-bit word, 0 or 1 ----

template <>
struct ValueTraits<bool> : FixedSerial<4>, NoCollection {
  static bool less(bool a, bool b) { return a < b; }
  static bool equal(bool a, bool b) { return a == b; }
  static void mix(Hash& h, bool v) { h.mix(v ? 1u : 0u); }
  static void print(std::ostream& os, bool v) { os << (v ? "True" : "False"); }
  static void parse(StrepParser& p, bool& v) { v = p.boolean(); }
  static uint8_t* store(bool v, uint8_t* out) { return storeLe<uint32_t>(out, v ? 1u : 0u); }
  static const uint8_t* load(const uint8_t* in, const uint8_t* end, bool& v) {
    needBytes(in, end, 4);
    v = loadLe<uint32_t>(in) != 0;
    return in + 4;
  }
};

// ---- floating point: stored as its IEEE bits ----

template <std::floating_point F>
struct ValueTraits<F> : FixedSerial<sizeof(F)>, NoCollection {
  using Bits = std::conditional_t<sizeof(F) == 8, uint64_t, uint32_t>;
  static bool less(F a, F b) { return a < b; }
  static bool equal(F a, F b) { return a == b; }
  static void mix(Hash& h, F v) { ValueTraits<Bits>::mix(h, std::bit_cast<Bits>(v)); }
  static void print(std::ostream& os, F v) {
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof(buf), v);
    os << std::string_view(buf, static_cast<size_t>(res.ptr - buf));
  }
  static void parse(StrepParser& p, F& v) { v = static_cast<F>(p.floating()); }
  static uint8_t* store(F v, uint8_t* out) { return storeLe(out, std::bit_cast<Bits>(v)); }
  static const uint8_t* load(const uint8_t* in, const uint8_t* end, F& v) {
    needBytes(in, end, sizeof(F));
    v = std::bit_cast<F>(loadLe<Bits>(in));
    return in + sizeof(F);
  }
};

// ---- strings: not stored in shared memory ----

template <class S>
requires std::derived_from<S, String>
struct ValueTraits<S> : NoCollection {
  static constexpr bool serializable = false;
  static constexpr bool fixedSize = false;
  static constexpr size_t maxSize = 0;
  static bool less(const S& a, const S& b) { return a.view() < b.view(); }
  static bool equal(const S& a, const S& b) { return a.view() == b.view(); }
  static void mix(Hash& h, const S& v) { h.mix(v.hash()); }
  static void print(std::ostream& os, const S& v) { writeQuoted(os, v.view()); }
  static void parse(StrepParser& p, S& v) { v = S(p.quoted()); }
};

// ---- enumerations (ZINC_ENUM) ----

struct EnumEntry {
  std::string_view name;
  int32_t value;
};

struct EnumMeta {
  std::string_view typeName;
  std::string_view shortName;
  const EnumEntry* entries;
  size_t count;

  const EnumEntry* byValue(int32_t v) const;
  const EnumEntry* byName(std::string_view name) const;
  // The bare name of a declared value, the number of any other.
  std::string name(int32_t v) const;
  // The value named `name`; RangeException when there is none.
  int32_t valueOf(std::string_view name) const;
};

template <class E>
concept ZincEnum = std::is_enum_v<E> && requires(E e) {
  { zincEnumMeta(e) } -> std::same_as<const EnumMeta&>;
};

template <ZincEnum E>
struct ValueTraits<E> : FixedSerial<4>, NoCollection {
  static const EnumMeta& meta() { return zincEnumMeta(E{}); }
  static bool less(E a, E b) { return static_cast<int32_t>(a) < static_cast<int32_t>(b); }
  static bool equal(E a, E b) { return a == b; }
  static void mix(Hash& h, E v) { h.mix(static_cast<uint32_t>(static_cast<int32_t>(v))); }
  static void print(std::ostream& os, E v) { os << meta().name(static_cast<int32_t>(v)); }
  static void parse(StrepParser& p, E& v) {
    char c = p.peek();
    if (c == '-' || (c >= '0' && c <= '9')) {
      v = static_cast<E>(p.integerOf<int32_t>(meta().shortName));
    } else if (c == '\'') {
      v = static_cast<E>(meta().valueOf(p.quoted()));
    } else {
      v = static_cast<E>(meta().valueOf(p.identifier()));
    }
  }
  static uint8_t* store(E v, uint8_t* out) { return storeLe(out, static_cast<int32_t>(v)); }
  static const uint8_t* load(const uint8_t* in, const uint8_t* end, E& v) {
    needBytes(in, end, 4);
    v = static_cast<E>(loadLe<int32_t>(in));
    return in + 4;
  }
};

// ---- words (ZINC_BOUNDED, ZINC_BITSET): one checked unsigned integer ----

template <class W>
concept ZincWord = requires(const W& w) {
  typename W::Rep;
  { w.value() } -> std::same_as<typename W::Rep>;
  W::zincWord;
};

template <ZincWord W>
struct ValueTraits<W> : FixedSerial<sizeof(typename W::Rep)>, NoCollection {
  using Rep = typename W::Rep;
  static bool less(const W& a, const W& b) { return a.value() < b.value(); }
  static bool equal(const W& a, const W& b) { return a.value() == b.value(); }
  static void mix(Hash& h, const W& v) { ValueTraits<Rep>::mix(h, v.value()); }
  static void print(std::ostream& os, const W& v) { W::zincPrint(os, v); }
  static void parse(StrepParser& p, W& v) { v = W::zincParse(p); }
  static uint8_t* store(const W& v, uint8_t* out) { return storeLe(out, v.value()); }
  static const uint8_t* load(const uint8_t* in, const uint8_t* end, W& v) {
    needBytes(in, end, sizeof(Rep));
    v = W(loadLe<Rep>(in));  // checks the bounds
    return in + sizeof(Rep);
  }
};

// ---- leaves: hand-made scalar types (addresses, prefixes, fixed lists) ----
//
// A leaf derives from Leaf<X> and provides:
//   bool zincLess(const X&) const;  bool operator==(const X&) const;  uint32_t hash() const;
//   void zincPrint(std::ostream&) const;  static X zincParse(StrepParser&);
//   static constexpr size_t zincSize;  void zincStore(uint8_t* out) const;
//   static X zincLoad(const uint8_t* in);   (in holds zincSize bytes)

template <class X>
struct Leaf {
  static constexpr bool zincLeaf = true;
  // Lets a leaf default its own operator==.
  constexpr bool operator==(const Leaf&) const = default;
  friend bool operator<(const X& a, const X& b) { return a.zincLess(b); }
  friend std::ostream& operator<<(std::ostream& os, const X& x) {
    x.zincPrint(os);
    return os;
  }
  friend std::string valueToStrep(const X& x) {
    std::ostringstream os;
    x.zincPrint(os);
    return os.str();
  }
};

template <class X>
concept ZincLeaf = std::derived_from<X, Leaf<X>>;

template <ZincLeaf X>
struct ValueTraits<X> : FixedSerial<X::zincSize>, NoCollection {
  static bool less(const X& a, const X& b) { return a.zincLess(b); }
  static bool equal(const X& a, const X& b) { return a == b; }
  static void mix(Hash& h, const X& v) { h.mix(v.hash()); }
  static void print(std::ostream& os, const X& v) { v.zincPrint(os); }
  static void parse(StrepParser& p, X& v) { v = X::zincParse(p); }
  static uint8_t* store(const X& v, uint8_t* out) {
    v.zincStore(out);
    return out + X::zincSize;
  }
  static const uint8_t* load(const uint8_t* in, const uint8_t* end, X& v) {
    needBytes(in, end, X::zincSize);
    v = X::zincLoad(in);
    return in + X::zincSize;
  }
};

// ---- generic entry points for any attribute type ----

// The 32-bit hash of any attribute type: a value's or leaf's own hash(), otherwise the
// accumulator's result over its one mix.
template <class X>
uint32_t hashOf(const X& x) {
  if constexpr (requires { x.hash(); }) {
    return x.hash();
  } else {
    Hash h;
    ValueTraits<X>::mix(h, x);
    return h.result();
  }
}

// Three-way comparison (-1, 0, 1) of any attribute type: one pass for types that compare
// their parts (values, arrays), two less-than tests for scalars.
template <class X>
int compareOf(const X& a, const X& b) {
  if constexpr (requires { ValueTraits<X>::compare(a, b); }) {
    return ValueTraits<X>::compare(a, b);
  } else {
    return ValueTraits<X>::less(a, b) ? -1 : ValueTraits<X>::less(b, a) ? 1 : 0;
  }
}

// The text form of any attribute type.
template <class X>
std::string strep(const X& x) {
  std::ostringstream os;
  ValueTraits<X>::print(os, x);
  return os.str();
}

// The value's first declared value for enumerations, zero/empty for everything else.
template <class X>
X initialValue() {
  if constexpr (ZincEnum<X>) {
    const EnumMeta& meta = zincEnumMeta(X{});
    return meta.count ? static_cast<X>(meta.entries[0].value) : X{};
  } else {
    return X{};
  }
}

// Hash functor for unordered containers.
struct ValueHasher {
  template <class X>
  size_t operator()(const X& x) const {
    return hashOf(x);
  }
};

}  // namespace Zinc
