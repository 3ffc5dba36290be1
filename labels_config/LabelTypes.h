// Value types of the label manager, Mpls::LabelRange and Mpls::LabelBlock, and the label bounds
// they are checked against.
#pragma once

#include <cstdint>
#include <string_view>

#include "zinc/Value.h"
#include "zinc/Word.h"

namespace Mpls {

namespace Local {

// A label word: ordinary labels go up to max (20 bits); luWithdraw, the largest value a label
// word may hold, marks a labelled-unicast withdrawal. A label past luWithdraw raises
// "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed".
// Same bounds, messages, text and stored form as the shared Wire::MplsLabel, which replaces it
// here once the MPLS base types are in the tree.
class MplsLabel {
  ZINC_BOUNDED_BODY(MplsLabel, uint32_t, 0, 0x800000, "luWithdraw");

 public:
  static constexpr uint32_t max = 0xfffff;
  static constexpr uint32_t luWithdraw = 0x800000;
};

}  // namespace Local

inline constexpr uint32_t labelBlockSize = 16384;
inline constexpr int labelBlockShift = 14;

// A range of labels [base, base + size). The base must be an ordinary label
// ("LabelRange::base > Wire::MplsLabel::max not allowed") and the range may not run past the
// 20-bit label space ("LabelRange::size > Expr @Mpls:176 not allowed"). The empty range is
// base 0, size 0.
ZINC_VALUE_ATTRS(LabelRange, "Mpls::LabelRange", (Local::MplsLabel, base), (uint32_t, size));
class LabelRange : public LabelRangeZincAttrs {
  ZINC_VALUE_BODY(LabelRange);

 public:
  LabelRange(uint32_t base, uint32_t size);
  LabelRange(const Local::MplsLabel& base, const uint32_t& size) : LabelRange(base.value(), size) {}
  void baseIs(uint32_t base);
  void sizeIs(uint32_t size);
  uint64_t end() const { return uint64_t(base_.value()) + size_; }
};

// The first label of a block of labelBlockSize labels.
ZINC_VALUE(LabelBlock, "Mpls::LabelBlock", (Local::MplsLabel, blockStart));

// Parsing of the text form, with every check of construction. Malformed text raises
// Zinc::Exception, an out-of-range value Zinc::RangeException.
LabelRange labelRangeFromStrep(std::string_view text);
LabelBlock labelBlockFromStrep(std::string_view text);

}  // namespace Mpls
