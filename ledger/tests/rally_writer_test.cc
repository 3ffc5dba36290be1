// The writer's change queue as readers find it: once settled, one live entry per changed slot,
// carrying the sequence of that slot's latest change, every older entry of the slot a
// tombstone, sequences increasing with the position; across rewrites, removes, compactions of
// a full queue and the swap to a larger position array when the table grows. Before its batch
// is settled a slot may have two live entries: validate, detach and the next writer's attach
// settle, and a reader handed the slot twice reports its change once.
#include <gtest/gtest.h>

#include <map>

#include "ledger/tests/ForkedChild.h"
#include "ledger/tests/ShadowHarness.h"
#include "ledger/tests/SmallTable.h"

namespace {

using namespace LedgerTest;
using Ledger::kSettleBatch;
using Ledger::RallyQueueHeader;
using SharedMem::EmberFile;

class RallyWriterQueue : public SmallTable {
 protected:
  RallyWriterQueue() : SmallTable("rally") {}

  const Ledger::RallyWriter& rally() { return writer->rally(); }
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
    lastSeq[rally().entry(rally().count() - 1).slotWord] = writer->sequence();
  }
  uint32_t liveEntriesOf(uint32_t slot) {
    uint32_t live = 0;
    for (uint32_t pos = 0; pos < rally().count(); ++pos)
      live += rally().entry(pos).slotWord == slot;
    return live;
  }

  // Settled (validate settles first): every slot in the queue has exactly one live entry, its
  // newest, the one the position array names; for the slots this test changed, with the
  // sequence of the slot's latest change.
  void expectOneLiveEntryPerSlot() {
    EXPECT_TRUE(writer->validate()) << writer->validationError();
    EXPECT_EQ(rally().settled(), rally().count());
    std::map<uint32_t, uint32_t> liveCount, newest;
    uint64_t previous = 0;
    for (uint32_t pos = 0; pos < rally().count(); ++pos) {
      const Ledger::RallyEntry& e = rally().entry(pos);
      EXPECT_GT(e.sequence, previous) << "pos " << pos;
      previous = e.sequence;
      newest[e.slotWord & ~Ledger::kTombstone] = pos;
      if (e.slotWord & Ledger::kTombstone) continue;
      ++liveCount[e.slotWord];
      EXPECT_EQ(rally().position(e.slotWord), pos) << "slot " << e.slotWord;
    }
    EXPECT_EQ(previous, writer->sequence());
    for (const auto& [slot, pos] : newest) {
      ASSERT_EQ(liveCount[slot], 1u) << "slot " << slot;
      EXPECT_EQ(rally().position(slot), pos) << "slot " << slot;
    }
    for (const auto& [slot, seq] : lastSeq) {
      EXPECT_EQ(rally().entry(rally().position(slot)).sequence, seq) << "slot " << slot;
    }
  }

  // The current queue file's header as it is in shared memory.
  RallyQueueHeader& queueHeader(EmberFile& control, EmberFile& queue) {
    auto access = EmberFile::Access::ReadWrite;
    EXPECT_TRUE(control.open(root.path(), "rally", "rally", access, false));
    const uint32_t generation = reinterpret_cast<Ledger::RallyControl*>(control.base())->generation;
    EXPECT_TRUE(
        queue.open(root.path(), "rally", Ledger::rallyQueueName(generation), access, false));
    return *reinterpret_cast<RallyQueueHeader*>(queue.base());
  }

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

TEST_F(RallyWriterQueue, RewritesWithinABatchStayLiveUntilSettled) {
  for (uint64_t id = 0; id < 10; ++id) write(id, 1);
  writer->rally().settle();
  const uint32_t settled = rally().settled();
  for (uint64_t version = 2; version < 40; ++version) write(3, version);
  EXPECT_EQ(rally().settled(), settled) << "a batch is settled only when full";
  const uint32_t slot = slotOf(writer->write(makeValue(3, 40)));
  lastSeq[slot] = writer->sequence();
  EXPECT_GT(liveEntriesOf(slot), 1u);
  expectOneLiveEntryPerSlot();
  // Batch after batch: never more than a batch waits.
  for (uint64_t round = 0; round < 3 * kSettleBatch; ++round) {
    write(round % 9, round + 50);
    ASSERT_LE(rally().count() - rally().settled(), kSettleBatch);
  }
  expectOneLiveEntryPerSlot();
}

TEST_F(RallyWriterQueue, CompactionKeepsTheLiveEntriesWithTheirSequences) {
  for (uint64_t id = 0; id < 10; ++id) write(id, 1);
  const uint32_t capacity = rally().capacity();
  // Far more rewrites than the queue holds: it must compact, more than once, each time with
  // a batch unsettled (the queue holds fewer entries than a batch).
  ASSERT_LT(capacity, kSettleBatch);
  for (uint64_t round = 0; round < 4 * capacity; ++round) {
    write(round % 7, round + 2);
    ASSERT_LE(rally().count(), capacity);
  }
  EXPECT_GE(writer->writerCounters().rallyCompactions, 2u);
  expectOneLiveEntryPerSlot();
}

TEST_F(RallyWriterQueue, GrowingPastThePositionArraySwapsInALargerOne) {
  const uint32_t slotCapacity = rally().slotCapacity();
  for (uint64_t id = 0; id < 3 * slotCapacity; ++id) write(id, 1);
  EXPECT_GT(rally().slotCapacity(), slotCapacity);
  for (uint64_t id = 0; id < 3 * slotCapacity; id += 5) write(id, 2);
  expectOneLiveEntryPerSlot();
}

TEST_F(RallyWriterQueue, DetachSettles) {
  for (uint64_t id = 0; id < 10; ++id) write(id, 1);
  for (uint64_t version = 2; version < 20; ++version) write(4, version);
  ASSERT_LT(rally().settled(), rally().count());
  writer->detach();
  EmberFile control, queue;
  const RallyQueueHeader& header = queueHeader(control, queue);
  EXPECT_EQ(header.settled, header.count);
}

// A writer that dies leaves its last batch unsettled, or is killed while settling it (its
// `settled` not yet stored), or leaves a `settled` that makes no sense: the next writer
// adopts the table as it is and settles it.
TEST_F(RallyWriterQueue, TheNextWriterSettlesWhatADeadOneLeft) {
  for (uint64_t id = 0; id < 10; ++id) write(id, 1);
  enum class Left { tail, settleCutShort, nonsense };
  uint64_t version = 100;
  for (Left left : {Left::tail, Left::settleCutShort, Left::nonsense}) {
    writer->detach();
    ForkedChild child([&](int) -> int {
      Writer dying(config);
      dying.attach();
      for (uint64_t v = 0; v < 30; ++v) dying.write(makeValue(3, version + v));
      dying.write(makeValue(50 + version, 1));
      ::_exit(0);  // without detaching: no destructor runs
    });
    ASSERT_EQ(child.wait(), 0);
    version += 100;
    {
      EmberFile control, queue;
      RallyQueueHeader& header = queueHeader(control, queue);
      ASSERT_LT(header.settled, header.count);
      if (left == Left::settleCutShort) header.settled = 0;
      if (left == Left::nonsense) header.settled = header.count + 1000;
    }
    lastSeq.clear();
    EXPECT_EQ(writer->attach(), Ledger::AttachResult::existing);
    expectOneLiveEntryPerSlot();
    TestValue v;
    ASSERT_TRUE(writer->lookup(TestKey{3}, v));
    EXPECT_EQ(v.version, version - 71);
  }
}

// A reader handed a slot from its older and from its newer entry (the batch not settled
// when it walks the queue) reports the slot's change once, with its latest value.
TEST_F(RallyWriterQueue, AReaderHandedASlotTwiceReportsItsChangeOnce) {
  Zinc::Loop loop;
  EventLog log;
  KickingWriter w(root.path(), "routes");  // kicks on flush() only
  for (uint64_t id = 0; id < 10; ++id) w.writer.write(makeValue(id, 1));
  Shadow shadow(Ledger::ReaderConfig{root.path(), "routes"}, loop, log.notifier());
  ASSERT_TRUE(shadow.initialize());
  ASSERT_TRUE(runUntil(loop, [&] { return shadow.quiesced(); }));
  ASSERT_EQ(log.adds, 10u);
  w.writer.rally().settle();
  const uint32_t settled = w.writer.rally().settled();
  for (uint64_t version = 2; version <= 100; ++version) w.writer.write(makeValue(3, version));
  for (uint64_t version = 1; version <= 5; ++version) w.writer.write(makeValue(20, version));
  ASSERT_EQ(w.writer.rally().settled(), settled) << "one batch, not settled yet";
  w.flush();
  ASSERT_TRUE(runUntil(loop, [&] { return shadow.quiesced(); }));
  EXPECT_EQ(log.changes, 1u) << "key 3, once";
  EXPECT_EQ(log.adds, 11u) << "key 20, once";
  EXPECT_EQ(log.lastVersion[3], 100u);
  EXPECT_EQ(log.lastVersion[20], 5u);
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
  EXPECT_EQ(shadowContents(shadow), w.contents());
}

}  // namespace
