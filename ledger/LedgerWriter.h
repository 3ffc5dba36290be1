// LedgerWriter: the single writer of one shared-memory table.
//
// It owns the slot table (SlotWriterTable), the chains (WriterHashMap over BucketWriterTable)
// and the writer end of the change queue (RallyWriter), and publishes every change in an
// order that lets readers in other processes read without locks:
//  - a rewrite goes look-aside copy, status + 2 (LOOKASIDE), value, status + 2 | OCCUPIED;
//  - a new slot is complete (value, status, its own link) before the one 64-bit store of its
//    predecessor's link pair makes it reachable;
//  - a removed slot is unlinked by one 64-bit store, then its status changes, then its link
//    is reused for the free list;
//  - every change is then announced by slot index in the rally queue, and the kick hook runs
//    once per public operation that announced something.
// One process at a time may write a table: attach() takes an exclusive flock on
// <table>/writer.lock, which the kernel drops when the process dies.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "ledger/BucketTable.h"
#include "ledger/Exceptions.h"
#include "ledger/LedgerBase.h"
#include "ledger/Ops.h"
#include "ledger/RallyWriter.h"
#include "ledger/SlabOps.h"
#include "ledger/SlotWriterTable.h"
#include "ledger/Validator.h"
#include "ledger/WriterHashMap.h"
#include "platform/shm/ReaderKick.h"
#include "zinc/Exception.h"
#include "zinc/Trace.h"

namespace Ledger {

struct LedgerConfig {
  std::string root;  // empty: $LEDGER_ROOT or the default root
  std::string table;
  uint32_t capacity = 64;  // slots of a new table
  uint32_t minSize = 1;
  uint32_t maxSize = kMaxSlots;
  bool fixedSize = false;
  bool shrinkEnabled = true;
  uint32_t tableParameter = 0;
  uint32_t minBuckets = 16;  // a power of two
  SharedMem::EmberFile::Perm perm = SharedMem::EmberFile::Perm::OwnerOnly;
};

enum class AttachResult { existing, recovered, newFile, reformatted };

// The trace of every LedgerWriter ("LedgerWriter"): one object, so that the write path tests
// its level without a function-local static's guard.
extern Zinc::Trace writerTrace;

// The writer's lock on a table folder; released on close or when the process dies.
class WriterLock {
 public:
  WriterLock() = default;
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;
  ~WriterLock() { release(); }
  // Throws InitializationException when another process holds the table.
  void acquire(const std::string& root, const std::string& table, SharedMem::EmberFile::Perm perm);
  void release();

 private:
  int fd_ = -1;
};

template <class Key, class Value, class OpsT = Ops<Key, Value>>
class LedgerWriter : public LedgerBase<Key, Value> {
 public:
  explicit LedgerWriter(LedgerConfig config, OpsT ops = OpsT())
      : config_(std::move(config)), ops_(std::move(ops)) {}
  ~LedgerWriter() override { detach(); }
  LedgerWriter(const LedgerWriter&) = delete;
  LedgerWriter& operator=(const LedgerWriter&) = delete;

  // Maps the table's files: adopts a consistent table, recovers one that a dead writer left
  // half-changed (rebuilding chains, free list and queue from the slots), creates or
  // re-formats otherwise. Throws InitializationException.
  AttachResult attach();
  bool initialize() override {
    attach();
    return true;
  }
  void detach() override;
  bool attached() const { return slots_.attached(); }

  const void* write(const Value& value, WriteFlag flag = WriteFlag::always) override;
  // Writes every value in order, as write() would, with one kick at the end. Knowing the
  // keys ahead, it fetches their buckets and first chain slots early: a bulk load or resync
  // is bound by memory latency, and this overlaps it.
  void writeBatch(const Value* values, size_t count, WriteFlag flag = WriteFlag::always);
  bool remove(const Key& key, Value* out = nullptr) override;
  Value* directWrite(const Key& key) override { return openDirect(key, true); }
  Value* directUpdate(const Key& key) override { return openDirect(key, false); }
  void directCommit() override;

  bool lookup(const Key& key, Value& out) override;
  // Starts fetching the bucket head of the key that hashes to `hash` (OpsT::hash): a caller
  // that knows which keys it will touch next overlaps their cache misses instead of meeting
  // them one after the other, and hashes each key once for all the stages below.
  void prefetchBucket(uint32_t hash) {
    if (attached()) map_.prefetchBucket(hash);
  }
  // The later stages, each for a key whose previous stage was started a while ago: the
  // first slot of its chain (the bucket head must be there by now), then what that slot's
  // stored form refers to (a slab payload, for values kept out of line).
  void prefetchChain(uint32_t hash) {
    if (attached()) map_.prefetchFirstSlot(hash);
  }
  void prefetchFirstStored(uint32_t hash) {
    if constexpr (requires(const OpsT& ops, const uint8_t* stored) {
                    ops.prefetchStored(stored);
                  }) {
      if (!attached()) return;
      const uint32_t slot = map_.firstSlot(hash);
      if (slot < slots_.numSlots()) ops_.prefetchStored(slots_.value(slot));
    }
  }
  // Makes room in the change queue for `count` more changes (each write or remove announces
  // one), so that none of them fails for want of queue room, unless it needs a slot beyond
  // what the table has grown to. Throws TableFullException when there is no room; the table
  // is unchanged either way. A caller that may have to undo some writes reserves for the undo
  // before it starts.
  void reserveChanges(uint32_t count) {
    if (attached()) rally_.reserveFor(0, count);
  }
  bool first(Value& out) override;
  bool next(const Key& prev, Value& out, uint32_t* hint = nullptr) override;

  uint32_t capacity() const override { return attached() ? slots_.numSlots() : 0; }
  uint32_t maxSize() const override { return config_.maxSize; }
  uint32_t minSize() const override { return config_.minSize; }
  uint32_t members() const override { return attached() ? slots_.occupiedSlots() : 0; }
  uint64_t sequence() const override { return rally_.sequence(); }
  bool connected() const override { return attached(); }
  // The writer's side is quiet when no direct slot is open; readers' acknowledgements are
  // the readers' business.
  bool quiesced() const override { return writerQuiesced(); }
  bool writerQuiesced() const { return !direct_.has_value(); }
  // Whether reader `readerName` (its registration name, LedgerShadow::readerName()) has
  // consumed every change up to the latest sequence, as its acknowledgement record says. An
  // unknown or dead reader, or one still syncing, is not quiesced.
  bool clientQuiesced(const std::string& readerName) const {
    if (!attached()) return false;
    auto consumed =
        Mem::readerConsumed(SharedMem::rootPath(config_.root) + "/" + config_.table, readerName);
    return consumed && *consumed == sequence();
  }
  uint32_t emberId() const override { return attached() ? slots_.emberId() : 0; }
  MountStatus mountStatus() const override {
    return attached() ? MountStatus::mounted : MountStatus::unmounted;
  }
  WriterCounters writerCounters() const override;
  uint32_t numBuckets() const { return buckets_.numBuckets(); }
  uint32_t shrinkThreshold() const { return slots_.shrinkThreshold(); }
  std::string dumpHeaders() const;
  // Gives back unused slots now (as a remove would when occupancy is low enough).
  void shrink() {
    checkWritable("LedgerWriter::shrink()");
    doMaybeShrinkSlots();
  }

  bool validate() override { return validate(0); }
  bool validate(uint32_t emberId) override;
  bool validateFiles() override;
  const std::string& validationError() const { return validationError_; }
  // Detaches and removes the table's files.
  bool cleanup() override;

  RallyWriter& rally() { return rally_; }
  SlotWriterTable& slotTable() { return slots_; }
  BucketWriterTable& bucketTable() { return buckets_; }
  const OpsT& ops() const { return ops_; }

 private:
  struct DirectSlot {
    uint32_t slot;
    Key key;
    bool isNew;
    LinkRef pred;
  };
  using Map = WriterHashMap<Key, OpsT>;

  static const Zinc::Trace& trace() { return writerTrace; }
  // A change needs an attached table and no direct slot open; a look, an attached table.
  void checkWritable(const char* who) const {
    if (direct_ || !attached()) [[unlikely]]
      refuseWrite(who);
  }
  void checkAttached(const char* who) const {
    if (!attached()) [[unlikely]]
      notAttached(who);
  }
  SlotTableConfig slotConfig() const;
  // The validator wants one live queue entry per slot: the queue is settled first.
  Validator<Key, OpsT> validator() {
    rally_.settle();
    return Validator<Key, OpsT>(slots_, buckets_, rally_, ops_, config_.table);
  }
  AttachResult attachFiles();
  // The files beside the slot table (storage, buckets, queue), adopted when `adopt` is set
  // and they fit the slot table, made afresh otherwise.
  void attachBesideSlots(bool adopt);
  // An existing table that fails validation is recovered, or else formatted afresh.
  AttachResult adoptOrRecover();
  // Lets go of every file and the lock, whatever was attached of them.
  void releaseFiles();
  void resetFresh();
  void attachStorage();
  bool storedValid(uint32_t slot) const {
    if constexpr (requires { ops_.storedValid(nullptr); }) {
      return ops_.storedValid(const_cast<SlotWriterTable&>(slots_).value(slot));
    } else {
      (void)slot;
      return true;
    }
  }
  void recover();
  void relinkAll(std::vector<uint32_t>& occupied);
  std::vector<std::pair<Key, uint32_t>> inChainOrder(const std::vector<uint32_t>& occupied,
                                                     uint32_t numBuckets);
  uint32_t insertNew(const ChainPosition& pos, uint32_t hash);
  // write() of a key that is missing. Out of line: the rewrite stays short.
  [[gnu::noinline]] const void* insert(const Value& value, const Key& key, uint32_t hash);
  [[gnu::noinline]] const void* insertAt(const Value& value, const ChainPosition& pos,
                                         uint32_t hash);
  // The value into slot `s` under the status protocol (look-aside copy, +2, value, +2|1).
  [[gnu::always_inline]] inline void publish(SlotHeader& s, const Value& value);
  // Bytes of the largest stored form of out-of-line storage (a reference to the payload).
  static constexpr uint32_t kMaxInlineStored = 16;
  template <class Fill>
  void fillNew(uint32_t slot, Fill fill);
  Value* openDirect(const Key& key, bool create);
  void maybeGrowBuckets();
  void maybeShrinkBuckets();
  void doMaybeShrinkSlots();
  uint32_t shrinkTarget() const;
  void moveDown(uint32_t target, uint32_t n);
  void moveSlot(uint32_t from);
  [[gnu::always_inline]] void notify(uint32_t slot) { rally_.notify(slot); }
  [[gnu::cold]] [[gnu::noinline]] static void traceSlot(const char* what, uint32_t slot) {
    ZTRACE_TO(trace(), 9, what << slot);
  }
  // Old stored bytes kept for Ops::retire, which must run only after the final status store.
  // One buffer for all writes: no allocation per write (null when nothing retires).
  const uint8_t* keepForRetire(uint32_t slot) {
    if constexpr (OpsT::kRetires) {
      const uint8_t* stored = slots_.value(slot);
      retireCopy_.assign(stored, stored + ops_.valueSize());
      return retireCopy_.data();
    } else {
      (void)slot;
      return nullptr;
    }
  }
  void retire(const uint8_t* old) {
    if constexpr (OpsT::kRetires) ops_.retire(old);
  }
  [[noreturn]] [[gnu::cold]] [[gnu::noinline]] void notAttached(const char* who) const {
    throw InitializationException(std::string(who) + " not attached");
  }
  [[noreturn]] [[gnu::cold]] void refuseWrite(const char* who) const {
    if (!attached()) notAttached(who);
    unbalancedDirect(who);
  }
  [[noreturn]] [[gnu::cold]] [[gnu::noinline]] void unbalancedDirect(const char* who) const {
    throw Zinc::InternalException(std::string(who) +
                                  " unbalanced directSlot:" + std::to_string(direct_->slot));
  }
  void setBucketThresholds() {
    growThreshold_ = buckets_.numBuckets();
    bucketShrinkThreshold_ = buckets_.numBuckets() / 4;
  }

  LedgerConfig config_;
  OpsT ops_;
  WriterLock lock_;
  SlotWriterTable slots_;
  BucketWriterTable buckets_;
  RallyWriter rally_;
  Map map_{slots_, buckets_, ops_};
  std::optional<DirectSlot> direct_;
  uint32_t growThreshold_ = 0;
  uint32_t bucketShrinkThreshold_ = 0;
  bool shrinking_ = false;
  WriterCounters counters_;
  std::string validationError_;
  std::vector<uint8_t> retireCopy_;
};

}  // namespace Ledger

#include "ledger/LedgerWriterImpl.h"
