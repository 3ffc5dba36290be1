// Fuzz target: arbitrary bytes as a stored LFIB record, decoded as a reader decodes a slot's
// or a slab's bytes, and printed as `ledger dump` prints them.
//
// Input: one byte that picks the record type, then the record's bytes. For that type:
//  - loading either refuses the bytes (a Zinc exception) or reads at most what was given;
//  - a value it loads stores to exactly its length, and that form loads back to an equal
//    value with the same hash: what a reader took from shared memory it can publish again;
//  - its text parses back to an equal value (types with an inline array refuse to parse);
//  - the typed text that `ledger dump` prints exists exactly when the bytes load;
//  - the key read from the prefix is the loaded value's key.
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

template <size_t... I>
void decodeByIndex(size_t index, const uint8_t* bytes, size_t size, std::index_sequence<I...>) {
  ((index == I ? decodeAs<std::tuple_element_t<I, Mpls::StoredRecords>>(bytes, size) : void()),
   ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  constexpr size_t kTypes = std::tuple_size_v<Mpls::StoredRecords>;
  // The record's bytes in a buffer of their own: reading past them is caught.
  const std::vector<uint8_t> bytes(data + 1, data + size);
  decodeByIndex(data[0] % kTypes, bytes.data(), bytes.size(), std::make_index_sequence<kTypes>());
  return 0;
}
