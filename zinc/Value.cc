// Out-of-line parts of the value-type machinery: enumeration lookups and the failure paths.
#include "zinc/Value.h"

#include <cstdio>

namespace Zinc {

void truncatedInput(size_t needed, size_t available) {
  throw Exception("serialised value truncated: needs " + std::to_string(needed) + " bytes, has " +
                  std::to_string(available));
}

void arrayCountViolated(uint32_t count, uint32_t capacity) {
  throw RangeException("serialised array count " + std::to_string(count) + " > capacity " +
                       std::to_string(capacity) + " not allowed");
}

void listFull(size_t capacity) {
  throw RangeException("list of at most " + std::to_string(capacity) +
                       " elements is full; adding not allowed");
}

void boundsViolated(std::string_view type, std::string_view maxName) {
  std::string t(type);
  throw RangeException(t + "::value < " + t + "::min or > " + t + "::" + std::string(maxName) +
                       " not allowed");
}

void bitsViolated(std::string_view type, uint64_t mask) {
  char hex[32];
  std::snprintf(hex, sizeof(hex), "0x%llx", static_cast<unsigned long long>(mask));
  throw RangeException(std::string(type) + "::value > " + hex + " not allowed");
}

void noStringConstructor(std::string_view shortName) {
  std::string message = "No String constructor for " + std::string(shortName) + " - has collection";
  ZINC_ASSERT(false, message);
  __builtin_unreachable();
}

void printBitList(std::ostream& os, std::string_view typeName, const std::string_view* names,
                  size_t count, uint64_t word, const uint8_t* positions) {
  os << "Value('" << typeName << "', ** {";
  for (size_t i = 0; i < count; ++i) {
    os << (i ? ", '" : "'") << names[i]
       << "': " << (((word >> positions[i]) & 1) ? "True" : "False");
  }
  os << "})";
}

void parseBitList(StrepParser& p, std::string_view typeName, const std::string_view* names,
                  size_t count, uint64_t& word, const uint8_t* positions) {
  p.expect("Value(");
  p.expectName(typeName, "type");
  p.expect(",");
  p.expect("**");
  p.expect("{");
  for (size_t i = 0; i < count; ++i) {
    if (i) p.expect(",");
    p.expectName(names[i], "attribute");
    p.expect(":");
    if (p.boolean()) word |= uint64_t(1) << positions[i];
  }
  p.expect("}");
  p.expect(")");
}

const EnumEntry* EnumMeta::byValue(int32_t v) const {
  for (size_t i = 0; i < count; ++i) {
    if (entries[i].value == v) return &entries[i];
  }
  return nullptr;
}

const EnumEntry* EnumMeta::byName(std::string_view n) const {
  for (size_t i = 0; i < count; ++i) {
    if (entries[i].name == n) return &entries[i];
  }
  return nullptr;
}

std::string EnumMeta::name(int32_t v) const {
  const EnumEntry* e = byValue(v);
  return e ? std::string(e->name) : std::to_string(v);
}

int32_t EnumMeta::valueOf(std::string_view n) const {
  const EnumEntry* e = byName(n);
  if (!e) {
    throw RangeException(std::string(shortName) + " has no value named '" + std::string(n) + "'");
  }
  return e->value;
}

}  // namespace Zinc
