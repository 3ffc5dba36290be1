#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "lfib/LfibWriter.h"
#include "lfib/tests/TestRoutes.h"
#include "platform/tests/TempDir.h"
#include "platform/toggle/FeatureToggle.h"
#include "zinc/Exception.h"
#include "zinc/tests/TestSupport.h"

namespace Mpls {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using TestRoutes::mplsVia;
using TestRoutes::route;

// The order in which LfibStatus reported changes, with the key's index.
class WriteLog : public LfibStatus::NotifieeConst {
 public:
  explicit WriteLog(const LfibStatus::Ptr& s) { notifierIs(s); }
  void onLfibRoute(const RouteKey&) override { log.push_back("route"); }
  void onViaSet(const LfibViaSetKey& k) override {
    log.push_back("viaSet " + std::to_string(k.index()));
  }
  void onMplsVia(const LfibViaKey& k) override {
    log.push_back("via " + std::to_string(k.index()));
  }
  std::vector<std::string> log;
};

class LfibWriterTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    status->ledgerMountIs(Ledger::LedgerMode::writer, root.path());
    writer->inPlaceAdjacencyUpdateSupportedIs(inPlace());
  }
  bool inPlace() const { return GetParam(); }
  LfibRoute stored(uint32_t label) { return status->lfibRoute(RouteKey(Wire::MplsLabel(label))); }
  LfibViaSet storedSet(uint32_t label) { return status->viaSet(stored(label).viaSetKey()); }
  uint64_t writes() const {
    return status->counter("mplsViaIs") + status->counter("viaSetIs") +
           status->counter("lfibRouteIs") + status->counter("mplsViaDel") +
           status->counter("viaSetDel") + status->counter("lfibRouteDel");
  }

  TestSupport::ShmRoot root;
  LfibStatus::Ptr status = lfibStatusFactory("status");
  LfibWriter::Ptr writer = lfibWriterFactory(status);
};

TEST_P(LfibWriterTest, FirstWriteGoesViasThenViaSetThenRoute) {
  WriteLog log(status);
  writer->lfibRouteIs(route(100, 2));
  EXPECT_THAT(log.log, ElementsAre("via 1", "via 2", "viaSet 1", "route"));
  LfibViaSet vs = storedSet(100);
  ASSERT_EQ(vs.viaKeys(), 2u);
  LfibMplsVia first = status->mplsVia(vs.viaKey(LfibViaIndexRange(0)));
  EXPECT_EQ(first.key(), LfibViaKey(LFib::sourceLdp_, viaTypeMplsIp_, 1));
  EXPECT_EQ(first.weight(), 1u);
  EXPECT_EQ(first.nextHop(), mplsVia(1, 1000).nextHop());
}

// Each route's via set holds its own vias only, whatever the routes written before held.
TEST_P(LfibWriterTest, ViaSetsDoNotCarryKeysOverFromEarlierRoutes) {
  writer->lfibRouteIs(route(100, 5));
  writer->lfibRouteIs(route(101, 2, 20));
  writer->lfibRouteIs(route(102, 0));
  EXPECT_EQ(storedSet(100).viaKeys(), 5u);
  ASSERT_EQ(storedSet(101).viaKeys(), 2u);
  EXPECT_EQ(status->mplsVia(storedSet(101).viaKey(LfibViaIndexRange(1))).nextHop(),
            mplsVia(21, 0).nextHop());
  EXPECT_EQ(storedSet(102).viaKeys(), 0u);
  EXPECT_EQ(storedSet(102).key(), stored(102).viaSetKey());
}

TEST_P(LfibWriterTest, IdenticalRewrite) {
  writer->lfibRouteIs(route(100, 3));
  uint64_t before = writes();
  LfibRoute oldRoute = stored(100);
  writer->lfibRouteIs(route(100, 3));
  if (inPlace()) {
    EXPECT_EQ(writes(), before) << "nothing changed, nothing written";
    EXPECT_EQ(stored(100), oldRoute);
  } else {
    EXPECT_NE(stored(100).viaSetKey(), oldRoute.viaSetKey());
    EXPECT_EQ(status->mplsViaCount(), 3u);
    EXPECT_EQ(status->viaSetCount(), 1u);
  }
}

TEST_P(LfibWriterTest, OneViaChanged) {
  writer->lfibRouteIs(route(100, 2));
  LfibRoute oldRoute = stored(100);
  LfibViaSet oldSet = storedSet(100);
  WriteLog log(status);
  ConsolidatedLfibRoute changed = route(100, 1);
  changed.mplsViaIs(mplsVia(9, 2000));  // replaces hop 2
  writer->lfibRouteIs(changed);

  LfibViaSet newSet = storedSet(100);
  ASSERT_EQ(newSet.viaKeys(), 2u);
  if (inPlace()) {
    EXPECT_EQ(stored(100), oldRoute) << "same via set key, route untouched";
    EXPECT_EQ(newSet.viaKey(LfibViaIndexRange(0)), oldSet.viaKey(LfibViaIndexRange(0)));
    EXPECT_THAT(log.log, ElementsAre("via 3", "viaSet 1", "via 2"));
  } else {
    EXPECT_NE(stored(100).viaSetKey(), oldRoute.viaSetKey());
    EXPECT_THAT(log.log,
                ElementsAre("via 3", "via 4", "viaSet 2", "route", "viaSet 1", "via 1", "via 2"));
  }
  EXPECT_EQ(status->mplsViaCount(), 2u);
  EXPECT_EQ(status->viaSetCount(), 1u);
}

TEST_P(LfibWriterTest, MoreThan128ViasAreCut) {
  ZincTest::TraceCapture traces("MplsLfibWriter/0");
  writer->lfibRouteIs(route(100, 130));
  writer->lfibRouteIs(route(101, 128, 500));
  writer->lfibRouteIs(route(102, 127, 900));
  EXPECT_EQ(storedSet(100).viaKeys(), 128u);
  EXPECT_EQ(storedSet(101).viaKeys(), 128u);
  EXPECT_EQ(storedSet(102).viaKeys(), 127u);
  EXPECT_EQ(status->mplsViaCount(), 128u + 128u + 127u);
  EXPECT_EQ(traces.lines,
            std::vector<std::string>(2, "Reached via index limit (127), ignoring extra vias"));
}

TEST_P(LfibWriterTest, DeletesRouteViaSetAndVias) {
  writer->lfibRouteIs(route(100, 2));
  writer->lfibRouteIs(route(101, 3, 10));
  uint64_t before = writes();
  writer->lfibRouteDel(RouteKey(Wire::MplsLabel(555)));
  EXPECT_EQ(writes(), before) << "an absent route changes nothing";

  WriteLog log(status);
  writer->lfibRouteDel(RouteKey(Wire::MplsLabel(100)));
  EXPECT_THAT(log.log, ElementsAre("route", "viaSet 1", "via 1", "via 2"));
  EXPECT_EQ(status->mplsViaCount(), 3u);
  writer->lfibRouteDelAll();
  EXPECT_EQ(status->lfibRouteCount() + status->viaSetCount() + status->mplsViaCount(), 0u);
}

TEST_P(LfibWriterTest, ChangingViaTypeDropsTheOldVias) {
  writer->lfibRouteIs(route(100, 2));
  ConsolidatedLfibRoute pw(RouteKey(Wire::MplsLabel(100)), LFib::sourceLdp_, FwdEqvClass(),
                           RouteMetric(), viaTypeMplsPseudowire_, viaSetTypeEcmp_);
  LfibPwVia pwVia;
  pwVia.pwIntfIdIs(Wire::IntfId(77));
  pw.pwViaIs(pwVia);
  writer->lfibRouteIs(pw);
  EXPECT_EQ(status->mplsViaCount(), 0u);
  EXPECT_EQ(status->pwViaCount(), 1u);
  EXPECT_EQ(storedSet(100).key().viaType(), viaTypeMplsPseudowire_);
  EXPECT_EQ(status->viaSetCount(), 1u);
}

// A batch writes exactly what the same routes written one by one write, in the same order:
// new routes, rewrites of routes earlier in the batch, a cut at 128 vias, an empty batch.
TEST_P(LfibWriterTest, ABatchWritesWhatOneByOneWrites) {
  std::vector<ConsolidatedLfibRoute> routes;
  for (uint32_t i = 0; i < 40; ++i) routes.push_back(route(200 + i % 30, 1 + i % 4, i));
  routes.push_back(route(300, 130));
  routes.push_back(route(201, 2, 7));

  TestSupport::ShmRoot otherRoot;
  auto one = lfibStatusFactory("status");
  one->ledgerMountIs(Ledger::LedgerMode::writer, otherRoot.path());
  auto oneByOne = lfibWriterFactory(one);
  oneByOne->inPlaceAdjacencyUpdateSupportedIs(inPlace());
  WriteLog batchLog(status), oneLog(one);
  writer->lfibRoutesIs({});
  writer->lfibRoutesIs(routes);
  for (const ConsolidatedLfibRoute& r : routes) oneByOne->lfibRouteIs(r);

  EXPECT_EQ(batchLog.log, oneLog.log);
  EXPECT_EQ(status->counterRegistry().counters().size(), one->counterRegistry().counters().size());
  for (const auto& [name, value] : one->counterRegistry().counters()) {
    EXPECT_EQ(status->counter(name), *value) << name;
  }
  std::vector<LfibMplsVia> batchVias, oneVias;
  status->mplsViaForEach([&](const LfibMplsVia& v) { batchVias.push_back(v); });
  one->mplsViaForEach([&](const LfibMplsVia& v) { oneVias.push_back(v); });
  std::sort(batchVias.begin(), batchVias.end());
  std::sort(oneVias.begin(), oneVias.end());
  EXPECT_EQ(batchVias, oneVias);
  for (uint32_t label : {200u, 201u, 229u, 300u}) {
    EXPECT_EQ(stored(label), one->lfibRoute(RouteKey(Wire::MplsLabel(label)))) << label;
    EXPECT_EQ(storedSet(label), one->viaSet(stored(label).viaSetKey())) << label;
  }
  EXPECT_EQ(storedSet(300).viaKeys(), 128u);
}

// Each source takes its keys from its own allocator, also when the sources alternate within a
// batch, and an allocator installed between writes is the one the next route uses.
TEST_P(LfibWriterTest, EachSourceTakesKeysFromItsCurrentAllocator) {
  auto from = [](ConsolidatedLfibRoute r, LFib::Source source) {
    r.sourceIs(source);
    return r;
  };
  writer->lfibRoutesIs(std::vector<ConsolidatedLfibRoute>{
      route(400, 2), from(route(401, 1), LFib::sourceStatic_), route(402, 1)});
  EXPECT_EQ(stored(400).viaSetKey(),
            LfibViaSetKey(LFib::sourceLdp_, 1, viaTypeMplsIp_, viaSetTypeEcmp_));
  EXPECT_EQ(stored(401).viaSetKey(),
            LfibViaSetKey(LFib::sourceStatic_, 1, viaTypeMplsIp_, viaSetTypeEcmp_));
  EXPECT_EQ(storedSet(402).viaKey(LfibViaIndexRange(0)),
            LfibViaKey(LFib::sourceLdp_, viaTypeMplsIp_, 3));

  auto replacement = lfibViaIndexAllocatorFactory(LFib::sourceLdp_, status);
  replacement->viaKeyIndexIs(viaTypeMplsIp_, 1000);
  replacement->viaSetKeyIndexIs(ViaSetKeyIndexDomain(viaTypeMplsIp_, viaSetTypeEcmp_), 500);
  writer->indexAllocatorInternalIs(LFib::sourceLdp_, replacement);
  writer->lfibRouteIs(route(403, 1));
  EXPECT_EQ(stored(403).viaSetKey().index(), 501u);
  EXPECT_EQ(storedSet(403).viaKey(LfibViaIndexRange(0)).index(), 1001u);
  EXPECT_EQ(replacement->viaKeyIndex(viaTypeMplsIp_), 1001u);
}

INSTANTIATE_TEST_SUITE_P(InPlace, LfibWriterTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "on" : "off"; });

TEST(LfibWriterChecks, InvalidViaTypesAndSetKeysAreFatal) {
  TestSupport::ShmRoot root;
  LfibStatus::Ptr status = lfibStatusFactory("status");
  status->ledgerMountIs(Ledger::LedgerMode::writer, root.path());
  LfibWriter::Ptr writer = lfibWriterFactory(status);
  const auto failure = ZincTest::failureOf<Zinc::InternalException>;
  EXPECT_THAT(failure([&] { writer->lfibViaDel(LfibViaKey(LFib::sourceLdp_, LfibViaType(9), 1)); }),
              HasSubstr("viaType not yet supported"));
  EXPECT_THAT(failure([&] { writer->lfibViaDel(LfibViaKey(LFib::sourceLdp_, viaTypeMax_, 1)); }),
              HasSubstr("invalid viaType"));
  EXPECT_THAT(
      failure([&] { writer->lfibViaDel(LfibViaKey(LFib::sourceLdp_, viaTypeMplsUnknown_, 1)); }),
      HasSubstr("invalid viaType"));
  ConsolidatedLfibRoute r = route(100, 0);
  r.viaTypeIs(viaTypeMplsUnknown_);
  EXPECT_THAT(
      failure([&] { writer->lfibRouteIs(r); }),
      HasSubstr("route.viaType() != viaTypeMplsUnknown_ && route.viaType() != viaTypeMax_"));
  LfibMplsVia keyed = mplsVia(1, 16);
  keyed.keyIs(LfibViaKey(LFib::sourceLdp_, viaTypeMplsIp_, 3));
  EXPECT_THAT(failure([&] { r.mplsViaIs(keyed); }),
              HasSubstr("(vk == LfibViaKey()): Vias in ConsolidatedLfibRoute should have an unset "
                        "key only"));
}

// A writer on a status whose tables are not mounted yet drops what it writes, as the tables
// themselves do, instead of failing on the way.
TEST(LfibWriterUnmounted, RoutesAreDroppedInNoMansLand) {
  LfibStatus::Ptr status = lfibStatusFactory("status");
  LfibWriter::Ptr writer = lfibWriterFactory(status);
  writer->lfibRouteIs(route(16, 2));
  writer->lfibRouteDel(route(16, 2).key());
  EXPECT_EQ(status->lfibRouteCount(), 0u);
  EXPECT_EQ(status->viaSetCount(), 0u);
  EXPECT_EQ(status->mplsViaCount(), 0u);
}

TEST(ConsolidatedLfibRoute, StringFormAndEmptiness) {
  ConsolidatedLfibRoute r = route(100, 0);
  EXPECT_TRUE(!r);
  r.mplsViaIs(mplsVia(1, 16));
  EXPECT_FALSE(!r);
  EXPECT_TRUE(r.mplsViaHas(mplsVia(1, 16)));
  EXPECT_EQ(valueToStrep(r),
            "Value('Mpls::ConsolidatedLfibRoute', ** {'key': " + valueToStrep(r.key()) +
                ", 'source': sourceLdp, 'fec': " + valueToStrep(FwdEqvClass()) +
                ", 'metric': " + valueToStrep(RouteMetric()) +
                ", 'viaType': viaTypeMplsIp, 'viaSetType': viaSetTypeEcmp, 'mplsVia': [" +
                valueToStrep(mplsVia(1, 16)) +
                "], 'pwVia': [], 'ipLookupVia': [], 'extFecVia': []})");
  EXPECT_THAT([] { ConsolidatedLfibRoute::fromString(""); },
              ThrowsMessage<Zinc::InternalException>(
                  EndsWith(": No String constructor for ConsolidatedLfibRoute - has collection")));
}

TEST(FeatureToggle, EnvironmentThenFileThenDefault) {
  const char* name = "InPlaceMplsAdjacencyUpdate";
  TestSupport::ShmRoot dir;
  std::string file = dir.path() + "/toggles";
  std::ofstream(file) << "# toggles\nOther=on\n" << name << " = on\n";
  ::setenv("FEATURE_TOGGLES_FILE", file.c_str(), 1);
  ::unsetenv("FEATURE_TOGGLE_InPlaceMplsAdjacencyUpdate");
  EXPECT_TRUE(Platform::FeatureToggle::enabled(name));
  ::setenv("FEATURE_TOGGLE_InPlaceMplsAdjacencyUpdate", "0", 1);
  EXPECT_FALSE(Platform::FeatureToggle::enabled(name));
  Platform::FeatureToggle::overrideIs(name, true);
  EXPECT_TRUE(Platform::FeatureToggle::enabled(name));
  Platform::FeatureToggle::overrideIs(name, std::nullopt);
  ::unsetenv("FEATURE_TOGGLE_InPlaceMplsAdjacencyUpdate");
  ::setenv("FEATURE_TOGGLES_FILE", (dir.path() + "/missing").c_str(), 1);
  EXPECT_FALSE(Platform::FeatureToggle::enabled(name));
  EXPECT_TRUE(Platform::FeatureToggle::enabled(name, true));

  // The writer reads it when it starts.
  ::setenv("FEATURE_TOGGLE_InPlaceMplsAdjacencyUpdate", "yes", 1);
  LfibStatus::Ptr status = lfibStatusFactory("unmounted");
  EXPECT_TRUE(lfibWriterFactory(status)->inPlaceAdjacencyUpdateSupported());
  ::unsetenv("FEATURE_TOGGLE_InPlaceMplsAdjacencyUpdate");
  EXPECT_FALSE(lfibWriterFactory(status)->inPlaceAdjacencyUpdateSupported());
  ::unsetenv("FEATURE_TOGGLES_FILE");
}

// A writer that says how big the LFIB gets has its new tables made that big: the load
// neither grows a slot table nor re-chains a bucket table. Tables that exist keep their size.
TEST(LfibWriterExpectedSize, NewTablesTakeTheLoadWithoutGrowing) {
  TestSupport::ShmRoot root;
  auto tableOf = [](auto& ledger) -> auto& { return ledger.ledgerMap().table(); };
  auto status = lfibStatusFactory("sized");
  status->ledgerExpectedSizeIs({300, 600});
  status->ledgerMountIs(Ledger::LedgerMode::writer, root.path());
  EXPECT_EQ(tableOf(status->lfibRouteLedger()).capacity(), 300u);
  EXPECT_EQ(tableOf(status->viaSetLedger()).capacity(), 300u);
  EXPECT_EQ(tableOf(status->mplsViaLedger()).capacity(), 600u);
  EXPECT_EQ(tableOf(status->pwViaLedger()).capacity(), 64u) << "no expectation: the default";

  auto writer = lfibWriterFactory(status);
  for (uint32_t i = 0; i < 300; ++i) writer->lfibRouteIs(route(16 + i, 2, i));
  auto expectNoGrowth = [](const Ledger::WriterCounters& c, const char* table) {
    EXPECT_EQ(c.slotGrowths, 0u) << table;
    EXPECT_EQ(c.bucketGrowths, 0u) << table;
  };
  expectNoGrowth(tableOf(status->lfibRouteLedger()).writerCounters(), "lfibRoute");
  expectNoGrowth(tableOf(status->viaSetLedger()).writerCounters(), "viaSet");
  expectNoGrowth(tableOf(status->mplsViaLedger()).writerCounters(), "mplsVia");
  EXPECT_EQ(status->mplsViaCount(), 600u);
  writer->lfibRouteIs(route(16 + 300, 2));  // beyond the expectation: the tables grow
  EXPECT_EQ(status->lfibRouteCount(), 301u);
  EXPECT_TRUE(status->validateFiles());
  status->ledgerUnmount();

  auto next = lfibStatusFactory("sized");
  next->ledgerExpectedSizeIs({5000, 10000});
  next->ledgerMountIs(Ledger::LedgerMode::writer, root.path());
  EXPECT_LT(tableOf(next->lfibRouteLedger()).capacity(), 5000u) << "an adopted table is kept";
  EXPECT_EQ(next->lfibRouteCount(), 301u);
}

}  // namespace
}  // namespace Mpls
