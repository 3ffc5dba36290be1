// mpls_demo: a writer agent and a reader agent, two processes, sharing one published LFIB.
//
// The writer agent publishes N routes (default 100,000) through LfibWriter into shared-memory
// tables: ECMP MPLS routes with label stacks, pseudowires, IP lookups in VRFs and external
// FECs. Then it churns a share of them (rewrites one via, deletes, adds). After each phase it
// tells the reader agent what the LFIB now holds; the reader agent follows the tables through
// its shadows and reports when its view is in step, and equal, to the writer's.
//
//   mpls_demo [--routes N] [--churn PERCENT] [--in-place on|off] [--root DIR] [--keep]
//
// The tables live under a fresh folder of /dev/shm (or --root) and are removed at the end
// unless --keep is given. Exit status 0 when the reader ended equal to the writer after every
// phase and every table validated.
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "lfib/LfibWriter.h"
#include "platform/toggle/FeatureToggle.h"
#include "tools/Digits.h"
#include "tools/LineIo.h"
#include "tools/ledger/LedgerTool.h"
#include "zinc/Loop.h"

namespace {

using LineIo::readLine;
using LineIo::sendLine;

using Clock = std::chrono::steady_clock;
using Mpls::ConsolidatedLfibRoute;

struct Options {
  uint32_t routes = 100000;
  uint32_t churnPercent = 10;
  bool inPlace = true;
  bool keep = false;
  std::string root;
};

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}
double seconds(int64_t ns) { return double(ns) / 1e9; }
// How long the reader waits for its shadows to equal the writer's tables after a phase.
constexpr int64_t kInStepDeadlineNs = int64_t{60} * 1000 * 1000 * 1000;

// ---- what the LFIB holds, the same on both sides ----

struct Census {
  uint64_t routes = 0, viaSets = 0, vias = 0, digest = 0;
  bool operator==(const Census&) const = default;
  std::string line() const {
    std::ostringstream os;
    os << routes << " " << viaSets << " " << vias << " " << digest;
    return os.str();
  }
  static Census parse(std::istream& in) {
    Census c;
    in >> c.routes >> c.viaSets >> c.vias >> c.digest;
    return c;
  }
};

// Counts and an order-independent digest of every route, via set and via.
Census censusOf(Mpls::LfibStatus& s) {
  Census c;
  auto mix = [&](const auto& v) { c.digest += uint64_t(v.hash()) * 0x9e3779b97f4a7c15ull + 1; };
  s.lfibRouteForEach([&](const auto& v) { ++c.routes, mix(v); });
  s.viaSetForEach([&](const auto& v) { ++c.viaSets, mix(v); });
  auto via = [&](const auto& v) { ++c.vias, mix(v); };
  s.mplsViaForEach(via);
  s.pwViaForEach(via);
  s.ipLookupViaForEach(via);
  s.extFecViaForEach(via);
  return c;
}

// ---- the route mix ----

class RouteMaker {
 public:
  explicit RouteMaker(uint32_t seed) : rng_(seed) {}

  ConsolidatedLfibRoute make(uint32_t label) {
    uint32_t kind = rng_() % 100;
    if (kind < 80) return mpls(label);
    if (kind < 90) return pseudowire(label);
    if (kind < 95) return ipLookup(label);
    return extFec(label);
  }
  // The same route with one via moved to another next hop (or a fresh one when it has none).
  ConsolidatedLfibRoute changed(const ConsolidatedLfibRoute& r) {
    if (r.viaType() != Mpls::viaTypeMplsIp_ || r.mplsVias().empty())
      return make(r.key().topLabel().value());
    ConsolidatedLfibRoute c = r;
    auto victim = std::next(c.mplsVias().begin(), rng_() % c.mplsVias().size());
    Mpls::LfibMplsVia via = *victim;
    c.mplsViaDel(via);
    via.nextHopIs(Wire::IpGenAddr::ipv4(0x0a000000 + 1 + rng_() % 4000));
    c.mplsViaIs(via);
    return c;
  }
  uint32_t pick(uint32_t n) { return rng_() % n; }

 private:
  ConsolidatedLfibRoute base(uint32_t label, Mpls::LfibViaType type, bool metric) {
    Mpls::FwdEqvClass fec;
    fec.fecTypeIs(Mpls::fecTypePrefix_);
    fec.prefixIs(Wire::IpGenPrefix(Wire::IpGenAddr::ipv4(0x64000000 + (label << 8)), 24));
    Mpls::RouteMetric m;
    if (metric) m.metricIs(10 + rng_() % 100);
    return ConsolidatedLfibRoute(Mpls::RouteKey(Wire::MplsLabel(label)), LFib::sourceLdp_, fec, m,
                                 type, Mpls::viaSetTypeEcmp_);
  }
  ConsolidatedLfibRoute mpls(uint32_t label) {
    ConsolidatedLfibRoute r = base(label, Mpls::viaTypeMplsIp_, true);
    static const uint32_t ecmp[] = {1, 1, 2, 2, 2, 4, 4, 8};
    for (uint32_t i = 0, n = ecmp[rng_() % 8]; i < n; ++i) {
      Mpls::LfibMplsVia via;
      uint32_t hop = 1 + rng_() % 4000;
      via.nextHopIs(Wire::IpGenAddr::ipv4(0x0a000000 + hop));
      via.intfIs(Wire::IntfId(hop % 64));
      Wire::MplsLabelOperation op;
      op.operationIs(Wire::labelActionSwap_);
      for (uint32_t l = 0, depth = 1 + rng_() % 3; l < depth; ++l) {
        op.labelPush(Wire::MplsLabel(16 + rng_() % 1000000));
      }
      via.labelActionIs(Wire::labelActionSwap_);
      via.labelStackIs(op);
      via.payloadTypeIs(Mpls::payloadTypeMpls_);
      via.ttlModeIs(Mpls::ttlModeUniform_);
      via.weightIs(1 + rng_() % 4);
      r.mplsViaIs(via);
    }
    return r;
  }
  ConsolidatedLfibRoute pseudowire(uint32_t label) {
    ConsolidatedLfibRoute r = base(label, Mpls::viaTypeMplsPseudowire_, true);
    Mpls::LfibPwVia via;
    via.pwIntfIdIs(Wire::IntfId(1000 + rng_() % 4096));
    via.controlWordPresentIs(rng_() % 2);
    via.pwTypeIs(Pseudowire::pwTypeEthernet_);
    r.pwViaIs(via);
    return r;
  }
  ConsolidatedLfibRoute ipLookup(uint32_t label) {
    ConsolidatedLfibRoute r = base(label, Mpls::viaTypeIpLookup_, false);  // metric 0
    std::string vrf = "vrf-" + std::to_string(rng_() % 64);
    r.ipLookupViaIs(
        Mpls::LfibIpLookupVia(Mpls::LfibViaKey(), L3::VrfName(vrf), Mpls::payloadTypeIpv4_));
    return r;
  }
  ConsolidatedLfibRoute extFec(uint32_t label) {
    ConsolidatedLfibRoute r = base(label, Mpls::viaTypeExternalFec_, true);
    Mpls::LfibExtFecVia via;
    via.fecIdIs(Ledger::Fib::FecId(rng_() % 100000));
    via.labelActionIs(Wire::labelActionPop_);
    via.payloadTypeIs(Mpls::payloadTypeIpv4_);
    r.extFecViaIs(via);
    return r;
  }
  std::mt19937 rng_;
};

// ---- the writer agent ----

struct Phase {
  std::string name;
  uint64_t changes;
  int64_t startNs, endNs;
};

class WriterAgent {
 public:
  WriterAgent(const Options& o, int toReader, int toMain, int fromReader)
      : o_(o), toReader_(toReader), toMain_(toMain), fromReader_(fromReader), maker_(12345) {}

  int run() {
    Platform::FeatureToggle::overrideIs("InPlaceMplsAdjacencyUpdate", o_.inPlace);
    status_ = Mpls::lfibStatusFactory("demo");
    // Four routes in five are MPLS routes of three vias on average (RouteMaker).
    status_->ledgerExpectedSizeIs({o_.routes, uint32_t(uint64_t(o_.routes) * 12 / 5)});
    status_->ledgerMountIs(Ledger::LedgerMode::writer, o_.root);
    writer_ = Mpls::lfibWriterFactory(status_);
    routes_.reserve(o_.routes + o_.routes / 4);
    publish();
    churn();
    bool valid = true;
    for (const auto& [table, ok] : status_->validateEachTable()) {
      sendLine(toMain_, "validate " + table + " " + (ok ? "ok" : "FAILED"));
      valid = valid && ok;
    }
    sendLine(toMain_, "bytes " + std::to_string(status_->ledgerBytes()));
    sendLine(toMain_, "done");
    return valid ? 0 : 1;
  }

 private:
  void publish() {
    int64_t start = nowNs();
    const uint32_t step = std::max<uint32_t>(o_.routes / 10, 1);
    for (uint32_t i = 0; i < o_.routes; ++i) {
      add(nextLabel_++);
      if ((i + 1) % 1024 == 0) status_->ledgerFlushKicks();
      if (o_.routes >= 50000 && (i + 1) % step == 0) {
        sendLine(toMain_, "progress publish " + std::to_string(i + 1));
      }
    }
    endPhase("publish", o_.routes, start);
  }
  void churn() {
    const uint64_t changes = uint64_t(o_.routes) * o_.churnPercent / 100;
    int64_t start = nowNs();
    for (uint64_t i = 0; i < changes && !routes_.empty(); ++i) {
      uint32_t kind = maker_.pick(10);
      size_t at = maker_.pick(uint32_t(routes_.size()));
      if (kind < 6) {
        routes_[at] = maker_.changed(routes_[at]);
        writer_->lfibRouteIs(routes_[at]);
      } else if (kind < 8) {
        writer_->lfibRouteDel(routes_[at].key());
        routes_[at] = routes_.back();
        routes_.pop_back();
      } else {
        add(nextLabel_++);
      }
      if ((i + 1) % 1024 == 0) status_->ledgerFlushKicks();
    }
    endPhase("churn", changes, start);
  }
  void add(uint32_t label) {
    routes_.push_back(maker_.make(label));
    writer_->lfibRouteIs(routes_.back());
  }
  void endPhase(const std::string& name, uint64_t changes, int64_t start) {
    int64_t end = nowNs();
    status_->ledgerFlushKicks();
    // First when and how many routes, so that the reader can time its catching up; then the
    // census it must end equal to.
    sendLine(toReader_, "phase " + name + " " + std::to_string(end) + " " +
                            std::to_string(status_->lfibRouteCount()));
    Census c = censusOf(*status_);
    sendLine(toReader_, "census " + c.line());
    sendLine(toMain_, "phase " + name + " " + std::to_string(changes) + " " +
                          std::to_string(end - start) + " " + c.line());
    // The reader is in step: go on. It answers nothing when it gave up waiting for that.
    if (!readLine(fromReader_)) throw std::runtime_error("the reader agent is gone");
  }

  Options o_;
  int toReader_, toMain_, fromReader_;
  RouteMaker maker_;
  Mpls::LfibStatus::Ptr status_;
  Mpls::LfibWriter::Ptr writer_;
  std::vector<ConsolidatedLfibRoute> routes_;
  uint32_t nextLabel_ = 16;
};

// ---- the reader agent ----

class ReaderAgent : public Mpls::LfibStatus::NotifieeConst {
 public:
  ReaderAgent(const Options& o, int fromWriter, int toMain, int toWriter)
      : o_(o), fromWriter_(fromWriter), toMain_(toMain), toWriter_(toWriter) {}

  int run() {
    status_ = Mpls::lfibStatusFactory("demo");
    notifierIs(status_);
    status_->ledgerMountIs(Ledger::LedgerMode::readOnly, o_.root, 64, &loop_);
    loop_.fdWatchIs(fromWriter_, [this](uint32_t) { onWriterMessage(); });
    loop_.timerEvery(std::chrono::milliseconds(1), [this] { checkInStep(); });
    loop_.run();
    // The tables' shadows use the loop: they go before it does.
    notifierIs(Mpls::LfibStatus::PtrConst());
    status_ = nullptr;
    return gaveUp_ ? 1 : 0;
  }
  void onLfibRoute(const Mpls::RouteKey&) override { ++notifications_; }

 private:
  void onWriterMessage() {
    auto line = readLine(fromWriter_);
    if (!line) {
      loop_.fdWatchDel(fromWriter_);
      if (!waiting_) loop_.stop();
      writerDone_ = true;
      return;
    }
    std::istringstream in(*line);
    std::string word;
    in >> word;
    if (word == "phase") {
      in >> targetPhase_ >> targetEndNs_ >> targetRoutes_;
      inStepAt_ = 0;
      waiting_ = true;
      waitingSince_ = nowNs();
    } else {
      target_ = Census::parse(in);
    }
  }
  void checkInStep() {
    if (!waiting_) return;
    if (nowNs() - waitingSince_ > kInStepDeadlineNs) return giveUp();
    if (!inStepAt_) {
      if (!status_->ledgerInStep() || status_->lfibRouteCount() != targetRoutes_) return;
      inStepAt_ = nowNs();  // in step; the census below is the demo's own check of equality
    }
    if (!target_) return;
    if (!(censusOf(*status_) == *target_)) {
      inStepAt_ = 0;  // not the writer's view yet: measure again
      return;
    }
    sendLine(toMain_, "insync " + targetPhase_ + " " + std::to_string(inStepAt_ - targetEndNs_) +
                          " " + std::to_string(notifications_));
    target_.reset();
    waiting_ = false;
    sendLine(toWriter_, "ack");
    if (writerDone_) loop_.stop();
  }
  // The shadows never came to equal the writer's tables: says so, with both censuses, and
  // stops instead of waiting for ever.
  void giveUp() {
    sendLine(toMain_, "stuck " + targetPhase_ + " " + censusOf(*status_).line() + " / " +
                          (target_ ? target_->line() : std::string("no census yet")));
    gaveUp_ = true;
    loop_.stop();
  }

  Options o_;
  int fromWriter_, toMain_, toWriter_;
  Zinc::Loop loop_;
  Mpls::LfibStatus::Ptr status_;
  std::optional<Census> target_;
  std::string targetPhase_;
  int64_t targetEndNs_ = 0;
  uint64_t targetRoutes_ = 0;
  int64_t inStepAt_ = 0;
  bool waiting_ = false;
  uint64_t notifications_ = 0;
  bool writerDone_ = false;
  int64_t waitingSince_ = 0;
  bool gaveUp_ = false;
};

// ---- the orchestrating process ----

// The value of a numeric option, from `min` to `max`; nothing (and a message) else.
std::optional<uint32_t> numberOf(const std::string& option, const std::string& text, uint32_t min,
                                 uint32_t max) {
  const std::optional<uint32_t> n = Tools::digitsOf<uint32_t>(text);
  if (!n || *n < min || *n > max) {
    std::cerr << "mpls_demo: " << option << " wants a number from " << min << " to " << max
              << ", not '" << text << "'\n";
    return std::nullopt;
  }
  return n;
}

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
    std::optional<uint32_t> n;
    if (a == "--routes") {
      if (!(n = numberOf(a, value(), 1, 900000))) return false;  // each route takes a label
      o.routes = *n;
    } else if (a == "--churn") {
      if (!(n = numberOf(a, value(), 0, 100))) return false;
      o.churnPercent = *n;
    } else if (a == "--in-place") {
      const std::string v = value();
      if (v != "on" && v != "off") {
        std::cerr << "mpls_demo: --in-place wants on or off, not '" << v << "'\n";
        return false;
      }
      o.inPlace = v == "on";
    } else if (a == "--root") {
      o.root = value();
    } else if (a == "--keep") {
      o.keep = true;
    } else {
      std::cerr << "usage: mpls_demo [--routes N] [--churn PERCENT] [--in-place on|off] "
                   "[--root DIR] [--keep]\n";
      return false;
    }
  }
  return true;
}

std::string makeRoot(const std::string& wanted) {
  if (!wanted.empty()) {
    std::filesystem::create_directories(wanted);
    return wanted;
  }
  std::string base = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
  std::string pattern = base + "/mpls_demo-XXXXXX";
  if (!::mkdtemp(pattern.data())) return {};
  return pattern;
}

template <class Agent>
pid_t spawn(const Options& o, int a, int b, int c, std::vector<int> closeInChild) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  for (int fd : closeInChild) ::close(fd);
  int rc = 1;
  try {
    rc = Agent(o, a, b, c).run();
  } catch (const std::exception& e) {
    std::cerr << "mpls_demo agent failed: " << e.what() << "\n";
  }
  ::_exit(rc);
}

struct Report {
  std::vector<std::string> phases;
  uint32_t tables = 0, failed = 0;
  uint64_t bytes = 0;
  bool allInStep = true;
};

// One line of the writer agent's: progress, a phase's census, a table's validation, or the
// bytes its tables take.
void onWriterLine(const std::string& line, Report& r) {
  std::istringstream in(line);
  std::string word, name;
  in >> word;
  if (word == "progress") {
    uint64_t n;
    in >> name >> n;
    std::printf("  writer: %s %lu routes\n", name.c_str(), (unsigned long)n);
  } else if (word == "phase") {
    uint64_t changes;
    int64_t ns;
    in >> name >> changes >> ns;
    Census c = Census::parse(in);
    char text[256];
    std::snprintf(text, sizeof(text),
                  "%-8s %9lu changes in %.3f s (%.0f/s): %lu routes, %lu via sets, %lu vias",
                  name.c_str(), (unsigned long)changes, seconds(ns),
                  ns ? double(changes) / seconds(ns) : 0.0, (unsigned long)c.routes,
                  (unsigned long)c.viaSets, (unsigned long)c.vias);
    std::printf("  writer: %s\n", text);
    r.phases.push_back(text);
  } else if (word == "validate") {
    std::string table, verdict;
    in >> table >> verdict;
    ++r.tables;
    if (verdict != "ok") {
      ++r.failed;
      std::printf("  validation FAILED: %s\n", table.c_str());
    }
  } else if (word == "bytes") {
    in >> r.bytes;
  }
}

// One line of the reader agent's: in step after a phase, or stuck.
void onReaderLine(const std::string& line, Report& r) {
  std::istringstream in(line);
  std::string word, name;
  if (line.starts_with("stuck ")) {
    in >> word >> name;
    std::string censuses;
    std::getline(in >> std::ws, censuses);
    std::printf("  reader: NOT in step %.0f s after %s (census read / written: %s)\n",
                seconds(kInStepDeadlineNs), name.c_str(), censuses.c_str());
    r.allInStep = false;
    return;
  }
  int64_t ns;
  uint64_t notes;
  in >> word >> name >> ns >> notes;
  char text[160];
  std::snprintf(text, sizeof(text),
                "reader in step and equal after %s, %.4f s after the "
                "last write (%lu route notifications so far)",
                name.c_str(), seconds(ns), (unsigned long)notes);
  std::printf("  reader: %s\n", text);
  r.phases.push_back(text);
}

// Prints what both agents report, as they report it, until both have closed their pipes.
void follow(int fromWriter, int fromReader, Report& r) {
  bool writerOpen = true, readerOpen = true;
  while (writerOpen || readerOpen) {
    fd_set fds;
    FD_ZERO(&fds);
    if (writerOpen) FD_SET(fromWriter, &fds);
    if (readerOpen) FD_SET(fromReader, &fds);
    if (::select(std::max(fromWriter, fromReader) + 1, &fds, nullptr, nullptr, nullptr) < 0) break;
    if (writerOpen && FD_ISSET(fromWriter, &fds)) {
      if (auto line = readLine(fromWriter)) {
        onWriterLine(*line, r);
      } else {
        writerOpen = false;
      }
    }
    if (readerOpen && FD_ISSET(fromReader, &fds)) {
      if (auto line = readLine(fromReader)) {
        onReaderLine(*line, r);
      } else {
        readerOpen = false;
      }
    }
    std::fflush(stdout);
  }
}

// The tables as any other process sees them: `ledger validate` on each, read-only. Returns
// the number that failed; `checked` counts them all.
uint32_t validateTables(const std::string& base, uint32_t& checked) {
  uint32_t invalid = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(base, ec)) {
    if (!entry.is_directory()) continue;
    std::ostringstream out, err;
    int rc =
        LedgerTool::run({"--root", base, "validate", entry.path().filename().string()}, out, err);
    ++checked;
    if (rc != 0) {
      ++invalid;
      std::printf("  ledger validate %s: %s%s", entry.path().filename().c_str(), out.str().c_str(),
                  err.str().c_str());
    }
  }
  return invalid;
}

void printSummary(const Report& r, uint32_t checked, uint32_t invalid) {
  std::printf("\nsummary\n");
  for (const auto& p : r.phases) std::printf("  %s\n", p.c_str());
  std::printf("  shared memory: %.1f MB (%lu bytes)\n", double(r.bytes) / 1e6,
              (unsigned long)r.bytes);
  std::printf("  validation by the writer: %u tables, %u failed\n", r.tables, r.failed);
  std::printf("  ledger validate: %u tables, %u failed\n", checked, invalid);
}

// Keeps the tables for a look with the `ledger` tool (--keep), or removes them.
void keepOrRemove(const Options& o) {
  if (o.keep) {
    std::printf("  tables kept under %s; look at them with:\n", o.root.c_str());
    std::printf("    build/tools/ledger/ledger --root %s ls\n", o.root.c_str());
    std::printf("    build/tools/ledger/ledger --root %s dump lfib/demo/lfibRoute\n",
                o.root.c_str());
  } else {
    std::error_code ec;
    std::filesystem::remove_all(o.root, ec);
    std::printf("  tables removed (--keep keeps them)\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!parse(argc, argv, o)) return 2;
  o.root = makeRoot(o.root);
  if (o.root.empty()) {
    std::perror("mpls_demo: cannot make the shared-memory folder");
    return 1;
  }
  std::printf("mpls_demo: %u routes, %u%% churn, in-place adjacency update %s, tables under %s\n",
              o.routes, o.churnPercent, o.inPlace ? "on" : "off", o.root.c_str());
  std::fflush(stdout);

  int w2r[2], w2m[2], r2m[2], r2w[2];
  if (::pipe(w2r) || ::pipe(w2m) || ::pipe(r2m) || ::pipe(r2w)) return 1;
  pid_t reader =
      spawn<ReaderAgent>(o, w2r[0], r2m[1], r2w[1], {w2r[1], w2m[0], w2m[1], r2m[0], r2w[0]});
  pid_t writer =
      spawn<WriterAgent>(o, w2r[1], w2m[1], r2w[0], {w2r[0], r2m[0], r2m[1], w2m[0], r2w[1]});
  for (int fd : {w2r[0], w2r[1], w2m[1], r2m[1], r2w[0], r2w[1]}) ::close(fd);

  Report report;
  follow(w2m[0], r2m[0], report);
  int writerStatus = 0, readerStatus = 0;
  ::waitpid(writer, &writerStatus, 0);
  ::waitpid(reader, &readerStatus, 0);
  bool ok = WIFEXITED(writerStatus) && WEXITSTATUS(writerStatus) == 0 && WIFEXITED(readerStatus) &&
            WEXITSTATUS(readerStatus) == 0 && report.failed == 0 && report.tables > 0 &&
            report.allInStep;

  uint32_t checked = 0;
  const uint32_t invalid = validateTables(o.root + "/lfib/demo", checked);
  ok = ok && checked > 0 && invalid == 0;
  printSummary(report, checked, invalid);
  keepOrRemove(o);
  if (!ok) {
    std::printf("  writer agent exit %d, reader agent exit %d\n", writerStatus, readerStatus);
  }
  std::printf("%s\n", ok ? "mpls_demo: OK" : "mpls_demo: FAILED");
  return ok ? 0 : 1;
}
