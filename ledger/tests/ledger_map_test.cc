// LedgerMap, LedgerBaseDummy and LedgerTemporary: refusals, no man's land, and corruption
// reported and repaired without losing the caller's footing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "ledger/LedgerMap.h"
#include "ledger/tests/TestTable.h"
#include "zinc/tests/TestSupport.h"

namespace {

using namespace LedgerTest;
using namespace Ledger;
using ::testing::Contains;
using ::testing::HasSubstr;
using Map = LedgerMap<TestKey, TestValue>;
using ZincTest::TraceCapture;

LedgerConfig mapConfig(const TempRoot& root) { return tableConfig(root.path(), "map", 16, 4); }

TEST(LedgerDummy, RefusesEverythingAndSaysWhat) {
  TraceCapture trace("LedgerMap/0-9");
  LedgerBaseDummy<TestKey, TestValue> dummy;
  TestValue v;
  EXPECT_FALSE(dummy.lookup(TestKey{1}, v));
  EXPECT_EQ(dummy.write(makeValue(1, 1), WriteFlag::always), nullptr);
  EXPECT_FALSE(dummy.remove(TestKey{1}, nullptr));
  EXPECT_EQ(dummy.directWrite(TestKey{1}), nullptr);
  EXPECT_EQ(dummy.members(), 0u);
  EXPECT_TRUE(trace.has("LedgerBaseDummy::lookup() "));
  EXPECT_TRUE(trace.has("LedgerBaseDummy::write() "));
  EXPECT_TRUE(trace.has("LedgerBaseDummy::directWrite() "));
}

TEST(LedgerMapModes, ReadOnlyRefusesChangesWithItsMessages) {
  TempRoot root;
  TraceCapture trace("LedgerMap/0-9");
  Map map(mapConfig(root), LedgerMode::readOnly);
  EXPECT_FALSE(map.initialize());
  EXPECT_EQ(map.write(makeValue(1, 1)), nullptr);
  EXPECT_FALSE(map.remove(TestKey{1}));
  EXPECT_FALSE(map.cleanup());
  EXPECT_FALSE(map.validateFiles());
  EXPECT_FALSE(map.validate());
  for (const char* text :
       {"write to read-only Ledger table", "remove to read-only Ledger table",
        "cleanup to read-only Ledger table", "validateFiles to read-only Ledger table",
        "validate to read-only Ledger table"}) {
    EXPECT_TRUE(trace.has(text)) << text;
  }
  EXPECT_FALSE(std::filesystem::exists(root.path() + "/map"));
}

TEST(LedgerMapModes, SafeWritesOutsideAnAttachmentAreDropped) {
  TempRoot root;
  TraceCapture trace("LedgerMap/0-9");
  Map map(mapConfig(root), LedgerMode::writer);
  EXPECT_FALSE(map.safeWrite(makeValue(1, 1)));
  EXPECT_TRUE(trace.has("LedgerMap::safeWrite() in no man's land map, dropped"));
  map.cleanupAndDetach();
  EXPECT_TRUE(trace.has(" trying to cleanup uninitialized ledger."));
  ASSERT_TRUE(map.initialize());
  EXPECT_TRUE(map.safeWrite(makeValue(1, 1)));
  TestValue v;
  EXPECT_TRUE(map.lookup(TestKey{1}, v));
  map.detach();
  EXPECT_FALSE(map.safeRemove(TestKey{1}));
  EXPECT_TRUE(trace.has("LedgerMap::safeRemove() in no man's land map, dropped"));
  EXPECT_TRUE(std::filesystem::exists(root.path() + "/map/slots"));  // detach keeps the files
  ASSERT_TRUE(map.initialize());
  EXPECT_TRUE(map.lookup(TestKey{1}, v));
  map.cleanupAndDetach();
  EXPECT_FALSE(std::filesystem::exists(root.path() + "/map"));
}

TEST(LedgerMapModes, CorruptionIsReportedTheEntryTreatedAsAbsentAndTheTableRepaired) {
  TempRoot root;
  TraceCapture trace("LedgerMap/0-9");
  Map map(mapConfig(root), LedgerMode::writer);
  map.initialize();
  std::vector<std::string> reasons;
  map.corruptionHandlerIs([&](const std::string& reason) { reasons.push_back(reason); });
  for (uint64_t id = 0; id < 10; ++id) map.write(makeValue(id, 1));
  auto& writer = dynamic_cast<LedgerWriter<TestKey, TestValue>&>(map.table());
  // Point one slot's chain link at itself.
  const uint32_t slot = slotIndexOf(writer, writer.write(makeValue(4, 2)));
  writer.slotTable().slot(slot).linkPair = packLink(0, slot);
  TestValue v;
  int steps = 0;  // iteration must end: the loop is reported, not followed
  for (bool more = map.first(v); more && steps < 100; more = map.next(v.k, v)) ++steps;
  EXPECT_LT(steps, 10);
  ASSERT_EQ(map.corruptions(), 1u);
  ASSERT_EQ(reasons.size(), 1u);
  EXPECT_THAT(reasons[0], HasSubstr("WriterHashMap::next() corrupt rhash detected, slot: "));
  EXPECT_TRUE(trace.has("LedgerMap::corruptionDetected() map next: "));
  EXPECT_TRUE(map.validate());  // re-attached and repaired
  for (uint64_t id = 0; id < 10; ++id) {
    EXPECT_TRUE(map.lookup(TestKey{id}, v)) << id;
  }
}

// A read that meets corruption carries on as if the entry were absent, even when the table's
// files cannot be attached again to repair it: no exception out of the read.
TEST(LedgerMapModes, ARepairThatCannotAttachLeavesTheReadAMiss) {
  TempRoot root;
  TraceCapture trace("LedgerMap/0-9");
  Map map(mapConfig(root), LedgerMode::writer);
  map.initialize();
  for (uint64_t id = 0; id < 10; ++id) map.write(makeValue(id, 1));
  auto& writer = dynamic_cast<LedgerWriter<TestKey, TestValue>&>(map.table());
  const uint32_t slot = slotIndexOf(writer, writer.write(makeValue(4, 2)));
  writer.slotTable().slot(slot).linkPair = packLink(0, slot);
  // Whoever is told of the corruption first makes the slot file something no writer opens.
  const std::string slots = writer.slotTable().path();
  map.corruptionHandlerIs([&](const std::string&) {
    std::filesystem::remove(slots);
    std::filesystem::create_directory(slots);
  });
  TestValue v;
  int steps = 0;
  EXPECT_NO_THROW(
      for (bool more = map.first(v); more && steps < 100; more = map.next(v.k, v))++ steps);
  EXPECT_LT(steps, 10);
  EXPECT_EQ(map.corruptions(), 1u);
  EXPECT_TRUE(trace.has("LedgerMap::corruptionDetected() map cannot attach again: "));
}

TEST(LedgerTemporaryTable, LivesAndDiesWithItsObject) {
  TempRoot root;
  LedgerConfig c;
  c.root = root.path();
  std::string folder;
  {
    LedgerTemporary<TestKey, TestValue> temp(c);
    temp.write(makeValue(3, 3));
    TestValue v;
    EXPECT_TRUE(temp.lookup(TestKey{3}, v));
    ASSERT_EQ(std::distance(std::filesystem::directory_iterator(root.path()),
                            std::filesystem::directory_iterator()),
              1);
    folder = std::filesystem::directory_iterator(root.path())->path();
    EXPECT_THAT(folder, HasSubstr("/tmp-table-"));
  }
  EXPECT_FALSE(std::filesystem::exists(folder));
}

}  // namespace
