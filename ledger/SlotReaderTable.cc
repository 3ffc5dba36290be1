#include "ledger/SlotReaderTable.h"

#include <sys/mman.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "ledger/Exceptions.h"
#include "ledger/SlotTable.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("SlotReaderTable")

namespace Ledger {

using SharedMem::EmberFile;

void SlotReaderTable::attach(const std::string& root, const std::string& table, uint32_t valueSize,
                             uint32_t emberId) {
  detach();
  root_ = root;
  table_ = table;
  if (!file_.open(root, table, "slots", EmberFile::Access::ReadOnly, false)) {
    throw InitializationException("SlotReader::attach() no shared memory region " + file_.path() +
                                  ": " + file_.error());
  }
  if (file_.size() < kSlotTableHeaderSize) {
    size_t size = file_.size();
    file_.close();
    throw InitializationException("SlotReader::attach() cannot attach to shmem size:" +
                                  std::to_string(size));
  }
  SlotTableHeader h;
  try {
    h = checkedHeader(emberId);
  } catch (...) {
    file_.close();
    throw;
  }
  // Sizes from the header as it was checked: read again from the file, they could be ones that
  // never were (a slot size that does not hold the value, a value beyond the slot).
  if (valueSize != 0 && h.valueSize != valueSize) {
    file_.close();
    throw InitializationException("SlotReader::attach() value size " + std::to_string(h.valueSize) +
                                  " in file, expecting " + std::to_string(valueSize));
  }
  emberId_ = h.emberId;
  slotSize_ = h.slotSize;
  valueSize_ = h.valueSize;
  identity_ = file_.identity();
  bind();
  ZTRACE(3, "SlotReader::attach() " << file_.path() << " slots:" << mappedSlots_
                                    << " ember:" << emberId_);
}

namespace {

// What a live writer moves in the header, and the file's length: equal stamps before and
// after a check mean that the check saw one state of them.
struct HeaderStamp {
  size_t fileSize = 0;
  uint32_t numSlots = 0, mostSlots = 0, occupiedSlots = 0, freeListHead = 0;
  bool operator==(const HeaderStamp&) const = default;
};

HeaderStamp stampOf(const EmberFile& file) {
  HeaderStamp s{file.fileSize()};
  if (file.size() < kSlotTableHeaderSize) return s;
  const auto& h = *reinterpret_cast<const SlotTableHeader*>(file.base());
  // Acquire: a stamp taken before the check is read before the check's own loads, and one
  // taken after it (the check's loads being acquire too) after them.
  s.numSlots = Shm::load(h.numSlots, std::memory_order_acquire);
  s.mostSlots = Shm::load(h.mostSlots, std::memory_order_acquire);
  s.occupiedSlots = Shm::load(h.occupiedSlots, std::memory_order_acquire);
  s.freeListHead = Shm::load(h.freeListHead, std::memory_order_acquire);
  return s;
}

// A header found bad while its writer moved it is looked at again this many times.
constexpr int kHeaderChecks = 16;

}  // namespace

// The checks compare counters read one after the other with the length mapped earlier; a
// writer that grows or shrinks the table between those reads makes a sound header look bad
// ("bad shmem size", "bad occupiedSlots"). Such a finding is checked again, over the file's
// length as it is then. A finding with nothing moved around it, over the whole file, is the
// file's own.
SlotTableHeader SlotReaderTable::checkedHeader(uint32_t emberId) {
  for (int check = 1;; ++check) {
    const HeaderStamp before = stampOf(file_);
    try {
      return SlotTable::validate(file_.base(), file_.size(), emberId);
    } catch (const CorruptionException&) {
      const bool moved = stampOf(file_) != before || before.fileSize != file_.size();
      if (check == kHeaderChecks || !moved || !file_.remap()) throw;
      ZTRACE(3, "SlotReader::attach() header moved during its check, checking again");
    }
  }
}

namespace {

// What a reader sees of a table whose file became too short to hold a header and the
// look-aside slot: a header of zeros (no slots, no ember), in place of the file's.
alignas(64) constexpr uint8_t kNoTable[kSlotTableHeaderSize] = {};

}  // namespace

bool SlotReaderTable::bind() {
  populatedFrom_ = populatedTo_ = 0;
  const uint64_t fixed = kSlotTableHeaderSize + uint64_t{slotSize_};  // with the look-aside slot
  if (file_.base() == nullptr || file_.size() < fixed) {
    base_ = kNoTable;
    mappedSlots_ = 0;
    return false;
  }
  base_ = file_.base();
  mappedSlots_ = uint32_t(std::min<uint64_t>((file_.size() - fixed) / slotSize_, kMaxSlots));
  return true;
}

void SlotReaderTable::detach() {
  file_.close();
  base_ = nullptr;
  mappedSlots_ = 0;
}

// A file cut shorter than its header and look-aside slot leaves the reader on kNoTable: it
// then holds no slot and no ember, and every walk over it reports corruption, until a
// re-map finds the table whole again or the reader attaches anew.
bool SlotReaderTable::doResize() {
  if (!attached()) return false;
  const uint8_t* oldBase = base_;
  if (!file_.remap()) return resizeFailed(file_.error());
  ++remaps_;
  if (!bind()) return resizeFailed("file cut to " + std::to_string(file_.size()) + " bytes");
  if (base_ != oldBase) {
    ZTRACE(3, "SlotReader::doResize() changed base address mapping from "
                  << static_cast<const void*>(oldBase) << " to "
                  << static_cast<const void*>(base_));
  }
  // The fixed part of the header never changes for a given ember; the rest must still fit.
  if (header().slotSize != slotSize_ || header().emberId != emberId_) {
    ZTRACE(0, "SlotReader::doResize() failed to resize: table re-formatted, ember:"
                  << header().emberId << " mapped ember:" << emberId_);
    return false;
  }
  ZTRACE(5, "SlotReader::doResize() successful, slots:" << mappedSlots_);
  return true;
}

bool SlotReaderTable::resizeFailed(const std::string& why) const {
  ZTRACE(0, "SlotReader::doResize() failed to resize " << file_.path() << ": " << why);
  return false;
}

void SlotReaderTable::populate(uint32_t first, uint32_t count) const {
#ifdef MADV_POPULATE_READ
  if (!attached() || first >= mappedSlots_) return;
  static const uint64_t page = uint64_t(::sysconf(_SC_PAGESIZE));
  uint64_t from = kSlotTableHeaderSize + (uint64_t{first} + 1) * slotSize_;
  const uint64_t to = std::min<uint64_t>(
      file_.size(), kSlotTableHeaderSize + (uint64_t{first} + count + 1) * slotSize_);
  // A second walk over the same mapping (a resync) finds its pages mapped already: the kernel
  // would walk them all again for nothing.
  const bool extends = from >= populatedFrom_ && from <= populatedTo_;
  if (extends) from = populatedTo_;
  from &= ~(page - 1);
  if (to <= from) return;
  ::madvise(const_cast<uint8_t*>(base_) + from, to - from, MADV_POPULATE_READ);
  if (!extends) populatedFrom_ = from;
  populatedTo_ = to;
#else
  (void)first;
  (void)count;
#endif
}

SlotReaderTable::Read SlotReaderTable::read(uint32_t index, uint8_t* out, uint32_t* rhash,
                                            uint32_t* statusOut) {
  if (index >= numSlots()) return Read::free;
  if (index >= mappedSlots_) return Read::unmapped;
  const SlotHeader& s = slot(index);
  const SlotHeader& lookaside = *reinterpret_cast<const SlotHeader*>(base_ + kSlotTableHeaderSize);
  // Acquire: the contents that this status word announces are visible to the copy below.
  uint32_t status = Shm::load(s.status, std::memory_order_acquire);
  for (uint32_t attempt = 0; attempt < kMaxReadRetries; ++attempt) {
    // With LOOKASIDE set, OCCUPIED still tells what the slot held before the rewrite began.
    if (!(status & kOccupied)) {
      if (statusOut) *statusOut = status;
      return Read::free;
    }
    const SlotHeader& from = (status & kLookaside) ? lookaside : s;
    if (status & kLookaside) ++lookasideReads_;
    uint32_t h = Shm::load(from.rhash, std::memory_order_relaxed);
    std::memcpy(out, reinterpret_cast<const uint8_t*>(&from) + kSlotHeaderSize, valueSize_);
    const bool whole = !outOfLine_ || outOfLine_->copyOut(out, outOfLineWhy_);
    // Acquire fence: the copies above are ordered before the re-load of the status word; if
    // the writer touched the copied bytes (or retired the out-of-line bytes they refer to), the
    // status word has changed by the time we see it.
    std::atomic_thread_fence(std::memory_order_acquire);
    uint32_t again = Shm::load(s.status, std::memory_order_relaxed);
    if (again == status && !whole) throw CorruptionException(outOfLineWhy_);
    if (again == status) {
      if (rhash) *rhash = h;
      if (statusOut) *statusOut = status;
      return Read::occupied;
    }
    ++retries_;
    status = again;
  }
  throw CorruptionException("SlotReader::getValue() slot " + std::to_string(index) +
                            " changed during " + std::to_string(kMaxReadRetries) +
                            " consecutive reads");
}

}  // namespace Ledger
