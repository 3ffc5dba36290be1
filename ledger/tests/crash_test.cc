// A writer process killed with SIGKILL at random points mid-stream: the next writer attaches
// (adopting or recovering the files), the validator passes, and every operation that the dead
// writer had acknowledged is there.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "ledger/LedgerWriter.h"
#include "ledger/tests/ForkedChild.h"
#include "ledger/tests/TestTable.h"

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
using Writer = Ledger::LedgerWriter<TestKey, CrashValue>;

// The child announces a batch of operations (one record each), performs them, and then
// acknowledges the whole batch with one kBatchDone record.
enum Kind : uint32_t { kWrite, kRemove, kBatchDone };
struct Record {
  uint32_t kind;
  uint32_t pad;
  uint64_t id;
  uint64_t version;
};

Ledger::LedgerConfig crashConfig(const std::string& root) {
  Ledger::LedgerConfig c;
  c.root = root;
  c.table = "crash";
  c.capacity = 8;
  c.minBuckets = 4;
  return c;
}

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
[[noreturn]] void churn(const std::string& root, int fd, uint64_t seed, uint64_t firstVersion) {
  Writer w(crashConfig(root));
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
        w.remove(TestKey{r.id});
      } else if (r.version % 7 == 0) {
        *w.directWrite(TestKey{r.id}) = crashValue(r.id, r.version);
        w.directCommit();
      } else {
        w.write(crashValue(r.id, r.version));
      }
    }
    sendAll(fd, {Record{kBatchDone, 0, 0, 0}});
  }
}

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
    ForkedChild child([&](int fd) -> int { churn(root.path(), fd, seed, maxVersion + 1000000); });
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
    Writer w(crashConfig(root.path()));
    auto result = w.attach();
    recovered += result == Ledger::AttachResult::recovered;
    EXPECT_TRUE(result == Ledger::AttachResult::existing ||
                result == Ledger::AttachResult::recovered)
        << "attach result " << static_cast<int>(result);
    ASSERT_TRUE(w.validate()) << w.validationError();
    size_t present = 0;
    for (uint64_t id = 0; id < 600; ++id) {
      CrashValue v;
      bool found = w.lookup(TestKey{id}, v);
      if (found) {
        ++present;
        ASSERT_TRUE(whole(v)) << "torn value for key " << id;
      }
      uint64_t state = found ? v.version : 0;
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

TEST_F(Crash, KilledWritersLoseNothingAcknowledged) {
  std::mt19937_64 rng(99);
  for (int round = 0; round < 60; ++round) {
    ASSERT_NO_FATAL_FAILURE(runChild(rng())) << "round " << round;
    ASSERT_NO_FATAL_FAILURE(checkTable()) << "round " << round;
  }
  RecordProperty("recovered", recovered);  // how many kills left the table half-changed
}

}  // namespace
