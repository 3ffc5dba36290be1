// An LFIB writer whose shared memory runs out of room: the route write that finds none throws
// TableFullException and leaves the LFIB as it was, whichever of its steps (a via, the via set,
// the route) found no room. The old route stays whole with its vias, or there is no route, and
// nothing it had added is left behind: every via set belongs to a route and every via to a
// via set. Removals of what no route needs any more wait for room, and go once there is some.
//
// Each case runs in a child process with a small tmpfs of its own; where the system allows no
// mount namespace for one, the test is skipped.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "ledger/Exceptions.h"
#include "lfib/LfibWriter.h"
#include "lfib/tests/TestRoutes.h"
#include "platform/tests/SmallTmpfs.h"

namespace Mpls {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using TestRoutes::mplsVia;
using TestRoutes::route;

constexpr uint32_t kFirstLabel = 16;

// "" when each route's via set and vias are there and nothing else is.
std::string checkReferences(const LfibStatus& s) {
  uint32_t routes = 0, vias = 0;
  std::string missing;
  s.lfibRouteForEach([&](const LfibRoute& r) {
    ++routes;
    LfibViaSet set;
    if (!s.viaSetLedger().lookup(r.viaSetKey(), set)) {
      missing = "the via set of a route";
      return;
    }
    for (uint32_t i = 0; i < set.viaKeys(); ++i, ++vias) {
      if (!s.mplsViaHas(set.viaKey(LfibViaIndexRange(i)))) missing = "a via of a route";
    }
  });
  if (!missing.empty()) return "missing " + missing;
  if (s.viaSetCount() != routes) {
    return std::to_string(s.viaSetCount()) + " via sets for " + std::to_string(routes) + " routes";
  }
  if (s.mplsViaCount() != vias) {
    return std::to_string(s.mplsViaCount()) + " vias where routes hold " + std::to_string(vias);
  }
  return "";
}

// A route as route() makes it, of metric `metric`.
ConsolidatedLfibRoute metricRoute(uint32_t label, uint32_t vias, uint32_t firstHop,
                                  uint32_t metric) {
  ConsolidatedLfibRoute r = route(label, vias, firstHop);
  RouteMetric m;
  m.metricIs(metric);
  r.metricIs(m);
  return r;
}

// Whether `label` is routed over `vias` vias from hop `firstHop` on at metric `metric`.
bool holdsRoute(const LfibStatus& s, uint32_t label, uint32_t vias, uint32_t firstHop,
                uint32_t metric) {
  LfibRoute r;
  LfibViaSet set;
  if (!s.lfibRouteLedger().lookup(RouteKey(Wire::MplsLabel(label)), r) ||
      r.metric().metric() != metric || !s.viaSetLedger().lookup(r.viaSetKey(), set) ||
      set.viaKeys() != vias) {
    return false;
  }
  for (uint32_t i = 0; i < vias; ++i) {
    LfibMplsVia stored, expected = mplsVia(firstHop + i, 1000 + i);
    if (!s.mplsViaLedger().lookup(set.viaKey(LfibViaIndexRange(i)), stored)) return false;
    expected.keyIs(stored.key());
    if (!(stored == expected)) return false;
  }
  return true;
}

// Which step of a failed route write found no room: the last whose write was tried.
std::string failedStep(const LfibStatus& s, const uint64_t (&before)[3]) {
  if (s.counter("lfibRouteIs") != before[2]) return "route";
  if (s.counter("viaSetIs") != before[1]) return "via set";
  return "via";
}

// Writes or rewrites routes in turn until `failures` writes have found no room, checking the
// LFIB after each failure. Route `label` gets `vias` vias from hop label + `hop` on, and
// metric `hop`: a rewrite changes the route as well as its via set.
struct Filler {
  LfibStatus& s;
  LfibWriter& w;
  std::set<std::string>& failedSteps;  // of the writes that found no room

  // "" when all is as it should be; `written` gets the labels written, in order.
  std::string fill(uint32_t labels, uint32_t vias, uint32_t hop, uint32_t failures,
                   std::vector<uint32_t>& written) {
    for (uint32_t label = kFirstLabel; label < kFirstLabel + labels && failures > 0; ++label) {
      const uint64_t before[3] = {s.counter("mplsViaIs"), s.counter("viaSetIs"),
                                  s.counter("lfibRouteIs")};
      LfibRoute old;
      const bool had = s.lfibRouteLedger().lookup(RouteKey(Wire::MplsLabel(label)), old);
      try {
        w.lfibRouteIs(metricRoute(label, vias, label + hop, hop));
        written.push_back(label);
        continue;
      } catch (const Ledger::TableFullException& e) {
        if (std::string(e.what()).find("No space left on device") == std::string::npos) {
          return std::string("unclear error: ") + e.what();
        }
      }
      --failures;
      failedSteps.insert(std::string(had ? "rewrite" : "new route") + " at " +
                         failedStep(s, before));
      LfibRoute now;
      const bool has = s.lfibRouteLedger().lookup(RouteKey(Wire::MplsLabel(label)), now);
      if (has != had || (had && !(now == old))) return "a failed write changed its route";
      if (const std::string why = checkReferences(s); !why.empty()) {
        return "after a failed write at the " + failedStep(s, before) + " step: " + why;
      }
    }
    return failures == 0 ? "" : "never ran out of room";
  }
};

// "failed at:" and the steps that found no room when all went as it should; else what did not.
std::string fillLfib(const std::string& root, bool inPlace) {
  std::set<std::string> failedSteps;
  auto status = lfibStatusFactory("status");
  status->ledgerMountIs(Ledger::LedgerMode::writer, root);
  auto writer = lfibWriterFactory(status);
  writer->inPlaceAdjacencyUpdateSupportedIs(inPlace);
  Filler filler{*status, *writer, failedSteps};
  // New routes of 3 vias, until a few have found no room.
  std::vector<uint32_t> added, rewritten;
  if (auto why = filler.fill(1000000, 3, 0, 3, added); !why.empty()) return "adding: " + why;
  for (uint32_t label : added) {
    if (!holdsRoute(*status, label, 3, label, 0)) return "lost route " + std::to_string(label);
  }
  // Rewrites to 5 other vias: each failed one leaves its route as it was.
  if (auto why = filler.fill(added.size(), 5, 100000, 3, rewritten); !why.empty()) {
    return "rewriting: " + why;
  }
  std::set<uint32_t> isRewritten(rewritten.begin(), rewritten.end());
  for (uint32_t label : added) {
    const bool held = isRewritten.count(label)
                          ? holdsRoute(*status, label, 5, label + 100000, 100000)
                          : holdsRoute(*status, label, 3, label, 0);
    if (!held) return "route " + std::to_string(label) + " is neither old nor new";
  }
  // Removing every route gives the room back: what waited for room goes too.
  for (int pass = 0; pass < 2; ++pass) {
    for (uint32_t label : added) {
      try {
        writer->lfibRouteDel(RouteKey(Wire::MplsLabel(label)));
      } catch (const Ledger::TableFullException&) {
      }
    }
  }
  if (const std::string why = checkReferences(*status); !why.empty()) return "removed: " + why;
  if (status->lfibRouteCount() != 0 || writer->pendingRemovals() != 0) {
    return "removed: " + std::to_string(writer->pendingRemovals()) + " removals still wait";
  }
  if (!status->validateFiles()) return "invalid files";
  std::string steps = "failed at:";
  for (const std::string& step : failedSteps) steps += " " + step + ",";
  return steps;
}

// Takes every free page of the file system it is on into a file of its own, or gives them
// back: the next write that needs a new page finds none.
class Ballast {
 public:
  explicit Ballast(const std::string& root)
      : fd_(::open((root + "/ballast").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {}
  ~Ballast() {
    if (fd_ >= 0) ::close(fd_);
  }
  Ballast(const Ballast&) = delete;
  Ballast& operator=(const Ballast&) = delete;

  bool fill() {
    struct statvfs fs;
    if (fd_ < 0 || ::fstatvfs(fd_, &fs) != 0) return false;
    const off_t free = off_t(fs.f_bavail) * off_t(fs.f_frsize);
    return free == 0 || ::fallocate(fd_, 0, ::lseek(fd_, 0, SEEK_END), free) == 0;
  }
  bool empty() { return ::ftruncate(fd_, 0) == 0; }

 private:
  int fd_;
};

// Rewrites one route again and again, its vias and its metric changing each time, with the
// file system full before each rewrite, until `failures` rewrites have found no room (in a
// change queue that needed more, in a slab). Each of those changes nothing and leaves nothing
// behind, not even a removal waiting for room; it is then done again with room.
std::string rewriteInAFullFileSystem(const std::string& root, bool inPlace, uint32_t failures) {
  auto status = lfibStatusFactory("status");
  status->ledgerMountIs(Ledger::LedgerMode::writer, root);
  auto writer = lfibWriterFactory(status);
  writer->inPlaceAdjacencyUpdateSupportedIs(inPlace);
  const uint32_t label = kFirstLabel;
  uint32_t hop = 100, metric = 0;
  writer->lfibRouteIs(metricRoute(label, 5, hop, metric));
  Ballast ballast(root);
  for (uint32_t i = 0; i < 200000 && failures > 0; ++i) {
    const uint32_t nextHop = i % 2 ? 100 : 200, nextMetric = i % 2;
    if (!ballast.fill()) return std::string("cannot fill the file system: ") + strerror(errno);
    try {
      writer->lfibRouteIs(metricRoute(label, 5, nextHop, nextMetric));
      hop = nextHop, metric = nextMetric;
      continue;
    } catch (const Ledger::TableFullException&) {
    }
    --failures;
    if (!holdsRoute(*status, label, 5, hop, metric)) return "a failed rewrite changed the route";
    if (writer->pendingRemovals() != 0) return "a failed rewrite left removals waiting";
    if (const std::string why = checkReferences(*status); !why.empty()) return why;
    if (!ballast.empty()) return "cannot empty the ballast";
    writer->lfibRouteIs(metricRoute(label, 5, hop = nextHop, metric = nextMetric));
  }
  if (failures > 0) return "too few rewrites found no room";
  return status->validateFiles() ? "" : "invalid files";
}

class LfibNoSpace : public ::testing::TestWithParam<bool> {};

// At these sizes the room runs out in different tables and files first: between them, the
// writes of new routes find no room at their vias and at the route, and rewrites at their
// vias and at their via set.
TEST_P(LfibNoSpace, AFailedWriteLeavesTheLfibAsItWas) {
  std::string failedAt;
  for (const char* size : {"1m", "1200k", "1500k", "2m", "3m"}) {
    const std::string result = TestSupport::inSmallTmpfs(
        size, [&](const std::string& root) { return fillLfib(root, GetParam()); });
    if (result == TestSupport::kNoSmallTmpfs) GTEST_SKIP() << "no mount namespace here";
    EXPECT_THAT(result, StartsWith("failed at:")) << "tmpfs of " << size;
    failedAt += result;
  }
  for (const char* step :
       {"new route at via,", "new route at route,", "rewrite at via,", "rewrite at via set,"}) {
    EXPECT_THAT(failedAt, HasSubstr(step)) << "no write failed as in: " << step;
  }
}

TEST_P(LfibNoSpace, ARewriteThatFindsNoRoomLeavesNothingBehind) {
  const std::string result = TestSupport::inSmallTmpfs(
      "2m", [&](const std::string& root) { return rewriteInAFullFileSystem(root, GetParam(), 8); });
  if (result == TestSupport::kNoSmallTmpfs) GTEST_SKIP() << "no mount namespace here";
  EXPECT_EQ(result, "ok");
}

INSTANTIATE_TEST_SUITE_P(InPlace, LfibNoSpace, ::testing::Bool());

}  // namespace
}  // namespace Mpls
