// Fuzz target: arbitrary bytes as a stored LFIB record, decoded as a reader decodes a slot's
// or a slab's bytes, and printed as `ledger dump` prints them; or arbitrary text parsed as
// one, as an agent parses a value's text form.
//
// Input: one byte that picks the record type (bit 7 set: text), then the record's bytes, or
// an edit of a default value's text: where it starts (2 bytes), how many characters it
// replaces (1 byte), and what it puts there (the rest). Bytes, for that type:
//  - loading either refuses the bytes (a Zinc exception) or reads at most what was given;
//  - a value it loads stores to exactly its length, and that form loads back to an equal
//    value with the same hash: what a reader took from shared memory it can publish again;
//  - its text parses back to an equal value (types with an inline array refuse to parse);
//  - the typed text that `ledger dump` prints exists exactly when the bytes load;
//  - the key read from the prefix is the loaded value's key.
// Text: parsing either refuses it (a Zinc exception) or yields a value whose own text parses
// back to it, and which stores and loads back to itself.
// Nothing may crash, hang or read past the given bytes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <tuple>
#include <utility>
#include <vector>

#include "lfib/LfibStoredText.h"

namespace {

void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "record_fuzz: %s\n", what);
  std::abort();
}

template <class T>
void checkLoadedValue(const T& value, size_t used, const uint8_t* bytes) {
  using S = Zinc::Serial<T>;
  std::vector<uint8_t> again(S::size);
  const size_t length = S::store(value, again.data());
  require(length == S::length(value), "stored length differs from length()");
  require(S::lengthAt(again.data(), length) == length, "lengthAt() misreads a stored value");
  T back;
  require(S::load(again.data(), length, back) == length, "a stored value loads short");
  require(back == value && back.hash() == value.hash(), "a stored value loads back different");
  if constexpr (!Zinc::ValueTraits<T>::hasCollection) {
    require(Zinc::strepToValue<T>(valueToStrep(value)) == value,
            "a loaded value's text parses back different");
  }
  if (used >= Zinc::ValueTraits<typename S::Key>::maxSize) {
    typename S::Key key;
    S::loadKey(bytes, key);
    require(key == value.key(), "the prefix's key is not the value's key");
  }
}

template <class T>
void decodeAs(const uint8_t* bytes, size_t size) {
  using S = Zinc::Serial<T>;
  T value;
  size_t used = 0;
  bool loaded = false;
  try {
    used = S::load(bytes, size, value);
    loaded = true;
  } catch (const Zinc::Exception&) {
  }
  require(!loaded || used <= size, "load() read past the bytes given");
  if (loaded) checkLoadedValue(value, used, bytes);
  const auto text = Mpls::storedValueText(T::zincTypeName(), bytes, size);
  require(text.has_value() == loaded, "typed text and load() disagree on the bytes");
}

template <class T>
void parseAs(std::string_view text) {
  T value;
  try {
    value = Zinc::strepToValue<T>(text);
  } catch (const Zinc::Exception&) {
    return;
  }
  require(Zinc::strepToValue<T>(valueToStrep(value)) == value,
          "a parsed value's text parses back different");
  using S = Zinc::Serial<T>;
  std::vector<uint8_t> stored(S::size);
  T back;
  require(S::load(stored.data(), S::store(value, stored.data()), back) == S::length(value) &&
              back == value,
          "a parsed value stores and loads back different");
}

// A default value's text with the edit that `input` describes: the parser is reached in every
// attribute, not only at the type name.
template <class T>
std::string editedText(const std::vector<uint8_t>& input) {
  std::string text = valueToStrep(T());
  if (input.size() < 3) return text;
  const size_t at = (input[0] | size_t{input[1]} << 8) % (text.size() + 1);
  text.replace(at, input[2], reinterpret_cast<const char*>(input.data() + 3), input.size() - 3);
  return text;
}

template <class T>
void checkAs(bool text, const std::vector<uint8_t>& input) {
  if (!text) return decodeAs<T>(input.data(), input.size());
  if constexpr (!Zinc::ValueTraits<T>::hasCollection) parseAs<T>(editedText<T>(input));
}

template <size_t... I>
void checkByIndex(size_t index, bool text, const std::vector<uint8_t>& input,
                  std::index_sequence<I...>) {
  ((index == I ? checkAs<std::tuple_element_t<I, Mpls::StoredRecords>>(text, input) : void()), ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  constexpr size_t kTypes = std::tuple_size_v<Mpls::StoredRecords>;
  // The record's bytes in a buffer of their own: reading past them is caught.
  const std::vector<uint8_t> input(data + 1, data + size);
  checkByIndex((data[0] & 0x7f) % kTypes, (data[0] & 0x80) != 0, input,
               std::make_index_sequence<kTypes>());
  return 0;
}
