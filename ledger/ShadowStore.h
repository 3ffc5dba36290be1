// ShadowStore: what this reader last saw in each of the writer's slots, in process memory,
// and the one operation that turns "slot i changed" into per-key notifications: doSlot.
//
// A slot index says only where something changed; between two looks a slot may have been
// rewritten, freed, re-used for another key, or its entry moved to a lower slot by a shrink.
// Comparing the writer's slot with the shadow's copy of it reports every key that appeared,
// changed or vanished exactly once, and drops unchanged rewrites and moves.
//
// Two kinds of shadow slot:
//  - ValueShadowSlot keeps the stored bytes of the value: lookups by key are answered from
//    the shadow, and "unchanged" means byte-equal.
//  - KeyShadowSlot keeps only the key and a 64-bit digest of the stored bytes, for readers
//    that want changes by key but not the values (KeyShadowStore).
// A table whose values live out of line (slabs) has copies as long as each value; its shadow
// keeps each one in a block of its own instead of one fixed-size array.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "ledger/Exceptions.h"
#include "ledger/LargePageAllocator.h"
#include "ledger/LedgerReader.h"
#include "ledger/ShadowHashMap.h"
#include "ledger/StreamCopy.h"
#include "zinc/Hash.h"
#include "zinc/Trace.h"

namespace Ledger {

// The notifiee of a shadow: `onKey` once per key that appeared or changed (with its value)
// or vanished (value null); `onBatch` after a batch of changes has been delivered.
template <class Key, class Value>
struct Notify {
  std::function<void()> onBatch;
  std::function<void(const Key&, const Value*)> onKey;
};

// A notifier that does nothing, for shadows nobody listens to.
struct DummyShadowNotifier {
  template <class Key, class Value>
  operator Notify<Key, Value>() const {
    return {};
  }
};

namespace ShadowDetail {

// A 64-bit digest of `n` bytes in one pass, sixteen bytes a step on two independent lanes:
// what a key shadow compares to tell a changed value from an unchanged rewrite.
inline uint64_t digestBytes(const uint8_t* p, uint32_t n) {
  constexpr uint64_t k1 = 0x9e3779b97f4a7c15ull, k2 = 0xc2b2ae3d27d4eb4full;
  uint64_t a = (n + 1) * k1, b = (n + 1) * k2;
  auto step = [&](const uint8_t* at) {
    uint64_t w0, w1;
    std::memcpy(&w0, at, 8);
    std::memcpy(&w1, at + 8, 8);
    a = std::rotl(a ^ (w0 * k2), 31) * k1;
    b = std::rotl(b ^ (w1 * k1), 29) * k2;
  };
  uint32_t i = 0;
  for (; i + 16 <= n; i += 16) step(p + i);
  uint8_t tail[16] = {};
  std::memcpy(tail, p + i, n - i);
  step(tail);
  uint64_t h = a ^ std::rotl(b, 32);
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdull;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ull;
  return h ^ (h >> 33);
}

}  // namespace ShadowDetail

struct ValueShadowSlot {
  static constexpr bool kValues = true;
};
struct KeyShadowSlot {
  static constexpr bool kValues = false;
};

template <class Key, class Value, class OpsT = Ops<Key, Value>, class SlotKind = ValueShadowSlot>
class ShadowStore {
 public:
  struct NoDigest {};
  struct Entry {
    uint32_t rhash = 0;
    bool occupied = false;
    Key key{};
    // KeyShadowSlot: digest of the stored bytes (a value shadow compares the bytes).
    [[no_unique_address]] std::conditional_t<SlotKind::kValues, NoDigest, uint64_t> digest{};
  };
  using Reader = LedgerReader<Key, Value, OpsT>;
  using CorruptionHook = std::function<void(const std::string& why)>;
  static constexpr bool kVariable = OutOfLineOps<OpsT>;

  ShadowStore(Reader& reader, Notify<Key, Value> notify)
      : reader_(reader), notify_(std::move(notify)) {}

  uint32_t numSlots() const { return uint32_t(entries_.size()); }
  uint32_t members() const { return map_.size(); }
  void notifyIs(Notify<Key, Value> notify) { notify_ = std::move(notify); }
  const Notify<Key, Value>& notify() const { return notify_; }
  uint64_t notifications() const { return notifications_; }
  // Where a slot whose entry, read whole, does not decode is reported. The slot counts as
  // holding nothing, and everything else goes on.
  void corruptionHookIs(CorruptionHook hook) { onCorruption_ = std::move(hook); }

  // The shadow's value of `key` (ValueShadowSlot only). A shadow that tells nobody copies
  // values in bulk without decoding them: one that turns out not to decode is reported here,
  // once, and its key leaves the shadow (it reads as absent until the writer's slot changes).
  bool lookup(const Key& key, Value& out) {
    const uint32_t slot = slotOfKey(key);
    return slot != kNoSlot && valueAt(slot, out);
  }
  bool contains(const Key& key) const { return slotOfKey(key) != kNoSlot; }
  uint32_t slotOfKey(const Key& key) const { return find(key, rhashOf(key)); }
  // The shadow's keys in table order, ascending (rhash, key) as in the writer's table: the
  // slot of the first, and of the one after `key` (held or not); kNoSlot past the last.
  static_assert(ShadowHashMap::kNone == kNoSlot);
  uint32_t firstInOrder() const { return map_.first(); }
  uint32_t afterInOrder(const Key& key) const {
    uint32_t ahead = kNoSlot;
    const uint32_t slot = map_.after(rhashOf(key), orderTo(key), &ahead);
    if (ahead != kNoSlot) prefetchStored(ahead);  // a walk reads it a few steps on
    return slot;
  }
  // The value of the shadow's `slot`, held; false when it does not decode (as lookup()).
  bool valueAt(uint32_t slot, Value& out) {
    static_assert(SlotKind::kValues, "a key shadow keeps no values");
    try {
      reader_.ops().load(storedAt(slot), out);
      return true;
    } catch (const CorruptionException& e) {
      reportCorrupt(slot, e.what());
      unlink(slot);
      return false;
    }
  }
  // From the slot `at` of a walk in table order on, the first whose value decodes, that value
  // in `out`; kNoSlot past the last.
  uint32_t valueFrom(uint32_t at, Value& out) {
    while (at != kNoSlot && !valueAt(at, out)) at = afterInOrder(entries_[at].key);
    return at;
  }
  // Every key in the shadow with its value (ValueShadowSlot) or null; a value that does not
  // decode is passed over (as lookup()).
  template <class Fn>
  void forEach(Fn fn) {
    Value v{};
    for (uint32_t i = 0; i < entries_.size(); ++i) {
      if (!entries_[i].occupied) continue;
      if constexpr (SlotKind::kValues) {
        if (valueAt(i, v)) fn(entries_[i].key, &v);
      } else {
        fn(entries_[i].key, static_cast<const Value*>(nullptr));
      }
    }
  }

  // The writer's slot `slotIndex` changed (or may have): compare and notify.
  //  1. grow the shadow to cover the index (indexes beyond the writer's table hold nothing;
  //     one beyond the writer's file is corruption, never a size to grow to);
  //  2. read the writer's slot consistently (an entry that does not decode is reported, and
  //     the slot counts as holding nothing);
  //  3. a shadow key that is no longer there (slot freed or holding another key) leaves the
  //     shadow and is notified as gone;
  //  4. an unchanged value ends it, silently;
  //  5. otherwise the shadow takes the new key and value, and the key is notified.
  // An entry that a shrink moved to this slot from another one is taken over without a
  // notification when its value did not change. A notifiee may detach the reader from its
  // callback: nothing of the writer's table is read after that.
  void doSlot(uint32_t slotIndex, uint64_t sequence, bool notifying = true) {
    (void)sequence;
    if (!reader_.attached()) return;
    if (slotIndex >= entries_.size()) {
      if (slotIndex >= reader_.slotTable().numSlots()) return;
      reader_.mapSlot(slotIndex);
      grow(slotIndex + 1);
    }
    Key key{};
    SlotRead read = readSlot(slotIndex, key);
    Entry* e = &entries_[slotIndex];
    if (e->occupied && (read != SlotRead::held || !OpsT::equal(e->key, key))) {
      // A corrupt slot (reported) holds no key for the leaving ones to be found in.
      leave(slotIndex, notifying, read == SlotRead::corrupt ? slotIndex : kNoSlot);
      if (!reader_.attached()) return;  // detached by the notifiee
      e = &entries_[slotIndex];         // leave() may have grown the shadow
      // leave() read the writer's table again and found this slot's new key here: what it
      // took is newer than our read, which must not overwrite it.
      if (e->occupied) return;
      // A corrupt slot, reported, is not read again.
      if (read == SlotRead::corrupt) return;
      // leave() may also have followed this slot's new key to where the writer moved it
      // since our read, and kept that newer copy there: read the slot again, so that
      // nothing older than what the shadow holds is taken.
      read = readSlot(slotIndex, key);
    }
    if (read != SlotRead::held) return;
    if (e->occupied) {
      if (sameAs(slotIndex, stored_.data())) return;
      keep(slotIndex, stored_.data());
      emit(notifying, key, &scratch_);
      return;
    }
    take(slotIndex, key, rhashOf(key), stored_.data(), notifying);
  }

  // A sync's walk over slots [first, last): doSlot for each, with the same outcome, but in
  // bulk where it can be. Groups of slots that the shadow does not hold yet are copied between
  // two loads of their status words (the consistent read, a group at a time): a value shadow
  // copies straight into its values, a key shadow into a buffer for the group, from which it
  // takes each key and the digest of its value. A slot whose status moved, or that is being
  // rewritten, or that the shadow holds already, takes doSlot. Returns the slot after the last
  // one done: `last`, or earlier when `stop()` answers true after a notification (the
  // notifiee may have restarted or ended the sync).
  template <class Stop>
  uint32_t syncSlots(uint32_t first, uint32_t last, bool notifying, Stop stop) {
    for (uint32_t slot = first; slot < last;) {
      const uint32_t bulk = bulkEnd(slot, std::min(last, slot + kBulkGroup));
      if (bulk > slot) {
        slot = syncGroup(slot, bulk, notifying, stop);
        if (slot < bulk) return slot;
        continue;
      }
      const uint64_t before = notifications_;
      prefetchForWalk(slot);
      doSlot(slot++, 0, notifying);
      if (halted(before, notifying, stop)) return slot;
    }
    return last;
  }

  // Makes room for the writer's table as it stands before a full walk: the slot arrays are
  // sized once and the hash map for as many entries as the table has slots, instead of
  // growing by doubling on the way (every doubling copies the slots and re-points or
  // re-hashes every entry; a writer that sized its table for a bulk load fills it while we
  // follow). Bounded by what is mapped: the header's counts are not trusted with an
  // allocation.
  void reserve() {
    const SlotReaderTable& table = reader_.slotTable();
    const uint32_t slots = std::min(table.numSlots(), table.mappedSlots());
    if (slots > entries_.size()) resize(slots);
    map_.reserve(slots);
  }
  // A walk over the slots in order (a sync) is at `slotIndex`: fetch ahead what the next
  // slots will need, in the order they need it: the pages of the writer's slots a chunk at a
  // time, the writer's slot, then the shadow's hash bucket for the key it holds. The
  // bucket comes from the slot's rhash, read early and unchecked: a wrong guess only costs a
  // useless fetch.
  void prefetchForWalk(uint32_t slotIndex) const {
    const SlotReaderTable& table = reader_.slotTable();
    const uint64_t mapped = table.mappedSlots();
    if (slotIndex % kPopulateChunk == 0) table.populate(slotIndex + kPopulateChunk, kPopulateChunk);
    if (slotIndex + uint64_t{kAheadSlot} < mapped) table.prefetch(slotIndex + kAheadSlot);
    if (slotIndex + uint64_t{kAheadBucket} < mapped) {
      map_.prefetch(rhashGuessOf(slotIndex + kAheadBucket));
    }
  }

  // The rally queue told of `slotIndex`: when it follows the slot told of before, the writer
  // is filling slots in order (a bulk load), and the next slots are fetched ahead as a walk
  // does. Out of order, nothing is fetched: a guess would cost a miss of its own.
  void prefetchForRun(uint32_t slotIndex) {
    if (slotIndex == lastTold_ + 1) prefetchForWalk(slotIndex);
    lastTold_ = slotIndex;
  }

  // Slots at or above `numSlots` that hold nothing are dropped (the writer's table shrank).
  void tryShrink(uint32_t numSlots) {
    if (numSlots >= entries_.size() || entries_.size() < 2 * uint64_t{numSlots} + 64) return;
    for (uint32_t i = numSlots; i < entries_.size(); ++i) {
      if (entries_[i].occupied) return;
    }
    shrink(numSlots);
  }
  void shrink(uint32_t newNumSlots) {
    ZTRACE_TO(ShadowDetail::trace(), 5, "ShadowStore::shrink() newNumSlots:" << newNumSlots);
    resize(newNumSlots);
    map_.shrink();
  }
  // Empties the shadow, notifying nothing.
  void flush() {
    entries_.clear();
    values_.clear();
    blocks_.clear();
    map_.clear();
  }

 private:
  // How far ahead of a sync's walk each fetch goes (prefetchForWalk).
  static constexpr uint32_t kAheadSlot = 24;
  static constexpr uint32_t kAheadBucket = 16;
  static constexpr uint32_t kPopulateChunk = 4096;

  static constexpr uint32_t kBulkGroup = 32;

  // Where a bulk group from `first` must end (at most `end`): bulk copies are of fixed-size
  // values of slots that both tables cover. `first` itself when none can.
  uint32_t bulkEnd(uint32_t first, uint32_t end) const {
    if constexpr (!kVariable) {
      const SlotReaderTable& table = reader_.slotTable();
      const uint32_t covered = std::min({table.numSlots(), table.mappedSlots(), numSlots()});
      return std::max(first, std::min(end, covered));
    } else {
      (void)end;
      return first;
    }
  }
  // Whether the walk must stop: a notifiee ran since `before` and `stop()` says so, or it
  // detached the reader.
  template <class Stop>
  bool halted(uint64_t before, bool notifying, Stop& stop) const {
    return notifications_ != before &&
           (!reader_.attached() || (notifying && notify_.onKey && stop()));
  }
  // Slots [first, end) of the writer's table (below its numSlots and the mapping) into the
  // shadow (below its numSlots): status words, copies of the values the shadow does not hold, a
  // fence, the status words again; each slot whose status held and that is OCCUPIED without
  // LOOKASIDE is taken from its copy, every other slot goes through doSlot. Returns the slot
  // after the last one done.
  //
  // The walk is bound by memory. The writer's slots are read in order, which the processor
  // fetches ahead by itself within a page (and the pages are populated a chunk ahead). What
  // it cannot guess is the hash bucket of each key: that is fetched as soon as the value is
  // copied, by the key read with it (a torn read only costs a useless fetch: its status does
  // not hold), and used a group later. Fetching it earlier, from the writer's slot further
  // ahead, costs a stalling load of that slot first.
  //
  // A value shadow that nobody is told of copies past the cache (streamCopy): the walk does
  // not read those copies again, and stores through the cache would first fetch every line
  // they fill, and evict the hash map for it.
  template <class Stop>
  uint32_t syncGroup(uint32_t first, uint32_t end, bool notifying, Stop& stop) {
    static_assert(kBulkGroup <= 32, "one bit a slot of the group");
    BulkGroup group;
    const bool stream = SlotKind::kValues && !(notifying && notify_.onKey);
    bulkFirst_ = first;
    bulkCopied_ = 0;
    if constexpr (!SlotKind::kValues) groupCopies_.resize(uint64_t{kBulkGroup} * valueSize());
    copyGroup(first, end, stream, group);
    if (stream) streamFence();
    // Acquire fence: the copies above are ordered before the status words' second loads.
    std::atomic_thread_fence(std::memory_order_acquire);
    const uint32_t reached = takeGroup(first, end, notifying, stop, group);
    bulkCopied_ = 0;
    return reached;
  }
  struct BulkGroup {
    std::array<uint32_t, kBulkGroup> status;   // each slot's status word, as first loaded
    std::array<uint32_t, kBulkGroup> rhashes;  // of the keys copied (bulkCopied_)
    std::array<Key, kBulkGroup> keys;
  };
  // syncGroup's first pass: each slot's status word and, for a settled slot that the shadow
  // does not hold, a copy of its value, its key and the fetch of that key's bucket.
  void copyGroup(uint32_t first, uint32_t end, bool stream, BulkGroup& group) {
    const SlotReaderTable& table = reader_.slotTable();
    const uint32_t size = valueSize();
    for (uint32_t slot = first; slot < end; ++slot) {
      const uint32_t at = slot - first;
      if (slot % kPopulateChunk == 0) table.populate(slot + kPopulateChunk, kPopulateChunk);
      group.status[at] = Shm::load(table.slot(slot).status, std::memory_order_acquire);
      if (!settled(group.status[at]) || entries_[slot].occupied) continue;
      const uint8_t* from = table.value(slot);
      if (stream) {
        streamCopy(copyPlace(slot, first), from, size);
      } else {
        std::memcpy(copyPlace(slot, first), from, size);
      }
      if (!keyOfUnconfirmed(from, group.keys[at])) continue;  // doSlot reads it again
      group.rhashes[at] = rhashOf(group.keys[at]);
      map_.prefetch(group.rhashes[at]);
      bulkCopied_ |= 1u << at;
    }
  }
  // syncGroup's second pass: the status words again. Returns the slot after the last one done.
  template <class Stop>
  uint32_t takeGroup(uint32_t first, uint32_t end, bool notifying, Stop& stop,
                     const BulkGroup& group) {
    const SlotReaderTable& table = reader_.slotTable();
    for (uint32_t slot = first; slot < end; ++slot) {
      const uint32_t at = slot - first, was = group.status[at];
      const bool held = Shm::load(table.slot(slot).status, std::memory_order_relaxed) == was;
      const uint64_t before = notifications_;
      // Only a copy still whole is taken: a slot that an earlier slot of the group vacated
      // since (its entry moved there) was not copied, and one filled since has lost its copy
      // (fill() drops the bit); both are read afresh.
      if (held && (bulkCopied_ >> at & 1) && !entries_[slot].occupied) {
        takeCopied(slot, group.keys[at], group.rhashes[at], copyPlace(slot, first), notifying);
      } else if (!held || (was & kOccupied) || entries_[slot].occupied) {
        doSlot(slot, 0, notifying);
      }  // else free in both: nothing to do
      if (halted(before, notifying, stop)) return slot + 1;
    }
    return end;
  }
  static bool settled(uint32_t status) { return (status & (kOccupied | kLookaside)) == kOccupied; }
  // The key of bytes copied before their status word was checked again: false when they do
  // not decode, which may be a rewrite tearing them as well as corruption (doSlot's
  // consistent read tells which).
  bool keyOfUnconfirmed(const uint8_t* from, Key& key) const {
    return decodes([&] { key = reader_.ops().storedKey(from); });
  }
  // Where a bulk group from `first` copies the value of `slot`.
  uint8_t* copyPlace(uint32_t slot, uint32_t first) {
    if constexpr (SlotKind::kValues) {
      (void)first;
      return values_.data() + uint64_t{slot} * valueSize();
    } else {
      return groupCopies_.data() + uint64_t{slot - first} * valueSize();
    }
  }
  // The value of `slot` copied to `stored` is whole: the slot's key (of `rhash`) is taken.
  // A value that does not decode takes doSlot, which reports it.
  void takeCopied(uint32_t slot, const Key& key, uint32_t rhash, const uint8_t* stored,
                  bool notifying) {
    if (notifying && notify_.onKey && !decodes([&] { reader_.ops().load(stored, scratch_); })) {
      return doSlot(slot, 0, notifying);
    }
    take(slot, key, rhash, stored, notifying);
  }

  // The rhash of the key in the writer's slot, read unchecked: a guess to fetch by.
  uint32_t rhashGuessOf(uint32_t slot) const {
    return Shm::load(reader_.slotTable().slot(slot).rhash, std::memory_order_relaxed);
  }

  enum class SlotRead { free, held, corrupt };
  // The writer's slot into scratch_ (decoded) and stored_ (its stored bytes): whether it
  // holds an entry, and that entry's key. An entry that does not decode is reported.
  SlotRead readSlot(uint32_t slotIndex, Key& key) {
    if (!reader_.readStored(slotIndex)) return SlotRead::free;
    const uint8_t* bytes = reader_.slotBuffer();
    if (!decoded(slotIndex, bytes, key, scratch_)) return SlotRead::corrupt;
    stored_.assign(bytes, bytes + lengthOf(bytes));
    return SlotRead::held;
  }
  // The key and value of `stored`, read whole from the writer's `slot`; false, reported, when
  // they do not decode: those bytes are no entry.
  bool decoded(uint32_t slot, const uint8_t* stored, Key& key, Value& value) {
    try {
      reader_.ops().load(stored, value);
      key = reader_.ops().storedKey(stored);
      return true;
    } catch (const CorruptionException& e) {
      reportCorrupt(slot, e.what());
      return false;
    }
  }
  [[gnu::noinline]] void reportCorrupt(uint32_t slot, const char* why) {
    const std::string what = "ShadowStore: slot " + std::to_string(slot) +
                             " holds an entry that does not decode: " + why;
    ZTRACE_TO(ShadowDetail::trace(), 0, what);
    if (onCorruption_) onCorruption_(what);
  }
  // The slot that holds `key` in the shadow, or kNoSlot.
  uint32_t find(const Key& key, uint32_t rhash) const { return map_.find(rhash, orderTo(key)); }
  // The key's place in table order: its hash with the bits reversed.
  static uint32_t rhashOf(const Key& key) { return reverseBits(OpsT::hash(key)); }
  // The hash map's comparison: where the key of a slot sorts against `key`.
  auto orderTo(const Key& key) const {
    return [this, &key](uint32_t slot) {
      const Key& held = entries_[slot].key;
      return OpsT::equal(held, key) ? 0 : OpsT::less(held, key) ? -1 : 1;
    };
  }
  // The key of `slot` leaves the shadow's map.
  void unlink(uint32_t slot) {
    map_.erase(slot, entries_[slot].rhash);
    entries_[slot].occupied = false;
  }
  void prefetchStored(uint32_t slot) const {
    if constexpr (kVariable) {
      __builtin_prefetch(&blocks_[slot]);
    } else {
      prefetchSpan(storedAt(slot), valueSize());
    }
  }
  const uint8_t* storedAt(uint32_t slot) const {
    if constexpr (kVariable) return blocks_[slot].data();
    return values_.data() + uint64_t{slot} * valueSize();
  }
  uint32_t valueSize() const { return reader_.slotTable().valueSize(); }
  uint32_t lengthOf(const uint8_t* stored) const { return reader_.storedLength(stored); }

  bool sameAs(uint32_t slot, const uint8_t* stored) const {
    if constexpr (SlotKind::kValues) {
      const uint32_t n = lengthOf(stored);
      return lengthOf(storedAt(slot)) == n && std::memcmp(storedAt(slot), stored, n) == 0;
    } else {
      return entries_[slot].digest == digest(stored);
    }
  }
  void keep(uint32_t slot, const uint8_t* stored) {
    if constexpr (SlotKind::kValues && kVariable) {
      blocks_[slot].assign(stored, stored + lengthOf(stored));
    } else if constexpr (SlotKind::kValues) {
      uint8_t* at = values_.data() + uint64_t{slot} * valueSize();
      if (at != stored) std::memcpy(at, stored, valueSize());  // a bulk copy is in place
    } else {
      entries_[slot].digest = digest(stored);
    }
  }
  uint64_t digestAt(uint32_t slot) const {
    if constexpr (SlotKind::kValues) {
      return 0;
    } else {
      return entries_[slot].digest;
    }
  }
  uint64_t digest(const uint8_t* stored) const {
    return ShadowDetail::digestBytes(stored, lengthOf(stored));
  }
  // The shadow's key of `slot` is no longer there. If the writer holds it in another slot
  // (a shrink moved it, or it was removed and written again), the entry follows it there,
  // silently when its value did not change: the queue may tell of the old slot before the
  // new one. Otherwise the key is gone.
  //
  // The shadow may still hold, in that other slot, a key that the writer has moved on or
  // removed since: that key leaves first, and so on down the line. A reader that fell behind
  // a churning writer finds such lines many slots long, so they are followed one at a time
  // from a stack, each key's slot looked up afresh when its turn comes (the writer may have
  // moved it meanwhile). Every step either empties a shadow slot or fills one, so the walk
  // ends; the bound only guards against a writer that keeps moving keys under it, and a key
  // still unplaced then is reported gone (and added again when its slot is told of). A key
  // found in `corruptSlot`, whose entry was read whole and does not decode, is gone too.
  //
  // A table that cannot be looked in (corruption, thrown on to the walk that reports it) leaves
  // the keys still on their way out no longer in the shadow: they are told gone, so that the
  // notifiee holds what the shadow holds, and told again when a later sync finds them.
  void leave(uint32_t slot, bool notifying, uint32_t corruptSlot = kNoSlot) {
    leaving_.clear();
    leaving_.push_back(takeOut(slot));
    try {
      followLine(notifying, corruptSlot);
    } catch (const CorruptionException&) {
      std::vector<Leaving> lost;
      lost.swap(leaving_);
      for (const Leaving& l : lost) emit(notifying, l.key, nullptr);
      throw;
    }
  }
  void followLine(bool notifying, uint32_t corruptSlot) {
    std::vector<Leaving>& line = leaving_;
    for (uint64_t steps = 0; !line.empty(); ++steps) {
      const Leaving& top = line.back();
      // A notifiee that detached the reader left no table to look in: the rest are gone.
      const uint32_t at = reader_.attached() ? reader_.findSlot(top.key) : kNoSlot;
      const bool held = at != kNoSlot && at != corruptSlot && at < reader_.slotTable().numSlots();
      if (held && at >= entries_.size()) grow(at + 1);
      if (held && entries_[at].occupied && steps < 2 * uint64_t{entries_.size()}) {
        line.push_back(takeOut(at));  // its key leaves first
        continue;
      }
      if (held && !entries_[at].occupied) {
        arrive(at, top, notifying);
      } else {
        emit(notifying, top.key, nullptr);
      }
      line.pop_back();
    }
  }
  // A key on its way out of a shadow slot, with what the shadow knew of its value.
  struct Leaving {
    Key key;
    std::vector<uint8_t> kept;
    uint64_t keptDigest;
  };
  Leaving takeOut(uint32_t slot) {
    Leaving out{entries_[slot].key, bytesOf(slot), digestAt(slot)};
    unlink(slot);
    return out;
  }
  // `leaving` found by findSlot() in the free shadow slot `slot`: the stored bytes that
  // findSlot() read go there, and the key is reported only when they differ from what it had.
  // Bytes that do not decode are no entry: the key is gone.
  void arrive(uint32_t slot, const Leaving& leaving, bool notifying) {
    const uint8_t* now = reader_.slotBuffer();
    const uint32_t n = lengthOf(now);
    const bool unchanged = SlotKind::kValues ? leaving.kept.size() == n &&
                                                   std::memcmp(leaving.kept.data(), now, n) == 0
                                             : leaving.keptDigest == digest(now);
    if (unchanged) return place(slot, leaving.key, now);
    Key key{};
    Value value{};
    if (!decoded(slot, now, key, value)) return emit(notifying, leaving.key, nullptr);
    place(slot, leaving.key, now);
    emit(notifying, leaving.key, &value);
  }

  // This slot's new key (of `rhash`; the slot is free in the shadow): taken over from another
  // slot when a shrink moved it here (silently when its value did not change), else a new
  // key. One probe of the hash map either way.
  void take(uint32_t slot, const Key& key, uint32_t rhash, const uint8_t* stored, bool notifying) {
    bool unchanged = false;
    const uint32_t moved = map_.findOrInsert(slot, rhash, orderTo(key));
    if (moved != ShadowHashMap::kNone) {
      unchanged = sameAs(moved, stored);
      entries_[moved].occupied = false;
      map_.repoint(rhash, moved, slot);
    }
    fill(slot, key, rhash, stored);
    if (!unchanged) emit(notifying, key, &scratch_);
  }

  void place(uint32_t slot, const Key& key, const uint8_t* stored) {
    const uint32_t rhash = rhashOf(key);
    fill(slot, key, rhash, stored);
    map_.insert(slot, rhash, orderTo(key));
  }
  // The shadow's slot holds `key` (of `rhash`) with `stored`; the hash map is the caller's.
  void fill(uint32_t slot, const Key& key, uint32_t rhash, const uint8_t* stored) {
    if (bulkCopied_ && slot - bulkFirst_ < kBulkGroup) bulkCopied_ &= ~(1u << (slot - bulkFirst_));
    Entry& e = entries_[slot];
    e.occupied = true;
    e.key = key;
    e.rhash = rhash;
    keep(slot, stored);
  }

  std::vector<uint8_t> bytesOf(uint32_t slot) const {
    if constexpr (SlotKind::kValues) {
      return std::vector<uint8_t>(storedAt(slot), storedAt(slot) + lengthOf(storedAt(slot)));
    } else {
      return std::vector<uint8_t>(valueSize(), 0);
    }
  }

  void emit(bool notifying, const Key& key, const Value* value) {
    ++notifications_;
    if (notifying && notify_.onKey) notify_.onKey(key, value);
  }

  void grow(uint32_t atLeast) {
    uint64_t n = std::max<uint64_t>(64, entries_.size());
    while (n < atLeast) n *= 2;
    n = std::min<uint64_t>(n, std::max(atLeast, reader_.slotTable().numSlots()));
    ZTRACE_TO(ShadowDetail::trace(), 7, "ShadowStore::grow() to " << n);
    resize(uint32_t(n));
  }
  void resize(uint32_t n) {
    entries_.resize(n);
    entries_.shrink_to_fit();
    if constexpr (SlotKind::kValues && kVariable) {
      blocks_.resize(n);
      blocks_.shrink_to_fit();
    } else if constexpr (SlotKind::kValues) {
      values_.resize(uint64_t{n} * valueSize());
      values_.shrink_to_fit();
    }
  }

  Reader& reader_;
  Notify<Key, Value> notify_;
  std::vector<Entry, LargePageAllocator<Entry>> entries_;
  std::vector<uint8_t, LargePageAllocator<uint8_t>> values_;
  std::vector<std::vector<uint8_t>> blocks_;  // kVariable: one copy per slot
  std::vector<Leaving> leaving_;              // leave()'s line of keys, kept for its capacity
  ShadowHashMap map_;
  Value scratch_{};
  std::vector<uint8_t> stored_;
  std::vector<uint8_t> groupCopies_;  // a key shadow's bulk copies of one group
  uint64_t notifications_ = 0;
  CorruptionHook onCorruption_;
  uint32_t lastTold_ = kNoSlot;  // prefetchForRun's previous slot
  // The bulk group being walked: its first slot, and a bit for each of its slots whose copy
  // (in place, for a value shadow) is still to be taken.
  uint32_t bulkFirst_ = 0;
  uint32_t bulkCopied_ = 0;
};

template <class Key, class Value, class OpsT = Ops<Key, Value>>
using KeyShadowStore = ShadowStore<Key, Value, OpsT, KeyShadowSlot>;

}  // namespace Ledger
