// Test helper: a small settled table with every kind of entry the validator walks (free
// slots, chains, live notifications, tombstones, deletion notifications), for tests that
// break it one way at a time.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "ledger/LedgerWriter.h"
#include "ledger/tests/RallyFiles.h"
#include "ledger/tests/TestTable.h"

namespace LedgerTest {

// A settled table of 17 keys: 20 written, 3 of them removed (their slots free, each with a
// live deletion notification) and 2 rewritten (their first notifications now tombstones).
class CheckedTable {
 public:
  static constexpr uint64_t kRemoved[] = {3, 4, 5};
  static constexpr uint64_t kRewritten[] = {7, 8};

  CheckedTable() {
    w.attach();
    for (uint64_t id = 0; id < 20; ++id) w.write(makeValue(id, 1));
    for (uint64_t id : kRemoved) removedSlots.push_back(slotOf(id)), w.remove(TestKey{id});
    w.rally().settle();  // positions are recorded as the queue is settled
    for (uint64_t id : kRewritten) {
      tombstones.push_back(positions()[slotOf(id)]);
      w.write(makeValue(id, 2));
    }
    w.rally().settle();
    EXPECT_TRUE(w.validate()) << w.validationError();
  }

  // What the writer's validator reports now.
  std::string report() {
    EXPECT_FALSE(w.validate());
    return w.validationError();
  }

  uint32_t slotOf(uint64_t id) {
    auto& slots = w.slotTable();
    for (uint32_t i = 0; i < slots.numSlots(); ++i) {
      if ((slots.slot(i).status & Ledger::kOccupied) &&
          reinterpret_cast<const TestValue*>(slots.value(i))->k.id == id) {
        return i;
      }
    }
    ADD_FAILURE() << "no slot holds key " << id;
    return 0;
  }
  Ledger::SlotTableHeader& header() { return w.slotTable().header(); }
  Ledger::SlotHeader& slot(uint32_t i) { return w.slotTable().slot(i); }
  uint64_t& head(uint32_t bucket) { return w.bucketTable().head(bucket); }
  uint32_t numSlots() { return w.slotTable().numSlots(); }
  uint32_t occupied() { return w.slotTable().occupiedSlots(); }
  uint32_t* positions() { return files.positions(); }
  uint64_t* entries() { return files.entries(); }
  // The slots of bucket `b`'s chain, in order.
  std::vector<uint32_t> chain(uint32_t b) {
    std::vector<uint32_t> out;
    for (uint32_t i = Ledger::linkOf(head(b)); !Ledger::isEndOfChain(i);
         i = Ledger::linkOf(slot(i).linkPair)) {
      out.push_back(i);
    }
    return out;
  }
  // The link pair that leads to `target` in its chain.
  uint64_t& linkTo(uint32_t target) {
    for (uint32_t b = 0; b < w.numBuckets(); ++b) {
      uint64_t* pair = &head(b);
      for (uint32_t i = Ledger::linkOf(*pair); !Ledger::isEndOfChain(i);
           i = Ledger::linkOf(*pair)) {
        if (i == target) return *pair;
        pair = &slot(i).linkPair;
      }
    }
    ADD_FAILURE() << "no chain reaches slot " << target;
    return head(0);
  }
  uint32_t lastFree() {
    uint32_t last = header().freeListHead;
    while (!Ledger::isEndOfChain(Ledger::linkOf(slot(last).linkPair))) {
      last = Ledger::linkOf(slot(last).linkPair);
    }
    return last;
  }
  uint32_t firstNonEmptyBucket() {
    uint32_t b = 0;
    while (chain(b).empty()) ++b;
    return b;
  }
  uint32_t freeCount() {
    uint32_t n = 0;
    for (uint32_t i = header().freeListHead; i != Ledger::kNoSlot && !Ledger::isEndOfChain(i);) {
      ++n;
      i = Ledger::linkOf(slot(i).linkPair);
    }
    return n;
  }

  TempRoot root;
  Ledger::LedgerWriter<TestKey, TestValue> w{tableConfig(root.path(), "checked", 64)};
  RallyFiles files{root.path(), "checked"};
  std::vector<uint32_t> removedSlots;
  std::vector<uint32_t> tombstones;  // queue positions of the rewritten keys' first entries
};

// Who can make a finding: the writer's validator judges by the writer's own state and key
// type, `ledger validate` from outside by what the files say.
enum class SeenBy { both, writerOnly, toolOnly };

// One way of breaking a checked table: `apply` breaks it and returns what the validator must
// report, word for word.
struct Breakage {
  const char* name;
  std::function<std::string(CheckedTable&)> apply;
  SeenBy seenBy = SeenBy::both;
};

inline std::vector<Breakage> breakages() {
  using namespace Ledger;
  using std::to_string;
  return {
      {"the free list loops",
       [](CheckedTable& t) {
         const uint32_t first = t.header().freeListHead;
         t.slot(t.lastFree()).linkPair = packLink(0, first);
         return "Validator::walkFreeSlots() duplicate freeSlot detected: " + to_string(first);
       }},
      {"the free list leads out of the table",
       [](CheckedTable& t) {
         t.slot(t.lastFree()).linkPair = packLink(0, t.numSlots() + 5);
         return "Validator::walkFreeSlots() corrupted free slot detected with out of bound "
                "index: " +
                to_string(t.numSlots() + 5);
       }},
      {"a free slot is marked occupied",
       [](CheckedTable& t) {
         const uint32_t first = t.header().freeListHead;
         t.slot(first).status |= kOccupied;
         return "Validator::walkFreeSlots() corrupted free slot not marked as empty: " +
                to_string(first);
       }},
      {"the bucket count is not a power of two",
       [](CheckedTable& t) {
         const uint32_t n = t.w.numBuckets() + 1;
         const_cast<BucketTableHeader&>(t.w.bucketTable().header()).numBuckets = n;
         return "Validator::walkOccupiedSlots() bad numBuckets:" + to_string(n);
       },
       SeenBy::writerOnly},
      {"a chain leads out of the table",
       [](CheckedTable& t) {
         const uint32_t b = t.firstNonEmptyBucket();
         t.head(b) = packLink(0, t.numSlots() + 3);
         return "Validator::walkOccupiedSlots() bad link:" + to_string(t.numSlots() + 3) +
                " in bucket:" + to_string(b);
       }},
      {"the last chain leads into the first one",
       [](CheckedTable& t) {
         const uint64_t first = t.head(t.firstNonEmptyBucket());
         t.head(t.w.numBuckets() - 1) = first;
         return "Validator::markOccupied() duplicate slot: " + to_string(linkOf(first));
       }},
      {"two keys of a chain swap places",
       [](CheckedTable& t) {
         uint32_t b = 0;
         while (t.chain(b).size() < 2) ++b;
         const std::vector<uint32_t> pair = t.chain(b);
         const uint64_t afterSecond = t.slot(pair[1]).linkPair;
         t.head(b) = packLink(0, pair[1]);
         t.slot(pair[1]).linkPair = packLink(0, pair[0]);
         t.slot(pair[0]).linkPair = afterSecond;
         return "Validator::walkOccupiedSlots() chain out of order at slot: " + to_string(pair[0]) +
                " bucket: " + to_string(b);
       }},
      {"a chained slot lost its OCCUPIED bit",
       [](CheckedTable& t) {
         const uint32_t s = t.slotOf(10);
         t.slot(s).status = 0x28;
         return "Validator::markOccupied() missing OCCUPIED bit: 0x28 slot: " + to_string(s);
       }},
      {"a chained slot kept its LOOKASIDE bit",
       [](CheckedTable& t) {
         const uint32_t s = t.slotOf(10);
         t.slot(s).status |= kLookaside;
         return "Validator::markOccupied() stuck LOOKASIDE bit: 0x" +
                (std::ostringstream() << std::hex << t.slot(s).status).str() +
                " slot: " + to_string(s);
       }},
      {"the header counts one member less",
       [](CheckedTable& t) {
         const uint32_t n = t.occupied();
         t.header().occupiedSlots = n - 1;
         return "Validator::walkOccupiedSlots() walkedSlots:" + to_string(n) +
                " is greater than header->occupiedSlots:" + to_string(n - 1);
       }},
      {"the header counts one member more",
       [](CheckedTable& t) {
         const uint32_t n = t.occupied();
         t.header().occupiedSlots = n + 1;
         return "Validator::walkOccupiedSlots() mismatch header->occupiedSlots:" +
                to_string(n + 1) + " walkedSlots:" + to_string(n);
       }},
      {"an occupied slot is in no chain and out of the count (a remove cut short)",
       [](CheckedTable& t) {
         const uint32_t s = t.slotOf(10), n = t.occupied(), free = t.freeCount();
         t.linkTo(s) = t.slot(s).linkPair;
         t.header().occupiedSlots = n - 1;
         return "Validator::doValidate() bad slotCount:" + to_string(t.numSlots() - 1) +
                " free:" + to_string(free) + " occupied:" + to_string(n - 1) +
                " numSlots:" + to_string(t.numSlots());
       }},
      {"an occupied slot has no live notification",
       [](CheckedTable& t) {
         const uint32_t s = t.slotOf(10);
         t.positions()[s] = kNoPosition;
         return "Validator::markOccupied() no notification in rally queue, slot: " + to_string(s);
       }},
      {"an occupied slot's position is beyond the queue",
       [](CheckedTable& t) {
         const uint32_t s = t.slotOf(10), pos = t.w.rally().count() + 7;
         t.positions()[s] = pos;
         return "Validator::markOccupied() slot: " + to_string(s) +
                " bad rally index:" + to_string(pos);
       }},
      {"an occupied slot's position names another slot's entry",
       [](CheckedTable& t) {
         const uint32_t s = t.slotOf(10), pos = t.positions()[t.slotOf(11)];
         t.positions()[s] = pos;
         return "Validator::markOccupied() slot: " + to_string(s) +
                " duplicate rally position:" + to_string(pos);
       }},
      {"the queue's corral is open with no shrink under way",
       [](CheckedTable& t) {
         t.files.control().corralStart = 1;
         t.files.control().corralEnd = 3;
         return std::string(
             "Validator::doValidate() corral pos:1 end:3 with no shrink in progress");
       }},
      {"the queue's header is not the writer's",
       [](CheckedTable& t) {
         const uint32_t count = t.w.rally().count();
         const std::string base = to_string(t.w.rally().baseSeq());
         const std::string latest = to_string(t.w.rally().sequence());
         t.files.queue().count = count + 1;
         return "Validator::doValidate() rally count:" + to_string(count + 1) + " base:" + base +
                " latestSeq:" + latest + " differ from the writer's count:" + to_string(count) +
                " base:" + base + " latestSeq:" + latest;
       },
       SeenBy::writerOnly},
      {"an entry sits at the queue's base",
       [](CheckedTable& t) {
         const uint32_t pos = t.tombstones[0];
         t.entries()[pos] = RallyEntry::wordOf(0, RallyEntry::slotWordOf(t.entries()[pos]));
         return "Validator::doValidate() rally pos:" + to_string(pos) +
                " sequence offset 0, not above base:" + to_string(t.w.rally().baseSeq());
       }},
      {"an entry repeats the sequence before it",
       [](CheckedTable& t) {
         const uint32_t pos = t.tombstones[0];
         const uint64_t before = RallyEntry::offsetOf(t.entries()[pos - 1]);
         t.entries()[pos] = RallyEntry::wordOf(before, RallyEntry::slotWordOf(t.entries()[pos]));
         return "Validator::doValidate() rally pos:" + to_string(pos) +
                " sequence out of order: " + to_string(t.w.rally().entry(pos).sequence);
       }},
      {"an entry names a slot beyond the queue's",
       [](CheckedTable& t) {
         const uint32_t pos = t.tombstones[0], beyond = t.w.rally().slotCapacity() + 1;
         t.entries()[pos] = RallyEntry::wordOf(RallyEntry::offsetOf(t.entries()[pos]), beyond);
         return "Validator::doValidate() rally pos:" + to_string(pos) +
                " has out of range slot: " + to_string(beyond);
       }},
      {"a replaced notification is live again",
       [](CheckedTable& t) {
         const uint32_t pos = t.tombstones[0];
         t.entries()[pos] &= ~uint64_t{kTombstone};
         const uint32_t s = RallyEntry::slotWordOf(t.entries()[pos]);
         return "Validator::doValidate() rally pos:" + to_string(pos) +
                " with wrong rallySlot:" + to_string(t.positions()[s]) + " slot: " + to_string(s);
       }},
      {"a removal's notification, a freed slot's live entry, is a tombstone",
       [](CheckedTable& t) {
         const uint32_t freed = t.removedSlots[0], pos = t.positions()[freed];
         t.entries()[pos] |= kTombstone;
         return "Validator::doValidate() active tombstone pos:" + to_string(pos) +
                " on deleted notification: slot " + to_string(freed);
       }},
      {"a slot that never held anything names another slot's entry",
       [](CheckedTable& t) {
         const uint32_t unused = t.w.rally().slotCapacity() - 1;
         EXPECT_EQ(t.positions()[unused], kNoPosition);
         const uint32_t pos = t.positions()[t.slotOf(11)];
         t.positions()[unused] = pos;
         return "Validator::doValidate() occupied slot:" + to_string(unused) +
                " rally pos:" + to_string(pos) + " not its live notification";
       }},
      {"a slot's rhash puts it in another bucket than its chain's",
       [](CheckedTable& t) {
         const uint32_t b = t.firstNonEmptyBucket(), s = t.chain(b).front();
         t.slot(s).rhash ^= 0x80000000u;  // the lowest bit of its bucket
         return "Validator::walkOccupiedSlots() corrupt rhash detected, slot: " + to_string(s) +
                " bucket: " + to_string(b);
       },
       SeenBy::toolOnly},
      {"the queue is settled beyond its count",
       [](CheckedTable& t) {
         const uint32_t count = t.w.rally().count();
         t.files.queue().settled = count + 1;
         return "Validator::doValidate() rally settled:" + to_string(count + 1) +
                " count:" + to_string(count);
       },
       SeenBy::toolOnly},
      {"the queue's positions cover fewer slots than the chains hold",
       [](CheckedTable& t) {
         uint32_t highest = 0;
         for (uint32_t b = 0; b < t.w.numBuckets(); ++b) {
           for (uint32_t s : t.chain(b)) highest = std::max(highest, s);
         }
         // The entries move down to where a queue of `highest` positions keeps them.
         auto& q = t.files.queue();
         auto* base = reinterpret_cast<uint8_t*>(&q);
         std::memmove(base + rallyEntriesOffset(highest), base + rallyEntriesOffset(q.slotCapacity),
                      8 * size_t{q.count});
         q.slotCapacity = highest;
         return "Validator::markOccupied() slot: " + to_string(highest) +
                " has out of range rally slot: " + to_string(highest);
       },
       SeenBy::toolOnly},
  };
}

}  // namespace LedgerTest
