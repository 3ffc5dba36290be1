// The LFIB records: routes keyed by label, via sets, the vias of each kind, the keys that join
// them, the hardware status records and the 802.1Q tag-to-VLAN records. Each is one
// declaration of its attributes in order; comparison, hash, text form, parsing, ledgerString()
// and the serialised form follow from it (zinc/Value.h). The stored layouts are pinned in
// lfib/StoredLayouts.h.
#pragma once

#include <cstdint>
#include <string>

#include "lfib/MplsTypes.h"
#include "zinc/Value.h"

namespace Mpls {

// ---- keys ----

ZINC_VALUE(LfibViaKey, "Mpls::LfibViaKey", (LFib::Source, source), (LfibViaType, viaType),
           (uint32_t, index));

ZINC_VALUE(LfibViaSetKey, "Mpls::LfibViaSetKey", (LFib::Source, source), (uint32_t, index),
           (LfibViaType, viaType), (LfibViaSetType, viaSetType));

ZINC_VALUE(LfibDot1qTagToVlanKey, "Mpls::LfibDot1qTagToVlanKey", (LFib::Source, source),
           (uint32_t, index));

ZINC_VALUE(LfibDot1qTagToVlanCompositeKey, "Mpls::LfibDot1qTagToVlanCompositeKey",
           (LfibDot1qTagToVlanKey, dot1qTagToVlanKey), (Bridging::VlanId, dot1qTag));

// The domain in which the via index allocator counts via set indices.
ZINC_VALUE(ViaSetKeyIndexDomain, "Mpls::ViaSetKeyIndexDomain", (LfibViaType, viaType),
           (LfibViaSetType, viaSetType));

// ---- bounded indices and flags ----

ZINC_BOUNDED(LfibViaIndexRange, uint8_t, 0, 127);
ZINC_BOUNDED(LfibVrfNameIndexRange, uint8_t, 0, 100);
ZINC_BITSET(LfibViaSetFlags, "Mpls::LfibViaSetFlags", uint32_t, (burnPrimaryVias, 0));

// ---- route and via set ----

ZINC_VALUE(LfibRoute, "Mpls::LfibRoute", (RouteKey, key), (LfibViaSetKey, viaSetKey),
           (LFib::Source, source), (FwdEqvClass, fec), (RouteMetric, metric));

// Up to 128 via keys. backupViaSetKey is all zero when the set has no backup. Serialised as its
// fixed part (44 bytes) and 12 bytes per used via key.
ZINC_VALUE_ATTRS(LfibViaSet, "Mpls::LfibViaSet", (LfibViaSetKey, key),
                 (LfibViaSetKey, backupViaSetKey), (bool, isUsableAsPrimaryVia),
                 (LfibViaSetFlags, flags), (LfibViaKey, viaKey, LfibViaIndexRange));
class LfibViaSet : public LfibViaSetZincAttrs {
  ZINC_VALUE_BODY(LfibViaSet);

 public:
  explicit LfibViaSet(const LfibViaSetKey& key) { key_ = key; }
};

ZINC_VALUE_ATTRS(RouteInfo, "Mpls::RouteInfo", (RouteKey, key),
                 (LfibHwProgrammingReturnCode, status));
class RouteInfo : public RouteInfoZincAttrs {
  ZINC_VALUE_BODY(RouteInfo);

 public:
  // Any status but success.
  bool unprogrammed() const { return status() != hwProgrammingSuccess_; }
};

ZINC_VALUE_ATTRS(LfibViaSetInfo, "Mpls::LfibViaSetInfo", (LfibViaSetKey, key),
                 (LfibViaSetHwStatus, status));
class LfibViaSetInfo : public LfibViaSetInfoZincAttrs {
  ZINC_VALUE_BODY(LfibViaSetInfo);

 public:
  // Only the initial, not yet programmed, status.
  bool unprogrammed() const { return status() == viaSetHwStatusUnprogrammed_; }
};

// ---- vias: each begins with its key, whose viaType is the record's own ----

ZINC_VALUE(LfibMplsVia, "Mpls::LfibMplsVia", (LfibViaKey, key), (Wire::IpGenAddr, nextHop),
           (Wire::MplsLabelAction, labelAction), (Wire::MplsLabelOperation, labelStack),
           (Wire::IntfId, intf), (PayloadType, payloadType), (bool, skipEgressAcl),
           (TtlMode, ttlMode), (uint32_t, weight));

ZINC_VALUE(LfibPwVia, "Mpls::LfibPwVia", (LfibViaKey, key), (Wire::IntfId, pwIntfId),
           (bool, controlWordPresent), (Pseudowire::PseudowireType, pwType));

ZINC_VALUE(LfibExtFecVia, "Mpls::LfibExtFecVia", (LfibViaKey, key), (Ledger::Fib::FecId, fecId),
           (Wire::MplsLabelAction, labelAction), (PayloadType, payloadType));

// The VRF name is kept as bytes so that the record has no string: the buffer holds the name
// and a terminating zero byte, its count is the name's length plus one (0 for no name).
ZINC_VALUE_ATTRS(LfibIpLookupVia, "Mpls::LfibIpLookupVia", (LfibViaKey, key),
                 (PayloadType, payloadType), (uint8_t, vrfNameBuffer, LfibVrfNameIndexRange));
class LfibIpLookupVia : public LfibIpLookupViaZincAttrs {
  ZINC_VALUE_BODY(LfibIpLookupVia);

 public:
  LfibIpLookupVia(const LfibViaKey& key, const L3::VrfName& vrfName, PayloadType payloadType);
  // Asserts that the name fits (at most L3::VrfName::maxLength() bytes).
  void vrfNameIs(const L3::VrfName& name);
  // The bytes up to the first zero; RangeException when they are more than the maximum.
  L3::VrfName vrfName() const;
  std::string ledgerString() const;
};

ZINC_VALUE(LfibVlanVia, "Mpls::LfibVlanVia", (LfibViaKey, key), (Bridging::VlanId, vlanId),
           (LfibFlag, flag));

ZINC_VALUE(LfibEvpnVlanAwareVia, "Mpls::LfibEvpnVlanAwareVia", (LfibViaKey, key),
           (LfibDot1qTagToVlanKey, dot1qTagToVlanKey), (LfibFlag, flag));

ZINC_VALUE(LfibEvpnEthernetSegmentFilterVia, "Mpls::LfibEvpnEthernetSegmentFilterVia",
           (LfibViaKey, key), (Wire::IntfId, intfId));

ZINC_VALUE(LfibEvpnVlanFloodVia, "Mpls::LfibEvpnVlanFloodVia", (LfibViaKey, key),
           (Bridging::VlanId, vlanId), (LfibFlag, flag));

ZINC_VALUE(LfibEvpnVlanAwareFloodVia, "Mpls::LfibEvpnVlanAwareFloodVia", (LfibViaKey, key),
           (LfibDot1qTagToVlanKey, dot1qTagToVlanKey), (LfibFlag, flag));

// ---- 802.1Q tag-to-VLAN tables ----

// One tag of one tag-to-VLAN table mapped to the local VLAN.
ZINC_VALUE(LfibDot1qTagToVlanComposite, "Mpls::LfibDot1qTagToVlanComposite",
           (LfibDot1qTagToVlanCompositeKey, key), (Bridging::VlanId, localVlan));

// The via type whose collection holds a via record: lfibViaTypeOf<LfibMplsVia> is
// viaTypeMplsIp_.
template <class Via>
inline constexpr LfibViaType lfibViaTypeOf = viaTypeMplsUnknown_;
template <>
inline constexpr LfibViaType lfibViaTypeOf<LfibMplsVia> = viaTypeMplsIp_;
template <>
inline constexpr LfibViaType lfibViaTypeOf<LfibPwVia> = viaTypeMplsPseudowire_;
template <>
inline constexpr LfibViaType lfibViaTypeOf<LfibIpLookupVia> = viaTypeIpLookup_;
template <>
inline constexpr LfibViaType lfibViaTypeOf<LfibVlanVia> = viaTypeVlan_;
template <>
inline constexpr LfibViaType lfibViaTypeOf<LfibEvpnVlanAwareVia> = viaTypeEvpnVlanAware_;
template <>
inline constexpr LfibViaType lfibViaTypeOf<LfibEvpnEthernetSegmentFilterVia> =
    viaTypeEvpnEthernetSegment_;
template <>
inline constexpr LfibViaType lfibViaTypeOf<LfibEvpnVlanFloodVia> = viaTypeEvpnVlanFlood_;
template <>
inline constexpr LfibViaType lfibViaTypeOf<LfibEvpnVlanAwareFloodVia> = viaTypeEvpnVlanAwareFlood_;
template <>
inline constexpr LfibViaType lfibViaTypeOf<LfibExtFecVia> = viaTypeExternalFec_;

}  // namespace Mpls
