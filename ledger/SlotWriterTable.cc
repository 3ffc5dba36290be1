#include "ledger/SlotWriterTable.h"

#include <algorithm>
#include <cstring>

#include "ledger/Exceptions.h"
#include "zinc/Exception.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("SlotWriterTable")

namespace Ledger {

using SharedMem::EmberFile;

namespace {

[[noreturn]] void corrupt(const std::string& text) { throw CorruptionException(text); }

// The largest power of two below n, and 1 for n == 1: a one-slot table keeps its slot.
uint32_t largestPowerOfTwoBelow(uint32_t n) {
  uint32_t p = 1;
  while (p * 2 < n && p < 0x80000000u) p *= 2;
  return p;
}

}  // namespace

void SlotWriterTable::bind() {
  base_ = file_.base();
  slotSize_ = header().slotSize;
  updateShrinkThreshold();
}

SlotWriterTable::Attached SlotWriterTable::attach(const SlotTableConfig& config) {
  config_ = config;
  config_.capacity = std::clamp(config.capacity, std::max(config.minSlots, 1u), config.maxSlots);
  if (!file_.open(config.root, config.table, "slots", EmberFile::Access::ReadWrite, true,
                  config.perm)) {
    throw InitializationException("SlotWriter::attach() cannot attach to shmem " + file_.path() +
                                  ": " + file_.error());
  }
  if (file_.created() || file_.size() == 0) {
    reformat(config_.capacity);
    ZTRACE(1, "SlotWriter::attach() to new file " << file_.path());
    return Attached::NewFile;
  }
  try {
    SlotTable::validate(file_.base(), file_.size(), 0);
    if (!SlotTable::matches(*reinterpret_cast<SlotTableHeader*>(file_.base()), config_.shape)) {
      throw CorruptionException("SlotWriter::attach() table shape differs from the writer's");
    }
  } catch (const CorruptionException& e) {
    reformat(config_.capacity);
    ZTRACE(0, "SlotWriter::attach() re-formatted " << file_.path() << " " << e.what());
    return Attached::Reformatted;
  }
  bind();
  try {
    freeCount_ = freeListLength();
  } catch (const CorruptionException&) {
    freeCount_ = 0;  // the validator will say what is wrong, and recovery rebuilds the list
  }
  if (config_.fixedSize && numSlots() != config_.capacity) {
    uint32_t existing = numSlots();
    detach();
    throw InitializationException(
        "SlotWriter::attach() wanted capacity:" + std::to_string(config_.capacity) +
        " for fixed-size table, but existing file has capacity:" + std::to_string(existing));
  }
  ZTRACE(1, "SlotWriter::attach() to existing " << file_.path());
  return Attached::Existing;
}

void SlotWriterTable::reformat(uint32_t numSlots) {
  freeCount_ = 0;
  uint64_t bytes = SlotTable::fileSizeFor(numSlots, config_.shape.slotSize());
  if (!file_.resize(bytes)) {
    throw InitializationException("SlotWriter::attach() failed to resize " + file_.path() + ": " +
                                  file_.error());
  }
  SlotTable::format(file_.base(), numSlots, config_.shape, EmberFile::freshEmberId());
  bind();
  addFreeSlots(0, numSlots);
}

void SlotWriterTable::detach() {
  file_.close();
  base_ = nullptr;
  shrinkThreshold_ = 0;
}

void SlotWriterTable::storeFreeHead(uint32_t head) {
  // Relaxed: readers never follow the free list; validators run in the writer or quiesced.
  Shm::store(header().freeListHead, head, std::memory_order_relaxed);
}

void SlotWriterTable::storeOccupied(uint32_t occupied) {
  // Relaxed: a count for statistics and validation; no reader decision hangs on its order.
  Shm::store(header().occupiedSlots, occupied, std::memory_order_relaxed);
}

void SlotWriterTable::setNumSlots(uint32_t n) {
  // Release: slots below n are formatted before a reader that loads n (acquire) maps them.
  Shm::store(header().numSlots, n, std::memory_order_release);
  updateShrinkThreshold();
}

uint32_t SlotWriterTable::alloc() {
  if (header().freeListHead == kNoSlot && !grow()) throwFull();
  const uint32_t index = header().freeListHead;
  if (index >= numSlots()) badFreeSlot(index);
  SlotHeader& s = slot(index);
  if (s.status & (kOccupied | kLookaside)) badFreeSlot(index);
  uint32_t next = loadLink(s.linkPair);
  storeFreeHead(isEndOfChain(next) ? kNoSlot : next);
  storeOccupied(occupiedSlots() + 1);
  --freeCount_;
  return index;
}

void SlotWriterTable::throwFull() const {
  throw TableFullException(
      "SlotWriter::alloc() Ledger table full (occupancy:" + std::to_string(occupiedSlots()) +
      " numSlots:" + std::to_string(numSlots()) + "): " + growFailure_);
}

void SlotWriterTable::badFreeSlot(uint32_t index) {
  if (index >= numSlots()) corrupt("SlotWriter::alloc() bad free slot: " + std::to_string(index));
  corrupt("SlotWriter::alloc() free slot " + std::to_string(index) +
          " is not free, status: " + std::to_string(slot(index).status));
}

void SlotWriterTable::markFree(uint32_t index, uint32_t nextFree) {
  SlotHeader& s = slot(index);
  uint32_t status = s.status;
  // Version + 1, OCCUPIED clear. Release, and before the link is reused below: a reader that
  // reached this slot and re-checks the status after following its link sees the change.
  Shm::store(s.status, (status & ~(kOccupied | kLookaside)) + kVersionStep,
             std::memory_order_release);
  storeLink(s.linkPair, nextFree);
}

void SlotWriterTable::dealloc(uint32_t index) {
  markFree(index, header().freeListHead);
  storeFreeHead(index);
  ++freeCount_;
  storeOccupied(occupiedSlots() - 1);
}

bool SlotWriterTable::grow() {
  uint32_t n = numSlots();
  uint32_t wanted = std::min<uint64_t>(config_.maxSlots, std::max<uint64_t>(2ull * n, n + 1));
  if (config_.fixedSize || wanted <= n) {
    ZTRACE(0, "SlotWriter::grow() the slot table is full but numSlots: "
                  << n << " and occupiedSlots: " << occupiedSlots());
    growFailure_ = config_.fixedSize ? "the table has a fixed size" : "the table is at its largest";
    return false;
  }
  if (!resize(wanted)) {
    growFailure_ = "cannot grow to " + std::to_string(wanted) + " slots: " + file_.error();
    return false;
  }
  ++growths_;
  return true;
}

bool SlotWriterTable::resize(uint32_t newNumSlots) {
  uint32_t n = numSlots();
  uint64_t bytes = SlotTable::fileSizeFor(newNumSlots, slotSize_);
  ZTRACE(3, "SlotWriter::resize() to " << newNumSlots << " slots, " << bytes << " bytes");
  if (newNumSlots > kMaxSlots) {
    ZTRACE(0, "SlotWriter::resize() overflowing by " << (uint64_t{newNumSlots} - kMaxSlots));
    return false;
  }
  uint8_t* oldBase = base_;
  // Growth takes the pages of the new slots first: beyond the mapping, or within it those of
  // a tail that a shrink gave back.
  const bool grows = newNumSlots > n;
  if (grows && !(bytes > file_.size() ? file_.resize(bytes) : file_.reserve(bytes))) {
    ZTRACE(0, "SlotWriter::resize() failed to resize " << file_.path() << " " << file_.error());
    return false;
  }
  bind();
  if (base_ != oldBase) {
    ZTRACE(3, "SlotWriter::resize() remap base address changed from "
                  << static_cast<void*>(oldBase) << " to " << static_cast<void*>(base_));
  }
  if (!grows) return true;
  // Slots that come back after a shrink start above every version and link generation they
  // had before it (the floor in reservedCounter). A reader that read such a slot's status
  // before the shrink can never see that status again and take a mix of old and new bytes for
  // a whole value; one that read its link pair can never see that pair again and take a chain
  // changed under it for the chain it walked.
  const uint32_t floor = header().reservedCounter * kVersionStep;
  for (uint32_t i = n; i < newNumSlots; ++i) {
    SlotTable::formatSlot(reinterpret_cast<uint8_t*>(&slot(i)), slotSize_);
    slot(i).status = floor;
    slot(i).linkPair = packLink(floor, kNoSlot);
  }
  Shm::store(header().mostSlots, std::max(header().mostSlots, newNumSlots),
             std::memory_order_relaxed);
  setNumSlots(newNumSlots);
  addFreeSlots(n, newNumSlots);
  return true;
}

void SlotWriterTable::addFreeSlots(uint32_t start, uint32_t end) {
  if (start >= end || end > numSlots()) {
    throw Zinc::InternalException(
        "SlotWriterTable::addFreeSlots() bad index range, start: " + std::to_string(start) +
        " end: " + std::to_string(end) + " numSlots: " + std::to_string(numSlots()));
  }
  if (header().freeListHead != kNoSlot) {
    throw Zinc::InternalException("SlotWriterTable::addFreeSlots() free-list is not empty");
  }
  for (uint32_t i = start; i + 1 < end; ++i) storeLink(slot(i).linkPair, i + 1);
  storeLink(slot(end - 1).linkPair, kNoSlot);
  storeFreeHead(start);
  freeCount_ += end - start;
}

uint32_t SlotWriterTable::freeListLength() const {
  auto* self = const_cast<SlotWriterTable*>(this);
  uint32_t length = 0;
  for (uint32_t i = header().freeListHead; i != kNoSlot && !isEndOfChain(i);
       i = loadLink(self->slot(i).linkPair)) {
    if (i >= numSlots() || ++length > numSlots()) {
      corrupt("SlotWriter::freeListLength() corrupt free list at slot: " + std::to_string(i));
    }
  }
  return length;
}

void SlotWriterTable::purgeFreeSlots(uint32_t threshold) {
  if (threshold == 0 || threshold > numSlots()) {
    throw Zinc::InternalException("SlotWriter::purgeFreeSlots() bad threshold: " +
                                  std::to_string(threshold));
  }
  if (header().freeListHead == kNoSlot) {
    throw Zinc::InternalException("SlotWriterTable::purgeFreeSlots() free-list is empty");
  }
  if (freeCount_ + occupiedSlots() != numSlots()) {
    corrupt("SlotWriter::purgeFreeSlots() numSlots mismatch, length of freeList: " +
            std::to_string(freeCount_) + ", occupiedSlots: " + std::to_string(occupiedSlots()) +
            " do not add up to numSlots: " + std::to_string(numSlots()));
  }
  // Every slot is occupied or free (the counts add up), so the free slots that stay are the
  // unoccupied ones below the threshold: rebuilt in one sequential pass, ascending, instead of
  // following the list through memory in the order slots were freed.
  for (uint32_t i = threshold; i < numSlots(); ++i) {
    if (!(slot(i).status & kOccupied)) {
      ZTRACE(9, "SlotWriter::purgeFreeSlots() removing slot id " << i << " from free-list");
    }
  }
  rebuildFreeListBelow(threshold);
}

void SlotWriterTable::updateShrinkThreshold() {
  const uint32_t n = attached() ? numSlots() : 0;
  if (!config_.shrinkEnabled || config_.fixedSize || n <= config_.minSlots) {
    shrinkThreshold_ = 0;
  } else {
    shrinkThreshold_ = largestPowerOfTwoBelow(n);
  }
}

void SlotWriterTable::cut(uint32_t newNumSlots) {
  ZTRACE(1, "SlotWriter::shrink() newNumSlots:" << newNumSlots << " from:" << numSlots());
  // Versions and link generations both step by 4: one floor, in steps, clears them both.
  uint32_t floor = header().reservedCounter;
  for (uint32_t i = newNumSlots; i < numSlots(); ++i) {
    const uint32_t generation =
        generationOf(Shm::load(slot(i).linkPair, std::memory_order_relaxed));
    floor = std::max({floor, slot(i).status / kVersionStep + 1, generation / kVersionStep + 1});
  }
  Shm::store(header().reservedCounter, floor, std::memory_order_relaxed);
  setNumSlots(newNumSlots);
  uint64_t keep = SlotTable::fileSizeFor(newNumSlots, slotSize_);
  if (keep < file_.size()) file_.releaseRange(keep, file_.size() - keep);
}

void SlotWriterTable::rebuildFreeList() {
  rebuildFreeListBelow(numSlots());
  storeOccupied(numSlots() - freeCount_);
}

void SlotWriterTable::rebuildFreeListBelow(uint32_t end) {
  uint32_t head = kNoSlot;
  freeCount_ = 0;
  for (uint32_t i = end; i-- > 0;) {
    if (slot(i).status & kOccupied) continue;
    storeLink(slot(i).linkPair, head);
    head = i;
    ++freeCount_;
  }
  storeFreeHead(head);
}

}  // namespace Ledger
