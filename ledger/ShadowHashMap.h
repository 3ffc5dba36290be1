// ShadowHashMap: a process-local hash map from key to shadow slot, for lookups by key in a
// shadow without touching the shared files, kept in table order for walks.
//
// Ordered linear probing: each bucket is one 64-bit word holding a key's rhash (its hash with
// the bits reversed, as in the shared table; the caller reverses it, once for all it does
// with the key) and its slot number (plus one, so that a zero
// word is an empty bucket). A key's home bucket is the top bits of its rhash, and the buckets
// hold their keys in ascending (rhash, key) order: an insertion shifts the rest of its run
// one bucket on, an erasure shifts it back. Every key sits at or after its home with no
// empty bucket in between, as in plain linear probing, and the bucket array read from start
// to end is the table's own order, whatever the number of buckets: a walk from each key to
// the one after it goes on where it was across growth and shrink of the map, and across
// moves of keys from slot to slot. Runs do not wrap around: the array ends in a tail of
// spare buckets, extended when a run would reach its last one (which stays empty, ending
// every scan).
//
// The keys stay in the shadow store's slots; the map compares rhashes in the bucket array
// and asks the store to compare keys only where two rhashes are equal. A comparison `cmp`
// answers, for a slot, whether its key sorts before (< 0), is (0), or sorts after (> 0) the
// key in question. Buckets name slots by number, not by address: the store's slot array may
// move (it grew or shrank) without anything to re-point here.
//
// One bucket per lookup or insertion, mostly: at most three quarters of the home buckets are
// in use, and a probe runs on within the same cache line. A full walk of the store (a sync)
// fetches the bucket of each slot ahead with prefetch().
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <new>
#include <vector>

#include "ledger/Format.h"
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

  ShadowHashMap() : buckets_(kMinBuckets + kTail, 0) {}

  uint32_t size() const { return size_; }
  uint32_t numBuckets() const { return numBuckets_; }

  // The slot of the key of `rhash` that `cmp` describes, or kNone.
  template <class Cmp>
  uint32_t find(uint32_t rhash, Cmp cmp) const {
    bool found = false;
    const uint32_t at = lowerBound(rhash, cmp, found);
    return found ? slotOf(buckets_[at]) : kNone;
  }
  // One probe for both: the slot of the key of `rhash` that `cmp` describes, or, when there
  // is none, kNone after adding `slot` under `rhash` in its place.
  template <class Cmp>
  uint32_t findOrInsert(uint32_t slot, uint32_t rhash, Cmp cmp) {
    makeRoomForOne();
    bool found = false;
    const uint32_t at = lowerBound(rhash, cmp, found);
    if (found) return slotOf(buckets_[at]);
    insertAt(at, wordOf(rhash, slot));
    return kNone;
  }
  // Adds `slot`, whose key (of `rhash`, described by `cmp`) is not in the map.
  template <class Cmp>
  void insert(uint32_t slot, uint32_t rhash, Cmp cmp) {
    makeRoomForOne();
    bool found = false;
    insertAt(lowerBound(rhash, cmp, found), wordOf(rhash, slot));
  }
  // The key in `from` under `rhash` now lives in `to`: its bucket names the new slot.
  void repoint(uint32_t rhash, uint32_t from, uint32_t to) {
    const uint32_t at = bucketOf(rhash, wordOf(rhash, from));
    if (at != kNone) buckets_[at] = wordOf(rhash, to);
  }
  // Removes `slot`, which is in the map under `rhash`. The rest of its run moves back, so
  // that no probe ever crosses an empty bucket to reach its key.
  void erase(uint32_t slot, uint32_t rhash) {
    uint32_t hole = bucketOf(rhash, wordOf(rhash, slot));
    if (hole == kNone) return;  // not there
    // Homes never decrease along the array: the first key of the run already at its home
    // ends the shift, and every key after it stays.
    for (uint64_t next; (next = buckets_[hole + 1]) != 0 && home(rhashOfWord(next)) <= hole;
         ++hole) {
      buckets_[hole] = next;
    }
    buckets_[hole] = 0;
    --size_;
  }

  // The first slot in table order, or kNone.
  uint32_t first() const { return slotAt(occupiedFrom(0)); }
  // The slot after the key of `rhash` that `cmp` describes in table order, whether that key
  // is in the map or not; kNone when none follows. With `ahead`, also the slot in the bucket
  // kAheadBuckets places further on (kNone when that bucket is empty), for a walk to fetch.
  template <class Cmp>
  uint32_t after(uint32_t rhash, Cmp cmp, uint32_t* ahead = nullptr) const {
    bool found = false;
    const uint32_t at = occupiedFrom(lowerBound(rhash, cmp, found) + (found ? 1 : 0));
    if (ahead) {
      *ahead = uint64_t{at} + kAheadBuckets < buckets_.size() ? slotAt(at + kAheadBuckets) : kNone;
    }
    return slotAt(at);
  }

  // Sizes the bucket array for `count` entries at once, so that a map filled from empty
  // does not rehash on the way.
  void reserve(uint32_t count) {
    uint32_t n = numBuckets_;
    while (n / 4 * 3 < count && n < (1u << 31)) n *= 2;
    if (n != numBuckets_) rehash(n);
  }
  // Starts fetching the home bucket of `rhash`.
  void prefetch(uint32_t rhash) const { __builtin_prefetch(&buckets_[home(rhash)], 1); }
  // Halves the bucket array while it is less than a quarter full. Giving memory back is
  // optional: when the smaller array cannot be had, the map keeps the one it has, unchanged.
  void shrink() {
    uint32_t n = numBuckets_;
    while (n > kMinBuckets && size_ < n / 4) n /= 2;
    if (n == numBuckets_) return;
    const void* was = buckets_.data();
    try {
      rehash(n);
    } catch (const std::bad_alloc&) {
      ZTRACE_TO(ShadowDetail::trace(), 1,
                "ShadowHashMap::shrink() failed to resize " << numBuckets_ << " buckets to " << n
                                                            << ", keeping them");
      return;
    }
    ZTRACE_TO(ShadowDetail::trace(), 5, "ShadowHashMap::shrink() shrunk to numBuckets_:" << n);
    // Buckets name slots by number: nothing points into the array, so nothing follows it.
    ZTRACE_TO(
        ShadowDetail::trace(), 7,
        "ShadowHashMap::shrink() base address moved from " << was << " to " << buckets_.data());
  }
  void clear() {
    buckets_.assign(kMinBuckets + kTail, 0);
    bucketsAre(kMinBuckets);
    size_ = 0;
  }

 private:
  // Spare buckets after the last home bucket, for the runs that go beyond it.
  static constexpr uint32_t kTail = 64;
  // How far ahead of a walk after() looks: kWalkAhead keys at half the buckets in use.
  static constexpr uint32_t kAheadBuckets = 2 * kWalkAhead;

  static uint64_t wordOf(uint32_t rhash, uint32_t slot) {
    return uint64_t{rhash} << 32 | (uint64_t{slot} + 1);
  }
  static uint32_t rhashOfWord(uint64_t word) { return uint32_t(word >> 32); }
  static uint32_t slotOf(uint64_t word) { return uint32_t(word) - 1; }
  uint32_t home(uint32_t rhash) const { return uint32_t(uint64_t{rhash} >> shift_); }

  // The first bucket from the home of `rhash` whose key does not sort before the key that
  // `cmp` describes (found: is it), or the empty bucket that ends the run. Keys before the
  // home all have smaller rhashes; keys after an empty bucket all have greater ones.
  template <class Cmp>
  uint32_t lowerBound(uint32_t rhash, Cmp& cmp, bool& found) const {
    uint32_t at = home(rhash);
    for (uint64_t word; (word = buckets_[at]) != 0; ++at) {
      const uint32_t r = rhashOfWord(word);
      if (r < rhash) continue;
      if (r > rhash) return at;
      const int order = cmp(slotOf(word));
      if (order == 0) found = true;
      if (order >= 0) return at;
    }
    return at;
  }
  // The bucket holding `word` (of `rhash`), or kNone.
  uint32_t bucketOf(uint32_t rhash, uint64_t word) const {
    for (uint32_t at = home(rhash); buckets_[at] != 0 && rhashOfWord(buckets_[at]) <= rhash; ++at) {
      if (buckets_[at] == word) return at;
    }
    return kNone;
  }
  // The first occupied bucket from `at` on, or the end of the array.
  uint32_t occupiedFrom(uint32_t at) const {
    while (at < buckets_.size() && buckets_[at] == 0) ++at;
    return at;
  }
  // The slot in bucket `at`, kNone when it is empty or the end of the array.
  uint32_t slotAt(uint32_t at) const {
    return at < buckets_.size() && buckets_[at] != 0 ? slotOf(buckets_[at]) : kNone;
  }
  // Puts `word` in bucket `at`, the rest of the run one bucket on: each bucket takes the word
  // carried from the one before, until the empty bucket that ends the run takes the last.
  void insertAt(uint32_t at, uint64_t word) {
    for (; word != 0; ++at) std::swap(word, buckets_[at]);
    keepLastEmpty(at - 1);
    ++size_;
  }
  // Bucket `used` now holds a key: the array goes on past it with an empty bucket.
  void keepLastEmpty(uint64_t used) {
    if (used + 1 == buckets_.size()) buckets_.resize(buckets_.size() + kTail, 0);
  }
  // Doubles the buckets before an insert would fill more than three quarters of them.
  void makeRoomForOne() {
    if (size_ + 1 > numBuckets_ / 4 * 3) rehash(numBuckets_ * 2);
  }

  // `n` empty buckets. A large array is a fresh mapping, zero already: writing zeroes over
  // it would fault in every page before the first insert needs it.
  static std::vector<uint64_t, LargePageAllocator<uint64_t>> emptyBuckets(uint64_t n) {
    std::vector<uint64_t, LargePageAllocator<uint64_t>> buckets;
    buckets.resize(n);  // default-initialised (see LargePageAllocator)
    if (!LargePageAllocator<uint64_t>::zeroFilled(n)) std::fill(buckets.begin(), buckets.end(), 0);
    return buckets;
  }
  // The keys in order into `n` home buckets: each at its home, or right after the key before
  // it when that one is there already. Built aside and swapped in whole: a failure to
  // allocate leaves the map as it was.
  void rehash(uint32_t n) {
    if (size_ == 0 && n > numBuckets_ && n + kTail <= buckets_.capacity()) {
      buckets_.assign(n + kTail, 0);  // emptied (clear): growing again into the memory it had
      bucketsAre(n);
      return;
    }
    std::vector<uint64_t, LargePageAllocator<uint64_t>> fresh = emptyBuckets(uint64_t{n} + kTail);
    const uint32_t shift = shiftFor(n);
    uint64_t at = 0;
    for (uint64_t word : buckets_) {
      if (word == 0) continue;
      at = std::max<uint64_t>(at, uint64_t{rhashOfWord(word)} >> shift);
      fresh[at] = word;
      if (++at == fresh.size()) fresh.resize(fresh.size() + kTail, 0);  // one empty bucket last
    }
    buckets_.swap(fresh);
    bucketsAre(n);
  }

  static uint32_t shiftFor(uint32_t n) { return 32 - uint32_t(std::countr_zero(n)); }
  void bucketsAre(uint32_t n) {
    numBuckets_ = n;
    shift_ = shiftFor(n);
  }

  uint32_t numBuckets_ = kMinBuckets;
  uint32_t shift_ = 32 - std::countr_zero(kMinBuckets);  // home(): the top bits of an rhash
  uint32_t size_ = 0;
  std::vector<uint64_t, LargePageAllocator<uint64_t>> buckets_;
};

}  // namespace Ledger
