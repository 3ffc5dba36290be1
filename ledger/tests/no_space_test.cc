// A writer whose file system runs out of room (a /dev/shm of a few hundred kilobytes, as in a
// small container): the write that needed more room fails with TableFullException saying why,
// and changes nothing; every write acknowledged before it is there, whole, for the writer and
// for a reader; the validator passes; and what needs no new room (removals, rewrites into the
// room that removals gave back) still works. The writer never dies of SIGBUS on a page that
// the file system could not give.
//
// Each case runs in a child process, in a mount namespace of its own with a small tmpfs. Where
// the system allows no such namespace, the test is skipped.
#include <gtest/gtest.h>

#include <string>

#include "ledger/LedgerReader.h"
#include "ledger/LedgerWriter.h"
#include "ledger/tests/SlabTestTypes.h"
#include "ledger/tests/TestTable.h"
#include "platform/tests/SmallTmpfs.h"

namespace {

using namespace LedgerTest;

// Values in the slots.
struct SlotValues {
  static constexpr bool kDirect = Ledger::Ops<TestKey, TestValue>::kDirect;
  using Value = TestValue;
  using Writer = Ledger::LedgerWriter<TestKey, TestValue>;
  using Reader = Ledger::LedgerReader<TestKey, TestValue>;
  static TestKey key(uint64_t id) { return TestKey{id}; }
  static TestValue value(uint64_t id, uint64_t version) { return makeValue(id, version); }
};

// Values of changing sizes in slabs.
struct SlabValues {
  static constexpr bool kDirect = ViaOps::kDirect;
  using Value = ViaSet;
  using Writer = Ledger::LedgerWriter<ViaSetKey, ViaSet, ViaOps>;
  using Reader = Ledger::LedgerReader<ViaSetKey, ViaSet, ViaOps>;
  static ViaSetKey key(uint64_t id) { return ViaSetKey{uint32_t(id)}; }
  static ViaSet value(uint64_t id, uint64_t version) {
    return makeViaSet(uint32_t(id), (id + version) % 5 * 7, uint32_t(version));
  }
};

// What the table holds for `id`: version `version`, or nothing (0).
template <class T, class Table>
bool holds(Table& table, uint64_t id, uint64_t version) {
  typename T::Value got{};
  const bool found = table.lookup(T::key(id), got);
  return version == 0 ? !found : found && got == T::value(id, version);
}

// Direct updates of ids 1..last, round after round (200 at most: where removals gave back
// enough room they never run out), until one finds no room left for its announcement: that
// one must fail as it opens the slot and change nothing (once a slot is open, its commit
// cannot fail). Returns "" when all is as it should be, else what is not.
template <class T>
std::string updateDirectlyUntilFull(typename T::Writer& w, uint64_t last) {
  for (uint64_t version = 3; version < 200; ++version) {
    for (uint64_t id = 1; id <= last; ++id) {
      typename T::Value before{};
      if (!w.lookup(T::key(id), before)) return "lost " + std::to_string(id);
      try {
        typename T::Value* open = w.directUpdate(T::key(id));
        *open = T::value(id, version);
        w.directCommit();
      } catch (const Ledger::TableFullException&) {
        typename T::Value after{};
        if (!w.lookup(T::key(id), after) || !(after == before)) {
          return "a failed direct update changed " + std::to_string(id);
        }
        try {
          w.directCommit();  // nothing is open: refused
        } catch (const Zinc::InternalException&) {
          return "";
        }
        return "a failed direct update left the writer in direct mode";
      }
    }
  }
  return "";
}

// Writes ids 1, 2, ... until the file system is full; then checks the table and carries on
// with what needs no new room. Returns "" when all is as it should be, else what is not.
template <class T>
std::string fillUntilFull(const std::string& root) {
  typename T::Writer w(tableConfig(root, "full", 16, 4));
  w.attach();
  uint64_t acked = 0;
  std::string why;
  for (uint64_t id = 1; why.empty(); ++id) {
    if (id > 1000000) return "never ran out of room";
    try {
      w.write(T::value(id, 1));
      acked = id;
    } catch (const Ledger::TableFullException& e) {
      why = e.what();
    }
  }
  if (why.find("No space left on device") == std::string::npos) return "unclear error: " + why;
  if (acked < 16) return "ran out of room too early: " + std::to_string(acked);
  if (!holds<T>(w, acked + 1, 0)) return "the failed write left its entry";
  typename T::Reader reader(Ledger::ReaderConfig{root, "full"});
  reader.attach();
  for (uint64_t id = 1; id <= acked; ++id) {
    if (!holds<T>(w, id, 1) || !holds<T>(reader, id, 1)) return "lost " + std::to_string(id);
  }
  if (!w.validate()) return "invalid after the failed write";
  // Removals give room back (a removal that needs a new queue file may still find none: it
  // then fails and changes nothing); rewrites then take that room.
  uint64_t removed = 0;
  for (uint64_t id = acked; id > acked / 2; --id) {
    try {
      w.remove(T::key(id));
      ++removed;
    } catch (const Ledger::TableFullException&) {
      if (!holds<T>(w, id, 1)) return "a failed removal removed " + std::to_string(id);
    }
  }
  if (removed == 0) return "no removal went through";
  uint64_t rewritten = 0;
  for (uint64_t id = 1; id <= acked / 4; ++id) {
    try {
      w.write(T::value(id, 2));
      ++rewritten;
    } catch (const Ledger::TableFullException&) {
      if (!holds<T>(w, id, 1)) return "a failed rewrite changed " + std::to_string(id);
    }
  }
  if (rewritten == 0) return "no rewrite went through";
  if constexpr (T::kDirect) {
    if (std::string problem = updateDirectlyUntilFull<T>(w, acked / 4); !problem.empty()) {
      return problem;
    }
  }
  if (!w.validate()) return "invalid after removals and rewrites";
  return "";
}

// Sizes at which the room runs out in different files first: slots, queue, buckets, slabs (a
// slab table takes a page for each of its size classes as it attaches).
template <class T>
void fillsEverySize(std::initializer_list<const char*> sizes) {
  for (const char* size : sizes) {
    const std::string result = TestSupport::inSmallTmpfs(size, fillUntilFull<T>);
    if (result == TestSupport::kNoSmallTmpfs)
      GTEST_SKIP() << "no mount namespace for a small tmpfs here";
    EXPECT_EQ(result, "ok") << "tmpfs of " << size;
  }
}

TEST(NoSpace, SlotTableFailsWritesCleanlyAndLosesNothing) {
  fillsEverySize<SlotValues>({"96k", "160k", "256k", "384k", "600k"});
}

TEST(NoSpace, SlabTableFailsWritesCleanlyAndLosesNothing) {
  fillsEverySize<SlabValues>({"256k", "320k", "384k", "600k", "900k"});
}

}  // namespace
