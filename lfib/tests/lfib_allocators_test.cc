#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <set>

#include "lfib/IdxAllocators.h"
#include "lfib/LfibViaIndexAllocator.h"
#include "platform/tests/TempDir.h"
#include "zinc/Exception.h"

namespace Mpls {
namespace {

using ::testing::EndsWith;
using ::testing::ThrowsMessage;

class ViaIndexAllocatorTest : public ::testing::Test {
 protected:
  void SetUp() override { status->ledgerMountIs(Ledger::LedgerMode::writer, root.path()); }
  void addMplsVia(uint32_t index) {
    LfibMplsVia via;
    via.keyIs(LfibViaKey(LFib::sourceLdp_, viaTypeMplsIp_, index));
    status->mplsViaIs(via);
  }
  void addViaSet(uint32_t index, LfibViaSetType type = viaSetTypeEcmp_) {
    status->viaSetIs(LfibViaSet(LfibViaSetKey(LFib::sourceLdp_, index, viaTypeMplsIp_, type)));
  }
  TestSupport::ShmRoot root;
  LfibStatus::Ptr status = lfibStatusFactory("status");
  Zinc::Ptr<LfibViaIndexAllocator> alloc = lfibViaIndexAllocatorFactory(LFib::sourceLdp_, status);
};

// An index handed out counts as taken, written or not.
TEST_F(ViaIndexAllocatorTest, SkipsIndicesWhoseEntriesExist) {
  for (uint32_t i : {1u, 2u, 4u}) addMplsVia(i);
  EXPECT_EQ(alloc->getViaKey(viaTypeMplsIp_).index(), 3u);
  EXPECT_EQ(alloc->getViaKey(viaTypeMplsIp_).index(), 5u);

  for (uint32_t i : {1u, 3u}) addViaSet(i);
  EXPECT_EQ(alloc->getViaSetKey(viaTypeMplsIp_, viaSetTypeEcmp_).index(), 2u);
  EXPECT_EQ(alloc->getViaSetKey(viaTypeMplsIp_, viaSetTypeEcmp_).index(), 4u);
}

TEST_F(ViaIndexAllocatorTest, CountersAreIndependentPerTypeAndDomain) {
  addMplsVia(1);
  EXPECT_EQ(alloc->getViaKey(viaTypeMplsIp_).index(), 2u);
  EXPECT_EQ(alloc->getViaKey(viaTypeMplsPseudowire_),
            LfibViaKey(LFib::sourceLdp_, viaTypeMplsPseudowire_, 1));
  EXPECT_EQ(alloc->getViaSetKey(viaTypeMplsIp_, viaSetTypeEcmp_),
            LfibViaSetKey(LFib::sourceLdp_, 1, viaTypeMplsIp_, viaSetTypeEcmp_));
  EXPECT_EQ(alloc->getViaSetKey(viaTypeMplsIp_, viaSetTypeUcmp_).index(), 1u);
  EXPECT_EQ(alloc->getViaSetKey(viaTypeExternalFec_, viaSetTypeEcmp_).index(), 1u);
  EXPECT_EQ(alloc->viaKeyIndexInc(viaTypeMplsIp_, 5), 7u);
}

TEST_F(ViaIndexAllocatorTest, WrapsPastTheLargestIndexAndReusesFreedLowOnes) {
  const uint32_t max = std::numeric_limits<uint32_t>::max();
  addMplsVia(max);
  addMplsVia(1);
  alloc->viaKeyIndexIs(viaTypeMplsIp_, max - 1);
  // max exists, 0 is never handed out, 1 exists.
  EXPECT_EQ(alloc->getViaKey(viaTypeMplsIp_).index(), 2u);
  alloc->viaSetKeyIndexIs(ViaSetKeyIndexDomain(viaTypeMplsIp_, viaSetTypeEcmp_), max);
  EXPECT_EQ(alloc->getViaSetKey(viaTypeMplsIp_, viaSetTypeEcmp_).index(), 1u);
}

// Running out of keys would take 2^32 - 1 live entries of one type: not tried here.
TEST_F(ViaIndexAllocatorTest, ViaTypesWithoutACollectionAreFatal) {
  for (LfibViaType type : {LfibViaType(9), viaTypeMplsUnknown_, viaTypeMax_}) {
    EXPECT_THAT([&] { alloc->getViaKey(type); },
                ThrowsMessage<Zinc::InternalException>(EndsWith(": Unknown via type")))
        << type;
  }
  // Above 11: handed out unprobed.
  EXPECT_EQ(alloc->getViaKey(LfibViaType(12)).index(), 1u);
  EXPECT_EQ(alloc->getViaKey(LfibViaType(12)).index(), 2u);
}

TEST(SrTunnelIdxAllocator, CountsFromOneAndNotifiesOnChangeOnly) {
  auto alloc = MplsHelper::srTunnelIdxAllocatorFactory();
  struct Watch : MplsHelper::SrTunnelIdxAllocator::NotifieeConst {
    int calls = 0;
    void onTunnelIdx() override { ++calls; }
  } watch;
  watch.notifierIs(alloc);
  EXPECT_EQ(alloc->getIdx(), 1u);
  EXPECT_EQ(alloc->getIdx(), 2u);
  alloc->setIdx(2);
  alloc->setIdx(10);
  EXPECT_EQ(alloc->getIdx(), 11u);
  EXPECT_EQ(watch.calls, 4);
  EXPECT_FALSE(alloc->hasBackupSupport());
}

class GenAdjIdxAllocatorTest : public ::testing::Test {
 protected:
  using A = MplsHelper::LfibGenAdjIdxAllocator;
  Zinc::Ptr<LfibBase> lfib = lfibBaseFactory("protoLfib");
  Zinc::Ptr<A> alloc = MplsHelper::lfibGenAdjIdxAllocatorFactory(lfib);
};

TEST_F(GenAdjIdxAllocatorTest, SourceInTopBitsAndNoCollisionAcrossSources) {
  uint64_t ldp = alloc->getAdjacencyIndex(LFib::sourceLdp_);
  uint64_t evpn = alloc->getAdjacencyIndex(LFib::sourceEvpn_);
  EXPECT_EQ(ldp, A::withSource(LFib::sourceLdp_, 1));
  EXPECT_EQ(ldp >> 60, 2u);
  EXPECT_EQ(evpn >> 60, 7u);
  EXPECT_EQ(evpn & A::numberMask, 1u);
  EXPECT_EQ(alloc->adjIndex(LFib::sourceLdp_), ldp);
}

TEST_F(GenAdjIdxAllocatorTest, NeverHandsOutAnIndexInUse) {
  // Indices 1..3 of LDP are held by the protocol LFIB, in different collections.
  lfib->lfibAdjacencyIs(A::withSource(LFib::sourceLdp_, 1),
                        Zinc::makePtr<LfibAdjacency>(A::withSource(LFib::sourceLdp_, 1)));
  lfib->lfibPwAdjacencyIs(A::withSource(LFib::sourceLdp_, 2), LfibPwAdjacency());
  lfib->lfibExtFecAdjacencyIs(A::withSource(LFib::sourceLdp_, 3), LfibExtFecAdjacency());
  std::set<uint64_t> handed;
  for (int i = 0; i < 5; ++i) {
    uint64_t idx = alloc->getAdjacencyIndex(LFib::sourceLdp_);
    EXPECT_FALSE(lfib->adjacencyIndexUsed(idx));
    EXPECT_TRUE(handed.insert(idx).second) << "handed out twice: " << idx;
  }
  EXPECT_EQ(*handed.begin(), A::withSource(LFib::sourceLdp_, 4));

  // Reset does not hand out outstanding indices again; released ones come back.
  alloc->resetAdjacencyIndex(LFib::sourceLdp_);
  uint64_t next = alloc->getAdjacencyIndex(LFib::sourceLdp_);
  EXPECT_FALSE(handed.contains(next));
  alloc->releaseAdjacencyIndex(LFib::sourceLdp_, A::withSource(LFib::sourceLdp_, 4));
  alloc->resetAdjacencyIndex(LFib::sourceLdp_);
  EXPECT_EQ(alloc->getAdjacencyIndex(LFib::sourceLdp_), A::withSource(LFib::sourceLdp_, 4));
}

}  // namespace
}  // namespace Mpls
