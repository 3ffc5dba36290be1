// Numbers given on a command line: the whole text must be decimal digits of a value that fits.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace Tools {

// The value of `text`, or nothing for an empty text, a sign, blanks, any other character, or
// a value too large for T.
template <class T>
std::optional<T> digitsOf(std::string_view text) {
  T value{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end) return std::nullopt;  // an empty text is an error
  return value;
}

}  // namespace Tools
