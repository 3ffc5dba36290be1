#include "ledger/Format.h"

namespace Ledger {

namespace {

constexpr std::array<uint16_t, 65536> reversedHalfWords() {
  std::array<uint16_t, 65536> table{};
  for (uint32_t i = 0; i < table.size(); ++i) {
    table[i] = static_cast<uint16_t>(reverseBits(i) >> 16);
  }
  return table;
}

}  // namespace

// Built by the compiler: no start-up work, and the same bits as reverseBits gives at
// compile time.
constinit const std::array<uint16_t, 65536> kReversedHalfWords = reversedHalfWords();

}  // namespace Ledger
