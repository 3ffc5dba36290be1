// Slabs for variable-size values: the slab header checks, allocation rules, the rules for a
// slab found without a writer, and a via-set-like table checked against a model.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "ledger/LedgerWriter.h"
#include "ledger/Shape.h"
#include "ledger/SlabOps.h"
#include "ledger/tests/SlabTestTypes.h"
#include "ledger/tests/TestTable.h"
#include "zinc/tests/TestSupport.h"

namespace {

using namespace LedgerTest;
using namespace Ledger;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using ViaWriter = LedgerWriter<ViaSetKey, ViaSet, ViaOps>;

LedgerConfig viaConfig(const TempRoot& root) { return tableConfig(root.path(), "viaSet", 4, 4); }

std::string slabError(const Shape::SlabHeader& h, size_t size, uint32_t ember) {
  return ZincTest::failureOf<CorruptionException>([&] { h.validate(size, ember); });
}

TEST(SlabHeaderChecks, InOrderWithTheirMessages) {
  TempRoot root;
  Shape::SlabWriter slab;
  EXPECT_EQ(slab.attach(root.path(), "t", 4, 77, SharedMem::EmberFile::Perm::OwnerOnly),
            Shape::SlabWriter::Attached::created);
  slab.free(slab.alloc(90));
  const size_t size = sizeof(Shape::SlabHeader) + 16 * Shape::entrySizeOf(4);
  Shape::SlabHeader h = slab.header();
  EXPECT_EQ(h.maxPayload, 92u);
  EXPECT_EQ(slabError(h, size, 77), "");
  using Break = std::function<void(Shape::SlabHeader&, size_t&, uint32_t&)>;
  const std::vector<std::pair<std::string, Break>> breaks = {
      {"SlabHeader::validate() bad header file size: ", [](auto&, auto& s, auto&) { s = 63; }},
      {"SlabHeader::validate() bad magic: ", [](auto& h, auto&, auto&) { h.magic[0] = 'X'; }},
      {"SlabHeader::validate() bad version: ", [](auto& h, auto&, auto&) { h.version = 2; }},
      {"SlabHeader::validate() checksum fail: ", [](auto& h, auto&, auto&) { h.sizeClass = 2; }},
      {"SlabHeader::validate() bad numOccupied: ",
       [](auto& h, auto&, auto&) { h.numOccupied = 17; }},
      {"SlabHeader::validate() bad shmem size: ", [](auto&, auto& s, auto&) { s -= 1; }},
      {"SlabHeader::validate() bad ember:", [](auto&, auto&, auto& e) { e = 78; }},
      {"SlabHeader::validate() bad highWater: ", [](auto& h, auto&, auto&) { h.highWater = 17; }},
      {"SlabHeader::validate() bad highWater: ",  // more entries in use than were ever taken
       [](auto& h, auto&, auto&) { h.numOccupied = h.highWater + 1; }},
      {"SlabHeader::validate() bad freeList: ", [](auto& h, auto&, auto&) { h.freeList = 1; }},
  };
  for (size_t k = 0; k < breaks.size(); ++k) {
    Shape::SlabHeader broken = h;
    size_t brokenSize = size;
    uint32_t ember = 77;
    for (size_t j = breaks.size(); j-- > k;) breaks[j].second(broken, brokenSize, ember);
    EXPECT_THAT(slabError(broken, brokenSize, ember), StartsWith(breaks[k].first)) << k;
  }
}

TEST(SlabAllocation, RefusesSizeZeroAndPicksTheSmallestClass) {
  TempRoot root;
  Shape::WriterAllocator allocator;
  allocator.attach(root.path(), "t", 5, SharedMem::EmberFile::Perm::OwnerOnly);
  EXPECT_THAT([&] { allocator.alloc(0); },
              ::testing::ThrowsMessage<Zinc::InternalException>(::testing::StrEq(
                  "WriterAllocator::alloc() doing an allocation of size 0 is forbidden")));
  EXPECT_EQ(allocator.alloc(44 + 2 * 12).sizeClass(), 1u);  // 68 bytes: the 72-byte entries
  EXPECT_EQ(allocator.alloc(60).sizeClass(), 0u);           // 64-byte entries
  EXPECT_EQ(allocator.alloc(61).sizeClass(), 1u);
  EXPECT_EQ(allocator.alloc(1580).sizeClass(), 37u);  // 1664-byte entries
  EXPECT_EQ(allocator.alloc(2044).sizeClass(), 40u);
  EXPECT_THROW(allocator.alloc(2045), Zinc::InternalException);
  for (uint32_t c = 1; c < Shape::kNumClasses; ++c) {
    EXPECT_LE(Shape::entrySizeOf(c), Shape::entrySizeOf(c - 1) * 9 / 8) << "at most 1/8 apart";
  }
  Shape::Offset a = allocator.alloc(10);
  allocator.free(a);
  EXPECT_EQ(allocator.alloc(20), a);  // a freed entry is reused
  EXPECT_EQ(allocator.payload(Shape::Offset::of(0, 999)), nullptr);
  EXPECT_EQ(allocator.payload(Shape::Offset{}), nullptr);
}

TEST(SlabAllocation, UnattachedSlabsAreKeptOrWipedByEmber) {
  TempRoot root;
  ZincTest::TraceCapture trace("Shape");
  const auto perm = SharedMem::EmberFile::Perm::OwnerOnly;
  {
    Shape::SlabWriter slab;
    slab.attach(root.path(), "t", 0, 5, perm);
    slab.alloc(10);
  }
  Shape::SlabWriter slab;
  EXPECT_EQ(slab.attach(root.path(), "t", 0, 5, perm), Shape::SlabWriter::Attached::kept);
  EXPECT_TRUE(trace.has("slab.0::validateUnattached() keeping slab numOccupied:1"));
  EXPECT_EQ(slab.attach(root.path(), "t", 0, 6, perm), Shape::SlabWriter::Attached::wiped);
  EXPECT_TRUE(trace.has("slab.0::validateUnattached() wiping slab with old ember:5"));
  EXPECT_EQ(slab.header().numOccupied, 0u);
  slab.detach();
  // An empty slab with a broken header: reported and formatted afresh.
  FILE* f = std::fopen(root.file("t", "slab.0").c_str(), "r+");
  std::fputs("garbage!", f);
  std::fclose(f);
  EXPECT_EQ(slab.attach(root.path(), "t", 0, 6, perm), Shape::SlabWriter::Attached::wiped);
  EXPECT_TRUE(
      trace.has("slab.0::validateUnattached, validation failed on an empty slab, reason: "
                "SlabHeader::validate() bad magic: "));
}

// Entries above the high water are mapped in bulk as they are handed out, never much beyond
// what the entries need; a slab adopted by the next writer carries on from its high water.
TEST(SlabAllocation, PagesAheadOfTheHighWaterAreMappedInBoundedSteps) {
  TempRoot root;
  const auto perm = SharedMem::EmberFile::Perm::OwnerOnly;
  const uint32_t sizeClass = 1;  // 72-byte entries
  const uint64_t entry = Shape::entrySizeOf(sizeClass);
  auto occupied = [&] {
    struct stat st;
    return ::stat(root.file("t", "slab.1").c_str(), &st) == 0 ? uint64_t(st.st_blocks) * 512 : 0;
  };
  auto bytesFor = [&](uint64_t entries) { return sizeof(Shape::SlabHeader) + entries * entry; };
  uint64_t mostAhead = 0;  // the most bytes occupied beyond what the entries need
  auto fill = [&](Shape::SlabWriter& slab, uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; ++i) {
      const uint32_t index = slab.alloc(68);
      ASSERT_EQ(index, i);
      std::memset(slab.payload(index), int(i & 0x7f), 68);
      const uint64_t used = bytesFor(i + 1);
      ASSERT_GE(occupied(), used) << i;
      ASSERT_LE(occupied(), used + Shape::kPopulateAhead + 4096) << i;
      mostAhead = std::max(mostAhead, occupied() - used);
    }
  };
  {
    Shape::SlabWriter slab;
    slab.attach(root.path(), "t", sizeClass, 9, perm);
    fill(slab, 0, 5000);  // ~360 KB: several steps and several growths of the file
  }
  Shape::SlabWriter slab;
  ASSERT_EQ(slab.attach(root.path(), "t", sizeClass, 9, perm), Shape::SlabWriter::Attached::kept);
  fill(slab, 5000, 9000);
  EXPECT_GT(mostAhead, Shape::kPopulateAhead / 2);  // mapped ahead, not page by page
  EXPECT_EQ(slab.check(nullptr), "");
  for (uint32_t i = 0; i < 9000; i += 997) EXPECT_EQ(slab.payload(i)[67], int(i & 0x7f)) << i;
}

TEST(SlabTable, ViaSetsMatchAModelAndLeakNothing) {
  TempRoot root;
  ViaWriter w(viaConfig(root));
  w.attach();
  EXPECT_EQ(w.slotTable().slotSize(), 24u);
  std::mt19937 rng(3);
  std::map<uint32_t, ViaSet> model;
  for (uint32_t step = 0; step < 6000; ++step) {
    uint32_t id = rng() % 400;
    if (rng() % 100 < (step < 3000 ? 30u : 80u)) {
      ViaSet out;
      ASSERT_EQ(w.remove(ViaSetKey{id}, &out), model.count(id) == 1);
      if (model.count(id)) {
        ASSERT_EQ(out, model[id]);
      }
      model.erase(id);
    } else {
      ViaSet v = makeViaSet(id, rng() % 128, step);
      w.write(v);
      model[id] = v;
    }
    if (step % 500 == 0) {
      ASSERT_TRUE(w.validate()) << w.validationError();
    }
  }
  ASSERT_TRUE(w.validate()) << w.validationError();
  EXPECT_EQ(w.ops().storageOccupied(), model.size());
  ViaSet v;
  for (const auto& [id, expected] : model) {
    ASSERT_TRUE(w.lookup(ViaSetKey{id}, v));
    ASSERT_EQ(v, expected);
  }
  // An unchanged rewrite is recognised through the slab.
  if (!model.empty()) {
    uint64_t seq = w.sequence();
    w.write(model.begin()->second, WriteFlag::ifChanged);
    EXPECT_EQ(w.sequence(), seq);
  }
  w.detach();
  EXPECT_EQ(w.attach(), AttachResult::existing);
  for (const auto& [id, expected] : model) {
    ASSERT_TRUE(w.lookup(ViaSetKey{id}, v));
    ASSERT_EQ(v, expected);
  }
}

TEST(SlabTable, RecoveryFreesPayloadsNoSlotRefersTo) {
  TempRoot root;
  {
    ViaWriter w(viaConfig(root));
    w.attach();
    for (uint32_t id = 0; id < 50; ++id) w.write(makeViaSet(id, id % 5, 1));
    w.ops().allocator().alloc(300);  // a writer that died between alloc and publish
    EXPECT_FALSE(w.validate());
    EXPECT_THAT(w.validationError(), StartsWith("Validator::doValidate() slab entries:51"));
  }
  ViaWriter w(viaConfig(root));
  EXPECT_EQ(w.attach(), AttachResult::recovered);
  EXPECT_EQ(w.ops().storageOccupied(), 50u);
  ViaSet v;
  for (uint32_t id = 0; id < 50; ++id) {
    ASSERT_TRUE(w.lookup(ViaSetKey{id}, v));
    EXPECT_EQ(v, makeViaSet(id, id % 5, 1));
  }
}

TEST(SlabTable, ASlotWhosePayloadVanishedIsDropped) {
  TempRoot root;
  {
    ViaWriter w(viaConfig(root));
    w.attach();
    for (uint32_t id = 0; id < 20; ++id) w.write(makeViaSet(id, 3, 1));
  }
  const std::string lost = "slab." + std::to_string(Shape::sizeClassFor(44 + 3 * 12));
  ASSERT_TRUE(SharedMem::EmberFile::unlinkFile(root.path(), "viaSet", lost));
  ViaWriter w(viaConfig(root));
  EXPECT_EQ(w.attach(), AttachResult::recovered);
  EXPECT_EQ(w.members(), 0u);  // every via set of 3 vias lived in the lost slab
  EXPECT_TRUE(w.validate()) << w.validationError();
}

}  // namespace
