// Enumerations: 32-bit signed, declared once with their names and numbers:
//
//   ZINC_ENUM(LfibViaType, "Mpls::LfibViaType", (viaTypeMplsUnknown, 0), (viaTypeMplsIp, 1));
//
// declares, in the enclosing namespace,
//   enum LfibViaType : int32_t { viaTypeMplsUnknown_ = 0, viaTypeMplsIp_ = 1 };
// (enumerators carry a trailing underscore; any other int32 value is representable too), and
//   stringValue(e)              the bare name ("viaTypeMplsIp"), the number for other values
//   valueToStrep(e), operator<< the same text
//   LfibViaTypeInstance(unsigned)      the value of that number (any number is accepted)
//   LfibViaTypeInstance(Zinc::String)  the value of that name; RangeException for none
// Parsing (Zinc::strepToValue<LfibViaType>) accepts a name or a number.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "zinc/Preprocessor.h"
#include "zinc/String.h"
#include "zinc/ValueTraits.h"

#define ZINC_ENUM_ITEM_(name, number) name##_ = number,
#define ZINC_ENUM_ITEM(pair) ZINC_ENUM_ITEM_ pair
#define ZINC_ENUM_ENTRY_(name, number) \
  ::Zinc::EnumEntry { #name, number }
#define ZINC_ENUM_ENTRY(pair) ZINC_ENUM_ENTRY_ pair

#define ZINC_ENUM(E, qualifiedName, ...)                                                           \
  enum E : int32_t { ZINC_PP_FOR_EACH(ZINC_ENUM_ITEM, __VA_ARGS__) };                              \
  inline constexpr ::Zinc::EnumEntry E##ZincEntries_[] = {                                         \
      ZINC_PP_FOR_EACH_COMMA(ZINC_ENUM_ENTRY, __VA_ARGS__)};                                       \
  inline const ::Zinc::EnumMeta& zincEnumMeta(E) {                                                 \
    static constexpr ::Zinc::EnumMeta meta{qualifiedName, #E, E##ZincEntries_,                     \
                                           sizeof(E##ZincEntries_) / sizeof(::Zinc::EnumEntry)};   \
    return meta;                                                                                   \
  }                                                                                                \
  inline std::string stringValue(E e) { return zincEnumMeta(e).name(e); }                          \
  inline std::string valueToStrep(E e) { return zincEnumMeta(e).name(e); }                         \
  inline std::ostream& operator<<(std::ostream& os, E e) { return os << zincEnumMeta(e).name(e); } \
  inline E E##Instance(unsigned number) { return static_cast<E>(static_cast<int32_t>(number)); }   \
  inline E E##Instance(const ::Zinc::String& name) {                                               \
    return static_cast<E>(zincEnumMeta(E{}).valueOf(name.view()));                                 \
  }                                                                                                \
  static_assert(true)
