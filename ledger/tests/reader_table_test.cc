// The direct reader against a real writer's files: lookups, iteration, re-mapping on growth,
// the look-aside read of a slot caught mid-rewrite, and corrupt files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <span>

#include "ledger/LedgerReader.h"
#include "ledger/LedgerWriter.h"
#include "ledger/RallyReader.h"
#include "ledger/tests/TestTable.h"
#include "platform/tests/ForkedChild.h"
#include "zinc/tests/TestSupport.h"

namespace {

using namespace Ledger;
using LedgerTest::CollidingKey;
using LedgerTest::CollidingValue;
using LedgerTest::makeValue;
using LedgerTest::tableConfig;
using LedgerTest::TempRoot;
using LedgerTest::TestKey;
using LedgerTest::TestValue;

using Writer = LedgerWriter<TestKey, TestValue>;
using Reader = LedgerReader<TestKey, TestValue>;

std::map<uint64_t, uint64_t> readAll(Reader& reader) {
  std::map<uint64_t, uint64_t> seen;
  TestValue v;
  uint32_t hint = kNoSlot;
  for (bool more = reader.first(v); more; more = reader.next(v.k, v, &hint)) {
    EXPECT_TRUE(seen.emplace(v.k.id, v.version).second) << "key " << v.k.id << " seen twice";
    if (seen.size() > 100000) break;
  }
  return seen;
}

// The table "routes" of a writer under a fresh root, and a reader of it.
class ReaderTable : public ::testing::Test {
 protected:
  // Starts the writer with room for `capacity` slots, holding versions 1 of keys [0, ids).
  Writer& startWriter(uint32_t capacity = 64, uint64_t ids = 0) {
    writer_.emplace(tableConfig(root_.path(), "routes", capacity));
    writer_->attach();
    for (uint64_t id = 0; id < ids; ++id) writer_->write(makeValue(id, 1));
    return *writer_;
  }
  // 3000 writes of random keys among 4000 (new ones and rewrites), then `removes` removes of
  // random keys, applied to the writer and to `model` alike.
  void churn(int removes) {
    for (int i = 0; i < 3000; ++i) {
      uint64_t id = rng() % 4000;
      writer_->write(makeValue(id, ++model[id]));
    }
    for (int i = 0; i < removes; ++i) {
      uint64_t id = rng() % 4000;
      if (writer_->remove(TestKey{id})) model.erase(id);
    }
  }
  // A reader attached to the table now.
  Reader& attachReader() {
    reader_.emplace(ReaderConfig{root_.path(), "routes"});
    EXPECT_TRUE(reader_->initialize()) << reader_->error();
    return *reader_;
  }
  // Writes through a separate writable mapping of a file, as a hostile or broken process
  // would.
  template <class Fn>
  void patchFile(const char* name, Fn fn) {
    SharedMem::EmberFile f;
    ASSERT_TRUE(
        f.open(root_.path(), "routes", name, SharedMem::EmberFile::Access::ReadWrite, false));
    fn(f.base());
  }
  // The bucket header's count, as such a process would set it.
  void bucketCountIs(uint32_t n) {
    patchFile("buckets",
              [&](uint8_t* base) { reinterpret_cast<BucketTableHeader*>(base)->numBuckets = n; });
  }

  TempRoot root_;
  std::optional<Writer> writer_;
  std::optional<Reader> reader_;
  std::map<uint64_t, uint64_t> model;  // what churn() left in the table: id -> version
  std::mt19937 rng;
};

TEST(LedgerReader, MissingTableIsAClearError) {
  TempRoot root;
  Reader reader(ReaderConfig{root.path(), "nothing"});
  EXPECT_FALSE(reader.initialize());
  EXPECT_NE(reader.error().find("SlotReader::attach() no shared memory region"), std::string::npos);
  TestValue v;
  EXPECT_FALSE(reader.lookup(TestKey{1}, v));
  reader.detach();  // "already detached", harmless
}

TEST_F(ReaderTable, FollowsWriterThroughGrowthAndShrink) {
  Writer& writer = startWriter(4);
  Reader& reader = attachReader();
  rng.seed(7);
  for (int round = 0; round < 6; ++round) {
    // Grow to a few thousand entries, then remove most of them (slot and bucket shrink).
    churn(3500);
    for (uint64_t id = 0; id < 4000; ++id) {
      TestValue v;
      bool found = reader.lookup(TestKey{id}, v);
      ASSERT_EQ(found, model.count(id) == 1) << "id " << id << " round " << round;
      if (found) {
        EXPECT_EQ(v, makeValue(id, model[id]));
      }
    }
    EXPECT_EQ(readAll(reader), model);
  }
  EXPECT_GT(reader.readerCounters().remaps, 0u);
  EXPECT_GT(writer.writerCounters().slotShrinks, 0u);
  EXPECT_GT(writer.writerCounters().bucketGrowths, 0u);
}

// A walk of the table (first, then next from each key) that goes on while the writer doubles
// its bucket count and halves it again: every key that stays in the table all along is
// returned once, whatever the bucket count at each step. `walker` is the writer itself, or
// the direct reader.
template <class Walker>
void walkAcrossBucketResizes(Writer& writer, Walker& walker) {
  constexpr uint64_t kStaying = 2000, kPassing = 6000;
  for (uint64_t id = 0; id < kStaying; ++id) writer.write(makeValue(id, 1));
  const auto growths = writer.writerCounters().bucketGrowths;
  const auto shrinks = writer.writerCounters().bucketShrinks;
  std::map<uint64_t, int> seen;
  TestValue v;
  uint32_t hint = kNoSlot;
  int step = 0;
  for (bool more = walker.first(v); more; more = walker.next(v.k, v, &hint), ++step) {
    ++seen[v.k.id];
    if (step == kStaying / 3) {  // keys that come and go: the buckets double, and halve
      for (uint64_t id = 0; id < kPassing; ++id) writer.write(makeValue(100000 + id, 1));
    } else if (step == kStaying / 2) {
      for (uint64_t id = 0; id < kPassing; ++id) writer.remove(TestKey{100000 + id});
    }
  }
  EXPECT_GT(writer.writerCounters().bucketGrowths, growths);
  EXPECT_GT(writer.writerCounters().bucketShrinks, shrinks);
  for (uint64_t id = 0; id < kStaying; ++id) EXPECT_EQ(seen[id], 1) << "key " << id;
  for (const auto& [id, times] : seen) EXPECT_EQ(times, 1) << "passing key " << id;
}

TEST_F(ReaderTable, AWriterWalksAcrossBucketResizesSeeingEveryKeyOnce) {
  Writer& writer = startWriter();
  walkAcrossBucketResizes(writer, writer);
}

TEST_F(ReaderTable, AReaderWalksAcrossBucketResizesSeeingEveryKeyOnce) {
  Writer& writer = startWriter();
  Reader& reader = attachReader();
  walkAcrossBucketResizes(writer, reader);
}

// The same across processes: a writer in another process makes keys come and go without a
// pause, doubling and halving its buckets, while this one walks the table again and again.
TEST_F(ReaderTable, WalksRacingBucketResizesInAnotherProcessSeeEveryKeyOnce) {
  constexpr uint64_t kStaying = 2000;
  TestSupport::ForkedChild child([&](int told, int stop) -> int {
    Writer& writer = startWriter();
    for (uint64_t id = 0; id < kStaying; ++id) writer.write(makeValue(id, 1));
    (void)!::write(told, "l", 1);
    for (pollfd p{stop, POLLIN, 0}; ::poll(&p, 1, 0) == 0;) {
      for (uint64_t id = 0; id < 6000; ++id) writer.write(makeValue(100000 + id, 1));
      for (uint64_t id = 0; id < 6000; ++id) writer.remove(TestKey{100000 + id});
    }
    const bool resized = writer.writerCounters().bucketShrinks > 0;
    (void)!::write(told, resized ? "r" : "-", 1);
    for (char c = 0; c != 'x' && ::read(stop, &c, 1) == 1;) {
    }  // keeps the table until the parent is done with it
    return 0;
  });
  ASSERT_EQ(child.read(1), "l");
  Reader& reader = attachReader();
  // At least 40 walks, and on until one step has met a redistribution (and been taken again).
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (int walk = 0; walk < 40 || (reader.readerCounters().retries == 0 &&
                                   std::chrono::steady_clock::now() < deadline);
       ++walk) {
    std::map<uint64_t, int> seen;
    TestValue v;
    uint32_t hint = kNoSlot;
    for (bool more = reader.first(v); more; more = reader.next(v.k, v, &hint)) ++seen[v.k.id];
    for (uint64_t id = 0; id < kStaying; ++id) ASSERT_EQ(seen[id], 1) << "key " << id;
    for (const auto& [id, times] : seen) ASSERT_EQ(times, 1) << "passing key " << id;
  }
  ASSERT_TRUE(child.tell('s'));
  EXPECT_EQ(child.read(1), "r");
  EXPECT_GT(reader.readerCounters().retries, 0u) << "some steps met a redistribution";
  child.tell('x');
}

// A reader that attaches while the writer grows and shrinks its files reads a header whose
// counters and length move under it: it must never take that for corruption. The slot file
// only ever grows on a table's way to its largest size, so the writer in another process
// makes one new table after another, from 4 slots to 4096 and back (compacting its change
// queue on the way), while this process attaches to the newest one again and again.
TEST_F(ReaderTable, AttachesWhileTheWriterGrowsAndShrinksItsFiles) {
  constexpr uint32_t kTables = 150;
  auto* newest = static_cast<std::atomic<uint32_t>*>(::mmap(nullptr, sizeof(std::atomic<uint32_t>),
                                                            PROT_READ | PROT_WRITE,
                                                            MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(newest, MAP_FAILED);
  newest->store(kNoSlot);  // no table yet
  const auto name = [](uint32_t table) { return "routes" + std::to_string(table); };
  TestSupport::ForkedChild child([&](int told) -> int {
    for (uint32_t table = 0; table < kTables; ++table) {
      Writer writer(tableConfig(root_.path(), name(table), 4));
      writer.attach();
      newest->store(table, std::memory_order_release);
      for (uint64_t id = 0; id < 4096; ++id) writer.write(makeValue(id, 1));
      for (uint64_t id = 0; id < 4096; ++id) writer.remove(TestKey{id});
      const WriterCounters& c = writer.writerCounters();
      if (c.slotShrinks == 0 || c.bucketShrinks == 0 || c.rallyCompactions == 0) return 1;
    }
    (void)!::write(told, "d", 1);
    return 0;
  });
  int attaches = 0;
  for (uint32_t table = 0; table + 1 < kTables; ++attaches) {
    table = newest->load(std::memory_order_acquire);
    if (table == kNoSlot) continue;
    Reader reader(ReaderConfig{root_.path(), name(table)});
    ASSERT_TRUE(reader.initialize()) << name(table) << ": " << reader.error();
    RallyReader rally;
    rally.attach(root_.path(), name(table), reader.slotTable().emberId());
  }
  EXPECT_EQ(child.read(1), "d");
  EXPECT_GT(attaches, int(kTables));
  ::munmap(newest, sizeof(std::atomic<uint32_t>));
}

TEST_F(ReaderTable, SlotBeyondMappingMakesItRemap) {
  Writer& writer = startWriter(4);
  Reader& reader = attachReader();
  uint32_t mapped = reader.slotTable().mappedSlots();
  for (uint64_t id = 0; id < 100; ++id) writer.write(makeValue(id, 1));
  ASSERT_GT(writer.capacity(), mapped);
  uint32_t high = writer.capacity() - 1;
  TestValue v;
  TestKey key;
  // Find an occupied slot beyond the reader's mapping.
  while (high >= mapped && !(writer.slotTable().slot(high).status & kOccupied)) --high;
  ASSERT_GE(high, mapped);
  ASSERT_TRUE(reader.getValue(high, v, &key));
  EXPECT_EQ(v, makeValue(key.id, 1));
  EXPECT_GE(reader.slotTable().mappedSlots(), writer.capacity());
}

// A new writer made the table anew (a new ember, the same slot size) under an attached reader,
// and grew it past the reader's mapping. The re-map that the slot asks for finds another
// table: it is refused, and the new table's slots are not read as the old one's.
TEST_F(ReaderTable, ARemapOntoATableMadeAnewIsRefused) {
  startWriter(4, 3);
  Reader& reader = attachReader();
  const uint32_t mapped = reader.slotTable().mappedSlots();
  writer_->slotTable().header().version = 11;  // the next writer re-formats
  writer_.reset();
  Writer& anew = startWriter(4, 100);
  ASSERT_GT(anew.capacity(), mapped);
  TestValue v;
  EXPECT_THAT(
      ZincTest::failureOf<CorruptionException>([&] { reader.getValue(anew.capacity() - 1, v); }),
      ::testing::HasSubstr("LedgerReader::doResize() failed to re-map"));
}

TEST_F(ReaderTable, SlotMidRewriteReadsWholeOldValueThenNew) {
  Writer& writer = startWriter();
  writer.write(makeValue(5, 1));
  Reader& reader = attachReader();
  TestValue* open = writer.directUpdate(TestKey{5});
  ASSERT_NE(open, nullptr);
  open->version = 2;  // half-written: payload and check still old
  TestValue v;
  ASSERT_TRUE(reader.lookup(TestKey{5}, v));
  EXPECT_EQ(v, makeValue(5, 1)) << "the look-aside copy, whole";
  EXPECT_EQ(reader.readerCounters().lookasideReads, 1u);
  *open = makeValue(5, 2);
  writer.directCommit();
  ASSERT_TRUE(reader.lookup(TestKey{5}, v));
  EXPECT_EQ(v, makeValue(5, 2));
}

TEST_F(ReaderTable, ReadOnlyRefusesWrites) {
  Writer& writer = startWriter();
  Reader& reader = attachReader();
  EXPECT_EQ(reader.write(makeValue(1, 1)), nullptr);
  EXPECT_FALSE(reader.remove(TestKey{1}));
  EXPECT_FALSE(reader.cleanup());
  EXPECT_FALSE(reader.validate());
  TestValue v;
  EXPECT_FALSE(writer.lookup(TestKey{1}, v));
}

TEST_F(ReaderTable, LoopingChainIsReportedNotWalkedForever) {
  Writer& writer = startWriter(64, 20);
  Reader& reader = attachReader();
  // Point every slot's link at itself: every non-empty chain loops at its first slot.
  const uint32_t slotSize = reader.slotTable().slotSize();
  const uint32_t n = writer.capacity();
  patchFile("slots", [&](uint8_t* base) {
    for (uint32_t i = 0; i < n; ++i) {
      auto* s = reinterpret_cast<SlotHeader*>(base + kSlotTableHeaderSize + (i + 1) * slotSize);
      s->linkPair = packLink(generationOf(s->linkPair) + 4, i);
    }
  });
  std::vector<std::string> reports;
  reader.corruptionHandlerIs([&](const std::string& why) { reports.push_back(why); });
  TestValue v;
  for (uint64_t id = 100; id < 120; ++id) reader.lookup(TestKey{id}, v);  // misses walk chains
  ASSERT_FALSE(reports.empty());
  EXPECT_NE(reports.front().find("LedgerReader::doLookup() hash chain cycle detected, "),
            std::string::npos)
      << reports.front();
  reader.corruptionHandlerIs({});
  EXPECT_THROW(readAll(reader), CorruptionException);
}

TEST_F(ReaderTable, GarbageLinksAndKeysAreReported) {
  Writer& writer = startWriter(64, 20);
  Reader& reader = attachReader();
  const uint32_t mask = reader.bucketTable().numBuckets() - 1;
  const uint32_t farBucket = TestKey{0}.hash() & mask;
  const uint32_t foreignBucket = TestKey{1}.hash() & mask;
  uint32_t foreignSlot = 0;  // a slot that belongs to another bucket
  while ((reverseBits(writer.slotTable().slot(foreignSlot).rhash) & mask) == foreignBucket) {
    ++foreignSlot;
  }
  patchFile("buckets", [&](uint8_t* base) {
    auto* heads = reinterpret_cast<uint64_t*>(base + kBucketTableHeaderSize);
    heads[farBucket] = packLink(0, 0x7ffffff0u);  // far beyond numSlots
    heads[foreignBucket] = packLink(0, foreignSlot);
  });
  std::vector<std::string> reports;
  reader.corruptionHandlerIs([&](const std::string& why) { reports.push_back(why); });
  TestValue v;
  EXPECT_FALSE(reader.lookup(TestKey{0}, v));
  EXPECT_FALSE(reader.lookup(TestKey{1}, v));
  ASSERT_EQ(reports.size(), 2u);
  for (const auto& report : reports) {
    EXPECT_NE(report.find("LedgerReader::doLookup() corrupt key detected. key:"), std::string::npos)
        << report;
  }
  EXPECT_TRUE(reader.lookup(TestKey{2}, v)) << "the rest of the table still reads";
}

// A chain whose second slot sorts before its first: a lookup that walks past the first slot
// meets the disorder and reports it, where an ordered walk would have ended in a miss.
TEST_F(ReaderTable, AChainOutOfOrderIsReported) {
  Writer& writer = startWriter(64, 40);
  Reader& reader = attachReader();
  const uint32_t mask = reader.bucketTable().numBuckets() - 1;
  auto rhashOf = [](uint64_t id) { return reverseBits(TestKey{id}.hash()); };
  const auto pair = LedgerTest::twoKeysOfOneBucket(mask + 1, 40);  // in chain order
  ASSERT_TRUE(pair) << "two of 40 keys share one of " << mask + 1 << " buckets";
  const auto [first, second] = *pair;
  ASSERT_EQ(TestKey{first}.hash() & mask, reverseBits(rhashOf(first) - 1) & mask)
      << "one below stays put";
  writer.slotTable().slot(reader.findSlot(TestKey{second})).rhash = rhashOf(first) - 1;
  std::vector<std::string> reports;
  reader.corruptionHandlerIs([&](const std::string& why) { reports.push_back(why); });
  TestValue v;
  EXPECT_FALSE(reader.lookup(TestKey{second}, v));
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].find("LedgerReader::doLookup() corrupt key detected. key:"),
            std::string::npos)
      << reports[0];
}

// A batch answers as the single lookups do, hits and misses alike, on short chains (the quick
// walk) and on long ones (the full walk), and after the writer grew and shrank the table.
TEST_F(ReaderTable, BatchedLookupsAgreeWithTheTable) {
  startWriter(4);
  Reader& reader = attachReader();
  rng.seed(3);
  for (int round = 0; round < 3; ++round) {
    churn(2000 * round);
    std::vector<TestKey> keys;
    for (uint64_t id = 0; id < 4100; ++id) keys.push_back(TestKey{(id * 7919) % 4100});
    std::vector<TestValue> values(keys.size());
    std::unique_ptr<bool[]> found(new bool[keys.size()]);
    const uint32_t hits = reader.lookupBatch(keys, values, std::span(found.get(), keys.size()));
    EXPECT_EQ(hits, model.size());
    for (size_t i = 0; i < keys.size(); ++i) {
      ASSERT_EQ(found[i], model.count(keys[i].id) == 1) << "id " << keys[i].id;
      if (found[i]) {
        EXPECT_EQ(values[i], makeValue(keys[i].id, model[keys[i].id]));
      }
    }
  }

  // Batches shorter than the fetch pipeline, and an empty one, answer the same.
  for (size_t n : {0, 1, 2, 5, 11, 19, 20, 21, 40}) {
    std::vector<TestKey> keys;
    for (uint64_t id = 0; id < n; ++id) keys.push_back(TestKey{(id * 31) % 4100});
    std::vector<TestValue> values(n);
    std::unique_ptr<bool[]> found(new bool[n + 1]);
    uint32_t expected = 0;
    for (const TestKey& k : keys) expected += uint32_t(model.count(k.id));
    EXPECT_EQ(reader.lookupBatch(keys, values, std::span(found.get(), n)), expected) << n;
    for (size_t i = 0; i < n; ++i) {
      ASSERT_EQ(found[i], model.count(keys[i].id) == 1) << n << " " << i;
      if (found[i]) {
        EXPECT_EQ(values[i], makeValue(keys[i].id, model[keys[i].id]));
      }
    }
  }

  using CReader = LedgerReader<CollidingKey, CollidingValue>;
  LedgerWriter<CollidingKey, CollidingValue> colliding(tableConfig(root_.path(), "colliding"));
  colliding.attach();
  for (uint64_t id = 0; id < 90; id += 2) colliding.write(CollidingValue{{id}, id * 10});
  CReader creader(ReaderConfig{root_.path(), "colliding"});
  ASSERT_TRUE(creader.initialize());
  std::vector<CollidingKey> ckeys;
  for (uint64_t id = 0; id < 100; ++id) ckeys.push_back(CollidingKey{99 - id});
  std::vector<CollidingValue> cvalues(ckeys.size());
  std::unique_ptr<bool[]> cfound(new bool[ckeys.size()]);
  EXPECT_EQ(creader.lookupBatch(ckeys, cvalues, std::span(cfound.get(), ckeys.size())), 45u);
  for (size_t i = 0; i < ckeys.size(); ++i) {
    const uint64_t id = ckeys[i].id;
    ASSERT_EQ(cfound[i], id % 2 == 0 && id < 90) << id;
    if (cfound[i]) {
      EXPECT_EQ(cvalues[i].data, id * 10);
    }
  }
}

// A corrupt chain in a batch is reported for its key alone; the other keys still read.
TEST_F(ReaderTable, BatchedLookupReportsCorruptionPerKey) {
  startWriter(64, 20);
  Reader& reader = attachReader();
  const uint32_t bucket = TestKey{0}.hash() & (reader.bucketTable().numBuckets() - 1);
  patchFile("buckets", [&](uint8_t* base) {
    reinterpret_cast<uint64_t*>(base + kBucketTableHeaderSize)[bucket] = packLink(0, 0x7ffffff0u);
  });
  std::vector<TestKey> keys;
  for (uint64_t id = 0; id < 20; ++id) {
    if (id == 0 || (TestKey{id}.hash() & (reader.bucketTable().numBuckets() - 1)) != bucket) {
      keys.push_back(TestKey{id});
    }
  }
  std::vector<TestValue> values(keys.size());
  std::unique_ptr<bool[]> found(new bool[keys.size()]);
  std::vector<std::string> reports;
  reader.corruptionHandlerIs([&](const std::string& why) { reports.push_back(why); });
  EXPECT_EQ(reader.lookupBatch(keys, values, std::span(found.get(), keys.size())), keys.size() - 1);
  EXPECT_FALSE(found[0]);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].find("LedgerReader::doLookup() corrupt key detected. key:"),
            std::string::npos);
  reader.corruptionHandlerIs({});
  EXPECT_THROW(reader.lookupBatch(keys, values, std::span(found.get(), keys.size())),
               CorruptionException);
}

// A bucket header that counts no buckets is corruption, at attach and under an attached
// reader alike; nothing is read through a count of 0.
TEST_F(ReaderTable, ABucketCountOfZeroIsReportedNotRead) {
  startWriter(64, 20);
  const uint32_t count = writer_->numBuckets();
  bucketCountIs(0);
  Reader early(ReaderConfig{root_.path(), "routes"});
  EXPECT_FALSE(early.initialize());
  EXPECT_THAT(early.error(), ::testing::HasSubstr("bad header numBuckets:0"));

  bucketCountIs(count);
  Reader& reader = attachReader();
  std::vector<std::string> reports;
  reader.corruptionHandlerIs([&](const std::string& why) { reports.push_back(why); });
  bucketCountIs(0);
  TestValue v;
  for (uint64_t id = 0; id < 20; ++id) EXPECT_FALSE(reader.lookup(TestKey{id}, v));
  EXPECT_FALSE(reader.first(v));
  ASSERT_FALSE(reports.empty());
  EXPECT_THAT(reports.front(), ::testing::HasSubstr("bad header numBuckets:0"));
  bucketCountIs(count);
  for (uint64_t id = 0; id < 20; ++id) EXPECT_TRUE(reader.lookup(TestKey{id}, v)) << id;
}

// The bucket file is cut to one bucket while its header claims twice the buckets in use: the
// reader's re-map finds it short, and its mapping with it. A header that then claims the old
// count again is not read through the old bounds. Once the file is whole, it reads as ever.
TEST_F(ReaderTable, ABucketFileCutUnderAReaderIsNotReadBeyondItsMapping) {
  startWriter(4096, 3000);
  Reader& reader = attachReader();
  const uint32_t count = reader.bucketTable().numBuckets();
  ASSERT_GE(count, 2048u) << "the buckets span several pages";
  const std::string path = root_.path() + "/routes/buckets";
  std::string whole;
  {
    std::ifstream in(path, std::ios::binary);
    whole.assign(std::istreambuf_iterator<char>(in), {});
  }
  ASSERT_EQ(::truncate(path.c_str(), kBucketTableHeaderSize + 8), 0);
  std::vector<std::string> reports;
  reader.corruptionHandlerIs([&](const std::string& why) { reports.push_back(why); });
  TestValue v;
  bucketCountIs(2 * count);
  EXPECT_FALSE(reader.lookup(TestKey{1}, v));
  bucketCountIs(count);
  for (uint64_t id = 0; id < 3000; id += 7) EXPECT_FALSE(reader.lookup(TestKey{id}, v));
  EXPECT_FALSE(reader.first(v));
  ASSERT_FALSE(reports.empty());
  EXPECT_THAT(reports.back(), ::testing::HasSubstr("beyond file size"));

  std::ofstream(path, std::ios::binary | std::ios::trunc).write(whole.data(), whole.size());
  for (uint64_t id = 0; id < 3000; id += 7) EXPECT_TRUE(reader.lookup(TestKey{id}, v)) << id;
}

}  // namespace
