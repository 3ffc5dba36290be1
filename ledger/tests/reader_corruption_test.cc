// Readers of a table that a faulty writer (or stray bytes) corrupts while they follow it. A
// shadow whose change queue or files went bad says what it met, re-synchronises from the
// slots (or mounts again once the files are whole) and ends equal to the table; it never
// consumes an entry it cannot trust, nor crashes, nor spins. A direct reader reports what it
// cannot trust without waiting for it again and again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ledger/tests/DecodingOps.h"
#include "ledger/tests/RallyFiles.h"
#include "ledger/tests/ShadowHarness.h"
#include "platform/shm/MappingGuard.h"
#include "zinc/tests/TestSupport.h"

namespace {

using namespace LedgerTest;
using SharedMem::EmberFile;

struct LiveCorruption : ::testing::Test {
  TempRoot root;
  Zinc::Loop loop;
  EventLog log;
  KickingWriter w{root.path(), "routes", 64};  // kicks only on flush()
  std::unique_ptr<Shadow> shadow;
  ZincTest::TraceCapture trace{"LedgerShadow/0-1,RallyReader/0-1"};
  RallyFiles rally{root.path(), "routes"};

  void SetUp() override {
    for (uint64_t id = 0; id < 40; ++id) w.writer.write(makeValue(id, 1));
    mountShadow(std::chrono::milliseconds(5));
  }
  // A new shadow in step with the table, looking at its files every `healthCheck`.
  void mountShadow(std::chrono::milliseconds healthCheck) {
    Ledger::ShadowOptions options;
    options.mountRetry = std::chrono::milliseconds(5);
    options.healthCheck = healthCheck;
    shadow.reset();
    log = EventLog();
    shadow = std::make_unique<Shadow>(Ledger::ReaderConfig{root.path(), "routes"}, loop,
                                      log.notifier(), Ledger::Ops<TestKey, TestValue>(), options);
    ASSERT_TRUE(shadow->initialize());
    ASSERT_TRUE(runUntil(loop, [&] { return shadow->quiesced(); }));
    ASSERT_EQ(shadow->resyncs(), 0u);
    trace.clear();
  }

  // After a writer seemed to re-attach, the table's files could not be mapped again: the
  // shadow unmounts and keeps trying, until `repair` makes them whole.
  template <class Repair>
  void expectRemountedOnceWhole(Repair repair) {
    ASSERT_TRUE(
        runUntil(loop, [&] { return trace.has("LedgerShadow::resync() cannot re-map: "); }));
    EXPECT_EQ(shadow->state(), Ledger::ShadowState::detached);
    EXPECT_TRUE(trace.has("ReaderMounter::timeout() start retrying to mount routes"));
    loop.runFor(std::chrono::milliseconds(30));  // a few tries of the mounter
    EXPECT_FALSE(shadow->quiesced());
    repair();
    ASSERT_TRUE(
        runUntil(loop, [&] { return trace.has("LedgerShadow::initialize() attached routes"); }));
    expectEqualAfterChanges();
  }
  // The control block names a next queue generation whose file `shape` made: it is not that
  // generation's whole queue. The reader reads none of it and reports `report`; once the
  // control block names a whole queue again, the shadow re-synchronises.
  template <class Shape>
  void expectForgedQueueRefused(const std::string& report, Shape shape) {
    std::vector<std::string> reported;
    shadow->corruptionHandlerIs([&](const std::string& why) { reported.push_back(why); });
    const uint32_t generation = rally.control().generation;
    EmberFile next;
    ASSERT_TRUE(next.open(root.path(), "routes", Ledger::rallyQueueName(generation + 1),
                          EmberFile::Access::ReadWrite, true));
    shape(next, generation + 1);
    rally.control().generation = generation + 1;
    kick();
    ASSERT_TRUE(runUntil(loop, [&] { return !reported.empty(); }));
    EXPECT_THAT(reported.front(), ::testing::HasSubstr(report));
    rally.control().generation = generation;
    expectResyncedAndEqual("LedgerShadow::resync()");
  }
  // Tells the shadow that something was committed, without a change.
  void kick() {
    w.kicker->commitNotify();
    w.flush();
  }
  // The shadow, kicked after each change of the writer, re-synchronises and ends equal to it.
  void expectResyncedAndEqual(const std::string& message) {
    ASSERT_TRUE(runUntil(loop, [&] { return trace.has(message) && shadow->resyncs() > 0; }))
        << message;
    expectEqualAfterChanges();
  }
  // The shadow follows the writer's next changes and ends equal to its table.
  void expectEqualAfterChanges() {
    w.writer.write(makeValue(1000, 1));
    w.writer.write(makeValue(3, 2));
    w.writer.remove(TestKey{4});
    w.flush();
    ASSERT_TRUE(runUntil(loop, [&] { return shadow->quiesced(); }));
    EXPECT_EQ(shadowContents(*shadow), w.contents());
    EXPECT_EQ(log.present, w.contents());
    EXPECT_TRUE(log.errors.empty()) << log.errors.front();
  }
};

// The queue's count went below where the shadow stands: the entries it consumed are gone.
TEST_F(LiveCorruption, ACountBelowTheReadersPlaceMakesItResync) {
  rally.queue().count -= 3;
  kick();
  expectResyncedAndEqual("RallyReader::doRally() unexpected position in generation:");
}

// The entry just behind the shadow's place now carries a sequence the shadow never consumed:
// the queue under it is not the one it walked.
TEST_F(LiveCorruption, AnEntryBehindTheReadersPlaceThatChangedMakesItResync) {
  uint64_t& word = rally.entries()[w.writer.rally().count() - 1];
  const uint64_t whole = word;
  word = Ledger::RallyEntry::wordOf(Ledger::RallyEntry::offsetOf(whole) + 5, uint32_t(whole));
  kick();
  ASSERT_TRUE(runUntil(loop, [&] {
    return trace.has("RallyReader::doRally() unexpected position in generation:") &&
           shadow->resyncs() > 0;
  }));
  word = whole;
  expectEqualAfterChanges();
}

// An entry ahead of the shadow carries a sequence it has passed already (the first one), or
// the very one it consumed last.
TEST_F(LiveCorruption, AnEntryWhoseSequenceWentBackMakesItResync) {
  for (const bool repeatLast : {false, true}) {
    SCOPED_TRACE(repeatLast ? "the last sequence consumed" : "the first sequence");
    const uint64_t consumed =
        Ledger::RallyEntry::offsetOf(rally.entries()[w.writer.rally().count() - 1]);
    const uint64_t resyncs = shadow->resyncs();
    trace.clear();
    w.writer.write(makeValue(5, repeatLast ? 3 : 2));
    uint64_t& word = rally.entries()[w.writer.rally().count() - 1];
    word = Ledger::RallyEntry::wordOf(repeatLast ? consumed : 1, uint32_t(word));
    w.flush();
    ASSERT_TRUE(runUntil(loop, [&] {
      return trace.has("RallyReader::doRally() unexpected sequence in generation:") &&
             shadow->resyncs() > resyncs;
    }));
    expectEqualAfterChanges();
  }
}

// A new writer took the table over (a new incarnation) and may have repaired slots without
// telling of them: the shadow is not quiesced, and its next kick, before any look at the
// files, has it synchronise again.
TEST_F(LiveCorruption, ANewWriterIncarnationIsSeenOnTheNextKick) {
  mountShadow(std::chrono::hours(1));
  ++rally.control().incarnation;
  EXPECT_FALSE(shadow->quiesced());
  kick();
  ASSERT_TRUE(runUntil(loop, [&] { return shadow->resyncs() > 0; }));
  EXPECT_TRUE(trace.has("re-synchronizing local shadow routes: rally queue"));
  expectEqualAfterChanges();
}

// A count beyond the queue's capacity would have the reader walk off the end of the file. It
// is corruption, told to the shadow's handler.
TEST_F(LiveCorruption, ACountBeyondTheCapacityIsCorruptionNotARead) {
  std::vector<std::string> reported;
  shadow->corruptionHandlerIs([&](const std::string& why) { reported.push_back(why); });
  rally.queue().count = rally.queue().capacity + 1;
  kick();
  ASSERT_TRUE(runUntil(loop, [&] { return !reported.empty(); }));
  EXPECT_THAT(reported.front(),
              ::testing::HasSubstr("RallyReader::doRally() unexpected position in queue count:"));
  expectResyncedAndEqual(
      "RallyReader::handleAck() corruption detected: RallyReader::doRally() "
      "unexpected position in queue count:");
}

// While the table stays broken, the shadow keeps one retry armed, not one more each time it
// looks at the files: its retries do not multiply, and none is left when it goes.
TEST_F(LiveCorruption, ATableThatStaysBrokenIsRetriedByOneTimerAtATime) {
  const size_t timers = loop.timerCount();
  int reports = 0;
  shadow->corruptionHandlerIs([&](const std::string&) { ++reports; });
  rally.queue().count = rally.queue().capacity + 1;
  kick();
  ASSERT_TRUE(runUntil(loop, [&] { return reports >= 20; }));
  EXPECT_LE(loop.timerCount(), timers + 1);
  shadow.reset();
  EXPECT_EQ(loop.timerCount(), timers - 1) << "the health check's timer went with the shadow";
}

// A key leaves its slot while the chain it would be found in loops: the shadow cannot follow
// it, and no longer holds it. It is told gone, and once the chain is whole again the shadow
// and what its notifiee was told end equal to the writer's table.
TEST_F(LiveCorruption, AKeyThatCannotBeFollowedIsToldGone) {
  // `gone` shares its bucket with `first`, which comes before it in the chain.
  const uint32_t buckets = w.writer.numBuckets();
  const auto pair = LedgerTest::twoKeysOfOneBucket(buckets, 40);
  ASSERT_TRUE(pair) << "two of 40 keys share one of " << buckets << " buckets";
  const auto [first, gone] = *pair;
  w.writer.remove(TestKey{gone});
  auto& slots = w.writer.slotTable();
  uint32_t at = 0;
  while (at < slots.numSlots() &&
         !((slots.slot(at).status & Ledger::kOccupied) &&
           reinterpret_cast<const TestValue*>(slots.value(at))->k.id == first)) {
    ++at;
  }
  ASSERT_LT(at, slots.numSlots());
  uint64_t& link = slots.slot(at).linkPair;
  const uint64_t whole = link;
  link = Ledger::packLink(Ledger::generationOf(whole) + 4, at);  // the chain loops at `first`
  w.flush();
  ASSERT_TRUE(runUntil(loop, [&] { return log.deletes == 1; })) << "key " << gone << " told gone";
  EXPECT_TRUE(trace.has("hash chain cycle detected"));
  link = Ledger::packLink(Ledger::generationOf(whole) + 8, Ledger::linkOf(whole));
  ASSERT_TRUE(runUntil(loop, [&] { return shadow->quiesced() && shadow->resyncs() > 0; }));
  EXPECT_EQ(shadowContents(*shadow), w.contents());
  EXPECT_EQ(log.present, w.contents());
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

// The control block names a queue generation that has no file. Named as by a swap, the reader
// cannot follow it and says so; named as by a new writer (a new incarnation), the shadow
// cannot map the queue again and waits without it. Once the file is there, it re-synchronises.
TEST_F(LiveCorruption, AGenerationWithoutAFileIsReportedAndOutlived) {
  const uint32_t generation = rally.control().generation;
  rally.control().generation = generation + 7;
  kick();
  ASSERT_TRUE(runUntil(loop, [&] { return shadow->resyncs() > 0; }));
  EXPECT_TRUE(trace.has("RallyReader::findPosition() rallySwapped again"));
  ++rally.control().incarnation;
  expectRemountedOnceWhole([&] { rally.control().generation = generation; });
}

// A file shorter than its header says (a writer makes a file whole before it names it).
TEST_F(LiveCorruption, AQueueFileShorterThanItsHeaderSaysIsReportedNotRead) {
  expectForgedQueueRefused(
      "RallyReader::doResize() failed to resize ", [&](EmberFile& next, uint32_t generation) {
        ASSERT_TRUE(next.resize(4096));
        auto& header = *reinterpret_cast<Ledger::RallyQueueHeader*>(next.base());
        header = rally.queue();
        header.generation = generation;
        header.capacity = 1u << 20;  // 8 MB of entries in a 4 KB file
      });
}

// A whole copy of the current queue, its header still naming its own generation: a stale or
// stray file under the new name is not taken for the named queue.
TEST_F(LiveCorruption, AQueueFileOfAnotherGenerationIsNotTaken) {
  expectForgedQueueRefused(
      "RallyReader::findPosition() rallySwapped again, generation:",
      [&](EmberFile& next, uint32_t) {
        EmberFile current;
        ASSERT_TRUE(current.open(root.path(), "routes",
                                 Ledger::rallyQueueName(rally.control().generation),
                                 EmberFile::Access::ReadOnly, false));
        ASSERT_TRUE(next.resize(current.size()));
        std::memcpy(next.base(), current.base(), current.size());
      });
}

// A new writer's slot or bucket file whose header does not validate: the shadow maps none of
// the table's files (not the slots without the buckets), and mounts again once they are whole.
TEST_F(LiveCorruption, FilesThatCannotBeMappedAgainAreWaitedOut) {
  for (const char* file : {"buckets", "slots"}) {
    SCOPED_TRACE(file);
    EmberFile f;
    ASSERT_TRUE(f.open(root.path(), "routes", file, EmberFile::Access::ReadWrite, false));
    f.base()[0] ^= 0xff;  // the magic
    ++rally.control().incarnation;
    kick();
    expectRemountedOnceWhole([&] { f.base()[0] ^= 0xff; });
    trace.clear();
  }
}

// The writer's newest sequence went below what the shadow consumed: not quiesced, not a crash;
// the next notification puts the sequence right again.
TEST_F(LiveCorruption, ANewestSequenceBelowTheReadersIsNotQuiesced) {
  const uint64_t latest = rally.control().latestSeq;
  rally.control().latestSeq = latest - 5;
  EXPECT_FALSE(shadow->quiesced());
  EXPECT_TRUE(trace.has("RallyReader::quiesced() latest notification out-of-range"));
  w.writer.write(makeValue(6, 2));
  w.flush();
  ASSERT_TRUE(runUntil(loop, [&] { return shadow->quiesced(); }));
  EXPECT_EQ(shadowContents(*shadow), w.contents());
  EXPECT_EQ(shadow->resyncs(), 0u);
}

// A slot index far beyond the file, in a table whose header claims as many slots: the shadow
// does not size itself by the header's word before reading the slot.
TEST_F(LiveCorruption, ASlotFarBeyondTheFileDoesNotSizeTheShadow) {
  w.writer.write(makeValue(5, 2));
  uint64_t& word = rally.entries()[w.writer.rally().count() - 1];
  const uint64_t offset = word >> 32;
  word = offset << 32 | 0x7ffffff0u;
  EmberFile slots;
  ASSERT_TRUE(slots.open(root.path(), "routes", "slots", EmberFile::Access::ReadWrite, false));
  auto& header = *reinterpret_cast<Ledger::SlotTableHeader*>(slots.base());
  const uint32_t numSlots = header.numSlots;
  header.numSlots = 0x7fffffffu;
  w.flush();
  ASSERT_TRUE(runUntil(loop, [&] { return shadow->resyncs() > 0; }));
  EXPECT_LT(shadow->store().numSlots(), 1u << 20);
  header.numSlots = numSlots;
  expectResyncedAndEqual("LedgerShadow::resync()");
}

// A writer that died while redistributing the bucket chains leaves resizeSeq odd. A lookup
// that would need it settled waits for it a while, then reports it; the lookups after it
// report it at once instead of each waiting again, until resizeSeq moves.
TEST_F(LiveCorruption, ABucketResizeThatNeverEndsIsWaitedForOnce) {
  EmberFile buckets;
  ASSERT_TRUE(buckets.open(root.path(), "routes", "buckets", EmberFile::Access::ReadWrite, false));
  auto& header = *reinterpret_cast<Ledger::BucketTableHeader*>(buckets.base());
  const uint32_t settled = header.resizeSeq;
  header.resizeSeq = settled | 1;
  Ledger::LedgerReader<TestKey, TestValue> reader(
      Ledger::ReaderConfig{root.path(), "routes", std::chrono::milliseconds(50)});
  ASSERT_TRUE(reader.initialize());
  TestValue v;
  auto miss = [&](uint64_t id) {
    return ZincTest::failureOf<Ledger::CorruptionException>([&] { reader.lookup(TestKey{id}, v); });
  };
  const auto neverCompleted = ::testing::HasSubstr("bucket resize never completed");
  EXPECT_THAT(miss(900), neverCompleted);
  const uint64_t retries = reader.readerCounters().retries;
  EXPECT_GT(retries, 0u) << "the first lookup waited";
  EXPECT_THAT(miss(901), neverCompleted);
  EXPECT_THAT(miss(902), neverCompleted);
  EXPECT_EQ(reader.readerCounters().retries, retries) << "the next ones did not";
  header.resizeSeq = settled + 2;  // the next writer finished it
  EXPECT_FALSE(reader.lookup(TestKey{900}, v));
  EXPECT_TRUE(reader.lookup(TestKey{3}, v));
  EXPECT_EQ(v, makeValue(3, 1));
}

// The queue's sizes are read once, when its file is mapped and checked against them. A header
// that says more afterwards (no writer does: it swaps in a new file) moves no bound of the
// reader past its mapping.
TEST_F(LiveCorruption, TheQueueSizesAreTheOnesItsMappingWasCheckedAgainst) {
  w.writer.rally().settle();  // positions recorded
  Ledger::RallyReader reader;
  reader.attach(root.path(), "routes", w.writer.emberId());
  const uint32_t slots = reader.slotCapacity(), entries = reader.queueCapacity();
  rally.queue().slotCapacity = Ledger::kMaxSlots;
  rally.queue().capacity = 0xffffffffu;
  EXPECT_EQ(reader.slotCapacity(), slots);
  EXPECT_EQ(reader.queueCapacity(), entries);
  EXPECT_EQ(reader.positionOf(Ledger::kMaxSlots - 1), Ledger::kNoPosition);
  EXPECT_EQ(reader.positionOf(slots - 1), Ledger::kNoPosition) << "a slot never written";
  EXPECT_NE(reader.positionOf(0), Ledger::kNoPosition);
}

// Another process cuts the slot file short under a reader (no writer does: it keeps its files'
// length). The pages beyond the new end read as zeros: slots that held entries are empty or
// corrupt to the reader, which says so, and nothing ends its process.
TEST(CutFile, ASlotFileCutShortUnderAReaderReadsAsEmptied) {
  TempRoot root;
  Ledger::LedgerReader<TestKey, TestValue> reader(Ledger::ReaderConfig{root.path(), "routes"});
  {
    Writer w(tableConfig(root.path(), "routes", 4096));
    w.attach();
    for (uint64_t id = 0; id < 2000; ++id) w.write(makeValue(id, 1));
    ASSERT_TRUE(reader.initialize());
  }
  const uint64_t before = SharedMem::MappingGuard::pagesZeroed();
  ASSERT_EQ(::truncate(root.file("routes", "slots").c_str(), ::sysconf(_SC_PAGESIZE)), 0);
  uint32_t found = 0, corrupt = 0;
  TestValue v;
  for (uint64_t id = 0; id < 2000; ++id) {
    try {
      found += reader.lookup(TestKey{id}, v);
    } catch (const Ledger::CorruptionException&) {
      ++corrupt;
    }
  }
  EXPECT_LT(found, 100u) << "what was in the first page only";
  EXPECT_GT(corrupt, 0u) << "chains that lead into zeros are reported";
  EXPECT_GT(SharedMem::MappingGuard::pagesZeroed(), before);
}

// The slot file cut inside its header, inside the look-aside slot, or in the middle of a slot
// of the array. The reader's re-map after the corruption it meets keeps only what the new
// length holds whole (nothing at all when the header is cut): each lookup reports corruption
// or misses, none crashes or reads past the file. Once a writer makes the table anew, the
// reader mounts it again and finds every key.
TEST(CutFile, ASlotFileCutInsideItsHeaderOrASlotLeavesNothingBeyondTheCutMapped) {
  constexpr uint64_t kKeys = 2000;
  auto fill = [](const std::string& root) {
    Writer w(tableConfig(root, "routes", 4096));
    w.attach();
    for (uint64_t id = 0; id < kKeys; ++id) w.write(makeValue(id, 1));
  };
  const uint64_t slot = Ledger::slotSizeFor(sizeof(TestValue));
  const uint64_t header = Ledger::kSlotTableHeaderSize;
  const uint64_t wholeSlots = 500;
  for (const uint64_t length : {uint64_t{0}, uint64_t{100}, header + slot / 2,
                                header + (wholeSlots + 1) * slot + slot / 2}) {
    SCOPED_TRACE("cut to " + std::to_string(length) + " bytes");
    TempRoot root;
    ZincTest::TraceCapture trace{"SlotReaderTable/0"};
    fill(root.path());
    Ledger::LedgerReader<TestKey, TestValue> reader(Ledger::ReaderConfig{root.path(), "routes"});
    uint32_t reported = 0;
    reader.corruptionHandlerIs([&](const std::string&) { ++reported; });
    ASSERT_TRUE(reader.initialize());
    ASSERT_EQ(reader.slotTable().slotSize(), slot);
    ASSERT_EQ(::truncate(root.file("routes", "slots").c_str(), off_t(length)), 0);
    const Ledger::SlotReaderTable& table = reader.slotTable();
    for (int round = 1; round <= 2; ++round) {
      uint32_t found = 0;
      TestValue v;
      for (uint64_t id = 0; id < kKeys; ++id) found += reader.lookup(TestKey{id}, v);
      EXPECT_LE(found, wholeSlots) << "round " << round;
      EXPECT_GT(reported, 0u) << "round " << round;
      EXPECT_LE(header + (table.mappedSlots() + uint64_t{1}) * slot,
                std::max(length, header + slot))
          << "slots mapped beyond the file, round " << round;
    }
    if (length < header + slot) {
      EXPECT_TRUE(trace.has("SlotReader::doResize() failed to resize " +
                            root.file("routes", "slots") + ": file cut to " +
                            std::to_string(length) + " bytes"));
      EXPECT_EQ(table.mappedSlots(), 0u);
      EXPECT_EQ(table.numSlots(), 0u);
      EXPECT_EQ(table.occupiedSlots(), 0u);
      EXPECT_EQ(table.mappedSize(), 0u);
      EXPECT_EQ(table.header().emberId, 0u) << "no longer the table it attached to";
    } else {
      EXPECT_EQ(table.mappedSlots(), wholeSlots);
    }
    ASSERT_TRUE(EmberFile::removeTable(root.path(), "routes"));
    fill(root.path());
    ASSERT_TRUE(reader.initialize());
    uint32_t found = 0;
    TestValue v;
    for (uint64_t id = 0; id < kKeys; ++id) found += reader.lookup(TestKey{id}, v);
    EXPECT_EQ(found, kKeys) << "mounted again on the new table";
  }
}

// A lookup decodes a slot in place, before it checks that the slot held still. Bytes that a
// rewrite tore on the way may not decode: the lookup reads the slot again and finds the new
// value, with no report. Bytes that held still and do not decode are reported, and the key
// reads as absent; the keys around it read as ever.
// A writer of keys [0, 20) and a reader whose decoding checks what it reads.
struct UndecodableEntry : ::testing::Test {
  void SetUp() override {
    w.attach();
    for (uint64_t id = 0; id < 20; ++id) w.write(makeValue(id, 1));
    ASSERT_TRUE(reader.initialize());
  }
  TempRoot root;
  Writer w{tableConfig(root.path(), "routes", 64)};
  Ledger::LedgerReader<TestKey, TestValue, DecodingOps> reader{
      Ledger::ReaderConfig{root.path(), "routes"}};
};

TEST_F(UndecodableEntry, OnlyBytesThatHeldStillAreReported) {
  std::vector<std::string> reported;
  reader.corruptionHandlerIs([&](const std::string& why) { reported.push_back(why); });
  TestValue v;
  for (uint64_t id : {3u, 11u}) {
    nextTear() = {reader.slotTable().value(reader.findSlot(TestKey{id})),
                  [this, id] { w.write(makeValue(id, 2)); }};
    EXPECT_TRUE(reader.lookup(TestKey{id}, v)) << "key " << id;
    EXPECT_FALSE(nextTear().rewrite) << "key " << id << ": the lookup met the rewrite";
    EXPECT_EQ(v, makeValue(id, 2));
  }
  nextTear() = {};
  EXPECT_TRUE(reported.empty()) << reported.front();

  const uint32_t slot = reader.findSlot(TestKey{5});
  ASSERT_NE(slot, Ledger::kNoSlot);
  spoil(w.slotTable().value(slot));
  EXPECT_FALSE(reader.lookup(TestKey{5}, v));
  ASSERT_EQ(reported.size(), 1u);
  EXPECT_THAT(reported.front(), ::testing::HasSubstr("DecodingOps: no such version"));
  EXPECT_EQ(reader.findSlot(TestKey{5}), slot) << "its key decodes: the entry is found, not read";
  for (uint64_t id : {4u, 6u}) {
    EXPECT_TRUE(reader.lookup(TestKey{id}, v)) << "key " << id;
    EXPECT_EQ(v, makeValue(id, 1));
  }
}

// A rewrite that begins while a lookup reads the slot in place (LOOKASIDE set, the value half
// written) and decodes fine: the lookup sees the slot's status move and reads it again,
// from the look-aside copy, instead of answering with the half-written bytes.
TEST_F(UndecodableEntry, ALookupThatReadASlotMidRewriteReadsItAgain) {
  TestValue* open = nullptr;
  nextTear() = {reader.slotTable().value(reader.findSlot(TestKey{7})),
                [&] {
                  open = w.directUpdate(TestKey{7});
                  open->version = 2;  // half-written: payload and check still old
                },
                false};
  TestValue v;
  ASSERT_TRUE(reader.lookup(TestKey{7}, v));
  ASSERT_NE(open, nullptr) << "the lookup met the rewrite";
  EXPECT_EQ(v, makeValue(7, 1));
  *open = makeValue(7, 2);
  w.directCommit();
  ASSERT_TRUE(reader.lookup(TestKey{7}, v));
  EXPECT_EQ(v, makeValue(7, 2));
}

// A walk passes over an entry that does not decode: reported once, and the walk goes on after
// it, with a hint or without. Without a handler the walk throws it instead.
TEST_F(UndecodableEntry, AWalkPassesOverIt) {
  TestValue v;
  std::vector<uint64_t> order;
  for (bool more = reader.first(v); more; more = reader.next(v.k, v)) order.push_back(v.k.id);
  ASSERT_EQ(order.size(), 20u);
  for (uint64_t bad : {order.front(), order[7], order.back()}) {
    spoil(w.slotTable().value(reader.findSlot(TestKey{bad})));
  }
  EXPECT_THAT(ZincTest::failureOf([&] {
                for (bool more = reader.first(v); more; more = reader.next(v.k, v)) {
                }
              }),
              ::testing::HasSubstr("holds an entry that does not decode"));

  std::vector<std::string> reported;
  reader.corruptionHandlerIs([&](const std::string& why) { reported.push_back(why); });
  std::vector<uint64_t> expected = order;
  std::erase_if(expected, [&](uint64_t id) {
    return id == order.front() || id == order[7] || id == order.back();
  });
  for (bool hinted : {false, true}) {
    reported.clear();
    std::vector<uint64_t> walked;
    uint32_t hint = Ledger::kNoSlot;
    for (bool more = reader.first(v); more; more = reader.next(v.k, v, hinted ? &hint : nullptr)) {
      walked.push_back(v.k.id);
    }
    EXPECT_EQ(walked, expected) << (hinted ? "with a hint" : "without a hint");
    ASSERT_EQ(reported.size(), 3u);
    EXPECT_THAT(reported.front(), ::testing::HasSubstr("DecodingOps: no such version"));
  }
}

}  // namespace
