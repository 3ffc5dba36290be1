// Generic checks that every value type must pass, and a generator of arbitrary values.
//
// Arbitrary<X>::make(rng) builds a random X from a deliberately small domain per attribute, so
// that a few hundred samples contain equal values built separately and many ties on leading
// attributes. Leaves (addresses, ...) specialise Arbitrary in the test that uses them.
//
// checkValueType<T>(samples) verifies over all pairs of samples:
//   - equal values hash equal, and a copy is equal with the same hash
//   - < is irreflexive, asymmetric and transitive, and !(a<b) && !(b<a) exactly when a == b
//   - operator<< writes what valueToStrep returns; the text parses back to an equal value
//     (types with an inline array must refuse instead)
//   - the serialised form has the declared length and loads back to an equal value; truncated
//     input is refused; damaged bytes load to a consistent value or are refused
#pragma once

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <vector>

#include "zinc/Value.h"

namespace Zinc::Testing {

using Rng = std::mt19937_64;

template <class X>
struct Arbitrary;

template <class I>
requires std::is_integral_v<I> &&(!std::is_same_v<I, bool>)struct Arbitrary<I> {
  static I make(Rng& rng) {
    switch (rng() % 4) {
      case 0:
        return 0;
      case 1:
        return std::numeric_limits<I>::max();
      case 2:
        return std::numeric_limits<I>::min();
      default:
        return static_cast<I>(rng() % 3);
    }
  }
};

template <>
struct Arbitrary<bool> {
  static bool make(Rng& rng) { return rng() & 1; }
};

template <std::floating_point F>
struct Arbitrary<F> {
  static F make(Rng& rng) { return static_cast<F>(int(rng() % 5) - 2) / 4; }
};

template <class S>
requires std::derived_from<S, String>
struct Arbitrary<S> {
  static S make(Rng& rng) {
    static const char* const texts[] = {"", "red", "it's", "back\\slash", "a, b: {c}"};
    return S(texts[rng() % 5]);
  }
};

template <ZincEnum E>
struct Arbitrary<E> {
  static E make(Rng& rng) {
    const EnumMeta& meta = zincEnumMeta(E{});
    static const int32_t undeclared[] = {-1, 99, 1000};
    if (rng() % 8 == 0) return static_cast<E>(undeclared[rng() % 3]);
    return static_cast<E>(meta.entries[rng() % meta.count].value);
  }
};

template <ZincWord W>
struct Arbitrary<W> {
  static W make(Rng& rng) {
    using Rep = typename W::Rep;
    if constexpr (requires { W::mask; }) {
      return W(Rep(rng() & W::mask));
    } else {
      switch (rng() % 3) {
        case 0:
          return W(W::minValue);
        case 1:
          return W(W::maxValue);
        default:
          return W(W::minValue + Rep(rng() % 2));
      }
    }
  }
};

template <class E, size_t N>
struct Arbitrary<FixedList<E, N>> {
  static FixedList<E, N> make(Rng& rng) {
    FixedList<E, N> list;
    size_t n = rng() % (N + 1);
    for (size_t i = 0; i < n; ++i) list.push(Arbitrary<E>::make(rng));
    return list;
  }
};

template <class E, class Index>
struct Arbitrary<InlineArray<E, Index>> {
  static InlineArray<E, Index> make(Rng& rng) {
    InlineArray<E, Index> a;
    uint32_t n = rng() % 4 == 0 ? InlineArray<E, Index>::capacity : uint32_t(rng() % 4);
    for (uint32_t i = 0; i < n; ++i) a.elemIs(Index(i), Arbitrary<E>::make(rng));
    return a;
  }
};

template <class E>
struct Arbitrary<ValueSet<E>> {
  static ValueSet<E> make(Rng& rng) {
    ValueSet<E> set;
    for (int n = rng() % 4; n > 0; --n) set.insert(Arbitrary<E>::make(rng));
    return set;
  }
};

template <ZincValue T>
struct Arbitrary<T> {
  static T make(Rng& rng) {
    T v;
    forEachField<T>([&](const auto& f) {
      v.*f.member = Arbitrary<typename std::decay_t<decltype(f)>::Type>::make(rng);
    });
    return v;
  }
};

template <class T>
std::vector<T> arbitrarySamples(size_t count, uint64_t seed = 1) {
  Rng rng(seed);
  std::vector<T> samples{T{}};
  for (size_t i = 1; i < count; ++i) samples.push_back(Arbitrary<T>::make(rng));
  return samples;
}

template <class T>
void checkOrderAndHash(const std::vector<T>& s) {
  for (const T& a : s) {
    T copy = a;
    EXPECT_TRUE(copy == a);
    EXPECT_EQ(copy.hash(), a.hash());
    EXPECT_FALSE(a < a) << a;
    for (const T& b : s) {
      bool ab = a < b, ba = b < a;
      EXPECT_FALSE(ab && ba) << a << " vs " << b;
      EXPECT_EQ(!ab && !ba, a == b) << a << " vs " << b;
      if (a == b) {
        EXPECT_EQ(a.hash(), b.hash()) << a;
      }
      if (!ab) continue;
      for (const T& c : s) {
        if (b < c) {
          EXPECT_TRUE(a < c) << a << " < " << b << " < " << c;
        }
      }
    }
  }
}

template <class T>
void checkText(const std::vector<T>& s) {
  for (const T& a : s) {
    std::ostringstream os;
    os << a;
    std::string text = valueToStrep(a);
    EXPECT_EQ(os.str(), text);
    if constexpr (ValueTraits<T>::hasCollection) {
      EXPECT_THROW(strepToValue<T>(text), InternalException);
    } else {
      T back = strepToValue<T>(text);
      EXPECT_TRUE(back == a) << text << " parsed as " << back;
      EXPECT_EQ(back.hash(), a.hash());
    }
  }
}

template <class T>
void checkSerial(const std::vector<T>& s) {
  using S = Serial<T>;
  for (const T& a : s) {
    std::vector<uint8_t> buf(S::size + 8, 0xa5);
    size_t len = S::store(a, buf.data());
    EXPECT_EQ(len, S::length(a));
    EXPECT_EQ(S::lengthAt(buf.data(), len), len);
    if constexpr (S::fixed) {
      EXPECT_EQ(len, S::size);
    }
    EXPECT_LE(len, S::size);
    T back;
    EXPECT_EQ(S::load(buf.data(), len, back), len);
    EXPECT_TRUE(back == a) << a << " loaded as " << back;
    if constexpr (ZincValue<T>) {
      typename S::Key key;
      S::loadKey(buf.data(), key);
      EXPECT_TRUE(key == back.*std::get<0>(T::zincFields()).member);
    }
    EXPECT_THROW(S::load(buf.data(), len - 1, back), Exception);
    EXPECT_TRUE(back == a) << "a refused load must leave the value alone";
  }
}

// Shared memory is untrusted: loading damaged bytes (a sample's serialised form with a few
// bytes overwritten, cut short or padded) either yields a value that stores and loads back to
// itself, or raises Zinc::Exception; it never reads past the buffer.
template <class T>
void checkLoadsUntrustedBytes(const std::vector<T>& samples) {
  using S = Serial<T>;
  Rng rng(samples.size());
  int loaded = 0;
  for (int round = 0; round < 300; ++round) {
    std::vector<uint8_t> bytes(S::size);
    bytes.resize(S::store(samples[rng() % samples.size()], bytes.data()));
    for (int hits = rng() % 3; hits >= 0 && !bytes.empty(); --hits) {
      bytes[rng() % bytes.size()] = static_cast<uint8_t>(rng() % 2 ? rng() % 4 : rng());
    }
    if (rng() % 4 == 0) bytes.resize(rng() % (S::size + 2), static_cast<uint8_t>(rng()));
    T value;
    try {
      EXPECT_LE(S::load(bytes.data(), bytes.size(), value), bytes.size());
      std::vector<uint8_t> again(S::size);
      size_t len = S::store(value, again.data());
      T back;
      S::load(again.data(), len, back);
      EXPECT_TRUE(back == value) << value;
      ++loaded;
    } catch (const Exception&) {
    }
  }
  EXPECT_GT(loaded, 0) << "no damaged input was loadable";
}

template <class T>
void checkValueType(const std::vector<T>& samples) {
  checkOrderAndHash(samples);
  checkText(samples);
  if constexpr (ValueTraits<T>::serializable) {
    checkSerial(samples);
    checkLoadsUntrustedBytes(samples);
  }
}

}  // namespace Zinc::Testing
