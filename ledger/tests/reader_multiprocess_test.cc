// Readers in their own processes following a writer that churns: inserts, changed and
// unchanged rewrites, removes, growth, shrink and queue compaction. Every value a reader sees
// must be whole (it carries a checksum of its key and version), every shadow must end equal
// to the writer's table, and the per-key events must tell each change once: versions of a
// key only grow (an unchanged rewrite would repeat one) and the keys that the events leave
// present are exactly the writer's.
//
// READER_STRESS_OPS scales the churn (ledger/tests/stress.sh runs it long).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <span>

#include "ledger/tests/ShadowHarness.h"
#include "platform/tests/ForkedChild.h"

namespace {

using namespace std::chrono_literals;
using namespace LedgerTest;

constexpr uint64_t kStableBase = 1000000;
constexpr uint64_t kStableKeys = 16;

uint64_t opsFromEnv(uint64_t dflt) {
  const char* s = std::getenv("READER_STRESS_OPS");
  return s ? std::strtoull(s, nullptr, 10) : dflt;
}

// What a reader process found, as it wrote it to its result file.
struct ReaderResult {
  std::map<uint64_t, uint64_t> shadow;
  std::map<uint64_t, uint64_t> events;
  std::vector<std::string> errors;
  uint64_t lookups = 0;
};

void writeMap(std::ofstream& out, const char* tag, const std::map<uint64_t, uint64_t>& m) {
  out << tag << " " << m.size() << "\n";
  for (auto [k, v] : m) out << k << " " << v << "\n";
}
std::map<uint64_t, uint64_t> readMap(std::ifstream& in) {
  std::string tag;
  size_t n = 0;
  in >> tag >> n;
  std::map<uint64_t, uint64_t> m;
  for (size_t i = 0; i < n; ++i) {
    uint64_t k, v;
    in >> k >> v;
    m[k] = v;
  }
  return m;
}

// A reader process: a shadow with an event log, plus direct lookups through the shadow's
// mapping between loop iterations. Mounts whenever the table appears. On a byte from `ctl`
// it waits until it has consumed everything the writer announced, writes its result and
// exits.
int readerMain(const std::string& root, int ctl, const std::string& resultPath, bool strictEvents,
               uint64_t keys) {
  Zinc::Loop loop;
  EventLog log;
  Ledger::ShadowOptions options;
  options.mountRetry = 5ms;
  options.yieldTime = 200us;
  Shadow shadow(Ledger::ReaderConfig{root, "routes"}, loop, log.notifier(),
                Ledger::Ops<TestKey, TestValue>(), options);
  std::mt19937_64 rng(::getpid());
  uint64_t lookups = 0;
  std::vector<std::string> torn;
  // A sane writer never makes a reader report corruption.
  auto report = [&](const std::string& why) {
    if (torn.size() < 10) torn.push_back("corruption reported: " + why);
  };
  shadow.reader().corruptionHandlerIs(report);
  shadow.corruptionHandlerIs(report);
  shadow.initialize();
  // Stable keys are never removed: once the shadow has them all, a direct lookup must never
  // miss one, whatever the writer is doing to the chains around it.
  bool stableKnown = false;
  loop.timerEvery(1ms, [&] {
    if (!shadow.reader().attached()) return;
    if (!stableKnown && shadow.inStep()) {
      stableKnown = true;
      for (uint64_t id = kStableBase; id < kStableBase + kStableKeys; ++id) {
        stableKnown = stableKnown && shadow.store().contains(TestKey{id});
      }
    }
    // Half the keys looked up one by one, half in one batch: both must hold to the same.
    constexpr size_t kKeys = 200;
    std::array<TestKey, kKeys> k;
    std::array<TestValue, kKeys> v;
    std::array<bool, kKeys> found;
    for (size_t i = 0; i < kKeys; ++i) {
      k[i].id = i % 4 == 0 ? kStableBase + rng() % kStableKeys : rng() % keys;
      if (i < kKeys / 2) found[i] = shadow.reader().lookup(k[i], v[i]);
    }
    shadow.reader().lookupBatch(std::span(k).subspan(kKeys / 2), std::span(v).subspan(kKeys / 2),
                                std::span(found).subspan(kKeys / 2));
    lookups += kKeys;
    for (size_t i = 0; i < kKeys; ++i) {
      if (found[i] && (!whole(v[i]) || v[i].k.id != k[i].id) && torn.size() < 10) {
        torn.push_back("torn direct read of key " + std::to_string(k[i].id));
      }
      if (!found[i] && i % 4 == 0 && stableKnown && strictEvents && torn.size() < 10) {
        torn.push_back("stable key " + std::to_string(k[i].id) + " missed");
      }
    }
  });
  bool finishing = false;
  loop.fdWatchIs(ctl, [&](uint32_t) {
    char c;
    if (::read(ctl, &c, 1) <= 0 || c == 'f') finishing = true;
  });
  auto deadline = Zinc::Loop::now() + 300s;
  while (!(finishing && shadow.quiesced())) {
    if (Zinc::Loop::now() > deadline) return 3;
    loop.runOnce(20ms);
  }
  std::ofstream out(resultPath);
  writeMap(out, "shadow", shadowContents(shadow));
  writeMap(out, "events", log.present);
  std::vector<std::string> errors = torn;
  for (const auto& e : log.errors) {
    if (strictEvents || e.find("torn") != std::string::npos) errors.push_back(e);
  }
  out << "errors " << errors.size() << "\n";
  for (const auto& e : errors) out << e << "\n";
  out << "lookups " << lookups << "\n";
  std::printf("reader %d: %lu resyncs, %lu kicks\n", int(::getpid()), shadow.resyncs(),
              shadow.kicks());
  std::fflush(stdout);  // the process ends with _exit
  return out.good() ? 0 : 4;
}

struct ReaderProcess {
  std::string resultPath;
  TestSupport::ForkedChild child;

  ReaderProcess(const std::string& root, int n, bool strict, uint64_t keys)
      : resultPath(root + "-result-" + std::to_string(n)),
        child([&](int, int ctl) { return readerMain(root, ctl, resultPath, strict, keys); }) {}
  ~ReaderProcess() {
    child.kill();
    ::unlink(resultPath.c_str());
  }
  ReaderResult finish() {
    EXPECT_TRUE(child.tell('f'));
    const int status = child.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reader status " << status;
    ReaderResult r;
    std::ifstream in(resultPath);
    r.shadow = readMap(in);
    r.events = readMap(in);
    std::string tag;
    size_t n = 0;
    in >> tag >> n;
    std::getline(in, tag);
    for (size_t i = 0; i < n; ++i) {
      std::getline(in, tag);
      r.errors.push_back(tag);
    }
    in >> tag >> r.lookups;
    return r;
  }
};

// Random churn over `keys` keys. Versions of a key only grow, from `base` on; each batch ends
// with the readers' kick, as the end of a loop iteration would.
struct Churn {
  KickingWriter& w;
  uint64_t keys;
  uint64_t base;
  std::mt19937_64 rng;
  std::map<uint64_t, uint64_t> version;

  Churn(KickingWriter& writer, uint64_t keyCount, uint64_t versionBase, uint64_t seed)
      : w(writer), keys(keyCount), base(versionBase), rng(seed) {
    for (uint64_t id = kStableBase; id < kStableBase + kStableKeys; ++id) rewriteStable(id);
    w.flush();
  }
  void rewriteStable(uint64_t id) {
    uint64_t& v = version[id];
    v = std::max(v + 1, base);
    w.writer.write(makeValue(id, v));
  }

  void op(uint64_t id, int kind) {
    TestValue current;
    bool present = w.writer.lookup(TestKey{id}, current);
    if (kind < 50 || (kind < 62 && !present)) {
      uint64_t& v = version[id];
      v = std::max(v + 1, base);
      w.writer.write(makeValue(id, v));
    } else if (kind < 62) {
      w.writer.write(current, Ledger::WriteFlag::always);  // unchanged rewrite, still announced
    } else {
      w.writer.remove(TestKey{id});
    }
  }
  // `removeBias` shifts the mix towards removes (shrink phases) or inserts (growth phases).
  void run(uint64_t ops, int removeBias = 0) {
    for (uint64_t done = 0; done < ops;) {
      uint64_t batch = 1 + rng() % 64;
      for (uint64_t i = 0; i < batch && done < ops; ++i, ++done) {
        int kind = int(rng() % 100) + removeBias;
        op(rng() % keys, std::clamp(kind, 0, 99));
      }
      rewriteStable(kStableBase + rng() % kStableKeys);
      w.flush();
    }
  }
  // Grows the table to most keys, then shrinks it to a few: slot and bucket growth and shrink.
  void cycle(uint64_t ops) {
    run(ops / 3, -45);
    run(ops / 3, 0);
    run(ops / 3, 40);
  }
};

// The first keys on which `got` and `table` differ, as "key: got / table" (- for absent).
std::string differences(const std::map<uint64_t, uint64_t>& got,
                        const std::map<uint64_t, uint64_t>& table) {
  std::set<uint64_t> keys;
  for (auto [k, v] : got) keys.insert(k);
  for (auto [k, v] : table) keys.insert(k);
  std::string out;
  int shown = 0;
  auto text = [](const std::map<uint64_t, uint64_t>& m, uint64_t k) {
    auto it = m.find(k);
    return it == m.end() ? std::string("-") : std::to_string(it->second);
  };
  for (uint64_t k : keys) {
    if (text(got, k) == text(table, k) || ++shown > 10) continue;
    out += " key " + std::to_string(k) + ": " + text(got, k) + " / " + text(table, k) + ";";
  }
  return out;
}

void expectReaderMatches(const ReaderResult& r, const std::map<uint64_t, uint64_t>& table) {
  EXPECT_TRUE(r.errors.empty()) << r.errors.front();
  EXPECT_TRUE(r.shadow == table) << "shadow differs from the writer's table (shadow / table):"
                                 << differences(r.shadow, table);
  EXPECT_TRUE(r.events == table) << "the events lost a change (events / table):"
                                 << differences(r.events, table);
  EXPECT_GT(r.lookups, 0u);
}

TEST(ReaderMultiProcess, TwoReadersFollowAChurningWriter) {
  TempRoot root;
  const uint64_t keys = 3000;
  // The readers start before the table exists: they mount when the writer appears.
  ReaderProcess r1(root.path(), 1, true, keys);
  ReaderProcess r2(root.path(), 2, true, keys);
  ::usleep(30000);
  KickingWriter w(root.path(), "routes", 16);
  Churn churn(w, keys, 1, 42);
  const uint64_t ops = opsFromEnv(150000);
  for (uint64_t done = 0; done < ops; done += 30000)
    churn.cycle(std::min<uint64_t>(30000, ops - done));
  auto counters = w.writer.writerCounters();
  EXPECT_GT(counters.slotGrowths, 0u);
  EXPECT_GT(counters.slotShrinks, 0u);
  EXPECT_GT(counters.bucketGrowths, 0u);
  EXPECT_GT(counters.bucketShrinks, 0u);
  EXPECT_GT(counters.rallyCompactions, 0u);
  EXPECT_GT(counters.unchanged + counters.updates, 0u);
  auto table = w.contents();
  EXPECT_TRUE(w.writer.validate()) << w.writer.validationError();
  ReaderResult one = r1.finish(), two = r2.finish();
  expectReaderMatches(one, table);
  expectReaderMatches(two, table);
  std::printf(
      "churned %lu operations: slot growths %lu shrinks %lu, bucket growths %lu shrinks %lu, "
      "queue compactions %lu; reader lookups %lu and %lu; %zu keys at the end\n",
      ops, counters.slotGrowths, counters.slotShrinks, counters.bucketGrowths,
      counters.bucketShrinks, counters.rallyCompactions, one.lookups, two.lookups, table.size());
}

TEST(ReaderMultiProcess, WriterKilledAndRestartedReadersResync) {
  TempRoot root;
  const uint64_t keys = 2000;
  ReaderProcess r1(root.path(), 1, false, keys);
  ReaderProcess r2(root.path(), 2, false, keys);
  // READER_STRESS_KILLS more rounds, each killed after a random time from 0 to 150 ms: kills
  // land in the middle of attaching, formatting, growth and compaction too.
  const char* kills = std::getenv("READER_STRESS_KILLS");
  const int rounds = kills ? std::atoi(kills) : 3;
  std::mt19937 rng(7);
  for (int round = 0; round < rounds; ++round) {
    TestSupport::ForkedChild writer([&](int) -> int {
      KickingWriter w(root.path(), "routes", 16);
      Churn churn(w, keys, uint64_t(round + 1) << 32, round);
      for (;;) churn.cycle(30000);
    });
    ::usleep(round < 3 ? 100000 + 50000 * round : rng() % 150000);
    writer.kill();
  }
  KickingWriter w(root.path(), "routes", 16);
  EXPECT_TRUE(w.writer.validate()) << w.writer.validationError();
  Churn churn(w, keys, uint64_t(rounds + 1) << 32, 9);
  churn.cycle(20000);
  auto table = w.contents();
  expectReaderMatches(r1.finish(), table);
  expectReaderMatches(r2.finish(), table);
}

}  // namespace
