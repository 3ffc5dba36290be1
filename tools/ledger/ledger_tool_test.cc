// The `ledger` tool against real tables: a writer's files, corrupt files, and a writer in
// another process while `watch` follows it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "ledger/Shape.h"
#include "ledger/tests/CheckedTable.h"
#include "ledger/tests/ShadowHarness.h"
#include "ledger/tests/SlabTestTypes.h"
#include "lfib/LfibStatus.h"
#include "platform/tests/ForkedChild.h"
#include "tools/ledger/LedgerTool.h"

namespace {

using namespace LedgerTest;
using ::testing::MatchesRegex;
using TestSupport::ForkedChild;

struct ToolRun {
  int status;
  std::string out;
  std::string err;
};

ToolRun tool(const TempRoot& root, std::vector<std::string> args) {
  args.insert(args.begin(), {"--root", root.path()});
  std::ostringstream out, err;
  int status = LedgerTool::run(args, out, err);
  return {status, out.str(), err.str()};
}

bool contains(const std::string& s, const std::string& what) {
  return s.find(what) != std::string::npos;
}

TEST(LedgerTool, HelpUsageAndMissingTables) {
  TempRoot root;
  std::filesystem::create_directories(root.path());
  EXPECT_EQ(tool(root, {"--help"}).status, 0);
  for (const char* command : {"ls", "show", "validate", "dump", "watch"}) {
    auto r = tool(root, {command, "--help"});
    EXPECT_EQ(r.status, 0) << command;
    EXPECT_TRUE(contains(r.out, std::string("ledger [--root DIR] ") + command)) << r.out;
  }
  auto unknown = tool(root, {"frobnicate"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_TRUE(contains(unknown.err, "unknown command 'frobnicate'"));
  for (const char* command : {"show", "validate", "dump", "watch"}) {
    auto missing = tool(root, {command, "nosuch"});
    EXPECT_EQ(missing.status, 2) << command;
    EXPECT_TRUE(contains(missing.err, "no table 'nosuch'")) << missing.err;
  }
  EXPECT_EQ(tool(root, {"show"}).status, 2) << "a table is needed";
  EXPECT_EQ(tool(root, {"show", "../etc"}).status, 2);
  // Bad options: each refused with what is wrong, before anything is opened.
  const std::vector<std::pair<std::vector<std::string>, std::string>> badOptions = {
      {{"watch", "routes", "--count", "12x"},
       "--count wants a number of lines (1 or more), not '12x'"},
      {{"watch", "routes", "--count", ""}, "--count wants a number of lines (1 or more), not ''"},
      {{"watch", "routes", "--count", "-5"},
       "--count wants a number of lines (1 or more), not '-5'"},
      {{"watch", "routes", "--count", "0"}, "--count wants a number of lines (1 or more), not '0'"},
      {{"watch", "routes", "--count", "99999999999999999999"},
       "--count wants a number of lines (1 or more), not '99999999999999999999'"},
      {{"watch", "routes", "--count"}, "--count needs a value"},
      {{"ls", "--root"}, "--root needs a value"},
      {{"dump", "routes", "--frob"}, "unknown option --frob"},
      {{"dump", "routes", "extra"}, "unexpected argument extra"},
      // Each option belongs to one command; elsewhere it is refused, not ignored.
      {{"ls", "--json"}, "--json is an option of 'dump' only, not of 'ls'"},
      {{"show", "routes", "--once"}, "--once is an option of 'validate' only, not of 'show'"},
      {{"dump", "routes", "--count", "3"}, "--count is an option of 'watch' only, not of 'dump'"},
  };
  for (const auto& [args, message] : badOptions) {
    auto r = tool(root, args);
    EXPECT_EQ(r.status, 2) << message;
    EXPECT_TRUE(contains(r.err, "ledger: " + message)) << r.err;
    EXPECT_EQ(r.out, "") << message;
  }
}

TEST(LedgerTool, InspectsAHealthyTable) {
  TempRoot root;
  KickingWriter w(root.path(), "routes");
  for (uint64_t id = 0; id < 30; ++id) w.writer.write(makeValue(id, 1));
  auto ls = tool(root, {"ls"});
  EXPECT_EQ(ls.status, 0);
  EXPECT_TRUE(contains(ls.out, "routes")) << ls.out;
  EXPECT_TRUE(contains(ls.out, " 30 ")) << ls.out;
  EXPECT_TRUE(contains(ls.out, std::to_string(::getpid()))) << "the live writer";
  auto show = tool(root, {"show", "routes"});
  EXPECT_EQ(show.status, 0);
  EXPECT_TRUE(contains(show.out, "occupiedSlots: 30")) << show.out;
  EXPECT_TRUE(contains(show.out, "writerAlive: yes")) << show.out;
  EXPECT_TRUE(contains(show.out, "valueTypeName: LedgerTest::TestValue")) << show.out;
  auto valid = tool(root, {"validate", "routes"});
  EXPECT_EQ(valid.status, 0) << valid.out;
  auto dump = tool(root, {"dump", "routes"});
  EXPECT_EQ(dump.status, 0);
  EXPECT_EQ(dump.err, "");
  EXPECT_EQ(std::count(dump.out.begin(), dump.out.end(), '\n'), 30);
  TestValue v = makeValue(7, 1);
  std::string hex7;
  for (size_t i = 0; i < 8; ++i) {
    char b[3];
    std::snprintf(b, sizeof(b), "%02x", reinterpret_cast<uint8_t*>(&v)[i]);
    hex7 += b;
  }
  EXPECT_TRUE(contains(dump.out, " " + hex7)) << "key 7's bytes";
  auto json = tool(root, {"dump", "routes", "--json"});
  EXPECT_EQ(json.status, 0);
  EXPECT_TRUE(contains(json.out, "\"entries\": [")) << json.out;
  EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '{'), 31);
}

template <class Fn>
void patch(const TempRoot& root, const char* file, Fn fn) {
  SharedMem::EmberFile f;
  ASSERT_TRUE(f.open(root.path(), "routes", file, SharedMem::EmberFile::Access::ReadWrite, false));
  fn(f.base());
}

TEST(LedgerTool, ReportsCorruptTables) {
  TempRoot root;
  KickingWriter w(root.path(), "routes");
  for (uint64_t id = 0; id < 10; ++id) w.writer.write(makeValue(id, 1));
  const uint32_t slotSize = w.writer.slotTable().slotSize();
  // A chained slot that lost its OCCUPIED bit.
  uint32_t victim = 0;
  while (!(w.writer.slotTable().slot(victim).status & Ledger::kOccupied)) ++victim;
  patch(root, "slots", [&](uint8_t* base) {
    auto* s = reinterpret_cast<Ledger::SlotHeader*>(base + Ledger::kSlotTableHeaderSize +
                                                    (victim + 1) * slotSize);
    s->status &= ~Ledger::kOccupied;
  });
  auto bad = tool(root, {"validate", "routes"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_TRUE(
      contains(bad.out, "validation failed: Validator::markOccupied() missing OCCUPIED bit"))
      << bad.out;
  auto dump = tool(root, {"dump", "routes"});
  EXPECT_EQ(dump.status, 0) << "dump shows what is there";
  EXPECT_EQ(std::count(dump.out.begin(), dump.out.end(), '\n'), 9);
  EXPECT_TRUE(contains(dump.err, "9 entries shown, but the header counts 10 members")) << dump.err;
  // A header that no longer validates.
  patch(root, "slots", [](uint8_t* base) { base[0] = 'X'; });
  auto header = tool(root, {"show", "routes"});
  EXPECT_EQ(header.status, 1);
  EXPECT_TRUE(contains(header.err, "bad magic")) << header.err;
  EXPECT_EQ(tool(root, {"validate", "routes", "--once"}).status, 1);
  auto ls = tool(root, {"ls"});
  EXPECT_EQ(ls.status, 0);
  EXPECT_TRUE(contains(ls.out, "unreadable")) << ls.out;
}

// The tool checks a live table read-only, without the writer's state or its key type, but
// what it finds it names in the writer's validator's words: each breakage it can see (some only
// it can: what the files say against the writer's own state) gives its verdict, word for word.
TEST(LedgerTool, ValidateFindsWhatTheWritersValidatorFinds) {
  for (const Breakage& b : breakages()) {
    if (b.seenBy == SeenBy::writerOnly) continue;
    CheckedTable t;
    const std::string expected = b.apply(t);
    auto run = tool(t.root, {"validate", "checked", "--once"});
    EXPECT_EQ(run.status, 1) << b.name;
    EXPECT_EQ(run.out, "Validator::validate() Ledger checked validation failed: " + expected + "\n")
        << b.name;
  }
}

// The change queue's lines in `show`, and `validate` on a queue whose header is damaged.
TEST(LedgerTool, ReportsACorruptChangeQueue) {
  TempRoot root;
  KickingWriter w(root.path(), "routes");
  for (uint64_t id = 0; id < 10; ++id) w.writer.write(makeValue(id, 1));
  const std::string queue = Ledger::rallyQueueName(w.writer.rally().generation());
  auto show = tool(root, {"show", "routes"});
  EXPECT_TRUE(contains(show.out, "rallyLatestSeq: 10\nrallyCount: 10\n")) << show.out;
  EXPECT_TRUE(contains(show.out, "rallyBaseSeq: 0\n")) << show.out;
  // A base beyond the newest sequence (a finding the writer's own state keeps it from making).
  patch(root, queue.c_str(),
        [&](uint8_t* base) { reinterpret_cast<Ledger::RallyQueueHeader*>(base)->baseSeq = 11; });
  auto baseBeyond = tool(root, {"validate", "routes", "--once"});
  EXPECT_EQ(baseBeyond.status, 1);
  EXPECT_TRUE(contains(baseBeyond.out, "rally base:11 beyond latest sequence:10"))
      << baseBeyond.out;
  // A count beyond the queue's capacity: show says so and goes on, the other commands report
  // the table corrupt.
  patch(root, queue.c_str(), [&](uint8_t* base) {
    auto& header = *reinterpret_cast<Ledger::RallyQueueHeader*>(base);
    header.baseSeq = 0;
    header.count = header.capacity + 1;
  });
  auto countBeyond = tool(root, {"show", "routes"});
  EXPECT_EQ(countBeyond.status, 0);
  EXPECT_TRUE(contains(countBeyond.out, "rallyCount: corrupt: ")) << countBeyond.out;
  EXPECT_TRUE(contains(countBeyond.out, "rallyBaseSeq: 0\n")) << "the lines after it still come";
  EXPECT_EQ(tool(root, {"validate", "routes", "--once"}).status, 1);
  // A writer pid beyond pid_t's range is nobody (kill() would take -1 for every process).
  patch(root, "rally", [](uint8_t* base) {
    reinterpret_cast<Ledger::RallyControl*>(base)->writerPid = 0xffffffff;
  });
  EXPECT_TRUE(contains(tool(root, {"show", "routes"}).out, "writerAlive: no\n"));
}

// Table names (any bytes but '/' and NUL) as JSON strings: whatever the bytes, the string is
// valid JSON, and well-formed UTF-8 stays as it is.
TEST(LedgerTool, DumpJsonEscapesAnyBytes) {
  TempRoot root;
  const std::vector<std::pair<std::string, std::string>> names = {
      {"ctl\x01\x1f\t\n", R"(ctl\u0001\u001f\u0009\u000a)"},
      {"quote\"back\\", R"(quote\"back\\)"},
      {"utf8-\xc3\xa9-\xe2\x82\xac-\xf0\x9f\x98\x80\x7f",
       "utf8-\xc3\xa9-\xe2\x82\xac-\xf0\x9f\x98\x80\x7f"},
      // A stray byte, a character cut short, an overlong '/', a surrogate, beyond U+10FFFF.
      {"bad-\xff-\xc3", R"(bad-\u00ff-\u00c3)"},
      {"bad-\xc0\xaf-\xed\xa0\x80-\xf4\x90\x80\x80",
       R"(bad-\u00c0\u00af-\u00ed\u00a0\u0080-\u00f4\u0090\u0080\u0080)"},
  };
  for (const auto& [name, escaped] : names) {
    Writer w(tableConfig(root.path(), name, 64));
    w.attach();
    w.write(makeValue(1, 1));
    auto json = tool(root, {"dump", name, "--json"});
    EXPECT_EQ(json.status, 0) << escaped << json.err;
    EXPECT_EQ(json.out.substr(0, json.out.find(", \"valueSize\"")),
              "{\"table\": \"" + escaped + "\"")
        << escaped;
  }
}

// A slot's slab reference is checked against the slab's own entries: one beyond them is
// reported as such (and sizes nothing), not as a slab entry that no slot refers to.
TEST(LedgerTool, ValidateFindsSlabReferencesBeyondTheSlab) {
  TempRoot root;
  Ledger::LedgerWriter<ViaSetKey, ViaSet, ViaOps> w(tableConfig(root.path(), "routes", 64));
  w.attach();
  w.write(makeViaSet(1, 2, 1));
  uint32_t slot = 0;
  while (!(w.slotTable().slot(slot).status & Ledger::kOccupied)) ++slot;
  Shape::Offset offset;
  std::memcpy(&offset, w.slotTable().value(slot), sizeof(offset));
  const std::string slab = "slab." + std::to_string(offset.sizeClass());
  uint32_t entries = 0;
  patch(root, slab.c_str(),
        [&](uint8_t* base) { entries = reinterpret_cast<Shape::SlabHeader*>(base)->numEntries; });
  ASSERT_GT(entries, 0u);
  const uint64_t valueAt = Ledger::kSlotTableHeaderSize +
                           uint64_t{slot + 1} * w.slotTable().slotSize() + Ledger::kSlotHeaderSize;
  for (uint32_t index : {entries, 0x7ffffff0u, 0xffffffffu}) {
    patch(root, "slots", [&](uint8_t* base) {
      const Shape::Offset beyond = Shape::Offset::of(offset.sizeClass(), index);
      std::memcpy(base + valueAt, &beyond, sizeof(beyond));
    });
    auto run = tool(root, {"validate", "routes", "--once"});
    EXPECT_EQ(run.status, 1) << index;
    EXPECT_EQ(run.out,
              "Validator::validate() Ledger routes validation failed: "
              "Validator::doValidate() slot " +
                  std::to_string(slot) + " refers to " + slab + " entry " + std::to_string(index) +
                  " beyond its " + std::to_string(entries) + " entries\n");
  }
  patch(root, "slots",
        [&](uint8_t* base) { std::memcpy(base + valueAt, &offset, sizeof(offset)); });
  EXPECT_EQ(tool(root, {"validate", "routes", "--once"}).status, 0);
}

// Runs `ledger watch TABLE --count N` in a child process that writes to a file.
class Watcher {
 public:
  Watcher(const TempRoot& root, const char* count)
      : output_(root.path() + "-watch"), child_([&](int) {
          std::ofstream out(output_);
          std::vector<std::string> args{"--root", root.path(), "watch", "routes", "--count", count};
          return LedgerTool::run(args, out, out);
        }) {}
  ~Watcher() { ::unlink(output_.c_str()); }
  // What it wrote, once that holds `what` (or after 20 s, whatever it holds).
  std::string waitFor(const std::string& what) const {
    std::string text = printed();
    for (int i = 0; i < 20000 && !contains(text, what); ++i) {
      ::usleep(1000);
      text = printed();
    }
    return text;
  }
  // What it wrote so far.
  std::string printed() const {
    std::ifstream in(output_);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  // Its wait status once it has ended (its end of the pipe closed); one still running after
  // 20 s is stuck, and killed.
  int wait() {
    child_.read(1);
    ::kill(child_.pid(), SIGKILL);
    return child_.wait();
  }

 private:
  const std::string output_;
  ForkedChild child_;
};

// The watcher printed `line` and ended well (one that is stuck is killed): all that it printed.
std::string expectSeen(Watcher& watcher, const std::string& line) {
  watcher.waitFor(line);
  const int status = watcher.wait();
  const std::string out = watcher.printed();
  EXPECT_TRUE(contains(out, line)) << out;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << (WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status)) : "") << "\n"
      << out;
  return out;
}

TEST(LedgerTool, WatchPrintsEachChangeAsItHappens) {
  TempRoot root;
  KickingWriter w(root.path(), "routes");
  w.writer.write(makeValue(2, 1));
  w.writer.write(makeValue(3, 1));
  Watcher watcher(root, "3");
  // Each step waits for the watcher's line about the one before (its first line: it has
  // taken its snapshot), so that no two changes of a key fall into one look.
  watcher.waitFor("watching routes");
  w.rewrite(3);  // unchanged: no line
  w.flush();
  w.writer.write(makeValue(1, 1));
  w.flush();
  watcher.waitFor("\nadded ");
  w.writer.write(makeValue(1, 2));
  w.flush();
  watcher.waitFor("\nchanged ");
  w.writer.remove(TestKey{2});
  w.flush();
  const int status = watcher.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_THAT(
      watcher.waitFor("\ndeleted "),
      MatchesRegex("watching routes: [^\n]*\nadded [^\n]*\nchanged [^\n]*\ndeleted [^\n]*\n"));
}

// While `watch` follows a table, its header comes to count two billion slots and the queue
// names one of them, far beyond the file: the watcher reads that slot as free (instead of
// sizing its memory by it) and goes on to the next change.
// A table of keys [0, 10) that `watch` follows until it has seen one change.
struct WatchedTable : ::testing::Test {
  TempRoot root;
  KickingWriter w{root.path(), "routes"};
  const bool filled = [this] {
    for (uint64_t id = 0; id < 10; ++id) w.writer.write(makeValue(id, 1));
    return true;
  }();
  Watcher watcher{root, "1"};

  void SetUp() override { watcher.waitFor("watching routes"); }
  void expectSeen(const std::string& line) { ::expectSeen(watcher, line); }
};

TEST_F(WatchedTable, WatchOutlivesASlotFarBeyondTheFile) {
  patch(root, "slots", [](uint8_t* base) {
    auto& header = *reinterpret_cast<Ledger::SlotTableHeader*>(base);
    header.numSlots = header.mostSlots = 0x7fffffffu;
  });
  w.writer.write(makeValue(1, 2));
  const std::string queue = Ledger::rallyQueueName(w.writer.rally().generation());
  patch(root, queue.c_str(), [&](uint8_t* base) {
    const auto& header = *reinterpret_cast<Ledger::RallyQueueHeader*>(base);
    auto* entries =
        reinterpret_cast<uint64_t*>(base + Ledger::rallyEntriesOffset(header.slotCapacity));
    uint64_t& last = entries[w.writer.rally().count() - 1];
    last = last >> 32 << 32 | 0x7ffffff0u;
  });
  w.flush();
  w.writer.write(makeValue(2, 2));
  w.flush();
  expectSeen("\nchanged slot ");
}

// The queue's count goes beyond its capacity under `watch`: it says that the queue is corrupt
// as it reads the table again, and follows the writer once the queue is whole.
TEST_F(WatchedTable, WatchSaysWhyItReadsTheTableAgain) {
  const std::string queue = Ledger::rallyQueueName(w.writer.rally().generation());
  uint32_t count = 0;
  patch(root, queue.c_str(), [&](uint8_t* base) {
    auto& header = *reinterpret_cast<Ledger::RallyQueueHeader*>(base);
    count = header.count;
    header.count = header.capacity + 1;
  });
  w.kicker->commitNotify();
  w.flush();
  const std::string said = watcher.waitFor("resync (");
  EXPECT_TRUE(contains(said,
                       "resync (corruption: RallyReader::doRally() unexpected position in "
                       "queue count:"))
      << said;
  patch(root, queue.c_str(),
        [&](uint8_t* base) { reinterpret_cast<Ledger::RallyQueueHeader*>(base)->count = count; });
  w.writer.write(makeValue(4, 2));
  w.flush();
  expectSeen("\nchanged ");
}

// Under `watch`, the slot header and the queue's generation go bad at once: the table cannot
// be mapped again, and nothing of it stays mapped (a walk would find no header) until it can.
// Once both are whole, the next kick maps it and shows what changed meanwhile.
TEST_F(WatchedTable, WatchWaitsForATableThatCannotBeMappedAgain) {
  uint32_t generation = 0;
  patch(root, "rally", [&](uint8_t* base) {
    auto& control = *reinterpret_cast<Ledger::RallyControl*>(base);
    generation = control.generation;
    control.generation += 1000;
  });
  patch(root, "slots", [](uint8_t* base) { base[0] = 'X'; });
  w.writer.write(makeValue(1, 2));
  w.flush();
  const std::string said = watcher.waitFor("cannot re-attach: ");
  EXPECT_TRUE(contains(said, "cannot re-attach: SlotTable::Header::validate() bad magic")) << said;
  patch(root, "rally", [&](uint8_t* base) {
    reinterpret_cast<Ledger::RallyControl*>(base)->generation = generation;
  });
  patch(root, "slots", [](uint8_t* base) { base[0] = Ledger::kSlotMagic[0]; });
  w.writer.write(makeValue(2, 2));
  w.flush();
  expectSeen("\nchanged slot ");
}

// The table is removed whole (its readers' folder too) and a new writer makes it again: the
// watcher finds the new files on its timer, shows how they differ from what it followed, and
// registers again for the new writer's kicks.
TEST(LedgerTool, WatchFollowsATableMadeAgain) {
  TempRoot root;
  auto first = std::make_unique<KickingWriter>(root.path(), "routes");
  first->writer.write(makeValue(1, 1));
  Watcher watcher(root, "3");
  watcher.waitFor("watching routes");
  first.reset();
  std::filesystem::remove_all(root.path() + "/routes");
  KickingWriter second(root.path(), "routes");
  second.writer.write(makeValue(2, 1));
  second.flush();
  watcher.waitFor("\nadded ");
  second.writer.write(makeValue(3, 1));
  second.flush();
  EXPECT_THAT(expectSeen(watcher, "\nadded slot"),
              MatchesRegex("watching routes: [^\n]*\nresync \\(table removed or made anew\\)\n"
                           "(cannot re-attach: [^\n]*\n)*(deleted [^\n]*\nadded|added "
                           "[^\n]*\ndeleted) [^\n]*\nadded [^\n]*\n"));
}

// The via sets of a published LFIB live in slabs: the tool reads them through the slot's
// references, prints them typed, counts slab files in the sizes and checks the references.
TEST(LedgerTool, ViaSetsInSlabs) {
  TempRoot root;
  auto status = Mpls::lfibStatusFactory("status");
  status->ledgerMountIs(Ledger::LedgerMode::writer, root.path());
  for (uint32_t index : {1u, 2u, 40u}) {
    Mpls::LfibViaSet vs(
        Mpls::LfibViaSetKey(LFib::sourceLdp_, index, Mpls::viaTypeMplsIp_, Mpls::viaSetTypeEcmp_));
    for (uint32_t i = 0; i < index; ++i) {
      vs.viaKeyIs(Mpls::LfibViaIndexRange(i),
                  Mpls::LfibViaKey(LFib::sourceLdp_, Mpls::viaTypeMplsIp_, 100 * index + i));
    }
    status->viaSetIs(vs);
  }
  auto run = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"--root", root.path() + "/lfib/status"});
    std::ostringstream out, err;
    int rc = LedgerTool::run(args, out, err);
    return ToolRun{rc, out.str(), err.str()};
  };
  auto valid = run({"validate", "viaSet"});
  EXPECT_EQ(valid.status, 0) << valid.out;
  EXPECT_TRUE(contains(valid.out, "valid, 3 members")) << valid.out;
  auto dump = run({"dump", "viaSet"});
  EXPECT_EQ(dump.status, 0) << dump.err;
  size_t typed = 0;
  for (size_t at = 0; (at = dump.out.find("Value('Mpls::LfibViaSet'", at)) != std::string::npos;
       ++at) {
    ++typed;
  }
  EXPECT_EQ(typed, 3u) << dump.out;
  auto json = run({"dump", "viaSet", "--json"});
  EXPECT_TRUE(contains(json.out, "\"text\": \"Value('Mpls::LfibViaSet'")) << json.out;
  auto show = run({"show", "viaSet"});
  EXPECT_TRUE(contains(show.out, "slab.1: maxPayload 68 numEntries 16 numOccupied 1")) << show.out;
  struct stat slots, slab;
  ASSERT_EQ(::stat((root.path() + "/lfib/status/viaSet/slots").c_str(), &slots), 0);
  ASSERT_EQ(::stat((root.path() + "/lfib/status/viaSet/slab.1").c_str(), &slab), 0);
  auto ls = run({"ls"});
  std::istringstream lines(ls.out);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string name;
    uint64_t numSlots, members, valueSize, bytes;
    if (!(words >> name >> numSlots >> members >> valueSize >> bytes) || name != "viaSet") continue;
    EXPECT_EQ(valueSize, 8u) << "a slot holds a slab reference";
    EXPECT_GE(bytes, uint64_t(slots.st_blocks + slab.st_blocks) * 512) << "slab files counted";
  }

  // From the top root, the LFIB's tables are named by their paths, as ls lists them.
  auto top = tool(root, {"ls"});
  EXPECT_EQ(top.status, 0) << top.err;
  EXPECT_TRUE(contains(top.out, "\nlfib/status/viaSet ")) << top.out;
  EXPECT_TRUE(contains(top.out, "\nlfib/status/lfibRoute ")) << top.out;
  EXPECT_FALSE(contains(top.out, "readers")) << "a table's own folders are not tables";
  auto byPath = tool(root, {"validate", "lfib/status/viaSet"});
  EXPECT_EQ(byPath.status, 0) << byPath.err;
  EXPECT_TRUE(contains(byPath.out, "lfib/status/viaSet: valid, 3 members")) << byPath.out;
  auto missing = tool(root, {"dump", "lfib/status/nosuch"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_TRUE(contains(missing.err, "no table 'lfib/status/nosuch' under " + root.path()))
      << missing.err;
  for (const char* bad : {"lfib/../status/viaSet", "/lfib/status/viaSet", "lfib/./viaSet"}) {
    auto refused = tool(root, {"show", bad});
    EXPECT_EQ(refused.status, 2) << bad;
    EXPECT_TRUE(contains(refused.err, "bad table name")) << refused.err;
  }

  // A slab entry whose payload size is impossible, then a free list that loops.
  const std::string slab1 = root.path() + "/lfib/status/viaSet/slab.1";
  auto patchWord = [&](uint64_t offset, uint32_t word) {
    std::fstream f(slab1, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(std::streamoff(offset));
    f.write(reinterpret_cast<const char*>(&word), sizeof(word));
  };
  patchWord(sizeof(Shape::SlabHeader), 4000);
  auto bad = run({"validate", "viaSet"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_TRUE(contains(bad.out, "slab.1 entry 0 has payload size 4000 beyond maxPayload 68"))
      << bad.out;
  auto dumpBad = run({"dump", "viaSet"});
  EXPECT_EQ(dumpBad.status, 0);
  EXPECT_TRUE(contains(dumpBad.err, "beyond maxPayload")) << dumpBad.err;
  patchWord(sizeof(Shape::SlabHeader), 68);
  EXPECT_EQ(run({"validate", "viaSet"}).status, 0);
  status->viaSetDel(
      Mpls::LfibViaSetKey(LFib::sourceLdp_, 2, Mpls::viaTypeMplsIp_, Mpls::viaSetTypeEcmp_));
  patchWord(sizeof(Shape::SlabHeader) + 4, 0);  // entry 0, now free, names itself next
  auto loop = run({"validate", "viaSet", "--once"});
  EXPECT_EQ(loop.status, 1);
  EXPECT_TRUE(contains(loop.out, "slab.1 free list loop at entry 0")) << loop.out;
  status->ledgerUnmount();
}

TEST(LedgerTool, ValidatesATableWhileItsWriterChurns) {
  TempRoot root;
  ForkedChild writer([&](int ready, int stop) {
    KickingWriter w(root.path(), "routes", 16);
    std::mt19937_64 rng(5);
    char c = 'r';
    if (::write(ready, &c, 1) != 1) return 1;
    ::fcntl(stop, F_SETFL, O_NONBLOCK);
    for (uint64_t n = 0; ::read(stop, &c, 1) < 0; ++n) {
      for (int i = 0; i < 64; ++i) {
        const uint64_t id = rng() % 4000;
        if (rng() % 3 == 0) {
          w.writer.remove(TestKey{id});
        } else {
          w.writer.write(makeValue(id, n));
        }
      }
      w.flush();
      ::usleep(2000);  // as an agent's writer does: bursts of changes, quiet in between
    }
    return 0;
  });
  ASSERT_EQ(writer.read(1), "r");
  // A check that met the writer's changes is made again: never a false failure. A validate
  // whose every check met changes has no verdict (3); between bursts, checks find the table
  // at rest.
  std::map<int, int> statuses;
  std::string failure;
  constexpr int kValidations = 500;
  for (int i = 0; i < kValidations; ++i) {
    auto r = tool(root, {"validate", "routes"});
    ++statuses[r.status];
    if (r.status != 0 && r.status != 3 && failure.empty()) failure = r.out + r.err;
  }
  writer.tell('s');
  EXPECT_EQ(writer.wait(), 0);
  EXPECT_EQ(statuses[0] + statuses[3], kValidations) << failure;
  EXPECT_GT(statuses[0], 0);
  std::printf("validate on a churning table: %d valid, %d no verdict\n", statuses[0], statuses[3]);
}
}  // namespace
