// Reader benchmark: 1M entries of a 116-byte value (the LFIB route record's size).
//   lookup        direct-reader random lookups on one core, against LMDB mdb_get with a
//                 reused read transaction, a Boost.Interprocess unordered_map read under a
//                 sharable lock and with no lock, and an in-process std::unordered_map;
//                 the same keys through lookupBatch, 64 at a time. Two hash tables compare
//                 only when they hash the keys the same way: the Boost ratios hold this table
//                 against the Boost map with the labels hashed as those maps hash an integer
//                 (the identity, which boost::hash and std::hash use; this table then gets a
//                 key type that hashes so), and the _keyhash ratios with both hashing as the
//                 LFIB's keys do. Every other figure uses the LFIB's hashing.
//                 A walk of the whole table by the direct reader (first, next): walk_entries_per_s.
//   chase         a dependent pointer chase over a buffer of the slot table's size
//   sync          cold shadow sync of the whole table in a new shadow, against a memcpy of the
//                 table's bytes (from the writer's mapping into memory already faulted in),
//                 and against the least that a reader process has to do to copy them (map the
//                 file afresh and copy into memory fresh from the kernel: memcpy_cold); the
//                 same walk into an emptied shadow's own memory (resync); and a cold sync of a
//                 key shadow (keys and digests of values, what an agent's table binding keeps);
//                 a walk of a value shadow in step (first, next): shadow_walk_entries_per_s
//   follow        notifications a shadow consumes per second: of rewrites, and of removals
//                 (the writer's table shrinking on the way)
//   wake          commit -> callback latency in another process (idle, its loop blocked with
//                 no time-out), against a raw futex ping-pong between two processes, p50, p99,
//                 and against a raw ping-pong whose sleeping side blocks in epoll on an eventfd
//                 (the least a process that waits in an event loop can be woken in); and the
//                 same under churn: before each timed commit the writer rewrites 256
//                 other routes, kicking after every 16, so the reader is busy when it lands
// The lookup, chase and sync parts walk 1M random memory places. The table's files come in
// huge pages where the kernel allows, and so does the chase's buffer: the chase measures what
// a miss costs on the pages that the table has.
// Every copy into memory fresh from the kernel (the cold syncs, memcpy_cold) starts right after
// the process has touched and freed as much memory as it is about to fill. On a virtual machine
// whose host takes back guest memory that stays free for a while (free page reporting), the
// first touch of such memory waits for the host; whichever copy came first after a pause paid
// that, at about 0.5 GB/s. Touched just before, the pages are backed again, and every copy pays
// what it would pay on any machine: the kernel clearing the pages it hands out.
// Every figure is the median of kRepetitions runs, peers interleaved with ours in each round.
// Output ends with "figure <name> <value> <unit>" and "ratio <name> <value>" lines (higher is
// better in every ratio).
#include <fcntl.h>
#include <linux/futex.h>
#include <lmdb.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_map.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <span>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "bench/BenchRoute.h"
#include "ledger/LargePageAllocator.h"
#include "ledger/LedgerShadow.h"
#include "ledger/LedgerWriter.h"
#include "platform/shm/ReaderKick.h"
#include "zinc/Hash.h"

namespace {

const uint32_t kEntries =
    std::getenv("BENCH_ENTRIES") ? std::atoi(std::getenv("BENCH_ENTRIES")) : 1000000;
constexpr int kRepetitions = 5;
constexpr uint32_t kLookups = 2000000;

using namespace Bench;
uint64_t nowNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

// Fixed at first use, so that forked readers find the parent's table.
const std::string& benchRoot() {
  static const std::string root = "/dev/shm/ledger-reader-bench-" + std::to_string(::getpid());
  return root;
}

template <class R>
using WriterOf = Ledger::LedgerWriter<typename R::Key, R>;
template <class R>
using ReaderOf = Ledger::LedgerReader<typename R::Key, R>;
using Writer = WriterOf<Route>;
using Reader = ReaderOf<Route>;
using Shadow = Ledger::LedgerShadow<RouteKey, Route>;
// What an agent's table binding follows a table with: keys and digests of values, no values.
using KeyShadow =
    Ledger::LedgerShadow<RouteKey, Route, Ledger::Ops<RouteKey, Route>, Ledger::KeyShadowSlot>;

Ledger::LedgerConfig config(const std::string& table = "routes") {
  Ledger::LedgerConfig c;
  c.root = benchRoot();
  c.table = table;
  c.capacity = 1024;
  return c;
}

volatile uint32_t sink;

// Writes every entry, at `version`.
template <class R>
void writeAll(WriterOf<R>& w, uint32_t version) {
  for (uint32_t label = 0; label < kEntries; ++label) w.write(makeRoute<R>(label, version));
}

// ---- lookups ------------------------------------------------------------------------------

template <class R>
double ledgerLookups(ReaderOf<R>& reader, const std::vector<uint32_t>& order) {
  R r;
  uint32_t found = 0;
  auto start = Clock::now();
  for (uint32_t label : order) found += reader.lookup(typename R::Key{label}, r);
  double t = seconds(start);
  sink = found;
  return order.size() / t;
}

// A walk of the whole table (first, then next from each key with its hint): entries per second.
template <class Table>
double ledgerWalk(Table& table) {
  Route r;
  uint32_t hint = Ledger::kNoSlot, n = 0;
  auto start = Clock::now();
  for (bool more = table.first(r); more; more = table.next(r.k, r, &hint)) ++n;
  double t = seconds(start);
  sink = n;
  return n / t;
}

// The same keys through lookupBatch, kBatch at a time.
double ledgerBatchedLookups(Reader& reader, const std::vector<uint32_t>& order) {
  constexpr size_t kBatch = 64;
  std::vector<RouteKey> keys(kBatch);
  std::vector<Route> outs(kBatch);
  bool found[kBatch];
  uint32_t hits = 0;
  auto start = Clock::now();
  for (size_t at = 0; at < order.size(); at += kBatch) {
    const size_t n = std::min(kBatch, order.size() - at);
    for (size_t i = 0; i < n; ++i) keys[i] = RouteKey{order[at + i]};
    hits += reader.lookupBatch(std::span<const RouteKey>(keys.data(), n), outs, found);
  }
  double t = seconds(start);
  sink = hits + outs[0].words[0];
  return order.size() / t;
}

struct Lmdb {
  MDB_env* env = nullptr;
  MDB_dbi dbi = 0;
  MDB_txn* txn = nullptr;
  Lmdb() {
    std::string dir = benchRoot() + "/lmdb";
    std::filesystem::create_directories(dir);
    mdb_env_create(&env);
    mdb_env_set_mapsize(env, size_t{1} << 30);
    mdb_env_open(env, dir.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0600);
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi);
    for (uint32_t label = 0; label < kEntries; ++label) {
      Route r = makeRoute(label, 1);
      MDB_val key{sizeof(label), &label}, value{sizeof(r), &r};
      mdb_put(txn, dbi, &key, &value, MDB_APPEND);
    }
    mdb_txn_commit(txn);
    mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn);
  }
  ~Lmdb() {
    mdb_txn_abort(txn);
    mdb_env_close(env);
  }
  double lookups(const std::vector<uint32_t>& order) {
    uint32_t found = 0;
    Route r;
    auto start = Clock::now();
    mdb_txn_reset(txn);
    mdb_txn_renew(txn);
    for (uint32_t label : order) {
      MDB_val key{sizeof(label), &label}, value;
      if (mdb_get(txn, dbi, &key, &value) == 0) {
        std::memcpy(&r, value.mv_data, sizeof(r));
        ++found;
      }
    }
    double t = seconds(start);
    sink = found;
    return order.size() / t;
  }
};

namespace bip = boost::interprocess;
template <class LabelHasher>
struct BoostMap {
  using Alloc =
      bip::allocator<std::pair<const uint32_t, Route>, bip::managed_shared_memory::segment_manager>;
  using Map = boost::unordered_map<uint32_t, Route, LabelHasher, std::equal_to<uint32_t>, Alloc>;
  std::string name = "ledger-reader-bench-boost-" + std::to_string(::getpid()) + "-" +
                     (std::is_same_v<LabelHasher, MixedLabelHash> ? "mixed" : "identity");
  bip::managed_shared_memory segment;
  Map* map;
  bip::interprocess_sharable_mutex* mutex;
  BoostMap() {
    bip::shared_memory_object::remove(name.c_str());
    segment = bip::managed_shared_memory(bip::create_only, name.c_str(), size_t{512} << 20);
    mutex = segment.construct<bip::interprocess_sharable_mutex>("mutex")();
    map = segment.construct<Map>("map")(kEntries, LabelHasher(), std::equal_to<uint32_t>(),
                                        segment.get_allocator<std::pair<const uint32_t, Route>>());
    for (uint32_t label = 0; label < kEntries; ++label) map->emplace(label, makeRoute(label, 1));
  }
  ~BoostMap() { bip::shared_memory_object::remove(name.c_str()); }
  double lookups(const std::vector<uint32_t>& order, bool locked) {
    uint32_t found = 0;
    Route r;
    auto start = Clock::now();
    for (uint32_t label : order) {
      if (locked) {
        bip::sharable_lock<bip::interprocess_sharable_mutex> lock(*mutex);
        auto it = map->find(label);
        if (it != map->end()) r = it->second, ++found;
      } else {
        auto it = map->find(label);
        if (it != map->end()) r = it->second, ++found;
      }
    }
    double t = seconds(start);
    sink = found + r.words[0];
    return order.size() / t;
  }
};

double stdLookups(const std::unordered_map<uint32_t, Route>& map,
                  const std::vector<uint32_t>& order) {
  uint32_t found = 0;
  Route r;
  auto start = Clock::now();
  for (uint32_t label : order) {
    auto it = map.find(label);
    if (it != map.end()) r = it->second, ++found;
  }
  double t = seconds(start);
  sink = found + r.words[0];
  return order.size() / t;
}

// ns per hop of a dependent chase over `bytes`, one hop per 64-byte line, random cycle, in
// memory on huge pages where the system gives them (as the table's files are).
double pointerChaseNs(size_t bytes) {
  const size_t lines = bytes / 64;
  std::vector<uint64_t, Ledger::LargePageAllocator<uint64_t>> buffer(lines * 8);
  std::vector<uint32_t> perm(lines);
  std::iota(perm.begin(), perm.end(), 0);
  std::shuffle(perm.begin(), perm.end(), std::mt19937(5));
  for (size_t i = 0; i < lines; ++i)
    buffer[size_t{perm[i]} * 8] = size_t{perm[(i + 1) % lines]} * 8;
  uint64_t at = size_t{perm[0]} * 8;
  const uint32_t hops = kLookups;
  auto start = Clock::now();
  for (uint32_t i = 0; i < hops; ++i) at = buffer[at];
  double t = seconds(start);
  sink = uint32_t(at);
  return t * 1e9 / hops;
}

// ---- sync and follow ----------------------------------------------------------------------

bool runUntil(Zinc::Loop& loop, const std::function<bool()>& pred) {
  auto deadline = Clock::now() + std::chrono::seconds(120);
  while (!pred()) {
    if (Clock::now() > deadline) return false;
    loop.runOnce(std::chrono::milliseconds(1));
  }
  return true;
}

// Touches `bytes` of fresh memory, mapped as a shadow maps its arrays, and gives it back: the
// kernel hands the same pages, backed by the host, to whatever allocates next (see above).
void touchFreshMemory(size_t bytes) {
  Ledger::LargePageAllocator<uint8_t> allocator;
  uint8_t* at = allocator.allocate(bytes);
  std::memset(at, 1, bytes);
  allocator.deallocate(at, bytes);
}
// Twice the table's bytes: a shadow holds the values, its hash map and a spare.
size_t freshMemoryFor(Writer& w) { return 2 * w.slotTable().mappedSize(); }

// Wall-clock and processor seconds of one cold sync (the second is steadier on a busy box).
// The profiler named by $BENCH_PERF_FIFO (if set) samples only the timed syncs and resyncs.
template <class S = Shadow>
std::pair<double, double> syncSeconds(size_t freshBytes) {
  touchFreshMemory(freshBytes);
  Zinc::Loop loop;
  S shadow(Ledger::ReaderConfig{benchRoot(), "routes"}, loop);
  shadow.yieldTimeIs(std::chrono::milliseconds(10));
  Bench::perfControlFromEnv("enable");
  const int64_t cpu = cpuNs();
  auto start = Clock::now();
  shadow.initialize();
  runUntil(loop, [&] { return shadow.inStep(); });
  const double wall = seconds(start);
  const double used = double(cpuNs() - cpu) / 1e9;
  Bench::perfControlFromEnv("disable");
  return {wall, used};
}

// A shadow of the table, synced and in step.
struct ShadowInStep {
  Zinc::Loop loop;
  Shadow shadow{Ledger::ReaderConfig{benchRoot(), "routes"}, loop};
  ShadowInStep() {
    shadow.yieldTimeIs(std::chrono::milliseconds(10));
    shadow.initialize();
    runUntil(loop, [&] { return shadow.inStep(); });
  }
};

// A cold sync of a shadow emptied (flush) after a first sync: the same walk, into the memory
// that the shadow filled before instead of memory fresh from the kernel.
double resyncSeconds() {
  ShadowInStep s;
  s.shadow.store().flush();
  Bench::perfControlFromEnv("enable");
  auto start = Clock::now();
  s.shadow.resync("benchmark");
  runUntil(s.loop, [&] { return s.shadow.inStep(); });
  const double wall = seconds(start);
  Bench::perfControlFromEnv("disable");
  return wall;
}

// The same walk over a shadow in step: its keys in the same order, its values from its copy.
double shadowWalk() {
  ShadowInStep s;
  return ledgerWalk(s.shadow);
}

// What a reader process must do at the least to copy the table: map the file afresh and copy
// its bytes into memory fresh from the kernel, mapped as a shadow maps its arrays.
double memcpyColdSeconds(Writer& w) {
  const size_t size = w.slotTable().mappedSize();
  std::vector<uint8_t, Ledger::LargePageAllocator<uint8_t>> copy;
  touchFreshMemory(freshMemoryFor(w));
  auto start = Clock::now();
  const int fd = ::open(w.slotTable().path().c_str(), O_RDONLY | O_CLOEXEC);
  void* at = fd < 0 ? MAP_FAILED : ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  if (at == MAP_FAILED) throw std::runtime_error("cannot map " + w.slotTable().path());
  copy.resize(size);
  std::memcpy(copy.data(), at, size);
  double t = seconds(start);
  ::munmap(at, size);
  ::close(fd);
  sink = copy[size / 2];
  return t;
}

double memcpySeconds(Writer& w) {
  std::vector<uint8_t> copy(w.slotTable().mappedSize());
  auto start = Clock::now();
  std::memcpy(copy.data(), w.slotTable().base(), copy.size());
  double t = seconds(start);
  sink = copy[copy.size() / 2];
  return t;
}

// Notifications per second of a shadow, in step before `change` runs on the writer, consuming
// what it did.
template <class Change>
double followRate(Change&& change) {
  Zinc::Loop loop;
  uint64_t events = 0;
  Ledger::Notify<RouteKey, Route> n;
  n.onKey = [&](const RouteKey&, const Route*) { ++events; };
  Shadow shadow(Ledger::ReaderConfig{benchRoot(), "routes"}, loop, n);
  shadow.initialize();
  runUntil(loop, [&] { return shadow.inStep(); });
  events = 0;
  change();
  auto start = Clock::now();
  shadow.rally().handleAck([&](uint32_t slot, uint64_t seq) { shadow.store().doSlot(slot, seq); });
  return events / seconds(start);
}

// The writer changes every entry once.
double followRate(Writer& w, uint32_t version) {
  return followRate([&] { writeAll<Route>(w, version); });
}

// The writer removes every entry (shrinking its table on the way). The entries are written
// back afterwards, untimed.
double followRemovalRate(Writer& w, uint32_t version) {
  const double rate = followRate([&] {
    for (uint32_t label = 0; label < kEntries; ++label) w.remove(RouteKey{label});
  });
  writeAll<Route>(w, version);
  return rate;
}

// ---- wake-up latency ----------------------------------------------------------------------

struct Shared {
  std::atomic<uint32_t> futexWord;
  std::atomic<uint64_t> stamp;
  std::atomic<uint32_t> ready;
  uint64_t samples[4096];
  uint32_t count;
};

Shared* sharedPage() {
  void* p =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (p) Shared{};
}
long futex(std::atomic<uint32_t>* word, int op, uint32_t value) {
  return ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op, value, nullptr, nullptr, 0);
}

std::pair<double, double> percentiles(std::vector<uint64_t> v) {
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2] / 1e3, v[v.size() * 99 / 100] / 1e3};
}

constexpr uint32_t kWakes = 2000;

// A ping-pong between two processes: the parent stamps the time and wakes the other side,
// asleep in the kernel, which takes the difference as soon as it runs and answers through the
// futex. How the sleeping side waits, and how the parent wakes it, are `Side`'s: a futex (the
// least the kernel does to wake anything), or an eventfd watched by epoll (what an event loop
// blocks in, the floor for a reader that waits in its notification loop).
template <class Side>
std::pair<double, double> pingPong() {
  Shared* s = sharedPage();
  Side side(s);
  pid_t child = ::fork();
  if (child == 0) {
    for (uint32_t i = 0; i < kWakes; ++i) {
      side.sleep(i);
      s->samples[i % 4096] = nowNs() - s->stamp.load();
      s->futexWord.store(i * 2 + 2);
      futex(&s->futexWord, FUTEX_WAKE, 1);
    }
    ::_exit(0);
  }
  std::vector<uint64_t> lat;
  for (uint32_t i = 0; i < kWakes; ++i) {
    ::usleep(200);  // the other side is idle, asleep in the kernel
    s->stamp.store(nowNs());
    side.wake(i);
    while (s->futexWord.load() != i * 2 + 2) futex(&s->futexWord, FUTEX_WAIT, i * 2 + 1);
    lat.push_back(s->samples[i % 4096]);
  }
  ::waitpid(child, nullptr, 0);
  ::munmap(s, sizeof(Shared));
  return percentiles(lat);
}

struct FutexSide {
  Shared* s;
  explicit FutexSide(Shared* shared) : s(shared) {}
  void sleep(uint32_t i) {
    while (s->futexWord.load() == i * 2) futex(&s->futexWord, FUTEX_WAIT, i * 2);
  }
  void wake(uint32_t i) {
    s->futexWord.store(i * 2 + 1);
    futex(&s->futexWord, FUTEX_WAKE, 1);
  }
};

// Watched edge-triggered and never read, as a reader watches the eventfd its writers kick.
struct EpollSide {
  Shared* s;
  int eventFd, epollFd;
  explicit EpollSide(Shared* shared)
      : s(shared),
        eventFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
        epollFd(::epoll_create1(EPOLL_CLOEXEC)) {
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLET;
    if (eventFd < 0 || epollFd < 0 || ::epoll_ctl(epollFd, EPOLL_CTL_ADD, eventFd, &ev) != 0) {
      throw std::runtime_error("eventfd/epoll for the ping-pong");
    }
  }
  ~EpollSide() {
    ::close(epollFd);
    ::close(eventFd);
  }
  void sleep(uint32_t i) {
    epoll_event ev;
    while (s->futexWord.load() == i * 2) ::epoll_wait(epollFd, &ev, 1, -1);
  }
  void wake(uint32_t i) {
    s->futexWord.store(i * 2 + 1);
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(eventFd, &one, sizeof one);
  }
};

// Between two timed commits: idle (the reader asleep), or churning (the reader busy with a
// stream of other changes when the timed commit lands).
enum class Between { idle, churn };
// Churn before each timed commit: this many rewrites of other routes, in loop iterations of
// kChurnPerFlush rewrites (each ends with a kick), as a busy writer agent commits.
constexpr uint32_t kChurnWrites = 256, kChurnPerFlush = 16;

void churn(Writer& w, Mem::ReaderKickSm& kicker, std::mt19937& rng, uint32_t round) {
  for (uint32_t i = 0; i < kChurnWrites; ++i) {
    w.write(makeRoute(8 + rng() % (kEntries - 8), round));
    if ((i + 1) % kChurnPerFlush == 0) kicker.flush();
  }
}

// The value's words[0..1] carry the commit time; the reader's callback takes the difference.
std::pair<double, double> commitToCallback(Writer& w, Mem::ReaderKickSm& kicker, Between between) {
  Shared* s = sharedPage();
  pid_t child = ::fork();
  if (child == 0) {
    Zinc::Loop loop;
    uint32_t seen = 0;
    bool armed = false;  // the first sync's additions are not commits to time
    Ledger::Notify<RouteKey, Route> n;
    n.onKey = [&](const RouteKey&, const Route* r) {
      if (!armed || !r || r->k.label != 7) return;
      uint64_t stamp;
      std::memcpy(&stamp, &r->words[0], 8);
      if (stamp == 0) return;
      s->samples[seen % 4096] = nowNs() - stamp;
      s->count = ++seen;
      s->futexWord.store(seen);
      futex(&s->futexWord, FUTEX_WAKE, 1);
    };
    Shadow shadow(Ledger::ReaderConfig{benchRoot(), "routes"}, loop, n);
    shadow.initialize();
    runUntil(loop, [&] { return shadow.inStep(); });
    armed = true;
    s->ready.store(1);
    // As an agent's loop does: block until something happens. (A wait with a time-out, as
    // runUntil's, arms and cancels a kernel timer around every wait, which costs each
    // wake-up several microseconds on a virtual machine.)
    while (seen < kWakes) loop.runOnce(Zinc::Loop::Duration::max());
    ::_exit(0);
  }
  while (!s->ready.load()) ::usleep(1000);
  std::vector<uint64_t> lat;
  std::mt19937 rng(7);
  for (uint32_t i = 0; i < kWakes; ++i) {
    if (between == Between::idle) {
      ::usleep(200);
    } else {
      churn(w, kicker, rng, i);
    }
    Route r = makeRoute(7, i + 10);
    uint64_t stamp = nowNs();
    std::memcpy(&r.words[0], &stamp, 8);
    w.write(r);
    kicker.flush();
    for (uint32_t v; (v = s->futexWord.load()) < i + 1;) futex(&s->futexWord, FUTEX_WAIT, v);
    lat.push_back(s->samples[i % 4096]);
  }
  ::waitpid(child, nullptr, 0);
  ::munmap(s, sizeof(Shared));
  return percentiles(lat);
}

// BENCH_PARTS (comma-separated: lookup, sync, follow, wake) runs only those parts; a figure
// or ratio whose inputs were not measured is not printed.
bool wanted(const char* part) {
  const char* parts = std::getenv("BENCH_PARTS");
  if (!parts) return true;
  return ("," + std::string(parts) + ",").find("," + std::string(part) + ",") != std::string::npos;
}

using Series = std::vector<double>;
void figure(const char* name, const Series& v, int decimals, const char* unit) {
  if (!v.empty()) std::printf("figure %s %.*f %s\n", name, decimals, median(v), unit);
}
void ratio(const char* name, const Series& a, const Series& b, bool inverse = false) {
  if (a.empty() || b.empty()) return;
  std::printf("ratio %s %.2f\n", name, inverse ? median(b) / median(a) : median(a) / median(b));
}

}  // namespace

int main() {
  std::filesystem::remove_all(benchRoot());
  Writer w(config());
  w.attach();
  Mem::ReaderKickSm kicker(benchRoot() + "/routes");
  w.rally().kickHookIs([&] { kicker.commitNotify(); });
  writeAll<Route>(w, 1);
  std::fprintf(stderr, "loaded\n");
  Reader reader(Ledger::ReaderConfig{benchRoot(), "routes"});
  reader.attach();
  std::vector<uint32_t> order(kLookups);
  std::mt19937 rng(11);
  for (auto& label : order) label = rng() % kEntries;
  const bool lookups = wanted("lookup");
  // For the lookups against the other hash maps, which hash an integer label by the identity,
  // a second table of ours whose keys hash the same way.
  std::unique_ptr<WriterOf<IdentityRoute>> identityWriter;
  std::unique_ptr<ReaderOf<IdentityRoute>> identityReader;
  std::unique_ptr<Lmdb> lmdb;
  std::unique_ptr<BoostMap<boost::hash<uint32_t>>> boost;
  std::unique_ptr<BoostMap<MixedLabelHash>> boostMixed;
  std::unordered_map<uint32_t, Route> plain;
  if (lookups) {
    identityWriter = std::make_unique<WriterOf<IdentityRoute>>(config("routes-identity"));
    identityWriter->attach();
    writeAll<IdentityRoute>(*identityWriter, 1);
    identityReader = std::make_unique<ReaderOf<IdentityRoute>>(
        Ledger::ReaderConfig{benchRoot(), "routes-identity"});
    identityReader->attach();
    lmdb = std::make_unique<Lmdb>();
    boost = std::make_unique<BoostMap<boost::hash<uint32_t>>>();
    boostMixed = std::make_unique<BoostMap<MixedLabelHash>>();
    for (uint32_t label = 0; label < kEntries; ++label) plain.emplace(label, makeRoute(label, 1));
  }

  // ours, bl, bu: keys hashed by the identity; oursMixed, blMixed, buMixed: as the LFIB's keys.
  Series ours, oursMixed, batched, walk, lm, bl, bu, blMixed, buMixed, st, chase;
  Series sync, syncCpu, copy, follow, followRemovals, resync, copyCold, keySync, shadowWalks;
  Series wakeP50, wakeP99, futexP50, futexP99, epollP50, epollP99, churnP50, churnP99;
  for (int rep = 0; rep < kRepetitions; ++rep) {
    if (lookups) {
      ours.push_back(ledgerLookups<IdentityRoute>(*identityReader, order));
      oursMixed.push_back(ledgerLookups<Route>(reader, order));
      batched.push_back(ledgerBatchedLookups(reader, order));
      walk.push_back(ledgerWalk(reader));
      lm.push_back(lmdb->lookups(order));
      bl.push_back(boost->lookups(order, true));
      bu.push_back(boost->lookups(order, false));
      blMixed.push_back(boostMixed->lookups(order, true));
      buMixed.push_back(boostMixed->lookups(order, false));
      st.push_back(stdLookups(plain, order));
      chase.push_back(pointerChaseNs(w.slotTable().mappedSize()));
    }
    if (wanted("sync")) {
      auto [wall, cpu] = syncSeconds(freshMemoryFor(w));
      sync.push_back(wall);
      syncCpu.push_back(cpu);
      copy.push_back(memcpySeconds(w));
      resync.push_back(resyncSeconds());
      copyCold.push_back(memcpyColdSeconds(w));
      keySync.push_back(syncSeconds<KeyShadow>(freshMemoryFor(w)).first);
      shadowWalks.push_back(shadowWalk());
    }
    if (wanted("follow")) {
      follow.push_back(followRate(w, rep + 2));
      followRemovals.push_back(followRemovalRate(w, rep + 2));
    }
    if (wanted("wake")) {
      auto [fp50, fp99] = pingPong<FutexSide>();
      auto [ep50, ep99] = pingPong<EpollSide>();
      auto [wp50, wp99] = commitToCallback(w, kicker, Between::idle);
      auto [cp50, cp99] = commitToCallback(w, kicker, Between::churn);
      futexP50.push_back(fp50);
      futexP99.push_back(fp99);
      epollP50.push_back(ep50);
      epollP99.push_back(ep99);
      wakeP50.push_back(wp50);
      wakeP99.push_back(wp99);
      churnP50.push_back(cp50);
      churnP99.push_back(cp99);
    }
    std::fprintf(stderr, "round %d done%s\n", rep + 1,
                 sync.empty() ? "" : (", sync " + std::to_string(sync.back()) + " s").c_str());
  }
  Series lookupNs;
  for (double rate : oursMixed) lookupNs.push_back(1e9 / rate);
  figure("lookup_per_s", oursMixed, 0, "lookups/s");
  figure("lookup_identity_hash_per_s", ours, 0, "lookups/s");
  figure("batched_lookup_per_s", batched, 0, "lookups/s");
  figure("walk_entries_per_s", walk, 0, "entries/s");
  figure("lmdb_get_per_s", lm, 0, "lookups/s");
  figure("boost_ipc_locked_per_s", bl, 0, "lookups/s");
  figure("boost_ipc_unlocked_per_s", bu, 0, "lookups/s");
  figure("boost_ipc_locked_keyhash_per_s", blMixed, 0, "lookups/s");
  figure("boost_ipc_unlocked_keyhash_per_s", buMixed, 0, "lookups/s");
  figure("std_unordered_map_per_s", st, 0, "lookups/s");
  figure("lookup_ns", lookupNs, 1, "ns");
  figure("pointer_chase_ns", chase, 1, "ns");
  figure("sync_1m_seconds", sync, 4, "s");
  figure("sync_1m_cpu_seconds", syncCpu, 4, "s");
  figure("memcpy_table_seconds", copy, 4, "s");
  figure("resync_1m_seconds", resync, 4, "s");
  figure("memcpy_cold_seconds", copyCold, 4, "s");
  figure("sync_key_shadow_1m_seconds", keySync, 4, "s");
  figure("shadow_walk_entries_per_s", shadowWalks, 0, "entries/s");
  figure("follow_events_per_s", follow, 0, "events/s");
  figure("follow_removals_per_s", followRemovals, 0, "events/s");
  figure("wake_p50_us", wakeP50, 1, "us");
  figure("wake_p99_us", wakeP99, 1, "us");
  figure("wake_under_churn_p50_us", churnP50, 1, "us");
  figure("wake_under_churn_p99_us", churnP99, 1, "us");
  figure("futex_p50_us", futexP50, 1, "us");
  figure("futex_p99_us", futexP99, 1, "us");
  figure("epoll_p50_us", epollP50, 1, "us");
  figure("epoll_p99_us", epollP99, 1, "us");
  ratio("lookup_vs_lmdb", oursMixed, lm);
  ratio("batched_lookup_vs_lmdb", batched, lm);
  ratio("lookup_vs_boost_ipc_locked", ours, bl);
  ratio("lookup_vs_boost_ipc_unlocked", ours, bu);
  ratio("lookup_vs_boost_ipc_locked_keyhash", oursMixed, blMixed);
  ratio("lookup_vs_boost_ipc_unlocked_keyhash", oursMixed, buMixed);
  ratio("lookup_vs_std_unordered_map", ours, st);
  ratio("pointer_chase_vs_lookup", chase, lookupNs);
  ratio("memcpy_vs_sync", copy, sync);
  ratio("memcpy_vs_resync", copy, resync);
  ratio("memcpy_cold_vs_sync", copyCold, sync);
  ratio("futex_vs_wake_p50", futexP50, wakeP50);
  ratio("futex_vs_wake_p99", futexP99, wakeP99);
  ratio("epoll_vs_wake_p50", epollP50, wakeP50);
  ratio("epoll_vs_wake_p99", epollP99, wakeP99);
  if (identityWriter) identityWriter->cleanup();
  w.cleanup();
  std::filesystem::remove_all(benchRoot());
  return 0;
}
