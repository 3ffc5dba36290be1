#include "labels_config/LabelTypes.h"

#include <charconv>
#include <vector>

#include "zinc/Exception.h"

namespace Mpls {

uint32_t checkedMplsLabel(int64_t value) {
  if (value < 0 || value > mplsLabelLuWithdraw) {
    throw Zinc::RangeException(
        "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");
  }
  return static_cast<uint32_t>(value);
}

LabelRange::LabelRange(uint32_t base, uint32_t size) {
  baseIs(base);
  sizeIs(size);
}

void LabelRange::baseIs(uint32_t base) {
  if (base > mplsLabelMax) {
    throw Zinc::RangeException("LabelRange::base > Wire::MplsLabel::max not allowed");
  }
  if (size_ > mplsLabelMax + 1 - base) {
    throw Zinc::RangeException("LabelRange::size > Expr @Mpls:176 not allowed");
  }
  base_ = base;
}

void LabelRange::sizeIs(uint32_t size) {
  if (size > mplsLabelMax + 1 - base_) {
    throw Zinc::RangeException("LabelRange::size > Expr @Mpls:176 not allowed");
  }
  size_ = size;
}

uint32_t LabelRange::hash() const {
  Zinc::Hash h;
  h.mix(base_);
  h.mix(size_);
  return h.result();
}

uint32_t LabelBlock::hash() const {
  Zinc::Hash h;
  h.mix(blockStart_);
  return h.result();
}

std::string valueToStrep(const LabelRange& v) {
  return "Value('Mpls::LabelRange', ** {'base': " + std::to_string(v.base()) +
         ", 'size': " + std::to_string(v.size()) + "})";
}

std::string valueToStrep(const LabelBlock& v) {
  return "Value('Mpls::LabelBlock', ** {'blockStart': " + std::to_string(v.blockStart()) + "})";
}

std::ostream& operator<<(std::ostream& os, const LabelRange& v) { return os << valueToStrep(v); }
std::ostream& operator<<(std::ostream& os, const LabelBlock& v) { return os << valueToStrep(v); }

namespace {

// Reads the numbers of "Value('<type>', ** {'a': N, 'b': M})" for the given attributes.
std::vector<int64_t> parseNumbers(std::string_view s, std::string_view type,
                                  std::initializer_list<std::string_view> attrs) {
  auto bad = [&] {
    return Zinc::RangeException("cannot parse '" + std::string(s) + "' as " + std::string(type));
  };
  std::string head = "Value('" + std::string(type) + "', ** {";
  if (!s.starts_with(head) || !s.ends_with("})")) throw bad();
  std::string_view rest = s.substr(head.size(), s.size() - head.size() - 2);
  std::vector<int64_t> out;
  bool first = true;
  for (std::string_view attr : attrs) {
    std::string key = (first ? "'" : ", '") + std::string(attr) + "': ";
    first = false;
    if (!rest.starts_with(key)) throw bad();
    rest.remove_prefix(key.size());
    int64_t n = 0;
    auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), n);
    if (ec != std::errc() || end == rest.data()) throw bad();
    rest.remove_prefix(end - rest.data());
    out.push_back(n);
  }
  if (!rest.empty()) throw bad();
  return out;
}

uint32_t toWord(int64_t n, const char* what) {
  if (n < 0 || n > UINT32_MAX) throw Zinc::RangeException(std::string(what) + " out of range");
  return static_cast<uint32_t>(n);
}

}  // namespace

LabelRange labelRangeFromStrep(std::string_view s) {
  auto n = parseNumbers(s, "Mpls::LabelRange", {"base", "size"});
  return LabelRange(toWord(n[0], "LabelRange::base"), toWord(n[1], "LabelRange::size"));
}

LabelBlock labelBlockFromStrep(std::string_view s) {
  auto n = parseNumbers(s, "Mpls::LabelBlock", {"blockStart"});
  return LabelBlock(checkedMplsLabel(n[0]));
}

}  // namespace Mpls
