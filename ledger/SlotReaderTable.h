// SlotReaderTable: a reader's read-only mapping of a table's slot file (layout in Format.h),
// and the consistent read of one slot that the lock-free protocol rests on.
//
// The writer changes a slot's status word before and after every rewrite: +2 sets LOOKASIDE
// once the previous contents are in the look-aside slot, and +2 | OCCUPIED clears it (with a
// carry into the version) once the new contents are complete. A copy taken between two equal
// loads of the status word is therefore whole: from the slot itself when LOOKASIDE was clear,
// from the look-aside slot when it was set.
//
// Nothing read from the file is trusted: every index is checked against both the mapping and
// the header, and a slot that never holds still is reported as corruption, not spun on.
#pragma once

#include <cstdint>
#include <string>

#include "ledger/Format.h"
#include "platform/shm/EmberFile.h"

namespace Ledger {

// The out-of-line part of a table whose slots refer to bytes kept elsewhere (slabs). The
// consistent read calls copyOut() after copying a slot's bytes and before re-checking its
// status word, so that the referred bytes are covered by the same check: copyOut() replaces
// the reference in `stored` by a copy of what it refers to. False when the reference leads
// nowhere (`why` says where): a torn read if the status word moved meanwhile, else corruption.
class OutOfLineReader {
 public:
  virtual bool copyOut(uint8_t* stored, std::string& why) = 0;

 protected:
  ~OutOfLineReader() = default;
};

class SlotReaderTable {
 public:
  // A slot that changed this many times during one read is not being written by a writer
  // that follows the protocol.
  static constexpr uint32_t kMaxReadRetries = 1u << 16;

  // Maps <root>/<table>/slots read-only and validates its header (any ember id when
  // `emberId` is 0). `valueSize` 0 accepts any. Throws InitializationException when there is
  // no file, CorruptionException when its header is bad.
  void attach(const std::string& root, const std::string& table, uint32_t valueSize = 0,
              uint32_t emberId = 0);
  void detach();
  bool attached() const { return base_ != nullptr; }

  // Maps the file's current length again (the writer grew it); false when that fails or the
  // header no longer validates. The mapping may move. A file cut too short for its header
  // leaves a table of no slots (mappedSlots() and numSlots() 0, ember 0) until one succeeds.
  bool doResize();

  const SlotTableHeader& header() const { return *reinterpret_cast<const SlotTableHeader*>(base_); }
  uint32_t emberId() const { return emberId_; }
  uint32_t slotSize() const { return slotSize_; }
  uint32_t valueSize() const { return valueSize_; }
  // Slots covered by the mapping; may lag behind the writer's numSlots until doResize().
  uint32_t mappedSlots() const { return mappedSlots_; }
  // The writer's numSlots and occupiedSlots now.
  uint32_t numSlots() const { return Shm::load(header().numSlots, std::memory_order_acquire); }
  uint32_t occupiedSlots() const {
    return Shm::load(header().occupiedSlots, std::memory_order_relaxed);
  }
  // Bytes of the file at base(): none while it is cut too short (see doResize).
  size_t mappedSize() const { return base_ == file_.base() ? file_.size() : 0; }
  const uint8_t* base() const { return base_; }
  const std::string& path() const { return file_.path(); }
  // Inode and device of the mapped file, to notice that a table was removed and re-made.
  uint64_t fileIdentity() const { return identity_; }

  // Raw access for chain walks; `index` must be below mappedSlots().
  const SlotHeader& slot(uint32_t index) const {
    return *reinterpret_cast<const SlotHeader*>(base_ + kSlotTableHeaderSize +
                                                (uint64_t{index} + 1) * slotSize_);
  }
  const uint8_t* value(uint32_t index) const {
    return reinterpret_cast<const uint8_t*>(&slot(index)) + kSlotHeaderSize;
  }
  // Starts fetching every cache line of slot `index` (below mappedSlots()), so that its
  // header, key and value arrive together instead of one miss after another.
  void prefetch(uint32_t index) const { prefetchSpan(&slot(index), slotSize_); }

  // The end of a consistent read done in place: true when the status word of slot `index`
  // (below mappedSlots()) still is `status`, loaded after everything read from the slot
  // before this call (with `status` OCCUPIED and LOOKASIDE clear, those reads are whole).
  bool unchangedSince(uint32_t index, uint32_t status) const {
    std::atomic_thread_fence(std::memory_order_acquire);
    return Shm::load(slot(index).status, std::memory_order_relaxed) == status;
  }

  // Maps in the pages of slots [first, first + count) now, in one call, ahead of a walk over
  // them (instead of one page fault after another on the way). Advice only: a failure, or a
  // range beyond the mapping, is harmless.
  void populate(uint32_t first, uint32_t count) const;

  enum class Read { occupied, free, unmapped };
  // The consistent read: copies valueSize() bytes of the slot's value into `out` (and its
  // rhash) when it is OCCUPIED. `unmapped`: the index is below the writer's numSlots but
  // beyond the mapping (doResize and try again). An index at or above numSlots reads free.
  // Throws CorruptionException when the slot keeps changing for kMaxReadRetries reads.
  Read read(uint32_t index, uint8_t* out, uint32_t* rhash = nullptr, uint32_t* status = nullptr);

  // Out-of-line bytes copied by every read from now on; null for none.
  void outOfLineIs(OutOfLineReader* outOfLine) { outOfLine_ = outOfLine; }

  uint64_t lookasideReads() const { return lookasideReads_; }
  uint64_t retries() const { return retries_; }
  uint64_t remaps() const { return remaps_; }

 private:
  SlotTableHeader checkedHeader(uint32_t emberId);
  // Takes the slots that the mapping holds; false (and no slots) when it is too short.
  bool bind();
  bool resizeFailed(const std::string& why) const;

  std::string root_;
  std::string table_;
  SharedMem::EmberFile file_;
  const uint8_t* base_ = nullptr;
  uint32_t emberId_ = 0;
  uint32_t slotSize_ = 0;
  uint32_t valueSize_ = 0;
  uint32_t mappedSlots_ = 0;
  // The bytes of the mapping that populate() last mapped in, as one range.
  mutable uint64_t populatedFrom_ = 0;
  mutable uint64_t populatedTo_ = 0;
  uint64_t identity_ = 0;
  uint64_t lookasideReads_ = 0;
  uint64_t retries_ = 0;
  uint64_t remaps_ = 0;
  OutOfLineReader* outOfLine_ = nullptr;
  std::string outOfLineWhy_;
};

}  // namespace Ledger
