#include "lfib/LfibStoredText.h"

namespace Mpls {

namespace {

template <class T>
std::optional<std::string> textAs(const uint8_t* bytes, size_t size) {
  try {
    T value;
    Zinc::Serial<T>::load(bytes, size, value);
    return valueToStrep(value);
  } catch (const Zinc::Exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> storedValueText(std::string_view valueTypeName, const uint8_t* bytes,
                                           size_t size) {
  std::optional<std::string> text;
  auto tryAs = [&](auto record) {
    using T = decltype(record);
    if (T::zincTypeName() != valueTypeName) return false;
    text = textAs<T>(bytes, size);
    return true;
  };
  std::apply([&](auto... records) { (void)(tryAs(records) || ...); }, StoredRecords());
  return text;
}

}  // namespace Mpls
