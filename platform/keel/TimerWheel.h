// Keel::TimerWheel: the platform's clock and timer service for state machines, running on a
// notification loop's monotonic clock. Times are seconds (Keel::Seconds) since the
// clock's epoch; now() reads the clock, timerIs() schedules a callback at a time.
//
// The wheel keeps no timer structure of its own: each timer is one timer of the loop (a
// heap behind a single timerfd), which gives exact firing times and O(log n) scheduling.
// Scheduling is allowed through a const wheel: it does not change the clock, and state
// machines receive the wheel as a read-only input. The loop must outlive the wheel; the
// wheel cancels its pending timers when it goes.
#pragma once

#include <functional>
#include <unordered_set>

#include "zinc/Entity.h"
#include "zinc/Loop.h"

namespace Keel {

using Seconds = double;

class TimerWheel : public Zinc::Entity {
  ZINC_ENTITY(TimerWheel, "Keel::TimerWheel")

 public:
  using TimerId = Zinc::Loop::TimerId;
  using Callback = std::function<void()>;

  TimerWheel(Zinc::Name name, Zinc::Loop& loop) : Entity(std::move(name)), loop_(loop) {}
  ~TimerWheel() override;

  Seconds now() const { return toSeconds(Zinc::Loop::now()); }
  Zinc::Loop& loop() const { return loop_; }

  // Runs fn at time `when` (at once, on the next loop iteration, when it is past).
  TimerId timerIs(Seconds when, Callback fn) const;
  bool timerDel(TimerId id) const;
  size_t timerCount() const { return pending_.size(); }

  static Seconds toSeconds(Zinc::Loop::TimePoint t);
  static Zinc::Loop::TimePoint toTimePoint(Seconds s);

 private:
  Zinc::Loop& loop_;
  mutable std::unordered_set<TimerId> pending_;
};

TimerWheel::Ptr timerWheelFactory(const Zinc::Name& name, Zinc::Loop& loop);

}  // namespace Keel
