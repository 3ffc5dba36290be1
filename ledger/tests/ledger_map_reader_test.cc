// LedgerMap as agents hold it on both sides: a writer-mode map that wakes its readers, and a
// read-only map that mounts a shadow, retries until the writer appears, advertises its
// collection once and switches per-key notifications.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ledger/LedgerMap.h"
#include "ledger/tests/ShadowHarness.h"
#include "zinc/tests/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using namespace LedgerTest;
using ::testing::Contains;
using ::testing::HasSubstr;
using Map = Ledger::LedgerMap<TestKey, TestValue>;

struct LedgerMapReaderTest : ::testing::Test {
  TempRoot root;
  Zinc::Loop loop;
  EventLog log;
  ZincTest::TraceCapture trace{"LedgerMap,LedgerShadow,Ledger*"};

  Ledger::LedgerConfig config() const { return tableConfig(root.path(), "routes", 64); }
  bool until(const std::function<bool()>& pred) { return runUntil(loop, pred); }
};

TEST_F(LedgerMapReaderTest, NotifyingIsRefusedBeforeTheMapIsInitialised) {
  Map reader(config(), Ledger::LedgerMode::readOnly);
  EXPECT_FALSE(reader.notifying(true));
  EXPECT_TRUE(trace.has("LedgerMap::notifying() not allowed at this time, initialized:0"));
}

TEST_F(LedgerMapReaderTest, ReaderMountsWhenTheWriterAppearsAndAdvertisesOnce) {
  Map reader(config(), Ledger::LedgerMode::readOnly);
  int advertised = 0;
  reader.collectionReadyHandlerIs([&] { ++advertised; });
  EXPECT_FALSE(reader.mountShadow(loop, log.notifier())) << "no writer yet";
  EXPECT_EQ(reader.table().mountStatus(), Ledger::MountStatus::mounting);
  loop.runFor(250ms);
  EXPECT_TRUE(
      trace.has("ReaderMounter::timeout() start retrying to mount routes. This message "
                "can be safely ignored if the writer is not running."));
  EXPECT_TRUE(trace.has("ReaderMounter::timeout() routes not mounted: "));
  EXPECT_EQ(advertised, 0);

  Map writer(config(), Ledger::LedgerMode::writer);
  writer.loopIs(&loop);
  ASSERT_TRUE(writer.initialize());
  for (uint64_t id = 0; id < 20; ++id) writer.write(makeValue(id, 1));

  ASSERT_TRUE(until([&] { return reader.table().quiesced() && log.adds == 20; }));
  EXPECT_EQ(reader.table().mountStatus(), Ledger::MountStatus::mounted);
  EXPECT_EQ(advertised, 1);
  TestValue v;
  ASSERT_TRUE(reader.lookup(TestKey{7}, v));
  EXPECT_EQ(v, makeValue(7, 1));
  EXPECT_EQ(reader.write(makeValue(99, 1)), nullptr) << "a reader never writes";

  EXPECT_FALSE(reader.advertiseCollectionReady());
  EXPECT_TRUE(trace.has("LedgerMap::advertiseCollectionReady() collection already advertised"));
  EXPECT_EQ(advertised, 1);

  // A change wakes the reader through the writer map's own kicks.
  writer.write(makeValue(3, 2));
  ASSERT_TRUE(until([&] { return log.changes == 1; }));
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

// A writer's map destroyed in the loop turn of its last writes still wakes its readers for
// them: the kick it deferred to the loop would have gone with it.
TEST_F(LedgerMapReaderTest, AWriterGoneInTheTurnOfItsLastWritesHasWokenItsReaders) {
  auto writer = std::make_unique<Map>(config(), Ledger::LedgerMode::writer);
  writer->loopIs(&loop);
  ASSERT_TRUE(writer->initialize());
  writer->write(makeValue(1, 1));
  Map reader(config(), Ledger::LedgerMode::readOnly);
  reader.mountShadow(loop, log.notifier());
  ASSERT_TRUE(until([&] { return reader.table().quiesced() && log.adds == 1; }));
  writer->write(makeValue(2, 1));
  writer.reset();
  EXPECT_TRUE(until([&] { return log.adds == 2; }));
}

// A notifiee may detach its map, or mount it anew, from inside the shadow's call to it, in
// step or during a sync: the shadow's call returns through a live object, and the map goes
// on as told.
TEST_F(LedgerMapReaderTest, ANotifieeDetachesOrRemountsItsMapFromInsideACall) {
  Map writer(config(), Ledger::LedgerMode::writer);
  writer.loopIs(&loop);
  ASSERT_TRUE(writer.initialize());
  for (uint64_t id = 0; id < 20; ++id) writer.write(makeValue(id, 1));
  Map reader(config(), Ledger::LedgerMode::readOnly);
  int told = 0, mounts = 0;
  Ledger::Notify<TestKey, TestValue> detaching;
  detaching.onKey = [&](const TestKey&, const TestValue*) {
    ++told;
    reader.detach();
  };
  reader.mountShadow(loop, detaching);  // the first key of the sync detaches it
  loop.runFor(50ms);
  EXPECT_EQ(told, 1);
  EXPECT_FALSE(reader.table().connected());

  Ledger::Notify<TestKey, TestValue> remounting;
  remounting.onKey = [&](const TestKey& k, const TestValue*) {
    if (k.id == 99 && mounts++ == 0) reader.mountShadow(loop, log.notifier());
  };
  reader.mountShadow(loop, remounting);
  ASSERT_TRUE(until([&] { return reader.table().quiesced(); }));
  writer.write(makeValue(99, 1));  // told in step: the notifiee mounts a new shadow
  ASSERT_TRUE(until([&] { return log.adds == 21; }));
  EXPECT_EQ(mounts, 1);
  TestValue v;
  EXPECT_TRUE(reader.lookup(TestKey{99}, v));
}

TEST_F(LedgerMapReaderTest, NotifyingOffKeepsTheShadowCurrentButSilent) {
  Map writer(config(), Ledger::LedgerMode::writer);
  writer.loopIs(&loop);
  ASSERT_TRUE(writer.initialize());
  writer.write(makeValue(1, 1));
  Map reader(config(), Ledger::LedgerMode::readOnly);
  ASSERT_TRUE(reader.mountShadow(loop, log.notifier()));
  ASSERT_TRUE(until([&] { return reader.table().quiesced() && log.adds == 1; }));

  ASSERT_TRUE(reader.notifying(false));
  writer.write(makeValue(1, 2));
  ASSERT_TRUE(until([&] { return reader.table().quiesced(); }));
  loop.runFor(50ms);
  EXPECT_EQ(log.changes, 0u);
  TestValue v;
  ASSERT_TRUE(reader.lookup(TestKey{1}, v));
  EXPECT_EQ(v.version, 2u) << "the shadow follows even while silent";

  ASSERT_TRUE(reader.notifying(true));
  writer.write(makeValue(1, 3));
  ASSERT_TRUE(until([&] { return log.changes == 1; }));
}

// A sync finds keys to tell: with notifications off it waits for them, so that none of those
// keys goes untold, and says so once.
TEST_F(LedgerMapReaderTest, ASyncWaitsWhileNotificationsAreOff) {
  Map writer(config(), Ledger::LedgerMode::writer);
  writer.loopIs(&loop);
  ASSERT_TRUE(writer.initialize());
  for (uint64_t id = 0; id < 10; ++id) writer.write(makeValue(id, 1));
  Map reader(config(), Ledger::LedgerMode::readOnly);
  ASSERT_TRUE(reader.mountShadow(loop, log.notifier()));
  ASSERT_TRUE(reader.notifying(false));  // before the first slice of the sync has run

  loop.runFor(100ms);
  for (uint64_t id = 10; id < 15; ++id) writer.write(makeValue(id, 1));
  loop.runFor(50ms);
  EXPECT_EQ(log.adds, 0u);
  EXPECT_FALSE(reader.table().quiesced());
  EXPECT_THAT(trace.lines,
              Contains(HasSubstr("Syncer::doSync() notifications temporarily disabled")).Times(1))
      << "once per wait, not once per look";

  ASSERT_TRUE(reader.notifying(true));
  ASSERT_TRUE(until([&] { return reader.table().quiesced() && log.adds == 15; }));
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

}  // namespace
