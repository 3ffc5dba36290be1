#include "ledger/Format.h"

namespace Ledger {

namespace {

// Each entry from the one of half its index: i's bits reversed are (i >> 1)'s reversed, moved
// down one place, with i's lowest bit on top. One step per entry keeps the compile-time
// evaluation well within every compiler's budget.
constexpr std::array<uint16_t, 65536> reversedHalfWords() {
  std::array<uint16_t, 65536> table{};
  for (uint32_t i = 1; i < table.size(); ++i) {
    table[i] = static_cast<uint16_t>((table[i >> 1] >> 1) | ((i & 1u) << 15));
  }
  return table;
}

}  // namespace

// Built by the compiler: no start-up work.
constinit const std::array<uint16_t, 65536> kReversedHalfWords = reversedHalfWords();

}  // namespace Ledger
