// Readers of a table that a faulty writer (or stray bytes) corrupts while they follow it. A
// shadow whose change queue or files went bad says what it met, re-synchronises from the
// slots (or mounts again once the files are whole) and ends equal to the table; it never
// consumes an entry it cannot trust, nor crashes, nor spins. A direct reader reports what it
// cannot trust without waiting for it again and again.
#include <gtest/gtest.h>

#include <algorithm>

#include "ledger/tests/ShadowHarness.h"

namespace {

using namespace LedgerTest;
using Ledger::RallyControl;
using Ledger::RallyQueueHeader;
using SharedMem::EmberFile;

struct LiveCorruption : ::testing::Test {
  TempRoot root;
  Zinc::Loop loop;
  EventLog log;
  KickingWriter w{root.path(), "routes", 64};  // kicks only on flush()
  std::unique_ptr<Shadow> shadow;
  std::vector<std::string> traced;

  void SetUp() override {
    Zinc::Trace::configure("LedgerShadow/0-1,RallyReader/0-1");
    Zinc::Trace::sinkIs(
        [this](const Zinc::Trace&, int, std::string_view text) { traced.emplace_back(text); });
    for (uint64_t id = 0; id < 40; ++id) w.writer.write(makeValue(id, 1));
    Ledger::ShadowOptions options;
    options.mountRetry = std::chrono::milliseconds(5);
    options.healthCheck = std::chrono::milliseconds(5);
    shadow = std::make_unique<Shadow>(Ledger::ReaderConfig{root.path(), "routes"}, loop,
                                      log.notifier(), Ledger::Ops<TestKey, TestValue>(), options);
    ASSERT_TRUE(shadow->initialize());
    ASSERT_TRUE(runUntil(loop, [&] { return shadow->quiesced(); }));
    ASSERT_EQ(shadow->resyncs(), 0u);
    traced.clear();
  }
  void TearDown() override {
    Zinc::Trace::sinkIs({});
    Zinc::Trace::configure("");
  }

  RallyControl& control() {
    if (!controlFile_.base()) {
      EXPECT_TRUE(
          controlFile_.open(root.path(), "routes", "rally", EmberFile::Access::ReadWrite, false));
    }
    return *reinterpret_cast<RallyControl*>(controlFile_.base());
  }
  // The queue file the writer uses now, writable.
  RallyQueueHeader& queue() {
    if (!queueFile_.base()) {
      EXPECT_TRUE(queueFile_.open(root.path(), "routes",
                                  Ledger::rallyQueueName(control().generation),
                                  EmberFile::Access::ReadWrite, false));
    }
    return *reinterpret_cast<RallyQueueHeader*>(queueFile_.base());
  }
  uint64_t& entry(uint32_t pos) {
    RallyQueueHeader& q = queue();
    return reinterpret_cast<uint64_t*>(queueFile_.base() +
                                       Ledger::rallyEntriesOffset(q.slotCapacity))[pos];
  }
  bool saw(const std::string& text) const {
    return std::any_of(traced.begin(), traced.end(),
                       [&](const std::string& line) { return line.find(text) != line.npos; });
  }
  // After a writer seemed to re-attach, the table's files could not be mapped again: the
  // shadow unmounts and keeps trying, until `repair` makes them whole.
  template <class Repair>
  void expectRemountedOnceWhole(Repair repair) {
    ASSERT_TRUE(runUntil(loop, [&] { return saw("LedgerShadow::resync() cannot re-map: "); }));
    EXPECT_EQ(shadow->state(), Ledger::ShadowState::detached);
    EXPECT_TRUE(saw("ReaderMounter::timeout() start retrying to mount routes"));
    loop.runFor(std::chrono::milliseconds(30));  // a few tries of the mounter
    EXPECT_FALSE(shadow->quiesced());
    repair();
    ASSERT_TRUE(runUntil(loop, [&] { return saw("LedgerShadow::initialize() attached routes"); }));
    expectEqualAfterChanges();
  }
  // Tells the shadow that something was committed, without a change.
  void kick() {
    w.kicker->commitNotify();
    w.flush();
  }
  // The shadow, kicked after each change of the writer, re-synchronises and ends equal to it.
  void expectResyncedAndEqual(const std::string& message) {
    ASSERT_TRUE(runUntil(loop, [&] { return saw(message) && shadow->resyncs() > 0; })) << message;
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

 private:
  EmberFile controlFile_;
  EmberFile queueFile_;
};

// The queue's count went below where the shadow stands: the entries it consumed are gone.
TEST_F(LiveCorruption, ACountBelowTheReadersPlaceMakesItResync) {
  queue().count -= 3;
  kick();
  expectResyncedAndEqual("RallyReader::doRally() unexpected position in generation:");
}

// An entry ahead of the shadow carries a sequence it has passed already.
TEST_F(LiveCorruption, AnEntryWhoseSequenceWentBackMakesItResync) {
  w.writer.write(makeValue(5, 2));
  const uint32_t pos = w.writer.rally().count() - 1;
  uint64_t& word = entry(pos);
  word = Ledger::RallyEntry::wordOf(1, uint32_t(word));  // offset 1: the first sequence
  w.flush();
  expectResyncedAndEqual("RallyReader::doRally() unexpected sequence in generation:");
}

// A count beyond the queue's capacity would have the reader walk off the end of the file.
TEST_F(LiveCorruption, ACountBeyondTheCapacityIsCorruptionNotARead) {
  queue().count = queue().capacity + 1;
  kick();
  expectResyncedAndEqual(
      "RallyReader::handleAck() corruption detected: RallyReader::doRally() "
      "unexpected position in queue count:");
}

// The control block names a queue generation that has no file. Named as by a swap, the reader
// cannot follow it and says so; named as by a new writer (a new incarnation), the shadow
// cannot map the queue again and waits without it. Once the file is there, it re-synchronises.
TEST_F(LiveCorruption, AGenerationWithoutAFileIsReportedAndOutlived) {
  const uint32_t generation = control().generation;
  control().generation = generation + 7;
  kick();
  ASSERT_TRUE(runUntil(loop, [&] { return shadow->resyncs() > 0; }));
  EXPECT_TRUE(saw("RallyReader::findPosition() rallySwapped again"));
  ++control().incarnation;
  expectRemountedOnceWhole([&] { control().generation = generation; });
}

// A new writer's slot or bucket file whose header does not validate: the shadow maps none of
// the table's files (not the slots without the buckets), and mounts again once they are whole.
TEST_F(LiveCorruption, FilesThatCannotBeMappedAgainAreWaitedOut) {
  for (const char* file : {"buckets", "slots"}) {
    SCOPED_TRACE(file);
    EmberFile f;
    ASSERT_TRUE(f.open(root.path(), "routes", file, EmberFile::Access::ReadWrite, false));
    f.base()[0] ^= 0xff;  // the magic
    ++control().incarnation;
    kick();
    expectRemountedOnceWhole([&] { f.base()[0] ^= 0xff; });
    traced.clear();
  }
}

// The writer's newest sequence went below what the shadow consumed: not quiesced, not a crash;
// the next notification puts the sequence right again.
TEST_F(LiveCorruption, ANewestSequenceBelowTheReadersIsNotQuiesced) {
  const uint64_t latest = control().latestSeq;
  control().latestSeq = latest - 5;
  EXPECT_FALSE(shadow->quiesced());
  EXPECT_TRUE(saw("RallyReader::quiesced() latest notification out-of-range"));
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
  uint64_t& word = entry(w.writer.rally().count() - 1);
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
  Ledger::LedgerReader<TestKey, TestValue> reader(Ledger::ReaderConfig{root.path(), "routes"});
  ASSERT_TRUE(reader.initialize());
  TestValue v;
  auto missFails = [&](uint64_t id) {
    try {
      reader.lookup(TestKey{id}, v);
    } catch (const Ledger::CorruptionException& e) {
      return std::string(e.what()).find("bucket resize never completed") != std::string::npos;
    }
    return false;
  };
  EXPECT_TRUE(missFails(900));
  const uint64_t retries = reader.readerCounters().retries;
  EXPECT_GT(retries, 0u) << "the first lookup waited";
  EXPECT_TRUE(missFails(901));
  EXPECT_TRUE(missFails(902));
  EXPECT_EQ(reader.readerCounters().retries, retries) << "the next ones did not";
  header.resizeSeq = settled + 2;  // the next writer finished it
  EXPECT_FALSE(reader.lookup(TestKey{900}, v));
  EXPECT_TRUE(reader.lookup(TestKey{3}, v));
  EXPECT_EQ(v, makeValue(3, 1));
}

}  // namespace
