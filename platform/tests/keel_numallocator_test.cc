#include <gtest/gtest.h>

#include <vector>

#include "platform/keel/NumAllocator.h"

namespace {

using namespace std::chrono_literals;

TEST(TimerWheel, FiresAtScheduledTimesOnTheLoopClock) {
  Zinc::Loop loop;
  auto wheel = Keel::timerWheelFactory("wheel", loop);
  std::vector<int> fired;
  Keel::Seconds start = wheel->now();
  Keel::Seconds firstAt = 0;
  wheel->timerIs(start + 0.02, [&] { fired.push_back(2); });
  wheel->timerIs(start + 0.01, [&] {
    fired.push_back(1);
    firstAt = wheel->now();
  });
  auto cancelled = wheel->timerIs(start + 0.005, [&] { fired.push_back(0); });
  EXPECT_TRUE(wheel->timerDel(cancelled));
  EXPECT_EQ(wheel->timerCount(), 2u);
  EXPECT_TRUE(loop.runUntil([&] { return fired.size() == 2; }, 5s));
  EXPECT_EQ(fired, (std::vector<int>{1, 2}));
  EXPECT_GE(firstAt, start + 0.01);
  EXPECT_EQ(wheel->timerCount(), 0u);
}

TEST(TimerWheel, DestroyingTheWheelCancelsItsTimers) {
  Zinc::Loop loop;
  bool ran = false;
  {
    auto wheel = Keel::timerWheelFactory("wheel", loop);
    wheel->timerIs(wheel->now(), [&] { ran = true; });
  }
  EXPECT_EQ(loop.timerCount(), 0u);
  loop.runFor(5ms);
  EXPECT_FALSE(ran);
}

class ExhaustedLog : public Keel::NumAllocatorStatus::NotifieeConst {
 public:
  void onRangeExhausted() override { log.push_back(notifier()->rangeExhausted()); }
  std::vector<bool> log;
};

class NumAllocatorTest : public ::testing::Test {
 protected:
  NumAllocatorTest() {
    config->rangeIs(Keel::Range(0, 3));
    config->expiryTimeIs(0.05);
    log.notifierIs(status);
    alloc = Keel::numAllocatorFactory("alloc", config, status, wheel);
  }
  bool waitFree(int64_t n) {
    return loop.runUntil([&] { return !alloc->isReserved(n); }, 5s);
  }

  Zinc::Loop loop;
  Keel::TimerWheel::Ptr wheel = Keel::timerWheelFactory("wheel", loop);
  Keel::NumAllocatorConfig::Ptr config = Keel::numAllocatorConfigFactory("config");
  Keel::NumAllocatorStatus::Ptr status = Keel::numAllocatorStatusFactory("status");
  ExhaustedLog log;
  Keel::NumAllocator::Ptr alloc;
};

TEST_F(NumAllocatorTest, HandsOutLowestFreeNumberThenMinusOne) {
  EXPECT_TRUE(alloc->reserveNumber(1));
  EXPECT_FALSE(alloc->reserveNumber(1));
  EXPECT_EQ(alloc->getNumber(), 0);
  EXPECT_EQ(alloc->getNumber(), 2);
  EXPECT_FALSE(status->rangeExhausted());
  EXPECT_EQ(alloc->getNumber(), 3);
  EXPECT_TRUE(status->rangeExhausted());
  EXPECT_EQ(alloc->getNumber(), -1);
  EXPECT_EQ(log.log, std::vector<bool>{true});
}

TEST_F(NumAllocatorTest, ReleasedNumberIsHeldForTheExpiryTime) {
  for (int i = 0; i < 4; ++i) alloc->getNumber();
  Keel::Seconds releasedAt = wheel->now();
  EXPECT_TRUE(alloc->releaseNumber(2));
  EXPECT_FALSE(alloc->releaseNumber(2));  // already released
  EXPECT_FALSE(alloc->releaseNumber(9));  // never taken
  EXPECT_TRUE(alloc->isHeld(2));
  EXPECT_TRUE(alloc->isReserved(2));
  EXPECT_EQ(alloc->getNumber(), -1);
  EXPECT_TRUE(status->rangeExhausted());
  ASSERT_TRUE(waitFree(2));
  EXPECT_GE(wheel->now(), releasedAt + 0.05);
  EXPECT_FALSE(status->rangeExhausted());
  EXPECT_EQ(log.log, (std::vector<bool>{true, false}));
  EXPECT_EQ(alloc->getNumber(), 2);
}

TEST_F(NumAllocatorTest, ZeroExpiryFreesAtOnceAndReservingAHeldNumberTakesIt) {
  alloc->getNumber();
  alloc->getNumber();
  alloc->releaseNumber(0);
  EXPECT_TRUE(alloc->reserveNumber(0));  // held: taken back
  EXPECT_FALSE(alloc->isHeld(0));
  loop.runFor(80ms);
  EXPECT_TRUE(alloc->isReserved(0));
  config->expiryTimeIs(0);
  alloc->releaseNumber(1);
  EXPECT_FALSE(alloc->isReserved(1));
  EXPECT_EQ(alloc->getNumber(), 1);
}

TEST_F(NumAllocatorTest, FollowsRangeChanges) {
  for (int i = 0; i < 4; ++i) alloc->getNumber();
  EXPECT_TRUE(status->rangeExhausted());
  config->rangeIs(Keel::Range(0, 5));
  EXPECT_FALSE(status->rangeExhausted());
  EXPECT_EQ(alloc->getNumber(), 4);
  config->rangeIs(Keel::Range(0, 1));  // numbers beyond the end stay in use
  EXPECT_TRUE(status->rangeExhausted());
  EXPECT_TRUE(alloc->isReserved(3));
  config->expiryTimeIs(0);
  alloc->releaseNumber(3);
  alloc->releaseNumber(1);
  EXPECT_EQ(alloc->getNumber(), 1);
  config->rangeIs(Keel::Range());
  EXPECT_EQ(alloc->getNumber(), -1);
  EXPECT_FALSE(alloc->reserveNumber(0));
}

TEST_F(NumAllocatorTest, LargeRangeKeepsFreeIntervalsMerged) {
  config->rangeIs(Keel::Range(0, 999999));
  config->expiryTimeIs(0);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(alloc->getNumber(), i);
  for (int i = 0; i < 1000; i += 2) alloc->releaseNumber(i);
  for (int i = 0; i < 1000; i += 2) ASSERT_EQ(alloc->getNumber(), i);
  EXPECT_EQ(alloc->getNumber(), 1000);
  for (int i = 999; i >= 0; --i) alloc->releaseNumber(i);
  EXPECT_EQ(alloc->getNumber(), 0);
}

}  // namespace
