// streamCopy at every alignment of its destination and length around its 4- and 16-byte
// steps: every byte copied, none written outside the destination.
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "ledger/StreamCopy.h"

TEST(StreamCopy, CopiesEveryByteAtEveryAlignmentAndNothingBeyond) {
  std::vector<uint8_t> source(200);
  std::iota(source.begin(), source.end(), uint8_t{1});
  alignas(64) uint8_t target[256];
  for (size_t offset = 0; offset < 20; ++offset) {
    for (size_t length = 0; length <= 150; ++length) {
      std::fill(std::begin(target), std::end(target), uint8_t{0xee});
      Ledger::streamCopy(target + offset, source.data() + 3, length);
      Ledger::streamFence();
      for (size_t i = 0; i < sizeof target; ++i) {
        const bool inside = i >= offset && i < offset + length;
        const uint8_t expected = inside ? source[3 + i - offset] : uint8_t{0xee};
        ASSERT_EQ(target[i], expected)
            << "offset " << offset << " length " << length << " at " << i;
      }
    }
  }
}
