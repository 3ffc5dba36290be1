#include "ledger/SlotTable.h"

#include <cstring>
#include <sstream>

#include "ledger/Exceptions.h"
#include "platform/shm/DockHash.h"

namespace Ledger {

namespace {

uint32_t hashWord(uint32_t word) { return Dock::Util::hash(&word, sizeof(word)); }

void copyTypeName(char (&field)[kTypeNameSize], std::string_view name, const char* what) {
  if (name.size() >= kTypeNameSize) {
    throw InitializationException(std::string("SlotTable::Header() ") + what + std::string(name) +
                                  " exceeds " + std::to_string(kTypeNameSize) + " characters");
  }
  std::memset(field, 0, kTypeNameSize);
  std::memcpy(field, name.data(), name.size());
}

std::string printable(const char* bytes, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      static const char hex[] = "0123456789abcdef";
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

[[noreturn]] void corrupt(const std::string& text) { throw CorruptionException(text); }

}  // namespace

uint32_t SlotTable::checksum(const SlotTableHeader& h) {
  return Dock::Util::hash(h.valueTypeName, kTypeNameSize) +
         Dock::Util::hash(h.classTypeName, kTypeNameSize) + hashWord(h.valueSize) +
         hashWord(h.slotSize) + hashWord(h.tableParameter) + hashWord(h.tableKind);
}

void SlotTable::formatSlot(uint8_t* slot, uint32_t slotSize) {
  std::memset(slot, 0, slotSize);
  auto* header = reinterpret_cast<SlotHeader*>(slot);
  header->linkPair = packLink(0, kNoSlot);
}

void SlotTable::format(uint8_t* base, uint32_t numSlots, const TableShape& shape,
                       uint32_t emberId) {
  SlotTableHeader h{};
  copyTypeName(h.valueTypeName, shape.valueTypeName, "value typename ");
  copyTypeName(h.classTypeName, shape.classTypeName, "class typename: ");
  h.version = kSlotVersion;
  h.emberId = emberId;
  h.platformSpec = kPlatformSpec;
  h.valueSize = shape.valueSize;
  h.slotSize = shape.slotSize();
  h.tableParameter = shape.tableParameter;
  h.tableKind = kTableKind;
  h.checksum = checksum(h);
  h.occupiedSlots = 0;
  h.freeListHead = kNoSlot;
  h.mostSlots = numSlots;
  h.reservedCounter = 0;
  h.numSlots = numSlots;
  for (uint64_t i = 0; i <= numSlots; ++i) {
    formatSlot(base + kSlotTableHeaderSize + i * h.slotSize, h.slotSize);
  }
  // Everything but the magic, then the magic: a half-formatted file has no magic.
  auto* header = reinterpret_cast<SlotTableHeader*>(base);
  std::memset(header->magic, 0, sizeof(header->magic));
  std::memcpy(reinterpret_cast<uint8_t*>(header) + 8, reinterpret_cast<uint8_t*>(&h) + 8,
              sizeof(h) - 8);
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(header->magic, kSlotMagic, sizeof(kSlotMagic));
}

SlotTableHeader SlotTable::validate(const uint8_t* base, size_t fileSize,
                                    uint32_t expectedEmberId) {
  const uint64_t size = fileSize;
  if (size < kSlotTableHeaderSize || base == nullptr) {
    corrupt("SlotTable::Header::validate() bad header file size: " + std::to_string(size) +
            " needed at least: " + std::to_string(kSlotTableHeaderSize));
  }
  SlotTableHeader h;
  std::memcpy(&h, base, sizeof(h));
  // The counters may move under a concurrent writer; take them with single loads.
  const auto* live = reinterpret_cast<const SlotTableHeader*>(base);
  h.occupiedSlots = Shm::load(live->occupiedSlots, std::memory_order_acquire);
  h.freeListHead = Shm::load(live->freeListHead, std::memory_order_acquire);
  h.numSlots = Shm::load(live->numSlots, std::memory_order_acquire);
  h.mostSlots = Shm::load(live->mostSlots, std::memory_order_acquire);

  if (std::memcmp(h.magic, kSlotMagic, sizeof(kSlotMagic)) != 0) {
    corrupt("SlotTable::Header::validate() bad magic: " + printable(h.magic, sizeof(h.magic)));
  }
  if (h.version != kSlotVersion) {
    corrupt("SlotTable::Header::validate() bad version: " + std::to_string(h.version));
  }
  if (expectedEmberId != 0 && h.emberId != expectedEmberId) {
    corrupt("SlotTable::validate() bad ember:" + std::to_string(h.emberId) +
            " wanted:" + std::to_string(expectedEmberId));
  }
  if (h.platformSpec != kPlatformSpec) {
    corrupt("SlotTable::Header::validate() bad platform specification: " +
            std::to_string(h.platformSpec) + " expecting: " + std::to_string(kPlatformSpec));
  }
  if (uint32_t sum = checksum(h); sum != h.checksum) {
    corrupt("SlotTable::Header::validate() checksum fail: " + std::to_string(h.checksum) +
            " computed: " + std::to_string(sum));
  }
  if (h.occupiedSlots > h.numSlots) {
    corrupt("SlotTable::Header::validate() bad occupiedSlots: " + std::to_string(h.occupiedSlots) +
            " num slots: " + std::to_string(h.numSlots));
  }
  if (h.freeListHead != kNoSlot && h.freeListHead >= h.numSlots) {
    corrupt("SlotTable::Header::validate() bad freeSlots: " + std::to_string(h.freeListHead) +
            " num slots: " + std::to_string(h.numSlots));
  }
  if (h.mostSlots < h.numSlots) {
    corrupt("SlotTable::Header::validate() bad mostSlots:" + std::to_string(h.mostSlots) +
            " numSlots: " + std::to_string(h.numSlots));
  }
  if (size < fileSizeFor(0, h.slotSize)) {
    corrupt("SlotTable::Header::validate() bad header file size: " + std::to_string(size) +
            " needed at least: " + std::to_string(fileSizeFor(0, h.slotSize)));
  }
  if (size < fileSizeFor(h.numSlots, h.slotSize)) {
    corrupt("SlotTable::Header::validate() bad shmem size:" + std::to_string(size) + " for " +
            std::to_string(h.numSlots) + " slots");
  }
  if (h.slotSize < kSlotHeaderSize + uint64_t{h.valueSize} || h.slotSize % 8 != 0) {
    corrupt("SlotTable::Header::validate() bad slotSize: " + std::to_string(h.slotSize) +
            " for valueSize: " + std::to_string(h.valueSize));
  }
  if (h.numSlots > kMaxSlots) {
    corrupt("SlotTable::Header::validate() bad numSlots: " + std::to_string(h.numSlots));
  }
  return h;
}

bool SlotTable::matches(const SlotTableHeader& h, const TableShape& shape) {
  return h.valueSize == shape.valueSize && h.slotSize == shape.slotSize() &&
         h.tableParameter == shape.tableParameter &&
         typeName(h.valueTypeName) == shape.valueTypeName &&
         typeName(h.classTypeName) == shape.classTypeName;
}

std::string SlotTable::typeName(const char (&field)[kTypeNameSize]) {
  return std::string(field, strnlen(field, kTypeNameSize));
}

std::string SlotTable::describe(const SlotTableHeader& h) {
  std::ostringstream os;
  os << "magic: " << printable(h.magic, sizeof(h.magic)) << "\nversion: " << h.version
     << "\nemberId: " << h.emberId << "\nplatformSpec: " << h.platformSpec
     << "\nvalueTypeName: " << printable(h.valueTypeName, strnlen(h.valueTypeName, 64))
     << "\nclassTypeName: " << printable(h.classTypeName, strnlen(h.classTypeName, 64))
     << "\nvalueSize: " << h.valueSize << "\nslotSize: " << h.slotSize
     << "\ntableParameter: " << h.tableParameter << "\ntableKind: " << h.tableKind
     << "\nchecksum: " << h.checksum
     << "\noccupiedSlots: " << Shm::load(h.occupiedSlots, std::memory_order_relaxed)
     << "\nfreeListHead: " << Shm::load(h.freeListHead, std::memory_order_relaxed)
     << "\nmostSlots: " << Shm::load(h.mostSlots, std::memory_order_relaxed)
     << "\nnumSlots: " << Shm::load(h.numSlots, std::memory_order_relaxed) << "\n";
  return os.str();
}

}  // namespace Ledger
