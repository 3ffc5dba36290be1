#include "labels_config/LabelTypes.h"

#include "zinc/Exception.h"

namespace Mpls {

namespace {

void checkRange(uint32_t base, uint32_t size) {
  if (base > Wire::MplsLabel::max) {
    throw Zinc::RangeException("LabelRange::base > Wire::MplsLabel::max not allowed");
  }
  if (size > Wire::MplsLabel::max + 1 - base) {
    throw Zinc::RangeException("LabelRange::size > Expr @Mpls:176 not allowed");
  }
}

}  // namespace

LabelRange::LabelRange(uint32_t base, uint32_t size) {
  checkRange(base, size);
  base_ = base;
  size_ = size;
}

void LabelRange::baseIs(uint32_t base) {
  checkRange(base, size_);
  base_ = base;
}

void LabelRange::sizeIs(uint32_t size) {
  checkRange(base_.value(), size);
  size_ = size;
}

LabelRange labelRangeFromStrep(std::string_view text) {
  LabelRange parsed = Zinc::strepToValue<LabelRange>(text);
  return LabelRange(parsed.base(), parsed.size());
}

LabelBlock labelBlockFromStrep(std::string_view text) {
  return Zinc::strepToValue<LabelBlock>(text);
}

}  // namespace Mpls
