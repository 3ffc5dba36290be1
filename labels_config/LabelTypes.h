// Value types of the label manager, Mpls::LabelRange and Mpls::LabelBlock.
#pragma once

#include <cstdint>
#include <string_view>

#include "lfib/MplsTypes.h"
#include "zinc/Value.h"
#include "zinc/Word.h"

namespace Mpls {

inline constexpr uint32_t labelBlockSize = 16384;
inline constexpr int labelBlockShift = 14;

// A range of labels [base, base + size). The base must be an ordinary label
// ("LabelRange::base > Wire::MplsLabel::max not allowed") and the range may not run past the
// 20-bit label space ("LabelRange::size > Expr @Mpls:176 not allowed"). The empty range is
// base 0, size 0.
ZINC_VALUE_ATTRS(LabelRange, "Mpls::LabelRange", (Wire::MplsLabel, base), (uint32_t, size));
class LabelRange : public LabelRangeZincAttrs {
  ZINC_VALUE_BODY(LabelRange);

 public:
  LabelRange(uint32_t base, uint32_t size);
  LabelRange(const Wire::MplsLabel& base, const uint32_t& size) : LabelRange(base.value(), size) {}
  void baseIs(uint32_t base);
  void sizeIs(uint32_t size);
  uint64_t end() const { return uint64_t(base_.value()) + size_; }
};

// The first label of a block of labelBlockSize labels.
ZINC_VALUE(LabelBlock, "Mpls::LabelBlock", (Wire::MplsLabel, blockStart));

// Parsing of the text form, with every check of construction. Malformed text raises
// Zinc::Exception, an out-of-range value Zinc::RangeException.
LabelRange labelRangeFromStrep(std::string_view text);
LabelBlock labelBlockFromStrep(std::string_view text);

}  // namespace Mpls
