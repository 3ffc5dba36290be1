// ShadowHashMap against a model: crowded rhashes (long probe runs, some reaching past the last
// home bucket), erasures from the middle of runs, growth, shrink and reserve, and walks in
// table order.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bit>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <utility>

#include "ledger/ShadowHashMap.h"

namespace {

using Ledger::ShadowHashMap;

// Where key `a` sorts against key `b`, as the map's comparisons answer.
int order(uint32_t a, uint32_t b) { return a < b ? -1 : a > b ? 1 : 0; }

// Keys are slot numbers unless `keyOf` says otherwise; `rhashes` gives each slot's key its
// (deliberately colliding) rhash.
struct Model {
  ShadowHashMap map;
  std::map<uint32_t, uint32_t> rhashes;  // slot -> rhash of the slots in the map
  std::function<uint32_t(uint32_t)> keyOf = [](uint32_t slot) { return slot; };

  auto cmp(uint32_t slot) const {
    return [this, key = keyOf(slot)](uint32_t s) { return order(keyOf(s), key); };
  }
  uint32_t find(uint32_t slot, uint32_t rhash) const { return map.find(rhash, cmp(slot)); }
  void insert(uint32_t slot, uint32_t rhash) {
    map.insert(slot, rhash, cmp(slot));
    rhashes[slot] = rhash;
  }
  // The slots in table order: ascending (rhash, key).
  std::vector<uint32_t> inOrder() const {
    std::set<std::pair<uint32_t, uint32_t>> sorted;
    for (const auto& [slot, rhash] : rhashes) sorted.emplace(rhash, keyOf(slot));
    std::map<uint32_t, uint32_t> slotOfKey;
    for (const auto& entry : rhashes) slotOfKey[keyOf(entry.first)] = entry.first;
    std::vector<uint32_t> slots;
    for (const auto& entry : sorted) slots.push_back(slotOfKey.at(entry.second));
    return slots;
  }
  void expectSame() const {
    ASSERT_EQ(map.size(), rhashes.size());
    for (const auto& [slot, rhash] : rhashes) ASSERT_EQ(find(slot, rhash), slot) << "slot " << slot;
    // A walk from first() by after() visits every slot once, in table order.
    std::vector<uint32_t> walked;
    for (uint32_t s = map.first(); s != ShadowHashMap::kNone && walked.size() <= rhashes.size();
         s = map.after(rhashes.at(s), cmp(s))) {
      walked.push_back(s);
    }
    ASSERT_EQ(walked, inOrder());
  }
};

TEST(ShadowHashMap, CrowdedHashesSurviveInsertEraseGrowAndShrink) {
  std::mt19937 rng(7);
  Model m;
  for (int round = 0; round < 20000; ++round) {
    const uint32_t slot = rng() % 3000;
    // Few distinct rhashes, many of them homed in the last buckets: runs go past the end.
    const uint32_t rhash = (rng() % 4 == 0) ? 0xfffffff0u | (rng() % 16) : rng() % 64;
    if (auto it = m.rhashes.find(slot); it != m.rhashes.end()) {
      m.map.erase(slot, it->second);
      m.rhashes.erase(it);
      EXPECT_EQ(m.find(slot, rhash), ShadowHashMap::kNone);
    } else {
      m.insert(slot, rhash);
    }
    if (round % 997 == 0) m.map.shrink();
    if (round % 1000 == 0) {
      ASSERT_NO_FATAL_FAILURE(m.expectSame());
    }
  }
  ASSERT_NO_FATAL_FAILURE(m.expectSame());
  // Empty it again; shrink brings it back to its smallest.
  for (const auto& [slot, rhash] : m.rhashes) m.map.erase(slot, rhash);
  m.rhashes.clear();
  m.map.shrink();
  EXPECT_EQ(m.map.size(), 0u);
  EXPECT_EQ(m.map.numBuckets(), ShadowHashMap::kMinBuckets);
}

// findOrInsert finds a key that is there (under a crowded rhash) and adds one that is not;
// repoint moves a key to another slot in place.
TEST(ShadowHashMap, FindOrInsertAndRepointAgainstAModel) {
  std::mt19937 rng(11);
  Model m;
  std::map<uint32_t, uint32_t> slotOfKey, keyOfSlot;  // keys are 1000 + n; their slots change
  for (int round = 0; round < 20000; ++round) {
    const uint32_t key = 1000 + rng() % 2000;
    const uint32_t rhash = rng() % 4 == 0 ? 0xfffffff8u : key % 48;  // long runs, rhashes collide
    const auto known = slotOfKey.find(key);
    const uint32_t slot = 100000 + round;  // a fresh slot each time
    m.keyOf = [&](uint32_t s) { return keyOfSlot.at(s); };
    auto sameKey = [&](uint32_t s) { return order(keyOfSlot.at(s), key); };
    if (known != slotOfKey.end()) {
      const uint32_t at = m.map.findOrInsert(slot, m.rhashes.at(known->second), sameKey);
      ASSERT_EQ(at, known->second) << "key " << key << " is found, not added again";
      m.map.repoint(m.rhashes.at(at), at, slot);
      m.rhashes[slot] = m.rhashes.at(at);
      m.rhashes.erase(at);
      keyOfSlot.erase(at);
      keyOfSlot[slot] = key;
      known->second = slot;
    } else {
      ASSERT_EQ(m.map.findOrInsert(slot, rhash, sameKey), ShadowHashMap::kNone);
      m.rhashes[slot] = rhash;
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
    EXPECT_EQ(map.find(slot * 7919u, [](uint32_t) { return 0; }), ShadowHashMap::kNone)
        << "no bucket kept a word from before";
    map.insert(slot, slot * 7919u, [slot](uint32_t s) { return order(s, slot); });
  }
  EXPECT_EQ(map.size(), 1000u);
}

TEST(ShadowHashMap, ReserveSizesOnceAndKeepsWhatIsThere) {
  Model m;
  for (uint32_t slot = 0; slot < 10; ++slot) m.insert(slot, slot * 2654435761u);
  m.map.reserve(100000);
  const uint32_t buckets = m.map.numBuckets();
  EXPECT_GE(buckets / 4 * 3, 100000u);
  for (uint32_t slot = 10; slot < 100000; ++slot) m.insert(slot, slot * 2654435761u);
  EXPECT_EQ(m.map.numBuckets(), buckets);
  ASSERT_NO_FATAL_FAILURE(m.expectSame());
  // Same rhash, other key: found only by the key's own comparison.
  EXPECT_EQ(m.find(100001, 5 * 2654435761u), ShadowHashMap::kNone);
  // Erasing what is not there changes nothing.
  m.map.erase(100001, 5 * 2654435761u);
  ASSERT_NO_FATAL_FAILURE(m.expectSame());
}

}  // namespace

namespace {

// A walk from each key to the one after it, with keys coming and going between the steps in
// numbers that double and halve the buckets, and keys moving to other slots: every key held
// throughout is seen exactly once, the key a step starts from having gone or not.
TEST(ShadowHashMap, WalksGoOnAcrossGrowthShrinkAndMoves) {
  std::mt19937 rng(5);
  Model m;
  std::map<uint32_t, uint32_t> slotOfKey, keyOfSlot;
  m.keyOf = [&](uint32_t s) { return keyOfSlot.at(s); };
  uint32_t nextSlot = 0;
  auto add = [&](uint32_t key) {
    slotOfKey[key] = nextSlot;
    keyOfSlot[nextSlot] = key;
    m.insert(nextSlot++, key * 2654435761u);
  };
  auto remove = [&](uint32_t key) {
    if (!slotOfKey.count(key)) return;
    const uint32_t slot = slotOfKey.at(key);
    m.map.erase(slot, m.rhashes.at(slot));
    m.rhashes.erase(slot);
    keyOfSlot.erase(slot);
    slotOfKey.erase(key);
  };
  constexpr uint32_t kStaying = 3000;
  for (uint32_t key = 0; key < kStaying; ++key) add(key);
  std::map<uint32_t, int> seen;
  uint32_t step = 0;
  for (uint32_t s = m.map.first(); s != ShadowHashMap::kNone; ++step) {
    const uint32_t key = keyOfSlot.at(s);
    ++seen[key];
    if (step % 500 == 250) {  // many keys come: the buckets double, twice
      for (uint32_t k = 0; k < 3 * kStaying; ++k) add(100000 + k);
    } else if (step % 500 == 0 && step > 0) {  // and go again: the buckets halve
      for (uint32_t k = 0; k < 3 * kStaying; ++k) remove(100000 + k);
      m.map.shrink();
    }
    // A few staying keys move to fresh slots.
    for (int moves = 0; moves < 3; ++moves) {
      const uint32_t moving = rng() % kStaying;
      const uint32_t from = slotOfKey.at(moving);
      m.map.repoint(m.rhashes.at(from), from, nextSlot);
      m.rhashes[nextSlot] = m.rhashes.at(from);
      m.rhashes.erase(from);
      keyOfSlot.erase(from);
      keyOfSlot[nextSlot] = moving;
      slotOfKey[moving] = nextSlot++;
    }
    // The step goes on from the key it returned; sometimes that key has gone by then.
    const uint32_t rhash = key * 2654435761u;
    const bool leaves = key >= 100000 || rng() % 50 == 0;
    if (leaves) remove(key);
    s = m.map.after(rhash, [&](uint32_t other) { return order(keyOfSlot.at(other), key); });
    if (leaves && key < kStaying) add(key);  // back in another slot: behind the walk
  }
  for (uint32_t key = 0; key < kStaying; ++key) EXPECT_EQ(seen[key], 1) << "key " << key;
  for (const auto& [key, times] : seen) EXPECT_LE(times, 1) << "key " << key;
}

// Shrinking gives memory back only when it can. With no address space left for the smaller
// array, shrink() keeps the map as it was, every key still found; with memory again, it
// shrinks. In a child process: the limit is its own. Exit status 0, or which check failed.
int shrinkWithNoAddressSpaceLeft() {
  constexpr uint32_t kKeys = 1100000, kKept = 300000;  // 2M buckets, then room for 1M
  auto rhashOf = [](uint32_t slot) { return slot * 0x9e3779b9u; };
  auto cmp = [](uint32_t key) { return [key](uint32_t s) { return order(s, key); }; };
  auto whole = [&](const ShadowHashMap& map) {
    for (uint32_t s = 0; s < kKept; ++s) {
      if (map.find(rhashOf(s), cmp(s)) != s) return false;
    }
    return map.size() == kKept;
  };
  ShadowHashMap map;
  for (uint32_t s = 0; s < kKeys; ++s) map.insert(s, rhashOf(s), cmp(s));
  for (uint32_t s = kKept; s < kKeys; ++s) map.erase(s, rhashOf(s));
  const uint32_t buckets = map.numBuckets();
  uint64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  rlimit limit{};
  if (pages == 0 || ::getrlimit(RLIMIT_AS, &limit) != 0) return 10;
  const rlim_t unlimited = limit.rlim_cur;
  limit.rlim_cur = pages * uint64_t(::sysconf(_SC_PAGESIZE));  // no new mapping from here on
  if (::setrlimit(RLIMIT_AS, &limit) != 0) return 11;
  map.shrink();
  const bool kept = map.numBuckets() == buckets && whole(map);
  limit.rlim_cur = unlimited;
  if (::setrlimit(RLIMIT_AS, &limit) != 0) return 12;
  if (!kept) return 1;
  map.shrink();
  if (map.numBuckets() >= buckets) return 2;
  return whole(map) ? 0 : 3;
}

TEST(ShadowHashMap, ShrinkWithoutMemoryKeepsTheMapWhole) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "an address-space limit starves the sanitizer's own allocations";
#endif
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) ::_exit(shrinkWithNoAddressSpaceLeft());
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the child died of signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
