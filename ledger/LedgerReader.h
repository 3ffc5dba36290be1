// LedgerReader: a lock-free reader of a table in another process's shared memory, without a
// private copy. Lookups and iteration walk the writer's chains in place.
//
// The files are untrusted and change under the walk:
//  - every index is checked against the mapping and the header before use; a slot beyond
//    the mapping but inside the writer's numSlots makes the reader re-map;
//  - every walk counts the slots it visits and stops after more than the table holds;
//  - a hit is proven by the slot's consistent read (status word re-check) and its key;
//  - a miss is trusted only when no bucket redistribution overlapped the walk (resizeSeq)
//    and every link pair the walk followed is still the same (a link pair's generation
//    advances with each store, so a walk that strayed through a slot being removed or
//    re-used sees it changed).
// Anything odd is retried; only an oddity that persists over kMaxAttempts walks is reported,
// as a CorruptionException with the message of the check that failed.
#pragma once

#include <sched.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "ledger/BucketReader.h"
#include "ledger/Exceptions.h"
#include "ledger/LedgerBase.h"
#include "ledger/Ops.h"
#include "ledger/SlotReaderTable.h"
#include "zinc/Trace.h"

namespace Ledger {

struct ReaderConfig {
  std::string root;  // empty: $LEDGER_ROOT or the default root
  std::string table;
  // How long a walk waits for a bucket resize that it finds under way before it reports the
  // resize as never completed (the writer died in it). A live writer takes far less.
  std::chrono::milliseconds resizeWait{2000};
};

namespace ReaderDetail {
const Zinc::Trace& trace();
}

template <class Key, class Value, class OpsT = Ops<Key, Value>>
class LedgerReader final : public ReadOnlyLedger<Key, Value> {
 public:
  static constexpr uint32_t kMaxAttempts = 64;
  using CorruptionHandler = std::function<void(const std::string& reason)>;

  explicit LedgerReader(ReaderConfig config, OpsT ops = OpsT())
      : config_(std::move(config)), ops_(std::move(ops)) {}
  ~LedgerReader() override {
    if (attached()) detach();
  }

  // Maps the table's files, all of them or none: a reader is never left with the slots of one
  // table and no buckets, or the buckets of another. Throws InitializationException /
  // CorruptionException.
  void attach() {
    try {
      slots_.attach(config_.root, config_.table, ops_.valueSize());
      buckets_.attach(config_.root, config_.table, slots_.emberId());
      buffer_.assign(slots_.valueSize(), 0);
      if constexpr (OutOfLineOps<OpsT>) {
        ops_.attachReaderStorage(config_.root, config_.table, slots_.emberId());
        slots_.outOfLineIs(&ops_);
        buffer_.assign(std::max(slots_.valueSize(), OpsT::kMaxCopySize), 0);
      }
    } catch (...) {
      unmapAll();
      throw;
    }
    ZTRACE_TO(ReaderDetail::trace(), 1,
              "LedgerReader::attach() " << config_.table << " ember:" << slots_.emberId());
  }
  bool initialize() override {
    try {
      attach();
      return true;
    } catch (const Zinc::Exception& e) {
      error_ = e.what();
      ZTRACE_TO(ReaderDetail::trace(), 1, "LedgerReader::initialize() " << error_);
      return false;
    }
  }
  void detach() override {
    if (!attached()) {
      ZTRACE_TO(ReaderDetail::trace(), 0, "LedgerReader::detach() already detached");
      return;
    }
    unmapAll();
    ZTRACE_TO(ReaderDetail::trace(), 1, "LedgerReader::detach() " << config_.table);
  }
  bool attached() const { return slots_.attached(); }
  const std::string& error() const { return error_; }
  // Without a handler corruption is thrown to the caller; with one it is reported there and
  // the entry reads as absent. A walk (first, next) passes over an entry whose key decodes but
  // whose value does not, reported, and goes on after it.
  void corruptionHandlerIs(CorruptionHandler handler) { onCorruption_ = std::move(handler); }

  // True with `key`'s value in `out`; `out` is unspecified when it answers false (a copy
  // that a concurrent rewrite tore may be left there).
  bool lookup(const Key& key, Value& out) override {
    return lookupHashed(key, out, OpsT::hash(key));
  }
  bool first(Value& out) override { return walkStep(nullptr, out, nullptr); }
  bool next(const Key& prev, Value& out, uint32_t* hint = nullptr) override {
    return walkStep(&prev, out, hint);
  }

  // The consistent read of one slot by index: true when it holds an entry (copied out).
  // Re-maps when the index lies beyond the mapping, and once more on a corruption.
  bool getValue(uint32_t slotIndex, Value& out, Key* key = nullptr) {
    return withRemap([&] {
      if (!readOnce(slotIndex)) return false;
      ops_.load(buffer_.data(), out);
      if (key) *key = ops_.storedKey(buffer_.data());
      return true;
    });
  }
  // getValue() without the decoding: true when the slot holds an entry, its stored bytes
  // (whole) then in slotBuffer(), for the caller to decode.
  bool readStored(uint32_t slotIndex) {
    return withRemap([&] { return readOnce(slotIndex); });
  }

  // The slot that holds `key` now (its stored bytes left in slotBuffer()), or kNoSlot.
  // Corruption is thrown, handler or not: the caller (a shadow's walk) acts on it.
  uint32_t findSlot(const Key& key) {
    uint32_t found = kNoSlot;
    if (!attached()) return found;
    withRemap([&] {
      return walkUntil(
          OpsT::hash(key), "LedgerReader::doLookup()",
          [&](uint32_t slot, bool& more) {
            more = false;
            if (!holds(buffer_.data(), key)) return false;
            found = slot;
            return true;
          },
          &key);
    });
    return found;
  }

  // Looks up keys[i] into outs[i], found[i] telling whether it was there; returns how many
  // were. Every lookup is the single lookup's, with its checks and retries; what a batch adds
  // is fetching ahead, in a pipeline over the keys: a key's bucket head is requested
  // kBucketAhead keys before its lookup, the first slot of its chain kSlotAhead keys before,
  // and, where the sought rhash lies further on, the chain's second slot kNextAhead keys
  // before. Each stage reads only what the stage before it fetched, so the memory latency of
  // one key overlaps with the lookups of the keys before it instead of adding up.
  // Corruption is handled as by lookup() (thrown after the keys before it are done).
  uint32_t lookupBatch(std::span<const Key> keys, std::span<Value> outs, std::span<bool> found) {
    ZINC_ASSERT(outs.size() >= keys.size() && found.size() >= keys.size(),
                "lookupBatch needs an output and a found flag per key");
    const size_t n = keys.size();
    std::array<uint32_t, kBatchRing> hashes;  // key i's hash at i % kBatchRing
    auto hashOf = [&](size_t i) { return hashes[i % kBatchRing]; };
    uint32_t hits = 0;
    for (size_t j = 0; j < n + kBucketAhead; ++j) {
      if (j < n) {
        hashes[j % kBatchRing] = OpsT::hash(keys[j]);
        fetchBucket(hashOf(j));
      }
      if (j >= kBucketAhead - kSlotAhead && j - (kBucketAhead - kSlotAhead) < n) {
        fetchFirstSlot(hashOf(j - (kBucketAhead - kSlotAhead)));
      }
      if (j >= kBucketAhead - kNextAhead && j - (kBucketAhead - kNextAhead) < n) {
        fetchSecondSlot(hashOf(j - (kBucketAhead - kNextAhead)));
      }
      if (j >= kBucketAhead) {
        const size_t i = j - kBucketAhead;
        found[i] = lookupHashed(keys[i], outs[i], hashOf(i));
        hits += found[i];
      }
    }
    return hits;
  }

  // lookup() of a key whose hash is known. The quick walk runs unguarded (it neither throws
  // nor calls a handler: bytes it cannot decode only send the lookup on); whatever it cannot
  // settle goes to the full walk under the guard.
  bool lookupHashed(const Key& key, Value& out, uint32_t hash) {
    if constexpr (!OutOfLineOps<OpsT>) {
      if (attached() && buckets_.attached()) [[likely]] {
        ++counters_.lookups;
        if (const Walk w = quickWalk(key, hash, out); w != Walk::again) [[likely]]
          return w == Walk::found;
        return guardedFullLookup(key, out, hash);
      }
    }
    return guarded([&] { return doLookup(key, out, hash); });
  }

  bool doLookup(const Key& key, Value& out) { return doLookup(key, out, OpsT::hash(key)); }
  bool doLookup(const Key& key, Value& out, uint32_t hash) {
    if (!buckets_.attached())
      throw CorruptionException("LedgerReader::doLookup() bucket table detached");
    ++counters_.lookups;
    if (const Walk w = quickWalk(key, hash, out); w != Walk::again) [[likely]]
      return w == Walk::found;
    return fullLookup(key, out, hash);
  }
  // A lookup's walk with every check, retry and report: when the quick one gave up. Kept
  // out of line, away from the quick walk's code.
  [[gnu::noinline]] bool guardedFullLookup(const Key& key, Value& out, uint32_t hash) {
    return guarded([&] { return fullLookup(key, out, hash); });
  }
  [[gnu::noinline]] bool fullLookup(const Key& key, Value& out, uint32_t hash) {
    return walkUntil(
        hash, "LedgerReader::doLookup()",
        [&](uint32_t slot, bool& more) {
          more = false;
          if (!OpsT::equal(ops_.storedKey(buffer_.data()), key)) return false;
          ops_.load(buffer_.data(), out);
          (void)slot;
          return true;
        },
        &key);
  }

  // Maps slot `slotIndex` in, re-mapping the file if it grew since; throws
  // CorruptionException when the file does not hold the slot.
  void mapSlot(uint32_t slotIndex) {
    if (slotIndex < slots_.mappedSlots()) return;
    doResize();
    if (slotIndex >= slots_.mappedSlots()) {
      throw CorruptionException("LedgerReader::getValue() slot " + std::to_string(slotIndex) +
                                " beyond mapping after re-map");
    }
  }
  // Re-maps the slot table and, when the header's count differs, the bucket table.
  void doResize() {
    ++counters_.remaps;
    if (!slots_.doResize()) {
      throw CorruptionException("LedgerReader::doResize() failed to re-map " + slots_.path());
    }
    buckets_.checkResize();
  }

  uint32_t capacity() const override { return attached() ? slots_.numSlots() : 0; }
  uint32_t maxSize() const override { return kMaxSlots; }
  uint32_t minSize() const override { return 0; }
  uint32_t members() const override { return attached() ? slots_.occupiedSlots() : 0; }
  uint64_t sequence() const override { return 0; }
  bool connected() const override { return attached(); }
  bool quiesced() const override { return true; }
  uint32_t emberId() const override { return attached() ? slots_.emberId() : 0; }
  MountStatus mountStatus() const override {
    return attached() ? MountStatus::mounted : MountStatus::unmounted;
  }
  ReaderCounters readerCounters() const override {
    ReaderCounters c = counters_;
    c.lookasideReads = slots_.lookasideReads();
    c.retries += slots_.retries();
    return c;
  }

  // The stored bytes of the slot that getValue() or findSlot() read last.
  const uint8_t* slotBuffer() const { return buffer_.data(); }
  // Bytes of a stored form that this reader copied (out-of-line tables: as long as the value).
  uint32_t storedLength(const uint8_t* stored) const {
    if constexpr (OutOfLineOps<OpsT>) {
      return ops_.storedLength(stored);
    } else {
      (void)stored;
      return slots_.valueSize();
    }
  }
  SlotReaderTable& slotTable() { return slots_; }
  const SlotReaderTable& slotTable() const { return slots_; }
  BucketReader& bucketTable() { return buckets_; }
  const OpsT& ops() const { return ops_; }

 private:
  // One consistent read of slot `slotIndex` into buffer_, mapping the slot in first when it
  // lies beyond the mapping: whether it holds an entry.
  bool readOnce(uint32_t slotIndex) {
    SlotReaderTable::Read r = slots_.read(slotIndex, buffer_.data());
    if (r == SlotReaderTable::Read::unmapped) {
      mapSlot(slotIndex);
      r = slots_.read(slotIndex, buffer_.data());
    }
    return r == SlotReaderTable::Read::occupied;
  }
  // Whether the stored bytes `stored`, read whole, are `key`'s entry. An entry that does not
  // decode holds no key here: whoever reads its slot for itself reports it.
  bool holds(const uint8_t* stored, const Key& key) const {
    bool same = false;
    return decodes([&] { same = OpsT::equal(ops_.storedKey(stored), key); }) && same;
  }
  // Whether the key of slot `link`, read in place and not yet confirmed, sorts after `key`:
  // where a walk may stop early. Bytes that do not decode (a rewrite may be tearing them) stop
  // nothing: the slot's consistent read settles it.
  bool sortsAfter(const Key& key, uint32_t link) const {
    bool after = false;
    return decodes([&] { after = OpsT::less(key, ops_.storedKey(slots_.value(link))); }) && after;
  }

  void unmapAll() {
    slots_.detach();
    buckets_.detach();
    if constexpr (OutOfLineOps<OpsT>) ops_.detachReaderStorage();
  }
  // How one walk ended; `onward`: the slot just read is not the sought one, walk on.
  enum class Walk { found, miss, again, onward };
  // How many keys ahead of its lookup a batch fetches each stage of a key's chain, and the
  // ring of hashes that spans them (a power of two above kBucketAhead).
  static constexpr size_t kBucketAhead = 20, kSlotAhead = 10, kNextAhead = 5;
  static constexpr size_t kBatchRing = 32;
  static_assert(kBucketAhead > kSlotAhead && kSlotAhead > kNextAhead && kNextAhead > 0 &&
                kBatchRing > kBucketAhead && (kBatchRing & (kBatchRing - 1)) == 0);
  // Link pairs a quick walk remembers to confirm a miss; longer chains take the full walk.
  static constexpr uint32_t kQuickPath = 8;
  // A link pair a walk followed, and the value it had then.
  struct PathStep {
    const uint64_t* word;
    uint64_t seen;
  };

  // The stages of a batch's fetching ahead (lookupBatch). Prefetches only; every index is
  // checked against what is mapped now before its address is formed (a lookup between two
  // stages may have re-mapped the files), and a chain read in the wrong bucket or half
  // changed only costs a useless fetch.
  bool fetchable() const { return buckets_.attached() && buckets_.numBuckets() != 0; }
  uint32_t bucketOf(uint32_t hash) const { return hash & (buckets_.numBuckets() - 1); }
  void fetchBucket(uint32_t hash) const {
    if (fetchable()) __builtin_prefetch(&buckets_.headWord(bucketOf(hash)));
  }
  // The chain's first slot, or kNoSlot; its bucket head was fetched a while ago.
  uint32_t firstSlotOf(uint32_t hash) const {
    if (!fetchable()) return kNoSlot;
    const uint32_t link =
        linkOf(Shm::load(buckets_.headWord(bucketOf(hash)), std::memory_order_relaxed));
    return link < slots_.mappedSlots() ? link : kNoSlot;  // also kNoSlot at the end of a chain
  }
  void fetchFirstSlot(uint32_t hash) const {
    if (const uint32_t first = firstSlotOf(hash); first != kNoSlot) slots_.prefetch(first);
  }
  void fetchSecondSlot(uint32_t hash) const {
    const uint32_t first = firstSlotOf(hash);
    if (first == kNoSlot) return;
    const SlotHeader& s = slots_.slot(first);
    if (Shm::load(s.rhash, std::memory_order_relaxed) >= reverseBits(hash)) return;
    const uint32_t next = linkOf(Shm::load(s.linkPair, std::memory_order_relaxed));
    if (next < slots_.mappedSlots()) slots_.prefetch(next);
  }

  // The common case of a lookup, kept short and free of calls so that the processor overlaps
  // one lookup's memory accesses with the next one's: no resize in progress, the chain short,
  // every slot on it mapped, settled (LOOKASIDE clear) and in order. A miss is confirmed as in
  // the full walk (resizeSeq and every link pair followed unchanged). Anything else answers
  // `again`, and the full walk, with its retries and reports, takes over.
  Walk quickWalk(const Key& key, uint32_t hash, Value& out) {
    const uint32_t seq = buckets_.seqBegin();
    const uint32_t n = buckets_.numBuckets();
    if ((seq & 1) || n == 0 || buckets_.headerNumBuckets() != n) return Walk::again;
    const uint32_t rhash = reverseBits(hash);
    // A slot belongs to this bucket when the top log2(n) bits of its rhash are the bucket's.
    const uint32_t bucketBits = buckets_.rhashBits();
    const uint32_t mapped = slots_.mappedSlots();
    PathStep path[kQuickPath];  // left uninitialised: written as the walk goes
    const uint64_t* word = &buckets_.headWord(hash & (n - 1));
    uint64_t pair = Shm::load(*word, std::memory_order_acquire);
    uint32_t lastRhash = 0;
    for (uint32_t len = 0; len < kQuickPath; ++len) {
      path[len] = {word, pair};
      const uint32_t link = linkOf(pair);
      if (isEndOfChain(link)) return quickMiss(seq, path, len + 1);
      if (link >= mapped) return Walk::again;
      const SlotHeader& s = slots_.slot(link);
      const uint32_t status = Shm::load(s.status, std::memory_order_acquire);
      const uint32_t srh = Shm::load(s.rhash, std::memory_order_relaxed);
      if ((status & (kOccupied | kLookaside)) != kOccupied || ((srh ^ rhash) & bucketBits) ||
          srh < lastRhash) {
        return Walk::again;
      }
      lastRhash = srh;
      if (srh > rhash) return quickMiss(seq, path, len + 1);
      if (srh == rhash) {
        const Walk w = quickSlot(link, status, rhash, key, out);
        if (w == Walk::found || w == Walk::again) return w;
        if (w == Walk::miss) return quickMiss(seq, path, len + 1);
      }
      word = &s.linkPair;
      pair = Shm::load(*word, std::memory_order_acquire);
    }
    return Walk::again;
  }

  // The slot `link` (with `status` OCCUPIED, LOOKASIDE clear) carries the sought rhash:
  // `found` when it holds `key` (copied into `out`), `miss` when its key is greater (the
  // chain is ordered), `onward` when smaller, `again` when the slot changed under the read.
  // Inline tables compare and copy in place, straight from the slot into `out`: the status
  // word re-loaded unchanged after the copy proves key and value whole (a torn copy may be
  // left in `out`; a lookup that answers false leaves `out` unspecified).
  Walk quickSlot(uint32_t link, uint32_t status, uint32_t rhash, const Key& key, Value& out) {
    if constexpr (OutOfLineOps<OpsT>) {
      uint32_t readRhash = 0;
      if (slots_.read(link, buffer_.data(), &readRhash) != SlotReaderTable::Read::occupied ||
          readRhash != rhash) {
        return Walk::again;
      }
      const Key stored = ops_.storedKey(buffer_.data());
      if (OpsT::equal(stored, key)) {
        ops_.load(buffer_.data(), out);
        return Walk::found;
      }
      return OpsT::less(key, stored) ? Walk::miss : Walk::onward;
    } else {
      const uint8_t* bytes = slots_.value(link);
      Key stored{};
      bool equal = false;
      // Bytes that do not decode are torn by a rewrite, or corrupt: only the full walk's
      // consistent read can tell.
      if (!decodes([&] {
            stored = ops_.storedKey(bytes);
            equal = OpsT::equal(stored, key);
            if (equal) ops_.load(bytes, out);
          })) {
        return Walk::again;
      }
      if (!slots_.unchangedSince(link, status)) return Walk::again;
      if (equal) return Walk::found;
      return OpsT::less(key, stored) ? Walk::miss : Walk::onward;
    }
  }
  Walk quickMiss(uint32_t seq, const PathStep* path, uint32_t len) {
    if (!buckets_.seqUnchanged(seq)) return Walk::again;
    for (uint32_t i = 0; i < len; ++i) {
      if (Shm::load(*path[i].word, std::memory_order_relaxed) != path[i].seen) return Walk::again;
    }
    return Walk::miss;
  }

  void refuse(const char* what) const override { ZTRACE_TO(ReaderDetail::trace(), 0, what); }

  // A walk's entry that was read whole, and whose key `key` decoded, but whose value does not.
  struct UndecodableEntry : CorruptionException {
    UndecodableEntry(const std::string& why, const Key& k, uint32_t at)
        : CorruptionException(why), key(k), slot(at) {}
    Key key;
    uint32_t slot;
  };
  // The value of the walk's entry in buffer_ (of `key`, in `slot`) into `out`.
  void loadEntry(const Key& key, uint32_t slot, Value& out) {
    try {
      ops_.load(buffer_.data(), out);
    } catch (const CorruptionException& e) {
      throw UndecodableEntry("LedgerReader: slot " + std::to_string(slot) +
                                 " holds an entry that does not decode: " + e.what(),
                             key, slot);
    }
  }
  // first() (`prev` null) or next(): an entry that does not decode is reported and the walk
  // goes on after its key. Each one passed over lies further on in table order, so a table
  // holds fewer of them than it has slots.
  bool walkStep(const Key* prev, Value& out, uint32_t* hint) {
    if (!attached()) return false;
    Key from{};
    if (prev) from = *prev;
    for (uint32_t passed = 0;; ++passed) {
      try {
        return withRemap([&] { return prev ? doNext(from, out, hint) : doFirst(out, hint); });
      } catch (const UndecodableEntry& e) {
        if (!onCorruption_) throw;
        onCorruption_(e.what());
        if (passed >= slots_.mappedSlots()) return false;
        from = e.key;
        prev = &from;
        if (hint) *hint = e.slot;
      } catch (const CorruptionException& e) {
        if (!onCorruption_) throw;
        onCorruption_(e.what());
        return false;
      }
    }
  }

  template <class Fn>
  bool guarded(Fn fn) {
    if (!attached()) return false;
    try {
      return withRemap(fn);
    } catch (const CorruptionException& e) {
      if (!onCorruption_) throw;
      onCorruption_(e.what());
      return false;
    }
  }

  template <class Fn>
  bool withRemap(Fn fn) {
    try {
      return fn();
    } catch (const CorruptionException& e) {
      ZTRACE_TO(ReaderDetail::trace(), 0,
                "LedgerReader::doResize() after corruption: " << e.what());
      doResize();
      return fn();
    }
  }

  static std::string resizeStuck(const char* who, uint32_t seq) {
    return std::string(who) + " bucket resize never completed, resizeSeq:" + std::to_string(seq);
  }
  // Walks the chain of `hash` in (rhash, key) order. At each slot whose rhash equals the
  // sought one, the slot is read consistently into buffer_ and `visit(slot, more)` decides:
  // true ends the walk with a hit, `more` asks to go on. `key` (when given) stops the walk at
  // the first greater key. Returns whether visit accepted a slot; a miss is confirmed as
  // described at the top of this file.
  template <class Visit>
  bool walkUntil(uint32_t hash, const char* who, Visit visit, const Key* key) {
    const uint32_t rhash = reverseBits(hash);
    std::string oddity;
    std::chrono::steady_clock::time_point resizeDeadline{};
    for (uint32_t attempt = 0; attempt < kMaxAttempts;) {
      if (attempt > 2) ::sched_yield();
      const uint32_t seq = buckets_.seqBegin();
      if ((seq & 1) && seq == stuckResizeSeq_) throw CorruptionException(resizeStuck(who, seq));
      Walk w = walkOnce(hash, rhash, who, visit, key, oddity);
      if (w != Walk::again) return w == Walk::found;
      ++counters_.retries;
      // A walk that overlapped a redistribution of the chains proves nothing either way: wait
      // for the writer to finish it, without counting.
      if ((seq & 1) || !buckets_.seqUnchanged(seq)) {
        awaitResize(seq, resizeDeadline, who);
        continue;
      }
      ++attempt;
    }
    throw CorruptionException(oddity);
  }

  // Waits a little for the writer to end the redistribution that overlapped a walk begun
  // under `seq`, but not forever: a writer that died half-way leaves resizeSeq odd until the
  // next one attaches. `deadline` starts at the first wait.
  void awaitResize(uint32_t seq, std::chrono::steady_clock::time_point& deadline, const char* who) {
    auto now = std::chrono::steady_clock::now();
    if (deadline == std::chrono::steady_clock::time_point{}) {
      deadline = now + config_.resizeWait;
    } else if (now > deadline) {
      if (seq & 1) stuckResizeSeq_ = seq;
      throw CorruptionException(resizeStuck(who, seq));
    }
    ::sched_yield();
  }

  // One step of an iteration, taken again until no redistribution of the chains overlapped it
  // (resizeSeq even and unchanged around it), under the writer's current bucket count: the
  // entry it found is then the one after the previous in table order, or there is none.
  template <class Step>
  bool iterationStep(const char* who, Step step) {
    std::chrono::steady_clock::time_point resizeDeadline{};
    for (;;) {
      const uint32_t seq = buckets_.seqBegin();
      if ((seq & 1) && seq == stuckResizeSeq_) throw CorruptionException(resizeStuck(who, seq));
      if (!(seq & 1)) {
        buckets_.followResize();
        const bool found = step();
        if (buckets_.seqUnchanged(seq)) return found;
      }
      ++counters_.retries;
      awaitResize(seq, resizeDeadline, who);
    }
  }

  template <class Visit>
  Walk walkOnce(uint32_t hash, uint32_t rhash, const char* who, Visit& visit, const Key* key,
                std::string& oddity) {
    const uint32_t seq = buckets_.seqBegin();
    buckets_.followResize();
    const uint32_t n = buckets_.numBuckets();
    const uint32_t bucket = hash & (n - 1);
    path_.clear();
    uint64_t pair = buckets_.head(bucket);
    path_.emplace_back(&buckets_.headWord(bucket), pair);
    // Every slot of a chain is below mappedSlots() (a link beyond ends the walk): a walk
    // longer than that has met a slot twice. (The header's numSlots is no bound: it may say
    // anything.)
    const uint32_t bound = slots_.mappedSlots();
    uint32_t lastRhash = 0;
    for (uint32_t count = 0; !isEndOfChain(linkOf(pair));) {
      const uint32_t link = linkOf(pair);
      if (++count > bound) {
        oddity =
            std::string(who) + " hash chain cycle detected, slotCount:" + std::to_string(count);
        return Walk::again;
      }
      if (link >= slots_.mappedSlots()) {
        if (link < slots_.numSlots()) {
          doResize();
        } else {
          oddity = std::string(who) + " corrupt key detected. key: link " + std::to_string(link) +
                   " beyond numSlots:" + std::to_string(slots_.numSlots());
        }
        return Walk::again;
      }
      const SlotHeader& s = slots_.slot(link);
      const uint32_t status = Shm::load(s.status, std::memory_order_acquire);
      const uint32_t srh = Shm::load(s.rhash, std::memory_order_relaxed);
      if (!(status & kOccupied) || (reverseBits(srh) & (n - 1)) != bucket || srh < lastRhash) {
        oddity = std::string(who) + " corrupt key detected. key: slot " + std::to_string(link) +
                 " bucket:" + std::to_string(bucket) + " status:" + std::to_string(status);
        return Walk::again;
      }
      lastRhash = srh;
      if (srh > rhash) break;
      if (srh == rhash) {
        // An out-of-line key is only known after the slot's consistent read: no early stop.
        if constexpr (!OutOfLineOps<OpsT>) {
          if (key && sortsAfter(*key, link)) break;
        }
        uint32_t readRhash = 0;
        auto r = slots_.read(link, buffer_.data(), &readRhash);
        if (r == SlotReaderTable::Read::occupied && readRhash == rhash) {
          bool more = false;
          if (visit(link, more)) return Walk::found;
        }
      }
      pair = Shm::load(s.linkPair, std::memory_order_acquire);
      path_.emplace_back(&s.linkPair, pair);
    }
    return confirmMiss(seq) ? Walk::miss : Walk::again;
  }

  bool confirmMiss(uint32_t seq) {
    if ((seq & 1) || !buckets_.seqUnchanged(seq)) return false;
    for (const auto& [word, seen] : path_) {
      if (Shm::load(*word, std::memory_order_relaxed) != seen) return false;
    }
    return true;
  }

  // The first entry of the first non-empty bucket from `fromBucket` on, in table order.
  bool firstFrom(uint32_t fromBucket, Value& out, uint32_t* hint, const char* who) {
    const uint32_t n = buckets_.numBuckets();
    for (uint32_t b = fromBucket, visited = 0; b < n; b = nextBucketInOrder(b, n)) {
      prefetchAheadInOrder(b, n);
      if (++visited > n) {
        throw CorruptionException(std::string(who) + " has bucket cycle detected, bucketCount: " +
                                  std::to_string(visited));
      }
      if (firstInBucket(b, out, hint, who)) return true;
    }
    return false;
  }

  // As the writer's walk does (WriterHashMap::prefetchAheadInOrder): the bucket twice
  // kWalkAhead ahead in table order, and the first slot of the one kWalkAhead ahead, whole,
  // when it is mapped.
  void prefetchAheadInOrder(uint32_t b, uint32_t n) {
    const uint32_t far = bucketAheadInOrder(b, n, 2 * kWalkAhead);
    const uint32_t near = bucketAheadInOrder(b, n, kWalkAhead);
    if (far < n) __builtin_prefetch(&buckets_.headWord(far));
    if (near >= n) return;
    const uint32_t link = linkOf(Shm::load(buckets_.headWord(near), std::memory_order_relaxed));
    if (link >= slots_.mappedSlots()) return;
    slots_.prefetch(link);  // the whole slot: a step reads it all (the consistent copy)
  }

  // The smallest entry of bucket `b`, read consistently; retried while the writer changes it.
  bool firstInBucket(uint32_t b, Value& out, uint32_t* hint, const char* who) {
    for (uint32_t attempt = 0; attempt < kMaxAttempts; ++attempt) {
      if (b >= buckets_.numBuckets()) return false;
      const uint32_t link = linkOf(buckets_.head(b));
      if (isEndOfChain(link)) return false;
      if (link >= slots_.mappedSlots()) {
        if (link >= slots_.numSlots()) break;
        doResize();
        continue;
      }
      uint32_t rhash = 0;
      if (slots_.read(link, buffer_.data(), &rhash) != SlotReaderTable::Read::occupied) continue;
      Key k = ops_.storedKey(buffer_.data());
      if ((OpsT::hash(k) & (buckets_.numBuckets() - 1)) != b) continue;
      loadEntry(k, link, out);
      if (hint) *hint = link;
      return true;
    }
    throw CorruptionException(std::string(who) + " corrupt key detected, key: bucket " +
                              std::to_string(b));
  }

  bool doFirst(Value& out, uint32_t* hint) {
    const char* who = "LedgerReader::first()";
    if (iterationStep(who, [&] { return firstFrom(0, out, hint, who); })) return true;
    ZTRACE_TO(ReaderDetail::trace(), 9, "LedgerReader::first() none found!");
    return false;
  }

  // The entry after `prev` in table order: the rest of prev's chain, then the next buckets.
  // Fast path: `hint` names the slot that still holds prev, and its successor follows it.
  // `prev` is copied first: it is often the key of `out`, which an attempt overwrites.
  bool doNext(const Key& prevKey, Value& out, uint32_t* hint) {
    const Key prev = prevKey;
    const uint32_t hash = OpsT::hash(prev);
    const uint32_t hinted = hint ? *hint : kNoSlot;
    const char* who = "LedgerReader::doNext()";
    return iterationStep(who, [&] {
      if (hint) *hint = hinted;
      if (hint && nextFromHint(prev, hash, out, hint)) return true;
      if (successorInChain(hash, prev, out, hint)) return true;
      const uint32_t n = buckets_.numBuckets();
      return firstFrom(nextBucketInOrder(hash & (n - 1), n), out, hint, who);
    });
  }

  bool nextFromHint(const Key& prev, uint32_t hash, Value& out, uint32_t* hint) {
    const uint32_t at = *hint;
    uint32_t srh = 0;
    if (at >= slots_.mappedSlots() ||
        slots_.read(at, buffer_.data(), &srh) != SlotReaderTable::Read::occupied ||
        !OpsT::equal(ops_.storedKey(buffer_.data()), prev)) {
      return false;
    }
    const uint32_t link = linkOf(Shm::load(slots_.slot(at).linkPair, std::memory_order_acquire));
    if (isEndOfChain(link) || link >= slots_.mappedSlots()) return false;
    const uint32_t n = buckets_.numBuckets();
    if (slots_.read(link, buffer_.data(), &srh) != SlotReaderTable::Read::occupied) return false;
    const Key k = ops_.storedKey(buffer_.data());
    const uint32_t h = OpsT::hash(k);
    if ((h & (n - 1)) != (hash & (n - 1)) || !after(h, k, hash, prev)) return false;
    loadEntry(k, link, out);
    *hint = link;
    return true;
  }

  static bool after(uint32_t hash, const Key& key, uint32_t prevHash, const Key& prev) {
    const uint32_t a = reverseBits(hash), b = reverseBits(prevHash);
    return a > b || (a == b && OpsT::less(prev, key));
  }

  // The smallest entry of prev's chain above prev, every slot read consistently.
  bool successorInChain(uint32_t hash, const Key& prev, Value& out, uint32_t* hint) {
    std::string oddity;
    for (uint32_t attempt = 0; attempt < kMaxAttempts; ++attempt) {
      if (attempt > 2) ::sched_yield();
      const uint32_t n = buckets_.numBuckets();
      const uint32_t bucket = hash & (n - 1);
      uint32_t link = linkOf(buckets_.head(bucket));
      bool retry = false;
      bool sawPrev = false;
      for (uint32_t count = 0; !isEndOfChain(link) && !retry;) {
        if (++count > slots_.mappedSlots()) {  // a slot met twice (see walkOnce)
          oddity = "LedgerReader::doNext() hash chain cycle detected, slotCount:" +
                   std::to_string(count);
          retry = true;
        } else if (link >= slots_.mappedSlots()) {
          if (link < slots_.numSlots()) doResize();
          oddity = "LedgerReader::doNext() corrupt key detected. key: link " + std::to_string(link);
          retry = true;
        } else if (slots_.read(link, buffer_.data()) != SlotReaderTable::Read::occupied) {
          oddity = "LedgerReader::doNext() corrupt key detected. key: slot " + std::to_string(link);
          retry = true;
        } else {
          const Key k = ops_.storedKey(buffer_.data());
          const uint32_t h = OpsT::hash(k);
          if ((h & (n - 1)) != bucket) {
            oddity = "LedgerReader::doNext() corrupt key detected. key: slot " +
                     std::to_string(link) + " bucket:" + std::to_string(bucket);
            retry = true;
          } else if (after(h, k, hash, prev)) {
            if (!sawPrev) {
              ZTRACE_TO(ReaderDetail::trace(), 7, "LedgerReader::doNext() slow-path slot:" << link);
            }
            loadEntry(k, link, out);
            if (hint) *hint = link;
            return true;
          } else {
            sawPrev = sawPrev || OpsT::equal(k, prev);
            link = linkOf(Shm::load(slots_.slot(link).linkPair, std::memory_order_acquire));
          }
        }
      }
      if (!retry) return false;
      ++counters_.retries;
    }
    throw CorruptionException(oddity);
  }

  ReaderConfig config_;
  OpsT ops_;
  SlotReaderTable slots_;
  BucketReader buckets_;
  std::vector<uint8_t> buffer_;
  std::vector<std::pair<const uint64_t*, uint64_t>> path_;
  ReaderCounters counters_;
  CorruptionHandler onCorruption_;
  std::string error_;
  // An odd resizeSeq that a walk waited out (resizeWait) and saw unchanged: a writer died in
  // the middle of redistributing the chains (or one slower than resizeWait is at it). Walks
  // report it at once, instead of each waiting again, until resizeSeq moves (0, even, is
  // never stuck).
  uint32_t stuckResizeSeq_ = 0;
};

}  // namespace Ledger
