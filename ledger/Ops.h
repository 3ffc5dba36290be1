// Ledger::Ops<Key, Value>: how a table hashes, compares, stores and loads its entries. The
// table is generic over it; a value type family plugs in its own specialisation.
//
// An Ops object supplies:
//   uint32_t valueSize() const                  bytes of the stored form in a slot
//   static uint32_t hash(const Key&)            the key's own 32-bit hash()
//   static bool less/equal(const Key&, const Key&)
//   static Key keyOf(const Value&)
//   Key storedKey(const uint8_t* stored) const  the key of a stored value (stored key first)
//   void store(const Value&, uint8_t* stored)   writes the stored form into a slot
//   void load(const uint8_t* stored, Value&) const
//   bool sameStored(const uint8_t* stored, const Value&) const   unchanged rewrite?
//   void retire(const uint8_t* oldStored)       called after the slot's final status store
//                                               when the stored form `oldStored` (a copy) is
//                                               no longer reachable (out-of-line storage
//                                               frees its payload here, never earlier)
//   std::string valueTypeName(), classTypeName() const   names written into the header
//   static constexpr bool kRetires              retire() must be called
//   static constexpr bool kDirect               the stored form is the Value itself, so the
//                                               direct mode can hand out a Value*
//
// Ops of a table whose slots refer to bytes kept out of line (OutOfLineOps, ledger/SlabOps.h)
// also set kOutOfLine and give readers attachReaderStorage/detachReaderStorage, copyOut (run
// inside the consistent read), storedLength (bytes of a reader's copy) and kMaxCopySize.
//
// The default below serves trivially copyable structs whose first member is the key: the
// stored form is the struct's bytes, padding included, and values compare by those bytes
// (sameStored here, the shadows' comparisons in readers). Two equal values whose padding
// bytes differ are a change that readers are told of: give a value type no padding (name
// the spare bytes as members) to have an unchanged rewrite reported as none.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "zinc/Exception.h"

namespace Ledger {

template <class T>
concept HasTypeName = requires {
  { T::typeName() } -> std::convertible_to<std::string>;
};

template <class T>
std::string typeNameOf(const char* fallback) {
  if constexpr (HasTypeName<T>) {
    return std::string(T::typeName());
  } else {
    return fallback;
  }
}

// What every Ops does with keys: the key's own hash(), its order and its equality.
template <class Key>
struct KeyOps {
  static uint32_t hash(const Key& key) { return key.hash(); }
  static bool less(const Key& a, const Key& b) { return a < b; }
  static bool equal(const Key& a, const Key& b) { return a == b; }
};

template <class OpsT>
concept OutOfLineOps = requires {
  requires OpsT::kOutOfLine;
};

template <class Key, class Value>
struct Ops : KeyOps<Key> {
  static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>,
                "the default Ledger::Ops copies bytes; specialise Ops for other types");
  static_assert(alignof(Value) <= 8, "slot values are 8-aligned");
  static constexpr bool kDirect = true;
  static constexpr bool kRetires = false;  // retire() has nothing to free

  uint32_t valueSize() const { return sizeof(Value); }
  static Key keyOf(const Value& value) { return value.key(); }

  Key storedKey(const uint8_t* stored) const {
    Key key;
    std::memcpy(&key, stored, sizeof(Key));
    return key;
  }
  void store(const Value& value, uint8_t* stored) const {
    std::memcpy(stored, &value, sizeof(Value));
#ifndef NDEBUG
    Key key = keyOf(value);
    ZINC_ASSERT(std::memcmp(stored, &key, sizeof(Key)) == 0,
                "a stored value must start with its key");
#endif
  }
  void load(const uint8_t* stored, Value& out) const { std::memcpy(&out, stored, sizeof(Value)); }
  bool sameStored(const uint8_t* stored, const Value& value) const {
    return std::memcmp(stored, &value, sizeof(Value)) == 0;
  }
  void retire(const uint8_t*) const {}
  // The stored form of a new entry in direct mode: a default value carrying the key.
  void initStored(const Key& key, uint8_t* stored) const {
    Value value{};
    std::memcpy(stored, &value, sizeof(Value));
    std::memcpy(stored, &key, sizeof(Key));
  }
  std::string valueTypeName() const { return typeNameOf<Value>("Value"); }
  std::string classTypeName() const { return "Ledger::Table<" + valueTypeName() + ">"; }
};

}  // namespace Ledger
