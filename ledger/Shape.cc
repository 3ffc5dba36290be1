#include "ledger/Shape.h"

#include <cstring>

#include "ledger/Exceptions.h"
#include "ledger/Format.h"
#include "platform/shm/DockHash.h"
#include "zinc/Exception.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("Shape")

namespace Shape {

using Ledger::CorruptionException;

uint32_t sizeClassFor(size_t size) {
  for (uint32_t c = 0; c < kNumClasses; ++c) {
    if (size <= (size_t{1} << (kMinPayloadShift + c))) return c;
  }
  return kNumClasses;
}

uint32_t SlabHeader::checksumOf(uint32_t maxPayload, uint32_t sizeClass) {
  uint32_t words[2] = {maxPayload, sizeClass};
  return Dock::Util::hash(words, sizeof(words));
}

void SlabHeader::validate(size_t fileSize, uint32_t expectedEmber) const {
  auto fail = [](const std::string& text) { throw CorruptionException(text); };
  if (fileSize < sizeof(SlabHeader)) {
    fail("SlabHeader::validate() bad header file size: " + std::to_string(fileSize));
  }
  if (std::memcmp(magic, kSlabMagic, 8) != 0) fail("SlabHeader::validate() bad magic: ");
  if (version != kSlabVersion) {
    fail("SlabHeader::validate() bad version: " + std::to_string(version));
  }
  if (checksum != checksumOf(maxPayload, sizeClass) || sizeClass >= kNumClasses ||
      maxPayload != (1u << (kMinPayloadShift + sizeClass))) {
    fail("SlabHeader::validate() checksum fail: " + std::to_string(checksum));
  }
  if (numOccupied > numEntries) {
    fail("SlabHeader::validate() bad numOccupied: " + std::to_string(numOccupied) +
         " numEntries: " + std::to_string(numEntries));
  }
  uint64_t needed = sizeof(SlabHeader) + uint64_t{numEntries} * (8 + maxPayload);
  if (fileSize < needed) {
    fail("SlabHeader::validate() bad shmem size: " + std::to_string(fileSize) +
         " needed: " + std::to_string(needed));
  }
  if (expectedEmber != 0 && emberId != expectedEmber) {
    fail("SlabHeader::validate() bad ember:" + std::to_string(emberId) +
         " wanted:" + std::to_string(expectedEmber));
  }
  if (freeList != kNoEntry && freeList >= numEntries) {
    fail("SlabHeader::validate() bad freeList: " + std::to_string(freeList));
  }
}

SlabWriter::Attached SlabWriter::attach(const std::string& root, const std::string& table,
                                        uint32_t sizeClass, uint32_t emberId,
                                        SharedMem::EmberFile::Perm perm) {
  sizeClass_ = sizeClass;
  entrySize_ = 8 + (1u << (kMinPayloadShift + sizeClass));
  const std::string name = "slab." + std::to_string(sizeClass);
  if (!file_.open(root, table, name, SharedMem::EmberFile::Access::ReadWrite, true, perm)) {
    throw Ledger::InitializationException("SlabWriter::attach() cannot attach to " + file_.path() +
                                          ": " + file_.error());
  }
  if (file_.created() || file_.size() == 0) {
    format(emberId);
    return Attached::created;
  }
  // validateUnattached: the rules for a slab found without a writer attached to it.
  const bool readable = file_.size() >= sizeof(SlabHeader);
  const uint32_t occupied = readable ? header().numOccupied : 0;
  try {
    header().validate(readable ? file_.size() : 0, 0);
  } catch (const CorruptionException& e) {
    if (occupied == 0) {
      ZTRACE(0, name << "::validateUnattached, validation failed on an empty slab, reason: "
                     << e.what());
    } else {
      ZTRACE(0, name << "::validateUnattached() wiping invalid slab: " << e.what());
    }
    format(emberId);
    return Attached::wiped;
  }
  if (header().emberId != emberId) {
    ZTRACE(1, name << "::validateUnattached() wiping slab with old ember:" << header().emberId
                   << " wanted:" << emberId);
    format(emberId);
    return Attached::wiped;
  }
  ZTRACE(1, name << "::validateUnattached() keeping slab numOccupied:" << occupied);
  return Attached::kept;
}

void SlabWriter::format(uint32_t emberId) {
  if (!file_.resize(sizeof(SlabHeader))) {
    throw Ledger::InitializationException("SlabWriter::format() cannot size " + file_.path());
  }
  SlabHeader& h = mutableHeader();
  std::memset(&h, 0, sizeof(h));
  h.version = kSlabVersion;
  h.maxPayload = 1u << (kMinPayloadShift + sizeClass_);
  h.sizeClass = sizeClass_;
  h.checksum = SlabHeader::checksumOf(h.maxPayload, h.sizeClass);
  h.emberId = emberId;
  h.freeList = kNoEntry;
  std::memcpy(h.magic, kSlabMagic, 8);
}

bool SlabWriter::doResize(uint32_t numEntries) {
  const uint32_t old = header().numEntries;
  if (!file_.resize(sizeof(SlabHeader) + uint64_t{numEntries} * entrySize_)) {
    ZTRACE(0, "slab." << sizeClass_ << "::doResize() failed to resize from " << old << " to "
                      << numEntries << " entries: " << file_.error());
    return false;
  }
  for (uint32_t i = old; i < numEntries; ++i) {
    auto* e = reinterpret_cast<SlabEntryHeader*>(entry(i));
    e->payloadSize = 0;
    e->next = i + 1 < numEntries ? i + 1 : mutableHeader().freeList;
  }
  // Relaxed: readers bound-check offsets against the size they mapped, not against this.
  Ledger::Shm::store(mutableHeader().numEntries, numEntries, std::memory_order_relaxed);
  mutableHeader().freeList = old;
  return true;
}

uint32_t SlabWriter::alloc(uint32_t size) {
  SlabHeader& h = mutableHeader();
  if (h.freeList == kNoEntry) {
    uint32_t grown = h.numEntries ? 2 * h.numEntries : 16;
    if (h.numEntries > Ledger::kMaxSlots / 2 || !doResize(grown)) {
      throw Ledger::TableFullException("slab." + std::to_string(sizeClass_) +
                                       "::resize() failed shmem " + file_.path());
    }
  }
  const uint32_t index = mutableHeader().freeList;
  auto* e = reinterpret_cast<SlabEntryHeader*>(entry(index));
  if (index >= header().numEntries || e->payloadSize != 0) {
    throw CorruptionException("WriterAllocator::alloc() corrupt free list at entry " +
                              std::to_string(index));
  }
  mutableHeader().freeList = e->next;
  e->payloadSize = size;
  e->next = kNoEntry;
  ++mutableHeader().numOccupied;
  return index;
}

void SlabWriter::free(uint32_t index) {
  auto* e = reinterpret_cast<SlabEntryHeader*>(entry(index));
  ZINC_ASSERT(index < header().numEntries && e->payloadSize != 0, "free of a free slab entry");
  e->payloadSize = 0;
  e->next = header().freeList;
  mutableHeader().freeList = index;
  --mutableHeader().numOccupied;
}

void SlabWriter::rebuild(const std::vector<bool>& live) {
  SlabHeader& h = mutableHeader();
  h.freeList = kNoEntry;
  h.numOccupied = 0;
  for (uint32_t i = h.numEntries; i-- > 0;) {
    auto* e = reinterpret_cast<SlabEntryHeader*>(entry(i));
    if (i < live.size() && live[i]) {
      ++h.numOccupied;
      continue;
    }
    e->payloadSize = 0;
    e->next = h.freeList;
    h.freeList = i;
  }
}

void WriterAllocator::attach(const std::string& root, const std::string& table, uint32_t emberId,
                             SharedMem::EmberFile::Perm perm) {
  for (uint32_t c = 0; c < kNumClasses; ++c) slabs_[c].attach(root, table, c, emberId, perm);
}

void WriterAllocator::detach() {
  for (auto& slab : slabs_) slab.detach();
}

Offset WriterAllocator::alloc(size_t size) {
  if (size == 0) {
    throw Zinc::InternalException(
        "WriterAllocator::alloc() doing an allocation of size 0 is forbidden");
  }
  uint32_t c = sizeClassFor(size);
  if (c >= kNumClasses) {
    throw Zinc::InternalException("WriterAllocator::alloc() size " + std::to_string(size) +
                                  " exceeds the largest slab class");
  }
  return Offset::of(c, slabs_[c].alloc(static_cast<uint32_t>(size)));
}

void WriterAllocator::free(Offset offset) {
  if (offset.valid() && offset.sizeClass() < kNumClasses) {
    slabs_[offset.sizeClass()].free(offset.index());
  }
}

const uint8_t* WriterAllocator::payload(Offset offset, uint32_t* size) {
  if (!offset.valid() || offset.sizeClass() >= kNumClasses) return nullptr;
  SlabWriter& slab = slabs_[offset.sizeClass()];
  if (offset.index() >= slab.numEntries()) return nullptr;
  uint32_t payloadSize = slab.entryHeader(offset.index()).payloadSize;
  if (payloadSize == 0 || payloadSize > slab.header().maxPayload) return nullptr;
  if (size) *size = payloadSize;
  return slab.payload(offset.index());
}

void WriterAllocator::rebuild(const std::vector<Offset>& live) {
  std::array<std::vector<bool>, kNumClasses> marks;
  for (uint32_t c = 0; c < kNumClasses; ++c) marks[c].assign(slabs_[c].numEntries(), false);
  for (Offset o : live) {
    if (o.valid() && o.sizeClass() < kNumClasses && o.index() < marks[o.sizeClass()].size()) {
      marks[o.sizeClass()][o.index()] = true;
    }
  }
  for (uint32_t c = 0; c < kNumClasses; ++c) slabs_[c].rebuild(marks[c]);
}

uint64_t WriterAllocator::occupied() const {
  uint64_t n = 0;
  for (const auto& slab : slabs_) n += slab.attached() ? slab.header().numOccupied : 0;
  return n;
}

}  // namespace Shape
