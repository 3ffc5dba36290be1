// Writer benchmark: 1M entries of a 116-byte value (the LFIB route record's size), loaded,
// updated in place and removed, on this table and on peers, on the same data in one run:
//   ledger            this table, labels hashed as the LFIB's keys hash (RouteKey::hash)
//   ledger_identity   this table, labels hashed by the identity, as the Boost map hashes them
//   lmdb_txn_per_op   LMDB, one commit per operation, MDB_NOSYNC | MDB_WRITEMAP
//   lmdb_one_txn      LMDB, all operations of a phase in one transaction
//   boost_ipc_mutex   Boost.Interprocess unordered_map in managed shared memory, each
//                     operation under an interprocess mutex, hashing labels with Boost's
//                     own hash of an integer (the identity: consecutive labels never collide)
//   boost_ipc_mutex_keyhash   the same map hashing labels as the LFIB's keys hash, so that
//                     both tables meet the same collisions
//   bare_update_loop  updates only: the least an in-place update of this table does, with
//                     nothing around it (bareUpdateSeconds), the floor of a single update here
// Hash tables are compared hashing the same way: the Boost ratios hold ledger_identity
// against boost_ipc_mutex, the _keyhash ratio ledger against boost_ipc_mutex_keyhash. The LMDB
// ratios and the load figures are ledger's.
// Every figure is the median of kRepetitions runs, the systems interleaved in each round.
// Output ends with "figure <name> <value> <unit>" and "ratio <name> <value>" lines (ours
// over the peer's: higher is better).
// To profile the updates alone: BENCH_PERF_FIFO=F perf record -D -1 --control fifo:F ...
// --only ledger (perf samples only the timed updates of this table).
#include <lmdb.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/unordered_map.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/BenchRoute.h"
#include "ledger/LedgerWriter.h"
#include "zinc/Hash.h"

namespace {

constexpr uint32_t kEntries = 1000000;
constexpr int kRepetitions = 5;

using namespace Bench;

struct PhaseTimes {
  double insert = 0, update = 0, remove = 0;
  double bulkLoad = 0;     // this table only: the same 1M entries through writeBatch
  double batchUpdate = 0;  // this table only: the updates again, through writeBatch
};

// One system under test: load, update and remove every key, timing each phase.
struct System {
  std::string name;
  std::function<PhaseTimes(const std::vector<uint32_t>& order)> run;
  std::vector<PhaseTimes> samples;
};

std::string benchRoot() { return "/dev/shm/ledger-bench-" + std::to_string(::getpid()); }

// The same random-order updates handed over in batches of 1024 (writeBatch fetches the keys'
// buckets and slots ahead, so their misses overlap): what a writer that knows several
// changes at once gets. The named update ratios stay on single writes, as the peers make them.
template <class R>
double batchUpdateSeconds(Ledger::LedgerWriter<typename R::Key, R>& w,
                          const std::vector<uint32_t>& order) {
  std::vector<R> values;
  values.reserve(order.size());
  for (uint32_t label : order) values.push_back(makeRoute<R>(label, 3));
  constexpr size_t kBatch = 1024;
  auto start = Clock::now();
  for (size_t at = 0; at < values.size(); at += kBatch) {
    w.writeBatch(values.data() + at, std::min(kBatch, values.size() - at));
  }
  w.rally().settle();
  return seconds(start);
}

// R: the record, whose key type says how labels hash.
template <class R>
PhaseTimes runLedger(const std::vector<uint32_t>& order) {
  using Writer = Ledger::LedgerWriter<typename R::Key, R>;
  Ledger::LedgerConfig config;
  config.root = benchRoot();
  config.table = "routes";
  config.capacity = 1024;
  PhaseTimes t;
  {
    Writer w(config);
    w.attach();
    auto start = Clock::now();
    // Each phase ends with the queue settled: no deferred work is left outside the timing.
    for (uint32_t label = 0; label < kEntries; ++label) w.write(makeRoute<R>(label, 1));
    w.rally().settle();
    t.insert = seconds(start);
    // The profiler named by $BENCH_PERF_FIFO (if set) samples only the timed updates.
    Bench::perfControlFromEnv("enable");
    start = Clock::now();
    for (uint32_t label : order) w.write(makeRoute<R>(label, 2));
    w.rally().settle();
    t.update = seconds(start);
    Bench::perfControlFromEnv("disable");
    t.batchUpdate = batchUpdateSeconds<R>(w, order);
    start = Clock::now();
    for (uint32_t label : order) w.remove(typename R::Key{label});
    w.rally().settle();
    t.remove = seconds(start);
    w.cleanup();
  }
  {
    std::vector<R> routes(kEntries);
    for (uint32_t label = 0; label < kEntries; ++label) routes[label] = makeRoute<R>(label, 1);
    Writer w(config);
    w.attach();
    auto start = Clock::now();
    w.writeBatch(routes.data(), routes.size());
    w.rally().settle();
    t.bulkLoad = seconds(start);
    w.cleanup();
  }
  return t;
}

void check(int rc, const char* what) {
  if (rc != 0) {
    std::fprintf(stderr, "%s: %s\n", what, mdb_strerror(rc));
    std::exit(1);
  }
}

PhaseTimes runLmdb(const std::vector<uint32_t>& order, bool txnPerOp) {
  std::string dir = benchRoot() + "/lmdb";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  MDB_env* env;
  check(mdb_env_create(&env), "mdb_env_create");
  check(mdb_env_set_mapsize(env, size_t{1} << 30), "mdb_env_set_mapsize");
  check(mdb_env_open(env, dir.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0600), "mdb_env_open");
  MDB_txn* txn;
  MDB_dbi dbi;
  check(mdb_txn_begin(env, nullptr, 0, &txn), "mdb_txn_begin");
  check(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi), "mdb_dbi_open");
  check(mdb_txn_commit(txn), "mdb_txn_commit");
  auto phase = [&](auto&& keys, auto&& op) {
    auto start = Clock::now();
    if (!txnPerOp) check(mdb_txn_begin(env, nullptr, 0, &txn), "mdb_txn_begin");
    for (uint32_t label : keys) {
      if (txnPerOp) check(mdb_txn_begin(env, nullptr, 0, &txn), "mdb_txn_begin");
      op(label);
      if (txnPerOp) check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
    if (!txnPerOp) check(mdb_txn_commit(txn), "mdb_txn_commit");
    return seconds(start);
  };
  auto put = [&](uint32_t label, uint32_t version) {
    Route r = makeRoute(label, version);
    MDB_val key{sizeof(label), &label}, value{sizeof(r), &r};
    check(mdb_put(txn, dbi, &key, &value, 0), "mdb_put");
  };
  std::vector<uint32_t> ascending(kEntries);
  std::iota(ascending.begin(), ascending.end(), 0);
  PhaseTimes t;
  t.insert = phase(ascending, [&](uint32_t label) { put(label, 1); });
  t.update = phase(order, [&](uint32_t label) { put(label, 2); });
  t.remove = phase(order, [&](uint32_t label) {
    MDB_val key{sizeof(label), &label};
    check(mdb_del(txn, dbi, &key, nullptr), "mdb_del");
  });
  mdb_env_close(env);
  std::filesystem::remove_all(dir);
  return t;
}

namespace bip = boost::interprocess;
using SegmentManager = bip::managed_shared_memory::segment_manager;
using IpcAllocator = bip::allocator<std::pair<const uint32_t, Route>, SegmentManager>;
template <class LabelHash>
using IpcMap =
    boost::unordered_map<uint32_t, Route, LabelHash, std::equal_to<uint32_t>, IpcAllocator>;

template <class LabelHash>
PhaseTimes runBoost(const std::vector<uint32_t>& order) {
  using Map = IpcMap<LabelHash>;
  const std::string name = "ledger-bench-boost-" + std::to_string(::getpid());
  bip::shared_memory_object::remove(name.c_str());
  PhaseTimes t;
  {
    bip::managed_shared_memory segment(bip::create_only, name.c_str(), size_t{640} << 20);
    auto* mutex = segment.construct<bip::interprocess_mutex>("mutex")();
    auto* map = segment.construct<Map>("map")(16, LabelHash(), std::equal_to<uint32_t>(),
                                              segment.get_allocator<typename Map::value_type>());
    auto start = Clock::now();
    for (uint32_t label = 0; label < kEntries; ++label) {
      bip::scoped_lock<bip::interprocess_mutex> lock(*mutex);
      map->emplace(label, makeRoute(label, 1));
    }
    t.insert = seconds(start);
    start = Clock::now();
    for (uint32_t label : order) {
      bip::scoped_lock<bip::interprocess_mutex> lock(*mutex);
      (*map)[label] = makeRoute(label, 2);
    }
    t.update = seconds(start);
    start = Clock::now();
    for (uint32_t label : order) {
      bip::scoped_lock<bip::interprocess_mutex> lock(*mutex);
      map->erase(label);
    }
    t.remove = seconds(start);
  }
  bip::shared_memory_object::remove(name.c_str());
  return t;
}

// The floor of an in-place update on this machine: the least that an update of this table
// does, over the same 1M slots of 136 bytes in shared memory, with nothing else around it: the
// key's bucket (keys hashed by the identity) and its slot, a key check, the look-aside copy,
// the two status stores around the value copy, and one queue entry. No hashing, no walk
// checks, no counters. Updates are independent, so the processor overlaps the cache misses
// of consecutive ones as far as its window reaches; every instruction an update adds narrows
// that. What it prints is what no single-update path can beat here.
double bareUpdateSeconds(const std::vector<uint32_t>& order) {
  struct Slot {
    uint32_t status, rhash;
    uint64_t link;
    IdentityRoute value;
    uint32_t pad;
  };
  static_assert(sizeof(Slot) == 136);
  const size_t slotBytes = sizeof(Slot) * (kEntries + 1), bucketBytes = 8 * size_t{kEntries};
  const size_t queueEntries = 4096, bytes = slotBytes + bucketBytes + 8 * queueEntries;
  const int fd = ::memfd_create("bare-update", MFD_CLOEXEC);
  if (fd < 0 || ::ftruncate(fd, off_t(bytes)) != 0) throw std::runtime_error("memfd");
  void* at = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (at == MAP_FAILED) throw std::runtime_error("mmap");
  auto* slots = static_cast<Slot*>(at);  // slots[0] is the look-aside slot
  auto* buckets = reinterpret_cast<uint64_t*>(static_cast<char*>(at) + slotBytes);
  auto* queue = buckets + kEntries;
  for (uint32_t label = 0; label < kEntries; ++label) {
    slots[label + 1].status = 1;
    slots[label + 1].value = makeRoute<IdentityRoute>(label, 1);
    buckets[label] = uint64_t{label + 1} << 32;
  }
  uint32_t count = 0, misses = 0;
  auto start = Clock::now();
  for (uint32_t label : order) {
    const IdentityRoute value = makeRoute<IdentityRoute>(label, 2);
    Slot& s = slots[buckets[label] >> 32];
    if (s.value.k.label != label) {
      ++misses;
      continue;
    }
    std::memcpy(&slots[0].rhash, &s.rhash, sizeof(Slot) - 8);
    std::atomic_ref<uint32_t>(s.status).store(s.status + 2, std::memory_order_release);
    std::memcpy(&s.value, &value, sizeof(value));
    std::atomic_ref<uint32_t>(s.status).store((s.status + 2) | 1, std::memory_order_release);
    std::atomic_ref<uint64_t>(queue[count % queueEntries])
        .store(uint64_t{count} << 32 | label, std::memory_order_release);
    ++count;
  }
  const double t = seconds(start);
  ::munmap(at, bytes);
  if (misses) throw std::runtime_error("bare update loop missed a key");
  return t;
}

}  // namespace

int main(int argc, char** argv) {
  // --only NAME runs one system (profiling); the ratios then compare it with nothing.
  std::string only = argc == 3 && std::string(argv[1]) == "--only" ? argv[2] : "";
  std::vector<uint32_t> order(kEntries);
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(42));
  std::vector<System> systems = {
      {"ledger", runLedger<Route>, {}},
      {"ledger_identity", runLedger<IdentityRoute>, {}},
      {"lmdb_txn_per_op", [](const auto& o) { return runLmdb(o, true); }, {}},
      {"lmdb_one_txn", [](const auto& o) { return runLmdb(o, false); }, {}},
      {"boost_ipc_mutex", runBoost<boost::hash<uint32_t>>, {}},
      {"boost_ipc_mutex_keyhash", runBoost<MixedLabelHash>, {}},
  };
  if (!only.empty()) {
    std::erase_if(systems, [&](const System& s) { return s.name != only; });
  }
  std::vector<double> bareUpdates;
  for (int rep = 0; rep < kRepetitions; ++rep) {
    if (only.empty()) bareUpdates.push_back(bareUpdateSeconds(order));
    for (System& s : systems) {
      s.samples.push_back(s.run(order));
      const PhaseTimes& t = s.samples.back();
      std::printf("round %d %-16s insert %.3fs update %.3fs remove %.3fs bulk load %.3fs\n", rep,
                  s.name.c_str(), t.insert, t.update, t.remove, t.bulkLoad);
      std::fflush(stdout);
    }
  }
  std::filesystem::remove_all(benchRoot());
  std::map<std::string, PhaseTimes> med;
  for (System& s : systems) {
    auto pick = [&](double PhaseTimes::*field) {
      std::vector<double> v;
      for (const auto& t : s.samples) v.push_back(t.*field);
      return median(v);
    };
    med[s.name] = {pick(&PhaseTimes::insert), pick(&PhaseTimes::update), pick(&PhaseTimes::remove),
                   pick(&PhaseTimes::bulkLoad), pick(&PhaseTimes::batchUpdate)};
  }
  for (System& s : systems) {
    const PhaseTimes& t = med[s.name];
    std::printf("figure %s_inserts_per_s %.0f ops/s\n", s.name.c_str(), kEntries / t.insert);
    std::printf("figure %s_updates_per_s %.0f ops/s\n", s.name.c_str(), kEntries / t.update);
    std::printf("figure %s_removes_per_s %.0f ops/s\n", s.name.c_str(), kEntries / t.remove);
  }
  if (!only.empty()) return 0;
  // Loading 1M entries: through writeBatch (a bulk load or resync), and one write() at a time.
  std::printf("figure load_1m_seconds %.3f s\n", med["ledger"].bulkLoad);
  std::printf("figure load_1m_single_writes_seconds %.3f s\n", med["ledger"].insert);
  std::printf("figure ledger_batch_updates_per_s %.0f ops/s\n",
              kEntries / med["ledger"].batchUpdate);
  // Ours over the peer's. Against the Boost map this table hashes labels as that map does:
  // ledger_identity against boost_ipc_mutex, ledger against boost_ipc_mutex_keyhash.
  auto ratio = [&](const char* name, const std::string& peer, double PhaseTimes::*field,
                   const std::string& ours = "ledger") {
    std::printf("ratio %s %.2f\n", name, med[peer].*field / med[ours].*field);
  };
  ratio("insert_vs_lmdb_txn_per_op", "lmdb_txn_per_op", &PhaseTimes::insert);
  ratio("insert_vs_lmdb_one_txn", "lmdb_one_txn", &PhaseTimes::insert);
  ratio("insert_vs_boost_ipc_mutex", "boost_ipc_mutex", &PhaseTimes::insert, "ledger_identity");
  ratio("remove_vs_lmdb_txn_per_op", "lmdb_txn_per_op", &PhaseTimes::remove);
  ratio("remove_vs_lmdb_one_txn", "lmdb_one_txn", &PhaseTimes::remove);
  ratio("remove_vs_boost_ipc_mutex", "boost_ipc_mutex", &PhaseTimes::remove, "ledger_identity");
  ratio("update_vs_lmdb_txn_per_op", "lmdb_txn_per_op", &PhaseTimes::update);
  ratio("update_vs_lmdb_one_txn", "lmdb_one_txn", &PhaseTimes::update);
  ratio("update_vs_boost_ipc_mutex", "boost_ipc_mutex", &PhaseTimes::update, "ledger_identity");
  ratio("update_vs_boost_ipc_mutex_keyhash", "boost_ipc_mutex_keyhash", &PhaseTimes::update);
  std::printf("ratio batch_update_vs_boost_ipc_mutex %.2f\n",
              med["boost_ipc_mutex"].update / med["ledger_identity"].batchUpdate);
  // The floor of a single update here (bareUpdateSeconds), against the Boost map.
  std::printf("figure bare_update_loop_per_s %.0f ops/s\n", kEntries / median(bareUpdates));
  std::printf("ratio bare_update_loop_vs_boost_ipc_mutex %.2f\n",
              med["boost_ipc_mutex"].update / median(bareUpdates));
  return 0;
}
