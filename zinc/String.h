// Zinc::String: an immutable, reference-counted string (copies share one buffer).
// Zinc::Name: a short entity name.
#pragma once

#include <compare>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "zinc/Hash.h"

namespace Zinc {

class String {
 public:
  String() = default;
  String(const char* s) : String(std::string_view(s)) {}
  String(std::string_view s) {
    if (!s.empty()) rep_ = std::make_shared<const std::string>(s);
  }
  String(const std::string& s) : String(std::string_view(s)) {}

  std::string_view view() const { return rep_ ? std::string_view(*rep_) : std::string_view(); }
  operator std::string_view() const { return view(); }
  std::string str() const { return std::string(view()); }
  const char* c_str() const { return rep_ ? rep_->c_str() : ""; }
  size_t size() const { return view().size(); }
  bool empty() const { return view().empty(); }

  friend bool operator==(const String& a, const String& b) { return a.view() == b.view(); }
  friend std::strong_ordering operator<=>(const String& a, const String& b) {
    return a.view() <=> b.view();
  }
  uint32_t hash() const { return hashString(view()); }
  friend std::ostream& operator<<(std::ostream& os, const String& s) { return os << s.view(); }

 private:
  std::shared_ptr<const std::string> rep_;
};

// Entity names are short strings; they share String's representation and operations.
class Name : public String {
 public:
  using String::String;
  Name(const String& s) : String(s) {}
};

}  // namespace Zinc

template <>
struct std::hash<Zinc::String> {
  size_t operator()(const Zinc::String& s) const { return s.hash(); }
};
template <>
struct std::hash<Zinc::Name> {
  size_t operator()(const Zinc::Name& s) const { return s.hash(); }
};
