#include "platform/keel/TimerWheel.h"

namespace Keel {

TimerWheel::Ptr timerWheelFactory(const Zinc::Name& name, Zinc::Loop& loop) {
  return Zinc::makePtr<TimerWheel>(name, loop);
}

TimerWheel::~TimerWheel() {
  for (TimerId id : pending_) loop_.timerDel(id);
}

Seconds TimerWheel::toSeconds(Zinc::Loop::TimePoint t) {
  return std::chrono::duration<Seconds>(t.time_since_epoch()).count();
}

Zinc::Loop::TimePoint TimerWheel::toTimePoint(Seconds s) {
  // Rounded up, so that a timer never fires before now() has reached its time.
  auto d = std::chrono::ceil<Zinc::Loop::Duration>(std::chrono::duration<Seconds>(s));
  return Zinc::Loop::TimePoint(d);
}

TimerWheel::TimerId TimerWheel::timerIs(Seconds when, Callback fn) const {
  // The id is known only once the loop has the timer; the callback looks it up through a
  // shared cell.
  auto self = std::make_shared<TimerId>(0);
  TimerId id = loop_.timerIs(toTimePoint(when), [this, self, fn = std::move(fn)] {
    pending_.erase(*self);
    fn();
  });
  *self = id;
  pending_.insert(id);
  return id;
}

bool TimerWheel::timerDel(TimerId id) const {
  if (pending_.erase(id) == 0) return false;
  return loop_.timerDel(id);
}

}  // namespace Keel
