#include "zinc/Loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "zinc/Exception.h"

namespace Zinc {

namespace {

int check(int rc, const char* what) {
  if (rc < 0) throw Exception(std::string("Loop: ") + what + ": " + std::strerror(errno));
  return rc;
}

uint32_t toEpoll(uint32_t events) {
  return ((events & Loop::readable) ? EPOLLIN : 0u) | ((events & Loop::writable) ? EPOLLOUT : 0u) |
         ((events & Loop::edgeTriggered) ? uint32_t(EPOLLET) : 0u);
}

uint32_t fromEpoll(uint32_t ev) {
  uint32_t out = 0;
  if (ev & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP)) out |= Loop::readable;
  if (ev & EPOLLOUT) out |= Loop::writable;
  return out;
}

timespec toTimespec(Loop::TimePoint t) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
  if (ns <= 0) ns = 1;  // 0 would disarm the timer
  return timespec{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
}

}  // namespace

Loop::Loop() {
  epollFd_ = check(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
  timerFd_ = check(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create");
  wakeFd_ = check(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd");
  for (int fd : {timerFd_, wakeFd_}) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    check(epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev), "epoll_ctl");
  }
}

Loop::~Loop() {
  for (int fd : {epollFd_, timerFd_, wakeFd_}) {
    if (fd >= 0) ::close(fd);
  }
}

void Loop::fdWatchIs(int fd, FdCallback fn, uint32_t events) {
  epoll_event ev{};
  ev.events = toEpoll(events);
  ev.data.fd = fd;
  int op = fds_.contains(fd) ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  check(epoll_ctl(epollFd_, op, fd, &ev), "epoll_ctl(watch)");
  fds_[fd] = std::make_shared<FdCallback>(std::move(fn));
}

void Loop::fdWatchDel(int fd) {
  if (fds_.erase(fd) == 0) return;
  // The fd may already be closed by its owner, in which case epoll dropped it itself.
  epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
}

Loop::TimerId Loop::timerIs(TimePoint when, Callback fn, Duration period) {
  TimerId id = nextTimerId_++;
  timers_.emplace(id, Timer{when, period, std::move(fn)});
  heap_.push({when, id});
  return id;
}

bool Loop::timerDel(TimerId id) { return timers_.erase(id) > 0; }

void Loop::post(Callback fn) {
  {
    std::lock_guard lock(postMutex_);
    posted_.push_back(std::move(fn));
  }
  wake();
}

void Loop::wake() {
  uint64_t one = 1;
  // EAGAIN means the counter is already non-zero: the loop will wake anyway.
  [[maybe_unused]] ssize_t n = ::write(wakeFd_, &one, sizeof one);
}

void Loop::stop() {
  stopped_.store(true, std::memory_order_release);
  wake();
}

void Loop::run() {
  stopped_.store(false, std::memory_order_release);
  while (!stopped_.load(std::memory_order_acquire)) runOnce(Duration::max());
}

void Loop::runFor(Duration d) {
  runUntil([] { return false; }, d);
}

bool Loop::runUntil(const std::function<bool()>& pred, Duration timeout) {
  stopped_.store(false, std::memory_order_release);
  const TimePoint deadline = now() + timeout;
  while (!pred()) {
    TimePoint t = now();
    if (t >= deadline || stopped_.load(std::memory_order_acquire)) return pred();
    runOnce(deadline - t);
  }
  return true;
}

void Loop::runOnce(Duration maxWait) {
  runDeferred();
  wait(deferred_.empty() ? maxWait : Duration::zero());
  runDueTimers();
}

void Loop::runDeferred() {
  // Calls deferred while these run wait for the next iteration.
  std::vector<Callback> calls;
  calls.swap(deferred_);
  for (Callback& fn : calls) fn();
}

void Loop::wait(Duration maxWait) {
  armTimerFd();
  using std::chrono::milliseconds;
  // Duration::max(): no time-out at all. Any finite one arms a kernel timer around the wait,
  // which makes every wake-up slower (markedly so on virtual machines); timers of the loop
  // have their own timerfd and need none.
  int timeoutMs = 0;
  if (maxWait == Duration::max()) {
    timeoutMs = -1;
  } else if (maxWait > Duration::zero()) {
    auto ms = std::chrono::ceil<milliseconds>(maxWait).count();
    timeoutMs = ms > 3600000 ? 3600000 : static_cast<int>(ms);
  }
  epoll_event events[64];
  int n = epoll_wait(epollFd_, events, 64, timeoutMs);
  if (n < 0 && errno != EINTR) check(n, "epoll_wait");
  for (int i = 0; i < n; ++i) {
    int fd = events[i].data.fd;
    if (fd == timerFd_) {
      uint64_t expirations;
      [[maybe_unused]] ssize_t r = ::read(timerFd_, &expirations, sizeof expirations);
      armedFor_ = TimePoint::max();
    } else if (fd == wakeFd_) {
      drainWakeFd();
    } else {
      dispatchFd(fd, events[i].events);
    }
  }
}

void Loop::dispatchFd(int fd, uint32_t epollEvents) {
  auto it = fds_.find(fd);
  if (it == fds_.end()) return;                 // unwatched by an earlier handler of this iteration
  std::shared_ptr<FdCallback> fn = it->second;  // the handler may unwatch itself
  (*fn)(fromEpoll(epollEvents));
}

void Loop::drainWakeFd() {
  uint64_t count;
  [[maybe_unused]] ssize_t r = ::read(wakeFd_, &count, sizeof count);
  std::lock_guard lock(postMutex_);
  for (Callback& fn : posted_) deferred_.push_back(std::move(fn));
  posted_.clear();
}

void Loop::armTimerFd() {
  // Drop heap entries of cancelled or rescheduled timers.
  while (!heap_.empty()) {
    auto it = timers_.find(heap_.top().id);
    if (it != timers_.end() && it->second.when == heap_.top().when) break;
    heap_.pop();
  }
  TimePoint next = heap_.empty() ? TimePoint::max() : heap_.top().when;
  if (next == armedFor_) return;
  itimerspec arm{};
  if (next != TimePoint::max()) arm.it_value = toTimespec(next);
  check(timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &arm, nullptr), "timerfd_settime");
  armedFor_ = next;
}

void Loop::runDueTimers() {
  const TimePoint t = now();
  while (!heap_.empty() && heap_.top().when <= t) {
    HeapEntry top = heap_.top();
    heap_.pop();
    auto it = timers_.find(top.id);
    if (it == timers_.end() || it->second.when != top.when) continue;  // stale entry
    Callback fn;
    if (it->second.period > Duration::zero()) {
      Timer& timer = it->second;
      timer.when += timer.period;
      if (timer.when <= t) timer.when = t + timer.period;  // fell behind: do not burst
      heap_.push({timer.when, top.id});
      fn = timer.fn;  // a copy: the handler may cancel its own timer
    } else {
      fn = std::move(it->second.fn);
      timers_.erase(it);
    }
    fn();
  }
}

}  // namespace Zinc
