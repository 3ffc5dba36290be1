// Zinc::Loop: the notification loop. One thread runs it; every handler runs on that thread,
// to completion, one at a time.
//
// It serves three kinds of event, all first-class:
//  - file descriptors: fdWatchIs(fd, fn) calls fn(events) whenever fd is readable (or
//    writable, when asked); level-triggered, so fn must drain what it can;
//  - timers on the monotonic clock (Loop::now()), one-shot or periodic, cancellable by id;
//    all timers share one timerfd armed for the earliest of them;
//  - deferred calls: defer(fn) runs fn on the next iteration, after the current handler.
// post(fn), wake() and stop() may be called from any thread; they kick an eventfd.
//
// One iteration: run the deferred calls queued before it started, wait for events (not at
// all when calls are waiting), then run fd handlers and the timers that are due.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <unordered_map>
#include <vector>

namespace Zinc {

class Loop {
 public:
  using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC
  using TimePoint = Clock::time_point;
  using Duration = Clock::duration;
  using Callback = std::function<void()>;
  using FdCallback = std::function<void(uint32_t events)>;
  using TimerId = uint64_t;

  static constexpr uint32_t readable = 1;
  static constexpr uint32_t writable = 2;
  // With readable/writable: edge-triggered, fn runs once per new event and need not drain (an
  // eventfd only counted on, say, is never read).
  static constexpr uint32_t edgeTriggered = 4;

  Loop();
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  static TimePoint now() { return Clock::now(); }

  // Watches fd (replacing an earlier watch of it); fn gets the events that occurred
  // (readable/writable; hang-ups and errors are reported as readable).
  void fdWatchIs(int fd, FdCallback fn, uint32_t events = readable);
  void fdWatchDel(int fd);
  bool fdWatched(int fd) const { return fds_.contains(fd); }

  // A timer at `when`, repeating every `period` when period is positive. Ids are never 0.
  TimerId timerIs(TimePoint when, Callback fn, Duration period = Duration::zero());
  TimerId timerAfter(Duration delay, Callback fn) { return timerIs(now() + delay, std::move(fn)); }
  TimerId timerEvery(Duration period, Callback fn) {
    return timerIs(now() + period, std::move(fn), period);
  }
  // Cancels a timer; false when it had already fired (one-shot) or never existed.
  bool timerDel(TimerId id);
  bool timerPending(TimerId id) const { return timers_.contains(id); }
  size_t timerCount() const { return timers_.size(); }

  void defer(Callback fn) { deferred_.push_back(std::move(fn)); }
  // Thread-safe: fn runs on the loop thread at its next iteration.
  void post(Callback fn);
  // Thread-safe: makes a waiting iteration return.
  void wake();

  // Runs until stop(). stop() is thread-safe and also ends runFor/runUntil early.
  void run();
  void stop();
  // One iteration waiting at most maxWait for events.
  void runOnce(Duration maxWait);
  void runFor(Duration d);
  // Runs until pred() holds (checked after every iteration) or timeout; returns pred().
  bool runUntil(const std::function<bool()>& pred, Duration timeout);

 private:
  struct Timer {
    TimePoint when;
    Duration period;
    Callback fn;
  };
  struct HeapEntry {
    TimePoint when;
    TimerId id;
    bool operator>(const HeapEntry& o) const { return when > o.when; }
  };

  void runDeferred();
  void wait(Duration maxWait);
  void armTimerFd();
  void runDueTimers();
  void drainWakeFd();
  void dispatchFd(int fd, uint32_t epollEvents);

  int epollFd_ = -1;
  int timerFd_ = -1;
  int wakeFd_ = -1;
  std::unordered_map<int, std::shared_ptr<FdCallback>> fds_;
  std::map<TimerId, Timer> timers_;
  std::priority_queue<HeapEntry, std::vector<HeapEntry>, std::greater<>> heap_;
  TimePoint armedFor_ = TimePoint::max();
  TimerId nextTimerId_ = 1;
  std::vector<Callback> deferred_;
  std::mutex postMutex_;
  std::vector<Callback> posted_;
  std::atomic<bool> stopped_{false};
};

}  // namespace Zinc
