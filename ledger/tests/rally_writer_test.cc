// The writer's change queue as readers find it: one live entry per changed slot, carrying the
// sequence of that slot's latest change, every older entry of the slot a tombstone, sequences
// increasing with the position; across rewrites, removes, compactions of a full queue and the
// swap to a larger position array when the table grows.
#include <gtest/gtest.h>

#include <map>

#include "ledger/LedgerWriter.h"
#include "ledger/tests/TestTable.h"

namespace {

using namespace LedgerTest;
using Writer = Ledger::LedgerWriter<TestKey, TestValue>;

class RallyWriterQueue : public ::testing::Test {
 protected:
  RallyWriterQueue() {
    Ledger::LedgerConfig config;
    config.root = root.path();
    config.table = "rally";
    config.capacity = 4;
    config.minBuckets = 4;
    writer = std::make_unique<Writer>(config);
    writer->attach();
  }

  uint32_t slotOf(const void* value) {
    auto* bytes = static_cast<const uint8_t*>(value) - Ledger::kSlotHeaderSize;
    auto* first = reinterpret_cast<const uint8_t*>(&writer->slotTable().slot(0));
    return uint32_t((bytes - first) / writer->slotTable().slotSize());
  }
  void write(uint64_t id, uint64_t version) {
    const uint32_t slot = slotOf(writer->write(makeValue(id, version)));
    lastSeq[slot] = writer->sequence();
  }
  void remove(uint64_t id) {
    TestValue old;
    ASSERT_TRUE(writer->remove(TestKey{id}, &old));
    // The removed slot's notification is the latest one; its index is found through the
    // queue, since the slot itself is free now.
    const Ledger::RallyWriter& rally = writer->rally();
    lastSeq[rally.entry(rally.count() - 1).slotWord] = writer->sequence();
  }

  // Every changed slot has exactly one live entry, the one the position array names, with the
  // sequence of the slot's latest change; all other entries are tombstones.
  void expectOneLiveEntryPerSlot() {
    const Ledger::RallyWriter& rally = writer->rally();
    std::map<uint32_t, uint32_t> liveCount;
    uint64_t previous = 0;
    for (uint32_t pos = 0; pos < rally.count(); ++pos) {
      const Ledger::RallyEntry& e = rally.entry(pos);
      EXPECT_GT(e.sequence, previous) << "pos " << pos;
      previous = e.sequence;
      if (e.slotWord & Ledger::kTombstone) continue;
      ++liveCount[e.slotWord];
      EXPECT_EQ(rally.position(e.slotWord), pos) << "slot " << e.slotWord;
    }
    EXPECT_EQ(previous, writer->sequence());
    for (const auto& [slot, seq] : lastSeq) {
      ASSERT_EQ(liveCount[slot], 1u) << "slot " << slot;
      EXPECT_EQ(rally.entry(rally.position(slot)).sequence, seq) << "slot " << slot;
    }
    EXPECT_EQ(liveCount.size(), lastSeq.size());
    EXPECT_TRUE(writer->validate()) << writer->validationError();
  }

  TempRoot root;
  std::unique_ptr<Writer> writer;
  std::map<uint32_t, uint64_t> lastSeq;  // slot -> sequence of its latest notification
};

TEST_F(RallyWriterQueue, RewritesAndRemovesLeaveOnlyTheLatestEntryOfEachSlotLive) {
  for (uint64_t id = 0; id < 10; ++id) write(id, 1);
  for (uint64_t version = 2; version < 7; ++version) write(3, version);
  remove(5);
  write(7, 2);
  expectOneLiveEntryPerSlot();
  // A key written again after its removal may take the same slot: still one live entry.
  write(5, 3);
  expectOneLiveEntryPerSlot();
}

TEST_F(RallyWriterQueue, CompactionKeepsTheLiveEntriesWithTheirSequences) {
  for (uint64_t id = 0; id < 10; ++id) write(id, 1);
  const uint32_t capacity = writer->rally().capacity();
  // Far more rewrites than the queue holds: it must compact, more than once.
  for (uint64_t round = 0; round < 4 * capacity; ++round) {
    write(round % 7, round + 2);
    ASSERT_LE(writer->rally().count(), capacity);
  }
  EXPECT_GE(writer->writerCounters().rallyCompactions, 2u);
  expectOneLiveEntryPerSlot();
}

TEST_F(RallyWriterQueue, GrowingPastThePositionArraySwapsInALargerOne) {
  const uint32_t slotCapacity = writer->rally().slotCapacity();
  for (uint64_t id = 0; id < 3 * slotCapacity; ++id) write(id, 1);
  EXPECT_GT(writer->rally().slotCapacity(), slotCapacity);
  for (uint64_t id = 0; id < 3 * slotCapacity; id += 5) write(id, 2);
  expectOneLiveEntryPerSlot();
}

}  // namespace
