// Value types of the label manager: Mpls::LabelRange and Mpls::LabelBlock, and the label
// bounds they are checked against.
//
// Both are written out by hand here (==, <, hash, string form and parsing); they move onto
// the framework's declared value types once those exist.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "zinc/Hash.h"

namespace Mpls {

// Label values held in a 32-bit word: ordinary labels go up to 0xFFFFF; 0x800000 is the
// special value "withdraw", the largest a label word may hold.
inline constexpr uint32_t mplsLabelMax = 0xFFFFF;
inline constexpr uint32_t mplsLabelLuWithdraw = 0x800000;
inline constexpr uint32_t labelBlockSize = 16384;
inline constexpr int labelBlockShift = 14;

// Throws the label range error when `value` is not a valid label word.
uint32_t checkedMplsLabel(int64_t value);

class LabelRange {
 public:
  LabelRange() = default;
  LabelRange(uint32_t base, uint32_t size);

  uint32_t base() const { return base_; }
  uint32_t size() const { return size_; }
  void baseIs(uint32_t base);
  void sizeIs(uint32_t size);

  friend bool operator==(const LabelRange&, const LabelRange&) = default;
  friend bool operator<(const LabelRange& a, const LabelRange& b) {
    return a.base_ != b.base_ ? a.base_ < b.base_ : a.size_ < b.size_;
  }
  uint32_t hash() const;

 private:
  uint32_t base_ = 0;
  uint32_t size_ = 0;
};

class LabelBlock {
 public:
  LabelBlock() = default;
  explicit LabelBlock(uint32_t blockStart) : blockStart_(checkedMplsLabel(blockStart)) {}

  uint32_t blockStart() const { return blockStart_; }
  void blockStartIs(uint32_t start) { blockStart_ = checkedMplsLabel(start); }

  friend bool operator==(const LabelBlock&, const LabelBlock&) = default;
  friend bool operator<(const LabelBlock& a, const LabelBlock& b) {
    return a.blockStart_ < b.blockStart_;
  }
  uint32_t hash() const;

 private:
  uint32_t blockStart_ = 0;
};

// "Value('Mpls::LabelRange', ** {'base': 100000, 'size': 262144})" and back.
std::string valueToStrep(const LabelRange& v);
std::string valueToStrep(const LabelBlock& v);
std::ostream& operator<<(std::ostream& os, const LabelRange& v);
std::ostream& operator<<(std::ostream& os, const LabelBlock& v);
// Throw Zinc::RangeException on a malformed string or an out-of-range value.
LabelRange labelRangeFromStrep(std::string_view s);
LabelBlock labelBlockFromStrep(std::string_view s);

}  // namespace Mpls
