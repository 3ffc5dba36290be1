// The LFIB's tables: slot sizes, stored forms read back from untrusted bytes, iteration and
// the hardware status entity.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "ledger/Exceptions.h"
#include "ledger/Format.h"
#include "ledger/ZincLedgerMap.h"
#include "lfib/LfibStatus.h"
#include "lfib/LfibStoredText.h"
#include "platform/tests/TempDir.h"

namespace Mpls {
namespace {

template <class K, class V>
uint32_t slotSizeOf() {
  return Ledger::slotSizeFor(Ledger::ZincOps<K, V>().valueSize());
}

TEST(LfibTables, SlotSizesOfTheCatalogue) {
  EXPECT_EQ((slotSizeOf<RouteKey, LfibRoute>()), 136u);
  EXPECT_EQ((slotSizeOf<LfibViaKey, LfibMplsVia>()), 120u);
  EXPECT_EQ((slotSizeOf<LfibViaKey, LfibPwVia>()), 48u);
  EXPECT_EQ((slotSizeOf<LfibViaKey, LfibEvpnEthernetSegmentFilterVia>()), 40u);
  // Via sets live in slabs: the slot holds a reference, and a set takes only what it uses.
  Ledger::ZincSlabOps<LfibViaSetKey, LfibViaSet> viaSetOps;
  EXPECT_EQ(Ledger::slotSizeFor(viaSetOps.valueSize()), 24u);
  LfibViaSet two(LfibViaSetKey(LFib::sourceLdp_, 1, viaTypeMplsIp_, viaSetTypeEcmp_));
  for (uint32_t i = 0; i < 2; ++i) {
    two.viaKeyIs(LfibViaIndexRange(i), LfibViaKey(LFib::sourceLdp_, viaTypeMplsIp_, i + 1));
  }
  using Codec = Ledger::ZincSlabCodec<LfibViaSetKey, LfibViaSet>;
  EXPECT_EQ(Codec::encodedSize(two), 44u + 2 * 12);
  EXPECT_EQ(Codec::kMaxEncodedSize, 44u + 128 * 12);
  EXPECT_LE(viaSetOps.classTypeName().size(), 63u);
  EXPECT_LE(
      (Ledger::ZincOps<LfibViaKey, LfibEvpnEthernetSegmentFilterVia>().classTypeName().size()),
      63u);
}

TEST(LfibTables, StoredFormsRoundTripAndRefuseImpossibleBytes) {
  Ledger::ZincOps<RouteKey, LfibRoute> ops;
  LfibRoute route(RouteKey(Wire::MplsLabel(77)),
                  LfibViaSetKey(LFib::sourceLdp_, 5, viaTypeMplsIp_, viaSetTypeEcmp_),
                  LFib::sourceLdp_, FwdEqvClass(), RouteMetric());
  std::vector<uint8_t> slot(ops.valueSize(), 0xee);
  ops.store(route, slot.data());
  LfibRoute back;
  ops.load(slot.data(), back);
  EXPECT_EQ(back, route);
  EXPECT_EQ(ops.storedKey(slot.data()), route.key());
  EXPECT_TRUE(ops.sameStored(slot.data(), route));
  route.sourceIs(LFib::sourceStatic_);
  EXPECT_FALSE(ops.sameStored(slot.data(), route));

  // A label beyond its bound is not a value this writer could have stored.
  std::vector<uint8_t> bad(ops.valueSize(), 0xff);
  EXPECT_THROW(ops.storedKey(bad.data()), Ledger::CorruptionException);
  EXPECT_THROW(ops.load(bad.data(), back), Ledger::CorruptionException);

  // A via set whose count claims more keys than its payload holds, or with bytes left over.
  using Codec = Ledger::ZincSlabCodec<LfibViaSetKey, LfibViaSet>;
  LfibViaSet vs(LfibViaSetKey(LFib::sourceLdp_, 1, viaTypeMplsIp_, viaSetTypeEcmp_));
  vs.viaKeyIs(LfibViaIndexRange(0), LfibViaKey(LFib::sourceLdp_, viaTypeMplsIp_, 1));
  std::vector<uint8_t> payload(Codec::encodedSize(vs) + 12, 0);
  Codec::encode(vs, payload.data());
  LfibViaSet out;
  EXPECT_THROW(Codec::decode(payload.data(), payload.size(), out), Ledger::CorruptionException);
  Codec::decode(payload.data(), Codec::encodedSize(vs), out);
  EXPECT_EQ(out, vs);
  std::vector<uint8_t> lying = payload;
  uint32_t count = 100;
  std::memcpy(lying.data() + 40, &count, 4);  // the count follows the keys, bool and flags
  EXPECT_THROW(Codec::decode(lying.data(), Codec::encodedSize(vs), out),
               Ledger::CorruptionException);
  EXPECT_THROW(Codec::keyOfEncoded(payload.data(), 3), Ledger::CorruptionException);
}

TEST(LfibTables, StoredRecordsPrintTypedByTheirHeaderTypeName) {
  LfibPwVia via;
  via.keyIs(LfibViaKey(LFib::sourcePseudowire_, viaTypeMplsPseudowire_, 4));
  via.pwIntfIdIs(Wire::IntfId(9));
  Ledger::ZincOps<LfibViaKey, LfibPwVia> ops;
  std::vector<uint8_t> slot(ops.valueSize());
  ops.store(via, slot.data());
  EXPECT_EQ(storedValueText(ops.valueTypeName(), slot.data(), slot.size()), valueToStrep(via));
  EXPECT_EQ(storedValueText("Mpls::NoSuchRecord", slot.data(), slot.size()), std::nullopt);
  std::vector<uint8_t> bad(Ledger::ZincOps<RouteKey, LfibRoute>().valueSize(), 0xff);
  EXPECT_EQ(storedValueText("Mpls::LfibRoute", bad.data(), bad.size()), std::nullopt)
      << "a label beyond its bound is no route";
}

TEST(LfibTables, IterationVisitsEveryEntryOnceWhileDeleting) {
  TestSupport::ShmRoot root;
  LfibStatus::Ptr status = lfibStatusFactory("status");
  status->ledgerMountIs(Ledger::LedgerMode::writer, root.path());
  for (uint32_t i = 1; i <= 300; ++i) {
    LfibPwVia via;
    via.keyIs(LfibViaKey(LFib::sourcePseudowire_, viaTypeMplsPseudowire_, i));
    status->pwViaIs(via);
  }
  std::set<uint32_t> seen;
  for (auto it = status->pwViaLedger().iterator(); it; ++it) {
    EXPECT_TRUE(seen.insert(it->key().index()).second);
    if (it->key().index() % 2) status->pwViaDel(it->key());  // the walk survives deletes
  }
  EXPECT_EQ(seen.size(), 300u);
  EXPECT_EQ(status->pwViaCount(), 150u);
  status->pwViaDelAll();
  EXPECT_EQ(status->pwViaCount(), 0u);
}

TEST(LfibTables, HardwareStatus) {
  TestSupport::ShmRoot root;
  auto hw = lfibHwStatusFactory("hw");
  hw->ledgerMountIs(Ledger::LedgerMode::writer, root.path());
  struct Watch : LfibHwStatus::NotifieeConst {
    int routes = 0, viaSets = 0;
    void onUnprogrammedRoute(const RouteKey&) override { ++routes; }
    void onViaSet(const LfibViaSetKey&) override { ++viaSets; }
  } watch;
  watch.notifierIs(hw);
  RouteInfo info(RouteKey(Wire::MplsLabel(99)), hwProgrammingTableFull_);
  hw->unprogrammedRouteIs(info);
  LfibViaSetKey vsk(LFib::sourceLdp_, 1, viaTypeMplsIp_, viaSetTypeEcmp_);
  hw->viaSetIs(LfibViaSetInfo(vsk, viaSetHwStatusProgrammed_));
  EXPECT_TRUE(hw->unprogrammedRoute(info.key()).unprogrammed());
  EXPECT_FALSE(hw->viaSet(vsk).unprogrammed());
  EXPECT_FALSE(RouteInfo(info.key(), hwProgrammingSuccess_).unprogrammed());
  EXPECT_TRUE(LfibViaSetInfo(vsk, viaSetHwStatusUnprogrammed_).unprogrammed());
  hw->unprogrammedRouteDel(info.key());
  EXPECT_EQ(hw->counter("unprogrammedRouteIs"), 1u);
  EXPECT_EQ(hw->counter("unprogrammedRouteDel"), 1u);
  EXPECT_EQ(hw->counter("viaSetIs"), 1u);
  EXPECT_EQ(watch.routes, 2);
  EXPECT_EQ(watch.viaSets, 1);
}

}  // namespace
}  // namespace Mpls
