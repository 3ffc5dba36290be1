// What both table fuzz targets share: the record they store, the reader of fuzz input, and
// the writing of a table's files from it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ledger/SlotTable.h"
#include "zinc/Hash.h"

namespace Fuzz {

struct FuzzKey {
  uint32_t id;
  uint32_t hash() const { return Zinc::Hash::finalize(id); }
  auto operator<=>(const FuzzKey&) const = default;
};
struct FuzzValue {
  FuzzKey k;
  uint32_t data;
  FuzzKey key() const { return k; }
  static const char* typeName() { return "Fuzz::Value"; }
};

// The fuzzer's bytes, consumed front to back; reads past the end yield what is left.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  std::vector<uint8_t> take(size_t n) {
    n = std::min(n, size_ - at_);
    std::vector<uint8_t> out(data_ + at_, data_ + at_ + n);
    at_ += n;
    return out;
  }
  uint32_t word() {
    uint32_t w = 0;
    auto bytes = take(4);
    if (!bytes.empty()) std::memcpy(&w, bytes.data(), bytes.size());
    return w;
  }
  size_t left() const { return size_ - at_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

inline void writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return;
  if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

// A slot file of FuzzValue with a well-formed header of ember `ember` (so that the fuzzer
// reaches slots and chains); its slot count, occupied count and slot bytes from the input.
// `shape` may change further header fields.
template <class Fn>
std::vector<uint8_t> formattedSlotFile(Input& in, uint32_t ember, Fn shape) {
  Ledger::TableShape table{sizeof(FuzzValue), 0, "Fuzz::Value", "Ledger::Table<Fuzz::Value>"};
  uint32_t numSlots = in.word() % 64;
  std::vector<uint8_t> file(Ledger::SlotTable::fileSizeFor(numSlots, table.slotSize()));
  Ledger::SlotTable::format(file.data(), numSlots, table, ember);
  auto& h = *reinterpret_cast<Ledger::SlotTableHeader*>(file.data());
  h.occupiedSlots = in.word() % (numSlots + 2);
  shape(h);
  auto body = in.take(file.size() - Ledger::kSlotTableHeaderSize);
  if (!body.empty()) {
    std::memcpy(file.data() + Ledger::kSlotTableHeaderSize, body.data(), body.size());
  }
  return file;
}

}  // namespace Fuzz
