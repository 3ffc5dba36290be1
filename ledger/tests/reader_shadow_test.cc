// Shadows following a writer on the real notification loop: per-key events exactly as the
// writer's changes make them, sync in slices, mounting before the writer exists.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <random>

#include "ledger/tests/DecodingOps.h"
#include "ledger/tests/ShadowHarness.h"
#include "platform/tests/ForkedChild.h"
#include "zinc/tests/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using namespace LedgerTest;
using Ledger::ShadowState;

struct ShadowTest : ::testing::Test {
  TempRoot root;
  Zinc::Loop loop;
  EventLog log;

  std::unique_ptr<Shadow> makeShadow(Ledger::ShadowOptions options = {}) {
    return std::make_unique<Shadow>(Ledger::ReaderConfig{root.path(), "routes"}, loop,
                                    log.notifier(), Ledger::Ops<TestKey, TestValue>(), options);
  }
  bool settle(Shadow& shadow) {
    return until([&] { return shadow.quiesced(); });
  }
  // The writer takes ids [0, count) at version 1, and a new shadow syncs with it: the shadow
  // in step, or null (the failure reported) when it does not mount or settle.
  std::unique_ptr<Shadow> syncedShadow(KickingWriter& w, uint64_t count) {
    for (uint64_t id = 0; id < count; ++id) w.writer.write(makeValue(id, 1));
    auto shadow = makeShadow();
    if (!shadow->initialize()) {
      ADD_FAILURE() << "the shadow did not mount";
      return nullptr;
    }
    if (!settle(*shadow)) {
      ADD_FAILURE() << "the shadow did not settle";
      return nullptr;
    }
    return shadow;
  }
  bool until(const std::function<bool()>& pred) { return runUntil(loop, pred); }
};

TEST_F(ShadowTest, EventsFollowChangesExactly) {
  KickingWriter w(root.path(), "routes", 64, &loop);
  auto shadow = syncedShadow(w, 50);
  ASSERT_TRUE(shadow);
  EXPECT_EQ(log.adds, 50u) << "the first sync reports every key";
  EXPECT_EQ(shadowContents(*shadow), w.contents());

  // An unchanged rewrite: announced by the writer, reported to nobody.
  w.rewrite(7);
  // A change, a removal.
  w.writer.write(makeValue(8, 2));
  w.writer.remove(TestKey{9});
  ASSERT_TRUE(settle(*shadow));
  EXPECT_EQ(log.adds, 50u);
  EXPECT_EQ(log.changes, 1u);
  EXPECT_EQ(log.deletes, 1u);
  TestValue v;
  ASSERT_TRUE(shadow->lookup(TestKey{8}, v));
  EXPECT_EQ(v, makeValue(8, 2));
  EXPECT_FALSE(shadow->lookup(TestKey{9}, v));
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

TEST_F(ShadowTest, SlotFreedAndReusedBetweenLooksIsDeletionAndAddition) {
  KickingWriter w(root.path(), "routes", 64);  // kicks only on flush()
  auto shadow = syncedShadow(w, 10);
  ASSERT_TRUE(shadow);
  // Remove 3 and add 100 into the slot 3 left, then tell the shadow about that one slot only.
  uint32_t slotOf3 = shadow->store().slotOfKey(TestKey{3});
  w.writer.remove(TestKey{3});
  w.writer.write(makeValue(100, 1));
  ASSERT_EQ(shadow->store().slotOfKey(TestKey{3}), slotOf3);
  shadow->store().doSlot(slotOf3, 0);
  EXPECT_EQ(log.deletes, 1u);
  EXPECT_EQ(log.adds, 11u);
  EXPECT_EQ(shadow->store().slotOfKey(TestKey{100}), slotOf3) << "the same slot was re-used";
  // The queue then tells the same story again: nothing more to report.
  w.flush();
  ASSERT_TRUE(settle(*shadow));
  EXPECT_EQ(log.deletes, 1u);
  EXPECT_EQ(log.adds, 11u);
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

TEST_F(ShadowTest, ShrinkMovesAreNotReportedAsChanges) {
  KickingWriter w(root.path(), "routes", 64, &loop);
  auto shadow = syncedShadow(w, 2000);
  ASSERT_TRUE(shadow);
  const uint32_t before = shadow->store().numSlots();
  for (uint64_t id = 0; id < 2000; ++id) {
    if (id % 97) w.writer.remove(TestKey{id});
  }
  ASSERT_GT(w.writer.writerCounters().slotShrinks, 0u);
  ASSERT_TRUE(settle(*shadow));
  EXPECT_EQ(log.deletes, 2000u - 21u);
  EXPECT_EQ(log.changes, 0u) << "moved entries kept their values";
  EXPECT_EQ(shadowContents(*shadow), w.contents());
  EXPECT_LT(shadow->store().numSlots(), before) << "the shadow shrank with the table";
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

// The walk of a resync finds the shadow's keys moved: it follows them to their new slots
// without reporting a change, reports the keys that left, and ends equal to the writer. Then
// an emptied shadow syncs again into the memory it had, reporting every key once more.
TEST_F(ShadowTest, ResyncFollowsMovedKeysAndAnEmptiedShadowSyncsAgain) {
  KickingWriter w(root.path(), "routes", 64);  // kicks only on flush(): the shadow looks away
  auto shadow = syncedShadow(w, 3000);
  ASSERT_TRUE(shadow);
  for (uint64_t id = 0; id < 3000; ++id) {
    if (id % 89) w.writer.remove(TestKey{id});
  }
  ASSERT_GT(w.writer.writerCounters().slotShrinks, 0u) << "survivors moved to lower slots";
  w.writer.write(makeValue(89, 2));
  shadow->resync("test");
  ASSERT_TRUE(settle(*shadow));
  EXPECT_EQ(shadowContents(*shadow), w.contents());
  EXPECT_EQ(log.present, w.contents());
  EXPECT_EQ(log.changes, 1u) << "only key 89 changed; the others only moved";
  EXPECT_EQ(log.deletes, 3000u - 34u);
  for (const auto& [id, version] : w.contents()) {
    TestValue found;
    ASSERT_TRUE(shadow->lookup(TestKey{id}, found)) << "key " << id << " is found where it went";
    EXPECT_EQ(found, makeValue(id, version));
  }

  shadow->store().flush();
  log = EventLog();  // the shadow forgot everything: what it reports now starts afresh
  shadow->resync("test");
  ASSERT_TRUE(settle(*shadow));
  EXPECT_EQ(shadowContents(*shadow), w.contents());
  EXPECT_EQ(log.present, w.contents());
  EXPECT_EQ(log.adds, 34u);
  TestValue v;
  ASSERT_TRUE(shadow->lookup(TestKey{89}, v));
  EXPECT_EQ(v, makeValue(89, 2));
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

TEST_F(ShadowTest, SyncRunsInSlicesWhileWriterChanges) {
  KickingWriter w(root.path(), "routes", 64, &loop);
  for (uint64_t id = 0; id < 20000; ++id) w.writer.write(makeValue(id, 1));
  Ledger::ShadowOptions options;
  options.yieldTime = 1us;
  auto shadow = makeShadow(options);
  ASSERT_TRUE(shadow->initialize());
  EXPECT_EQ(shadow->state(), ShadowState::syncing);
  // Change the table between slices.
  uint64_t version = 1;
  std::mt19937 rng(3);
  int iterations = 0;
  while (shadow->state() == ShadowState::syncing && iterations++ < 100000) {
    uint64_t id = rng() % 25000;
    if (rng() % 4 == 0) {
      w.writer.remove(TestKey{id});
    } else {
      w.writer.write(makeValue(id, ++version));
    }
    loop.runOnce(0ms);
  }
  ASSERT_TRUE(settle(*shadow));
  EXPECT_EQ(shadowContents(*shadow), w.contents());
  EXPECT_EQ(log.present, w.contents());
  EXPECT_GT(iterations, 10) << "the sync yielded to the loop between slices";
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

// Iterating a shadow: every key once, also when the key of the step before was deleted
// meanwhile (the loop ran between two steps and told of it), with a hint or without.
TEST_F(ShadowTest, IterationGoesOnPastAKeyDeletedBetweenTwoSteps) {
  KickingWriter w(root.path(), "routes", 64, &loop);
  auto shadow = syncedShadow(w, 400);
  ASSERT_TRUE(shadow);
  // Walks the shadow with `step`; after each key whose id % 4 is `doomed`, the writer deletes
  // it and the shadow is told before the step.
  auto walk = [&](int doomed, auto step) {
    std::map<uint64_t, uint64_t> seen;
    TestValue v;
    for (bool more = shadow->first(v); more; more = step(v)) {
      EXPECT_TRUE(seen.emplace(v.k.id, v.version).second) << "key " << v.k.id << " twice";
      if (int(v.k.id % 4) != doomed) continue;
      w.writer.remove(v.k);
      EXPECT_TRUE(settle(*shadow));
      EXPECT_FALSE(shadow->lookup(v.k, v)) << "gone from the shadow before the step";
    }
    return seen;
  };
  const auto all = w.contents();
  EXPECT_EQ(walk(-1, [&](TestValue& v) { return shadow->next(v.k, v); }), all);
  EXPECT_EQ(walk(0, [&](TestValue& v) { return shadow->next(v.k, v); }), all) << "no hint";
  const auto fewer = w.contents();
  uint32_t hint = 0;
  EXPECT_EQ(walk(1, [&](TestValue& v) { return shadow->next(v.k, v, &hint); }), fewer)
      << "with a hint";
  EXPECT_EQ(shadow->members(), 200u);
  // From a key the shadow never held, as from any key: the one after it in table order, as
  // the writer's own walk has it.
  TestValue v, fromWriter;
  for (uint64_t id = 100000; id < 100050; ++id) {
    const bool more = w.writer.next(TestKey{id}, fromWriter);
    ASSERT_EQ(shadow->next(TestKey{id}, v), more) << "key " << id;
    if (more) {
      EXPECT_EQ(v, fromWriter) << "key " << id;
    }
  }
}

// The shadow walks its keys in the writer's table order. A walk spread over turns of the
// loop sees every key held throughout exactly once, also when the writer shrinks its table
// between two steps, moving the keys from its upper slots down to the ones freed below.
TEST_F(ShadowTest, WalksInTableOrderAcrossAShrinkThatMovesKeys) {
  KickingWriter w(root.path(), "routes", 64, &loop);
  auto shadow = syncedShadow(w, 4000);
  ASSERT_TRUE(shadow);
  std::vector<uint64_t> writerOrder, shadowOrder;
  TestValue v;
  for (bool more = w.writer.first(v); more; more = w.writer.next(v.k, v)) {
    writerOrder.push_back(v.k.id);
  }
  for (bool more = shadow->first(v); more; more = shadow->next(v.k, v)) {
    shadowOrder.push_back(v.k.id);
  }
  EXPECT_EQ(shadowOrder, writerOrder);

  // Keys 3000 and up, in the upper slots, stay; a third of the way in, the rest go.
  const uint32_t shrinks = w.writer.writerCounters().slotShrinks;
  std::map<uint64_t, int> seen;
  size_t steps = 0;
  for (bool more = shadow->first(v); more; more = shadow->next(v.k, v)) {
    ++seen[v.k.id];
    if (++steps != 1000) continue;
    for (uint64_t id = 0; id < 3000; ++id) w.writer.remove(TestKey{id});
    ASSERT_TRUE(settle(*shadow));
  }
  ASSERT_GT(w.writer.writerCounters().slotShrinks, shrinks) << "the writer moved keys down";
  for (uint64_t id = 3000; id < 4000; ++id) EXPECT_EQ(seen[id], 1) << "key " << id;
  EXPECT_EQ(shadowContents(*shadow), w.contents());
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

// A slot that the writer is rewriting while a shadow syncs (a direct update open): the sync
// takes the whole old value from the look-aside copy, never the half-written bytes in the
// slot, and the new value once it is committed.
TEST_F(ShadowTest, ASyncTakesASlotMidRewriteFromItsLookAsideCopy) {
  KickingWriter w{root.path(), "routes", 64};
  for (uint64_t id = 0; id < 40; ++id) w.writer.write(makeValue(id, 1));
  TestValue* open = w.writer.directUpdate(TestKey{5});
  ASSERT_NE(open, nullptr);
  open->version = 2;  // half-written: payload and check still old
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(until([&] { return shadow->inStep(); }));
  TestValue v;
  ASSERT_TRUE(shadow->lookup(TestKey{5}, v));
  EXPECT_EQ(v, makeValue(5, 1));
  EXPECT_EQ(log.present[5], 1u);
  *open = makeValue(5, 2);
  w.writer.directCommit();
  w.flush();
  ASSERT_TRUE(settle(*shadow));
  ASSERT_TRUE(shadow->lookup(TestKey{5}, v));
  EXPECT_EQ(v, makeValue(5, 2));
  EXPECT_EQ(log.present[5], 2u);
}

// A sync cut into slices can be asked again, stopped, or meet a broken table between two of
// them. Each case begins with a shadow one slice into its first sync of 20,000 keys.
struct InterruptedSyncTest : ShadowTest {
  void SetUp() override {
    for (uint64_t id = 0; id < 20000; ++id) w.writer.write(makeValue(id, 1));
    Ledger::ShadowOptions options;
    options.yieldTime = 1us;
    // Long enough that no loaded machine retries a broken table before the test has looked at
    // the shadow waiting to.
    options.mountRetry = 500ms;
    // The health check would resync a shadow left waiting as well; on a slow machine it could
    // come first and hide whether the retry after corruption does its work.
    options.healthCheck = 1h;
    shadow = makeShadow(options);
    ASSERT_TRUE(shadow->initialize());
    loop.runOnce(0ms);  // the first slice
    ASSERT_EQ(shadow->state(), ShadowState::syncing);
    ASSERT_GT(log.adds, 0u);
    ASSERT_LT(log.adds, 20000u) << "the first slice took part of the table";
  }
  void expectEqualToTheWriter() {
    ASSERT_TRUE(settle(*shadow));
    EXPECT_EQ(shadowContents(*shadow), w.contents());
    EXPECT_EQ(log.present, w.contents());
    EXPECT_TRUE(log.errors.empty()) << log.errors.front();
  }

  ZincTest::TraceCapture trace{"LedgerShadow/1"};
  KickingWriter w{root.path(), "routes", 64, &loop};
  std::unique_ptr<Shadow> shadow;
};

// Asked again midway, the walk starts over from the first slot. It finds the keys it told
// unchanged, and tells them no second time, but a key that changed after the first walk passed
// it (whose notification the new sync skips, as every sync does) it tells as changed.
TEST_F(InterruptedSyncTest, ARequestMidwayRestartsTheWalkAndTellsNoKeyTwice) {
  ASSERT_EQ(log.present.count(0), 1u) << "key 0, written first, was in the first slice";
  w.writer.write(makeValue(0, 2));
  shadow->resync("test");
  EXPECT_TRUE(trace.has("Syncer::sync() Interrupting and restarting synchronization"));
  expectEqualToTheWriter();
  EXPECT_EQ(log.adds, 20000u);
  EXPECT_EQ(log.changes, 1u);
}

// Detached midway, the walk stops: no slice runs after it. Mounted again, the shadow syncs to
// the writer's table.
TEST_F(InterruptedSyncTest, ADetachMidwayStopsTheWalk) {
  shadow->detach();
  EXPECT_TRUE(trace.has("Syncer::doSync() Interrupted shadow synchronization, synced "));
  const uint64_t told = log.adds;
  for (int i = 0; i < 20; ++i) loop.runOnce(1ms);
  EXPECT_EQ(log.adds, told) << "nothing walked after the detach";
  EXPECT_EQ(shadow->state(), ShadowState::detached);
  ASSERT_TRUE(shadow->initialize());
  expectEqualToTheWriter();
}

// A table that turns out broken midway (its header counts slots that its file does not hold)
// ends the walk with a report to the corruption handler; the shadow tries again later, and
// once the table is whole again it syncs to it.
TEST_F(InterruptedSyncTest, CorruptionMidwayIsReportedAndTheSyncTriedAgain) {
  std::vector<std::string> reported;
  shadow->corruptionHandlerIs([&](const std::string& why) { reported.push_back(why); });
  uint32_t& numSlots = w.writer.slotTable().header().numSlots;
  const uint32_t whole = numSlots;
  numSlots = whole + 4096;
  ASSERT_TRUE(until([&] { return !reported.empty(); }));
  EXPECT_TRUE(trace.has("Syncer::doSync() corruption detected: " + reported.front()))
      << reported.front();
  EXPECT_EQ(shadow->state(), ShadowState::attached) << "waiting to try again";
  numSlots = whole;
  expectEqualToTheWriter();
  EXPECT_TRUE(
      trace.has("LedgerShadow::resync() Out-of-sync, re-synchronizing local shadow "
                "routes: after corruption"));
}

// The corruption handler may detach the shadow: no retry runs on the unmapped files after it
// (the retry's timer goes by without one), and mounted again the shadow syncs to the table.
TEST_F(InterruptedSyncTest, ACorruptionHandlerThatDetachesIsNotRetriedOn) {
  uint32_t reported = 0;
  shadow->corruptionHandlerIs([&](const std::string&) {
    ++reported;
    shadow->detach();
  });
  uint32_t& numSlots = w.writer.slotTable().header().numSlots;
  const uint32_t whole = numSlots;
  numSlots = whole + 4096;
  ASSERT_TRUE(until([&] { return reported > 0; }));
  EXPECT_EQ(shadow->state(), ShadowState::detached);
  loop.runFor(600ms);  // past the retry's 500 ms
  EXPECT_EQ(shadow->state(), ShadowState::detached);
  EXPECT_EQ(reported, 1u);
  numSlots = whole;
  shadow->corruptionHandlerIs({});
  ASSERT_TRUE(shadow->initialize());
  expectEqualToTheWriter();
}

// A writer in another process churns (rewrites, removes, re-adds) with no pause while
// shadows sync cold, a value shadow and a key shadow side by side: their bulk copies race real
// stores. Every value must come out whole, and once the writer stops the last shadows must
// equal its table.
TEST_F(ShadowTest, ColdSyncRacingAWriterInAnotherProcessEndsEqualToIt) {
  TestSupport::ForkedChild writer([&](int told, int stop) -> int {
    KickingWriter w(root.path(), "routes", 64);
    for (uint64_t id = 0; id < 30000; ++id) w.writer.write(makeValue(id, 1));
    w.flush();
    (void)!::write(told, "l", 1);
    std::mt19937 rng(17);
    uint64_t version = 1;
    for (pollfd p{stop, POLLIN, 0}; ::poll(&p, 1, 0) == 0;) {
      for (int i = 0; i < 64; ++i) {
        const uint64_t id = rng() % 32000;
        if (rng() % 8 == 0) {
          w.writer.remove(TestKey{id});
        } else {
          w.writer.write(makeValue(id, ++version));
        }
      }
      w.flush();
    }
    (void)!::write(told, "s", 1);
    for (char c = 0; c != 'x' && ::read(stop, &c, 1) == 1;) {
    }  // keeps the table until the parent is finished
    ::_exit(0);
  });
  ASSERT_EQ(writer.read(1), "l");
  Ledger::ShadowOptions options;
  options.yieldTime = 50us;
  std::unique_ptr<Shadow> shadow;
  using KeyShadow = Ledger::LedgerShadow<TestKey, TestValue, Ledger::Ops<TestKey, TestValue>,
                                         Ledger::KeyShadowSlot>;
  std::unique_ptr<KeyShadow> keys;
  EventLog keyLog;
  for (int round = 0; round < 3; ++round) {
    log = EventLog();
    keyLog = EventLog();
    shadow = makeShadow(options);
    keys =
        std::make_unique<KeyShadow>(Ledger::ReaderConfig{root.path(), "routes"}, loop,
                                    keyLog.notifier(), Ledger::Ops<TestKey, TestValue>(), options);
    shadow->initialize();
    keys->initialize();
    ASSERT_TRUE(until([&] { return shadow->inStep() && keys->inStep(); }));
    EXPECT_TRUE(log.errors.empty()) << log.errors.front();
    EXPECT_TRUE(keyLog.errors.empty()) << keyLog.errors.front();
  }
  ASSERT_TRUE(writer.tell('s'));
  ASSERT_EQ(writer.read(1), "s");
  ASSERT_TRUE(settle(*shadow));
  ASSERT_TRUE(until([&] { return keys->quiesced(); }));
  Ledger::LedgerReader<TestKey, TestValue> direct(Ledger::ReaderConfig{root.path(), "routes"});
  direct.attach();
  std::map<uint64_t, uint64_t> table;
  TestValue v;
  for (bool more = direct.first(v); more; more = direct.next(v.k, v)) table[v.k.id] = v.version;
  EXPECT_GT(table.size(), 20000u);
  EXPECT_EQ(shadowContents(*shadow), table);
  EXPECT_EQ(log.present, table);
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
  EXPECT_EQ(keyLog.present, table);
  EXPECT_EQ(keys->members(), table.size());
  EXPECT_TRUE(keyLog.errors.empty()) << keyLog.errors.front();
  ASSERT_TRUE(writer.tell('x'));
  const int status = writer.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(ShadowTest, WriterReattachMakesShadowResync) {
  auto w = std::make_unique<KickingWriter>(root.path(), "routes", 64, &loop);
  for (uint64_t id = 0; id < 100; ++id) w->writer.write(makeValue(id, 1));
  auto shadow = makeShadow();
  int ready = 0;
  shadow->readyHookIs([&] { ++ready; });
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(settle(*shadow));
  EXPECT_EQ(ready, 1);
  w.reset();
  w = std::make_unique<KickingWriter>(root.path(), "routes", 64, &loop);
  w->writer.write(makeValue(1000, 1));
  ASSERT_TRUE(settle(*shadow));
  EXPECT_GE(shadow->resyncs(), 1u);
  EXPECT_EQ(ready, 1) << "ready is advertised once, not again after a resync";
  EXPECT_EQ(shadowContents(*shadow), w->contents());
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

TEST_F(ShadowTest, KeyShadowReportsKeysWithoutKeepingValues) {
  KickingWriter w(root.path(), "routes", 64, &loop);
  std::map<uint64_t, int> events;
  Ledger::Notify<TestKey, TestValue> n;
  n.onKey = [&](const TestKey& k, const TestValue*) { ++events[k.id]; };
  Ledger::LedgerShadow<TestKey, TestValue, Ledger::Ops<TestKey, TestValue>, Ledger::KeyShadowSlot>
      keys(Ledger::ReaderConfig{root.path(), "routes"}, loop, n);
  ASSERT_TRUE(keys.initialize());
  w.writer.write(makeValue(1, 1));
  w.writer.write(makeValue(2, 1));
  ASSERT_TRUE(until([&] { return keys.quiesced(); }));
  w.rewrite(1);  // unchanged
  w.writer.write(makeValue(2, 2));
  ASSERT_TRUE(until([&] { return keys.quiesced(); }));
  EXPECT_EQ(events, (std::map<uint64_t, int>{{1, 1}, {2, 2}}));
  EXPECT_EQ(keys.members(), 2u);
}

TEST_F(ShadowTest, DetachTwiceAndDummyNotifier) {
  KickingWriter w(root.path(), "routes", 64, &loop);
  w.writer.write(makeValue(1, 1));
  Shadow quiet(Ledger::ReaderConfig{root.path(), "routes"}, loop, Ledger::DummyShadowNotifier());
  ASSERT_TRUE(quiet.initialize());
  ASSERT_TRUE(until([&] { return quiet.quiesced(); }));
  EXPECT_EQ(quiet.members(), 1u);
  for (int time = 1; time <= 2; ++time) {
    quiet.detach();
    EXPECT_EQ(quiet.state(), ShadowState::detached) << "detach " << time;
  }
}

// A notifiee detaches its own shadow from inside a notification: the walk that told it, of the
// change queue or of a sync, stops there without reading the files it no longer maps, tells
// nothing more, and the shadow is detached. Mounted again, it syncs to the writer's table.
struct DetachFromCallbackTest : ShadowTest {
  std::unique_ptr<Shadow> makeDetachingShadow(Ledger::ShadowOptions options = {}) {
    Ledger::Notify<TestKey, TestValue> n = log.notifier();
    n.onKey = [this](const TestKey& k, const TestValue* v) {
      log.onKey(k, v);
      if (!armed) return;
      ++toldWhileArmed;
      armed = false;
      shadow->detach();
    };
    return std::make_unique<Shadow>(Ledger::ReaderConfig{root.path(), "routes"}, loop, n,
                                    Ledger::Ops<TestKey, TestValue>(), options);
  }
  // Runs the loop a while after the detach: nothing more is told, nothing mounts.
  void expectDetachedAndSilent() {
    ASSERT_TRUE(until([&] { return shadow->state() == ShadowState::detached; }));
    const uint64_t events = log.adds + log.changes + log.deletes;
    for (int i = 0; i < 20; ++i) loop.runOnce(1ms);
    EXPECT_EQ(toldWhileArmed, 1u);
    EXPECT_EQ(log.adds + log.changes + log.deletes, events) << "told after the detach";
    EXPECT_EQ(shadow->state(), ShadowState::detached);
    EXPECT_EQ(shadow->mountStatus(), Ledger::MountStatus::unmounted);
  }
  void expectRemountedAndEqual() {
    w.writer.write(makeValue(5000, 1));
    ASSERT_TRUE(shadow->initialize());
    ASSERT_TRUE(settle(*shadow));
    EXPECT_EQ(shadowContents(*shadow), w.contents());
    EXPECT_EQ(log.present, w.contents());
    EXPECT_TRUE(log.errors.empty()) << log.errors.front();
  }

  KickingWriter w{root.path(), "routes", 64, &loop};
  std::unique_ptr<Shadow> shadow;
  bool armed = false;
  uint64_t toldWhileArmed = 0;
};

// In step: the change queue holds several notifications after the one whose key detaches.
TEST_F(DetachFromCallbackTest, InStepTheQueueWalkStopsAtTheDetach) {
  for (uint64_t id = 0; id < 50; ++id) w.writer.write(makeValue(id, 1));
  shadow = makeDetachingShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(settle(*shadow));
  armed = true;
  for (uint64_t id = 0; id < 10; ++id) w.writer.write(makeValue(id, 2));
  w.writer.write(makeValue(100, 1));  // an addition among the changes
  expectDetachedAndSilent();
  expectRemountedAndEqual();
}

// During the first sync, in slices: the walk stops at the key whose notification detached.
TEST_F(DetachFromCallbackTest, ASyncStopsAtTheDetach) {
  for (uint64_t id = 0; id < 5000; ++id) w.writer.write(makeValue(id, 1));
  Ledger::ShadowOptions options;
  options.yieldTime = 1us;
  shadow = makeDetachingShadow(options);
  armed = true;
  ASSERT_TRUE(shadow->initialize());
  expectDetachedAndSilent();
  EXPECT_EQ(log.adds, 1u);
  expectRemountedAndEqual();
}

// A shadow store over a writer's table of keys 0..n-1 (version 1), fed by hand.
class ShadowStoreTest : public ::testing::Test {
 protected:
  void start(uint32_t capacity, uint64_t keys) {
    w.emplace(root.path(), "routes", capacity);
    for (uint64_t id = 0; id < keys; ++id) w->writer.write(makeValue(id, 1));
    ASSERT_TRUE(reader.initialize());
  }
  // Every slot told of, one at a time.
  void tellEverySlot() {
    for (uint32_t s = 0; s < reader.slotTable().numSlots(); ++s) store.doSlot(s, 0);
  }
  // The walk of a (re)sync, in bulk groups.
  void walk() {
    store.reserve();
    store.syncSlots(0, reader.slotTable().numSlots(), true, [] { return false; });
  }

  TempRoot root;
  std::optional<KickingWriter> w;
  Ledger::LedgerReader<TestKey, TestValue> reader{Ledger::ReaderConfig{root.path(), "routes"}};
  EventLog log;
  Ledger::ShadowStore<TestKey, TestValue> store{reader, log.notifier()};
};

// A key that left a slot for one beyond the shadow's size makes the shadow grow while it
// follows the key there; the slot's new occupant is then taken into the grown store, and the
// moved key, unchanged, is not reported again.
TEST_F(ShadowStoreTest, KeyThatLeftForASlotBeyondTheShadowIsFollowedThere) {
  ASSERT_NO_FATAL_FAILURE(start(8, 4));
  tellEverySlot();
  ASSERT_EQ(log.adds, 4u);
  const uint32_t oldSlot = reader.findSlot(TestKey{0});

  // Key 0 leaves its slot to a newcomer and comes back, unchanged, far above the shadow.
  for (uint64_t id = 100; id < 400; ++id) w->writer.write(makeValue(id, 1));
  TestValue same;  // the stored bytes, padding included: an unchanged value
  ASSERT_TRUE(w->writer.lookup(TestKey{0}, same));
  w->writer.remove(TestKey{0});
  w->writer.write(makeValue(500, 1));
  w->writer.write(same);
  ASSERT_EQ(reader.findSlot(TestKey{500}), oldSlot) << "the newcomer took another slot";
  const uint32_t newSlot = reader.findSlot(TestKey{0});
  ASSERT_GE(newSlot, store.numSlots());

  store.doSlot(oldSlot, 0);
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
  EXPECT_EQ(log.adds, 5u) << "only the newcomer is new";
  EXPECT_EQ(log.deletes, 0u);
  EXPECT_EQ(store.slotOfKey(TestKey{0}), newSlot);
  EXPECT_EQ(store.slotOfKey(TestKey{500}), oldSlot);
}

// A reader that fell behind finds each of its slots holding the key of the next one: the
// writer moved twenty keys, unchanged, one slot along (removed and written again, each into
// the slot the next one left). Telling the shadow of the first slot sends the whole line of
// keys to their new slots, and nothing is reported: no key changed.
TEST_F(ShadowStoreTest, ALongLineOfMovedKeysIsFollowedWithoutEvents) {
  constexpr uint64_t kLine = 20;
  ASSERT_NO_FATAL_FAILURE(start(64, kLine));
  tellEverySlot();
  ASSERT_EQ(log.adds, kLine);

  std::array<TestValue, kLine> same;  // the stored bytes, padding included
  for (uint64_t id = 0; id < kLine; ++id) ASSERT_TRUE(w->writer.lookup(TestKey{id}, same[id]));
  w->writer.remove(TestKey{0});
  for (uint64_t id = 0; id + 1 < kLine; ++id) {
    w->writer.remove(TestKey{id + 1});
    w->writer.write(same[id]);
  }
  w->writer.write(same[kLine - 1]);
  for (uint64_t id = 0; id < kLine; ++id) {
    ASSERT_EQ(reader.findSlot(TestKey{id}), store.slotOfKey(TestKey{(id + 1) % kLine}))
        << "key " << id << " did not take the next key's slot";
  }

  store.doSlot(store.slotOfKey(TestKey{0}), 0);
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
  EXPECT_EQ(log.adds + log.changes + log.deletes, kLine) << "moves are not changes";
  for (uint64_t id = 0; id < kLine; ++id) {
    EXPECT_EQ(store.slotOfKey(TestKey{id}), reader.findSlot(TestKey{id})) << "key " << id;
  }
}

// A resync walks a shadow that still holds what it knew: in one bulk group, the writer has
// moved key K from a higher slot Z to a lower slot X (taking the place of a removed key A), and
// another key M has taken Z. The walk moves K's entry from Z to X, and must then read Z afresh:
// no copy of it was taken while the shadow still held K there.
TEST_F(ShadowStoreTest, ABulkWalkReadsASlotThatItsGroupVacatedAfresh) {
  ASSERT_NO_FATAL_FAILURE(start(64, 10));
  walk();
  ASSERT_EQ(log.adds, 10u);

  const uint32_t x = reader.findSlot(TestKey{2}), z = reader.findSlot(TestKey{7});
  ASSERT_LT(x, z);
  ASSERT_LT(z, 32u) << "both in the first bulk group";
  w->writer.remove(TestKey{2});        // A leaves X
  w->writer.remove(TestKey{7});        // K leaves Z
  w->writer.write(makeValue(100, 1));  // M takes Z
  w->writer.write(makeValue(7, 2));    // K, changed, takes X
  ASSERT_EQ(reader.findSlot(TestKey{7}), x);
  ASSERT_EQ(reader.findSlot(TestKey{100}), z);

  walk();
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
  EXPECT_EQ(log.present,
            (std::map<uint64_t, uint64_t>{
                {0, 1}, {1, 1}, {3, 1}, {4, 1}, {5, 1}, {6, 1}, {7, 2}, {8, 1}, {9, 1}, {100, 1}}));
  EXPECT_EQ(store.members(), 10u);
  for (uint64_t id : {7u, 100u}) {
    EXPECT_EQ(store.slotOfKey(TestKey{id}), reader.findSlot(TestKey{id})) << "key " << id;
  }
}

// A shadow nobody is told of copies its bulk walks past the cache. Its values must still be
// the writer's, byte for byte: after a first walk, and after a second one over rewrites,
// removals, additions and keys that a removal let move to another slot.
TEST_F(ShadowStoreTest, AQuietBulkWalkKeepsEveryValueAsTheWriterHasIt) {
  ASSERT_NO_FATAL_FAILURE(start(4096, 1000));
  Ledger::ShadowStore<TestKey, TestValue> quiet{reader, Ledger::DummyShadowNotifier()};
  auto walkAndCompare = [&](const char* when) {
    quiet.reserve();
    quiet.syncSlots(0, reader.slotTable().numSlots(), true, [] { return false; });
    uint64_t members = 0;
    TestValue expected, got;
    for (bool more = w->writer.first(expected); more; more = w->writer.next(expected.k, expected)) {
      ++members;
      ASSERT_TRUE(quiet.lookup(expected.k, got)) << when << ": key " << expected.k.id;
      ASSERT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << when << ": key " << expected.k.id;
    }
    EXPECT_EQ(quiet.members(), members) << when;
  };
  ASSERT_NO_FATAL_FAILURE(walkAndCompare("first walk"));
  for (uint64_t id = 0; id < 1000; id += 3) w->writer.write(makeValue(id, 2));
  for (uint64_t id = 1; id < 1000; id += 7) w->writer.remove(TestKey{id});
  for (uint64_t id = 1000; id < 1100; ++id) w->writer.write(makeValue(id, 1));
  ASSERT_NO_FATAL_FAILURE(walkAndCompare("second walk"));
}

// A notifiee that detaches the shadow when it is told of a deletion, from inside the callback,
// in the middle of a sync's walk: the walk reads nothing more of the unmapped table, and the
// shadow, mounted again, syncs to the writer's table.
TEST_F(ShadowTest, ANotifieeThatDetachesOnADeletionEndsTheWalk) {
  KickingWriter w(root.path(), "routes", 64);  // kicks only on flush()
  auto shadow = syncedShadow(w, 40);
  ASSERT_TRUE(shadow);
  Ledger::Notify<TestKey, TestValue> detaching = log.notifier();
  detaching.onKey = [&](const TestKey& k, const TestValue* v) {
    log.onKey(k, v);
    if (!v && shadow->state() != ShadowState::detached) shadow->detach();
  };
  shadow->notifyIs(detaching);
  w.writer.remove(TestKey{17});
  shadow->resync("test");  // the walk finds key 17 gone
  ASSERT_TRUE(until([&] { return shadow->state() == ShadowState::detached; }));
  EXPECT_EQ(log.deletes, 1u);
  loop.runFor(20ms);
  shadow->notifyIs(log.notifier());
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(settle(*shadow));
  EXPECT_EQ(shadowContents(*shadow), w.contents());
  EXPECT_EQ(log.present, w.contents());
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

// A table of typed values, one of whose entries stops decoding (its bytes whole, but no value
// of the type). Whichever way the shadow meets it, it reports the entry once, holds it as
// absent, and follows the writer in every other key, without starting over again and again.
struct CorruptEntryTest : ShadowTest {
  using DecodingShadow = Ledger::LedgerShadow<TestKey, TestValue, DecodingOps>;
  static constexpr uint64_t kKeys = 200, kBad = 77;

  void SetUp() override {
    for (uint64_t id = 0; id < kKeys; ++id) w.writer.write(makeValue(id, 1));
  }
  // A quiet shadow tells nobody of its keys.
  void mount(bool quiet = false) {
    shadow = std::make_unique<DecodingShadow>(
        Ledger::ReaderConfig{root.path(), "routes"}, loop,
        quiet ? Ledger::Notify<TestKey, TestValue>(Ledger::DummyShadowNotifier()) : log.notifier());
    shadow->store().corruptionHookIs([&](const std::string& why) { reported.push_back(why); });
    ASSERT_TRUE(shadow->initialize());
  }
  bool inStep() {
    return runUntil(
        loop, [&] { return shadow->quiesced(); }, std::chrono::seconds(3));
  }
  void spoilKey(uint64_t id) {
    auto& slots = w.writer.slotTable();
    for (uint32_t i = 0; i < slots.numSlots(); ++i) {
      if ((slots.slot(i).status & Ledger::kOccupied) &&
          reinterpret_cast<const TestValue*>(slots.value(i))->k.id == id) {
        return spoil(slots.value(i));
      }
    }
    FAIL() << "no slot holds key " << id;
  }
  std::map<uint64_t, uint64_t> goodKeys() {
    std::map<uint64_t, uint64_t> all;
    auto& slots = w.writer.slotTable();
    for (uint32_t i = 0; i < slots.numSlots(); ++i) {
      const auto* v = reinterpret_cast<const TestValue*>(slots.value(i));
      if ((slots.slot(i).status & Ledger::kOccupied) && v->version != kUndecodable) {
        all[v->k.id] = v->version;
      }
    }
    return all;
  }
  // Whatever the shadow does over half a second of loop time, after it got in step.
  void expectSettledFor500ms(uint64_t resyncs) {
    loop.runFor(500ms);
    EXPECT_TRUE(shadow->inStep());
    EXPECT_EQ(shadow->resyncs(), resyncs) << "no walk started over";
    ASSERT_EQ(reported.size(), 1u) << "reported once";
    EXPECT_THAT(reported.front(), ::testing::HasSubstr("DecodingOps: no such version"));
    EXPECT_EQ(log.present, goodKeys());
    EXPECT_TRUE(log.errors.empty()) << log.errors.front();
  }

  KickingWriter w{root.path(), "routes", 256};  // kicks only on flush()
  std::unique_ptr<DecodingShadow> shadow;
  std::vector<std::string> reported;
};

// Met by the first sync, the entry is skipped, and the shadow gets in step with the rest.
TEST_F(CorruptEntryTest, TheFirstSyncSkipsIt) {
  spoilKey(kBad);
  ASSERT_NO_FATAL_FAILURE(mount());
  ASSERT_TRUE(inStep());
  EXPECT_EQ(log.present.size(), kKeys - 1);
  EXPECT_EQ(log.present.count(kBad), 0u);
  expectSettledFor500ms(0);
}

// The shadow held the key: a sync that finds its entry spoilt tells it gone.
TEST_F(CorruptEntryTest, AResyncTellsAKeyWhoseEntrySpoiltGone) {
  ASSERT_NO_FATAL_FAILURE(mount());
  ASSERT_TRUE(inStep());
  ASSERT_EQ(log.present.size(), kKeys);
  spoilKey(kBad);
  shadow->resync("test");
  ASSERT_TRUE(inStep());
  EXPECT_EQ(log.deletes, 1u);
  expectSettledFor500ms(1);
}

// A change that the shadow follows through the writer's queue finds the entry spoilt since:
// the key is told gone; written again, it is back.
TEST_F(CorruptEntryTest, AChangeThatFindsItSpoiltTellsTheKeyGone) {
  ASSERT_NO_FATAL_FAILURE(mount());
  ASSERT_TRUE(inStep());
  w.writer.write(makeValue(kBad, 2));
  spoilKey(kBad);
  w.flush();
  ASSERT_TRUE(runUntil(
      loop, [&] { return log.deletes == 1; }, std::chrono::seconds(3)));
  ASSERT_TRUE(inStep());
  expectSettledFor500ms(0);
  w.writer.write(makeValue(kBad, 3));
  w.flush();
  ASSERT_TRUE(runUntil(loop, [&] { return log.present.count(kBad) == 1; }));
  EXPECT_EQ(log.present[kBad], 3u);
  EXPECT_EQ(log.present, w.contents());
}

// A quiet shadow copies values without decoding them, so it keeps the spoilt one. Reading it
// reports it, once, and passes over it: lookups, walks and forEach see the other keys, and
// the key is back when the writer writes it again.
TEST_F(CorruptEntryTest, AQuietShadowPassesOverItWhenRead) {
  spoilKey(kBad);
  ASSERT_NO_FATAL_FAILURE(mount(true));
  ASSERT_TRUE(inStep());
  EXPECT_TRUE(reported.empty()) << reported.front();
  TestValue v;
  EXPECT_FALSE(shadow->lookup(TestKey{kBad}, v));
  EXPECT_FALSE(shadow->lookup(TestKey{kBad}, v));
  ASSERT_TRUE(shadow->lookup(TestKey{kBad + 1}, v));
  EXPECT_EQ(v, makeValue(kBad + 1, 1));
  std::map<uint64_t, uint64_t> walked;
  for (bool more = shadow->first(v); more; more = shadow->next(v.k, v)) walked[v.k.id] = v.version;
  EXPECT_EQ(walked, goodKeys());
  std::map<uint64_t, uint64_t> each;
  shadow->store().forEach(
      [&](const TestKey& k, const TestValue* value) { each[k.id] = value->version; });
  EXPECT_EQ(each, goodKeys());
  ASSERT_EQ(reported.size(), 1u) << "reported once";
  EXPECT_THAT(reported.front(), ::testing::HasSubstr("DecodingOps: no such version"));

  w.writer.write(makeValue(kBad, 2));
  w.flush();
  ASSERT_TRUE(runUntil(loop, [&] { return shadow->lookup(TestKey{kBad}, v); }));
  EXPECT_EQ(v, makeValue(kBad, 2));
  EXPECT_EQ(shadow->members(), kKeys);
}

// A key shadow reads values from the writer's table: the spoilt one is reported to the
// shadow's corruption handler and reads as absent, and a walk passes over it.
TEST_F(CorruptEntryTest, AKeyShadowReportsItWhenRead) {
  spoilKey(kBad);
  Ledger::LedgerShadow<TestKey, TestValue, DecodingOps, Ledger::KeyShadowSlot> keys(
      Ledger::ReaderConfig{root.path(), "routes"}, loop);
  std::vector<std::string> told;
  keys.corruptionHandlerIs([&](const std::string& why) { told.push_back(why); });
  ASSERT_TRUE(keys.initialize());
  ASSERT_TRUE(runUntil(loop, [&] { return keys.quiesced(); }));
  const size_t bySync = told.size();
  TestValue v;
  EXPECT_FALSE(keys.lookup(TestKey{kBad}, v));
  ASSERT_EQ(told.size(), bySync + 1);
  EXPECT_THAT(told.back(), ::testing::HasSubstr("DecodingOps: no such version"));
  ASSERT_TRUE(keys.lookup(TestKey{kBad + 1}, v));
  EXPECT_EQ(v, makeValue(kBad + 1, 1));
  std::map<uint64_t, uint64_t> walked;
  for (bool more = keys.first(v); more; more = keys.next(v.k, v)) walked[v.k.id] = v.version;
  EXPECT_EQ(walked, goodKeys());
}

// A shadow store on a direct reader of <root>/routes (no loop, no queue: a test calls its
// steps), with a notifiee that checks and logs every event.
template <class OpsT = Ledger::Ops<TestKey, TestValue>>
struct StoreOnReader {
  explicit StoreOnReader(const std::string& root) : reader(Ledger::ReaderConfig{root, "routes"}) {
    EXPECT_TRUE(reader.initialize()) << reader.error();
    store.emplace(reader, log.notifier());
    store->reserve();
  }
  // The whole table as a sync walks it.
  void syncAll() {
    store->syncSlots(0, reader.slotTable().numSlots(), true, [] { return false; });
  }
  uint32_t slotOf(uint64_t id) { return reader.findSlot(TestKey{id}); }

  Ledger::LedgerReader<TestKey, TestValue, OpsT> reader;
  EventLog log;
  std::optional<Ledger::ShadowStore<TestKey, TestValue, OpsT>> store;
};

// A sync's bulk copy decodes each key before the slot's status word is checked again. A
// rewrite may tear those bytes: the slot is read again, consistently, and nothing reported.
TEST(TornBulkCopy, IsReadAgainAndNotReported) {
  TempRoot root;
  KickingWriter w(root.path(), "routes", 64);
  for (uint64_t id = 0; id < 10; ++id) w.writer.write(makeValue(id, 1));
  StoreOnReader<DecodingOps> s(root.path());
  std::vector<std::string> reported;
  s.store->corruptionHookIs([&](const std::string& why) { reported.push_back(why); });
  nextTear() = {s.reader.slotTable().value(s.slotOf(3)), [&] { w.writer.write(makeValue(3, 2)); }};
  s.syncAll();
  EXPECT_FALSE(nextTear().rewrite) << "the copy met the rewrite";
  nextTear() = {};
  EXPECT_TRUE(reported.empty()) << reported.front();
  EXPECT_EQ(s.log.present, w.contents());
  EXPECT_EQ(s.log.present[3], 2u);
  EXPECT_TRUE(s.log.errors.empty()) << s.log.errors.front();
}

// A slot's new key, read, may move again while the shadow's old key there is followed out:
// the walk of that key's chain meets the writer's move, and the key that moved is followed
// to its newest place and taken there, newer than the read. The slot is then read again, and
// the older read is never taken as well: each key is told once, newest last.
TEST(KeyMovedWhileAnOldKeyLeaves, IsNotTakenFromTheOlderRead) {
  TempRoot root;
  KickingWriter w(root.path(), "routes", 64);
  // Keys 3, 1 and 2 in slots r < s < u; the others keep the table from shrinking.
  for (uint64_t id : {3, 1, 2}) w.writer.write(makeValue(id, 1));
  for (uint64_t id = 10; id < 40; ++id) w.writer.write(makeValue(id, 1));
  StoreOnReader<DecodingOps> shadow(root.path());
  const uint32_t r = shadow.slotOf(3), s = shadow.slotOf(1), u = shadow.slotOf(2);
  ASSERT_LT(r, s);
  shadow.syncAll();
  // Keys 1 and 2 trade slots: key 2, now in s, is what the shadow reads there next.
  w.writer.remove(TestKey{1});
  w.writer.remove(TestKey{2});
  w.writer.write(makeValue(1, 1));
  w.writer.write(makeValue(2, 1));
  ASSERT_EQ(shadow.slotOf(1), u);
  ASSERT_EQ(shadow.slotOf(2), s);
  // As the shadow looks for key 1 (leaving s) and decodes it in u, key 2 moves on to r,
  // rewritten, and key 3 goes.
  nextTear() = {shadow.reader.slotTable().value(u),
                [&] {
                  w.writer.remove(TestKey{2});
                  w.writer.remove(TestKey{3});
                  w.writer.write(makeValue(2, 2));
                },
                false};
  shadow.store->doSlot(s, 0, true);
  EXPECT_FALSE(nextTear().rewrite) << "the walk for key 1 met the move";
  nextTear() = {};
  ASSERT_EQ(shadow.slotOf(2), r);
  EXPECT_TRUE(shadow.log.errors.empty()) << shadow.log.errors.front();
  EXPECT_EQ(shadow.log.present, w.contents());
  EXPECT_EQ(shadow.log.present[2], 2u);
}

// The writer's table shrinks by moving its upper keys down and then cutting the slots they
// left. A shadow that has not yet followed those moves still holds the keys in its upper
// slots: it drops only upper slots that hold nothing, so the moves are then followed as
// moves (nothing told of a key whose value did not change) and not as keys new to it.
TEST(ShadowShrink, KeepsUpperSlotsWhoseKeysHaveNotMovedDownYet) {
  TempRoot root;
  KickingWriter w(root.path(), "routes", 64);
  for (uint64_t id = 0; id < 1000; ++id) w.writer.write(makeValue(id, 1));
  StoreOnReader<> shadow(root.path());
  const uint32_t before = shadow.reader.slotTable().numSlots();
  shadow.syncAll();
  for (uint64_t id = 0; id < 900; ++id) w.writer.remove(TestKey{id});
  const uint32_t after = shadow.reader.slotTable().numSlots();
  ASSERT_LT(2 * uint64_t{after} + 64, before) << "the table shrank";
  shadow.store->tryShrink(after);
  for (uint32_t i = 0; i < before; ++i) shadow.store->doSlot(i, 0, true);
  shadow.store->tryShrink(after);
  EXPECT_TRUE(shadow.log.errors.empty()) << shadow.log.errors.front();
  EXPECT_EQ(shadow.log.present, w.contents());
}

}  // namespace
