// SlotWriterTable: the writer's side of the slot table file: attach/format, slot allocation
// with the free list, growth and shrink of the file, and the store sequences by which a slot
// changes under lock-free readers. It knows nothing of keys; WriterHashMap does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "ledger/Format.h"
#include "ledger/SlotTable.h"
#include "platform/shm/EmberFile.h"

namespace Ledger {

struct SlotTableConfig {
  std::string root;  // empty: $LEDGER_ROOT or the default root
  std::string table;
  TableShape shape;
  uint32_t capacity = 64;         // slots of a new file (the exact size of a fixed-size table)
  uint32_t minSlots = 1;          // never shrinks below
  uint32_t maxSlots = kMaxSlots;  // never grows above
  bool fixedSize = false;
  bool shrinkEnabled = true;
  SharedMem::EmberFile::Perm perm = SharedMem::EmberFile::Perm::OwnerOnly;
};

class SlotWriterTable {
 public:
  enum class Attached { Existing, NewFile, Reformatted };

  // Opens or creates the slot file; adopts a valid file of the same shape, formats a new one,
  // re-formats an invalid one (with a fresh ember id). Throws InitializationException.
  Attached attach(const SlotTableConfig& config);
  // Formats the file afresh with `numSlots` slots and a fresh ember id.
  void reformat(uint32_t numSlots);
  void detach();
  bool attached() const { return base_ != nullptr; }

  SlotTableHeader& header() { return *reinterpret_cast<SlotTableHeader*>(base_); }
  const SlotTableHeader& header() const { return *reinterpret_cast<const SlotTableHeader*>(base_); }
  uint8_t* base() const { return base_; }
  size_t mappedSize() const { return file_.size(); }
  const std::string& path() const { return file_.path(); }
  uint32_t emberId() const { return header().emberId; }
  uint32_t slotSize() const { return slotSize_; }
  uint32_t valueSize() const { return header().valueSize; }
  uint32_t numSlots() const { return header().numSlots; }
  uint32_t occupiedSlots() const { return header().occupiedSlots; }
  const SlotTableConfig& config() const { return config_; }

  SlotHeader& slot(uint32_t index) {
    return *reinterpret_cast<SlotHeader*>(base_ + kSlotTableHeaderSize +
                                          (uint64_t{index} + 1) * slotSize_);
  }
  uint8_t* value(uint32_t index) { return reinterpret_cast<uint8_t*>(&slot(index)) + 16; }
  SlotHeader& lookaside() { return *reinterpret_cast<SlotHeader*>(base_ + kSlotTableHeaderSize); }

  // Takes a slot off the free list, growing the file when the list is empty; the slot is
  // counted as occupied but not yet reachable. Throws TableFullException, CorruptionException.
  uint32_t alloc();
  // Marks a slot free (a reader re-checking its status sees the change) and pushes it on the
  // free list. The slot must already be unreachable.
  void dealloc(uint32_t index);
  // Marks a slot free (status first, then its link set to `nextFree`) without touching the
  // free list or the counters: a slot cut by a shrink uses this alone.
  void markFree(uint32_t index, uint32_t nextFree = kNoSlot);

  // Rewrite protocol. openSlot: look-aside copy of an occupied slot (its rhash and the first
  // `valueBytes` bytes of its value, all a reader takes from there), then LOOKASIDE set;
  // returns the value bytes, which may now change. closeSlot: status + 2 | OCCUPIED.
  // Inline: every write runs them, and a call per step costs more than the steps. The caller
  // passes the value size as it knows it: a constant for fixed-size values, which makes the
  // look-aside copy a few moves.
  uint8_t* openSlot(SlotHeader& s, uint32_t valueBytes) {
    const uint32_t status = s.status;
    if (status & kOccupied) {
      // Step 1: rhash and value into the look-aside slot, while LOOKASIDE is still clear.
      std::memcpy(&lookaside().rhash, &s.rhash, sizeof(s.rhash) + valueBytes);
    }
    // Step 2: status + 2 sets LOOKASIDE. Release: the look-aside copy is complete before a
    // reader can see the bit and go there.
    Shm::store(s.status, status + kLookaside, std::memory_order_release);
    // The value stores that follow must not rise above the status store: the fence is a
    // compiler barrier, and stores leave this CPU in order (and after a store-store barrier
    // where the hardware needs one). A reader that copies a value concurrently sees the
    // status changed on its re-check and retries.
    std::atomic_thread_fence(std::memory_order_release);
    return reinterpret_cast<uint8_t*>(&s) + kSlotHeaderSize;
  }
  uint8_t* openSlot(uint32_t index) { return openSlot(slot(index), valueSize()); }
  void closeSlot(SlotHeader& s) {
    // Step 4: status + 2 | OCCUPIED: the carry clears LOOKASIDE and advances the version.
    // Release: the new value is complete before a reader sees the final status.
    Shm::store(s.status, (s.status + kLookaside) | kOccupied, std::memory_order_release);
  }
  void closeSlot(uint32_t index) { closeSlot(slot(index)); }
  // Stores (generation + 4, link) into a slot's or a bucket's link pair with one store.
  static void storeLink(uint64_t& pair, uint32_t link) {
    const uint64_t old = Shm::load(pair, std::memory_order_relaxed);  // only the writer stores
    // One 64-bit store with the generation advanced by 4: a reader sees old or new pair whole.
    // Release: whatever the link makes reachable (a complete value, a freed slot's status) is
    // visible to a reader that loads this pair with acquire.
    Shm::store(pair, packLink(generationOf(old) + 4, link), std::memory_order_release);
  }
  static uint32_t loadLink(const uint64_t& pair) {
    return linkOf(Shm::load(pair, std::memory_order_relaxed));  // the writer reads its own store
  }

  bool grow();
  bool resize(uint32_t newNumSlots);
  void addFreeSlots(uint32_t start, uint32_t end);
  void purgeFreeSlots(uint32_t threshold);
  // The slot count that a shrink cuts to (0: never shrinks); kept up to date on every change
  // of numSlots, since every remove asks for it.
  uint32_t shrinkThreshold() const { return shrinkThreshold_; }
  // Publishes the smaller slot count and gives the cut slots' pages back.
  void cut(uint32_t newNumSlots);
  // Rebuilds the free list from every slot below numSlots whose status is not OCCUPIED.
  void rebuildFreeList();
  // The free list: every unoccupied slot below `end`, ascending.
  void rebuildFreeListBelow(uint32_t end);
  uint32_t freeListLength() const;

  uint64_t growths() const { return growths_; }
  // Free slots as counted by this writer (the free list's length when the file is sound).
  uint32_t freeCount() const { return freeCount_; }

 private:
  void bind();
  void setNumSlots(uint32_t numSlots);
  void storeFreeHead(uint32_t head);
  void storeOccupied(uint32_t occupied);
  void updateShrinkThreshold();
  // alloc()'s failures, out of its way.
  [[noreturn, gnu::cold, gnu::noinline]] void throwFull() const;
  std::string growFailure_;  // why the last growth failed, for throwFull()
  [[noreturn, gnu::cold, gnu::noinline]] void badFreeSlot(uint32_t index);

  SlotTableConfig config_;
  SharedMem::EmberFile file_;
  uint8_t* base_ = nullptr;
  uint32_t slotSize_ = 0;
  uint64_t growths_ = 0;
  uint32_t freeCount_ = 0;
  uint32_t shrinkThreshold_ = 0;
};

}  // namespace Ledger
