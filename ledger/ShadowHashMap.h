// ShadowHashMap: a process-local hash map from key to shadow slot, for lookups by key in a
// shadow without touching the shared files.
//
// Open addressing with linear probing: each bucket is one 64-bit word holding a key's hash
// and its slot number (plus one, so that a zero word is an empty bucket). The keys stay in
// the shadow store's slots; find() compares hashes in the bucket array and asks the store to
// compare keys only where a hash matches. Buckets name slots by number, not by address: the
// store's slot array may move (it grew or shrank) without anything to re-point here.
//
// One bucket per lookup or insertion, mostly: at most three quarters of the buckets are in
// use, and a probe runs on within the same cache line. A full walk of the store (a sync)
// fetches the bucket of each slot ahead with prefetch().
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "ledger/LargePageAllocator.h"
#include "zinc/Trace.h"

namespace Ledger {

namespace ShadowDetail {
const Zinc::Trace& trace();
}

class ShadowHashMap {
 public:
  static constexpr uint32_t kMinBuckets = 16;
  static constexpr uint32_t kNone = 0xffffffffu;

  ShadowHashMap() : buckets_(kMinBuckets, 0) {}

  uint32_t size() const { return size_; }
  uint32_t numBuckets() const { return numBuckets_; }

  // The slot of the key with `hash` for which `same(slot)` is true, or kNone.
  template <class Same>
  uint32_t find(uint32_t hash, Same same) const {
    for (uint32_t at = hash & mask();; at = (at + 1) & mask()) {
      const uint64_t word = buckets_[at];
      if (word == 0) return kNone;
      if (hashOf(word) == hash && same(slotOf(word))) return slotOf(word);
    }
  }
  // One probe for both: the slot of the key with `hash` for which `same(slot)` is true, or,
  // when there is none, kNone after adding `slot` under `hash` where the probe ended.
  template <class Same>
  uint32_t findOrInsert(uint32_t slot, uint32_t hash, Same same) {
    makeRoomForOne();
    uint32_t at = hash & mask();
    for (;; at = (at + 1) & mask()) {
      const uint64_t word = buckets_[at];
      if (word == 0) break;
      if (hashOf(word) == hash && same(slotOf(word))) return slotOf(word);
    }
    buckets_[at] = wordOf(hash, slot);
    ++size_;
    return kNone;
  }
  // The key in `from` under `hash` now lives in `to`: its bucket names the new slot.
  void repoint(uint32_t hash, uint32_t from, uint32_t to) {
    const uint64_t word = wordOf(hash, from);
    uint32_t at = hash & mask();
    for (uint32_t n = 0; buckets_[at] != word; at = (at + 1) & mask()) {
      if (buckets_[at] == 0 || ++n > numBuckets_) return;  // not there
    }
    buckets_[at] = wordOf(hash, to);
  }
  // Adds `slot` under `hash`; the caller knows that its key is not in the map.
  void insert(uint32_t slot, uint32_t hash) {
    makeRoomForOne();
    place(wordOf(hash, slot));
    ++size_;
  }
  // Removes `slot`, which is in the map under `hash`. The buckets after it that probed past
  // it move back, so that no probe ever crosses an empty bucket to reach its key.
  void erase(uint32_t slot, uint32_t hash) {
    const uint64_t word = wordOf(hash, slot);
    uint32_t hole = hash & mask();
    for (uint32_t n = 0; buckets_[hole] != word; hole = (hole + 1) & mask()) {
      if (buckets_[hole] == 0 || ++n > numBuckets_) return;  // not there
    }
    for (uint32_t at = (hole + 1) & mask(); buckets_[at] != 0; at = (at + 1) & mask()) {
      const uint32_t home = hashOf(buckets_[at]) & mask();
      // Stays unless its home lies cyclically outside (hole, at].
      if (((at - home) & mask()) < ((at - hole) & mask())) continue;
      buckets_[hole] = buckets_[at];
      hole = at;
    }
    buckets_[hole] = 0;
    --size_;
  }
  // Sizes the bucket array for `count` entries at once, so that a map filled from empty
  // does not rehash on the way.
  void reserve(uint32_t count) {
    uint32_t n = numBuckets_;
    while (n / 4 * 3 < count && n < (1u << 31)) n *= 2;
    if (n != numBuckets_) rehash(n);
  }
  // Starts fetching the bucket of `hash`.
  void prefetch(uint32_t hash) const { __builtin_prefetch(&buckets_[hash & mask()], 1); }
  // Halves the bucket array while it is less than a quarter full.
  void shrink() {
    uint32_t n = numBuckets_;
    while (n > kMinBuckets && size_ < n / 4) n /= 2;
    if (n == numBuckets_) return;
    rehash(n);
    ZTRACE_TO(ShadowDetail::trace(), 5, "ShadowHashMap::shrink() shrunk to numBuckets_:" << n);
  }
  void clear() {
    buckets_.assign(kMinBuckets, 0);
    numBuckets_ = kMinBuckets;
    size_ = 0;
  }

 private:
  uint32_t mask() const { return numBuckets_ - 1; }
  // Doubles the buckets before an insert would fill more than three quarters of them.
  void makeRoomForOne() {
    if (size_ + 1 > numBuckets_ / 4 * 3) rehash(numBuckets_ * 2);
  }
  static uint64_t wordOf(uint32_t hash, uint32_t slot) {
    return uint64_t{hash} << 32 | (uint64_t{slot} + 1);
  }
  static uint32_t hashOf(uint64_t word) { return uint32_t(word >> 32); }
  static uint32_t slotOf(uint64_t word) { return uint32_t(word) - 1; }

  void place(uint64_t word) {
    uint32_t at = hashOf(word) & mask();
    while (buckets_[at] != 0) at = (at + 1) & mask();
    buckets_[at] = word;
  }
  // `n` empty buckets. A large array is a fresh mapping, zero already: writing zeroes over
  // it would fault in every page before the first insert needs it.
  static std::vector<uint64_t, LargePageAllocator<uint64_t>> emptyBuckets(uint32_t n) {
    std::vector<uint64_t, LargePageAllocator<uint64_t>> buckets;
    buckets.resize(n);  // default-initialised (see LargePageAllocator)
    if (!LargePageAllocator<uint64_t>::zeroFilled(n)) std::fill(buckets.begin(), buckets.end(), 0);
    return buckets;
  }
  void rehash(uint32_t n) {
    if (size_ == 0 && n > numBuckets_ && n <= buckets_.capacity()) {
      buckets_.assign(n, 0);  // emptied (flush): growing again into the memory it had
      numBuckets_ = n;
      return;
    }
    std::vector<uint64_t, LargePageAllocator<uint64_t>> old = emptyBuckets(n);
    old.swap(buckets_);
    numBuckets_ = n;
    for (uint64_t word : old) {
      if (word != 0) place(word);
    }
  }

  uint32_t numBuckets_ = kMinBuckets;
  uint32_t size_ = 0;
  std::vector<uint64_t, LargePageAllocator<uint64_t>> buckets_;
};

}  // namespace Ledger
