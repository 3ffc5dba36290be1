// WriterHashMap: the writer's hash chains over the slot and bucket tables.
//
// A key's hash h picks bucket h % numBuckets (numBuckets is a power of two) and orders the
// chain by (rhash, key), rhash being h with its bits reversed. Reversed bits make growth and
// shrink cheap: doubling splits each chain into two chains that keep their order, halving
// merges two chains whose rhashes never tie.
//
// Every walk is bounded by numSlots and checks each slot it reads (in range, OCCUPIED, key
// hashing to this bucket and matching the stored rhash): shared memory may hold anything.
//
// The walk index: this writer keeps, for every slot, the rhash and the link it last stored
// there (8 bytes a slot, in its own memory). A look-up passes the slots of its chain that
// sort before its key, and stops at one that sorts after it, on the index alone: in a table
// of a million entries each slot read is a cache and TLB miss, while the index, a fraction
// of the file's size on large pages, is mostly in cache. Only the slot whose rhash equals
// the key's is read from the file. The index is built from the file when the writer
// attaches (after the file has been validated) and changes with every link or rhash that
// the writer stores; nothing else stores either.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "ledger/BucketTable.h"
#include "ledger/Exceptions.h"
#include "ledger/LargePageAllocator.h"
#include "ledger/SlotWriterTable.h"
#include "zinc/Trace.h"

namespace Ledger {

// The hash map's trace: every miss asks for its level, so it is an object of its own rather
// than a function-local static behind a guard.
extern Zinc::Trace hashMapTrace;

// A predecessor in a chain: a bucket head or a slot's link pair. An index, not a pointer:
// the mappings may move while it is held.
struct LinkRef {
  uint32_t index;
  bool isBucket;
};

// Where a key is or would go: `pred` links to `hit` (kNoSlot on a miss) or, on a miss, to
// `next`, the link that a new slot inserted after `pred` must take over.
struct ChainPosition {
  LinkRef pred;
  uint32_t hit;
  uint32_t next;
};

template <class Key, class OpsT>
class WriterHashMap {
 public:
  WriterHashMap(SlotWriterTable& slots, BucketWriterTable& buckets, const OpsT& ops)
      : slots_(slots), buckets_(buckets), ops_(ops) {}

  uint32_t bucketOf(uint32_t hash) const { return hash & (buckets_.numBuckets() - 1); }

  uint64_t& pair(LinkRef ref) {
    return ref.isBucket ? buckets_.head(ref.index) : slots_.slot(ref.index).linkPair;
  }

  // Each slot met is checked (in range, within the walk's bound, OCCUPIED, its stored key
  // hashing to this bucket and to its rhash) before it is compared. For the slot that holds
  // the sought key the check needs no hashing: its stored key equals the key whose hash we
  // have, so it passes exactly when the slot is OCCUPIED with our rhash.
  // Inline: every write and remove starts here, and a call costs more than a short walk.
  [[gnu::always_inline]] ChainPosition find(const Key& key, uint32_t hash,
                                            const char* who = "WriterHashMap::find()") {
    const uint32_t bucket = bucketOf(hash);
    const uint32_t rhash = reverseBits(hash);
    const uint32_t numSlots = slots_.numSlots();
    ChainPosition pos{{bucket, true}, kNoSlot, 0};
    uint32_t link = SlotWriterTable::loadLink(buckets_.head(bucket));
    for (uint32_t count = 1; !isEndOfChain(link); ++count) {
      if (link >= numSlots || count > numSlots) [[unlikely]] {
        badWalk(who, link, count);
      }
      const SlotHeader& s = slots_.slot(link);
      prefetchSlotTail(s);  // the slot is read unless the index passes it
      const uint64_t indexed = index_[link];
      if (rhashOf(indexed) < rhash) {
        pos.pred = LinkRef{link, false};
        link = nextOf(indexed);
        continue;
      }
      if (rhashOf(indexed) > rhash) break;
      const Key stored = ops_.storedKey(slots_.value(link));
      const bool sameRhash = s.rhash == rhash;
      if (sameRhash && (s.status & kOccupied) && OpsT::equal(stored, key)) {
        pos.hit = link;
        return pos;
      }
      checkStored(s, stored, link, bucket, who);
      if (sameRhash ? OpsT::less(key, stored) : rhash < s.rhash) break;
      pos.pred = LinkRef{link, false};
      link = SlotWriterTable::loadLink(s.linkPair);
    }
    pos.next = link;
    return pos;
  }

  // The slot holding `key`, or kNoSlot: find() for a caller that needs no insertion point
  // (the walk and its checks are the same; what tracks the predecessor drops out).
  [[gnu::always_inline]] uint32_t findSlot(const Key& key, uint32_t hash, const char* who) {
    return find(key, hash, who).hit;
  }

  uint32_t lookup(const Key& key) {
    uint32_t hash = OpsT::hash(key);
    ChainPosition pos = find(key, hash, "WriterHashMap::lookup()");
    if (pos.hit == kNoSlot) {
      if (trace().enabled(9)) [[unlikely]]
        traceMiss(hash);
      miss_ = Miss{key, hash, pos, linkEpoch_};
    }
    return pos.hit;
  }

  // The last miss of lookup(). A writer that looks a key up, finds it absent and then writes
  // it (the LFIB writer does so for every key that it takes afresh) inserts where the look-up
  // ended instead of walking the chain again. Any change of a link or of the bucket count
  // since (an insert, a remove, a move, a resize, an attach) forgets it, and the predecessor
  // must still link where it did.
  bool recallMiss(const Key& key, uint32_t& hash, ChainPosition& pos) {
    if (miss_.epoch != linkEpoch_ || !OpsT::equal(miss_.key, key)) return false;
    miss_.epoch = 0;  // one insert per miss
    if (SlotWriterTable::loadLink(pair(miss_.pos.pred)) != miss_.pos.next) return false;
    hash = miss_.hash;
    pos = miss_.pos;
    return true;
  }
  void forgetMiss() { ++linkEpoch_; }

  // The first slot in table order (see nextBucketInOrder), or kNoSlot.
  uint32_t first() { return firstFrom(0, "WriterHashMap::first()"); }

  // The slot after `prev` in table order, whether or not `prev` is still in the table.
  uint32_t next(const Key& prev, uint32_t hint = kNoSlot) {
    const uint32_t hash = OpsT::hash(prev);
    const uint32_t bucket = bucketOf(hash);
    uint32_t successor;
    if (hint < slots_.numSlots() && (slots_.slot(hint).status & kOccupied) &&
        OpsT::equal(ops_.storedKey(slots_.value(hint)), prev) &&
        bucketOf(OpsT::hash(prev)) == bucket) {
      successor = SlotWriterTable::loadLink(slots_.slot(hint).linkPair);
    } else {
      ChainPosition pos = find(prev, hash, "WriterHashMap::next()");
      successor =
          pos.hit != kNoSlot ? SlotWriterTable::loadLink(slots_.slot(pos.hit).linkPair) : pos.next;
    }
    if (!isEndOfChain(successor)) {
      checkSlot(successor, bucket, "WriterHashMap::next()", 1);
      // The successor must come strictly after `prev`, or iteration would never end.
      const uint32_t rhash = slots_.slot(successor).rhash;
      if (rhash < reverseBits(hash) ||
          (rhash == reverseBits(hash) &&
           !OpsT::less(prev, ops_.storedKey(slots_.value(successor))))) {
        throw CorruptionException("WriterHashMap::next() corrupt rhash detected, slot: " +
                                  std::to_string(successor));
      }
      return successor;
    }
    const uint32_t after = nextBucketInOrder(bucket, buckets_.numBuckets());
    verifyNextBucket(bucket, after);
    return firstFrom(after, "WriterHashMap::next()");
  }

  void verifyNextBucket(uint32_t bucket, uint32_t nextBucket) const {
    if (nextBucket == bucket || nextBucket > buckets_.numBuckets()) {
      throw CorruptionException(
          "WriterHashMap::verifyNextBucket() has bucket: " + std::to_string(bucket) +
          " with next bucket: " + std::to_string(nextBucket) +
          " and numBuckets: " + std::to_string(buckets_.numBuckets()));
    }
  }

  void setLink(LinkRef ref, uint32_t link) {
    ++linkEpoch_;
    SlotWriterTable::storeLink(pair(ref), link);
    if (!ref.isBucket) index_[ref.index] = entryOf(rhashOf(index_[ref.index]), link);
  }
  // A slot taken for an entry, still unreachable: its rhash and its link to `next`.
  void initSlot(uint32_t slot, uint32_t rhash, uint32_t next) {
    SlotWriterTable::storeLink(slots_.slot(slot).linkPair, next);
    // Relaxed: the slot is unreachable and not OCCUPIED; readers ignore what it holds until
    // the final status store (release) of its publication.
    Shm::store(slots_.slot(slot).rhash, rhash, std::memory_order_relaxed);
    if (slot >= index_.size()) index_.resize(slots_.numSlots());
    index_[slot] = entryOf(rhash, next);
  }
  // The index from the file's slots, every one below numSlots: after attach, recovery or a
  // re-format, once the chains are sound.
  void reindex() {
    const uint32_t n = slots_.numSlots();
    index_.resize(n);
    for (uint32_t i = 0; i < n; ++i) {
      const SlotHeader& s = slots_.slot(i);
      index_[i] = entryOf(s.rhash, SlotWriterTable::loadLink(s.linkPair));
    }
  }
  // The first OCCUPIED slot whose rhash or link differs from what the index holds for it,
  // or kNoSlot: a writer that stored one without the other, or a file changed behind it.
  uint32_t indexMismatch() {
    for (uint32_t i = 0; i < slots_.numSlots(); ++i) {
      const SlotHeader& s = slots_.slot(i);
      if ((s.status & kOccupied) &&
          (i >= index_.size() ||
           index_[i] != entryOf(s.rhash, SlotWriterTable::loadLink(s.linkPair)))) {
        return i;
      }
    }
    return kNoSlot;
  }
  void sizeIndex() { index_.resize(slots_.numSlots()); }
  void dropIndex() { decltype(index_)().swap(index_); }
  void prefetchBucket(uint32_t hash) { __builtin_prefetch(&buckets_.head(bucketOf(hash))); }
  // Fetches the chain's first slot as far as a walk reads it before deciding: the header and
  // what follows it (the key, or a slab table's offset), which may start the next line.
  void prefetchFirstSlot(uint32_t hash) {
    uint32_t link = firstSlot(hash);
    if (link >= slots_.numSlots()) return;
    __builtin_prefetch(&index_[link]);
    const auto* bytes = reinterpret_cast<const char*>(&slots_.slot(link));
    __builtin_prefetch(bytes);
    __builtin_prefetch(bytes + std::min<uint32_t>(slots_.slotSize(), kWalkReach) - 1);
  }
  // The first slot of the hash's chain: the end-of-chain bit or an index to check.
  uint32_t firstSlot(uint32_t hash) {
    return SlotWriterTable::loadLink(buckets_.head(bucketOf(hash)));
  }

  // Doubles the bucket count, splitting every chain in two (see Format.h for the readers'
  // side of the resize bracket).
  bool growBuckets() {
    const uint32_t n = buckets_.numBuckets();
    if (n > kMaxSlots / 2 || !buckets_.reserve(2 * n)) return false;
    ZTRACE_TO(trace(), 1, "WriterHashMap::growBuckets() growing from: " << n << " to: " << 2 * n);
    forgetMiss();
    buckets_.beginResize();
    for (uint32_t b = 0; b < n; ++b) {
      prefetchChain(b + kPrefetchDistance, n);
      LinkRef low{b, true}, high{b + n, true};
      uint32_t link = SlotWriterTable::loadLink(buckets_.head(b));
      for (uint32_t count = 0; !isEndOfChain(link);) {
        boundWalk(link, ++count, "WriterHashMap::growBuckets()");
        const uint64_t indexed = index_[link];
        LinkRef& tail = (reverseBits(rhashOf(indexed)) & n) ? high : low;
        setLink(tail, link);
        tail = LinkRef{link, false};
        link = nextOf(indexed);
      }
      setLink(low, kEndOfChain | kNoSlot);
      setLink(high, kEndOfChain | kNoSlot);
    }
    buckets_.endResize(2 * n);
    return true;
  }

  // Halves the bucket count: bucket b takes over bucket b + n/2's chain, merged by rhash
  // (the two chains differ in one hash bit, so their rhashes never tie).
  void shrinkBuckets() {
    const uint32_t half = buckets_.numBuckets() / 2;
    forgetMiss();
    buckets_.beginResize();
    for (uint32_t b = 0; b < half; ++b) {
      prefetchChain(b + kPrefetchDistance, half);
      prefetchChain(b + half + kPrefetchDistance, 2 * half);
      uint32_t a = SlotWriterTable::loadLink(buckets_.head(b));
      uint32_t c = SlotWriterTable::loadLink(buckets_.head(b + half));
      LinkRef tail{b, true};
      for (uint32_t count = 0; !isEndOfChain(a) || !isEndOfChain(c);) {
        if (!isEndOfChain(a)) boundWalk(a, count + 1, "WriterHashMap::shrinkBuckets()");
        if (!isEndOfChain(c)) boundWalk(c, count + 1, "WriterHashMap::shrinkBuckets()");
        bool takeA =
            isEndOfChain(c) || (!isEndOfChain(a) && rhashOf(index_[a]) < rhashOf(index_[c]));
        uint32_t& taken = takeA ? a : c;
        ++count;
        uint32_t following = nextOf(index_[taken]);
        setLink(tail, taken);
        tail = LinkRef{taken, false};
        taken = following;
      }
      setLink(tail, kEndOfChain | kNoSlot);
      setLink(LinkRef{b + half, true}, kEndOfChain | kNoSlot);
    }
    buckets_.endResize(half);
    buckets_.release(half);
    ZTRACE_TO(trace(), 1, "WriterHashMap::shrinkBuckets() shrunk to numBuckets: " << half);
  }

 private:
  // Chains are mostly one or two slots long: fetching the first slot of a bucket a few
  // buckets ahead overlaps the cache misses of a whole-table walk.
  static constexpr uint32_t kPrefetchDistance = 8;
  // The bytes of a slot that a walk reads before it decides: the 16-byte header and the key
  // (the keys of the published tables are at most 16 bytes; a slab table's offset is 8).
  static constexpr uint32_t kWalkReach = 32;
  // A walk in table order reads the buckets out of sequence: it fetches the bucket twice
  // kWalkAhead ahead, and the first slot of the one kWalkAhead ahead, whole (its bucket
  // fetched by an earlier step), so that the misses of several steps overlap.
  void prefetchAheadInOrder(uint32_t bucket, uint32_t n) {
    const uint32_t far = bucketAheadInOrder(bucket, n, 2 * kWalkAhead);
    if (far < n) __builtin_prefetch(&buckets_.head(far));
    const uint32_t near = bucketAheadInOrder(bucket, n, kWalkAhead);
    if (near >= n) return;
    const uint32_t link = SlotWriterTable::loadLink(buckets_.head(near));
    if (link >= slots_.numSlots()) return;
    prefetchSpan(&slots_.slot(link), slotSizeFor(ops_.valueSize()));  // a step copies it out
  }
  void prefetchChain(uint32_t bucket, uint32_t end) {
    if (bucket >= end) return;
    uint32_t link = SlotWriterTable::loadLink(buckets_.head(bucket));
    if (link >= slots_.numSlots()) return;
    __builtin_prefetch(&index_[link]);
    __builtin_prefetch(&slots_.slot(link), 1);  // its link pair is stored
  }

  // A slot spans several cache lines; a hit copies all of them (look-aside copy, value).
  // Asking for the rest while the first line, which holds the key, is on its way overlaps
  // those misses with the one the walk must wait for. The slot's size follows from the value
  // size the ops know (a constant for fixed-size values: the loop unrolls), and its last
  // byte's line is asked for too, which a slot that starts late in a line reaches.
  void prefetchSlotTail(const SlotHeader& s) const {
    prefetchSpan(&s, slotSizeFor(ops_.valueSize()), 64);
  }

  static const Zinc::Trace& trace() { return hashMapTrace; }
  [[gnu::cold, gnu::noinline]] void traceMiss(uint32_t hash) const {
    ZTRACE_TO(trace(), 9, "WriterHashMap::lookup() not found bucket:" << bucketOf(hash));
  }

  void boundWalk(uint32_t link, uint32_t count, const char* who) const {
    if (link >= slots_.numSlots() || count > slots_.numSlots()) [[unlikely]] {
      badWalk(who, link, count);
    }
  }
  [[noreturn]] [[gnu::cold]] [[gnu::noinline]] void badWalk(const char* who, uint32_t link,
                                                            uint32_t count) const {
    if (link >= slots_.numSlots()) {
      throw CorruptionException(std::string(who) +
                                " corrupt link detected, slot: " + std::to_string(link));
    }
    throw CorruptionException(std::string(who) +
                              " hash chain cycle detected, slotCount:" + std::to_string(count));
  }

  // The slot at `link` is OCCUPIED and its stored key belongs to `bucket` and to its rhash.
  void checkStored(const SlotHeader& s, const Key& stored, uint32_t link, uint32_t bucket,
                   const char* who) const {
    const uint32_t hash = OpsT::hash(stored);
    if (!(s.status & kOccupied) || bucketOf(hash) != bucket || s.rhash != reverseBits(hash))
        [[unlikely]] {
      corruptKey(who, link, bucket);
    }
  }
  [[noreturn]] [[gnu::cold]] [[gnu::noinline]] static void corruptKey(const char* who,
                                                                      uint32_t link,
                                                                      uint32_t bucket) {
    throw CorruptionException(std::string(who) + " corrupt key detected, slot: " +
                              std::to_string(link) + " bucket: " + std::to_string(bucket));
  }

  void checkSlot(uint32_t link, uint32_t bucket, const char* who, uint32_t count) {
    boundWalk(link, count, who);
    checkStored(slots_.slot(link), ops_.storedKey(slots_.value(link)), link, bucket, who);
  }

  // The first slot of the first non-empty bucket from `bucket` on, in table order.
  uint32_t firstFrom(uint32_t bucket, const char* who) {
    const uint32_t n = buckets_.numBuckets();
    for (uint32_t b = bucket; b < n; b = nextBucketInOrder(b, n)) {
      prefetchAheadInOrder(b, n);
      uint32_t link = SlotWriterTable::loadLink(buckets_.head(b));
      if (isEndOfChain(link)) continue;
      checkSlot(link, b, who, 1);
      return link;
    }
    return kNoSlot;
  }

  static uint64_t entryOf(uint32_t rhash, uint32_t link) { return uint64_t{rhash} << 32 | link; }
  static uint32_t rhashOf(uint64_t entry) { return static_cast<uint32_t>(entry >> 32); }
  static uint32_t nextOf(uint64_t entry) { return static_cast<uint32_t>(entry); }

  struct Miss {
    Key key{};
    uint32_t hash = 0;
    ChainPosition pos{};
    uint64_t epoch = 0;  // linkEpoch_ when it was taken; 0: none
  };

  SlotWriterTable& slots_;
  BucketWriterTable& buckets_;
  const OpsT& ops_;
  uint64_t linkEpoch_ = 1;
  Miss miss_;
  // Per slot: entryOf(rhash, link), as this writer last stored them (see the top).
  std::vector<uint64_t, LargePageAllocator<uint64_t>> index_;
};

}  // namespace Ledger
