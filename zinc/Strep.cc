#include "zinc/Strep.h"

#include <cctype>
#include <charconv>

namespace Zinc {

namespace {

bool isIdentStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool isIdentChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

}  // namespace

void StrepParser::failAt(size_t offset, std::string_view expected) const {
  std::string text = "strepToValue: expected ";
  text += expected;
  text += " at offset " + std::to_string(offset) + " in '";
  text += text_;
  text += "'";
  throw Exception(text);
}

void StrepParser::skipSpace() {
  while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
}

char StrepParser::peek() {
  skipSpace();
  return pos_ < text_.size() ? text_[pos_] : '\0';
}

bool StrepParser::atEnd() {
  skipSpace();
  return pos_ == text_.size();
}

void StrepParser::expectEnd() {
  if (!atEnd()) fail("end of text");
}

bool StrepParser::accept(std::string_view token) {
  skipSpace();
  if (text_.substr(pos_, token.size()) != token) return false;
  pos_ += token.size();
  return true;
}

void StrepParser::expect(std::string_view token) {
  if (!accept(token)) fail("'" + std::string(token) + "'");
}

std::string_view StrepParser::identifier() {
  skipSpace();
  size_t start = pos_;
  if (pos_ >= text_.size() || !isIdentStart(text_[pos_])) fail("a name");
  while (pos_ < text_.size()) {
    if (isIdentChar(text_[pos_])) {
      ++pos_;
    } else if (text_.substr(pos_, 2) == "::" && pos_ + 2 < text_.size() &&
               isIdentStart(text_[pos_ + 2])) {
      pos_ += 2;
    } else {
      break;
    }
  }
  return text_.substr(start, pos_ - start);
}

std::string StrepParser::quoted() {
  skipSpace();
  if (pos_ >= text_.size() || text_[pos_] != '\'') fail("a quoted string");
  std::string out;
  for (++pos_; pos_ < text_.size(); ++pos_) {
    char c = text_[pos_];
    if (c == '\'') {
      ++pos_;
      return out;
    }
    if (c == '\\') {
      if (++pos_ >= text_.size()) break;
      c = text_[pos_];
    }
    out += c;
  }
  fail("a closing quote");
}

void StrepParser::expectName(std::string_view name, std::string_view what) {
  skipSpace();
  size_t at = pos_;
  if (quoted() != name) failAt(at, std::string(what) + " '" + std::string(name) + "'");
}

bool StrepParser::boolean() {
  if (accept("True") || accept("true")) return true;
  if (accept("False") || accept("false")) return false;
  fail("True or False");
}

uint64_t StrepParser::magnitude(bool& negative, std::string_view typeName) {
  skipSpace();
  negative = pos_ < text_.size() && text_[pos_] == '-';
  if (negative) ++pos_;
  int base = 10;
  if (text_.substr(pos_, 2) == "0x" || text_.substr(pos_, 2) == "0X") {
    base = 16;
    pos_ += 2;
  }
  uint64_t value = 0;
  const char* first = text_.data() + pos_;
  const char* last = text_.data() + text_.size();
  auto [end, ec] = std::from_chars(first, last, value, base);
  if (ec == std::errc::result_out_of_range) {
    throw RangeException(std::string(typeName) + " value out of range at offset " +
                         std::to_string(pos_) + " in '" + std::string(text_) + "'");
  }
  if (ec != std::errc() || end == first) fail("an integer");
  pos_ += static_cast<size_t>(end - first);
  return value;
}

int64_t StrepParser::integer(int64_t min, int64_t max, std::string_view typeName) {
  size_t start = pos_;
  bool negative = false;
  uint64_t m = magnitude(negative, typeName);
  bool fits = negative ? m <= uint64_t(-(min + 1)) + 1 : m <= uint64_t(max);
  if (!fits) {
    throw RangeException(std::string(typeName) + " value out of range at offset " +
                         std::to_string(start) + " in '" + std::string(text_) + "'");
  }
  return negative ? static_cast<int64_t>(0 - m) : static_cast<int64_t>(m);
}

uint64_t StrepParser::unsignedInteger(uint64_t max, std::string_view typeName) {
  size_t start = pos_;
  bool negative = false;
  uint64_t m = magnitude(negative, typeName);
  if ((negative && m != 0) || m > max) {
    throw RangeException(std::string(typeName) + " value out of range at offset " +
                         std::to_string(start) + " in '" + std::string(text_) + "'");
  }
  return m;
}

double StrepParser::floating() {
  skipSpace();
  double value = 0;
  const char* first = text_.data() + pos_;
  auto [end, ec] = std::from_chars(first, text_.data() + text_.size(), value);
  if (ec != std::errc() || end == first) fail("a number");
  pos_ += static_cast<size_t>(end - first);
  return value;
}

void writeQuoted(std::ostream& os, std::string_view s) {
  os << '\'';
  for (char c : s) {
    if (c == '\'' || c == '\\') os << '\\';
    os << c;
  }
  os << '\'';
}

}  // namespace Zinc
