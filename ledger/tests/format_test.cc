// The slot table file format: header formatting and the ordered header checks, chain order,
// bounded walks over corrupt chains, and the writer's structural edge cases.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <tuple>
#include <vector>

#include "ledger/LedgerWriter.h"
#include "ledger/SlotTable.h"
#include "ledger/tests/TestTable.h"
#include "zinc/tests/TestSupport.h"

namespace {

using namespace LedgerTest;
using namespace Ledger;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using Writer = LedgerWriter<TestKey, TestValue>;

std::string validationError(const std::vector<uint8_t>& file, uint32_t ember = 0) {
  return ZincTest::failureOf<CorruptionException>(
      [&] { SlotTable::validate(file.data(), file.size(), ember); });
}

SlotTableHeader& headerOf(std::vector<uint8_t>& file) {
  return *reinterpret_cast<SlotTableHeader*>(file.data());
}

TableShape testShape() { return TableShape{120, 7, "LedgerTest::TestValue", "TestTable"}; }

std::vector<uint8_t> formattedFile(uint32_t numSlots, uint32_t ember = 42) {
  std::vector<uint8_t> file(SlotTable::fileSizeFor(numSlots, testShape().slotSize()));
  SlotTable::format(file.data(), numSlots, testShape(), ember);
  return file;
}

// reverseBits must give the bits of a word in reverse order, each bit moved on its own, at run
// time as at compile time.
TEST(SlotTableFormat, RhashReversesEveryBitAtRunTimeAsAtCompileTime) {
  auto bitByBit = [](uint32_t x) {
    uint32_t r = 0;
    for (int i = 0; i < 32; ++i) r |= ((x >> i) & 1u) << (31 - i);
    return r;
  };
  std::mt19937 rng(7);
  std::vector<uint32_t> words = {0, 1, 0x80000000u, 0xffffffffu, 0x0000ffffu, 0xffff0000u};
  for (int i = 0; i < 100000; ++i) words.push_back(rng());
  for (uint32_t low = 0; low < 0x10000; ++low) words.push_back(low | (~low << 16));
  for (volatile uint32_t x : words) {
    ASSERT_EQ(reverseBits(x), bitByBit(x)) << std::hex << x;
  }
  static_assert(reverseBits(0x00000001u) == 0x80000000u && reverseBits(0x0000ff00u) == 0x00ff0000u);
}

TEST(SlotTableFormat, FreshHeaderAndSlotsAreAsDocumented) {
  auto file = formattedFile(3);
  const SlotTableHeader& h = headerOf(file);
  EXPECT_EQ(std::string(h.magic, 8), "LEDGRSLT");
  EXPECT_EQ(h.version, 12u);
  EXPECT_EQ(h.emberId, 42u);
  EXPECT_EQ(h.platformSpec, 1u);
  EXPECT_STREQ(h.valueTypeName, "LedgerTest::TestValue");
  EXPECT_STREQ(h.classTypeName, "TestTable");
  EXPECT_EQ(h.valueSize, 120u);
  EXPECT_EQ(h.slotSize, 136u);
  EXPECT_EQ(h.tableParameter, 7u);
  EXPECT_EQ(h.tableKind, 2u);
  EXPECT_EQ(h.checksum, 473836264u);  // the file format: files written before must validate
  EXPECT_EQ(h.occupiedSlots, 0u);
  EXPECT_EQ(h.freeListHead, kNoSlot);
  EXPECT_EQ(h.mostSlots, 3u);
  EXPECT_EQ(h.reservedCounter, 0u);
  EXPECT_EQ(h.numSlots, 3u);
  EXPECT_EQ(file.size(), 192u + 4 * 136u);
  for (int i = 0; i < 4; ++i) {  // the look-aside slot and three slots
    const auto* slot = reinterpret_cast<const SlotHeader*>(file.data() + 192 + i * 136);
    EXPECT_EQ(slot->linkPair, packLink(0, kNoSlot));
    EXPECT_EQ(slot->status, 0u);
    EXPECT_EQ(slot->rhash, 0u);
    const uint8_t* value = reinterpret_cast<const uint8_t*>(slot) + 16;
    EXPECT_TRUE(std::all_of(value, value + 120, [](uint8_t b) { return b == 0; }));
  }
  EXPECT_EQ(validationError(file), "");
}

TEST(SlotTableFormat, ChecksumCoversNamesAndShapeWordsOnly) {
  auto file = formattedFile(2);
  SlotTableHeader& h = headerOf(file);
  uint32_t sum = h.checksum;
  h.occupiedSlots = 1;
  h.numSlots = 1;
  EXPECT_EQ(SlotTable::checksum(h), sum);
  h.classTypeName[63] = 'x';  // bytes after the terminator count too
  EXPECT_NE(SlotTable::checksum(h), sum);
}

TEST(SlotTableFormat, TypeNamesUpTo63CharactersFit) {
  std::vector<uint8_t> file(SlotTable::fileSizeFor(1, 136));
  TableShape shape = testShape();
  shape.valueTypeName = std::string(63, 'v');
  shape.classTypeName = std::string(63, 'c');
  EXPECT_NO_THROW(SlotTable::format(file.data(), 1, shape, 1));
  EXPECT_EQ(SlotTable::typeName(headerOf(file).valueTypeName), shape.valueTypeName);

  auto format = [&] { SlotTable::format(file.data(), 1, shape, 1); };
  shape.valueTypeName = std::string(64, 'v');
  EXPECT_THAT(format, ThrowsMessage<InitializationException>(
                          StrEq("SlotTable::Header() value typename " + shape.valueTypeName +
                                " exceeds 64 characters")));
  shape.valueTypeName = "v";
  shape.classTypeName = std::string(64, 'c');
  EXPECT_THAT(format, ThrowsMessage<InitializationException>(StartsWith(
                          "SlotTable::Header() class typename: " + shape.classTypeName)));
}

// Each entry breaks one field; with the breaks from k on applied together, check k is the one
// reported: the checks run in this order and stop at the first failure.
TEST(SlotTableFormat, HeaderChecksRunInOrderWithTheirMessages) {
  using Break = std::function<void(std::vector<uint8_t>&, uint32_t & ember)>;
  const std::vector<std::pair<std::string, Break>> breaks = {
      {"SlotTable::Header::validate() bad magic: LEDGRSLX",
       [](auto& f, auto&) { headerOf(f).magic[7] = 'X'; }},
      {"SlotTable::Header::validate() bad version: 11",
       [](auto& f, auto&) { headerOf(f).version = 11; }},
      {"SlotTable::validate() bad ember:42 wanted:43", [](auto&, auto& ember) { ember = 43; }},
      {"SlotTable::Header::validate() bad platform specification: 2 expecting: 1",
       [](auto& f, auto&) { headerOf(f).platformSpec = 2; }},
      {"SlotTable::Header::validate() checksum fail: ",
       [](auto& f, auto&) { headerOf(f).tableParameter = 8; }},
      {"SlotTable::Header::validate() bad occupiedSlots: 5 num slots: 4",
       [](auto& f, auto&) { headerOf(f).occupiedSlots = 5; }},
      {"SlotTable::Header::validate() bad freeSlots: 4",
       [](auto& f, auto&) { headerOf(f).freeListHead = 4; }},
      {"SlotTable::Header::validate() bad mostSlots:3",
       [](auto& f, auto&) { headerOf(f).mostSlots = 3; }},
      {"SlotTable::Header::validate() bad header file size: 327",
       [](auto& f, auto&) { f.resize(192 + 136 - 1); }},
      {"SlotTable::Header::validate() bad shmem size:328 for 4 slots",
       [](auto& f, auto&) { f.resize(192 + 136); }},
  };
  for (size_t k = 0; k < breaks.size(); ++k) {
    auto file = formattedFile(4);
    uint32_t ember = 0;
    // Later breaks first: the file-size ones shorten the file, the rest only edit the header.
    for (size_t j = breaks.size(); j-- > k;) breaks[j].second(file, ember);
    EXPECT_THAT(validationError(file, ember), StartsWith(breaks[k].first)) << "check " << k;
  }
}

// A slot size too small for the value, or not a multiple of 8, under a checksum made to match
// it: refused, since every slot and value bound would follow from it.
TEST(SlotTableFormat, ASlotSizeThatCannotHoldTheValueIsRefusedWhateverTheChecksum) {
  for (auto [valueSize, slotSize] : {std::pair{120u, 8u}, {120u, 128u}, {100u, 132u}}) {
    auto file = formattedFile(4);
    headerOf(file).valueSize = valueSize;
    headerOf(file).slotSize = slotSize;
    headerOf(file).checksum = SlotTable::checksum(headerOf(file));
    EXPECT_THAT(validationError(file), StartsWith("SlotTable::Header::validate() bad slotSize: " +
                                                  std::to_string(slotSize) + " for valueSize: "))
        << slotSize;
  }
}

TEST(SlotTableFormat, ShortFilesFailOnTheirSizeEvenWithAGoodMagic) {
  auto file = formattedFile(1);
  file.resize(100);  // not even the header: nothing is read from it
  EXPECT_THAT(validationError(file),
              StartsWith("SlotTable::Header::validate() bad header file size: 100"));
  file = formattedFile(0);  // header and look-aside slot, no slots: fine
  EXPECT_EQ(file.size(), 192u + 136u);
  EXPECT_EQ(validationError(file), "");
}

TEST(SlotTableFormat, FullTableAndAnyExpectedEmberAreValid) {
  auto file = formattedFile(4);
  headerOf(file).occupiedSlots = 4;
  EXPECT_EQ(validationError(file, 0), "");
  EXPECT_EQ(validationError(file, 42), "");
}

class WriterFormat : public ::testing::Test {
 protected:
  LedgerConfig config(const std::string& table = "t") {
    return tableConfig(root.path(), table, 8, 4);
  }
  static uint32_t hashOf(uint64_t id) { return Ops<TestKey, TestValue>::hash(TestKey{id}); }
  static uint32_t bucketOf(uint64_t id, uint32_t numBuckets) {
    return hashOf(id) & (numBuckets - 1);
  }
  // The first key after `id` that falls in another of `numBuckets` buckets.
  static uint64_t keyOfAnotherBucket(uint64_t id, uint32_t numBuckets) {
    uint64_t other = id + 1;
    while (bucketOf(other, numBuckets) == bucketOf(id, numBuckets)) ++other;
    return other;
  }
  TempRoot root;
};

// The largest power of two below the slot count; one for a one-slot table, which keeps its slot
// once emptied again; none for a table that never shrinks.
TEST_F(WriterFormat, ShrinkThresholdIsTheLargestPowerOfTwoBelowNumSlots) {
  using Case = std::tuple<uint32_t, bool, uint32_t>;  // capacity, shrinkEnabled, threshold
  for (auto [capacity, shrinkEnabled, threshold] :
       {Case{100, true, 64}, Case{64, true, 32}, Case{1, true, 1}, Case{1, false, 0}}) {
    auto c = config("t" + std::to_string(capacity) + (shrinkEnabled ? "s" : ""));
    c.capacity = capacity;
    c.minSize = 0;
    c.shrinkEnabled = shrinkEnabled;
    Writer w(c);
    w.attach();
    EXPECT_EQ(w.shrinkThreshold(), threshold) << capacity;
    if (capacity > 1) continue;
    w.write(makeValue(1, 1));
    EXPECT_TRUE(w.remove(TestKey{1}));
    EXPECT_EQ(w.capacity(), 1u);
    EXPECT_TRUE(w.validate()) << w.validationError();
  }
}

TEST_F(WriterFormat, EqualRhashKeysAreChainedInKeyOrder) {
  using CWriter = LedgerWriter<CollidingKey, CollidingValue>;
  CWriter w(config());
  w.attach();
  std::vector<uint64_t> ids(60);
  for (size_t i = 0; i < ids.size(); ++i) ids[i] = i * 3;  // all hash to 0
  std::shuffle(ids.begin(), ids.end(), std::mt19937(5));
  for (uint64_t id : ids) w.write(CollidingValue{{id}, id});
  ASSERT_TRUE(w.validate()) << w.validationError();
  auto& slots = w.slotTable();
  uint32_t link = linkOf(w.bucketTable().head(0));
  uint64_t expected = 0;
  for (; !isEndOfChain(link); link = linkOf(slots.slot(link).linkPair), expected += 3) {
    EXPECT_EQ(slots.slot(link).rhash, 0u);
    EXPECT_EQ(w.ops().storedKey(slots.value(link)).id, expected);
  }
  EXPECT_EQ(expected, 180u);
  CollidingValue v;
  EXPECT_TRUE(w.lookup(CollidingKey{90}, v));
  EXPECT_EQ(v.data, 90u);
  EXPECT_FALSE(w.lookup(CollidingKey{91 * 3 + 300}, v));
  // Two equal-rhash keys the wrong way round are a chain out of order.
  const uint32_t first = linkOf(w.bucketTable().head(0));
  const uint32_t second = linkOf(slots.slot(first).linkPair);
  std::swap(reinterpret_cast<CollidingValue*>(slots.value(first))->k,
            reinterpret_cast<CollidingValue*>(slots.value(second))->k);
  EXPECT_FALSE(w.validate());
  EXPECT_EQ(w.validationError(), "Validator::walkOccupiedSlots() chain out of order at slot: " +
                                     std::to_string(second) + " bucket: 0");
}

// A writer used before it is attached, or after it detached, says so: nothing is mapped to
// change or look at.
TEST_F(WriterFormat, AWriterNotAttachedRefusesWithAClearError) {
  Writer w(config());
  TestValue v;
  const auto notAttached = [](const char* who) {
    return ThrowsMessage<InitializationException>(StrEq(std::string(who) + " not attached"));
  };
  for (int round = 0; round < 2; ++round) {
    EXPECT_THAT([&] { w.write(makeValue(1, 1)); }, notAttached("LedgerWriter::write()"));
    EXPECT_THAT([&] { w.writeBatch(&v, 1); }, notAttached("LedgerWriter::writeBatch()"));
    EXPECT_THAT([&] { w.remove(TestKey{1}); }, notAttached("LedgerWriter::remove()"));
    EXPECT_THAT([&] { w.directWrite(TestKey{1}); }, notAttached("LedgerWriter::directWrite()"));
    EXPECT_THAT([&] { w.lookup(TestKey{1}, v); }, notAttached("LedgerWriter::lookup()"));
    EXPECT_THAT([&] { w.first(v); }, notAttached("LedgerWriter::first()"));
    EXPECT_THAT([&] { w.next(TestKey{1}, v); }, notAttached("LedgerWriter::next()"));
    EXPECT_THAT([&] { w.shrink(); }, notAttached("LedgerWriter::shrink()"));
    EXPECT_EQ(w.members(), 0u);
    EXPECT_EQ(w.capacity(), 0u);
    w.attach();
    w.write(makeValue(1, 1));
    EXPECT_EQ(w.members(), 1u);
    w.detach();
  }
}

TEST_F(WriterFormat, LoopingChainIsReportedNotWalkedForever) {
  using CWriter = LedgerWriter<CollidingKey, CollidingValue>;
  CWriter w(config());
  w.attach();
  for (uint64_t id : {0, 3, 6}) w.write(CollidingValue{{id}, id});
  auto& slots = w.slotTable();
  uint32_t head = linkOf(w.bucketTable().head(0));
  uint32_t second = linkOf(slots.slot(head).linkPair);
  uint32_t third = linkOf(slots.slot(second).linkPair);
  slots.slot(third).linkPair = packLink(0, head);  // 0 -> 3 -> 6 -> 0 ...
  CollidingValue v;
  EXPECT_THAT([&] { w.lookup(CollidingKey{999}, v); },
              ThrowsMessage<CorruptionException>(
                  StartsWith("WriterHashMap::lookup() hash chain cycle detected, slotCount:")));
  EXPECT_THROW(w.write(CollidingValue{{999}, 1}), CorruptionException);
  EXPECT_FALSE(w.validate());
  EXPECT_THAT(w.validationError(), StartsWith("Validator::markOccupied() duplicate slot: "));
}

TEST_F(WriterFormat, ForeignKeyInAChainIsReported) {
  Writer w(config());
  w.attach();
  const uint32_t slot = slotIndexOf(w, w.write(makeValue(1, 1)));
  reinterpret_cast<TestValue*>(w.slotTable().value(slot))->k.id = 2;
  TestValue v;
  EXPECT_THAT([&] { w.lookup(TestKey{1}, v); },
              ThrowsMessage<CorruptionException>(
                  StartsWith("WriterHashMap::lookup() corrupt key detected, slot: ")));
  EXPECT_THAT((w.validate(), w.validationError()),
              StartsWith("Validator::walkOccupiedSlots() corrupt key in slot: "));
}

// A chain member that is not what its chain says: a key of another bucket stored with that
// key's own rhash, or a slot that is no longer OCCUPIED. Writes find either before they
// would change anything.
TEST_F(WriterFormat, ChainMembersOfAnotherBucketOrNotOccupiedAreReported) {
  for (const bool occupied : {true, false}) {
    Writer w(config(occupied ? "foreign" : "vacated"));
    w.attach();
    const uint32_t slot = slotIndexOf(w, w.write(makeValue(1, 1)));
    const uint32_t n = w.numBuckets();
    SlotHeader& s = w.slotTable().slot(slot);
    if (occupied) {
      const uint64_t other = keyOfAnotherBucket(1, n);
      reinterpret_cast<TestValue*>(w.slotTable().value(slot))->k.id = other;
      s.rhash = reverseBits(hashOf(other));
    } else {
      s.status &= ~kOccupied;
    }
    EXPECT_THAT([&] { w.write(makeValue(1, 2)); },
                ThrowsMessage<CorruptionException>(StartsWith(
                    "WriterHashMap::find() corrupt key detected, slot: " + std::to_string(slot) +
                    " bucket: ")))
        << (occupied ? "a key of another bucket" : "a slot not OCCUPIED");
  }
}

// A successor that sorts before the entry it follows (here: a chain's second slot linked back
// to its first) would walk the table in circles: the step that meets it reports it.
TEST_F(WriterFormat, AWalkStepThatWouldGoBackInItsChainIsReported) {
  Writer w(config());
  w.attach();
  w.write(makeValue(1, 1));
  const uint32_t n = w.numBuckets(), bucket = bucketOf(1, n);
  uint64_t other = 2;
  while (bucketOf(other, n) != bucket || hashOf(other) == hashOf(1)) ++other;
  w.write(makeValue(other, 1));
  ASSERT_EQ(w.numBuckets(), n);
  auto& slots = w.slotTable();
  const uint32_t first = linkOf(w.bucketTable().head(bucket));
  const uint32_t second = linkOf(slots.slot(first).linkPair);
  slots.slot(second).linkPair = packLink(0, first);
  const TestKey last = reinterpret_cast<const TestValue*>(slots.value(second))->k;
  TestValue v;
  EXPECT_THAT([&] { w.next(last, v); },
              ThrowsMessage<CorruptionException>(
                  "WriterHashMap::next() corrupt rhash detected, slot: " + std::to_string(first)));
}

TEST_F(WriterFormat, BucketsDoubleAboveTheCountAndHalveBelowAQuarter) {
  Writer w(config());
  w.attach();
  for (uint64_t id = 0; id < 4; ++id) w.write(makeValue(id, 1));
  EXPECT_EQ(w.numBuckets(), 4u);
  w.write(makeValue(4, 1));  // occupiedSlots 5 > 4
  EXPECT_EQ(w.numBuckets(), 8u);
  for (uint64_t id = 5; id < 9; ++id) w.write(makeValue(id, 1));
  EXPECT_EQ(w.numBuckets(), 16u);
  for (uint64_t id = 8; id >= 4; --id) w.remove(TestKey{id});  // 4 left: not below 16 / 4
  EXPECT_EQ(w.numBuckets(), 16u);
  w.remove(TestKey{3});  // 3 < 4
  EXPECT_EQ(w.numBuckets(), 8u);
  w.remove(TestKey{2});
  w.remove(TestKey{1});  // 1 < 2
  EXPECT_EQ(w.numBuckets(), 4u);
  w.remove(TestKey{0});  // never below the minimum
  EXPECT_EQ(w.numBuckets(), 4u);
  EXPECT_TRUE(w.validate()) << w.validationError();
}

// Entries added in direct mode count as any others: the commit that takes the table past
// its bucket count doubles it.
TEST_F(WriterFormat, DirectInsertsDoubleTheBucketsAsWritesDo) {
  Writer w(config());
  w.attach();
  for (uint64_t id = 0; id < 5; ++id) {
    *w.directWrite(TestKey{id}) = makeValue(id, 1);
    w.directCommit();
  }
  EXPECT_EQ(w.numBuckets(), 8u);
  EXPECT_TRUE(w.validate()) << w.validationError();
}

// A walk in table order starts at the first non-empty bucket's head: a head that names no
// slot of the table, or a slot that holds a key of another bucket, is reported, not read.
TEST_F(WriterFormat, AWalkInTableOrderChecksTheFirstSlotItMeets) {
  Writer w(config());
  w.attach();
  const uint32_t slot = slotIndexOf(w, w.write(makeValue(1, 1)));
  const uint32_t n = w.numBuckets();
  const uint64_t other = keyOfAnotherBucket(1, n);
  reinterpret_cast<TestValue*>(w.slotTable().value(slot))->k.id = other;
  TestValue v;
  EXPECT_THAT([&] { w.first(v); },
              ThrowsMessage<CorruptionException>(
                  "WriterHashMap::first() corrupt key detected, slot: " + std::to_string(slot) +
                  " bucket: " + std::to_string(bucketOf(1, n))));
  w.bucketTable().head(bucketOf(1, n)) = packLink(0, 1000);
  EXPECT_THAT([&] { w.first(v); }, ThrowsMessage<CorruptionException>(
                                       "WriterHashMap::first() corrupt link detected, slot: 1000"));
}

// A resize walks every chain from its bucket head: a head that names no slot of the table
// is reported by the resize, which never indexes anything with it.
TEST_F(WriterFormat, ABucketHeadBeyondTheSlotsStopsAResize) {
  Writer w(config());
  w.attach();
  for (uint64_t id = 0; id < 4; ++id) w.write(makeValue(id, 1));
  ASSERT_EQ(w.numBuckets(), 4u);
  const uint32_t bad = bucketOf(0, 4);
  uint64_t fifth = 4;
  while (bucketOf(fifth, 4) == bad) ++fifth;
  w.bucketTable().head(bad) = packLink(0, 1000);
  EXPECT_THAT([&] { w.write(makeValue(fifth, 1)); },  // the fifth entry doubles the buckets
              ThrowsMessage<CorruptionException>(
                  "WriterHashMap::growBuckets() corrupt link detected, slot: 1000"));

  Writer v(config("shrinking"));
  v.attach();
  for (uint64_t id = 0; id < 5; ++id) v.write(makeValue(id, 1));
  ASSERT_EQ(v.numBuckets(), 8u);
  for (uint64_t id = 0; id < 3; ++id) v.remove(TestKey{id});
  uint32_t upper = 4;  // a bucket of the upper half that the last removal does not walk
  while (upper == bucketOf(3, 8)) ++upper;
  v.bucketTable().head(upper) = packLink(0, 1000);
  EXPECT_THAT([&] { v.remove(TestKey{3}); },  // one entry left: below a quarter of 8
              ThrowsMessage<CorruptionException>(
                  "WriterHashMap::shrinkBuckets() corrupt link detected, slot: 1000"));
}

// The writer's walk index must say what the file says. A link changed behind the writer (here
// a chain's end stored with another value) leaves every chain in the file sound, and only
// the comparison with the index finds it.
TEST_F(WriterFormat, ALinkThatDiffersFromTheWalkIndexFailsValidation) {
  Writer w(config());
  w.attach();
  const uint32_t slot = slotIndexOf(w, w.write(makeValue(1, 1)));
  ASSERT_TRUE(w.validate()) << w.validationError();
  uint64_t& pair = w.slotTable().slot(slot).linkPair;
  ASSERT_TRUE(isEndOfChain(linkOf(pair)));
  pair = packLink(generationOf(pair), kEndOfChain | 7);
  EXPECT_FALSE(w.validate());
  EXPECT_EQ(w.validationError(),
            "LedgerWriter::validate() walk index differs from slot: " + std::to_string(slot));
}

TEST_F(WriterFormat, RewriteKeepsLinksAndAdvancesTheVersionByOne) {
  Writer w(config());
  w.attach();
  for (uint64_t id = 0; id < 5; ++id) w.write(makeValue(id, 1));
  const auto* stored = static_cast<const uint8_t*>(w.write(makeValue(3, 2)));
  const auto* slot = reinterpret_cast<const SlotHeader*>(stored - 16);
  uint64_t pair = slot->linkPair;
  uint32_t status = slot->status;
  uint64_t seq = w.sequence();
  EXPECT_EQ(w.write(makeValue(3, 3)), stored);
  EXPECT_EQ(slot->linkPair, pair);
  EXPECT_EQ(slot->status, status + kVersionStep);
  EXPECT_EQ(w.sequence(), seq + 1);
  EXPECT_EQ(w.write(makeValue(3, 3), WriteFlag::ifChanged), stored);  // unchanged: nothing
  EXPECT_EQ(slot->status, status + kVersionStep);
  EXPECT_EQ(w.sequence(), seq + 1);
  // Remove then write the same key: the freed slot comes straight back.
  EXPECT_TRUE(w.remove(TestKey{3}));
  EXPECT_EQ(w.write(makeValue(3, 4)), stored);
}

// Slots that a shrink cut and growth brings back start above every version and link
// generation they had: a reader that looked at one of them before the cut cannot take what it
// holds now for what it saw then.
TEST_F(WriterFormat, SlotsBroughtBackAfterAShrinkStartAboveTheirOldVersionsAndLinks) {
  // Rewriting a key in place moves only its slot's version; relinking moves only the link
  // generation. The floor must clear whichever went further.
  for (const bool inPlace : {false, true}) {
    SCOPED_TRACE(inPlace ? "versions lead" : "link generations lead");
    auto c = config(inPlace ? "rewritten" : "relinked");
    c.minSize = 0;
    Writer w(c);
    w.attach();
    for (uint64_t id = 0; id < 16; ++id) w.write(makeValue(id, 1));
    ASSERT_EQ(w.capacity(), 16u);
    for (uint64_t round = 0; round < 50; ++round) {
      for (uint64_t id = 8; id < 16; ++id) {
        if (inPlace) {
          for (uint64_t again = 0; again < 4; ++again) w.write(makeValue(id, 4 * round + again));
        } else {
          w.remove(TestKey{id});
          w.write(makeValue(id, round));
        }
      }
    }
    auto& slots = w.slotTable();
    if (!inPlace) {
      // Keys inserted and removed after a slot in its chain move its link generation and
      // leave its version alone: a hundred such link stores to slot 15.
      for (int k = 0; k < 100; ++k) {
        SlotWriterTable::storeLink(slots.slot(15).linkPair,
                                   SlotWriterTable::loadLink(slots.slot(15).linkPair));
      }
    }
    const auto steps = [&](uint32_t i) {
      return std::pair{slots.slot(i).status / kVersionStep,
                       generationOf(slots.slot(i).linkPair) / kVersionStep};
    };
    uint32_t version = 0, generation = 0;
    for (uint32_t i = 8; i < 16; ++i) {
      version = std::max(version, steps(i).first);
      generation = std::max(generation, steps(i).second);
    }
    ASSERT_GT(inPlace ? version : generation, 50u);
    ASSERT_GT(inPlace ? version : generation, inPlace ? generation : version);
    for (uint64_t id = 0; id < 14; ++id) w.remove(TestKey{id});
    ASSERT_EQ(w.capacity(), 8u);
    for (uint64_t id = 0; id < 14; ++id) w.write(makeValue(id, 2));
    ASSERT_EQ(w.capacity(), 16u);
    for (uint32_t i = 8; i < 16; ++i) {
      EXPECT_GT(steps(i).first, version) << "status of slot " << i;
      EXPECT_GT(steps(i).second, generation) << "link generation of slot " << i;
    }
    EXPECT_TRUE(w.validate()) << w.validationError();
  }
}

TEST_F(WriterFormat, DirectModeRefusesEverythingElseUntilCommitted) {
  Writer w(config());
  w.attach();
  w.write(makeValue(1, 1));
  EXPECT_THAT([&] { w.directCommit(); }, ThrowsMessage<Zinc::InternalException>(
                                             "LedgerWriter::directCommit() not in direct mode! "));
  TestValue* v = w.directUpdate(TestKey{1});
  ASSERT_NE(v, nullptr);
  uint64_t seq = w.sequence();
  auto refused = [](const std::string& message) {
    return ThrowsMessage<Zinc::InternalException>(StartsWith(message));
  };
  EXPECT_THAT([&] { w.write(makeValue(2, 1)); },
              refused("LedgerWriter::write() unbalanced directSlot:"));
  EXPECT_THAT([&] { w.remove(TestKey{1}); },
              refused("LedgerWriter::remove() unbalanced directSlot:"));
  EXPECT_THAT([&] { w.directWrite(TestKey{2}); },
              refused("LedgerWriter::directWrite() unbalanced directSlot:"));
  EXPECT_THAT([&] { w.directUpdate(TestKey{1}); },
              refused("LedgerWriter::directUpdate() unbalanced directSlot:"));
  EXPECT_EQ(w.sequence(), seq);
  EXPECT_EQ(w.members(), 1u);
  TestValue out;
  EXPECT_FALSE(w.lookup(TestKey{2}, out));
  v->version = 9;
  w.directCommit();
  EXPECT_TRUE(w.lookup(TestKey{1}, out));
  EXPECT_EQ(out.version, 9u);
  EXPECT_EQ(w.directUpdate(TestKey{5}), nullptr);
  TestValue* fresh = w.directWrite(TestKey{5});
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(fresh->k.id, 5u);
  EXPECT_FALSE(w.lookup(TestKey{5}, out));  // not reachable before the commit
  fresh->version = 3;
  w.directCommit();
  EXPECT_TRUE(w.lookup(TestKey{5}, out));
  EXPECT_EQ(out.version, 3u);
  EXPECT_TRUE(w.validate()) << w.validationError();
}

TEST_F(WriterFormat, FreeListRangeChecks) {
  Writer w(config());
  w.attach();
  auto& slots = w.slotTable();
  using Internal = Zinc::InternalException;
  EXPECT_THAT([&] { slots.addFreeSlots(4, 4); },
              ThrowsMessage<Internal>(
                  StartsWith("SlotWriterTable::addFreeSlots() bad index range, start: 4")));
  EXPECT_THAT(
      [&] { slots.addFreeSlots(0, 4); },
      ThrowsMessage<Internal>(StrEq("SlotWriterTable::addFreeSlots() free-list is not empty")));
  EXPECT_THAT([&] { slots.purgeFreeSlots(0); },
              ThrowsMessage<Internal>(StartsWith("SlotWriter::purgeFreeSlots() bad threshold: 0")));
  slots.header().occupiedSlots = 1;  // one slot unaccounted for
  EXPECT_THAT([&] { slots.purgeFreeSlots(4); },
              ThrowsMessage<CorruptionException>(
                  StrEq("SlotWriter::purgeFreeSlots() numSlots mismatch, length of freeList: 8, "
                        "occupiedSlots: 1 do not add up to numSlots: 8")));
}

TEST_F(WriterFormat, FixedSizeTablesRefuseAnotherCapacityAndFillUp) {
  auto c = config();
  c.fixedSize = true;
  c.capacity = 4;
  {
    Writer w(c);
    w.attach();
    for (uint64_t id = 0; id < 4; ++id) w.write(makeValue(id, 1));
    EXPECT_THAT([&] { w.write(makeValue(9, 1)); },
                ThrowsMessage<TableFullException>(
                    StartsWith("SlotWriter::alloc() Ledger table full (occupancy:4")));
    EXPECT_TRUE(w.validate()) << w.validationError();
  }
  c.capacity = 8;
  Writer other(c);
  EXPECT_THAT([&] { other.attach(); },
              ThrowsMessage<InitializationException>(
                  StrEq("SlotWriter::attach() wanted capacity:8 for fixed-size table, but existing "
                        "file has capacity:4")));
}

// A reader trusts a miss only where every link pair it followed is still the pair it read.
// Each store into a pair (linking a new slot in, unlinking one, a rewrite leaves it alone)
// advances its generation by 4, so a pair that got its old link back is still a new pair.
TEST_F(WriterFormat, EveryLinkStoreAdvancesItsGeneration) {
  Writer w(config());
  w.attach();
  const uint32_t bucket = bucketOf(1, w.numBuckets());
  const uint64_t& head = w.bucketTable().head(bucket);
  const uint64_t empty = head;
  w.write(makeValue(1, 1));
  const uint64_t linked = head;
  EXPECT_EQ(generationOf(linked), generationOf(empty) + 4);
  w.write(makeValue(1, 2));
  EXPECT_EQ(head, linked) << "a rewrite changes no link";
  w.remove(TestKey{1});
  EXPECT_EQ(linkOf(head), linkOf(empty));
  EXPECT_EQ(generationOf(head), generationOf(empty) + 8);
}

TEST_F(WriterFormat, OneWriterAtATime) {
  Writer a(config()), b(config());
  a.attach();
  EXPECT_THROW(b.attach(), InitializationException);
  a.detach();
  EXPECT_EQ(b.attach(), AttachResult::existing);
}

TEST_F(WriterFormat, BadHeaderIsReformattedWithANewEmber) {
  uint32_t ember;
  {
    Writer w(config());
    EXPECT_EQ(w.attach(), AttachResult::newFile);
    w.write(makeValue(1, 1));
    ember = w.emberId();
    w.slotTable().header().version = 11;
  }
  Writer w(config());
  EXPECT_EQ(w.attach(), AttachResult::reformatted);
  EXPECT_NE(w.emberId(), ember);
  EXPECT_EQ(w.members(), 0u);
  EXPECT_TRUE(w.validate()) << w.validationError();
}

// A writer configured with another table parameter does not adopt the table: its entries
// were written under the other configuration.
TEST_F(WriterFormat, AnotherTableParameterIsReformatted) {
  LedgerConfig c = config();
  c.tableParameter = 7;
  {
    Writer w(c);
    EXPECT_EQ(w.attach(), AttachResult::newFile);
    w.write(makeValue(1, 1));
  }
  {
    Writer w(c);
    EXPECT_EQ(w.attach(), AttachResult::existing);
    EXPECT_EQ(w.members(), 1u);
  }
  c.tableParameter = 8;
  Writer w(c);
  EXPECT_EQ(w.attach(), AttachResult::reformatted);
  EXPECT_EQ(w.slotTable().header().tableParameter, 8u);
  EXPECT_EQ(w.members(), 0u);
  EXPECT_TRUE(w.validate()) << w.validationError();
}

TEST_F(WriterFormat, FilesAreOwnerOnlyAndNamesAreChecked) {
  Writer w(config());
  w.attach();
  struct stat st;
  ASSERT_EQ(::stat(root.file("t", "slots").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  for (const char* bad : {"", "a/b", "..", "x..y"}) {
    Writer bw(config(bad));
    EXPECT_THROW(bw.attach(), InitializationException) << bad;
  }
}

// A writer's own corruption checks and the recovery of a half-changed table.
class Recovery : public WriterFormat {
 protected:
  void fill(Writer& w, uint64_t n) {
    for (uint64_t id = 0; id < n; ++id) w.write(makeValue(id, id));
  }
  void expectRecovered(uint64_t n, std::vector<uint64_t> gone = {}) {
    Writer w(config());
    EXPECT_EQ(w.attach(), AttachResult::recovered);
    EXPECT_TRUE(w.validate()) << w.validationError();
    TestValue v;
    for (uint64_t id = 0; id < n; ++id) {
      bool expectGone = std::count(gone.begin(), gone.end(), id) > 0;
      EXPECT_EQ(w.lookup(TestKey{id}, v), !expectGone) << id;
      if (!expectGone) {
        EXPECT_EQ(v, makeValue(id, id)) << id;
      }
    }
  }
  uint32_t slotOf(Writer& w, uint64_t id) { return slotIndexOf(w, w.write(makeValue(id, id))); }
};

// A shrink that meets a corrupt slot half-way throws, and ends with the writer's attachment:
// the writer attached again recovers the table and shrinks it as its entries go.
TEST_F(Recovery, AShrinkCutShortByCorruptionLeavesLaterShrinksAlone) {
  Writer w(config());
  w.attach();
  fill(w, 1024);
  // Another key in the top slot: the shrink's move finds it in no chain.
  auto* top = reinterpret_cast<TestValue*>(w.slotTable().value(slotOf(w, 1023)));
  top->k.id = 5000;
  bool thrown = false;
  for (uint64_t id = 0; id < 1023 && !thrown; ++id) {
    try {
      w.remove(TestKey{id});
    } catch (const CorruptionException& e) {
      EXPECT_THAT(e.what(), HasSubstr("is not in its chain"));
      thrown = true;
    }
  }
  ASSERT_TRUE(thrown);
  EXPECT_EQ(w.attach(), AttachResult::recovered);
  const uint32_t slots = w.capacity();
  for (uint64_t id = 0; id < 1023; ++id) w.remove(TestKey{id});
  EXPECT_LT(w.capacity(), slots);
  EXPECT_EQ(w.members(), 0u);
  EXPECT_TRUE(w.validate()) << w.validationError();
}

TEST_F(Recovery, StuckLookasideGetsItsCopyBack) {
  {
    Writer w(config());
    w.attach();
    fill(w, 20);
    uint32_t slot = slotOf(w, 7);
    uint8_t* stored = w.slotTable().openSlot(slot);  // a writer dying mid-rewrite
    std::memset(stored, 0xab, 60);
    EXPECT_FALSE(w.validate());
    EXPECT_THAT(w.validationError(),
                StartsWith("Validator::markOccupied() stuck LOOKASIDE bit: 0x"));
  }
  expectRecovered(20);
}

TEST_F(Recovery, UnlinkedAndDuplicatedSlotsAreResolved) {
  {
    Writer w(config());
    w.attach();
    fill(w, 30);
    // An occupied slot that no chain reaches (a remove cut short after the unlink) and a
    // second copy of a key (a move cut short after the copy).
    uint32_t slot = slotOf(w, 11);
    WriterHashMap<TestKey, Ops<TestKey, TestValue>> chains(w.slotTable(), w.bucketTable(), w.ops());
    chains.reindex();
    auto pos = chains.find(TestKey{11}, TestKey{11}.hash());
    chains.setLink(pos.pred, linkOf(w.slotTable().slot(slot).linkPair));
    uint32_t copy = w.slotTable().alloc();
    std::memcpy(&w.slotTable().slot(copy).status, &w.slotTable().slot(slotOf(w, 12)).status,
                w.slotTable().slotSize() - 8);
    EXPECT_FALSE(w.validate());
  }
  expectRecovered(30);
}

TEST_F(Recovery, ACorruptedFreeListAndCountsAreRebuilt) {
  {
    Writer w(config());
    w.attach();
    fill(w, 40);
    w.remove(TestKey{5});
    w.remove(TestKey{6});
    auto& h = w.slotTable().header();
    h.occupiedSlots += 3;
    uint32_t occupiedSlot = slotOf(w, 9);
    w.slotTable().slot(h.freeListHead).linkPair = packLink(0, occupiedSlot);
    EXPECT_FALSE(w.validate());
    EXPECT_THAT(w.validationError(),
                StartsWith("Validator::walkFreeSlots() corrupted free slot not marked as empty: "));
    // Allocation follows the list into the occupied slot and refuses to hand it out.
    w.write(makeValue(100, 100));
    EXPECT_THAT([&] { w.write(makeValue(101, 101)); },
                ThrowsMessage<CorruptionException>(StartsWith("SlotWriter::alloc() free slot " +
                                                              std::to_string(occupiedSlot) +
                                                              " is not free, status: ")));
    TestValue v;
    EXPECT_TRUE(w.lookup(TestKey{9}, v));
    EXPECT_EQ(v, makeValue(9, 9));
  }
  expectRecovered(40, {5, 6});
}

TEST_F(Recovery, ALostQueueIsRebuilt) {
  {
    Writer w(config());
    w.attach();
    fill(w, 25);
  }
  ASSERT_TRUE(SharedMem::EmberFile::unlinkFile(root.path(), "t", "rally"));
  expectRecovered(25);
}

}  // namespace
