// ShadowHashMap: a process-local hash map from key to shadow slot, for lookups by key in a
// shadow without touching the shared files.
//
// It is intrusive: the entries are the shadow store's slots (any type with `next`, `hash`
// and `key` members), linked into chains from its own bucket array. The store keeps its slots
// in one array; when that array moves (it grew or shrank), patch() shifts every pointer by
// the distance it moved, so that nothing needs re-hashing.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "ledger/LargePageAllocator.h"
#include "zinc/Trace.h"

namespace Ledger {

namespace ShadowDetail {
const Zinc::Trace& trace();
}

template <class Key, class OpsT, class Entry>
class ShadowHashMap {
 public:
  static constexpr uint32_t kMinBuckets = 16;

  // bucketFactor: entries per bucket before the bucket array doubles.
  explicit ShadowHashMap(uint32_t bucketFactor = 1)
      : bucketFactor_(bucketFactor ? bucketFactor : 1), buckets_(kMinBuckets, nullptr) {}

  uint32_t size() const { return size_; }
  uint32_t numBuckets() const { return numBuckets_; }

  Entry* find(const Key& key, uint32_t hash) const {
    for (Entry* e = buckets_[hash & (numBuckets_ - 1)]; e; e = e->next) {
      if (e->hash == hash && OpsT::equal(e->key, key)) return e;
    }
    return nullptr;
  }
  void insert(Entry* entry) {
    Entry*& head = buckets_[entry->hash & (numBuckets_ - 1)];
    entry->next = head;
    head = entry;
    if (++size_ > numBuckets_ * bucketFactor_) rehash(numBuckets_ * 2);
  }
  void erase(Entry* entry) {
    for (Entry** at = &buckets_[entry->hash & (numBuckets_ - 1)]; *at; at = &(*at)->next) {
      if (*at == entry) {
        *at = entry->next;
        entry->next = nullptr;
        --size_;
        return;
      }
    }
  }
  // Sizes the bucket array for `count` entries at once, so that a map filled from empty
  // does not rehash on the way (each rehash touches every entry again).
  void reserve(uint32_t count) {
    uint32_t n = numBuckets_;
    while (n < count / bucketFactor_ && n < (1u << 31)) n *= 2;
    if (n != numBuckets_) rehash(n);
  }
  // Starts fetching the bucket of `hash`, and (once that is in) the first entry of its chain.
  void prefetchBucket(uint32_t hash) const {
    __builtin_prefetch(&buckets_[hash & (numBuckets_ - 1)]);
  }
  void prefetchChain(uint32_t hash) const {
    if (const Entry* e = buckets_[hash & (numBuckets_ - 1)]) __builtin_prefetch(e);
  }
  // Halves the bucket array while it is less than a quarter full.
  void shrink() {
    uint32_t n = numBuckets_;
    while (n > kMinBuckets && size_ < n / 4 * bucketFactor_) n /= 2;
    if (n == numBuckets_) return;
    rehash(n);
    ZTRACE_TO(ShadowDetail::trace(), 5, "ShadowHashMap::shrink() shrunk to numBuckets_:" << n);
  }
  void clear() {
    buckets_.assign(kMinBuckets, nullptr);
    numBuckets_ = kMinBuckets;
    size_ = 0;
  }
  // The entries moved by `offset` bytes (new address minus old): shifts every pointer.
  void patch(intptr_t offset) {
    if (offset == 0 || size_ == 0) return;
    ZTRACE_TO(ShadowDetail::trace(), 7, "ShadowHashMap::patch() address offset is " << offset);
    for (Entry*& head : buckets_) {
      if (!head) continue;
      head = shifted(head, offset);
      for (Entry* e = head; e->next; e = e->next) e->next = shifted(e->next, offset);
    }
  }

 private:
  static Entry* shifted(Entry* e, intptr_t offset) {
    return reinterpret_cast<Entry*>(reinterpret_cast<intptr_t>(e) + offset);
  }
  void rehash(uint32_t n) {
    std::vector<Entry*, LargePageAllocator<Entry*>> old(n, nullptr);
    old.swap(buckets_);
    numBuckets_ = n;
    for (Entry* head : old) {
      while (head) {
        Entry* following = head->next;
        Entry*& into = buckets_[head->hash & (n - 1)];
        head->next = into;
        into = head;
        head = following;
      }
    }
  }

  uint32_t bucketFactor_;
  uint32_t numBuckets_ = kMinBuckets;
  uint32_t size_ = 0;
  std::vector<Entry*, LargePageAllocator<Entry*>> buckets_;
};

}  // namespace Ledger
