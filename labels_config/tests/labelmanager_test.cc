#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "labels_config/LabelManagerSm.h"
#include "zinc/Reactor.h"
#include "zinc/tests/TestSupport.h"
#include "zinc/tests/ValueChecks.h"

// Ranges that construction accepts: each base with an empty, a one-block or the longest size.
template <>
struct Zinc::Testing::Arbitrary<Mpls::LabelRange> {
  static Mpls::LabelRange make(Rng& rng) {
    static const uint32_t bases[] = {0, 16, 100000, 0xFFFFF};
    const uint32_t base = bases[rng() % 4];
    const uint32_t sizes[] = {0, 1, 0x100000 - base};
    return Mpls::LabelRange(base, sizes[rng() % 3]);
  }
};

namespace {

using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Blocks = std::map<std::string, uint32_t>;

const char* const requestDir = "mpls/config/labelRequest/";

// The real loop, timer wheel, allocator and entity manager; trace lines of the manager
// are captured.
class LabelManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { config->mplsRoutingIs(true); }

  void start() { sm = Mpls::labelManagerSmFactory(wheel, hub, dir, config, status); }

  Mpls::ClientLabelRequest::Ptr clientIs(const std::string& name,
                                         const std::vector<std::string>& ids) {
    auto request = Mpls::clientLabelRequestFactory(name);
    for (const auto& id : ids) request->labelRequestIs(Zinc::String(id));
    hub->entityIs(requestDir, request);
    return request;
  }
  Mpls::ClientLabelRequest::Ptr request(const std::string& name) {
    return hub->entity<Mpls::ClientLabelRequest>(std::string(requestDir) + name);
  }
  Blocks blocks(const std::string& client) const {
    Blocks out;
    if (auto alloc = status->labelBlockAllocation(client)) {
      for (const auto& [id, block] : alloc->blockColl()) out[id.str()] = block.blockStart().value();
    }
    return out;
  }
  bool waitFor(const std::function<bool()>& pred) { return loop.runUntil(pred, 10s); }
  void dynamicRangeIs(uint32_t base, uint32_t size) {
    config->labelRangeIs("dynamic", Mpls::LabelRange(base, size));
  }
  void publish(const std::string& client, const std::string& id, uint32_t start) {
    status->labelBlockAllocationIs(client)->blockIs(id, Mpls::LabelBlock(start));
  }

  ZincTest::TraceCapture traces{"LabelManagerSm/9"};
  Zinc::Loop loop;
  Keel::TimerWheel::Ptr wheel = Keel::timerWheelFactory("wheel", loop);
  Hub::EntityManager::Ptr hub = Hub::entityManagerFactory("sysdb");
  Zinc::Dir::Ptr dir = hub->dirIs(requestDir);
  Mpls::Config::Ptr config = Mpls::configFactory("config");
  Mpls::Api::Status::Ptr status = Mpls::Api::statusFactory("status");
  Mpls::LabelManagerSm::Ptr sm;  // declared last: it goes before what it uses
};

std::vector<std::string> ids(int n, const std::string& prefix = "id") {
  std::vector<std::string> out;
  for (int i = 0; i < n; ++i) out.push_back(prefix + (i < 10 ? "0" : "") + std::to_string(i));
  return out;
}

std::vector<uint32_t> sortedStarts(const Blocks& b) {
  std::vector<uint32_t> out;
  for (const auto& [id, start] : b) out.push_back(start);
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<uint32_t> gridStarts(uint32_t base, int n) {
  std::vector<uint32_t> out;
  for (int i = 0; i < n; ++i) out.push_back(base + i * 16384);
  return out;
}

TEST_F(LabelManagerTest, DefaultRangeGivesSixteenBlocks) {
  clientIs("ospf", ids(16));
  dynamicRangeIs(0, 0);  // the empty range means the default too
  start();
  EXPECT_EQ(status->dynamicLabelRange(), Mpls::LabelRange(100000, 262144));
  EXPECT_EQ(sortedStarts(blocks("ospf")), gridStarts(100000, 16));
  EXPECT_EQ(sortedStarts(blocks("ospf")).back(), 345760u);
  EXPECT_TRUE(traces.has("handleLabelRange allocate 16 blocks."));
  EXPECT_TRUE(status->labelBlockAllocation("ospf")->blockHas("id15"));
  EXPECT_TRUE(sm->rangeExhausted());

  request("ospf")->labelRequestIs("one-too-many");
  EXPECT_EQ(blocks("ospf").size(), 16u);
  EXPECT_TRUE(sm->requestBacklog());
  EXPECT_TRUE(traces.has("allocateLabelBlock ID one-too-many could not be fulfilled."));
}

TEST_F(LabelManagerTest, TopmostBlockIsLostToTheClamp) {
  clientIs("ldp", {"a"});
  dynamicRangeIs(1032192, 16384);
  start();
  EXPECT_FALSE(sm->allocValid());
  EXPECT_EQ(sm->drAlloc(), nullptr);
  EXPECT_EQ(status->labelBlockAllocationCount(), 0u);
  EXPECT_EQ(status->dynamicLabelRange(), Mpls::LabelRange(1032192, 16384));
  // One block lower is whole again.
  dynamicRangeIs(1032192 - 16384, 32768);
  EXPECT_TRUE(sm->allocValid());
  EXPECT_EQ(blocks("ldp"), (Blocks{{"a", 1015808}}));
}

TEST_F(LabelManagerTest, SixteenThousandThreeHundredEightyThreeLabelsHoldNoBlock) {
  clientIs("ldp", {"a", "b"});
  dynamicRangeIs(200000, 16383);
  start();
  EXPECT_FALSE(sm->allocValid());
  EXPECT_EQ(status->labelBlockAllocationCount(), 0u);
  EXPECT_FALSE(traces.has("allocate"));

  dynamicRangeIs(200000, 16384);
  EXPECT_TRUE(sm->allocValid());
  EXPECT_TRUE(traces.has("handleLabelRange allocate 1 blocks."));
  Blocks got = blocks("ldp");
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got.begin()->second, 200000u);
  EXPECT_TRUE(sm->requestBacklog());
}

TEST_F(LabelManagerTest, ReleasingOneIdentifierFreesOnlyItsNumberAfterTheExpiryTime) {
  auto bgp = clientIs("bgp", {"a", "b"});
  start();
  EXPECT_EQ(blocks("bgp"), (Blocks{{"a", 100000}, {"b", 116384}}));
  EXPECT_EQ(sm->clientInfo("bgp")->blockIndex("b"), 1u);

  bgp->labelRequestDel("a");
  EXPECT_EQ(blocks("bgp"), (Blocks{{"b", 116384}}));
  EXPECT_TRUE(traces.has("removeLabelBlock ID a was removed, index: 0"));
  EXPECT_TRUE(sm->drAlloc()->isHeld(0));
  EXPECT_FALSE(sm->drAlloc()->isHeld(1));
  EXPECT_FALSE(sm->clientInfo("bgp")->blockIndexHas("a"));

  // Held: the next request gets the next free block, not a's.
  bgp->labelRequestIs("c");
  EXPECT_EQ(blocks("bgp")["c"], 132768u);
  ASSERT_TRUE(waitFor([&] { return !sm->drAlloc()->isReserved(0); }));
  bgp->labelRequestIs("d");
  EXPECT_EQ(blocks("bgp"), (Blocks{{"b", 116384}, {"c", 132768}, {"d", 100000}}));
}

TEST_F(LabelManagerTest, WaitingRequestIsServedOnceNumbersComeBack) {
  auto isis = clientIs("isis", ids(16));
  start();
  auto ldp = clientIs("ldp", {"x"});
  EXPECT_TRUE(blocks("ldp").empty());
  EXPECT_TRUE(sm->requestBacklog());

  const uint32_t freed = blocks("isis")["id07"];
  isis->labelRequestDel("id07");
  EXPECT_TRUE(sm->rangeExhausted());  // the number is held first
  EXPECT_TRUE(blocks("ldp").empty());
  ASSERT_TRUE(waitFor([&] { return !blocks("ldp").empty(); }));
  EXPECT_EQ(blocks("ldp"), (Blocks{{"x", freed}}));
  EXPECT_FALSE(sm->requestBacklog());
  EXPECT_TRUE(traces.has("handleRangeExhausted backlog: 1, range exhausted: 0"));
}

TEST_F(LabelManagerTest, RestartOverConsistentStatusKeepsEveryBlock) {
  clientIs("ospf", {"a", "b"});
  clientIs("rsvp", {"t"});
  // Left by an earlier instance: on the grid, not the lowest numbers.
  publish("ospf", "a", 100000 + 5 * 16384);
  publish("ospf", "b", 100000 + 9 * 16384);
  publish("rsvp", "t", 100000 + 15 * 16384);
  publish("rsvp", "gone", 100000 + 2 * 16384);  // its request went while we were down
  status->dynamicLabelRangeIs(Mpls::LabelRange(100000, 262144));
  start();
  EXPECT_TRUE(traces.has("syncAllocations sync client ospf with Hub (restart)"));
  EXPECT_TRUE(
      traces.has("syncAllocations client ospf uses block 5 for request a, block start: 181920"));
  EXPECT_EQ(blocks("ospf"), (Blocks{{"a", 181920}, {"b", 247456}}));
  EXPECT_EQ(blocks("rsvp"), (Blocks{{"t", 345760}}));
  EXPECT_TRUE(sm->drAlloc()->isHeld(2));
  request("ospf")->labelRequestIs("c");
  EXPECT_EQ(blocks("ospf")["c"], 100000u);

  // A second restart through the factory, over the status the first one kept.
  Blocks before = blocks("ospf");
  sm.reset();
  start();
  EXPECT_EQ(blocks("ospf"), before);
  EXPECT_EQ(blocks("rsvp"), (Blocks{{"t", 345760}}));
}

TEST_F(LabelManagerTest, RestartOverSharedBlockWithdrawsAndServesAfresh) {
  clientIs("a-client", {"p"});
  clientIs("b-client", {"q"});
  publish("a-client", "p", 116384);
  publish("b-client", "q", 116384);
  start();
  EXPECT_TRUE(traces.has("syncAllocations error: idx already used for client b-client, idx: 1"));
  EXPECT_EQ(blocks("a-client"), (Blocks{{"p", 100000}}));
  EXPECT_EQ(blocks("b-client"), (Blocks{{"q", 116384}}));
  EXPECT_EQ(sm->drAlloc()->inUseCount(), 2u);
}

TEST_F(LabelManagerTest, RestartOverOffGridBlockWithdrawsAll) {
  clientIs("ospf", {"a", "b"});
  publish("ospf", "a", 100000 + 3 * 16384);
  publish("ospf", "b", 100001);
  start();
  EXPECT_TRUE(
      traces.has("syncAllocations Hub status is inconsistent for client ospf, idx: 0, idx max: 15, "
                 "iter->blockStart(): 100001, blockStart( idx ): 100000"));
  EXPECT_EQ(blocks("ospf"), (Blocks{{"a", 100000}, {"b", 116384}}));
}

TEST_F(LabelManagerTest, ClientVanishingWhileItsMountIsPendingKeepsItsBlocks) {
  clientIs("ldp", {"a", "b"});
  start();
  const Blocks kept = blocks("ldp");
  sm->pendingClientMountIs("ldp", true);
  hub->entityDel(std::string(requestDir) + "ldp");
  EXPECT_TRUE(traces.has("handleLabelManagerClient defer pending client removal: ldp"));
  EXPECT_EQ(blocks("ldp"), kept);
  EXPECT_FALSE(sm->clientRequestHas("ldp"));

  clientIs("ldp", {"a", "b"});  // the mount completes
  EXPECT_FALSE(sm->pendingClientMount("ldp"));
  EXPECT_EQ(blocks("ldp"), kept);

  // Without the flag, the client's blocks go; dropping a flag finishes a deferred removal.
  sm->pendingClientMountIs("ldp", true);
  hub->entityDel(std::string(requestDir) + "ldp");
  EXPECT_EQ(blocks("ldp"), kept);
  sm->pendingClientMountDel("ldp");
  EXPECT_FALSE(status->labelBlockAllocationHas("ldp"));
  EXPECT_EQ(sm->clientInfo("ldp"), nullptr);
  EXPECT_EQ(sm->drAlloc()->heldCount(), 2u);
}

TEST_F(LabelManagerTest, SizeChangeKeepsBlocksBaseChangeResets) {
  clientIs("ospf", {"a", "b"});
  start();
  const Blocks initial = blocks("ospf");
  auto allocator = sm->drAlloc();
  traces.clear();
  dynamicRangeIs(100000, 262144 + 16384);
  EXPECT_EQ(sm->drAlloc(), allocator);
  EXPECT_FALSE(traces.has("reset allocator"));
  EXPECT_EQ(blocks("ospf"), initial);
  EXPECT_EQ(sm->drAllocConfig()->range(), Keel::Range(0, 16));
  EXPECT_EQ(status->dynamicLabelRange(), Mpls::LabelRange(100000, 262144 + 16384));

  dynamicRangeIs(500000, 262144);
  EXPECT_TRUE(traces.has("handleLabelRange reset allocator"));
  EXPECT_NE(sm->drAlloc(), allocator);
  EXPECT_EQ(blocks("ospf"), (Blocks{{"a", 500000}, {"b", 516384}}));
  EXPECT_EQ(sm->drAlloc()->inUseCount(), 2u);
}

TEST_F(LabelManagerTest, ShrinkingTheRangeMovesBlocksThatFallOutside) {
  auto ospf = clientIs("ospf", ids(3));
  start();
  dynamicRangeIs(100000, 2 * 16384);
  EXPECT_TRUE(traces.has("allocateLabelBlock block for ID id02 is no longer valid."));
  Blocks got = blocks("ospf");
  EXPECT_EQ(got["id00"], 100000u);
  EXPECT_EQ(got["id01"], 116384u);
  EXPECT_FALSE(got.contains("id02"));  // two blocks, three requests
  EXPECT_TRUE(sm->requestBacklog());
}

TEST_F(LabelManagerTest, RoutingOffWithdrawsAndOnRestoresTheSameBlocks) {
  clientIs("ospf", {"a", "b"});
  start();
  const Blocks initial = blocks("ospf");
  config->mplsRoutingIs(false);
  EXPECT_EQ(status->labelBlockAllocationCount(), 0u);
  request("ospf")->labelRequestIs("c");  // ignored while routing is off
  EXPECT_FALSE(status->labelBlockAllocationHas("ospf"));
  config->mplsRoutingIs(true);
  Blocks now = blocks("ospf");
  EXPECT_EQ(now["a"], initial.at("a"));
  EXPECT_EQ(now["b"], initial.at("b"));
  EXPECT_EQ(now["c"], 132768u);
  EXPECT_EQ(sm->drAlloc()->inUseCount(), 3u);
}

TEST_F(LabelManagerTest, ReplacingTheConfigurationReappliesIt) {
  clientIs("ospf", {"a"});
  start();
  auto other = Mpls::configFactory("other");
  other->mplsRoutingIs(true);
  other->labelRangeIs("dynamic", Mpls::LabelRange(300000, 16384));
  sm->mplsConfigIs(other);
  EXPECT_EQ(blocks("ospf"), (Blocks{{"a", 300000}}));
  EXPECT_THAT([&] { sm->mplsConfigIs(nullptr); },
              ThrowsMessage<Zinc::NullPointerException>(
                  "null _mplsConfig parameter to mutator for Mpls::LabelManagerSm::mplsConfig "
                  "not allowed"));
}

TEST_F(LabelManagerTest, NonRequestEntityInTheDirectoryIsIgnored) {
  hub->entityIs(requestDir, Zinc::dirFactory("stray"));
  clientIs("ospf", {"a"});
  start();
  EXPECT_FALSE(sm->client()->requestHas("stray"));
  EXPECT_TRUE(sm->client()->requestHas("ospf"));
  EXPECT_TRUE(traces.has("handleLabelRequestDir deleting client request"));
}

TEST_F(LabelManagerTest, BrokenInvariantsAndBadLabelsAreReported) {
  start();
  EXPECT_THAT([&] { sm->handleLabelRequest("nobody", "x"); },
              ThrowsMessage<Zinc::InternalException>(AllOf(
                  HasSubstr("LabelManagerSm:"), HasSubstr(" -- assertion failed(cltReq): "))));
  EXPECT_EQ(sm->blockStart(15), 345760u);
  EXPECT_EQ(sm->blockIdx(345760 + 16383), 15);
  EXPECT_THAT([&] { sm->blockStart(512); },  // 100000 + 512 * 16384 > 0x800000
              ThrowsMessage<Zinc::RangeException>(
                  "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed"));
  EXPECT_TRUE(sm->blockIsValid(Mpls::LabelBlock(345760)));
  EXPECT_FALSE(sm->blockIsValid(Mpls::LabelBlock(345761)));
  EXPECT_FALSE(sm->blockIsValid(Mpls::LabelBlock(99999)));
}

TEST(LabelRange, PassesTheGenericValueChecks) {
  Zinc::Testing::checkValueType(Zinc::Testing::arbitrarySamples<Mpls::LabelRange>(40));
  Zinc::Testing::checkValueType(Zinc::Testing::arbitrarySamples<Mpls::LabelBlock>(20));
}

TEST(LabelRange, BoundsAndStringForm) {
  EXPECT_NO_THROW(Mpls::LabelRange(0xFFFFF, 1));
  EXPECT_NO_THROW(Mpls::LabelRange(0, 1048576));
  const std::string baseBeyond = "LabelRange::base > Wire::MplsLabel::max not allowed",
                    sizeBeyond = "LabelRange::size > Expr @Mpls:176 not allowed",
                    badLabel =
                        "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
  const std::pair<std::function<void()>, std::string> refusals[] = {
      {[] { Mpls::LabelRange(0x100000, 0); }, baseBeyond},
      {[] { Mpls::LabelRange(1000, 1048576 - 999); }, sizeBeyond},
      {[] { Mpls::LabelBlock(0x800001); }, badLabel},
      {[] {
         Mpls::labelRangeFromStrep("Value('Mpls::LabelRange', ** {'base': 1000, 'size': 1048000})");
       },
       sizeBeyond},
      {[] {
         Mpls::labelRangeFromStrep("Value('Mpls::LabelRange', ** {'base': 1048576, 'size': 0})");
       },
       baseBeyond},
      {[] { Mpls::labelBlockFromStrep("Value('Mpls::LabelBlock', ** {'blockStart': 8388609})"); },
       badLabel},
  };
  for (const auto& [make, message] : refusals) {
    EXPECT_EQ(ZincTest::failureOf<Zinc::RangeException>(make), message);
  }

  Mpls::LabelRange r(100000, 262144);
  EXPECT_EQ(valueToStrep(r), "Value('Mpls::LabelRange', ** {'base': 100000, 'size': 262144})");
  EXPECT_EQ(Mpls::labelRangeFromStrep(valueToStrep(r)), r);
  EXPECT_EQ(Mpls::labelBlockFromStrep(valueToStrep(Mpls::LabelBlock(7))), Mpls::LabelBlock(7));
  EXPECT_THROW(Mpls::labelRangeFromStrep("Value('Mpls::LabelRange', ** {'base': 1})"),
               Zinc::Exception);
  EXPECT_TRUE(Mpls::LabelRange(1, 5) < Mpls::LabelRange(2, 0));
  EXPECT_TRUE(Mpls::LabelRange(1, 5) < Mpls::LabelRange(1, 6));
}

}  // namespace
