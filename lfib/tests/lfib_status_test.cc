#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "lfib/LfibStatus.h"
#include "platform/tests/TempDir.h"
#include "zinc/Exception.h"
#include "zinc/Loop.h"
#include "zinc/tests/TestSupport.h"

namespace Mpls {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Matcher;
using ::testing::StartsWith;

LfibViaKey viaKey(LfibViaType type, uint32_t index) {
  return LfibViaKey(LFib::sourceLdp_, type, index);
}
LfibViaSetKey viaSetKey(LfibViaType type, uint32_t index) {
  return LfibViaSetKey(LFib::sourceLdp_, index, type, viaSetTypeEcmp_);
}
LfibViaSet viaSetWith(LfibViaType type, uint32_t index, uint32_t vias) {
  LfibViaSet vs(viaSetKey(type, index));
  for (uint32_t i = 0; i < vias; ++i) vs.viaKeyIs(LfibViaIndexRange(i), viaKey(type, i + 1));
  return vs;
}
LfibRoute routeTo(uint32_t label, const LfibViaSetKey& vsk, uint32_t metric) {
  RouteMetric m;
  m.metricIs(metric);
  return LfibRoute(RouteKey(Wire::MplsLabel(label)), vsk, LFib::sourceLdp_, FwdEqvClass(), m);
}

// Records every notification, in order.
class Recorder : public LfibStatus::NotifieeConst {
 public:
  explicit Recorder(const LfibStatus::Ptr& s) { notifierIs(s); }
  void onLfibRoute(const RouteKey& k) override { log.push_back("route " + valueToStrep(k)); }
  void onViaSet(const LfibViaSetKey& k) override {
    log.push_back("viaSet " + std::to_string(k.index()));
  }
  void onMplsVia(const LfibViaKey& k) override {
    log.push_back("mplsVia " + std::to_string(k.index()));
  }
  void onMplsViaControl() override { log.push_back("mplsVia control"); }
  std::vector<std::string> log;
};

const auto failureOf = ZincTest::failureOf<Zinc::InternalException>;

// The text of an assertion that MplsLfib's validation raised, holding `text`.
Matcher<std::string> validationFails(const std::string& text) {
  return AllOf(StartsWith("MplsLfib:"), HasSubstr(text));
}

class LfibStatusTest : public ::testing::Test {
 protected:
  void SetUp() override { status->ledgerMountIs(Ledger::LedgerMode::writer, root.path()); }
  TestSupport::ShmRoot root;
  LfibStatus::Ptr status = lfibStatusFactory("status");
};

TEST_F(LfibStatusTest, WritesAreCountedStoredAndNotified) {
  Recorder rec(status);
  LfibMplsVia via;
  via.keyIs(viaKey(viaTypeMplsIp_, 7));
  via.weightIs(3);
  status->mplsViaIs(via);
  status->mplsViaIs(via);
  status->mplsViaNotify(via.key());
  status->mplsViaDel(via.key());
  status->mplsViaDel(via.key());  // absent: still counted, validated and notified

  EXPECT_EQ(status->counter("mplsViaIs"), 2u);
  EXPECT_EQ(status->counter("mplsViaDel"), 2u);
  EXPECT_EQ(status->counter("mplsViaNotify"), 1u);
  EXPECT_EQ(status->counter("lfibRouteIs"), 0u);
  EXPECT_EQ(rec.log, std::vector<std::string>(5, "mplsVia 7"));
  EXPECT_FALSE(status->mplsViaHas(via.key()));

  status->mplsViaIs(via);
  EXPECT_EQ(status->mplsVia(via.key()), via);
  EXPECT_EQ(status->mplsViaCount(), 1u);
}

// Each write is stored, then validated: what the validation says of it ("" when it passes).
TEST_F(LfibStatusTest, ValidationRules) {
  auto route = [this](uint32_t label, LfibViaType type, uint32_t metric) {
    return [=, this] { status->lfibRouteIs(routeTo(label, viaSetKey(type, 1), metric)); };
  };
  auto viaSet = [this](const LfibViaSet& vs) { return [=, this] { status->viaSetIs(vs); }; };
  LfibMplsVia mplsOnPwKey;
  mplsOnPwKey.keyIs(viaKey(viaTypeMplsPseudowire_, 1));
  LfibPwVia pwOnExtFecKey;
  pwOnExtFecKey.keyIs(viaKey(viaTypeExternalFec_, 1));
  LfibEvpnEthernetSegmentFilterVia es;
  es.keyIs(viaKey(viaTypeEvpnEthernetSegment_, 1));
  LfibViaSet mixed = viaSetWith(viaTypeMplsIp_, 3, 2);
  mixed.viaKeyIs(LfibViaIndexRange(1), viaKey(viaTypeMplsPseudowire_, 9));
  const auto evpnMetric =
      validationFails("(route.metric() == 0): EVPN lfib routes must have metric set to 0");
  const Matcher<std::string> passes = IsEmpty();
  const std::pair<std::function<void()>, Matcher<std::string>> rules[] = {
      {[&] { status->mplsViaIs(mplsOnPwKey); },
       AllOf(HasSubstr("verifyViaTypeMplsIp"),
             validationFails(" -- assertion failed(key.viaType() == viaTypeMplsIp_): via key "
                             "and via coll type mismatch"))},
      {[&] { status->pwViaIs(pwOnExtFecKey); },
       validationFails("(key.viaType() == viaTypeMplsPseudowire_): via key and via coll type")},
      {[&] { status->evpnEthernetSegmentFilterViaIs(es); }, passes},
      {route(100, viaTypeVlan_, 5), evpnMetric},
      {route(101, viaTypeIpLookup_, 1), evpnMetric},  // IP lookup counts as EVPN
      {route(102, viaTypeMplsIp_, 5), passes},
      {route(102, viaTypeMplsPseudowire_, 5), passes},
      {route(102, viaTypeExternalFec_, 5), passes},
      {route(103, viaTypeVlan_, 0), passes},
      {viaSet(viaSetWith(viaTypeIpLookup_, 1, 2)),
       validationFails("(vs.viaKeys() <= 1): EVPN via sets must contain at most 1 via key")},
      {viaSet(viaSetWith(viaTypeEvpnVlanFlood_, 2, 1)), passes},
      {viaSet(mixed),
       validationFails("(viaKeyType == viaType): Vias in a viaSet must always be homogeneous")},
      {viaSet(viaSetWith(viaTypeMplsIp_, 4, 128)), passes},
      {[&] { status->lfibRouteDel(RouteKey(Wire::MplsLabel(55))); }, passes},
      {[&] { status->viaSetDel(viaSetKey(viaTypeVlan_, 5)); }, passes},
  };
  for (size_t i = 0; i < std::size(rules); ++i) {
    EXPECT_THAT(failureOf(rules[i].first), rules[i].second) << "rule " << i;
  }
  EXPECT_TRUE(status->mplsViaHas(mplsOnPwKey.key())) << "the write happens before the check";
  EXPECT_TRUE(status->lfibRouteHas(RouteKey(Wire::MplsLabel(100))));
  EXPECT_EQ(status->viaSet(viaSetKey(viaTypeMplsIp_, 4)), viaSetWith(viaTypeMplsIp_, 4, 128));
}

// A mutator's validation judges the value it has just written; any other validation reads
// what the table holds.
TEST_F(LfibStatusTest, ValidationJudgesTheValueJustWrittenThenTheTable) {
  const LfibRoute bad = routeTo(100, viaSetKey(viaTypeVlan_, 1), 5);
  EXPECT_NE(failureOf([&] { status->lfibRouteIs(bad); }), "");
  EXPECT_THAT(failureOf([&] { status->verifyLfibRoute(bad.key()); }),
              AllOf(HasSubstr("void Mpls::LfibStatus::handleRoute("),
                    HasSubstr(") const -- assertion failed(route.metric() == 0)")));
  EXPECT_EQ(failureOf([&] { status->lfibRouteIs(routeTo(100, bad.viaSetKey(), 0)); }), "");
  EXPECT_EQ(failureOf([&] { status->verifyLfibRoute(bad.key()); }), "");
  EXPECT_EQ(failureOf([&] { status->lfibRouteIs(routeTo(101, bad.viaSetKey(), 0)); }), "")
      << "another key's write does not stand in for the stored bad route";

  const LfibViaSet mixed = viaSetWith(viaTypeIpLookup_, 2, 2);
  EXPECT_NE(failureOf([&] { status->viaSetIs(mixed); }), "");
  EXPECT_THAT(failureOf([&] { status->verifyViaSet(mixed.key()); }),
              AllOf(HasSubstr("void Mpls::LfibStatus::handleViaSet("),
                    HasSubstr(") const -- assertion failed(vs.viaKeys() <= 1)")));
  EXPECT_EQ(failureOf([&] { status->viaSetDel(mixed.key()); }), "");
  EXPECT_EQ(failureOf([&] { status->verifyViaSet(mixed.key()); }), "");
}

TEST_F(LfibStatusTest, ViaSetsChangeSizeInTheirOneTable) {
  for (uint32_t vias : {2u, 10u, 1u, 128u, 8u, 0u}) {
    LfibViaSet vs = viaSetWith(viaTypeMplsIp_, 9, vias);
    status->viaSetIs(vs);
    EXPECT_EQ(status->viaSet(vs.key()), vs) << vias << " vias";
    EXPECT_EQ(status->viaSetCount(), 1u) << vias << " vias";
  }
  status->viaSetDel(viaSetKey(viaTypeMplsIp_, 9));
  EXPECT_EQ(status->viaSetCount(), 0u);
}

TEST_F(LfibStatusTest, DumpStateListsEveryCollection) {
  status->lfibRouteIs(routeTo(16, viaSetKey(viaTypeMplsIp_, 1), 0));
  status->viaSetIs(viaSetWith(viaTypeMplsIp_, 1, 2));
  auto table = lfibDot1qTagToVlanFactory(LfibDot1qTagToVlanKey(LFib::sourceEvpn_, 1));
  status->dot1qTagToVlanCollIs(table->key(), table);
  std::ostringstream os;
  status->dumpState(os, 2);
  EXPECT_EQ(os.str(),
            "  lfibRoutes #1\n  viaSets #1\n  mplsVias #0\n  pwVias #0\n  ipLookupVias #0\n"
            "  vlanVias #0\n  evpnVlanAwareVias #0\n  evpnEthernetSegmentFilterVias #0\n"
            "  evpnVlanFloodVias #0\n  evpnVlanAwareFloodVias #0\n  extFecVias #0\n"
            "  dot1qTagToVlanComposites #0\n  dot1qTagToVlanColls #1\n");
}

TEST_F(LfibStatusTest, TablesAreRealFilesThatTheNextWriterAdopts) {
  LfibRoute route = routeTo(20, viaSetKey(viaTypeMplsIp_, 1), 0);
  status->lfibRouteIs(route);
  status->viaSetIs(viaSetWith(viaTypeMplsIp_, 1, 2));
  EXPECT_TRUE(status->validateFiles());
  status->ledgerUnmount();
  EXPECT_FALSE(status->lfibRouteHas(route.key()));

  LfibStatus::Ptr next = lfibStatusFactory("status");
  next->ledgerMountIs(Ledger::LedgerMode::writer, root.path());
  EXPECT_EQ(next->lfibRoute(route.key()), route);
  EXPECT_EQ(next->viaSetCount(), 1u);
  EXPECT_TRUE(next->validateFiles());
}

// A reader on a loop is told of each key that appeared, changed or went, once, and of
// nothing for a rewrite that left the stored value as it was; its reads see the writer's
// table.
TEST_F(LfibStatusTest, ReaderIsToldOfChangedKeysOnly) {
  Zinc::Loop loop;
  LfibStatus::Ptr reader = lfibStatusFactory("status");
  Recorder recorder(reader);
  reader->ledgerMountIs(Ledger::LedgerMode::readOnly, root.path(), 64, &loop);
  auto settle = [&] {
    status->ledgerFlushKicks();
    return loop.runUntil([&] { return reader->ledgerInStep(); }, std::chrono::seconds(10));
  };
  LfibRoute route = routeTo(20, viaSetKey(viaTypeMplsIp_, 1), 0);
  status->lfibRouteIs(route);
  status->viaSetIs(viaSetWith(viaTypeMplsIp_, 1, 2));
  ASSERT_TRUE(settle());
  EXPECT_THAT(recorder.log, ::testing::IsSupersetOf(
                                {"route " + valueToStrep(route.key()), std::string("viaSet 1")}));
  EXPECT_EQ(reader->lfibRoute(route.key()), route);

  recorder.log.clear();
  status->lfibRouteIs(route);                          // the same bytes again
  status->viaSetIs(viaSetWith(viaTypeMplsIp_, 1, 3));  // one via key more
  ASSERT_TRUE(settle());
  EXPECT_THAT(recorder.log, ::testing::ElementsAre("viaSet 1"));
  EXPECT_EQ(reader->viaSet(viaSetKey(viaTypeMplsIp_, 1)).viaKeys(), 3u);

  recorder.log.clear();
  status->lfibRouteDel(route.key());
  ASSERT_TRUE(settle());
  EXPECT_THAT(recorder.log, ::testing::ElementsAre("route " + valueToStrep(route.key())));
  EXPECT_FALSE(reader->lfibRouteHas(route.key()));
  EXPECT_EQ(reader->lfibRouteCount(), 0u);
  reader->ledgerUnmount();
  // Unmounted, it follows nothing, so nothing is outstanding.
  EXPECT_TRUE(reader->ledgerInStep());
  EXPECT_EQ(reader->lfibRouteLedger().shadow(), nullptr);
}

// A reader's shadow that finds its table broken (the header counts slots that the file does
// not hold) reports it to its table, which counts it; once the table is whole again the
// shadow gets back in step.
TEST_F(LfibStatusTest, ReaderCorruptionIsCountedByItsTable) {
  Zinc::Loop loop;
  LfibStatus::Ptr reader = lfibStatusFactory("status");
  reader->ledgerMountIs(Ledger::LedgerMode::readOnly, root.path(), 64, &loop);
  auto settle = [&] {
    status->ledgerFlushKicks();
    return loop.runUntil([&] { return reader->ledgerInStep(); }, std::chrono::seconds(10));
  };
  const LfibRoute route = routeTo(20, viaSetKey(viaTypeMplsIp_, 1), 0);
  status->lfibRouteIs(route);
  ASSERT_TRUE(settle());
  auto& writer = dynamic_cast<
      Ledger::LedgerWriter<RouteKey, LfibRoute, Ledger::ZincOps<RouteKey, LfibRoute>>&>(
      status->lfibRouteLedger().ledgerMap().table());
  uint32_t& numSlots = writer.slotTable().header().numSlots;
  const uint32_t whole = numSlots;
  numSlots = whole + 4096;
  auto& routes = reader->lfibRouteLedger();
  routes.shadow()->resync("test");
  ASSERT_TRUE(loop.runUntil([&] { return routes.ledgerMap().corruptions() > 0; },
                            std::chrono::seconds(10)));
  numSlots = whole;
  ASSERT_TRUE(settle());
  EXPECT_EQ(reader->lfibRoute(route.key()), route);
  reader->ledgerUnmount();
}

TEST(LfibStatusUnmounted, WritesAreDroppedInNoMansLand) {
  LfibStatus::Ptr status = lfibStatusFactory("unmounted");
  LfibRoute route = routeTo(20, viaSetKey(viaTypeMplsIp_, 1), 0);
  status->lfibRouteIs(route);
  EXPECT_EQ(status->counter("lfibRouteIs"), 1u);
  EXPECT_FALSE(status->lfibRouteHas(route.key()));
  // Validation reads what the table holds, which is nothing: a dropped bad write passes.
  EXPECT_EQ(failureOf([&] { status->lfibRouteIs(routeTo(21, viaSetKey(viaTypeVlan_, 1), 5)); }),
            "");
  EXPECT_EQ(failureOf([&] { status->viaSetIs(viaSetWith(viaTypeIpLookup_, 1, 2)); }), "");
}

// One collection mounted, unmounted and mounted again on its own through its control; the
// others stay in no man's land.
TEST(LfibStatusControl, OneCollectionFollowsItsControl) {
  TestSupport::ShmRoot root;
  LfibStatus::Ptr status = lfibStatusFactory("controlled");
  Recorder recorder(status);
  CollectionControl control;
  control.mounted = true;
  control.mode = Ledger::LedgerMode::writer;
  control.root = root.path() + "/vias";
  status->mplsViaControlIs(control);
  EXPECT_EQ(status->mplsViaControl().root, root.path() + "/vias");
  EXPECT_THAT(recorder.log, ::testing::Contains("mplsVia control"));

  LfibMplsVia via;
  via.keyIs(viaKey(viaTypeMplsIp_, 7));
  status->mplsViaIs(via);
  status->lfibRouteIs(routeTo(20, viaSetKey(viaTypeMplsIp_, 1), 0));
  EXPECT_TRUE(status->mplsViaHas(via.key()));
  EXPECT_EQ(status->lfibRouteCount(), 0u) << "an unmounted collection keeps nothing";

  status->mplsViaControlIs(CollectionControl{});
  EXPECT_FALSE(status->mplsViaControl().mounted);
  EXPECT_FALSE(status->mplsViaHas(via.key()));
  status->mplsViaControlIs(control);
  EXPECT_TRUE(status->mplsViaHas(via.key())) << "the table's files outlive the mount";
}

TEST(LfibDot1qTagToVlan, MapsTagsToLocalVlans) {
  auto table = lfibDot1qTagToVlanFactory(LfibDot1qTagToVlanKey(LFib::sourceEvpn_, 3));
  table->dot1qTagToVlanIdIs(Bridging::VlanId(20), Bridging::VlanIdOrNone(200));
  table->dot1qTagToVlanIdIs(Bridging::VlanId(10), Bridging::VlanIdOrNone(100));
  EXPECT_EQ(table->stringValue(), "{10: 100, 20: 200}");
  table->dot1qTagToVlanIdDel(Bridging::VlanId(10));
  EXPECT_EQ(table->stringValue(), "{20: 200}");
}

}  // namespace
}  // namespace Mpls
