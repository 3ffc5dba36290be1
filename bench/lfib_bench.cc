// lfib_bench: routes per second through LfibWriter into shared memory, with a reader process
// following the tables through its shadows.
//
// For 1, 2 and 16 MPLS vias per route: first publication of N routes (default 1,000,000),
// an in-place rewrite of one via per route, and deletion of every route; after each phase the
// time from the writer's last write until the reader is in step; and the shared memory used
// against the raw slot bytes of what is stored.
//
//   lfib_bench [--routes N] [--vias 1,2,16] [--repeat R] [--files] [--publish-only] [--no-reader]
//              [--perf-control FIFO] [--reader-perf-control FIFO]
//
// The 2-via run, whose figures the summary reports, is repeated R times (default 5), each on
// fresh files with a fresh reader; the summary takes the median of each figure.
// --no-reader runs the writer alone (the in-step figures read -1), to tell what the reader
// costs it. --publish-only stops after the first publication; --files lists each shared-memory file
// after the first publication: the bytes it occupies (allocated blocks) and its length.
// --perf-control writes "enable" to FIFO as the first publication starts and "disable" as it ends,
// so that a profiler started with `perf record -D -1 --control fifo:FIFO` sees only the timed
// writes.
// --reader-perf-control does the same for the reader process, from its start until it is in
// step after the first publication: the bench prints "reader pid N", and the reader waits
// until `perf record -D -1 --control fifo:FIFO -p N` has opened FIFO.
//
// The routes go to the writer in batches of 1024 (LfibWriter::lfibRoutesIs), the readers are
// kicked after each batch. The bench builds each batch just before handing it over; the
// routes/s figures leave that building out (it is the producer's work, not the writer's) and
// the per-run line also gives publication with it. The tables go under $LEDGER_ROOT if set,
// else /dev/shm. Output ends with "figure <name> <value> <unit>" and
// "ratio <name> <value>" lines.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "bench/BenchRoute.h"
#include "ledger/Format.h"
#include "ledger/Shape.h"
#include "lfib/LfibWriter.h"
#include "platform/toggle/FeatureToggle.h"
#include "tools/LineIo.h"
#include "zinc/Loop.h"

namespace {

using LineIo::readLine;
using LineIo::sendLine;

using Bench::Clock;
using Bench::cpuNs;
using Bench::perfControl;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// The writer's page faults so far and its system time in seconds: what the kernel spends
// faulting in the tables' pages.
struct KernelShare {
  uint64_t faults = 0;
  double systemSeconds = 0;
  static KernelShare now() {
    rusage u;
    ::getrusage(RUSAGE_SELF, &u);
    return {uint64_t(u.ru_minflt + u.ru_majflt), u.ru_stime.tv_sec + u.ru_stime.tv_usec / 1e6};
  }
  KernelShare operator-(const KernelShare& before) const {
    return {faults - before.faults, systemSeconds - before.systemSeconds};
  }
};

Mpls::ConsolidatedLfibRoute route(uint32_t i, uint32_t vias, uint32_t variant) {
  Mpls::ConsolidatedLfibRoute r(Mpls::RouteKey(Wire::MplsLabel(16 + i)), LFib::sourceLdp_,
                                Mpls::FwdEqvClass(), Mpls::RouteMetric(), Mpls::viaTypeMplsIp_,
                                Mpls::viaSetTypeEcmp_);
  for (uint32_t v = 0; v < vias; ++v) {
    Mpls::LfibMplsVia via;
    via.nextHopIs(Wire::IpGenAddr::ipv4(0x0a000000 + v + (v == 0 ? variant : 0)));
    Wire::MplsLabelOperation op;
    op.operationIs(Wire::labelActionSwap_);
    op.labelPush(Wire::MplsLabel(16 + (i + v) % 1000000));
    via.labelStackIs(op);
    via.weightIs(1);
    r.mplsViaIs(via);
  }
  return r;
}

// The reader: follows the tables; for each "phase <endNs> <routes>" line it answers
// "<seconds> <cpuSeconds>": the seconds from endNs until its shadows are in step and hold that
// many routes, and the CPU time it has used since the previous answer.
[[noreturn]] void reader(const std::string& root, int in, int out, const std::string& fifo) {
  {
    perfControl(fifo, "enable");
    int64_t cpuStart = cpuNs();
    Zinc::Loop loop;
    auto status = Mpls::lfibStatusFactory("bench");
    status->ledgerMountIs(Ledger::LedgerMode::readOnly, root, 64, &loop);
    std::optional<std::pair<int64_t, uint64_t>> target;
    loop.fdWatchIs(in, [&](uint32_t) {
      auto line = readLine(in);
      if (!line) return loop.stop();
      std::istringstream is(*line);
      std::string word;
      int64_t end;
      uint64_t routes;
      is >> word >> end >> routes;
      target = {end, routes};
    });
    loop.timerEvery(std::chrono::microseconds(200), [&] {
      if (!target || !status->ledgerInStep() || status->lfibRouteCount() != target->second) return;
      const int64_t cpu = cpuNs();
      sendLine(out, std::to_string(double(nowNs() - target->first) / 1e9) + " " +
                        std::to_string(double(cpu - cpuStart) / 1e9));
      cpuStart = cpu;
      target.reset();
      perfControl(fifo, "disable");  // a second "disable" is harmless
    });
    loop.run();
    status->ledgerUnmount();
  }
  ::_exit(0);
}

// In place of the reader (--no-reader): answers every phase without following anything, so
// that the writer runs alone.
[[noreturn]] void idleReader(int in, int out) {
  while (readLine(in)) sendLine(out, "-1 0");
  ::_exit(0);
}

struct Result {
  // Routes per second through the writer: the seconds that the producer spends building
  // routes before it hands them over are not the writer's and are left out.
  double publish = 0, rewrite = 0, remove = 0;
  double publishWithBuild = 0;  // publication, building the routes included
  double publishCpu = 0;        // routes per second of the writer's CPU time
  KernelShare publishKernel;    // the writer's faults and system time
  double inStepPublish = 0, inStepRewrite = 0, inStepRemove = 0;
  double readerCpuPublish = 0;  // the reader's CPU seconds until in step after publication
  double publishBuild = 0;      // seconds of the publication spent building the routes
  uint64_t shmBytes = 0, rawBytes = 0;
  uint64_t shmAfterRewrite = 0;  // the change queues hold tombstones of the rewrite too
};

// The bytes that the entries need: their slots, and for the via sets (kept in slabs) a 24-byte
// slot plus the payload each one actually uses.
uint64_t rawSlotBytes(Mpls::LfibStatus& s) {
  uint64_t viaSetBytes = 0;
  s.viaSetForEach([&](const Mpls::LfibViaSet& v) {
    viaSetBytes +=
        Ledger::slotSizeFor(sizeof(Shape::Offset)) + Zinc::Serial<Mpls::LfibViaSet>::length(v);
  });
  return uint64_t(s.lfibRouteCount()) * 136 + viaSetBytes + uint64_t(s.mplsViaCount()) * 120;
}

// Per file under `root`: bytes allocated (pages that occupy memory) and apparent size.
void printFiles(const std::string& root) {
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    struct stat st;
    if (!it->is_regular_file(ec) || ::stat(it->path().c_str(), &st) != 0) continue;
    std::printf("  %-60s %9.1f MB used %9.1f MB size\n",
                it->path().lexically_relative(root).c_str(), st.st_blocks * 512 / 1e6,
                st.st_size / 1e6);
  }
}

struct Options {
  uint32_t routes = 1000000;
  std::vector<uint32_t> viaCounts{1, 2, 16};
  bool files = false;
  bool publishOnly = false;
  uint32_t repeat = 5;  // runs of the 2-via count
  bool noReader = false;
  std::string perfControl, readerPerfControl;
};

Result run(const Options& options, uint32_t vias) {
  const uint32_t routes = options.routes;
  const char* base = std::getenv("LEDGER_ROOT");
  std::string root =
      std::string(base && *base ? base : "/dev/shm") + "/lfib_bench-" + std::to_string(::getpid());
  std::filesystem::remove_all(root);
  int toReader[2], fromReader[2];
  if (::pipe(toReader) || ::pipe(fromReader)) std::exit(1);
  pid_t child = ::fork();
  if (child == 0) {
    ::close(toReader[1]);
    ::close(fromReader[0]);
    if (options.noReader) idleReader(toReader[0], fromReader[1]);
    reader(root, toReader[0], fromReader[1], options.readerPerfControl);
  }
  if (!options.readerPerfControl.empty()) {
    std::printf("reader pid %d\n", int(child));
    std::fflush(stdout);
  }
  ::close(toReader[0]);
  ::close(fromReader[1]);

  Result r;
  auto status = Mpls::lfibStatusFactory("bench");
  status->ledgerExpectedSizeIs({routes, routes * vias});
  status->ledgerMountIs(Ledger::LedgerMode::writer, root);
  auto writer = Mpls::lfibWriterFactory(status);
  double cpuRate = 0;
  KernelShare kernel;
  // body(first, count) changes routes [first, first + count); readers are kicked after each
  // batch of kBatch routes.
  constexpr uint32_t kBatch = 1024;
  double readerCpu = 0;
  int64_t buildNs = 0;  // of the phase: building the routes (the producer's part)
  double rateWithBuild = 0;
  auto phase = [&](auto&& body, double& rate, double& inStep) {
    const KernelShare kernelStart = KernelShare::now();
    int64_t start = nowNs(), cpuStart = cpuNs();
    buildNs = 0;
    for (uint32_t first = 0; first < routes; first += kBatch) {
      body(first, std::min(kBatch, routes - first));
      status->ledgerFlushKicks();
    }
    int64_t end = nowNs();
    status->ledgerFlushKicks();
    rate = routes / (double(end - start - buildNs) / 1e9);
    rateWithBuild = routes / (double(end - start) / 1e9);
    cpuRate = routes / (double(cpuNs() - cpuStart - buildNs) / 1e9);
    kernel = KernelShare::now() - kernelStart;
    sendLine(toReader[1],
             "phase " + std::to_string(end) + " " + std::to_string(status->lfibRouteCount()));
    std::istringstream answer(readLine(fromReader[0]).value_or("-1 -1"));
    answer >> inStep >> readerCpu;
  };
  // A producer's batch of routes, written in one call.
  std::vector<Mpls::ConsolidatedLfibRoute> batch;
  auto write = [&](uint32_t first, uint32_t count, uint32_t variant) {
    const int64_t buildStart = nowNs();
    batch.clear();
    for (uint32_t i = first; i < first + count; ++i) batch.push_back(route(i, vias, variant));
    buildNs += nowNs() - buildStart;
    writer->lfibRoutesIs(batch);
  };
  perfControl(options.perfControl, "enable");
  phase([&](uint32_t first, uint32_t count) { write(first, count, 0); }, r.publish,
        r.inStepPublish);
  perfControl(options.perfControl, "disable");
  r.publishCpu = cpuRate;
  r.publishWithBuild = rateWithBuild;
  r.publishBuild = buildNs / 1e9;
  r.readerCpuPublish = readerCpu;
  r.publishKernel = kernel;
  r.shmBytes = status->ledgerBytes();
  r.rawBytes = rawSlotBytes(*status);
  if (options.files) printFiles(root);
  if (!options.publishOnly) {
    phase([&](uint32_t first, uint32_t count) { write(first, count, 100); }, r.rewrite,
          r.inStepRewrite);
    r.shmAfterRewrite = status->ledgerBytes();
    auto remove = [&](uint32_t first, uint32_t count) {
      for (uint32_t i = first; i < first + count; ++i) {
        writer->lfibRouteDel(Mpls::RouteKey(Wire::MplsLabel(16 + i)));
      }
    };
    phase(remove, r.remove, r.inStepRemove);
  }
  ::close(toReader[1]);
  ::waitpid(child, nullptr, 0);
  status->ledgerUnmount();
  std::filesystem::remove_all(root);
  return r;
}

void printResult(uint32_t vias, const Result& r) {
  std::printf(
      "vias %2u: publish %.0f routes/s, rewrite one via %.0f routes/s, delete %.0f routes/s; "
      "reader in step %.3f / %.3f / %.3f s after the last write (%.2f CPU s by then); shm %.1f "
      "MB for %.1f MB of slots (%.1f MB after the rewrite); publish %.0f routes per CPU "
      "second, %llu page faults, %.2f s system time, %.2f s building the routes (%.0f routes/s "
      "with them)\n",
      vias, r.publish, r.rewrite, r.remove, r.inStepPublish, r.inStepRewrite, r.inStepRemove,
      r.readerCpuPublish, r.shmBytes / 1e6, r.rawBytes / 1e6, r.shmAfterRewrite / 1e6, r.publishCpu,
      static_cast<unsigned long long>(r.publishKernel.faults), r.publishKernel.systemSeconds,
      r.publishBuild, r.publishWithBuild);
  std::fflush(stdout);
}

// The summary: each figure the median over the 2-via runs.
void printFigures(const std::vector<Result>& runs) {
  auto median = [&](auto figure) {
    std::vector<double> v;
    for (const Result& r : runs) v.push_back(figure(r));
    return Bench::median(v);
  };
  std::printf("figure lfib_routes_per_s_2via %.0f routes/s\n",
              median([](const Result& r) { return r.publish; }));
  std::printf("figure lfib_routes_per_s_2via_building_included %.0f routes/s\n",
              median([](const Result& r) { return r.publishWithBuild; }));
  std::printf("figure reader_in_step_seconds %.3f s\n",
              median([](const Result& r) { return r.inStepPublish; }));
  std::printf("ratio raw_slots_vs_footprint %.2f\n", median([](const Result& r) {
                return r.shmBytes ? double(r.rawBytes) / double(r.shmBytes) : 0.0;
              }));
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--files") options.files = true;
    if (a == "--publish-only") options.publishOnly = true;
    if (a == "--no-reader") options.noReader = true;
    if (i + 1 == argc) break;
    if (a == "--routes") options.routes = uint32_t(std::strtoul(argv[i + 1], nullptr, 10));
    if (a == "--vias") {
      options.viaCounts.clear();
      std::stringstream list(argv[i + 1]);
      for (std::string v; std::getline(list, v, ',');) options.viaCounts.push_back(std::stoul(v));
    }
    if (a == "--repeat") options.repeat = std::max(1u, uint32_t(std::stoul(argv[i + 1])));
    if (a == "--perf-control") options.perfControl = argv[i + 1];
    if (a == "--reader-perf-control") options.readerPerfControl = argv[i + 1];
    if (a == "--routes" || a == "--vias" || a == "--repeat" || a == "--perf-control" ||
        a == "--reader-perf-control") {
      ++i;
    }
  }
  uint32_t& routes = options.routes;
  if (routes == 0 || routes > 1000000) routes = 1000000;  // labels are 20 bits
  Platform::FeatureToggle::overrideIs("InPlaceMplsAdjacencyUpdate", true);
  std::printf("lfib_bench: %u routes, in-place adjacency update on\n", routes);
  std::vector<Result> two;
  for (uint32_t vias : options.viaCounts) {
    const uint32_t runs = vias == 2 ? options.repeat : 1;
    for (uint32_t n = 0; n < runs; ++n) {
      Result r = run(options, vias);
      printResult(vias, r);
      if (vias == 2) two.push_back(r);
    }
  }
  if (!two.empty()) printFigures(two);
  return 0;
}
