#include "ledger/Shape.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "ledger/Exceptions.h"
#include "ledger/Format.h"
#include "platform/shm/DockHash.h"
#include "zinc/Exception.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("Shape")

namespace Shape {

using Ledger::CorruptionException;

namespace {
// A free entry's link to the next free entry, in the first word of its payload.
uint32_t nextFreeOf(const SlabEntryHeader* e) {
  uint32_t next;
  std::memcpy(&next, e + 1, sizeof(next));
  return next;
}
void nextFreeIs(SlabEntryHeader* e, uint32_t next) { std::memcpy(e + 1, &next, sizeof(next)); }
}  // namespace

std::string referencedTwice(uint32_t sizeClass, uint32_t index) {
  return "slab." + std::to_string(sizeClass) + " entry " + std::to_string(index) +
         " referenced twice";
}

std::string checkEntries(const uint8_t* file, size_t fileSize,
                         const std::vector<bool>* referenced) {
  if (!file || fileSize < sizeof(SlabHeader)) return "slab file not mapped";
  const auto& h = *reinterpret_cast<const SlabHeader*>(file);
  const std::string name = "slab." + std::to_string(h.sizeClass);
  const uint64_t entrySize = sizeof(SlabEntryHeader) + h.maxPayload;
  const uint32_t n = uint32_t(
      std::min<uint64_t>({h.highWater, h.numEntries, (fileSize - sizeof(SlabHeader)) / entrySize}));
  auto entry = [&](uint32_t i) {
    return reinterpret_cast<const SlabEntryHeader*>(file + sizeof(SlabHeader) + i * entrySize);
  };
  std::vector<bool> onFreeList(n, false);
  uint32_t free = 0;
  for (uint32_t i = h.freeList; i != kNoEntry; i = nextFreeOf(entry(i))) {
    if (i >= n) return name + " free list entry " + std::to_string(i) + " beyond the file";
    if (onFreeList[i]) return name + " free list loop at entry " + std::to_string(i);
    if (entry(i)->payloadSize != 0) {
      return name + " free list entry " + std::to_string(i) + " holds a payload";
    }
    onFreeList[i] = true;
    ++free;
  }
  uint32_t used = 0;
  for (uint32_t i = 0; i < n; ++i) {
    const uint32_t size = entry(i)->payloadSize;
    const bool isReferenced = referenced && i < referenced->size() && (*referenced)[i];
    if (size > h.maxPayload) {
      return name + " entry " + std::to_string(i) + " has payload size " + std::to_string(size) +
             " beyond maxPayload " + std::to_string(h.maxPayload);
    }
    if (referenced && isReferenced != (size != 0)) {
      return name + " entry " + std::to_string(i) +
             (isReferenced ? " referenced but free" : " in use but referenced by no slot");
    }
    used += size != 0;
  }
  if (referenced && referenced->size() > n) {
    for (uint32_t i = n; i < referenced->size(); ++i) {
      if ((*referenced)[i]) {
        return name + " entry " + std::to_string(i) + " referenced but above the high water";
      }
    }
  }
  if (used != h.numOccupied || used + free != n) {
    return name + " numOccupied:" + std::to_string(h.numOccupied) + " but " + std::to_string(used) +
           " entries in use and " + std::to_string(free) + " free of " + std::to_string(n);
  }
  return {};
}

uint32_t SlabHeader::checksumOf(uint32_t maxPayload, uint32_t sizeClass) {
  uint32_t words[2] = {maxPayload, sizeClass};
  return Dock::Util::hash(words, sizeof(words));
}

namespace {
[[noreturn]] void slabFail(const std::string& text) { throw CorruptionException(text); }
}  // namespace

void SlabHeader::validateIdentity() const {
  if (std::memcmp(magic, kSlabMagic, 8) != 0) slabFail("SlabHeader::validate() bad magic: ");
  if (version != kSlabVersion) {
    slabFail("SlabHeader::validate() bad version: " + std::to_string(version));
  }
  if (checksum != checksumOf(maxPayload, sizeClass) || sizeClass >= kNumClasses ||
      maxPayload != maxPayloadOf(sizeClass)) {
    slabFail("SlabHeader::validate() checksum fail: " + std::to_string(checksum));
  }
}

void SlabHeader::validateEmber(uint32_t expectedEmber) const {
  if (expectedEmber != 0 && emberId != expectedEmber) {
    slabFail("SlabHeader::validate() bad ember:" + std::to_string(emberId) +
             " wanted:" + std::to_string(expectedEmber));
  }
}

void SlabHeader::validateFixed(uint32_t expectedEmber) const {
  validateIdentity();
  validateEmber(expectedEmber);
}

void SlabHeader::validate(size_t fileSize, uint32_t expectedEmber) const {
  if (fileSize < sizeof(SlabHeader)) {
    slabFail("SlabHeader::validate() bad header file size: " + std::to_string(fileSize));
  }
  validateIdentity();
  if (numOccupied > numEntries) {
    slabFail("SlabHeader::validate() bad numOccupied: " + std::to_string(numOccupied) +
             " numEntries: " + std::to_string(numEntries));
  }
  uint64_t needed = sizeof(SlabHeader) + uint64_t{numEntries} * (kEntryHeaderSize + maxPayload);
  if (fileSize < needed) {
    slabFail("SlabHeader::validate() bad shmem size: " + std::to_string(fileSize) +
             " needed: " + std::to_string(needed));
  }
  validateEmber(expectedEmber);
  if (highWater > numEntries || numOccupied > highWater) {
    slabFail("SlabHeader::validate() bad highWater: " + std::to_string(highWater) +
             " numEntries: " + std::to_string(numEntries));
  }
  if (freeList != kNoEntry && freeList >= highWater) {
    slabFail("SlabHeader::validate() bad freeList: " + std::to_string(freeList));
  }
}

SlabWriter::Attached SlabWriter::attach(const std::string& root, const std::string& table,
                                        uint32_t sizeClass, uint32_t emberId,
                                        SharedMem::EmberFile::Perm perm) {
  sizeClass_ = sizeClass;
  entrySize_ = entrySizeOf(sizeClass);
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
  populatedEnd_ = entryOffset(header().highWater);
  ZTRACE(1, name << "::validateUnattached() keeping slab numOccupied:" << occupied);
  return Attached::kept;
}

void SlabWriter::format(uint32_t emberId) {
  if (!file_.resize(sizeof(SlabHeader))) {
    throw Ledger::InitializationException("SlabWriter::format() cannot size " + file_.path() +
                                          ": " + file_.error());
  }
  SlabHeader& h = mutableHeader();
  std::memset(&h, 0, sizeof(h));
  h.version = kSlabVersion;
  h.maxPayload = maxPayloadOf(sizeClass_);
  h.sizeClass = sizeClass_;
  h.checksum = SlabHeader::checksumOf(h.maxPayload, h.sizeClass);
  h.emberId = emberId;
  h.freeList = kNoEntry;
  std::memcpy(h.magic, kSlabMagic, 8);
  populatedEnd_ = sizeof(SlabHeader);
}

bool SlabWriter::doResize(uint32_t numEntries) {
  const uint32_t old = header().numEntries;
  // Pages are taken as entries are handed out (populateThrough), not for the whole file.
  if (!file_.resize(sizeof(SlabHeader) + uint64_t{numEntries} * entrySize_, populatedEnd_)) {
    ZTRACE(0, "slab." << sizeClass_ << "::doResize() failed to resize from " << old << " to "
                      << numEntries << " entries: " << file_.error());
    return false;
  }
  // The new entries stay untouched (above highWater) until alloc() hands them out.
  // Relaxed: readers bound-check offsets against the size they mapped, not against this.
  Ledger::Shm::store(mutableHeader().numEntries, numEntries, std::memory_order_relaxed);
  return true;
}

uint32_t SlabWriter::alloc(uint32_t size) {
  ZINC_ASSERT(size != 0 && size <= header().maxPayload, "slab entry size outside its class");
  if (header().freeList == kNoEntry) return allocAboveHighWater(size);
  const uint32_t index = mutableHeader().freeList;
  auto* e = reinterpret_cast<SlabEntryHeader*>(entry(index));
  if (index >= header().highWater || e->payloadSize != 0) {
    throw CorruptionException("WriterAllocator::alloc() corrupt free list at entry " +
                              std::to_string(index));
  }
  mutableHeader().freeList = nextFreeOf(e);
  e->payloadSize = size;
  ++mutableHeader().numOccupied;
  return index;
}

uint32_t SlabWriter::allocAboveHighWater(uint32_t size) {
  const SlabHeader& h = header();
  if (h.highWater == h.numEntries) {
    const uint32_t grown = h.numEntries ? 2 * h.numEntries : 16;
    if (h.numEntries > Ledger::kMaxSlots / 2 || !doResize(grown)) {
      throw Ledger::TableFullException("slab." + std::to_string(sizeClass_) +
                                       "::resize() failed shmem " + file_.path());
    }
  }
  const uint32_t index = header().highWater;  // `h` is gone if the resize moved the mapping
  populateThrough(index);                     // may fail for want of room, with nothing changed
  ++mutableHeader().highWater;
  auto* e = reinterpret_cast<SlabEntryHeader*>(entry(index));
  e->payloadSize = size;
  ++mutableHeader().numOccupied;
  return index;
}

void SlabWriter::populateThrough(uint32_t index) {
  const uint64_t end = entryOffset(index + 1);
  if (end <= populatedEnd_) return;
  const uint64_t from = std::max(populatedEnd_, entryOffset(index));
  // The pages are taken first: a file system with no room left fails the allocation here
  // rather than the first store to the entry. The last bytes of room still take an entry.
  uint64_t upTo = std::min<uint64_t>(file_.size(), end + kPopulateAhead);
  if (!file_.reserve(upTo) && !file_.reserve(upTo = end)) {
    throw Ledger::TableFullException("slab." + std::to_string(sizeClass_) +
                                     "::alloc() no room for entry " + std::to_string(index) + ": " +
                                     file_.error());
  }
  file_.populate(from, upTo - from);
  populatedEnd_ = upTo;
}

void SlabWriter::free(uint32_t index) {
  auto* e = reinterpret_cast<SlabEntryHeader*>(entry(index));
  ZINC_ASSERT(index < header().highWater && e->payloadSize != 0, "free of a free slab entry");
  e->payloadSize = 0;
  nextFreeIs(e, header().freeList);
  mutableHeader().freeList = index;
  --mutableHeader().numOccupied;
}

void SlabWriter::rebuild(const std::vector<bool>& live) {
  SlabHeader& h = mutableHeader();
  h.freeList = kNoEntry;
  h.numOccupied = 0;
  // An entry in use cannot lie above the high water.
  for (uint32_t i = uint32_t(std::min<size_t>(live.size(), h.numEntries)); i > h.highWater; --i) {
    if (live[i - 1]) {
      h.highWater = i;
      break;
    }
  }
  for (uint32_t i = h.highWater; i-- > 0;) {
    auto* e = reinterpret_cast<SlabEntryHeader*>(entry(i));
    if (i < live.size() && live[i]) {
      ++h.numOccupied;
      continue;
    }
    e->payloadSize = 0;
    nextFreeIs(e, h.freeList);
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

std::string WriterAllocator::check(const std::vector<Offset>& live) const {
  std::array<std::vector<bool>, kNumClasses> marks;
  for (uint32_t c = 0; c < kNumClasses; ++c) marks[c].assign(slabs_[c].numEntries(), false);
  for (Offset o : live) {
    if (!o.valid() || o.sizeClass() >= kNumClasses || o.index() >= marks[o.sizeClass()].size()) {
      std::ostringstream why;
      why << "WriterAllocator::check() reference to no slab entry: 0x" << std::hex << o.raw;
      return why.str();
    }
    std::vector<bool>& classMarks = marks[o.sizeClass()];
    if (classMarks[o.index()]) return referencedTwice(o.sizeClass(), o.index());
    classMarks[o.index()] = true;
  }
  for (uint32_t c = 0; c < kNumClasses; ++c) {
    if (std::string problem = slabs_[c].check(&marks[c]); !problem.empty()) return problem;
  }
  return {};
}

uint64_t WriterAllocator::occupied() const {
  uint64_t n = 0;
  for (const auto& slab : slabs_) n += slab.attached() ? slab.header().numOccupied : 0;
  return n;
}

}  // namespace Shape

namespace Shape {

void SlabReader::attach(const std::string& root, const std::string& table, uint32_t sizeClass,
                        uint32_t emberId) {
  detach();
  sizeClass_ = sizeClass;
  emberId_ = emberId;
  const std::string name = "slab." + std::to_string(sizeClass);
  if (!file_.open(root, table, name, SharedMem::EmberFile::Access::ReadOnly, false)) {
    std::string why =
        "SlabReader::attach() no shared memory region " + file_.path() + ": " + file_.error();
    file_.close();
    throw Ledger::InitializationException(why);
  }
  try {
    if (file_.size() < sizeof(SlabHeader)) {
      throw CorruptionException("SlabHeader::validate() bad header file size: " +
                                std::to_string(file_.size()));
    }
    header().validateFixed(emberId);
    if (header().sizeClass != sizeClass) {
      throw CorruptionException("SlabHeader::validate() checksum fail: size class " +
                                std::to_string(header().sizeClass) + " in " + name);
    }
  } catch (...) {
    file_.close();
    throw;
  }
  emberId_ = header().emberId;
  bind();
}

void SlabReader::bind() {
  // From the size class, not from the header again: the header's was checked to be this one,
  // and entries are laid out by it whatever the file says later.
  maxPayload_ = maxPayloadOf(sizeClass_);
  entrySize_ = sizeof(SlabEntryHeader) + maxPayload_;
  const uint64_t entries = (file_.size() - sizeof(SlabHeader)) / entrySize_;
  mappedEntries_ = uint32_t(std::min<uint64_t>(entries, Ledger::kMaxSlots));
}

void SlabReader::detach() {
  file_.close();
  mappedEntries_ = 0;
}

bool SlabReader::doResize() {
  if (!attached()) return false;
  const uint32_t old = mappedEntries_;
  if (!file_.remap()) {
    ZTRACE(0, "slab." << sizeClass_ << "::doResize() failed to resize from " << old
                      << " entries: " << file_.error());
    return false;
  }
  ++remaps_;
  // Only the fixed part of the header is checked here: the writer changes the counts while
  // we look, and every entry we read is bounds-checked against the mapping anyway.
  const SlabHeader* h = file_.size() >= sizeof(SlabHeader) ? &header() : nullptr;
  if (!h || std::memcmp(h->magic, kSlabMagic, 8) != 0 || h->emberId != emberId_ ||
      h->sizeClass != sizeClass_ || h->maxPayload != maxPayload_) {
    ZTRACE(0, "slab." << sizeClass_ << "::doResize() failed to resize from " << old
                      << " entries: slab re-formatted");
    mappedEntries_ = 0;
    return false;
  }
  bind();
  return true;
}

uint32_t SlabReader::copy(uint32_t index, uint8_t* out, uint32_t capacity, std::string& why) {
  if (index >= mappedEntries_ && !doResize()) {
    why = "slab." + std::to_string(sizeClass_) + "::doResize() failed to resize from " +
          std::to_string(mappedEntries_) + " for entry " + std::to_string(index);
    return 0;
  }
  if (index >= mappedEntries_) {
    why = "SlabReader::copy() entry " + std::to_string(index) + " beyond slab." +
          std::to_string(sizeClass_) + " of " + std::to_string(mappedEntries_) + " entries";
    return 0;
  }
  const SlabEntryHeader* e = entry(index);
  const uint32_t size = Ledger::Shm::load(e->payloadSize, std::memory_order_relaxed);
  if (size == 0 || size > maxPayload_ || size > capacity) {
    why = "SlabReader::copy() slab." + std::to_string(sizeClass_) + " entry " +
          std::to_string(index) + " has payload size " + std::to_string(size) +
          (size == 0 ? " (free)" : " beyond maxPayload " + std::to_string(maxPayload_));
    return 0;
  }
  std::memcpy(out, e + 1, size);
  return size;
}

const uint8_t* SlabReader::payload(uint32_t index, uint32_t* size) const {
  if (index >= mappedEntries_) return nullptr;
  const SlabEntryHeader* e = entry(index);
  // One load: the size checked is the size told.
  const uint32_t payloadSize = Ledger::Shm::load(e->payloadSize, std::memory_order_relaxed);
  if (payloadSize == 0 || payloadSize > maxPayload_) return nullptr;
  if (size) *size = payloadSize;
  return reinterpret_cast<const uint8_t*>(e + 1);
}

void ReaderAllocator::attach(const std::string& root, const std::string& table, uint32_t emberId) {
  detach();
  root_ = root;
  table_ = table;
  emberId_ = emberId;
}

void ReaderAllocator::detach() {
  for (auto& slab : slabs_) slab.detach();
}

SlabReader* ReaderAllocator::slab(uint32_t sizeClass, std::string& why) {
  if (sizeClass >= kNumClasses) {
    why = "ReaderAllocator::slab() no size class " + std::to_string(sizeClass);
    return nullptr;
  }
  SlabReader& slab = slabs_[sizeClass];
  if (!slab.attached()) {
    try {
      slab.attach(root_, table_, sizeClass, emberId_);
    } catch (const Zinc::Exception& e) {
      why = e.what();
      return nullptr;
    }
  }
  return &slab;
}

uint32_t ReaderAllocator::copy(Offset offset, uint8_t* out, uint32_t capacity, std::string& why) {
  if (!offset.valid()) {
    why = "ReaderAllocator::copy() slot refers to no slab entry: 0x" + std::to_string(offset.raw);
    return 0;
  }
  SlabReader* s = slab(offset.sizeClass(), why);
  return s ? s->copy(offset.index(), out, capacity, why) : 0;
}

bool ReaderAllocator::copyReferenced(uint8_t* stored, uint32_t capacity, std::string& why) {
  Offset offset;
  std::memcpy(&offset, stored, sizeof(offset));
  const uint32_t size = copy(offset, stored + sizeof(uint32_t), capacity, why);
  std::memcpy(stored, &size, sizeof(size));
  return size != 0;
}

}  // namespace Shape
