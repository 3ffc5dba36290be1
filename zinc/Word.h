// Words: value types that wrap one unsigned integer and check it.
//
// Bounded integers:
//   ZINC_BOUNDED(LfibViaIndexRange, uint8_t, 0, 127);
// A value outside [min, max], on construction, parsing, loading or +/+=, raises
//   RangeException "LfibViaIndexRange::value < LfibViaIndexRange::min or >
//   LfibViaIndexRange::max not allowed"
// A type that adds members, or names its upper bound differently in the message, writes
//   class MplsLabel {
//     ZINC_BOUNDED_BODY(MplsLabel, uint32_t, 0, 0x800000, "luWithdraw");
//    public:
//     ...
//   };
// Bounded values convert implicitly from any integer (checked); compare them with value().
//
// Bit sets:
//   ZINC_BITSET(LfibViaSetFlags, "Mpls::LfibViaSetFlags", uint32_t, (burnPrimaryVias, 0));
// gives burnPrimaryVias() / burnPrimaryViasIs(bool), value(), construction from the raw word
// (an undeclared bit raises "LfibViaSetFlags::value > 0x1 not allowed", the mask of declared
// bits in hex), and the text form Value('Mpls::LfibViaSetFlags', ** {'burnPrimaryVias': True}).
#pragma once

#include <concepts>
#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "zinc/Exception.h"
#include "zinc/Preprocessor.h"
#include "zinc/ValueTraits.h"

namespace Zinc {

[[noreturn]] void boundsViolated(std::string_view type, std::string_view maxName);
[[noreturn]] void bitsViolated(std::string_view type, uint64_t mask);
// Reads the attribute list of a bit set's text form: calls bit(name, value) per attribute.
void parseBitList(StrepParser& p, std::string_view typeName, const std::string_view* names,
                  size_t count, uint64_t& word, const uint8_t* positions);
void printBitList(std::ostream& os, std::string_view typeName, const std::string_view* names,
                  size_t count, uint64_t word, const uint8_t* positions);

}  // namespace Zinc

#define ZINC_BOUNDED_BODY(T, RepType, MIN, MAX, maxName)                                        \
 public:                                                                                        \
  using Rep = RepType;                                                                          \
  static constexpr bool zincWord = true;                                                        \
  static constexpr Rep minValue = MIN;                                                          \
  static constexpr Rep maxValue = MAX;                                                          \
  constexpr T() = default;                                                                      \
  template <std::integral I>                                                                    \
  constexpr T(I v) : value_(checked(v)) {}                                                      \
  constexpr Rep value() const { return value_; }                                                \
  uint32_t hash() const {                                                                       \
    ::Zinc::Hash h;                                                                             \
    ::Zinc::ValueTraits<Rep>::mix(h, value_);                                                   \
    return h.result();                                                                          \
  }                                                                                             \
  friend T operator+(T a, T b) { return T(uint64_t(a.value_) + uint64_t(b.value_)); }           \
  T& operator+=(T b) { return *this = *this + b; }                                              \
  friend constexpr bool operator==(T a, T b) { return a.value_ == b.value_; }                   \
  friend constexpr bool operator<(T a, T b) { return a.value_ < b.value_; }                     \
  friend std::ostream& operator<<(std::ostream& os, T v) { return os << uint64_t(v.value_); }   \
  friend std::string valueToStrep(T v) { return std::to_string(uint64_t(v.value_)); }           \
  static void zincPrint(std::ostream& os, T v) { os << v; }                                     \
  static T zincParse(::Zinc::StrepParser& p) { return T(p.unsignedInteger(~uint64_t(0), #T)); } \
                                                                                                \
 private:                                                                                       \
  template <std::integral I>                                                                    \
  static constexpr Rep checked(I v) {                                                           \
    if (std::cmp_less(v, minValue) || std::cmp_greater(v, maxValue)) {                          \
      ::Zinc::boundsViolated(#T, maxName);                                                      \
    }                                                                                           \
    return static_cast<Rep>(v);                                                                 \
  }                                                                                             \
  Rep value_ = minValue;                                                                        \
                                                                                                \
 public:                                                                                        \
  static_assert(true)

#define ZINC_BOUNDED(T, RepType, MIN, MAX)          \
  class T {                                         \
    ZINC_BOUNDED_BODY(T, RepType, MIN, MAX, "max"); \
  }

#define ZINC_BIT_NAME_(name, bit) std::string_view(#name)
#define ZINC_BIT_NAME(pair) ZINC_BIT_NAME_ pair
#define ZINC_BIT_POS_(name, bit) uint8_t(bit)
#define ZINC_BIT_POS(pair) ZINC_BIT_POS_ pair
#define ZINC_BIT_MASK_(name, bit) | (Rep(1) << (bit))
#define ZINC_BIT_MASK(pair) ZINC_BIT_MASK_ pair
#define ZINC_BIT_ACCESSORS_(name, bit)                                                \
  constexpr bool name() const { return (value_ >> (bit)) & 1u; }                      \
  constexpr void name##Is(bool on) {                                                  \
    value_ = on ? Rep(value_ | (Rep(1) << (bit))) : Rep(value_ & ~(Rep(1) << (bit))); \
  }
#define ZINC_BIT_ACCESSORS(pair) ZINC_BIT_ACCESSORS_ pair

#define ZINC_BITSET(T, qualifiedName, RepType, ...)                                              \
  class T {                                                                                      \
   public:                                                                                       \
    using Rep = RepType;                                                                         \
    static constexpr bool zincWord = true;                                                       \
    static constexpr Rep mask = Rep(0 ZINC_PP_FOR_EACH(ZINC_BIT_MASK, __VA_ARGS__));             \
    constexpr T() = default;                                                                     \
    template <std::integral I>                                                                   \
    constexpr explicit T(I v) : value_(checked(v)) {}                                            \
    constexpr Rep value() const { return value_; }                                               \
    ZINC_PP_FOR_EACH(ZINC_BIT_ACCESSORS, __VA_ARGS__)                                            \
    uint32_t hash() const {                                                                      \
      ::Zinc::Hash h;                                                                            \
      ::Zinc::ValueTraits<Rep>::mix(h, value_);                                                  \
      return h.result();                                                                         \
    }                                                                                            \
    friend constexpr bool operator==(T a, T b) { return a.value_ == b.value_; }                  \
    friend constexpr bool operator<(T a, T b) { return a.value_ < b.value_; }                    \
    static void zincPrint(std::ostream& os, T v) {                                               \
      ::Zinc::printBitList(os, qualifiedName, names_, count_, v.value_, positions_);             \
    }                                                                                            \
    static T zincParse(::Zinc::StrepParser& p) {                                                 \
      uint64_t word = 0;                                                                         \
      ::Zinc::parseBitList(p, qualifiedName, names_, count_, word, positions_);                  \
      return T(word);                                                                            \
    }                                                                                            \
    friend std::ostream& operator<<(std::ostream& os, T v) {                                     \
      zincPrint(os, v);                                                                          \
      return os;                                                                                 \
    }                                                                                            \
    friend std::string valueToStrep(T v) { return ::Zinc::strep(v); }                            \
                                                                                                 \
   private:                                                                                      \
    static constexpr std::string_view names_[] = {                                               \
        ZINC_PP_FOR_EACH_COMMA(ZINC_BIT_NAME, __VA_ARGS__)};                                     \
    static constexpr uint8_t positions_[] = {ZINC_PP_FOR_EACH_COMMA(ZINC_BIT_POS, __VA_ARGS__)}; \
    static constexpr size_t count_ = sizeof(positions_);                                         \
    template <std::integral I>                                                                   \
    static constexpr Rep checked(I v) {                                                          \
      if (std::cmp_less(v, 0) || std::cmp_greater(v, ~Rep(0)) || (Rep(v) & ~mask)) {             \
        ::Zinc::bitsViolated(#T, mask);                                                          \
      }                                                                                          \
      return static_cast<Rep>(v);                                                                \
    }                                                                                            \
    Rep value_ = 0;                                                                              \
  }
