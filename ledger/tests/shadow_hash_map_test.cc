// ShadowHashMap against a model: crowded hashes (long probe runs that wrap around the end of
// the bucket array), erasures from the middle of runs, growth, shrink and reserve.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "ledger/ShadowHashMap.h"

namespace {

using Ledger::ShadowHashMap;

// Keys are slot numbers here; `hashes` gives each one its (deliberately colliding) hash.
struct Model {
  ShadowHashMap map;
  std::map<uint32_t, uint32_t> hashes;  // slot -> hash of the slots in the map

  uint32_t find(uint32_t slot, uint32_t hash) const {
    return map.find(hash, [&](uint32_t s) { return s == slot; });
  }
  void expectSame() const {
    ASSERT_EQ(map.size(), hashes.size());
    for (const auto& [slot, hash] : hashes) ASSERT_EQ(find(slot, hash), slot) << "slot " << slot;
  }
};

TEST(ShadowHashMap, CrowdedHashesSurviveInsertEraseGrowAndShrink) {
  std::mt19937 rng(7);
  Model m;
  for (int round = 0; round < 20000; ++round) {
    const uint32_t slot = rng() % 3000;
    // Few distinct hashes, many of them in the last buckets: runs wrap around the end.
    const uint32_t hash = (rng() % 4 == 0) ? 0xfffffff0u | (rng() % 16) : rng() % 64;
    if (auto it = m.hashes.find(slot); it != m.hashes.end()) {
      m.map.erase(slot, it->second);
      m.hashes.erase(it);
      EXPECT_EQ(m.find(slot, hash), ShadowHashMap::kNone);
    } else {
      m.map.insert(slot, hash);
      m.hashes[slot] = hash;
    }
    if (round % 997 == 0) m.map.shrink();
    if (round % 1000 == 0) {
      ASSERT_NO_FATAL_FAILURE(m.expectSame());
    }
  }
  ASSERT_NO_FATAL_FAILURE(m.expectSame());
  // Empty it again; shrink brings it back to its smallest.
  for (const auto& [slot, hash] : m.hashes) m.map.erase(slot, hash);
  m.hashes.clear();
  m.map.shrink();
  EXPECT_EQ(m.map.size(), 0u);
  EXPECT_EQ(m.map.numBuckets(), ShadowHashMap::kMinBuckets);
}

// findOrInsert finds a key that is there (under a crowded hash) and adds one that is not;
// repoint moves a key to another slot in place.
TEST(ShadowHashMap, FindOrInsertAndRepointAgainstAModel) {
  std::mt19937 rng(11);
  Model m;
  std::map<uint32_t, uint32_t> slotOfKey, keyOfSlot;  // keys are 1000 + n; their slots change
  for (int round = 0; round < 20000; ++round) {
    const uint32_t key = 1000 + rng() % 2000;
    const uint32_t hash = rng() % 4 == 0 ? 0xfffffff8u : key % 48;  // runs wrap, hashes collide
    const auto known = slotOfKey.find(key);
    const uint32_t slot = 100000 + round;  // a fresh slot each time
    auto sameKey = [&](uint32_t s) { return keyOfSlot.at(s) == key; };
    if (known != slotOfKey.end()) {
      const uint32_t at = m.map.findOrInsert(slot, m.hashes.at(known->second), sameKey);
      ASSERT_EQ(at, known->second) << "key " << key << " is found, not added again";
      m.map.repoint(m.hashes.at(at), at, slot);
      m.hashes[slot] = m.hashes.at(at);
      m.hashes.erase(at);
      keyOfSlot.erase(at);
      keyOfSlot[slot] = key;
      known->second = slot;
    } else {
      ASSERT_EQ(m.map.findOrInsert(slot, hash, sameKey), ShadowHashMap::kNone);
      m.hashes[slot] = hash;
      slotOfKey[key] = slot;
      keyOfSlot[slot] = key;
    }
    if (round % 1000 == 0) {
      ASSERT_NO_FATAL_FAILURE(m.expectSame());
    }
  }
  ASSERT_NO_FATAL_FAILURE(m.expectSame());
}

TEST(ShadowHashMap, EmptiedMapGrowsBackIntoItsOwnMemory) {
  ShadowHashMap map;
  map.reserve(100000);
  const uint32_t grown = map.numBuckets();
  map.clear();
  EXPECT_EQ(map.numBuckets(), ShadowHashMap::kMinBuckets);
  map.reserve(100000);
  EXPECT_EQ(map.numBuckets(), grown);
  for (uint32_t slot = 0; slot < 1000; ++slot) {
    EXPECT_EQ(map.find(slot * 7919u, [](uint32_t) { return true; }), ShadowHashMap::kNone)
        << "no bucket kept a word from before";
    map.insert(slot, slot * 7919u);
  }
  EXPECT_EQ(map.size(), 1000u);
}

TEST(ShadowHashMap, ReserveSizesOnceAndKeepsWhatIsThere) {
  Model m;
  for (uint32_t slot = 0; slot < 10; ++slot) {
    m.map.insert(slot, slot * 2654435761u);
    m.hashes[slot] = slot * 2654435761u;
  }
  m.map.reserve(100000);
  const uint32_t buckets = m.map.numBuckets();
  EXPECT_GE(buckets / 4 * 3, 100000u);
  for (uint32_t slot = 10; slot < 100000; ++slot) {
    m.map.insert(slot, slot * 2654435761u);
    m.hashes[slot] = slot * 2654435761u;
  }
  EXPECT_EQ(m.map.numBuckets(), buckets);
  ASSERT_NO_FATAL_FAILURE(m.expectSame());
  // Same hash, other key: found only by the key's own comparison.
  EXPECT_EQ(m.find(100001, 5 * 2654435761u), ShadowHashMap::kNone);
  // Erasing what is not there changes nothing.
  m.map.erase(100001, 5 * 2654435761u);
  ASSERT_NO_FATAL_FAILURE(m.expectSame());
}

}  // namespace
