// The writer's store order seen from another process: a child maps the files read-only and
// reads them with nothing but the documented protocol (status re-check, look-aside copy,
// bucket resize bracket) while the parent churns through rewrites, inserts, removes, bucket
// and slot growth and shrink. Every value it copies must be whole and every lookup of a key
// that is always present must find it.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>

#include "ledger/LedgerWriter.h"
#include "ledger/tests/TestTable.h"
#include "platform/shm/EmberFile.h"
#include "platform/tests/ForkedChild.h"

namespace {

using namespace LedgerTest;
using namespace Ledger;
using SharedMem::EmberFile;

constexpr uint64_t kStableKeys = 64;  // always present, rewritten over and over

// A minimal reader over the shared files, written from Format.h's description alone.
class ProtocolReader {
 public:
  explicit ProtocolReader(const std::string& root) {
    slots_.open(root, "proto", "slots", EmberFile::Access::ReadOnly, false);
    buckets_.open(root, "proto", "buckets", EmberFile::Access::ReadOnly, false);
  }

  struct Stats {
    uint64_t reads = 0, torn = 0, lookasideReads = 0, lookups = 0, stableMisses = 0, retries = 0,
             remaps = 0, resizeWaits = 0;
  } stats;

  // Consistent copy of slot `index`: false when it holds no entry.
  bool readSlot(uint32_t index, TestValue& out) {
    for (;;) {
      if (!covered(index)) return false;
      const SlotHeader& s = slot(index);
      uint32_t before = Shm::load(s.status, std::memory_order_acquire);
      const SlotHeader& from = (before & kLookaside) ? lookaside() : s;
      std::memcpy(&out, reinterpret_cast<const uint8_t*>(&from) + 16, sizeof(out));
      std::atomic_thread_fence(std::memory_order_acquire);
      uint32_t after = Shm::load(s.status, std::memory_order_relaxed);
      if (before == after) {
        stats.lookasideReads += (before & kLookaside) != 0;
        return (before & kOccupied) != 0;
      }
      ++stats.retries;
    }
  }

  bool lookup(const TestKey& key, TestValue& out) {
    ++stats.lookups;
    const uint32_t hash = key.hash(), rhash = reverseBits(hash);
    for (int attempt = 0; attempt < 1000000; ++attempt) {
      const auto& bh = *reinterpret_cast<const BucketTableHeader*>(buckets_.base());
      uint32_t seq = Shm::load(bh.resizeSeq, std::memory_order_acquire);
      if (seq & 1) {  // chains are being redistributed: wait for the writer to finish
        ++stats.resizeWaits;
        ::sched_yield();
        --attempt;
        continue;
      }
      uint32_t n = Shm::load(bh.numBuckets, std::memory_order_acquire);
      if (kBucketTableHeaderSize + 8ull * n > buckets_.size()) {
        buckets_.remap();
        ++stats.remaps;
        continue;
      }
      int result = walk(reinterpret_cast<const uint64_t*>(buckets_.base() + 64)[hash & (n - 1)],
                        key, rhash, out);
      if (result == 1) return true;
      std::atomic_thread_fence(std::memory_order_acquire);
      if (result == 0 && Shm::load(bh.resizeSeq, std::memory_order_relaxed) == seq) return false;
      ++stats.retries;
    }
    return false;
  }

 private:
  // 1 hit, 0 miss, -1 retry.
  int walk(const uint64_t& headPair, const TestKey& key, uint32_t rhash, TestValue& out) {
    const uint64_t* pred = &headPair;
    uint64_t predValue = Shm::load(*pred, std::memory_order_acquire);
    uint32_t link = linkOf(predValue);
    for (int steps = 0; !isEndOfChain(link); ++steps) {
      // `pred` may point into the slot mapping: once that is re-mapped it may dangle, so a
      // slot beyond the mapping ends this walk and the caller starts over.
      if (steps > 100000) return -1;
      if (!mapped(link)) {
        covered(link);
        return -1;
      }
      const SlotHeader& s = slot(link);
      uint32_t before = Shm::load(s.status, std::memory_order_acquire);
      const SlotHeader& from = (before & kLookaside) ? lookaside() : s;
      uint32_t slotRhash = Shm::load(from.rhash, std::memory_order_relaxed);
      TestKey slotKey;
      std::memcpy(&slotKey, reinterpret_cast<const uint8_t*>(&from) + 16, sizeof(slotKey));
      uint64_t pair = Shm::load(s.linkPair, std::memory_order_acquire);
      std::atomic_thread_fence(std::memory_order_acquire);
      // The slot did not change while it was read, and the link that led here still does
      // (same generation): the slot was in this chain, not freed and reused elsewhere.
      if (Shm::load(s.status, std::memory_order_relaxed) != before || !(before & kOccupied) ||
          Shm::load(*pred, std::memory_order_relaxed) != predValue) {
        return -1;
      }
      if (slotRhash == rhash && slotKey == key) {
        ++stats.reads;
        if (!readSlot(link, out) || !(out.k == key)) return -1;
        stats.torn += !whole(out);
        return 1;
      }
      if (slotRhash > rhash || (slotRhash == rhash && key < slotKey)) return 0;
      pred = &s.linkPair;
      predValue = pair;
      link = linkOf(pair);
    }
    return 0;
  }

  size_t bytesFor(uint32_t index) const {
    const auto& h = *reinterpret_cast<const SlotTableHeader*>(slots_.base());
    return SlotTable::fileSizeFor(uint64_t{index} + 1, h.slotSize);
  }
  bool mapped(uint32_t index) const { return bytesFor(index) <= slots_.size(); }
  // Re-maps when `index` lies beyond the mapping; pointers into the old mapping then dangle.
  bool covered(uint32_t index) {
    if (mapped(index)) return true;
    ++stats.remaps;
    return slots_.remap() && mapped(index);
  }
  const SlotHeader& slot(uint32_t index) {
    const auto& h = *reinterpret_cast<const SlotTableHeader*>(slots_.base());
    return *reinterpret_cast<const SlotHeader*>(slots_.base() + kSlotTableHeaderSize +
                                                (uint64_t{index} + 1) * h.slotSize);
  }
  const SlotHeader& lookaside() {
    return *reinterpret_cast<const SlotHeader*>(slots_.base() + kSlotTableHeaderSize);
  }

  EmberFile slots_, buckets_;
};

TEST(ReaderProtocol, AnotherProcessNeverSeesATornValueOrLosesAStableKey) {
  TempRoot root;
  LedgerWriter<TestKey, TestValue> writer(tableConfig(root.path(), "proto", 8, 4));
  writer.attach();
  uint64_t version = 0;
  for (uint64_t id = 0; id < kStableKeys; ++id) writer.write(makeValue(id, ++version));

  TestSupport::ForkedChild child([&](int fd) {
    ProtocolReader reader(root.path());
    std::mt19937_64 rng(1);
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    while (std::chrono::steady_clock::now() < end) {
      TestValue v;
      if (!reader.lookup(TestKey{rng() % kStableKeys}, v)) ++reader.stats.stableMisses;
      reader.lookup(TestKey{1000 + rng() % 3000}, v);  // churning keys: either answer is fine
    }
    ssize_t n = ::write(fd, &reader.stats, sizeof(reader.stats));
    return n == sizeof(reader.stats) ? 0 : 1;
  });
  ASSERT_GT(child.pid(), 0);
  // Churn until the reader reports: rewrites of the stable keys, and waves of inserts and
  // removes that grow and shrink both the buckets and the slots.
  std::mt19937_64 rng(2);
  std::string report;
  uint64_t round = 0;
  for (;; ++round) {
    for (uint64_t id = 0; id < kStableKeys; ++id) writer.write(makeValue(id, ++version));
    bool filling = (round / 12) % 2 == 0;
    for (int i = 0; i < 500; ++i) {
      uint64_t id = 1000 + rng() % 3000;
      if (filling) {
        writer.write(makeValue(id, ++version));
      } else {
        writer.remove(TestKey{id});
      }
    }
    // The report, or the reader died without one.
    if (!child.poll(report) || report.size() >= sizeof(ProtocolReader::Stats)) break;
  }
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "reader ended with status " << status << " after " << round << " rounds";
  ASSERT_EQ(report.size(), sizeof(ProtocolReader::Stats));
  ProtocolReader::Stats stats;
  std::memcpy(&stats, report.data(), sizeof(stats));
  EXPECT_GT(stats.lookups, 1000u);
  EXPECT_EQ(stats.torn, 0u);
  EXPECT_EQ(stats.stableMisses, 0u);
  EXPECT_TRUE(writer.validate()) << writer.validationError();
  auto counters = writer.writerCounters();
  EXPECT_GT(counters.bucketGrowths, 0u);
  EXPECT_GT(counters.bucketShrinks + counters.slotShrinks, 0u);
  RecordProperty("lookups", static_cast<int>(stats.lookups));
  RecordProperty("lookasideReads", static_cast<int>(stats.lookasideReads));
  RecordProperty("retries", static_cast<int>(stats.retries));
  std::printf(
      "reader: lookups %lu lookaside %lu retries %lu remaps %lu waits %lu rounds %lu"
      " bucket resizes %lu slot shrinks %lu\n",
      stats.lookups, stats.lookasideReads, stats.retries, stats.remaps, stats.resizeWaits, round,
      counters.bucketGrowths + counters.bucketShrinks, counters.slotShrinks);
}

}  // namespace
