#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "lfib/LfibTypes.h"
#include "lfib/StoredLayouts.h"
#include "zinc/tests/ValueChecks.h"

namespace Zinc::Testing {

template <>
struct Arbitrary<Wire::IpGenAddr> {
  static Wire::IpGenAddr make(Rng& rng) {
    static const char* const texts[] = {"",   "10.0.0.1",    "10.0.0.2", "255.255.255.255",
                                        "::", "2001:db8::1", "fe80::1:2"};
    return Wire::IpGenAddr(texts[rng() % 7]);
  }
};

template <>
struct Arbitrary<Wire::IpGenPrefix> {
  static Wire::IpGenPrefix make(Rng& rng) {
    static const char* const texts[] = {"",          "10.0.0.0/8",    "10.1.0.0/16",
                                        "0.0.0.0/0", "2001:db8::/32", "2001:db8::1/128"};
    return Wire::IpGenPrefix(texts[rng() % 6]);
  }
};

}  // namespace Zinc::Testing

namespace Mpls {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Zinc::Testing::arbitrarySamples;
using Zinc::Testing::checkValueType;

template <class T>
class EveryLfibType : public ::testing::Test {};

using LfibTypes = ::testing::Types<
    Wire::IpGenAddr, Wire::IpGenPrefix, Wire::MplsLabel, Wire::MplsLabelOperation, Wire::IntfId,
    Bridging::VlanId, Bridging::VlanIdOrNone, Ledger::Fib::FecId, RouteKey, FwdEqvClass,
    RouteMetric, LfibViaKey, LfibViaSetKey, LfibDot1qTagToVlanKey, LfibDot1qTagToVlanCompositeKey,
    ViaSetKeyIndexDomain, LfibViaIndexRange, LfibVrfNameIndexRange, LfibViaSetFlags, LfibRoute,
    LfibViaSet, RouteInfo, LfibViaSetInfo, LfibMplsVia, LfibPwVia, LfibExtFecVia, LfibIpLookupVia,
    LfibVlanVia, LfibEvpnVlanAwareVia, LfibEvpnEthernetSegmentFilterVia, LfibEvpnVlanFloodVia,
    LfibEvpnVlanAwareFloodVia, LfibDot1qTagToVlanComposite>;
TYPED_TEST_SUITE(EveryLfibType, LfibTypes);

TYPED_TEST(EveryLfibType, PassesTheGenericValueChecks) {
  checkValueType(arbitrarySamples<TypeParam>(50, 7));
}

LfibViaKey mplsKey(uint32_t index) { return LfibViaKey(LFib::sourceLdp_, viaTypeMplsIp_, index); }

TEST(LfibViaSet, HoldsAtMost128ViaKeys) {
  LfibViaSet set(LfibViaSetKey(LFib::sourceLdp_, 3, viaTypeMplsIp_, viaSetTypeEcmp_));
  for (int i = 0; i < 128; ++i) set.viaKeyIs(i, mplsKey(i + 1));
  EXPECT_EQ(set.viaKeys(), 128u);
  EXPECT_THAT([&] { set.viaKeyIs(128, mplsKey(129)); },
              ThrowsMessage<Zinc::RangeException>("LfibViaIndexRange::value < "
                                                  "LfibViaIndexRange::min or > "
                                                  "LfibViaIndexRange::max not allowed"));
  EXPECT_EQ(set.viaKeys(), 128u);
}

TEST(LfibViaSet, SerialisationIs44Plus12PerKey) {
  LfibViaSet a(LfibViaSetKey(LFib::sourceStatic_, 1, viaTypeMplsIp_, viaSetTypeEcmp_));
  a.viaKeyIs(0, mplsKey(1));
  a.viaKeyIs(1, mplsKey(2));
  EXPECT_EQ(LfibViaSet().serializeLen(), 44u);
  EXPECT_EQ(a.serializeLen(), 44u + 2 * 12);
  uint8_t buf[Zinc::Serial<LfibViaSet>::size];
  size_t len = a.serialize(buf);
  ASSERT_EQ(len, 68u);
  EXPECT_EQ(LfibViaSet::deserializeLen(buf, sizeof(buf)), 68u);
  EXPECT_EQ(buf[40], 2) << "the count closes the fixed part";
}

TEST(LfibViaSet, FlagsHoldBurnPrimaryViasOnly) {
  EXPECT_TRUE(LfibViaSetFlags(1u).burnPrimaryVias());
  EXPECT_THAT([] { LfibViaSetFlags(2u); },
              ThrowsMessage<Zinc::RangeException>("LfibViaSetFlags::value > 0x1 not allowed"));
}

TEST(NoStringConstructor, RecordsWithAnInlineArray) {
  EXPECT_THAT([] { Zinc::strepToValue<LfibViaSet>(valueToStrep(LfibViaSet())); },
              ThrowsMessage<Zinc::InternalException>(
                  EndsWith(": No String constructor for LfibViaSet - has collection")));
  EXPECT_THAT([] { Zinc::strepToValue<LfibIpLookupVia>(valueToStrep(LfibIpLookupVia())); },
              ThrowsMessage<Zinc::InternalException>(
                  EndsWith(": No String constructor for LfibIpLookupVia - has collection")));
}

TEST(LfibIpLookupVia, VrfNameBufferKeepsATerminatingZero) {
  LfibViaKey key(LFib::sourceVrfLabel_, viaTypeIpLookup_, 4);
  LfibIpLookupVia via(key, L3::VrfName("red"), payloadTypeIpv4_);
  EXPECT_EQ(via.vrfNameBuffers(), 4u);
  EXPECT_EQ(via.vrfNameBuffer(3), 0);
  EXPECT_EQ(via.vrfName(), L3::VrfName("red"));
  EXPECT_EQ(via.serializeLen(), 20u + 4);
  EXPECT_EQ(via.ledgerString(), "[" + valueToStrep(key) + "] payloadTypeIpv4 'red'");

  std::string hundred(100, 'v');
  via.vrfNameIs(L3::VrfName(hundred));
  EXPECT_EQ(via.vrfNameBuffers(), 101u);
  EXPECT_EQ(via.vrfNameBuffer(100), 0);
  EXPECT_EQ(via.vrfName().str(), hundred);

  EXPECT_THAT([&] { via.vrfNameIs(L3::VrfName(hundred + "w")); },
              ThrowsMessage<Zinc::InternalException>(
                  HasSubstr("assertion failed(name.size() <= L3::VrfName::maxLength())")));
  EXPECT_EQ(via.vrfName().str(), hundred) << "a refused name changes nothing";

  via.vrfNameBufferIs(100, 'w');  // no terminating zero left
  EXPECT_THAT([&] { via.vrfName(); }, ThrowsMessage<Zinc::RangeException>(
                                          "VrfName::bytes > VrfName::maxLength not allowed"));
  EXPECT_EQ(LfibIpLookupVia().vrfName(), L3::VrfName(""));
  EXPECT_EQ(LfibIpLookupVia().vrfNameBuffers(), 0u);
}

TEST(TextForm, ExactStrings) {
  EXPECT_EQ(valueToStrep(LfibViaKey(LFib::sourceLdp_, viaTypeMplsIp_, 7)),
            "Value('Mpls::LfibViaKey', ** {'source': sourceLdp, 'viaType': viaTypeMplsIp, "
            "'index': 7})");
  EXPECT_EQ(valueToStrep(LfibViaSetKey(LFib::sourceStatic_, 2, viaTypeVlan_, viaSetTypeFlood_)),
            "Value('Mpls::LfibViaSetKey', ** {'source': sourceStatic, 'index': 2, 'viaType': "
            "viaTypeVlan, 'viaSetType': viaSetTypeFlood})");
  LfibPwVia pw(LfibViaKey(LFib::sourcePseudowire_, viaTypeMplsPseudowire_, 1), Wire::IntfId(42),
               true, Pseudowire::pwTypeEthernetTagged_);
  EXPECT_EQ(valueToStrep(pw),
            "Value('Mpls::LfibPwVia', ** {'key': Value('Mpls::LfibViaKey', ** {'source': "
            "sourcePseudowire, 'viaType': viaTypeMplsPseudowire, 'index': 1}), 'pwIntfId': 42, "
            "'controlWordPresent': True, 'pwType': pwTypeEthernetTagged})");
  EXPECT_EQ(valueToStrep(RouteKey(Wire::MplsLabel(16))),
            "Value('Mpls::RouteKey', ** {'topLabel': 16, 'secondLabel': 1048576, "
            "'thirdLabel': 1048576})");
  EXPECT_EQ(valueToStrep(LfibViaType(9)), "9") << "a gap between the declared via types";
  EXPECT_EQ(valueToStrep(LfibViaType(10)), "viaTypeExternalFec");
  EXPECT_EQ(valueToStrep(LfibViaType(11)), "viaTypeMax");
}

TEST(LedgerString, MplsViaShowsItsLabelStackTopToBottom) {
  Wire::MplsLabelOperation op(Wire::labelActionPush_, Wire::MplsLabelStack{16, 17, 18});
  LfibMplsVia via(mplsKey(3), Wire::IpGenAddr("10.0.0.2"), Wire::labelActionSwap_, op,
                  Wire::IntfId(7), payloadTypeMpls_, false, ttlModePipe_, 2);
  EXPECT_EQ(via.ledgerString(),
            "[" + valueToStrep(mplsKey(3)) +
                "] '10.0.0.2' labelActionSwap Operation: labelActionPush Stack Size: 3 MPLS "
                "Label Stack: TOP ( 16 17 18 ) BOTTOM 7 payloadTypeMpls False ttlModePipe 2");
  LfibRoute route(RouteKey(Wire::MplsLabel(100)),
                  LfibViaSetKey(LFib::sourceLdp_, 1, viaTypeMplsIp_, viaSetTypeEcmp_),
                  LFib::sourceLdp_, FwdEqvClass(), RouteMetric());
  EXPECT_EQ(route.ledgerString().rfind("[" + valueToStrep(route.key()) + "] Value(", 0), 0u)
      << route.ledgerString();
}

TEST(MplsLabel, BoundsNullAndStackDepth) {
  EXPECT_EQ(Wire::MplsLabel(Wire::MplsLabel::luWithdraw).value(), 0x800000u);
  EXPECT_TRUE(Wire::MplsLabel(0x100000).isNull());
  EXPECT_FALSE(Wire::MplsLabel(0x100000).isValid());
  EXPECT_THAT([] { Wire::MplsLabel(0x800001); },
              ThrowsMessage<Zinc::RangeException>(
                  "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed"));
  Wire::MplsLabelOperation op;
  for (uint32_t l = 16; l < 24; ++l) op.labelPush(l);
  EXPECT_EQ(op.labelStackSize(), 8u);
  EXPECT_THROW(op.labelPush(24), Zinc::RangeException);
  EXPECT_EQ(op.labelStack()[0].value(), 16u) << "index 0 is the top";
}

TEST(Addresses, ParsePrintOrderAndMask) {
  EXPECT_EQ(Wire::IpGenAddr("192.0.2.1").stringValue(), "192.0.2.1");
  EXPECT_EQ(Wire::IpGenAddr("2001:DB8:0:0::1").stringValue(), "2001:db8::1");
  EXPECT_EQ(Wire::IpGenAddr("192.0.2.1"), Wire::IpGenAddr::ipv4(0xc0000201));
  EXPECT_EQ(Wire::IpGenAddr("192.0.2.1").v4HostOrder(), 0xc0000201u);
  EXPECT_THROW(Wire::IpGenAddr("192.0.2"), Zinc::Exception);
  EXPECT_THROW(Wire::IpGenAddr("2001:::1"), Zinc::Exception);
  EXPECT_TRUE(Wire::IpGenAddr("255.255.255.255") < Wire::IpGenAddr("::"));
  EXPECT_TRUE(Wire::IpGenAddr("10.0.0.2") < Wire::IpGenAddr("10.0.0.10"));
  EXPECT_EQ(Wire::IpGenPrefix("10.1.2.3/8").stringValue(), "10.0.0.0/8");
  EXPECT_TRUE(Wire::IpGenPrefix("10.0.0.0/8").contains(Wire::IpGenAddr("10.200.0.1")));
  EXPECT_FALSE(Wire::IpGenPrefix("10.0.0.0/8").contains(Wire::IpGenAddr("11.0.0.1")));
  EXPECT_EQ(Wire::IpGenPrefix("2001:db8:ffff::/33").stringValue(), "2001:db8:8000::/33");
  EXPECT_THROW(Wire::IpGenPrefix("10.0.0.0/33"), Zinc::RangeException);
  EXPECT_THROW(Wire::IpGenPrefix("10.0.0.0/"), Zinc::Exception);
  uint8_t bytes[20] = {7};  // family 7 does not exist
  Wire::IpGenAddr addr;
  EXPECT_THROW(Zinc::Serial<Wire::IpGenAddr>::load(bytes, addr), Zinc::RangeException);
}

TEST(StoredRecords, KeyLeadsTheSerialisedRoute) {
  LfibRoute route(
      RouteKey(Wire::MplsLabel(100)),
      LfibViaSetKey(LFib::sourceLdp_, 1, viaTypeMplsIp_, viaSetTypeEcmp_), LFib::sourceLdp_,
      FwdEqvClass(fecTypePrefix_, Wire::IpGenPrefix("10.0.0.0/8"), Wire::IpGenAddr(), 0, 0, 0),
      RouteMetric(200, 10, 0, 0, 0));
  uint8_t buf[Zinc::Serial<LfibRoute>::size];
  ASSERT_EQ(Zinc::Serial<LfibRoute>::store(route, buf), 116u);
  EXPECT_EQ(buf[0], 100);
  static_assert(lfibViaTypeOf<LfibMplsVia> == viaTypeMplsIp_);
  static_assert(lfibViaTypeOf<LfibEvpnEthernetSegmentFilterVia> == viaTypeEvpnEthernetSegment_);
  static_assert(StoredLayouts::slotSize(Zinc::Serial<LfibRoute>::size) == 136);
}

}  // namespace
}  // namespace Mpls
