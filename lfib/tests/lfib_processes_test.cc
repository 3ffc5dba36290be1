// A writer agent and a reader agent in two processes over real shared-memory files: the
// reader's LfibStatus, followed through its shadows, ends equal to the writer's after bursts
// of route changes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "lfib/LfibWriter.h"
#include "platform/tests/ForkedChild.h"
#include "platform/tests/TempDir.h"
#include "zinc/Loop.h"

namespace Mpls {
namespace {

// Every entry of the LFIB, as text, in a canonical order.
std::string contents(LfibStatus& s) {
  std::vector<std::string> lines;
  auto add = [&](const auto& v) { lines.push_back(valueToStrep(v)); };
  s.lfibRouteForEach(add);
  s.viaSetForEach(add);
  s.mplsViaForEach(add);
  s.pwViaForEach(add);
  s.extFecViaForEach(add);
  s.ipLookupViaForEach(add);
  std::sort(lines.begin(), lines.end());
  std::string all;
  for (const auto& l : lines) all += l + "\n";
  return all;
}

ConsolidatedLfibRoute randomRoute(std::mt19937& rng, uint32_t label) {
  const bool pw = rng() % 5 == 0;
  ConsolidatedLfibRoute r(RouteKey(Wire::MplsLabel(label)), LFib::sourceLdp_, FwdEqvClass(),
                          RouteMetric(), pw ? viaTypeMplsPseudowire_ : viaTypeMplsIp_,
                          viaSetTypeEcmp_);
  if (pw) {
    LfibPwVia via;
    via.pwIntfIdIs(Wire::IntfId(rng() % 64));
    r.pwViaIs(via);
    return r;
  }
  const uint32_t vias = 1 + rng() % 12;
  for (uint32_t i = 0; i < vias; ++i) {
    LfibMplsVia via;
    via.nextHopIs(Wire::IpGenAddr::ipv4(0x0a000000 + rng() % 32));
    Wire::MplsLabelOperation op;
    op.operationIs(Wire::labelActionPush_);
    for (uint32_t l = 0; l < 1 + rng() % 3; ++l) op.labelPush(Wire::MplsLabel(16 + rng() % 5000));
    via.labelStackIs(op);
    via.weightIs(1 + rng() % 4);
    r.mplsViaIs(via);
  }
  return r;
}

// The writer agent: publishes, then churns in bursts, kicking readers after each burst; sends
// its final contents through `out` and keeps its tables until told on `hold` (or the parent
// closes it). Returns its exit status.
int writerAgent(const std::string& root, int out, int hold, bool inPlace) {
  try {
    LfibStatus::Ptr status = lfibStatusFactory("status");
    status->ledgerMountIs(Ledger::LedgerMode::writer, root);
    LfibWriter::Ptr writer = lfibWriterFactory(status);
    writer->inPlaceAdjacencyUpdateSupportedIs(inPlace);
    std::mt19937 rng(7);
    for (uint32_t label = 16; label < 416; ++label) writer->lfibRouteIs(randomRoute(rng, label));
    status->ledgerFlushKicks();
    for (int burst = 0; burst < 20; ++burst) {
      for (int i = 0; i < 50; ++i) {
        uint32_t label = 16 + rng() % 450;
        if (rng() % 4 == 0) {
          writer->lfibRouteDel(RouteKey(Wire::MplsLabel(label)));
        } else {
          writer->lfibRouteIs(randomRoute(rng, label));
        }
      }
      status->ledgerFlushKicks();
      ::usleep(2000);
    }
    std::string all = contents(*status);
    for (size_t done = 0; done < all.size();) {
      ssize_t n = ::write(out, all.data() + done, all.size() - done);
      if (n <= 0) break;
      done += size_t(n);
    }
    ::close(out);
    char c;
    (void)::read(hold, &c, 1);
    return 0;
  } catch (const std::exception& e) {
    return 2;
  }
}

class LfibAcrossProcesses : public ::testing::TestWithParam<bool> {};

TEST_P(LfibAcrossProcesses, ReaderEndsEqualToWriterAfterBurstsOfChanges) {
  TestSupport::ShmRoot root;
  Zinc::Loop loop;
  // The reader comes first: its shadows wait for the writer's tables to appear.
  LfibStatus::Ptr reader = lfibStatusFactory("status");
  struct Count : LfibStatus::NotifieeConst {
    uint64_t routes = 0;
    void onLfibRoute(const RouteKey&) override { ++routes; }
  } count;
  count.notifierIs(reader);
  reader->ledgerMountIs(Ledger::LedgerMode::readOnly, root.path(), 64, &loop);

  TestSupport::ForkedChild writer(
      [&](int out, int hold) { return writerAgent(root.path(), out, hold, GetParam()); });
  const std::string expected = writer.readAll();
  ASSERT_FALSE(expected.empty());

  bool equal =
      loop.runUntil([&] { return reader->ledgerInStep() && contents(*reader) == expected; },
                    std::chrono::seconds(30));
  writer.tell('f');
  const int status = writer.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(equal) << "reader:\n" << contents(*reader).substr(0, 2000);
  EXPECT_GT(count.routes, 0u);
  reader->ledgerUnmount();
}

INSTANTIATE_TEST_SUITE_P(InPlace, LfibAcrossProcesses, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "on" : "off"; });

}  // namespace
}  // namespace Mpls
