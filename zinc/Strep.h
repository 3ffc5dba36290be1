// The text form ("strep") of values: a small recursive-descent reader of the form written by
// the value types, e.g.
//   Value('Mpls::LfibViaKey', ** {'source': sourceLdp, 'viaType': viaTypeMplsIp, 'index': 7})
// Strings are single-quoted with backslash escapes; integers are decimal or 0x-hexadecimal;
// booleans are True/False; lists are [a, b]. Malformed text raises Zinc::Exception naming the
// offset and what was expected; a number outside its type raises Zinc::RangeException.
#pragma once

#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "zinc/Exception.h"

namespace Zinc {

class StrepParser {
 public:
  explicit StrepParser(std::string_view text) : text_(text) {}

  void skipSpace();
  // True (and consumed) when the next non-blank text is `token`.
  bool accept(std::string_view token);
  void expect(std::string_view token);
  // Letters, digits, '_' and "::"; must start with a letter or '_'.
  std::string_view identifier();
  std::string quoted();
  // A quoted string that must equal `name`; `what` says what it names ("type", "attribute").
  void expectName(std::string_view name, std::string_view what);
  bool boolean();
  // A signed integer in [min, max]; `typeName` names the type in the range message.
  int64_t integer(int64_t min, int64_t max, std::string_view typeName);
  uint64_t unsignedInteger(uint64_t max, std::string_view typeName);
  double floating();
  char peek();
  bool atEnd();
  void expectEnd();
  size_t offset() const { return pos_; }
  [[noreturn]] void fail(std::string_view expected) const { failAt(pos_, expected); }
  [[noreturn]] void failAt(size_t offset, std::string_view expected) const;

  template <class I>
  I integerOf(std::string_view typeName) {
    if constexpr (std::is_signed_v<I>) {
      return static_cast<I>(
          integer(std::numeric_limits<I>::min(), std::numeric_limits<I>::max(), typeName));
    } else {
      return static_cast<I>(unsignedInteger(std::numeric_limits<I>::max(), typeName));
    }
  }

 private:
  // Reads an optional '-' and the magnitude (decimal or 0x-hex).
  uint64_t magnitude(bool& negative, std::string_view typeName);
  std::string_view text_;
  size_t pos_ = 0;
};

// Writes s single-quoted, escaping backslash and quote.
void writeQuoted(std::ostream& os, std::string_view s);

}  // namespace Zinc
