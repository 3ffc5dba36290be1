// Test helpers: a key and a value shaped like the library's records, a private root directory
// for a test's table files, and the configuration of a table in it.
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "ledger/LedgerWriter.h"
#include "platform/tests/TempDir.h"
#include "zinc/Hash.h"

namespace LedgerTest {

struct TestKey {
  uint64_t id = 0;
  uint32_t hash() const {
    Zinc::Hash h;
    h.mix64(id);
    return h.result();
  }
  auto operator<=>(const TestKey&) const = default;
};

// A 116-byte record, key first, like the LFIB route record.
struct TestValue {
  TestKey k;
  uint64_t version = 0;
  uint32_t check = 0;
  uint8_t payload[96] = {};
  TestKey key() const { return k; }
  static const char* typeName() { return "LedgerTest::TestValue"; }
  bool operator==(const TestValue&) const = default;
};
static_assert(sizeof(TestValue) == 120);

inline TestValue makeValue(uint64_t id, uint64_t version) {
  TestValue v;
  // The stored form is the struct's bytes, padding included: equal values must be equal
  // bytes, or an unchanged rewrite (WriteFlag::ifChanged) looks changed.
  std::memset(static_cast<void*>(&v), 0, sizeof(v));
  v.k.id = id;
  v.version = version;
  for (size_t i = 0; i < sizeof(v.payload); ++i) v.payload[i] = uint8_t(id * 31 + version + i);
  v.check = Zinc::hashBytes(&v, offsetof(TestValue, check));
  return v;
}

// Whether `v` is a value makeValue() made, every byte in place.
inline bool whole(const TestValue& v) {
  return v.check == Zinc::hashBytes(&v, offsetof(TestValue, check)) &&
         v == makeValue(v.k.id, v.version);
}

// Keys whose hash has few distinct values: many share a bucket and an rhash.
struct CollidingKey {
  uint64_t id = 0;
  uint32_t hash() const { return static_cast<uint32_t>(id % 3) * 0x10001u; }
  auto operator<=>(const CollidingKey&) const = default;
};
struct CollidingValue {
  CollidingKey k;
  uint64_t data = 0;
  CollidingKey key() const { return k; }
};

// A root directory of its own for a test's table files.
using TempRoot = TestSupport::ShmRoot;

// Table `table` under `root`, with room for `capacity` slots; the rest as configured by default.
inline Ledger::LedgerConfig tableConfig(const std::string& root, const std::string& table,
                                        uint32_t capacity = Ledger::LedgerConfig().capacity,
                                        uint32_t minBuckets = Ledger::LedgerConfig().minBuckets) {
  Ledger::LedgerConfig c;
  c.root = root;
  c.table = table;
  c.capacity = capacity;
  c.minBuckets = minBuckets;
  return c;
}

// Two of the keys [0, ids) that share one of `numBuckets` buckets, in chain order (rhash,
// then key): the first comes before the second. nullopt when no two do.
inline std::optional<std::pair<uint64_t, uint64_t>> twoKeysOfOneBucket(uint32_t numBuckets,
                                                                       uint64_t ids) {
  auto bucket = [&](uint64_t id) { return TestKey{id}.hash() & (numBuckets - 1); };
  auto order = [](uint64_t id) { return std::pair(Ledger::reverseBits(TestKey{id}.hash()), id); };
  for (uint64_t a = 0; a < ids; ++a) {
    for (uint64_t b = 0; b < ids; ++b) {
      if (a != b && bucket(a) == bucket(b) && order(a) < order(b)) return std::pair(a, b);
    }
  }
  return std::nullopt;
}

// The index of the slot whose value `writer` stored at `value`.
template <class W>
uint32_t slotIndexOf(W& writer, const void* value) {
  auto& slots = writer.slotTable();
  return uint32_t((static_cast<const uint8_t*>(value) - slots.value(0)) / slots.slotSize());
}

}  // namespace LedgerTest
