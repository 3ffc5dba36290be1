#include "platform/keel/NumAllocator.h"

#include "zinc/Reactor.h"

namespace Keel {

NumAllocatorConfig::Ptr numAllocatorConfigFactory(const Zinc::Name& name) {
  return Zinc::makePtr<NumAllocatorConfig>(name);
}

NumAllocatorStatus::Ptr numAllocatorStatusFactory(const Zinc::Name& name) {
  return Zinc::makePtr<NumAllocatorStatus>(name);
}

NumAllocator::Ptr numAllocatorFactory(const Zinc::Name& name, NumAllocatorConfig::PtrConst config,
                                      NumAllocatorStatus::Ptr status, TimerWheel::PtrConst clock) {
  return Zinc::makePtr<NumAllocator>(name, std::move(config), std::move(status), std::move(clock));
}

NumAllocator::NumAllocator(Zinc::Name name, NumAllocatorConfig::PtrConst config,
                           NumAllocatorStatus::Ptr status, TimerWheel::PtrConst clock)
    : Entity(std::move(name)), status_(std::move(status)), clock_(std::move(clock)) {
  Zinc::requireInput(config, "_config", "Keel::NumAllocator::config");
  Zinc::requireInput(status_, "_status", "Keel::NumAllocator::status");
  Zinc::requireInput(clock_, "_clock", "Keel::NumAllocator::clock");
  configReactor_.notifierIs(config);
  rebuildFree();
  publishExhausted();
}

NumAllocator::~NumAllocator() {
  if (expiryTimer_) clock_->timerDel(expiryTimer_);
}

bool NumAllocator::isHeld(int64_t n) const {
  auto it = taken_.find(n);
  return it != taken_.end() && it->second;
}

int64_t NumAllocator::getNumber() {
  if (free_.empty()) return -1;
  int64_t n = free_.begin()->first;
  take(n);
  taken_[n] = false;
  publishExhausted();
  return n;
}

bool NumAllocator::reserveNumber(int64_t n) {
  auto it = taken_.find(n);
  if (it != taken_.end() && !it->second) return false;
  if (it != taken_.end()) {
    std::erase_if(held_, [n](const auto& e) { return e.second == n; });
  } else {
    take(n);
  }
  taken_[n] = false;
  publishExhausted();
  return true;
}

bool NumAllocator::releaseNumber(int64_t n) {
  auto it = taken_.find(n);
  if (it == taken_.end() || it->second) return false;
  Seconds expiry = configReactor_.notifier()->expiryTime();
  if (expiry <= 0) {
    taken_.erase(it);
    makeFree(n);
    publishExhausted();
    return true;
  }
  it->second = true;
  held_.emplace(clock_->now() + expiry, n);
  armExpiryTimer();
  return true;
}

void NumAllocator::handleRange() {
  rebuildFree();
  publishExhausted();
}

void NumAllocator::handleExpiry() {
  expiryTimer_ = 0;
  const Seconds now = clock_->now();
  while (!held_.empty() && held_.begin()->first <= now) {
    int64_t n = held_.begin()->second;
    held_.erase(held_.begin());
    taken_.erase(n);
    makeFree(n);
  }
  armExpiryTimer();
  publishExhausted();
}

void NumAllocator::armExpiryTimer() {
  if (held_.empty()) {
    if (expiryTimer_) clock_->timerDel(std::exchange(expiryTimer_, 0));
    return;
  }
  Seconds next = held_.begin()->first;
  if (expiryTimer_ && expiryTimerAt_ == next) return;
  if (expiryTimer_) clock_->timerDel(expiryTimer_);
  expiryTimerAt_ = next;
  expiryTimer_ = clock_->timerIs(next, [this] { handleExpiry(); });
}

// Removes n from the free intervals.
void NumAllocator::take(int64_t n) {
  auto it = free_.upper_bound(n);
  if (it == free_.begin()) return;
  --it;
  auto [start, end] = *it;
  if (end < n) return;
  free_.erase(it);
  if (start < n) free_[start] = n - 1;
  if (n < end) free_[n + 1] = end;
}

// Adds n to the free intervals, merging with its neighbours.
void NumAllocator::makeFree(int64_t n) {
  if (!range().contains(n)) return;
  auto next = free_.lower_bound(n);
  bool joinsNext = next != free_.end() && next->first == n + 1;
  auto prev = next == free_.begin() ? free_.end() : std::prev(next);
  bool joinsPrev = prev != free_.end() && prev->second == n - 1;
  if (joinsPrev && joinsNext) {
    prev->second = next->second;
    free_.erase(next);
  } else if (joinsPrev) {
    prev->second = n;
  } else if (joinsNext) {
    int64_t end = next->second;
    free_.erase(next);
    free_[n] = end;
  } else {
    free_[n] = n;
  }
}

void NumAllocator::rebuildFree() {
  free_.clear();
  const Range r = range();
  if (r.empty()) return;
  int64_t cursor = r.min();
  for (auto it = taken_.lower_bound(r.min()); it != taken_.end() && it->first <= r.max(); ++it) {
    if (it->first > cursor) free_[cursor] = it->first - 1;
    cursor = it->first + 1;
  }
  if (cursor <= r.max()) free_[cursor] = r.max();
}

void NumAllocator::publishExhausted() { status_->rangeExhaustedIs(free_.empty()); }

}  // namespace Keel
