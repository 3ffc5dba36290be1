// A writer process killed with SIGKILL at random points mid-stream: the next writer attaches
// (adopting or recovering the files), the validator passes, and every operation that the dead
// writer had acknowledged is there. Both kinds of table: values in the slots (written in
// direct mode too), and values of changing sizes in slabs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ledger/LedgerReader.h"
#include "ledger/LedgerWriter.h"
#include "ledger/tests/SlabTestTypes.h"
#include "ledger/tests/TestTable.h"
#include "platform/tests/ForkedChild.h"

namespace {

using namespace LedgerTest;
// A large value that is cheap to make: most of a write's time goes into copying it, look-aside
// copy included, so a kill often lands in the middle of a publication.
struct CrashValue {
  TestKey k;
  uint64_t version = 0;
  uint8_t payload[1000];
  TestKey key() const { return k; }
};
CrashValue crashValue(uint64_t id, uint64_t version) {
  CrashValue v;
  v.k.id = id;
  v.version = version;
  std::memset(v.payload, static_cast<int>(id * 31 + version), sizeof(v.payload));
  return v;
}
bool whole(const CrashValue& v) {
  auto expected = static_cast<uint8_t>(v.k.id * 31 + v.version);
  return std::all_of(v.payload, v.payload + sizeof(v.payload),
                     [&](uint8_t b) { return b == expected; });
}

// A table of values in the slots.
struct SlotTable {
  using Writer = Ledger::LedgerWriter<TestKey, CrashValue>;
  static constexpr const char* kName = "crash";
  static void write(Writer& w, uint64_t id, uint64_t version) {
    if (version % 7 == 0) {
      *w.directWrite(TestKey{id}) = crashValue(id, version);
      w.directCommit();
    } else {
      w.write(crashValue(id, version));
    }
  }
  static void remove(Writer& w, uint64_t id) { w.remove(TestKey{id}); }
  // The version that `id` holds (0: absent); false when its value is torn.
  static bool read(Writer& w, uint64_t id, uint64_t& version) {
    CrashValue v;
    version = w.lookup(TestKey{id}, v) ? v.version : 0;
    return version == 0 || (whole(v) && v.k.id == id);
  }
};

// A table of via sets in slabs; a key's size class changes with its version, so that a kill
// often lands between a new payload's allocation and the old one's release.
struct SlabTable {
  using Writer = Ledger::LedgerWriter<ViaSetKey, ViaSet, ViaOps>;
  static constexpr const char* kName = "crashSlabs";
  static size_t viasOf(uint64_t id, uint64_t version) {
    constexpr size_t kSizes[] = {1, 2, 17, 128, 3, 0};
    return kSizes[(id + version) % 6];
  }
  static void write(Writer& w, uint64_t id, uint64_t version) {
    w.write(makeViaSet(uint32_t(id), viasOf(id, version), uint32_t(version)));
  }
  static void remove(Writer& w, uint64_t id) { w.remove(ViaSetKey{uint32_t(id)}); }
  static bool read(Writer& w, uint64_t id, uint64_t& version) {
    ViaSet v;
    version = 0;
    if (!w.lookup(ViaSetKey{uint32_t(id)}, v)) return true;
    uint32_t stored;
    std::memcpy(&stored, v.fixed, sizeof(stored));
    version = stored;
    return v.key.id == id &&
           wholeViaSet(v, [](uint32_t k, uint32_t ver) { return viasOf(k, ver); });
  }
};

// The child announces a batch of operations (one record each), performs them, and then
// acknowledges the whole batch with one kBatchDone record.
enum Kind : uint32_t { kWrite, kRemove, kBatchDone };
struct Record {
  uint32_t kind;
  uint32_t pad;
  uint64_t id;
  uint64_t version;
};

void sendAll(int fd, const std::vector<Record>& records) {
  const char* p = reinterpret_cast<const char*>(records.data());
  size_t size = records.size() * sizeof(Record);
  for (size_t done = 0; done < size;) {
    ssize_t n = ::write(fd, p + done, size - done);
    if (n <= 0) ::_exit(3);
    done += static_cast<size_t>(n);
  }
}

// The child: attach (waiting for the dead writer's lock to go) and churn until killed.
template <class Table>
[[noreturn]] void churn(const std::string& root, int fd, uint64_t seed, uint64_t firstVersion) {
  typename Table::Writer w(tableConfig(root, Table::kName, 8, 4));
  for (;;) {
    try {
      w.attach();
      break;
    } catch (const Ledger::InitializationException&) {
      ::usleep(1000);
    }
  }
  std::mt19937_64 rng(seed);
  // SIGKILL after a random amount of this process's own user-mode CPU time: the signal lands
  // at a random point of the table code, not where the process happened to sleep.
  ::signal(SIGVTALRM, [](int) { ::raise(SIGKILL); });
  itimerval timer{};
  timer.it_value.tv_usec = static_cast<suseconds_t>(100 + rng() % 8000);
  ::setitimer(ITIMER_VIRTUAL, &timer, nullptr);
  uint64_t version = firstVersion;
  std::vector<Record> batch;
  for (uint64_t n = 0;; ++n) {
    batch.clear();
    // Phases of mostly-removes let the table shrink, phases of writes let it grow.
    int removePercent = (n / 20) % 2 ? 70 : 25;
    for (size_t i = 1 + rng() % 200; i > 0; --i) {
      uint64_t id = rng() % 600;
      bool remove = static_cast<int>(rng() % 100) < removePercent;
      batch.push_back(Record{remove ? kRemove : kWrite, 0, id, remove ? 0 : ++version});
    }
    sendAll(fd, batch);
    for (const Record& r : batch) {
      if (r.kind == kRemove) {
        Table::remove(w, r.id);
      } else {
        Table::write(w, r.id, r.version);
      }
    }
    sendAll(fd, {Record{kBatchDone, 0, 0, 0}});
  }
}

template <class Table>
class Crash : public ::testing::Test {
 protected:
  void apply(const Record& r) {
    if (r.kind != kBatchDone) {
      pending.push_back(r);
      return;
    }
    for (const Record& p : pending) {
      if (p.kind == kWrite) {
        model[p.id] = p.version;
      } else {
        model.erase(p.id);
      }
    }
    pending.clear();
  }

  // The states a key may be in: its acknowledged state, or that state with any prefix of the
  // unacknowledged batch's operations on it applied (0 stands for absent).
  std::vector<uint64_t> allowed(uint64_t id) const {
    auto it = model.find(id);
    std::vector<uint64_t> states{it == model.end() ? 0 : it->second};
    for (const Record& p : pending) {
      if (p.id == id) states.push_back(p.kind == kWrite ? p.version : 0);
    }
    return states;
  }

  // Runs a child writer until it kills itself and applies what it acknowledged.
  void runChild(uint64_t seed) {
    TestSupport::ForkedChild child(
        [&](int fd) -> int { churn<Table>(root.path(), fd, seed, maxVersion + 1000000); });
    ASSERT_GT(child.pid(), 0);
    const std::string stream = child.readAll();
    const int status = child.wait();
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "child status " << status;
    for (size_t at = 0; at + sizeof(Record) <= stream.size(); at += sizeof(Record)) {
      Record r;
      std::memcpy(&r, stream.data() + at, sizeof(r));
      apply(r);  // a record cut by the kill is an operation that was never acknowledged
    }
    maxVersion += 2000000;
  }

  void checkTable() {
    typename Table::Writer w(tableConfig(root.path(), Table::kName, 8, 4));
    auto result = w.attach();
    recovered += result == Ledger::AttachResult::recovered;
    EXPECT_TRUE(result == Ledger::AttachResult::existing ||
                result == Ledger::AttachResult::recovered)
        << "attach result " << static_cast<int>(result);
    ASSERT_TRUE(w.validate()) << w.validationError();
    size_t present = 0;
    for (uint64_t id = 0; id < 600; ++id) {
      uint64_t state = 0;
      ASSERT_TRUE(Table::read(w, id, state)) << "torn value for key " << id;
      const bool found = state != 0;
      present += found;
      auto states = allowed(id);
      ASSERT_NE(std::find(states.begin(), states.end(), state), states.end())
          << "key " << id << " holds " << state << ", acknowledged " << states.front();
      if (found) {
        model[id] = state;  // the next writer builds on what is there
      } else {
        model.erase(id);
      }
    }
    EXPECT_EQ(w.members(), present);
    pending.clear();
  }

  TempRoot root;
  std::map<uint64_t, uint64_t> model;
  std::vector<Record> pending;
  uint64_t maxVersion = 0;
  int recovered = 0;
};

using Tables = ::testing::Types<SlotTable, SlabTable>;
TYPED_TEST_SUITE(Crash, Tables);

TYPED_TEST(Crash, KilledWritersLoseNothingAcknowledged) {
  std::mt19937_64 rng(99);
  const char* rounds = std::getenv("CRASH_ROUNDS");  // more for a long run
  const int n = rounds ? std::atoi(rounds) : 60;
  for (int round = 0; round < n; ++round) {
    ASSERT_NO_FATAL_FAILURE(this->runChild(rng())) << "round " << round;
    ASSERT_NO_FATAL_FAILURE(this->checkTable()) << "round " << round;
  }
  // How many kills left the table half-changed.
  this->RecordProperty("recovered", this->recovered);
}

// A new writer that repairs a table empties its chains and links every entry again, while
// readers in other processes go on looking keys up. None of them may answer "absent" for a key
// that the table holds all along: a walk that overlapped the rebuild is walked again.
TEST(Relink, ReadersMissNoKeyWhileANewWriterRelinksTheTable) {
  using Writer = Ledger::LedgerWriter<TestKey, TestValue>;
  using Reader = Ledger::LedgerReader<TestKey, TestValue>;
  constexpr uint64_t kKeys = 100000;
  TempRoot root;
  {
    Writer w(tableConfig(root.path(), "relink"));
    w.attach();
    for (uint64_t id = 0; id < kKeys; ++id) w.write(makeValue(id, id));
    // The count a writer killed between two of its stores leaves behind: the next attach
    // finds the table invalid and recovers it.
    w.slotTable().header().occupiedSlots += 1;
  }
  TestSupport::ForkedChild reader([&](int out, int in) {
    Ledger::ReaderConfig config{root.path(), "relink"};
    config.resizeWait = std::chrono::minutes(1);  // a slow build's recovery is no corruption
    Reader r(config);
    r.attach();
    ::fcntl(in, F_SETFL, O_NONBLOCK);
    std::mt19937_64 rng(5);
    uint64_t misses = 0, reports = 0;
    char stop = 0;
    for (uint64_t n = 0;; ++n) {
      if (n == 1000 && ::write(out, "r", 1) != 1) return 10;  // looking keys up by now
      if (n % 64 == 0 && ::read(in, &stop, 1) == 1) break;
      TestValue v;
      try {
        misses += !r.lookup(TestKey{rng() % kKeys}, v);
      } catch (const Ledger::CorruptionException&) {
        ++reports;
      }
    }
    const std::string said = std::to_string(misses) + " " + std::to_string(reports) + "\n";
    return ::write(out, said.data(), said.size()) == ssize_t(said.size()) ? 0 : 11;
  });
  ASSERT_EQ(reader.read(1), "r");
  Writer w(tableConfig(root.path(), "relink"));
  EXPECT_EQ(w.attach(), Ledger::AttachResult::recovered);
  EXPECT_EQ(w.members(), kKeys);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(reader.tell('s'));
  EXPECT_EQ(reader.readAll(), "0 0\n") << "misses and corruption reports of the reader";
  EXPECT_EQ(reader.wait(), 0);
}

}  // namespace
