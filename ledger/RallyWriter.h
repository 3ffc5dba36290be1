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
//     uint32_t version;             //   8    4   2
//     uint32_t emberId;             //  12    4
//     uint32_t generation;          //  16    4   g
//     uint32_t capacity;            //  20    4   entries the file holds
//     uint32_t slotCapacity;        //  24    4   slots the position array covers
//     uint32_t count;               //  28    4   entries appended so far
//     uint32_t settled;             //  32    4   entries below it are settled (see above);
//                                   //            count - settled <= kSettleBatch
//     uint32_t reserved0;           //  36    4
//     uint64_t baseSeq;             //  40    8   entry sequences are baseSeq + offset
//     uint32_t reserved[4];         //  48   16
//   };                              //  64
//   uint32_t position[slotCapacity] //  64 + 4 * s: index of slot s's live entry, or kNoPosition
//   (padding to 8)
//   uint64_t entry[capacity];       // entriesOffset + 8 * i, one word:
//                                   //   bits 63..32  offset: sequence - baseSeq, 1 .. 2^32 - 1
//                                   //   bit  31      tombstone
//                                   //   bits 30..0   slot index
//
// The base of a generation is fixed when the writer builds its file, before readers can learn
// of it. It is chosen so that every entry the new file can still take fits its offset:
// baseSeq = latestSeq + capacity - kMaxRallyOffset (0 while that is negative). Live entries keep
// their sequences through a compaction, so a live entry can be older than that: such an entry
// is not copied in place but announced again at the end of the new file with a fresh sequence
// (a redundant notification: a reader that had read the slot reads it again and finds nothing
// new; one that had not reads it now). On top of that the writer swaps before an append whose
// offset would not fit (an adopted file that left too little room), whatever the count.
//
// What readers rely on:
//  - An entry is one 64-bit word, stored whole and loaded whole (one atomic load).
//  - Entries below `count` are complete: each entry is written before `count` is advanced
//    with a release store; load `count` with acquire before reading entries below it.
//  - An entry becomes a tombstone only after the slot's newer entry is counted: a reader
//    that sees a tombstone (acquire load of the entry) will find the newer entry below `count`.
//  - It may become one much later (at the next settle): a reader can be handed the same slot
//    twice, from its older and its newer entry. Each time it reads the slot as it is now, so
//    the second read finds nothing new and reports nothing.
//  - A swap writes the whole new file first (base included) and then release-stores
//    `generation` in the control block; a reader that loads a new generation (acquire) can
//    open and read the new file whole. When the swap announced old entries again, `latestSeq`
//    is stored after `generation`: a reader that loads `latestSeq` and then `generation` finds
//    every sequence up to it in that generation. The old file is unlinked but stays valid for
//    whoever still maps it; it is never written again. Sequences in every generation increase
//    with the position, and for any sequence s a reader stopped at, the entries above s in the
//    new generation name every slot announced after s: the reader finds its place by binary
//    search for the first entry above s.
//  - `incarnation` changes when a writer (re)attaches: a reader that sees it change resyncs.
//  - A writer that adopts a queue first settles its unsettled tail (a writer that died may have
//    left one, or died in the middle of settling it: settling again changes nothing twice).
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "ledger/Format.h"
#include "platform/shm/EmberFile.h"

namespace Ledger {

inline constexpr char kRallyControlMagic[8] = {'L', 'E', 'D', 'G', 'R', 'R', 'L', 'C'};
inline constexpr char kRallyQueueMagic[8] = {'L', 'E', 'D', 'G', 'R', 'R', 'L', 'Q'};
inline constexpr uint32_t kRallyControlVersion = 1;
inline constexpr uint32_t kRallyQueueVersion = 2;
inline constexpr uint32_t kNoPosition = 0xffffffffu;
inline constexpr uint32_t kTombstone = 0x80000000u;
inline constexpr uint32_t kMinRallySlots = 32;
// The largest offset of an entry's sequence above its queue's base.
inline constexpr uint64_t kMaxRallyOffset = 0xffffffffu;
// The highest sequence a queue can reach: 2^62 notifications, centuries of them at any rate a
// writer manages. Far enough from 2^64 that no sum of a sequence and an offset overflows.
inline constexpr uint64_t kMaxRallySeq = uint64_t{1} << 62;
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
  uint32_t reserved0;
  uint64_t baseSeq;
  uint32_t reserved[4];
};

// A queue entry word, taken apart against its queue's base.
struct RallyEntry {
  uint64_t sequence;
  uint32_t slotWord;  // slot index, kTombstone set on a tombstone

  static constexpr uint64_t wordOf(uint64_t offset, uint32_t slotWord) {
    return offset << 32 | slotWord;
  }
  static constexpr uint32_t slotWordOf(uint64_t word) { return static_cast<uint32_t>(word); }
  static constexpr uint64_t offsetOf(uint64_t word) { return word >> 32; }
  static constexpr RallyEntry of(uint64_t word, uint64_t baseSeq) {
    return RallyEntry{baseSeq + offsetOf(word), slotWordOf(word)};
  }
};

static_assert(sizeof(RallyControl) == 64 && offsetof(RallyControl, latestSeq) == 24);
static_assert(offsetof(RallyControl, corralStart) == 32 && offsetof(RallyControl, writerPid) == 40);
static_assert(sizeof(RallyQueueHeader) == 64 && offsetof(RallyQueueHeader, count) == 28);
static_assert(offsetof(RallyQueueHeader, settled) == 32);
static_assert(offsetof(RallyQueueHeader, baseSeq) == 40);
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);
static_assert(RallyEntry::wordOf(kMaxRallyOffset, kTombstone | 5) == 0xffffffff80000005u);

// Byte offset of the first entry in a queue file with `slotCapacity` positions.
constexpr uint64_t rallyEntriesOffset(uint64_t slotCapacity) {
  return (sizeof(RallyQueueHeader) + 4 * slotCapacity + 7) & ~uint64_t{7};
}
constexpr uint64_t rallyFileSize(uint64_t slotCapacity, uint64_t capacity) {
  return rallyEntriesOffset(slotCapacity) + sizeof(uint64_t) * capacity;
}
// The base a new queue of `capacity` entries gets when the newest sequence is `latestSeq`:
// the lowest that leaves every entry it can still take an offset within `maxOffset`.
constexpr uint64_t rallyBaseFor(uint64_t latestSeq, uint64_t capacity, uint64_t maxOffset) {
  return latestSeq + capacity > maxOffset ? latestSeq + capacity - maxOffset : 0;
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
  // only a full queue (or one whose offsets are used up) or a slot beyond the position array
  // takes the slow path (a swap).
  [[gnu::always_inline]] uint64_t notify(uint32_t slot) {
    if (slot >= slotCapacity_ || count_ == appendLimit_) [[unlikely]] {
      makeRoomFor(slot, 1);
    }
    // Locals: the stores to shared memory below would make the compiler reload every member.
    const uint64_t seq = latestSeq_ + 1;
    const uint32_t pos = count_;
    uint64_t* const entries = entries_;
    latestSeq_ = seq;
    count_ = pos + 1;
    // The entry is private until `count` covers it: a relaxed store suffices here.
    Shm::store(entries[pos], RallyEntry::wordOf(seq - baseSeq_, slot), std::memory_order_relaxed);
    // Release: a reader that loads the new count (acquire) sees the entry whole.
    Shm::store(queue_->count, pos + 1, std::memory_order_release);
    // Release: a reader that sees latestSeq (acquire) sees every entry up to it.
    Shm::store(control_->latestSeq, seq, std::memory_order_release);
    // The entries a few writes on: their line is owned before those stores come, so that no
    // store waits for it behind the others. Past the end of the file it is a harmless hint.
    Shm::prefetchForWrite(reinterpret_cast<uintptr_t>(entries) +
                          sizeof(uint64_t) * (pos + kAppendAhead));
    if (pos + 1 == settleAt_) [[unlikely]]
      settle();
    return seq;
  }
  // Makes sure that the next `entries` announcements, of slots up to `slot`, need neither a
  // swap nor new pages: a queue that cannot have them (no space left for its file) fails here
  // with TableFullException, before the table changes, and never in notify().
  void reserveFor(uint32_t slot, uint32_t entries = 1) {
    if (slot >= slotCapacity_ || uint64_t{count_} + entries > appendLimit_) [[unlikely]] {
      makeRoomFor(slot, entries);
    }
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
    if (latestSeq_ == kickedSeq_) return;
    kickedSeq_ = latestSeq_;
    if (kickHook_) kickHook_();
  }
  void kickHookIs(KickHook hook) { kickHook_ = std::move(hook); }
  // The largest offset a new queue's entries may carry: kMaxRallyOffset but in tests, which
  // meet re-based queues without 2^32 notifications. Takes effect at the next swap (a queue
  // whose capacity exceeds it is based as if it were that capacity).
  void maxOffsetIs(uint64_t maxOffset) { maxOffset_ = maxOffset; }

  uint64_t sequence() const { return control_ ? latestSeq_ : 0; }
  uint32_t generation() const;
  uint32_t incarnation() const;
  uint32_t count() const { return queue_ ? count_ : 0; }
  uint32_t settled() const { return queue_ ? settled_ : 0; }
  uint32_t capacity() const { return queue_ ? queue_->capacity : 0; }
  uint32_t slotCapacity() const { return queue_ ? slotCapacity_ : 0; }
  uint64_t baseSeq() const { return queue_ ? baseSeq_ : 0; }
  uint32_t position(uint32_t slot) const;
  // The entry at `pos` (below count()), taken apart.
  RallyEntry entry(uint32_t pos) const { return RallyEntry::of(entries_[pos], baseSeq_); }
  const RallyControl& control() const { return *control_; }
  const RallyQueueHeader& queueHeader() const { return *queue_; }
  uint64_t compactions() const { return compactions_; }
  // Live entries a swap had to announce again with a fresh sequence (too old for its base).
  uint64_t reannounced() const { return reannounced_; }

 private:
  static constexpr uint32_t kAppendAhead = 32;  // four lines of entries
  static constexpr uint32_t kSettleAhead = 16;  // entries a settle fetches ahead

  // Entries whose pages a queue takes at a time, as it fills.
  static constexpr uint32_t kReserveChunk = 8192;

  // Room for `entries` more entries and a position for `slot`: the pages of the next entries,
  // or a swap. Throws TableFullException when the file system has no room for either.
  void makeRoomFor(uint32_t slot, uint32_t entries);
  // Takes the pages of the entries below `upTo` (and a chunk more); false when it cannot.
  bool reserveEntries(uint64_t upTo);
  // The entries the queue may take by its capacity and offsets; appends stop short of it
  // where pages are not reserved yet.
  void offsetLimitIs(uint32_t limit) {
    offsetLimit_ = limit;
    appendLimit_ = std::min(offsetLimit_, reservedEntries_);
  }
  bool adoptQueue();
  void storeSettled(uint32_t settled);
  void settledIs(uint32_t settled) {
    settled_ = settled;
    settleAt_ = settled + kSettleBatch;
  }
  void unbindQueue();
  void swapIn(uint32_t slotCapacity, bool keepLive);
  // Copies the live entries of the current queue into `entries`/`positions` (a new queue of
  // `slotCapacity` positions based at `baseSeq`), those too old for it announced again at
  // the end; returns how many it wrote. Advances latestSeq_ past the new announcements.
  uint32_t copyLive(uint64_t* entries, uint32_t* positions, uint32_t slotCapacity,
                    uint64_t baseSeq);
  void bindQueue();
  uint32_t appendLimitFor(uint64_t maxOffset) const;

  std::string root_;
  std::string table_;
  uint32_t emberId_ = 0;
  SharedMem::EmberFile::Perm perm_ = SharedMem::EmberFile::Perm::OwnerOnly;
  SharedMem::EmberFile controlFile_;
  SharedMem::EmberFile queueFile_;
  RallyControl* control_ = nullptr;
  RallyQueueHeader* queue_ = nullptr;
  uint32_t* positions_ = nullptr;
  uint64_t* entries_ = nullptr;
  // The writer's own copies of what it last stored in the files (it is their only writer),
  // and what bounds the next append: count_ reaching appendLimit_ takes pages or a swap.
  uint64_t latestSeq_ = 0;
  uint64_t baseSeq_ = 0;
  uint32_t count_ = 0;
  uint32_t slotCapacity_ = 0;
  uint32_t appendLimit_ = 0;
  uint32_t offsetLimit_ = 0;          // appendLimitFor(): what the queue can take without a swap
  uint32_t reservedEntries_ = 0;      // entries whose pages the file system has given
  uint32_t settled_ = 0;              // the header's `settled`, as this writer last stored it
  uint32_t settleAt_ = kSettleBatch;  // settled_ + kSettleBatch: the count that settles
  uint64_t maxOffset_ = kMaxRallyOffset;
  uint64_t kickedSeq_ = 0;
  uint64_t compactions_ = 0;
  uint64_t reannounced_ = 0;
  bool adopted_ = false;
  KickHook kickHook_;
};

}  // namespace Ledger
