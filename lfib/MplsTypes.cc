#include "lfib/MplsTypes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace Wire {

namespace {

[[noreturn]] void badAddress(std::string_view what, std::string_view text) {
  throw Zinc::Exception("not an " + std::string(what) + ": '" + std::string(text) + "'");
}

}  // namespace

IpGenAddr::IpGenAddr(std::string_view text) {
  if (text.empty()) return;
  std::string s(text);
  if (s.find(':') != std::string::npos) {
    if (inet_pton(AF_INET6, s.c_str(), bytes_.data()) != 1) badAddress("IPv6 address", text);
    af_ = afIpv6_;
  } else {
    if (inet_pton(AF_INET, s.c_str(), bytes_.data()) != 1) badAddress("IPv4 address", text);
    af_ = afIpv4_;
  }
}

IpGenAddr IpGenAddr::ipv4(uint32_t hostOrder) {
  IpGenAddr a;
  a.af_ = afIpv4_;
  for (int i = 0; i < 4; ++i) a.bytes_[i] = static_cast<uint8_t>(hostOrder >> (24 - 8 * i));
  return a;
}

IpGenAddr IpGenAddr::ipv6(const std::array<uint8_t, 16>& bytes) {
  IpGenAddr a;
  a.af_ = afIpv6_;
  a.bytes_ = bytes;
  return a;
}

uint32_t IpGenAddr::v4HostOrder() const {
  return (uint32_t(bytes_[0]) << 24) | (uint32_t(bytes_[1]) << 16) | (uint32_t(bytes_[2]) << 8) |
         bytes_[3];
}

std::string IpGenAddr::stringValue() const {
  char buf[INET6_ADDRSTRLEN] = {};
  if (isV4()) inet_ntop(AF_INET, bytes_.data(), buf, sizeof(buf));
  if (isV6()) inet_ntop(AF_INET6, bytes_.data(), buf, sizeof(buf));
  return buf;
}

bool IpGenAddr::zincLess(const IpGenAddr& o) const {
  if (af_ != o.af_) return static_cast<int32_t>(af_) < static_cast<int32_t>(o.af_);
  return bytes_ < o.bytes_;
}

uint32_t IpGenAddr::hash() const {
  Zinc::Hash h;
  h.mix(static_cast<uint32_t>(af_));
  h.mixBytes(bytes_.data(), bytes_.size());
  return h.result();
}

void IpGenAddr::zincPrint(std::ostream& os) const { Zinc::writeQuoted(os, stringValue()); }

IpGenAddr IpGenAddr::zincParse(Zinc::StrepParser& p) { return IpGenAddr(p.quoted()); }

IpGenAddr IpGenAddr::zincLoad(const uint8_t* in) {
  IpGenAddr a;
  int32_t af = Zinc::loadLe<int32_t>(in);
  if (af != afUnknown_ && af != afIpv4_ && af != afIpv6_) {
    throw Zinc::RangeException("IpGenAddr::af " + std::to_string(af) + " not allowed");
  }
  a.af_ = static_cast<AddressFamily>(af);
  // Only the family's own bytes count; the rest is kept zero so equal addresses compare equal.
  size_t used = a.isV4() ? 4 : a.isV6() ? 16 : 0;
  std::memcpy(a.bytes_.data(), in + 4, used);
  return a;
}

IpGenPrefix::IpGenPrefix(const IpGenAddr& addr, uint32_t length) : addr_(addr), length_(length) {
  if (length > addr.maxPrefixLength()) {
    throw Zinc::RangeException("IpGenPrefix::length " + std::to_string(length) + " > " +
                               std::to_string(addr.maxPrefixLength()) + " not allowed");
  }
  std::array<uint8_t, 16> bytes = addr.bytes();
  for (size_t bit = length; bit < 128; ++bit) bytes[bit / 8] &= ~uint8_t(0x80 >> (bit % 8));
  addr_ = addr.isV4() ? IpGenAddr::ipv4(bytes[0] << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3])
          : addr.isV6() ? IpGenAddr::ipv6(bytes)
                        : IpGenAddr();
}

IpGenPrefix::IpGenPrefix(std::string_view text) {
  if (text.empty()) return;
  size_t slash = text.find('/');
  if (slash == std::string_view::npos) badAddress("address prefix", text);
  IpGenAddr addr(text.substr(0, slash));
  std::string_view len = text.substr(slash + 1);
  uint32_t length = 0;
  auto [end, ec] = std::from_chars(len.data(), len.data() + len.size(), length);
  if (ec != std::errc() || end != len.data() + len.size() || len.empty()) {
    badAddress("address prefix", text);
  }
  *this = IpGenPrefix(addr, length);
}

bool IpGenPrefix::contains(const IpGenAddr& a) const {
  return a.af() == addr_.af() && IpGenPrefix(a, length_).addr_ == addr_;
}

std::string IpGenPrefix::stringValue() const {
  if (addr_.af() == afUnknown_) return "";
  return addr_.stringValue() + "/" + std::to_string(length_);
}

bool IpGenPrefix::zincLess(const IpGenPrefix& o) const {
  if (!(addr_ == o.addr_)) return addr_.zincLess(o.addr_);
  return length_ < o.length_;
}

uint32_t IpGenPrefix::hash() const {
  Zinc::Hash h;
  h.mix(addr_.hash());
  h.mix(length_);
  return h.result();
}

void IpGenPrefix::zincPrint(std::ostream& os) const { Zinc::writeQuoted(os, stringValue()); }

IpGenPrefix IpGenPrefix::zincParse(Zinc::StrepParser& p) { return IpGenPrefix(p.quoted()); }

void IpGenPrefix::zincStore(uint8_t* out) const {
  addr_.zincStore(out);
  Zinc::storeLe(out + IpGenAddr::zincSize, length_);
}

IpGenPrefix IpGenPrefix::zincLoad(const uint8_t* in) {
  return IpGenPrefix(IpGenAddr::zincLoad(in), Zinc::loadLe<uint32_t>(in + IpGenAddr::zincSize));
}

void zincLedgerPrint(std::ostream& os, const MplsLabelOperation& op) {
  os << "Operation: " << op.operation() << " Stack Size: " << op.labelStackSize()
     << " MPLS Label Stack: TOP ( ";
  for (const MplsLabel& label : op.labelStack()) os << label << ' ';
  os << ") BOTTOM";
}

}  // namespace Wire
