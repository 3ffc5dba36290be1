// The writer's change queue as readers find it: once settled, one live entry per changed slot,
// carrying the sequence of that slot's latest change, every older entry of the slot a
// tombstone, sequences increasing with the position; across rewrites, removes, compactions of
// a full queue and the swap to a larger position array when the table grows. Before its batch
// is settled a slot may have two live entries: validate, detach and the next writer's attach
// settle, and a reader handed the slot twice reports its change once.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <map>
#include <random>
#include <sstream>

#include "ledger/tests/RallyFiles.h"
#include "ledger/tests/ShadowHarness.h"
#include "ledger/tests/SmallTable.h"
#include "platform/tests/ForkedChild.h"

namespace {

using namespace LedgerTest;
using Ledger::kSettleBatch;
using Ledger::RallyEntry;
using Ledger::RallyQueueHeader;
using TestSupport::ForkedChild;

class RallyWriterQueue : public SmallTable {
 protected:
  RallyWriterQueue() : SmallTable("rally") {}

  const Ledger::RallyWriter& rally() { return writer->rally(); }
  // Writes the value and notes its notification's sequence; returns its slot.
  uint32_t write(uint64_t id, uint64_t version) {
    const uint32_t slot = slotIndexOf(*writer, writer->write(makeValue(id, version)));
    lastSeq[slot] = writer->sequence();
    return slot;
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
      const Ledger::RallyEntry e = rally().entry(pos);
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
  // Ten keys whose entries keep their sequences (base 0), adopted by the writer after the
  // newest sequence has moved on to `headroom` short of the last offset, as if that many
  // notifications had gone to other slots since.
  void adoptWithOffsetsNearlyUsedUp(uint64_t headroom) {
    for (uint64_t id = 0; id < 10; ++id) write(id, 1);
    writer->detach();
    {
      RallyFiles files = rallyFiles();
      ASSERT_EQ(files.queue().baseSeq, 0u);
      files.control().latestSeq = Ledger::kMaxRallyOffset - headroom;
    }
    ASSERT_EQ(writer->attach(), Ledger::AttachResult::existing) << writer->validationError();
    lastSeq.clear();
  }
  // The queue files as they are in shared memory.
  RallyFiles rallyFiles() { return RallyFiles(root.path(), "rally"); }

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
  const uint32_t slot = write(3, 40);
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
  RallyFiles files = rallyFiles();
  EXPECT_EQ(files.queue().settled, files.queue().count);
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
      RallyFiles files = rallyFiles();
      RallyQueueHeader& header = files.queue();
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

// What the writer appended is what a reader of the files decodes: sequence and slot word of
// every entry, tombstones included, with the base the writer chose.
TEST_F(RallyWriterQueue, AReaderDecodesTheEntriesTheWriterAppended) {
  for (uint64_t id = 0; id < 40; ++id) write(id, 1);
  for (uint64_t round = 0; round < 300; ++round) write(round % 11, round + 2);
  writer->rally().settle();
  Ledger::RallyReader reader;
  reader.attach(root.path(), "rally", writer->emberId());
  ASSERT_EQ(reader.queueCount(), rally().count());
  EXPECT_EQ(reader.queueBaseSeq(), rally().baseSeq());
  uint32_t tombstones = 0;
  for (uint32_t pos = 0; pos < rally().count(); ++pos) {
    const RallyEntry mine = rally().entry(pos), theirs = reader.entryAt(pos);
    EXPECT_EQ(theirs.sequence, mine.sequence) << "pos " << pos;
    EXPECT_EQ(theirs.slotWord, mine.slotWord) << "pos " << pos;
    tombstones += (mine.slotWord & Ledger::kTombstone) != 0;
  }
  EXPECT_GT(tombstones, 0u);
  // The word itself: offset above, slot word below, both whole at their extremes.
  const uint64_t word =
      RallyEntry::wordOf(Ledger::kMaxRallyOffset, Ledger::kTombstone | 0x7fffffff);
  const RallyEntry e = RallyEntry::of(word, uint64_t{1} << 40);
  EXPECT_EQ(e.sequence, (uint64_t{1} << 40) + Ledger::kMaxRallyOffset);
  EXPECT_EQ(e.slotWord, 0xffffffffu);
}

// A queue adopted with its offsets nearly used up (its live entries 2^32 notifications old):
// the append that would not fit swaps first, and the swap announces those entries again
// above a new base. No offset wraps: every slot's live entry carries its latest sequence.
TEST_F(RallyWriterQueue, AnAppendThatWouldOverflowItsOffsetSwapsFirst) {
  const uint64_t headroom = 5;
  ASSERT_NO_FATAL_FAILURE(adoptWithOffsetsNearlyUsedUp(headroom));
  const uint64_t compactions = rally().compactions();
  for (uint64_t n = 0; n < headroom; ++n) write(20 + n, 1);
  EXPECT_EQ(rally().compactions(), compactions) << "the offsets still fit";
  EXPECT_EQ(rally().entry(rally().count() - 1).sequence, Ledger::kMaxRallyOffset);
  write(30, 1);
  EXPECT_EQ(rally().compactions(), compactions + 1);
  EXPECT_EQ(rally().reannounced(), 10u) << "keys 0..9, too old for the new base";
  EXPECT_GT(rally().baseSeq(), 10u);
  for (uint64_t n = 0; n < 50; ++n) write(n % 13, 100 + n);
  expectOneLiveEntryPerSlot();
  TestValue v;
  for (uint64_t id = 0; id < 10; ++id) EXPECT_TRUE(writer->lookup(TestKey{id}, v)) << id;
}

// A reservation can swap the queue too, with no write after it: the entries that the swap
// announced again are covered by the newest sequence in the control block at once, not only
// from the next write on.
TEST_F(RallyWriterQueue, EntriesAnnouncedAgainByAReservationAreCoveredAtOnce) {
  const uint64_t headroom = 5;
  ASSERT_NO_FATAL_FAILURE(adoptWithOffsetsNearlyUsedUp(headroom));
  writer->reserveChanges(headroom + 1);
  ASSERT_EQ(rally().reannounced(), 10u);
  EXPECT_EQ(rallyFiles().control().latestSeq, writer->sequence());
  EXPECT_TRUE(writer->validate()) << writer->validationError();
}

// A newest sequence that no count of notifications reaches (the fuzzer found 2^64 - 1, whose
// next append wrapped to 0) marks the control block as damaged: the writer starts a new queue
// from sequence 1 instead of adopting it, and the table stays sound.
TEST_F(RallyWriterQueue, ANewestSequenceBeyondCountingStartsTheQueueAgain) {
  for (uint64_t id = 0; id < 10; ++id) write(id, 1);
  writer->detach();
  for (uint64_t damaged : {~uint64_t{0}, Ledger::kMaxRallySeq + 1}) {
    rallyFiles().control().latestSeq = damaged;
    writer->attach();
    EXPECT_FALSE(rally().adopted()) << damaged;
    lastSeq.clear();
    for (uint64_t n = 0; n < 20; ++n) write(n % 13, 100 + n);
    EXPECT_LE(writer->sequence(), 40u) << "sequences start again from 1";
    expectOneLiveEntryPerSlot();
    TestValue v;
    for (uint64_t id = 0; id < 13; ++id) EXPECT_TRUE(writer->lookup(TestKey{id}, v)) << id;
    writer->detach();
  }
}

// The validator reads the queue as it is in shared memory: an entry whose offset is 0, two
// entries out of order, a header base or count the writer did not store, a base beyond the
// newest sequence. A writer that finds such a queue on attach does not adopt it: the table is
// recovered, every entry kept.
TEST_F(RallyWriterQueue, TheValidatorReportsCorruptEntriesAndBase) {
  for (uint64_t id = 0; id < 10; ++id) write(id, 1);
  for (uint64_t version = 2; version < 30; ++version) write(version % 10, version);
  ASSERT_TRUE(writer->validate()) << writer->validationError();
  RallyFiles files = rallyFiles();
  RallyQueueHeader& header = files.queue();
  uint64_t* entries = files.entries();
  auto corrupted = [&](auto damage, const std::string& expected) {
    const RallyQueueHeader savedHeader = header;
    const uint64_t first = entries[0], second = entries[1];
    damage();
    EXPECT_FALSE(writer->validate());
    EXPECT_NE(writer->validationError().find(expected), std::string::npos)
        << writer->validationError();
    header = savedHeader;
    entries[0] = first;
    entries[1] = second;
    EXPECT_TRUE(writer->validate()) << writer->validationError();
  };
  corrupted([&] { entries[1] = RallyEntry::wordOf(0, RallyEntry::slotWordOf(entries[1])); },
            "rally pos:1 sequence offset 0, not above base:");
  corrupted([&] { std::swap(entries[0], entries[1]); }, "rally pos:1 sequence out of order: ");
  corrupted([&] { entries[1] += uint64_t{1000} << 32; }, "rally pos:1 sequence out of order: ");
  corrupted([&] { entries[0] = RallyEntry::wordOf(RallyEntry::offsetOf(entries[0]), 5000); },
            "rally pos:0 has out of range slot: 5000");
  corrupted([&] { header.baseSeq += 7; }, "differ from the writer's count:");
  corrupted([&] { header.count -= 1; }, "differ from the writer's count:");
  // On attach: a queue whose base, or whose newest entry, is beyond the newest sequence is
  // not adopted (sequences going on from there would run back).
  auto notAdopted = [&](auto damage) {
    writer->detach();
    RallyFiles now = rallyFiles();
    damage(now);
    EXPECT_EQ(writer->attach(), Ledger::AttachResult::recovered);
    EXPECT_FALSE(rally().adopted());
    lastSeq.clear();
    expectOneLiveEntryPerSlot();
    TestValue v;
    for (uint64_t id = 0; id < 10; ++id) EXPECT_TRUE(writer->lookup(TestKey{id}, v)) << id;
  };
  notAdopted([](RallyFiles& f) { f.queue().baseSeq = f.control().latestSeq + 1; });
  notAdopted([](RallyFiles& f) {
    const uint64_t newest =
        f.queue().baseSeq + RallyEntry::offsetOf(f.entries()[f.queue().count - 1]);
    f.control().latestSeq = newest - 1;
  });
}

// Live entries older than a new queue's base are announced again with fresh sequences. A
// reader that was behind the slot's change gets it from that notification; one that already
// had it reads the slot again and reports nothing.
TEST_F(RallyWriterQueue, ReannouncedEntriesReachTheReaderBehindAndSpareTheCurrentOne) {
  constexpr uint64_t kWatched = 7;
  struct Reader {
    Zinc::Loop loop;
    EventLog log;
    uint64_t watchedEvents = 0;
    std::unique_ptr<Shadow> shadow;
    Reader(const std::string& root) {
      auto notify = log.notifier();
      notify.onKey = [this](const TestKey& k, const TestValue* v) {
        watchedEvents += k.id == kWatched;
        log.onKey(k, v);
      };
      shadow = std::make_unique<Shadow>(Ledger::ReaderConfig{root, "routes"}, loop, notify);
    }
    bool catchUp() {
      return runUntil(loop, [&] { return shadow->quiesced(); });
    }
  };
  KickingWriter w(root.path(), "routes");
  w.writer.rally().maxOffsetIs(1000);
  for (uint64_t id = 0; id < 10; ++id) w.writer.write(makeValue(id, 1));
  w.flush();
  Reader behind(root.path()), current(root.path());
  ASSERT_TRUE(behind.shadow->initialize() && current.shadow->initialize());
  ASSERT_TRUE(behind.catchUp() && current.catchUp());
  // The watched key changes once; only the current reader follows.
  w.writer.write(makeValue(kWatched, 2));
  w.flush();
  ASSERT_TRUE(current.catchUp());
  ASSERT_EQ(current.watchedEvents, 2u) << "added by the sync, then changed";
  // Churn on other keys until the watched key's entry has been announced again, and again.
  const uint64_t before = w.writer.rally().reannounced();
  for (uint64_t n = 0; w.writer.rally().reannounced() < before + 20; ++n) {
    ASSERT_LT(n, 100000u) << "entries too old for a new base were not announced again";
    w.writer.write(makeValue(n % 5, n + 10));
    if (n % 50 == 0) {
      w.flush();
      ASSERT_TRUE(current.catchUp());
    }
  }
  w.flush();
  ASSERT_TRUE(current.catchUp() && behind.catchUp());
  EXPECT_EQ(behind.shadow->resyncs(), 0u) << "the reader behind followed the queue";
  EXPECT_EQ(behind.log.lastVersion[kWatched], 2u) << "from the new announcement";
  EXPECT_EQ(behind.watchedEvents, 2u);
  EXPECT_EQ(current.watchedEvents, 2u) << "a notification without a change reports nothing";
  for (Reader* r : {&behind, &current}) {
    EXPECT_TRUE(r->log.errors.empty()) << r->log.errors.front();
    EXPECT_EQ(shadowContents(*r->shadow), w.contents());
  }
  EXPECT_TRUE(w.writer.validate()) << w.writer.validationError();
}

// A reader in a process of its own follows a writer whose queue is based anew at almost every
// compaction (a small offset limit), with keys that stay untouched long enough to be announced
// again and again: its shadow ends equal to the writer's table, each change told once, and it
// never needs a resync.
TEST(RallyAcrossProcesses, AReaderFollowsAcrossRebases) {
  constexpr uint64_t kKeys = 300, kQuiet = 1000, kQuietKeys = 50, kSentinel = 99999;
  TempRoot root;
  KickingWriter w(root.path(), "routes");
  w.writer.rally().maxOffsetIs(4096);
  for (uint64_t id = kQuiet; id < kQuiet + kQuietKeys; ++id) w.writer.write(makeValue(id, 1));
  w.flush();
  ForkedChild reader([&](int fd) -> int {
    Zinc::Loop loop;
    EventLog log;
    Shadow shadow(Ledger::ReaderConfig{root.path(), "routes"}, loop, log.notifier());
    if (!shadow.initialize() || !runUntil(loop, [&] { return shadow.quiesced(); })) return 2;
    if (::write(fd, "ready\n", 6) != 6) return 4;
    auto done = [&] { return shadow.quiesced() && shadow.store().contains(TestKey{kSentinel}); };
    if (!runUntil(loop, done, std::chrono::seconds(120))) return 3;
    std::ostringstream out;
    for (auto [k, v] : shadowContents(shadow)) out << k << " " << v << "\n";
    for (const auto& e : log.errors) out << "error: " << e << "\n";
    if (log.present != shadowContents(shadow)) out << "error: events differ from the shadow\n";
    out << "resyncs " << shadow.resyncs() << "\n";
    const std::string text = out.str();
    return ::write(fd, text.data(), text.size()) == ssize_t(text.size()) ? 0 : 4;
  });
  std::string report;
  while (report.find("ready") == std::string::npos) {
    ASSERT_TRUE(reader.poll(report)) << "the reader ended before it was in step";
    ::usleep(1000);
  }
  std::mt19937_64 rng(7);
  std::map<uint64_t, uint64_t> version;
  for (uint64_t op = 1; op <= 40000; ++op) {
    const uint64_t id = rng() % kKeys;
    if (rng() % 4 == 0) {
      w.writer.remove(TestKey{id});
    } else {
      w.writer.write(makeValue(id, ++version[id]));
    }
    if (op % 64 == 0) w.flush();
    if (op % 2000 == 0) ::usleep(1000);  // a moment for the reader to walk part of the way
  }
  w.writer.write(makeValue(kSentinel, 1));
  w.flush();
  EXPECT_GT(w.writer.rally().reannounced(), 2 * kQuietKeys);
  std::istringstream lines(report + reader.readAll());
  ASSERT_EQ(reader.wait(), 0);
  std::map<uint64_t, uint64_t> seen;
  std::string first, second;
  while (lines >> first) {
    std::getline(lines, second);
    if (first == "error:") ADD_FAILURE() << "reader: " << second;
    if (first == "resyncs") {
      EXPECT_EQ(std::stoul(second), 0u);
    }
    if (std::isdigit(first[0])) seen[std::stoull(first)] = std::stoull(second);
  }
  EXPECT_EQ(seen, w.contents());
  EXPECT_TRUE(w.writer.validate()) << w.writer.validationError();
}

}  // namespace
