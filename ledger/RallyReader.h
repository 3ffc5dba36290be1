// RallyReader: a reader's end of a table's change (rally) queue (format in RallyWriter.h).
//
// The reader keeps the sequence of the last notification it consumed and its position in
// the current queue generation. When woken it walks from there to the queue's count and hands
// every live notification to doSlot(slot, sequence); tombstones are skipped (a newer entry of
// the same slot follows). Each entry is one word, loaded whole: its sequence is the base of the
// generation (read once, when the generation is mapped) plus the word's offset. When the writer
// swaps in a new generation, the reader finds its place again by binary search for the first entry
// above its last sequence: live entries keep their sequences, so nothing is lost and nothing needs
// a resync.
//
// A resync is needed only when the writer re-attached (the incarnation changed) or the queue
// holds something the protocol cannot produce; rally() then says so instead of guessing.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "ledger/RallyWriter.h"
#include "platform/shm/EmberFile.h"

namespace Ledger {

class RallyReader {
 public:
  using SlotFn = std::function<void(uint32_t slot, uint64_t sequence)>;
  // interrupted: doSlot detached the reader, or moved it (attach, skipToEnd); the walk stopped
  // right after that call, reading nothing more, and acknowledged nothing. corrupt (from
  // handleAck): the walk met corruption, in the queue or in what doSlot read (corruption()
  // says what); the shadow must be rebuilt once the files are whole.
  enum class Result { ok, more, resync, interrupted, corrupt };

  // Maps the control block and the current queue of <root>/<table>, which must belong to
  // `emberId`. Throws InitializationException. The reader starts at the queue's end.
  void attach(const std::string& root, const std::string& table, uint32_t emberId);
  void detach();
  bool attached() const { return control_ != nullptr; }

  // Takes everything announced so far as seen (a full sync covers it).
  void skipToEnd();
  // Walks the queue from the reader's position, at most `maxEntries` notifications.
  // ok: caught up; more: stopped at maxEntries; resync: the shadow must be rebuilt;
  // interrupted: see Result.
  Result rally(const SlotFn& doSlot, uint32_t maxEntries = UINT32_MAX);
  // A kick from the writer's side: walks, and reports a corruption as Result::corrupt. After
  // a walk it acknowledges the last sequence consumed through the ack hook (the reader's
  // record that the writer reads, see LedgerWriter::clientQuiesced).
  Result handleAck(const SlotFn& doSlot, uint32_t maxEntries = UINT32_MAX);
  void ackHookIs(std::function<void(uint64_t consumed)> hook) { ackHook_ = std::move(hook); }
  // What the last walk that answered Result::corrupt met.
  const std::string& corruption() const { return corruption_; }
  // Starts fetching what the next walk reads first: the control block, the queue's header and
  // the entries around the reader's position. A kick wakes a reader whose caches went cold
  // while it slept; these lines come from the writer's core, and fetched together their
  // misses overlap instead of adding up one after another.
  void prefetch() const;
  // Whether everything up to the writer's latest sequence has been consumed.
  bool quiesced() const;

  uint64_t lastSeq() const { return lastSeq_; }
  uint64_t writerSeq() const;
  uint32_t position() const { return pos_; }
  uint32_t generation() const { return generation_; }
  uint32_t incarnation() const { return incarnation_; }
  bool incarnationChanged() const;
  // Slots [corralStart, corralEnd) being moved out by a shrink, or an empty range.
  std::pair<uint32_t, uint32_t> corral() const;
  uint32_t writerPid() const;
  uint64_t consumed() const { return consumed_; }

  // The current queue as it stands, for tools: entries counted, capacity, slots covered, one
  // entry, and the writer's recorded position of a slot's live entry (kNoPosition if none).
  uint32_t queueCount() const { return queue_ ? count() : 0; }
  uint32_t queueCapacity() const { return capacity_; }
  // Entries below it are settled: older entries tombstoned, positions recorded (RallyWriter.h).
  uint32_t queueSettled() const {
    return queue_ ? Shm::load(queue_->settled, std::memory_order_acquire) : 0;
  }
  uint32_t slotCapacity() const { return queue_ ? slotCapacity_ : 0; }
  // The entry at `pos` (below queueCount()), taken apart against the queue's base.
  RallyEntry entryAt(uint32_t pos) const { return RallyEntry::of(loadEntry(pos), baseSeq_); }
  uint64_t queueBaseSeq() const { return baseSeq_; }
  uint32_t positionOf(uint32_t slot) const {
    if (!queue_ || slot >= slotCapacity_) return kNoPosition;
    const auto* positions =
        reinterpret_cast<const uint32_t*>(queueFile_.base() + sizeof(RallyQueueHeader));
    return Shm::load(positions[slot], std::memory_order_relaxed);
  }

  // First entry with a sequence above `seq` in the current queue (its count when none).
  uint32_t findPosition(uint64_t seq);

 private:
  Result doRally(const SlotFn& doSlot, uint32_t maxEntries);
  bool swapped() const;
  // Maps generation `g`; false when that file is already gone (swapped again).
  bool openQueue(uint32_t g);
  bool openCurrentQueue();
  void followSwap();
  void doResize(uint64_t bytes);
  uint32_t count() const;
  // Acquire: a tombstone implies the slot's newer entry is counted.
  uint64_t loadEntry(uint32_t pos) const {
    return Shm::load(entries_[pos], std::memory_order_acquire);
  }
  uint64_t sequenceAt(uint32_t pos) const {
    return baseSeq_ + RallyEntry::offsetOf(Shm::load(entries_[pos], std::memory_order_relaxed));
  }

  std::string root_;
  std::string table_;
  std::string corruption_;
  uint32_t emberId_ = 0;
  SharedMem::EmberFile controlFile_;
  SharedMem::EmberFile queueFile_;
  const RallyControl* control_ = nullptr;
  const RallyQueueHeader* queue_ = nullptr;
  const uint64_t* entries_ = nullptr;
  uint64_t baseSeq_ = 0;       // of the mapped generation, fixed before it was published
  uint32_t capacity_ = 0;      // entries the mapping holds, as read once when it was opened
  uint32_t slotCapacity_ = 0;  // positions likewise
  uint32_t generation_ = 0;
  uint32_t incarnation_ = 0;
  uint32_t pos_ = 0;
  uint64_t lastSeq_ = 0;
  uint64_t consumed_ = 0;
  // Advances whenever the reader is detached (attach detaches first) or skips to the end: a
  // walk that sees it move across a call of doSlot stops there.
  uint64_t placeEpoch_ = 0;
  std::function<void(uint64_t)> ackHook_;
};

}  // namespace Ledger
