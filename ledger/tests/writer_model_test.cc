// Model-based test of the writer: long random sequences of writes, rewrites, removes and
// direct-mode edits, checked against std::map after every step, with the validator run
// periodically, across bucket and slot growth and shrink and queue compaction.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "ledger/tests/SmallTable.h"

namespace {

using namespace LedgerTest;

class WriterModel : public SmallTable {
 protected:
  WriterModel() : SmallTable("model") {}

  void checkKey(uint64_t id) {
    TestValue got;
    auto it = model.find(id);
    bool found = writer->lookup(TestKey{id}, got);
    ASSERT_EQ(found, it != model.end()) << "key " << id;
    if (found) {
      ASSERT_EQ(got, it->second) << "key " << id;
    }
  }

  void checkAll() {
    ASSERT_TRUE(writer->validate()) << writer->validationError();
    ASSERT_EQ(writer->members(), model.size());
    std::map<uint64_t, TestValue> seen;
    TestValue v;
    uint32_t hint = Ledger::kNoSlot;
    for (bool more = writer->first(v); more; more = writer->next(v.k, v, &hint)) {
      ASSERT_TRUE(seen.emplace(v.k.id, v).second) << "iteration repeats " << v.k.id;
    }
    ASSERT_EQ(seen, model);
  }

  void step(std::mt19937_64& rng, uint64_t keySpace, int removeBias) {
    uint64_t id = rng() % keySpace;
    int op = static_cast<int>(rng() % 100);
    if (op < removeBias) {
      TestValue out;
      bool existed = writer->remove(TestKey{id}, &out);
      ASSERT_EQ(existed, model.count(id) == 1);
      if (existed) {
        ASSERT_EQ(out, model[id]);
      }
      model.erase(id);
    } else if (op < removeBias + 10) {
      bool existed = model.count(id) == 1;
      TestValue* direct =
          (op % 2) ? writer->directWrite(TestKey{id}) : writer->directUpdate(TestKey{id});
      if (!direct) {
        ASSERT_FALSE(existed);
        ASSERT_EQ(op % 2, 0);
        return;
      }
      if (!existed) {
        ASSERT_EQ(direct->version, 0u);
      }
      *direct = makeValue(id, ++version);
      writer->directCommit();
      model[id] = makeValue(id, version);
    } else {
      // A look-up first, as writers that probe before they write do; a miss is then inserted
      // where the look-up ended, unless another change came in between.
      if (op % 3 == 0) {
        ASSERT_NO_FATAL_FAILURE(checkKey(id));
      }
      if (op % 6 == 0) {
        ASSERT_NO_FATAL_FAILURE(changeAnother(rng, keySpace, op));
      }
      TestValue v = makeValue(id, ++version);
      writer->write(v);
      model[id] = v;
    }
    checkKey(id);
  }

  // Writes or removes a random key between a look-up and the write it prepares.
  void changeAnother(std::mt19937_64& rng, uint64_t keySpace, int op) {
    const uint64_t other = rng() % keySpace;
    if (op % 4 == 0) {
      ASSERT_EQ(writer->remove(TestKey{other}), model.erase(other) == 1);
    } else {
      model[other] = makeValue(other, ++version);
      writer->write(model[other]);
    }
  }

  std::map<uint64_t, TestValue> model;
  uint64_t version = 0;
};

class WriterModelSeeds : public WriterModel, public ::testing::WithParamInterface<uint64_t> {};

TEST_P(WriterModelSeeds, RandomOperationsMatchMapAcrossGrowthShrinkAndCompaction) {
  std::mt19937_64 rng(GetParam());
  struct Phase {
    int steps;
    uint64_t keySpace;
    int removeBias;
  };
  // Fill, churn, drain (slot and bucket shrink), refill.
  const Phase phases[] = {
      {6000, 3000, 10}, {6000, 3000, 45}, {8000, 3000, 90}, {4000, 300, 20}, {4000, 300, 95}};
  int n = 0;
  for (const Phase& phase : phases) {
    for (int i = 0; i < phase.steps; ++i, ++n) {
      ASSERT_NO_FATAL_FAILURE(step(rng, phase.keySpace, phase.removeBias));
      if (n % 250 == 0) {
        ASSERT_NO_FATAL_FAILURE(checkAll());
      }
    }
    ASSERT_NO_FATAL_FAILURE(checkAll());
  }
  auto counters = writer->writerCounters();
  EXPECT_GT(counters.slotGrowths, 3u);
  EXPECT_GT(counters.slotShrinks, 0u);
  EXPECT_GT(counters.bucketGrowths, 3u);
  EXPECT_GT(counters.bucketShrinks, 0u);
  EXPECT_GT(counters.rallyCompactions, 0u);
  EXPECT_GT(counters.directCommits, 0u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, WriterModelSeeds, ::testing::Values(1, 2, 3, 12345));

TEST_F(WriterModel, ReattachAdoptsTheTableAsItStands) {
  std::mt19937_64 rng(7);
  for (int i = 0; i < 1500; ++i) ASSERT_NO_FATAL_FAILURE(step(rng, 800, 30));
  uint32_t ember = writer->emberId();
  uint64_t seq = writer->sequence();
  writer->detach();
  EXPECT_EQ(writer->attach(), Ledger::AttachResult::existing);
  EXPECT_EQ(writer->emberId(), ember);
  EXPECT_EQ(writer->sequence(), seq);
  ASSERT_NO_FATAL_FAILURE(checkAll());
}

TEST_F(WriterModel, BatchWritesEqualOneWriteAtATime) {
  std::mt19937_64 rng(11);
  std::vector<TestValue> batch;
  for (int i = 0; i < 5000; ++i) {  // repeated keys: later values win, as with write()
    uint64_t id = rng() % 1500;
    batch.push_back(makeValue(id, ++version));
    model[id] = batch.back();
  }
  uint64_t seq = writer->sequence();
  writer->writeBatch(batch.data(), batch.size());
  EXPECT_EQ(writer->sequence(), seq + batch.size());
  ASSERT_NO_FATAL_FAILURE(checkAll());
}

// A walk that removes each entry it reaches and writes a new key in its place: the next step's
// hint then names a slot that holds another key, and the walk must go on from where the
// removed key was. Every key that was there from the start is reached exactly once.
TEST_F(WriterModel, AWalkGoesOnWhenItsHintedSlotHoldsAnotherKey) {
  for (uint64_t id = 0; id < 300; ++id) writer->write(makeValue(id, 1));
  std::map<uint64_t, int> reached;
  uint64_t fresh = 1000;
  TestValue v;
  uint32_t hint = Ledger::kNoSlot;
  for (bool more = writer->first(v); more; more = writer->next(v.k, v, &hint)) {
    if (v.k.id >= 1000) continue;
    ++reached[v.k.id];
    ASSERT_TRUE(writer->remove(v.k));
    const void* stored = writer->write(makeValue(fresh++, 1));
    if (hint != Ledger::kNoSlot) {
      ASSERT_EQ(stored, writer->slotTable().value(hint)) << "the new key takes the freed slot";
    }
  }
  ASSERT_EQ(reached.size(), 300u);
  for (const auto& [id, times] : reached) EXPECT_EQ(times, 1) << "key " << id;
}

// Keys whose hashes take three values: chains of equal rhashes ordered by key, walked by every
// rewrite, reshaped as entries are removed, re-added and moved by shrinks. A rewrite must
// land in its own key's slot.
TEST(WriterCollidingKeys, RewritesLandInTheirOwnKeysSlots) {
  TempRoot root;
  Ledger::LedgerWriter<CollidingKey, CollidingValue> writer(
      tableConfig(root.path(), "colliding", 4, 4));
  writer.attach();
  std::map<uint64_t, uint64_t> model;
  std::mt19937_64 rng(5);
  uint64_t data = 0;
  for (int step = 0; step < 6000; ++step) {
    const uint64_t id = rng() % 150;
    const int removeBias = (step / 1500) % 2 ? 80 : 20;  // fill, drain (moves), fill, drain
    CollidingValue got;
    if (static_cast<int>(rng() % 100) < removeBias) {
      ASSERT_EQ(writer.remove(CollidingKey{id}), model.erase(id) == 1);
    } else {
      // Half the writes follow a look-up of their key, some with a write of another key of
      // the same chains in between.
      if (step % 2) {
        ASSERT_EQ(writer.lookup(CollidingKey{id}, got), model.count(id) == 1);
      }
      if (step % 6 == 1) {
        const uint64_t other = rng() % 150;
        writer.write(CollidingValue{CollidingKey{other}, ++data});
        model[other] = data;
      }
      writer.write(CollidingValue{CollidingKey{id}, ++data});
      model[id] = data;
    }
    ASSERT_EQ(writer.lookup(CollidingKey{id}, got), model.count(id) == 1) << "key " << id;
    if (model.count(id)) {
      ASSERT_EQ(got.data, model[id]) << "key " << id;
    }
    if (step % 500 == 0) {
      ASSERT_TRUE(writer.validate()) << writer.validationError();
    }
  }
  ASSERT_TRUE(writer.validate()) << writer.validationError();
  EXPECT_EQ(writer.members(), model.size());
  EXPECT_GT(writer.writerCounters().slotShrinks, 0u);
  for (const auto& [id, value] : model) {
    CollidingValue got;
    ASSERT_TRUE(writer.lookup(CollidingKey{id}, got)) << "key " << id;
    EXPECT_EQ(got.data, value) << "key " << id;
  }
}

}  // namespace
