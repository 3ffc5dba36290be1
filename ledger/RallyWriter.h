// RallyWriter: the writer end of a table's change (rally) queue.
//
// Every change to a slot is announced by appending (sequence, slot index) to the queue.
// Sequences start at 1 and increase by one per notification. The queue stays bounded without
// ever forcing a reader to resync: only the newest notification of each slot stays live (the
// older one becomes a tombstone), and a full queue is compacted by swapping in a new queue
// file that holds the live entries in their sequence order. A reader that was at sequence s
// finds its place in the new queue by binary search for the first entry with sequence > s.
//
// Tombstoning is settled in batches. notify() only appends; every kSettleBatch entries (and
// before a swap, before the validator runs, on detach) settle() walks the entries appended
// since the last settle, in order, tombstones each one's older entry of the same slot and
// records the new entry's position. Those older entries and position slots lie anywhere in
// the file: one pass over a batch, fetching a few entries ahead, overlaps their cache misses
// instead of meeting one per write. Until its batch is settled a slot may have two live
// entries, and the position array may still name the older one (or none, for a slot first
// announced in the batch); `settled` in the queue header says where that tail begins.
//
// Files, in the table's folder:
//
//   "rally", the control block, never resized:
//   struct RallyControl {           // offset size
//     char     magic[8];            //   0    8   "LEDGRRLC"
//     uint32_t version;             //   8    4   1
//     uint32_t emberId;             //  12    4   the slot table's ember id
//     uint32_t generation;          //  16    4   current queue file is "rally.<generation>"
//     uint32_t incarnation;         //  20    4   +1 each time a writer attaches
//     uint64_t latestSeq;           //  24    8   sequence of the newest notification
//     uint32_t corralStart;         //  32    4   slots [corralStart, corralEnd) are being
//     uint32_t corralEnd;           //  36    4   moved out by a shrink; equal when none
//     uint32_t writerPid;           //  40    4   pid of the writer that attached last
//     uint32_t reserved[5];         //  44   20
//   };                              //  64
//
//   "rally.<g>", generation g of the queue (g in decimal):
//   struct RallyQueueHeader {       // offset size
//     char     magic[8];            //   0    8   "LEDGRRLQ"
//     uint32_t version;             //   8    4   1
//     uint32_t emberId;             //  12    4
//     uint32_t generation;          //  16    4   g
//     uint32_t capacity;            //  20    4   entries the file holds
//     uint32_t slotCapacity;        //  24    4   slots the position array covers
//     uint32_t count;               //  28    4   entries appended so far
//     uint32_t settled;             //  32    4   entries below it are settled (see above);
//                                   //            count - settled <= kSettleBatch
//     uint32_t reserved[7];         //  36   28
//   };                              //  64
//   uint32_t position[slotCapacity] //  64 + 4 * s: index of slot s's live entry, or kNoPosition
//   (padding to 8)
//   struct RallyEntry {             // entriesOffset + 16 * i
//     uint64_t sequence;            //   0    8
//     uint32_t slotWord;            //   8    4   slot index; bit 31 set: tombstone
//     uint32_t reserved;            //  12    4
//   } entry[capacity];
//
// What readers rely on:
//  - Entries below `count` are complete: each entry is written before `count` is advanced
//    with a release store; load `count` with acquire before reading entries below it.
//  - An entry becomes a tombstone only after the slot's newer entry is counted: a reader
//    that sees a tombstone (acquire load of slotWord) will find the newer entry below `count`.
//  - It may become one much later (at the next settle): a reader can be handed the same slot
//    twice, from its older and its newer entry. Each time it reads the slot as it is now, so
//    the second read finds nothing new and reports nothing.
//  - A swap writes the whole new file first and then release-stores `generation` in the
//    control block; a reader that loads a new generation (acquire) can open and read the new
//    file whole. The old file is unlinked but stays valid for whoever still maps it; it is
//    never written again. Live entries keep their sequences, so sequences in every
//    generation increase with the position.
//  - `incarnation` changes when a writer (re)attaches: a reader that sees it change resyncs.
//  - A writer that adopts a queue first settles its unsettled tail (a writer that died may have
//    left one, or died in the middle of settling it: settling again changes nothing twice).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "ledger/Format.h"
#include "platform/shm/EmberFile.h"

namespace Ledger {

inline constexpr char kRallyControlMagic[8] = {'L', 'E', 'D', 'G', 'R', 'R', 'L', 'C'};
inline constexpr char kRallyQueueMagic[8] = {'L', 'E', 'D', 'G', 'R', 'R', 'L', 'Q'};
inline constexpr uint32_t kRallyVersion = 1;
inline constexpr uint32_t kNoPosition = 0xffffffffu;
inline constexpr uint32_t kTombstone = 0x80000000u;
inline constexpr uint32_t kMinRallySlots = 64;
// Entries appended between two settles of the queue, at most.
inline constexpr uint32_t kSettleBatch = 256;

struct RallyControl {
  char magic[8];
  uint32_t version;
  uint32_t emberId;
  uint32_t generation;
  uint32_t incarnation;
  uint64_t latestSeq;
  uint32_t corralStart;
  uint32_t corralEnd;
  uint32_t writerPid;
  uint32_t reserved[5];
};

struct RallyQueueHeader {
  char magic[8];
  uint32_t version;
  uint32_t emberId;
  uint32_t generation;
  uint32_t capacity;
  uint32_t slotCapacity;
  uint32_t count;
  uint32_t settled;
  uint32_t reserved[7];
};

struct RallyEntry {
  uint64_t sequence;
  uint32_t slotWord;
  uint32_t reserved;
};

static_assert(sizeof(RallyControl) == 64 && offsetof(RallyControl, latestSeq) == 24);
static_assert(offsetof(RallyControl, corralStart) == 32 && offsetof(RallyControl, writerPid) == 40);
static_assert(sizeof(RallyQueueHeader) == 64 && offsetof(RallyQueueHeader, count) == 28);
static_assert(offsetof(RallyQueueHeader, settled) == 32);
static_assert(sizeof(RallyEntry) == 16 && offsetof(RallyEntry, slotWord) == 8);

// Byte offset of the first entry in a queue file with `slotCapacity` positions.
constexpr uint64_t rallyEntriesOffset(uint64_t slotCapacity) {
  return (sizeof(RallyQueueHeader) + 4 * slotCapacity + 7) & ~uint64_t{7};
}
constexpr uint64_t rallyFileSize(uint64_t slotCapacity, uint64_t capacity) {
  return rallyEntriesOffset(slotCapacity) + sizeof(RallyEntry) * capacity;
}
std::string rallyQueueName(uint32_t generation);

class RallyWriter {
 public:
  using KickHook = std::function<void()>;

  // Opens the control block and the current queue. Adopts them when they belong to
  // `emberId` and are well formed and `adopt` is set; otherwise starts an empty queue
  // (a new generation, sequences continuing when the old control block was readable).
  // Throws InitializationException when the files cannot be made.
  void attach(const std::string& root, const std::string& table, uint32_t emberId,
              uint32_t numSlots, bool adopt, SharedMem::EmberFile::Perm perm);
  void detach();
  bool attached() const { return control_ != nullptr; }
  bool adopted() const { return adopted_; }

  // Announces a change to `slot`; returns its sequence. Inline: every write ends here, and
  // only a full queue or a slot beyond the position array takes the slow path (a swap).
  uint64_t notify(uint32_t slot) {
    if (slot >= queue_->slotCapacity || queue_->count == queue_->capacity) [[unlikely]] {
      makeRoomFor(slot);
    }
    const uint64_t seq = control_->latestSeq + 1;
    const uint32_t pos = queue_->count;
    // The entry is private until `count` covers it: relaxed stores suffice here.
    Shm::store(entries_[pos].sequence, seq, std::memory_order_relaxed);
    Shm::store(entries_[pos].slotWord, slot, std::memory_order_relaxed);
    // Release: a reader that loads the new count (acquire) sees the entry whole.
    Shm::store(queue_->count, pos + 1, std::memory_order_release);
    // Release: a reader that sees latestSeq (acquire) sees every entry up to it.
    Shm::store(control_->latestSeq, seq, std::memory_order_release);
    // The entries a few writes on: their line is owned before those stores come, so that no
    // store waits for it behind the others.
    if (pos + kAppendAhead < queue_->capacity) {
      __builtin_prefetch(&entries_[pos + kAppendAhead], 1);
    }
    if (pos + 1 - settled_ >= kSettleBatch) [[unlikely]]
      settle();
    return seq;
  }
  // Settles the entries appended since the last settle (see above). Whoever checks positions
  // or needs one live entry per slot (validator, swap, detach) runs it first.
  void settle();
  void markShrinkStart(uint32_t corralStart, uint32_t corralEnd);
  void markShrinkEnd();
  // Drops every entry: a new, empty generation (recovery re-announces every slot after it).
  void reset(uint32_t numSlots);

  // Called by the table once per commit batch: runs the kick hook when something was
  // announced since the last kick. Reader wake-ups hang on this hook.
  void commit() {
    const uint64_t seq = sequence();
    if (seq == kickedSeq_) return;
    kickedSeq_ = seq;
    if (kickHook_) kickHook_();
  }
  void kickHookIs(KickHook hook) { kickHook_ = std::move(hook); }

  uint64_t sequence() const {
    return control_ ? Shm::load(control_->latestSeq, std::memory_order_relaxed) : 0;
  }
  uint32_t generation() const;
  uint32_t incarnation() const;
  uint32_t count() const { return queue_ ? queue_->count : 0; }
  uint32_t settled() const { return queue_ ? settled_ : 0; }
  uint32_t capacity() const { return queue_ ? queue_->capacity : 0; }
  uint32_t slotCapacity() const { return queue_ ? queue_->slotCapacity : 0; }
  uint32_t position(uint32_t slot) const;
  const RallyEntry& entry(uint32_t pos) const { return entries_[pos]; }
  const RallyControl& control() const { return *control_; }
  uint64_t compactions() const { return compactions_; }

 private:
  static constexpr uint32_t kAppendAhead = 16;  // four lines of entries
  static constexpr uint32_t kSettleAhead = 16;  // entries a settle fetches ahead

  // Swaps in a queue with room for one more entry and a position for `slot`.
  void makeRoomFor(uint32_t slot);
  bool adoptQueue();
  void storeSettled(uint32_t settled);
  void unbindQueue();
  void swapIn(uint32_t slotCapacity, bool keepLive);
  void bindQueue();

  std::string root_;
  std::string table_;
  uint32_t emberId_ = 0;
  SharedMem::EmberFile::Perm perm_ = SharedMem::EmberFile::Perm::OwnerOnly;
  SharedMem::EmberFile controlFile_;
  SharedMem::EmberFile queueFile_;
  RallyControl* control_ = nullptr;
  RallyQueueHeader* queue_ = nullptr;
  uint32_t* positions_ = nullptr;
  RallyEntry* entries_ = nullptr;
  uint64_t kickedSeq_ = 0;
  uint32_t settled_ = 0;  // the header's `settled`, as this writer last stored it
  uint64_t compactions_ = 0;
  bool adopted_ = false;
  KickHook kickHook_;
};

}  // namespace Ledger
