#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "zinc/Loop.h"

namespace {

using namespace std::chrono_literals;

TEST(Loop, OneShotTimersFireInTimeOrderAndNotEarly) {
  Zinc::Loop loop;
  std::vector<int> fired;
  auto start = Zinc::Loop::now();
  Zinc::Loop::TimePoint firstAt{};
  loop.timerAfter(30ms, [&] { fired.push_back(2); });
  loop.timerAfter(10ms, [&] {
    fired.push_back(1);
    firstAt = Zinc::Loop::now();
  });
  EXPECT_TRUE(loop.runUntil([&] { return fired.size() == 2; }, 5s));
  EXPECT_EQ(fired, (std::vector<int>{1, 2}));
  EXPECT_GE(firstAt - start, 10ms);
  EXPECT_EQ(loop.timerCount(), 0u);
}

TEST(Loop, PeriodicTimerRepeatsUntilCancelled) {
  Zinc::Loop loop;
  int ticks = 0;
  Zinc::Loop::TimerId id = 0;
  id = loop.timerEvery(2ms, [&] {
    if (++ticks == 3) {
      EXPECT_TRUE(loop.timerDel(id));  // cancels itself from its handler
    }
  });
  EXPECT_TRUE(loop.runUntil([&] { return ticks == 3; }, 5s));
  EXPECT_FALSE(loop.timerPending(id));
  loop.runFor(10ms);
  EXPECT_EQ(ticks, 3);
}

TEST(Loop, CancelledTimerNeverRuns) {
  Zinc::Loop loop;
  bool cancelledRan = false, laterRan = false;
  auto early = loop.timerAfter(1ms, [&] { cancelledRan = true; });
  loop.timerAfter(5ms, [&] { laterRan = true; });
  EXPECT_TRUE(loop.timerDel(early));
  EXPECT_FALSE(loop.timerDel(early));
  EXPECT_TRUE(loop.runUntil([&] { return laterRan; }, 5s));
  EXPECT_FALSE(cancelledRan);
}

TEST(Loop, PipeReadableHandlerAndUnwatch) {
  Zinc::Loop loop;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::string got;
  loop.fdWatchIs(fds[0], [&](uint32_t events) {
    EXPECT_TRUE(events & Zinc::Loop::readable);
    char buf[16];
    ssize_t n = read(fds[0], buf, sizeof buf);
    if (n > 0) got.append(buf, n);
  });
  loop.timerAfter(1ms, [&] { ASSERT_EQ(write(fds[1], "abc", 3), 3); });
  EXPECT_TRUE(loop.runUntil([&] { return got == "abc"; }, 5s));
  loop.fdWatchDel(fds[0]);
  EXPECT_FALSE(loop.fdWatched(fds[0]));
  ASSERT_EQ(write(fds[1], "d", 1), 1);
  loop.runFor(5ms);
  EXPECT_EQ(got, "abc");
  close(fds[0]);
  close(fds[1]);
}

TEST(Loop, DeferredCallsRunOnTheNextIteration) {
  Zinc::Loop loop;
  std::vector<std::string> order;
  loop.defer([&] {
    order.push_back("first");
    loop.defer([&] { order.push_back("nested"); });
  });
  loop.runOnce(0ms);
  EXPECT_EQ(order, std::vector<std::string>{"first"});
  loop.runOnce(0ms);
  EXPECT_EQ(order, (std::vector<std::string>{"first", "nested"}));
}

TEST(Loop, PostAndStopFromAnotherThread) {
  Zinc::Loop loop;
  std::thread::id ranOn;
  std::thread other([&] {
    loop.post([&] {
      ranOn = std::this_thread::get_id();
      loop.stop();
    });
  });
  loop.run();  // returns only through the posted stop()
  other.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

}  // namespace
