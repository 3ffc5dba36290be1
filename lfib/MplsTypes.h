// The MPLS and network base types that the LFIB records are built from: addresses and prefixes,
// labels and label operations, interface, VLAN and FEC identifiers, VRF names, and the MPLS
// enumerations and small records (route key, FEC, metric). Every type here is a value type of
// the framework (==, <, hash, text form, and a fixed serialised form where it is stored).
//
// Serialised sizes (bytes), chosen so that the stored LFIB records keep their slot sizes:
//   IpGenAddr 20 (family word + 16 address bytes)   IpGenPrefix 24 (address + length word)
//   MplsLabel 4   MplsLabelOperation 40 (action, count, 8 labels)   IntfId 8   FecId 8
//   VlanId 2      RouteKey 12   RouteMetric 24   FwdEqvClass 60
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <ostream>
#include <string>
#include <string_view>

#include "zinc/String.h"
#include "zinc/Value.h"

namespace Wire {

ZINC_ENUM(AddressFamily, "Wire::AddressFamily", (afUnknown, 0), (afIpv4, 1), (afIpv6, 2));

// An IPv4 or IPv6 address (or none: family afUnknown). Text form: the quoted dotted or colon
// notation ('10.0.0.1', '2001:db8::1'); '' for none.
class IpGenAddr : public Zinc::Leaf<IpGenAddr> {
 public:
  static constexpr size_t zincSize = 20;

  IpGenAddr() = default;
  // Dotted IPv4 or colon IPv6 notation, "" for none; anything else raises Zinc::Exception.
  explicit IpGenAddr(std::string_view text);
  static IpGenAddr ipv4(uint32_t hostOrder);
  static IpGenAddr ipv6(const std::array<uint8_t, 16>& bytes);

  AddressFamily af() const { return af_; }
  bool isV4() const { return af_ == afIpv4_; }
  bool isV6() const { return af_ == afIpv6_; }
  // Address bytes in network order: 4 used for IPv4, 16 for IPv6, the rest zero.
  const std::array<uint8_t, 16>& bytes() const { return bytes_; }
  uint32_t v4HostOrder() const;
  size_t maxPrefixLength() const { return isV4() ? 32 : isV6() ? 128 : 0; }
  std::string stringValue() const;

  bool operator==(const IpGenAddr& o) const = default;
  bool zincLess(const IpGenAddr& o) const;
  uint32_t hash() const;
  void zincPrint(std::ostream& os) const;
  static IpGenAddr zincParse(Zinc::StrepParser& p);
  void zincStore(uint8_t* out) const {
    out = Zinc::storeLe(out, static_cast<int32_t>(af_));
    std::memcpy(out, bytes_.data(), bytes_.size());
  }
  static IpGenAddr zincLoad(const uint8_t* in);

 private:
  AddressFamily af_ = afUnknown_;
  std::array<uint8_t, 16> bytes_{};
};

// An address prefix; host bits are cleared on construction. Text form '10.0.0.0/8'.
class IpGenPrefix : public Zinc::Leaf<IpGenPrefix> {
 public:
  static constexpr size_t zincSize = 24;

  IpGenPrefix() = default;
  // A length beyond the family's raises RangeException.
  IpGenPrefix(const IpGenAddr& addr, uint32_t length);
  explicit IpGenPrefix(std::string_view text);

  const IpGenAddr& address() const { return addr_; }
  uint32_t length() const { return length_; }
  bool contains(const IpGenAddr& a) const;
  std::string stringValue() const;

  bool operator==(const IpGenPrefix& o) const = default;
  bool zincLess(const IpGenPrefix& o) const;
  uint32_t hash() const;
  void zincPrint(std::ostream& os) const;
  static IpGenPrefix zincParse(Zinc::StrepParser& p);
  void zincStore(uint8_t* out) const;
  static IpGenPrefix zincLoad(const uint8_t* in);

 private:
  IpGenAddr addr_;
  uint32_t length_ = 0;
};

// A 20-bit MPLS label. Values past the 20 bits name special states: null (no label) and, the
// largest constructible value, luWithdraw (a labelled-unicast withdrawal).
class MplsLabel {
  ZINC_BOUNDED_BODY(MplsLabel, uint32_t, 0, 0x800000, "luWithdraw");

 public:
  static constexpr uint32_t explicitNullV4 = 0;
  static constexpr uint32_t routerAlert = 1;
  static constexpr uint32_t explicitNullV6 = 2;
  static constexpr uint32_t implicitNull = 3;
  static constexpr uint32_t firstUnreserved = 16;
  static constexpr uint32_t max = 0xfffff;
  static constexpr uint32_t null = 0x100000;
  static constexpr uint32_t luWithdraw = 0x800000;

  bool isNull() const { return value() == null; }
  // A label that can be on the wire.
  bool isValid() const { return value() <= max; }
};

ZINC_ENUM(MplsLabelAction, "Wire::MplsLabelAction", (labelActionNone, 0), (labelActionPush, 1),
          (labelActionPop, 2), (labelActionSwap, 3), (labelActionForward, 4));

// At most eight labels; index 0 is the top of the stack (the outermost label).
using MplsLabelStack = Zinc::FixedList<MplsLabel, 8>;

ZINC_VALUE_ATTRS(MplsLabelOperation, "Wire::MplsLabelOperation", (MplsLabelAction, operation),
                 (MplsLabelStack, labelStack));
class MplsLabelOperation : public MplsLabelOperationZincAttrs {
  ZINC_VALUE_BODY(MplsLabelOperation);

 public:
  size_t labelStackSize() const { return labelStack_.size(); }
  // Adds a label below the ones already there; a ninth raises RangeException.
  void labelPush(MplsLabel label) { labelStack_.push(label); }
};

// "Operation: <action> Stack Size: <n> MPLS Label Stack: TOP ( <labels> ) BOTTOM", the form of
// a label operation in a record's ledgerString().
void zincLedgerPrint(std::ostream& os, const MplsLabelOperation& op);

// An interface, by its 64-bit identifier.
ZINC_BOUNDED(IntfId, uint64_t, 0, std::numeric_limits<uint64_t>::max());

}  // namespace Wire

namespace Bridging {

ZINC_BOUNDED(VlanId, uint16_t, 0, 4095);

// A VLAN identifier where 0 means no VLAN.
class VlanIdOrNone {
  ZINC_BOUNDED_BODY(VlanIdOrNone, uint16_t, 0, 4095, "max");

 public:
  static constexpr uint16_t none = 0;
  bool isNone() const { return value() == none; }
  VlanId vlanId() const { return VlanId(value()); }
};

}  // namespace Bridging

namespace Pseudowire {

// Pseudowire types by their assigned numbers.
ZINC_ENUM(PseudowireType, "Pseudowire::PseudowireType", (pwTypeUnknown, 0),
          (pwTypeEthernetTagged, 4), (pwTypeEthernet, 5));

}  // namespace Pseudowire

namespace L3 {

// A VRF name: at most maxLength() bytes where it is stored (the string itself is not checked,
// so that the stores can refuse a long one with their own message).
class VrfName : public Zinc::String {
 public:
  using Zinc::String::String;
  VrfName(const Zinc::String& s) : Zinc::String(s) {}
  static constexpr size_t maxLength() { return 100; }
};

}  // namespace L3

namespace Ledger::Fib {

// The forwarding table's identifier of a FEC.
ZINC_BOUNDED(FecId, uint64_t, 0, std::numeric_limits<uint64_t>::max());

}  // namespace Ledger::Fib

namespace LFib {

// Which producer owns an LFIB entry.
ZINC_ENUM(Source, "LFib::Source", (sourceUnknown, 0), (sourceStatic, 1), (sourceLdp, 2),
          (sourceRsvp, 3), (sourceBgpLu, 4), (sourceIsisSr, 5), (sourceOspfSr, 6), (sourceEvpn, 7),
          (sourcePseudowire, 8), (sourceVrfLabel, 9), (sourceTunnel, 10));

}  // namespace LFib

namespace Mpls {

ZINC_ENUM(LfibViaType, "Mpls::LfibViaType", (viaTypeMplsUnknown, 0), (viaTypeMplsIp, 1),
          (viaTypeMplsPseudowire, 2), (viaTypeIpLookup, 3), (viaTypeVlan, 4),
          (viaTypeEvpnVlanAware, 5), (viaTypeEvpnEthernetSegment, 6), (viaTypeEvpnVlanFlood, 7),
          (viaTypeEvpnVlanAwareFlood, 8), (viaTypeExternalFec, 10), (viaTypeMax, 11));

ZINC_ENUM(LfibViaSetType, "Mpls::LfibViaSetType", (viaSetTypeNone, 0), (viaSetTypeEcmp, 1),
          (viaSetTypeUcmp, 2), (viaSetTypeBackup, 3), (viaSetTypeFlood, 4));

ZINC_ENUM(PayloadType, "Mpls::PayloadType", (payloadTypeNone, 0), (payloadTypeMpls, 1),
          (payloadTypeIpv4, 2), (payloadTypeIpv6, 3), (payloadTypeAuto, 4),
          (payloadTypeEthernet, 5));

ZINC_ENUM(TtlMode, "Mpls::TtlMode", (ttlModeUnspecified, 0), (ttlModeUniform, 1), (ttlModePipe, 2));

ZINC_ENUM(LfibFlag, "Mpls::LfibFlag", (lfibFlagNone, 0), (lfibFlagControlWord, 1),
          (lfibFlagSplitHorizon, 2), (lfibFlagNoFlood, 3));

// Value 0 is success.
ZINC_ENUM(LfibHwProgrammingReturnCode, "Mpls::LfibHwProgrammingReturnCode",
          (hwProgrammingSuccess, 0), (hwProgrammingFailed, 1), (hwProgrammingTableFull, 2),
          (hwProgrammingUnsupported, 3));

// Value 0 is the state before the hardware has programmed the via set.
ZINC_ENUM(LfibViaSetHwStatus, "Mpls::LfibViaSetHwStatus", (viaSetHwStatusUnprogrammed, 0),
          (viaSetHwStatusProgrammed, 1), (viaSetHwStatusPartial, 2), (viaSetHwStatusFailed, 3));

ZINC_ENUM(FecType, "Mpls::FecType", (fecTypeNone, 0), (fecTypePrefix, 1), (fecTypeMldpP2mp, 2),
          (fecTypeMldpMp2mp, 3), (fecTypePseudowire, 4));

// The key of an LFIB route: the incoming top label, qualified by the labels below it (null when
// the route matches fewer labels).
ZINC_VALUE_ATTRS(RouteKey, "Mpls::RouteKey", (Wire::MplsLabel, topLabel),
                 (Wire::MplsLabel, secondLabel), (Wire::MplsLabel, thirdLabel));
class RouteKey : public RouteKeyZincAttrs {
  ZINC_VALUE_BODY(RouteKey);

 public:
  // A route on the top label alone.
  explicit RouteKey(Wire::MplsLabel top)
      : RouteKeyZincAttrs(top, Wire::MplsLabel::null, Wire::MplsLabel::null) {}
};

// A forwarding equivalence class: an IP prefix, an mLDP tree (root address and LSP id) or a
// pseudowire (peer address, pseudowire id and group id), by fecType.
ZINC_VALUE(FwdEqvClass, "Mpls::FwdEqvClass", (FecType, fecType), (Wire::IpGenPrefix, prefix),
           (Wire::IpGenAddr, address), (uint32_t, opaqueId), (uint32_t, pwId), (uint32_t, groupId));

ZINC_VALUE(RouteMetric, "Mpls::RouteMetric", (uint32_t, preference), (uint32_t, metric),
           (uint32_t, igpMetric), (uint32_t, tag), (uint64_t, bandwidth));

}  // namespace Mpls
