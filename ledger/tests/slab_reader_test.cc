// Readers of a table whose values live in slabs: a reader process copying via sets while the
// writer rewrites them at changing sizes, a shadow's per-key notifications, and slab files
// that lie to the reader.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <random>

#include "ledger/tests/ShadowHarness.h"
#include "ledger/tests/SlabTestTypes.h"
#include "platform/tests/ForkedChild.h"

namespace {

using namespace LedgerTest;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ViaWriter = Ledger::LedgerWriter<ViaSetKey, ViaSet, ViaOps>;
using ViaReader = Ledger::LedgerReader<ViaSetKey, ViaSet, ViaOps>;
using ViaShadow = Ledger::LedgerShadow<ViaSetKey, ViaSet, ViaOps>;

// Each key's via count cycles through these with its version, so that every key keeps moving
// between slab classes and neighbouring keys share them.
constexpr uint32_t kSizes[] = {1, 2, 40, 128, 3};
uint32_t viasOf(uint32_t id, uint32_t version) { return kSizes[(id + version) % 5]; }
ViaSet viaSetOf(uint32_t id, uint32_t version) {
  return makeViaSet(id, viasOf(id, version), version);
}
uint32_t versionOf(const ViaSet& v) {
  uint32_t version;
  std::memcpy(&version, v.fixed, sizeof(version));
  return version;
}

// A via-set writer whose commits kick its readers at flush().
struct ViaTableWriter : KickingWriterOf<ViaWriter> {
  explicit ViaTableWriter(const std::string& root) : KickingWriterOf(root, "viaSet", 16) {}
};

// Per-key events, checked as they come: whole via sets, versions of a key strictly growing
// (an unchanged rewrite would repeat one), no deletion of an absent key.
struct ViaEvents {
  std::map<uint32_t, uint32_t> present;
  std::map<uint32_t, uint32_t> last;
  std::vector<std::string> errors;

  void error(const std::string& e) {
    if (errors.size() < 20) errors.push_back(e);
  }
  Ledger::Notify<ViaSetKey, ViaSet> notifier() {
    Ledger::Notify<ViaSetKey, ViaSet> n;
    n.onKey = [this](const ViaSetKey& k, const ViaSet* v) { onKey(k, v); };
    return n;
  }
  void onKey(const ViaSetKey& k, const ViaSet* v) {
    const std::string key = std::to_string(k.id);
    if (!v) {
      if (!present.erase(k.id)) error("deleted absent key " + key);
      return;
    }
    if (v->key.id != k.id || !wholeViaSet(*v, viasOf)) error("torn via set for key " + key);
    const uint32_t version = versionOf(*v);
    if (last.count(k.id) && version <= last[k.id]) {
      error("key " + key + " version " + std::to_string(version) + " after " +
            std::to_string(last[k.id]));
    }
    last[k.id] = present[k.id] = version;
  }
};

void writeMap(std::ofstream& out, const std::map<uint32_t, uint32_t>& m) {
  out << m.size() << "\n";
  for (auto [k, v] : m) out << k << " " << v << "\n";
}
std::map<uint32_t, uint32_t> readMap(std::ifstream& in) {
  size_t n = 0;
  in >> n;
  std::map<uint32_t, uint32_t> m;
  for (size_t i = 0; i < n; ++i) {
    uint32_t k, v;
    in >> k >> v;
    m[k] = v;
  }
  return m;
}

// The reader process: a shadow with checked events, and direct lookups through the shadow's
// mapping every millisecond. On 'f' from `ctl` it finishes consuming, writes what it holds
// and what it saw wrong to `resultPath`.
int readerMain(const std::string& root, int ctl, const std::string& resultPath, uint32_t keys) {
  Zinc::Loop loop;
  ViaEvents events;
  Ledger::ShadowOptions options;
  options.mountRetry = 5ms;
  options.yieldTime = 200us;
  ViaShadow shadow(Ledger::ReaderConfig{root, "viaSet"}, loop, events.notifier(), ViaOps(),
                   options);
  auto report = [&](const std::string& why) { events.error("corruption reported: " + why); };
  shadow.reader().corruptionHandlerIs(report);
  shadow.corruptionHandlerIs(report);
  shadow.initialize();
  std::mt19937 rng(::getpid());
  uint64_t lookups = 0;
  loop.timerEvery(1ms, [&] {
    if (!shadow.reader().attached()) return;
    for (int i = 0; i < 2000; ++i, ++lookups) {
      ViaSet v;
      const uint32_t id = rng() % keys;
      if (shadow.reader().lookup(ViaSetKey{id}, v) && (v.key.id != id || !wholeViaSet(v, viasOf))) {
        events.error("torn direct read of key " + std::to_string(id));
      }
    }
  });
  bool finishing = false;
  loop.fdWatchIs(ctl, [&](uint32_t) {
    char c;
    if (::read(ctl, &c, 1) <= 0 || c == 'f') finishing = true;
  });
  const auto deadline = Zinc::Loop::now() + 120s;
  while (!(finishing && shadow.quiesced())) {
    if (Zinc::Loop::now() > deadline) return 3;
    loop.runOnce(20ms);
  }
  std::map<uint32_t, uint32_t> held;
  shadow.store().forEach([&](const ViaSetKey& k, const ViaSet* v) {
    held[k.id] = versionOf(*v);
    if (!wholeViaSet(*v, viasOf)) events.error("torn via set held for key " + std::to_string(k.id));
  });
  std::ofstream out(resultPath);
  writeMap(out, held);
  writeMap(out, events.present);
  out << lookups << " " << events.errors.size() << "\n";
  for (const auto& e : events.errors) out << e << "\n";
  return out.good() ? 0 : 4;
}

// A reader process started on `root`, finished by finish(): what its shadow held, what its
// events left present, how many direct lookups it made; what it saw wrong fails the test.
struct ViaReaderProcess {
  std::string resultPath;
  TestSupport::ForkedChild child;

  ViaReaderProcess(const std::string& root, uint32_t keys)
      : resultPath(root + "-result"),
        child([&](int, int ctl) { return readerMain(root, ctl, resultPath, keys); }) {}
  ~ViaReaderProcess() {
    child.kill();
    ::unlink(resultPath.c_str());
  }
  struct Result {
    std::map<uint32_t, uint32_t> held, present;
    uint64_t lookups = 0;
  };
  Result finish() {
    EXPECT_TRUE(child.tell('f'));
    const int status = child.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reader status " << status;
    std::ifstream in(resultPath);
    Result r;
    r.held = readMap(in);
    r.present = readMap(in);
    size_t errorCount = 0;
    in >> r.lookups >> errorCount;
    std::string line;
    std::getline(in, line);
    for (size_t i = 0; i < errorCount && std::getline(in, line); ++i) ADD_FAILURE() << line;
    EXPECT_EQ(errorCount, 0u);
    return r;
  }
};

void expectReaderMatches(const ViaReaderProcess::Result& r,
                         const std::map<uint32_t, uint32_t>& expected) {
  EXPECT_EQ(r.held, expected) << "the shadow ends equal to the writer";
  EXPECT_EQ(r.present, expected) << "the events tell every key's last version";
  EXPECT_GT(r.lookups, 0u);
}

TEST(SlabReaderProcess, CopiesWholeViaSetsWhileTheWriterResizesAndReusesThem) {
  TempRoot root;
  constexpr uint32_t kKeys = 24;
  constexpr uint32_t kRounds = 1500;
  ViaReaderProcess reader(root.path(), kKeys);
  ViaTableWriter w(root.path());
  std::map<uint32_t, uint32_t> expected;
  // Churn for at least a second, so that the reader's copies overlap many rewrites.
  const auto churnUntil = std::chrono::steady_clock::now() + 1s;
  for (uint32_t round = 1; round <= kRounds || std::chrono::steady_clock::now() < churnUntil;
       ++round) {
    for (uint32_t id = 0; id < kKeys; ++id) {
      if ((id + round) % 7 == 0) {
        w.writer.remove(ViaSetKey{id});
        expected.erase(id);
      } else if ((id + round) % 11 == 0 && expected.count(id)) {
        w.writer.write(viaSetOf(id, expected[id]), Ledger::WriteFlag::always);  // unchanged
      } else {
        w.writer.write(viaSetOf(id, round));
        expected[id] = round;
      }
      if (id % 16 == 15) w.flush();
    }
    w.flush();
  }
  ASSERT_TRUE(w.writer.validate()) << w.writer.validationError();
  // Freed entries are reused: no class holds many more entries than there are keys.
  for (uint32_t c = 0; c < Shape::kNumClasses; ++c) {
    EXPECT_LE(w.writer.ops().allocator().slab(c).numEntries(), 2 * kKeys + 16) << "class " << c;
  }
  expectReaderMatches(reader.finish(), expected);
}

// Random churn over two thousand keys in phases that grow the table and shrink it again, so
// that slots are moved and reused under a reader that falls behind, with every value out of
// line. READER_STRESS_OPS / 10 operations when set (ledger/tests/stress.sh).
TEST(SlabReaderProcess, FollowsAChurnThatGrowsAndShrinksTheTable) {
  TempRoot root;
  constexpr uint32_t kKeys = 2000;
  const char* env = std::getenv("READER_STRESS_OPS");
  const uint64_t ops = env ? std::strtoull(env, nullptr, 10) / 10 : 60000;
  ViaReaderProcess reader(root.path(), kKeys);
  ViaTableWriter w(root.path());
  std::mt19937_64 rng(7);
  std::map<uint32_t, uint32_t> expected, version;
  for (uint64_t done = 0; done < ops;) {
    // Thirds of 30000 operations: mostly inserts, a mix, mostly removes.
    const int bias = int(done / 10000 % 3) * 40 - 40;
    for (uint64_t batch = 1 + rng() % 64; batch > 0 && done < ops; --batch, ++done) {
      const uint32_t id = uint32_t(rng() % kKeys);
      const int kind = std::clamp(int(rng() % 100) + bias, 0, 99);
      if (kind < 50 || (kind < 62 && !expected.count(id))) {
        expected[id] = ++version[id];
        w.writer.write(viaSetOf(id, expected[id]));
      } else if (kind < 62) {
        w.writer.write(viaSetOf(id, expected[id]), Ledger::WriteFlag::always);  // unchanged
      } else {
        w.writer.remove(ViaSetKey{id});
        expected.erase(id);
      }
    }
    w.flush();
  }
  ASSERT_TRUE(w.writer.validate()) << w.writer.validationError();
  const auto counters = w.writer.writerCounters();
  EXPECT_GT(counters.slotShrinks, 0u);
  EXPECT_GT(counters.bucketShrinks, 0u);
  expectReaderMatches(reader.finish(), expected);
}

// Runs `loop` until `done` or a deadline, then a little longer to catch stray events.
template <class Done>
void runUntil(Zinc::Loop& loop, Done done) {
  const auto deadline = Zinc::Loop::now() + 10s;
  while (!done() && Zinc::Loop::now() < deadline) loop.runOnce(5ms);
  for (int i = 0; i < 5; ++i) loop.runOnce(1ms);
}

TEST(SlabShadow, NotifiesEachChangedKeyOnceAndNoUnchangedRewrite) {
  TempRoot root;
  ViaTableWriter w(root.path());
  Zinc::Loop loop;
  std::vector<std::pair<uint32_t, std::optional<size_t>>> events;
  Ledger::Notify<ViaSetKey, ViaSet> notify;
  notify.onKey = [&](const ViaSetKey& k, const ViaSet* v) {
    events.emplace_back(k.id, v ? std::optional<size_t>(v->vias.size()) : std::nullopt);
  };
  ViaShadow shadow(Ledger::ReaderConfig{root.path(), "viaSet"}, loop, notify);
  ASSERT_TRUE(shadow.initialize());
  runUntil(loop, [&] { return shadow.inStep(); });
  using Events = decltype(events);
  auto step = [&](auto writes, const Events& want) {
    events.clear();
    writes();
    w.flush();
    runUntil(loop, [&] { return events.size() >= want.size(); });
    EXPECT_EQ(events, want);
  };
  step([&] { w.writer.write(makeViaSet(1, 1, 1)); }, {{1, 1}});
  step(
      [&] {
        w.writer.write(makeViaSet(1, 1, 1), Ledger::WriteFlag::always);  // a new slab entry
        w.writer.write(makeViaSet(2, 2, 1));
      },
      {{2, 2}});
  step([&] { w.writer.write(makeViaSet(1, 40, 2)); }, {{1, 40}});
  step(
      [&] {
        w.writer.write(makeViaSet(1, 128, 3));
        w.writer.write(makeViaSet(1, 3, 4));
      },
      {{1, 3}});
  step([&] { w.writer.remove(ViaSetKey{1}); }, {{1, std::nullopt}});
  ViaSet v;
  EXPECT_TRUE(shadow.lookup(ViaSetKey{2}, v));
  EXPECT_EQ(v, makeViaSet(2, 2, 1));
  EXPECT_FALSE(shadow.lookup(ViaSetKey{1}, v));
}

// ---- slab files that lie ----

void patch(const std::string& path, uint64_t offset, const void* bytes, size_t size) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(std::streamoff(offset));
  f.write(static_cast<const char*>(bytes), std::streamsize(size));
  ASSERT_TRUE(f.good()) << path;
}
template <class T>
void patchValue(const std::string& path, uint64_t offset, T value) {
  patch(path, offset, &value, sizeof(value));
}

// A table of a few via sets, with a reader whose corruption reports are collected.
struct LyingSlabs : ::testing::Test {
  TempRoot root;
  ViaTableWriter w{root.path()};
  std::vector<std::string> reports;

  void SetUp() override {
    for (uint32_t id = 1; id <= 8; ++id) w.writer.write(makeViaSet(id, 2, 1));  // class 1
  }
  std::unique_ptr<ViaReader> reader() {
    auto r = std::make_unique<ViaReader>(Ledger::ReaderConfig{root.path(), "viaSet"});
    r->attach();
    r->corruptionHandlerIs([this](const std::string& why) { reports.push_back(why); });
    return r;
  }
  Shape::Offset offsetOf(ViaReader& r, uint32_t id) {
    const uint32_t slot = r.findSlot(ViaSetKey{id});
    Shape::Offset o;
    std::memcpy(&o, r.slotTable().value(slot), sizeof(o));
    return o;
  }
  // Makes slot `slot` refer to `o` instead of its own slab entry.
  void referTo(ViaReader& r, uint64_t slot, Shape::Offset o) {
    patchValue(root.file("viaSet", "slots"),
               Ledger::kSlotTableHeaderSize + (slot + 1) * r.slotTable().slotSize() + 16, o);
  }
  std::string slab(uint32_t c) { return root.file("viaSet", "slab." + std::to_string(c)); }
  static uint64_t entryAt(Shape::Offset o) {
    return sizeof(Shape::SlabHeader) + uint64_t{o.index()} * Shape::entrySizeOf(o.sizeClass());
  }
  std::string lastReport() const { return reports.empty() ? "" : reports.back(); }
};

TEST_F(LyingSlabs, ImpossiblePayloadSizeIsReported) {
  auto r = reader();
  const Shape::Offset o = offsetOf(*r, 3);
  const uint32_t maxPayload = Shape::maxPayloadOf(o.sizeClass());
  patchValue<uint32_t>(slab(o.sizeClass()), entryAt(o), maxPayload + 1);
  ViaSet v;
  EXPECT_FALSE(r->lookup(ViaSetKey{3}, v));
  EXPECT_THAT(lastReport(), HasSubstr("payload size " + std::to_string(maxPayload + 1) +
                                      " beyond maxPayload " + std::to_string(maxPayload)));
  EXPECT_TRUE(r->lookup(ViaSetKey{4}, v)) << "the other via sets still read";
  EXPECT_EQ(v, makeViaSet(4, 2, 1));
}

TEST_F(LyingSlabs, EntryBeyondTheFileIsReported) {
  auto r = reader();
  const uint32_t slot = r->findSlot(ViaSetKey{5});
  referTo(*r, slot, Shape::Offset::of(1, 100000));
  ViaSet v;
  EXPECT_FALSE(r->lookup(ViaSetKey{5}, v));
  EXPECT_THAT(lastReport(), HasSubstr("entry 100000 beyond slab.1"));
  referTo(*r, slot, Shape::Offset::of(99, 0));
  EXPECT_FALSE(r->lookup(ViaSetKey{5}, v));
  EXPECT_THAT(lastReport(), HasSubstr("no size class 99"));
}

TEST_F(LyingSlabs, BadMagicIsReportedWhenTheSlabIsMapped) {
  patch(slab(1), 0, "XXXXXXXX", 8);
  auto r = reader();
  ViaSet v;
  EXPECT_FALSE(r->lookup(ViaSetKey{1}, v));
  EXPECT_THAT(lastReport(), HasSubstr("SlabHeader::validate() bad magic: "));
  EXPECT_FALSE(r->first(v));
}

TEST_F(LyingSlabs, FreeListLoopIsFoundByTheChecks) {
  for (uint32_t id = 1; id <= 4; ++id) w.writer.remove(ViaSetKey{id});
  ASSERT_TRUE(w.writer.validate()) << w.writer.validationError();
  const Shape::SlabHeader& h = w.writer.ops().allocator().slab(1).header();
  const uint32_t head = h.freeList;
  ASSERT_NE(head, Shape::kNoEntry);
  patchValue<uint32_t>(slab(1), entryAt(Shape::Offset::of(1, head)) + 4, head);
  EXPECT_FALSE(w.writer.validate());
  EXPECT_THAT(w.writer.validationError(), HasSubstr("slab.1 free list loop at entry"));
  Shape::SlabReader mapped;
  mapped.attach(root.path(), "viaSet", 1, 0);
  EXPECT_THAT(mapped.check(), HasSubstr("free list loop"));
  auto r = reader();
  ViaSet v;
  EXPECT_TRUE(r->lookup(ViaSetKey{6}, v)) << "a reader does not walk the free list";
}

// The writer's validator finds every way in which slots and slab entries disagree. A slot's
// key lives in its payload, so a slot made to refer to another entry is first a corrupt key,
// or a reference to nothing, before it is a second reference.
TEST_F(LyingSlabs, TheValidatorFindsASlotReferringToAnotherEntry) {
  auto r = reader();
  const uint32_t five = r->findSlot(ViaSetKey{5});
  referTo(*r, five, offsetOf(*r, 4));
  EXPECT_FALSE(w.writer.validate());
  EXPECT_THAT(w.writer.validationError(),
              HasSubstr("corrupt key in slot: " + std::to_string(five)));
}

TEST_F(LyingSlabs, TheValidatorFindsASlotReferringToAFreedEntry) {
  auto r = reader();
  const Shape::Offset one = offsetOf(*r, 1);
  const uint32_t six = r->findSlot(ViaSetKey{6});
  ASSERT_TRUE(w.writer.remove(ViaSetKey{1}));
  referTo(*r, six, one);
  EXPECT_FALSE(w.writer.validate());
  EXPECT_THAT(w.writer.validationError(),
              HasSubstr("slot: " + std::to_string(six) + " refers to no stored value"));
}

TEST_F(LyingSlabs, TheValidatorFindsEntriesThatTheCountsDoNotMatch) {
  const Shape::SlabHeader& h = w.writer.ops().allocator().slab(1).header();
  ASSERT_EQ(h.numOccupied, 8u);
  patchValue<uint32_t>(slab(1), offsetof(Shape::SlabHeader, numOccupied), 7);
  EXPECT_FALSE(w.writer.validate());
  EXPECT_THAT(w.writer.validationError(), HasSubstr("slab entries:7 for occupied slots:8"));
  patchValue<uint32_t>(slab(1), offsetof(Shape::SlabHeader, numOccupied), 8);
  ASSERT_TRUE(w.writer.validate()) << w.writer.validationError();
  w.writer.ops().allocator().alloc(40);  // an entry that no slot will ever refer to
  EXPECT_FALSE(w.writer.validate());
  EXPECT_THAT(w.writer.validationError(), HasSubstr("slab entries:9 for occupied slots:8"));
}

TEST_F(LyingSlabs, TheValidatorFindsAFreeListThatLies) {
  auto r = reader();
  const Shape::Offset two = offsetOf(*r, 2);
  ASSERT_TRUE(w.writer.remove(ViaSetKey{2}));
  ASSERT_TRUE(w.writer.validate()) << w.writer.validationError();
  patchValue<uint32_t>(slab(1), entryAt(two), 7);  // a payload size on a free entry
  EXPECT_FALSE(w.writer.validate());
  EXPECT_THAT(
      w.writer.validationError(),
      HasSubstr("slab.1 free list entry " + std::to_string(two.index()) + " holds a payload"));
  // Nor does the writer hand that entry out again: the write fails, and changes nothing.
  EXPECT_THAT(
      [&] { w.writer.write(makeViaSet(9, 2, 1)); },
      ::testing::ThrowsMessage<Ledger::CorruptionException>(
          "WriterAllocator::alloc() corrupt free list at entry " + std::to_string(two.index())));
  patchValue<uint32_t>(slab(1), entryAt(two), 0);
  ASSERT_TRUE(w.writer.validate()) << w.writer.validationError();
  const uint32_t highWater = w.writer.ops().allocator().slab(1).header().highWater;
  patchValue<uint32_t>(slab(1), offsetof(Shape::SlabHeader, freeList), highWater);
  EXPECT_FALSE(w.writer.validate());
  EXPECT_THAT(
      w.writer.validationError(),
      HasSubstr("slab.1 free list entry " + std::to_string(highWater) + " beyond the file"));
}

// Under the validator, the allocator's own check holds each entry against the references
// it is given: one reference for each entry in use, none for a free one.
TEST_F(LyingSlabs, TheAllocatorCheckHoldsEveryEntryAgainstItsReferences) {
  auto r = reader();
  std::vector<Shape::Offset> live;
  for (uint32_t id = 1; id <= 8; ++id) live.push_back(offsetOf(*r, id));
  const Shape::WriterAllocator& allocator = w.writer.ops().allocator();
  EXPECT_EQ(allocator.check(live), "");
  auto without = [&](size_t k) {
    std::vector<Shape::Offset> fewer = live;
    fewer.erase(fewer.begin() + std::ptrdiff_t(k));
    return fewer;
  };
  const std::string entry3 = "slab.1 entry " + std::to_string(live[3].index());
  std::vector<Shape::Offset> twice = without(2);
  twice.push_back(live[3]);
  EXPECT_EQ(allocator.check(twice), entry3 + " referenced twice");
  EXPECT_THAT(allocator.check(without(3)), HasSubstr(entry3 + " in use but referenced by no slot"));
  ASSERT_TRUE(w.writer.remove(ViaSetKey{4}));  // frees live[3]
  EXPECT_THAT(allocator.check(live), HasSubstr(entry3 + " referenced but free"));
  EXPECT_EQ(allocator.check(without(3)), "");
  std::vector<Shape::Offset> nowhere = without(3);
  nowhere.push_back(Shape::Offset::of(1, 100000));
  EXPECT_EQ(allocator.check(nowhere),
            "WriterAllocator::check() reference to no slab entry: 0x"
            "80000001000186a0");
}

TEST_F(LyingSlabs, ArbitraryBytesNeverCrashTheReader) {
  std::mt19937 rng(11);
  for (uint32_t id = 10; id < 40; ++id) w.writer.write(makeViaSet(id, id % 130, 1));
  for (int round = 0; round < 40; ++round) {
    const uint32_t c = rng() % Shape::kNumClasses;
    std::vector<uint8_t> junk(64 + rng() % 512);
    for (auto& b : junk) b = uint8_t(rng() % 3 == 0 ? 0xff : rng());
    patch(slab(c), rng() % 600, junk.data(), junk.size());
    auto r = reader();
    ViaSet v;
    for (uint32_t id = 1; id < 40; ++id) r->lookup(ViaSetKey{id}, v);
    uint32_t n = 0;
    for (bool more = r->first(v); more && n < 100; more = r->next(v.key, v)) ++n;
  }
  EXPECT_FALSE(reports.empty());
}

}  // namespace
