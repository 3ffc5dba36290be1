// Syncer: fills a shadow from the writer's table by walking every slot with doSlot, in slices
// that each end after the reader's yield time, so that the agent's other work goes on between
// them (each slice is a deferred call on the notification loop).
//
// A new request during a sync restarts it from slot 0; a detach interrupts it. When the walk
// reaches the writer's numSlots it also walks what the shadow holds beyond that (the table
// shrank), then calls `done`.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "ledger/Exceptions.h"
#include "zinc/Loop.h"
#include "zinc/Trace.h"

namespace Ledger {

namespace ShadowDetail {
const Zinc::Trace& trace();
}

class Syncer {
 public:
  // Slots walked between two looks at the clock.
  static constexpr uint32_t kStride = 256;

  struct Hooks {
    // Walks slots [first, last) (doSlot for each, in bulk where it can); returns the slot
    // after the last one done, earlier than `last` only when the sync was restarted or
    // stopped meanwhile.
    std::function<uint32_t(uint32_t first, uint32_t last)> doSlots;
    std::function<uint32_t()> slotsToWalk;       // max(writer's numSlots, shadow's numSlots)
    std::function<bool()> notificationsEnabled;  // false: the walk waits (see doSync)
    std::function<void()> done;
    std::function<void(const std::string&)> corruption;
  };

  Syncer(Zinc::Loop& loop, Hooks hooks) : loop_(loop), hooks_(std::move(hooks)) {}
  ~Syncer() { *alive_ = false; }

  void yieldTimeIs(std::chrono::microseconds t) { yieldTime_ = t; }
  std::chrono::microseconds yieldTime() const { return yieldTime_; }
  bool syncing() const { return syncing_; }
  uint64_t slices() const { return slices_; }
  uint32_t currentSlot() const { return currentSlot_; }
  // Advances with every (re)start and interruption: a walk that sees it change stops.
  uint64_t epoch() const { return epoch_; }

  void sync(bool resync) {
    if (syncing_) {
      ZTRACE_TO(ShadowDetail::trace(), 1,
                "Syncer::sync() Interrupting and restarting synchronization");
    } else {
      ZTRACE_TO(ShadowDetail::trace(), 3,
                "Syncer::sync() Scheduling synchronization, resync:" << resync);
    }
    resync_ = resync;
    waiting_ = false;  // a new walk: its wait, if any, is said again
    currentSlot_ = 0;
    started_ = std::chrono::steady_clock::now();
    ++epoch_;
    syncing_ = true;
    schedule();
  }
  // Stops a sync in progress (detach).
  void interrupt() {
    if (!syncing_) return;
    ZTRACE_TO(ShadowDetail::trace(), 1,
              "Syncer::doSync() Interrupted shadow synchronization, synced " << currentSlot_);
    syncing_ = false;
    ++epoch_;
  }

 private:
  void schedule() {
    loop_.defer([this, alive = alive_, epoch = epoch_] {
      if (*alive && epoch == epoch_) doSync();
    });
  }

  void doSync() {
    if (!syncing_) {
      ZTRACE_TO(ShadowDetail::trace(), 0, "Syncer unexpectedly stopped syncing");
      return;
    }
    if (waitsForNotifications()) return;
    if (currentSlot_ == 0) {
      ZTRACE_TO(ShadowDetail::trace(), 3, "Syncer::doSync() Syncing, resync:" << resync_);
    }
    ++slices_;
    try {
      switch (walkSlice()) {
        case Slice::stopped:
          return;
        case Slice::more:
          schedule();
          return;
        case Slice::done:
          break;
      }
    } catch (const CorruptionException& e) {
      ZTRACE_TO(ShadowDetail::trace(), 0, "Syncer::doSync() corruption detected: " << e.what());
      syncing_ = false;
      if (hooks_.corruption) hooks_.corruption(e.what());
      return;
    }
    syncing_ = false;
    hooks_.done();
  }

  // While notifications are disabled the walk waits, looking again every 10 ms, so that what
  // it finds is told once they are back. Said once per wait.
  bool waitsForNotifications() {
    if (!hooks_.notificationsEnabled || hooks_.notificationsEnabled()) {
      waiting_ = false;
      return false;
    }
    if (!waiting_) {
      ZTRACE_TO(ShadowDetail::trace(), 3, "Syncer::doSync() notifications temporarily disabled");
    }
    waiting_ = true;
    retryTimer_ =
        loop_.timerAfter(std::chrono::milliseconds(10), [this, alive = alive_, epoch = epoch_] {
          if (*alive && epoch == epoch_) doSync();
        });
    return true;
  }

  enum class Slice { done, more, stopped };
  // Walks slots in strides until the table's end or the yield time: `more` when slots are
  // left for the next slice, `stopped` when a notification restarted or interrupted the walk.
  Slice walkSlice() {
    const auto deadline = std::chrono::steady_clock::now() + yieldTime_;
    const uint64_t epoch = epoch_;
    uint32_t end = hooks_.slotsToWalk();
    while (currentSlot_ < end) {
      const uint32_t upTo = std::min(end, (currentSlot_ | (kStride - 1)) + 1);
      const uint32_t reached = hooks_.doSlots(currentSlot_, upTo);
      if (epoch != epoch_) return Slice::stopped;
      currentSlot_ = reached;
      if (std::chrono::steady_clock::now() >= deadline) break;
      end = hooks_.slotsToWalk();
    }
    if (currentSlot_ >= end) return Slice::done;
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - started_;
    ZTRACE_TO(ShadowDetail::trace(), 7,
              "Syncer::doSync() Synced " << took.count() << " seconds, currentSlot:" << currentSlot_
                                         << " (" << end - currentSlot_ << " slots remaining)");
    return Slice::more;
  }

  Zinc::Loop& loop_;
  Hooks hooks_;
  std::chrono::microseconds yieldTime_{2000};
  bool syncing_ = false;
  bool resync_ = false;
  bool waiting_ = false;  // for notifications to be enabled again
  uint32_t currentSlot_ = 0;
  uint64_t epoch_ = 0;
  uint64_t slices_ = 0;
  Zinc::Loop::TimerId retryTimer_ = 0;
  std::chrono::steady_clock::time_point started_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Ledger
