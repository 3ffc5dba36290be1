// SlotTable: formatting, checksum and validation of a slot table file (layout in Format.h),
// shared by the writer, the readers and the tools.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ledger/Format.h"

namespace Ledger {

// What a table's slot file must look like, from its writer's or reader's point of view.
struct TableShape {
  uint32_t valueSize = 0;
  uint32_t tableParameter = 0;
  std::string valueTypeName;
  std::string classTypeName;
  uint32_t slotSize() const { return slotSizeFor(valueSize); }
};

class SlotTable {
 public:
  static constexpr uint64_t fileSizeFor(uint64_t numSlots, uint64_t slotSize) {
    return kSlotTableHeaderSize + (numSlots + 1) * slotSize;
  }

  // Sum (mod 2^32) of the platform hash of each type name field and of each of the words at
  // 148, 152, 156 and 160.
  static uint32_t checksum(const SlotTableHeader& header);

  // Formats `base` (at least fileSizeFor(numSlots) bytes) as an empty table: every slot fresh,
  // then the header, magic last, so that a process killed half-way leaves a file that fails
  // validation. Throws InitializationException when a type name has 64 characters or more.
  static void format(uint8_t* base, uint32_t numSlots, const TableShape& shape, uint32_t emberId);
  // A fresh slot: link generation 0, link all-ones, status 0, rhash 0, value zero.
  static void formatSlot(uint8_t* slot, uint32_t slotSize);

  // The ten header checks in order, then the layout checks that make slot access safe
  // (slotSize holds the value and keeps link pairs 8-aligned, numSlots fits a link).
  // Throws CorruptionException with the first failure's message. `fileSize` is the number of
  // bytes mapped; nothing beyond it is read. A file shorter than the header fails the header
  // size check before anything is read from it. Returns the header as checked: the one copy
  // of it to take sizes from, since the file's own may have changed since.
  static SlotTableHeader validate(const uint8_t* base, size_t fileSize, uint32_t expectedEmberId);

  // True when the header describes `shape` (same value size, slot size and type names).
  static bool matches(const SlotTableHeader& header, const TableShape& shape);

  // Header fields, one per line, for dumps and the tools.
  static std::string describe(const SlotTableHeader& header);

  static std::string typeName(const char (&field)[kTypeNameSize]);
};

}  // namespace Ledger
