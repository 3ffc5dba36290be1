// Keel::NumAllocator: hands out numbers of a configured range.
//
//  - getNumber() returns the lowest free number of the range, or -1 when none is free.
//    "Lowest free" keeps allocations dense and makes the next number predictable.
//  - reserveNumber(n) takes a given number (free or held; false when n is already in use);
//    a number outside the current range may be reserved too (a range that shrinks keeps the
//    numbers in use beyond its end).
//  - releaseNumber(n) gives a number back. It is held for the configured expiry time
//    (seconds, on the timer wheel's clock) before it is free again, so that a number
//    returned by one user is not handed straight to another; an expiry time of 0 or less
//    frees it at once.
//  - isReserved(n): n is in use or held.
// The status entity's rangeExhausted is true exactly when no number of the range is free
// (in use or held count as not free); it is raised and cleared as numbers run out and come
// back, including when a held number expires, and its notifiees are told of each change.
// The allocator follows changes of its configuration's range and expiry time.
#pragma once

#include <cstdint>
#include <map>

#include "platform/keel/Range.h"
#include "platform/keel/TimerWheel.h"
#include "zinc/Collection.h"

namespace Keel {

class NumAllocatorConfig : public Zinc::Entity {
  ZINC_ENTITY(NumAllocatorConfig, "Keel::NumAllocatorConfig")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<NumAllocatorConfig> {
   public:
    virtual void onRange() {}
    virtual void onExpiryTime() {}
  };
  ZINC_NOTIFIEE(NumAllocatorConfig)
  ZINC_ATTRIBUTE(range, Range, Keel::Range)
  ZINC_ATTRIBUTE(expiryTime, ExpiryTime, Seconds)

 public:
  explicit NumAllocatorConfig(Zinc::Name name) : Entity(std::move(name)) {}
};

class NumAllocatorStatus : public Zinc::Entity {
  ZINC_ENTITY(NumAllocatorStatus, "Keel::NumAllocatorStatus")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<NumAllocatorStatus> {
   public:
    virtual void onRangeExhausted() {}
  };
  ZINC_NOTIFIEE(NumAllocatorStatus)
  ZINC_ATTRIBUTE(rangeExhausted, RangeExhausted, bool)

 public:
  explicit NumAllocatorStatus(Zinc::Name name) : Entity(std::move(name)) {}
};

class NumAllocator : public Zinc::Entity {
  ZINC_ENTITY(NumAllocator, "Keel::NumAllocator")

 public:
  NumAllocator(Zinc::Name name, NumAllocatorConfig::PtrConst config, NumAllocatorStatus::Ptr status,
               TimerWheel::PtrConst clock);
  ~NumAllocator() override;

  int64_t getNumber();
  bool reserveNumber(int64_t n);
  bool releaseNumber(int64_t n);
  bool isReserved(int64_t n) const { return taken_.contains(n); }
  bool isHeld(int64_t n) const;
  size_t inUseCount() const { return taken_.size() - held_.size(); }
  size_t heldCount() const { return held_.size(); }

  NumAllocatorConfig::PtrConst config() const { return configReactor_.notifier(); }
  const NumAllocatorStatus::Ptr& status() const { return status_; }
  const TimerWheel::PtrConst& clock() const { return clock_; }

 private:
  class ConfigReactor : public NumAllocatorConfig::NotifieeConst {
   public:
    explicit ConfigReactor(NumAllocator* owner) : owner_(owner) {}
    void onRange() override { owner_->handleRange(); }

   private:
    NumAllocator* owner_;
  };

  Range range() const { return configReactor_.notifier()->range(); }
  void handleRange();
  void handleExpiry();
  void armExpiryTimer();
  void take(int64_t n);
  void makeFree(int64_t n);
  void rebuildFree();
  void publishExhausted();

  NumAllocatorStatus::Ptr status_;
  TimerWheel::PtrConst clock_;
  ConfigReactor configReactor_{this};
  std::map<int64_t, int64_t> free_;       // free intervals of the range: start -> end (inclusive)
  std::map<int64_t, bool> taken_;         // numbers in use (false) or held (true)
  std::multimap<Seconds, int64_t> held_;  // held numbers by expiry time
  TimerWheel::TimerId expiryTimer_ = 0;
  Seconds expiryTimerAt_ = 0;
};

NumAllocatorConfig::Ptr numAllocatorConfigFactory(const Zinc::Name& name);
NumAllocatorStatus::Ptr numAllocatorStatusFactory(const Zinc::Name& name);
NumAllocator::Ptr numAllocatorFactory(const Zinc::Name& name, NumAllocatorConfig::PtrConst config,
                                      NumAllocatorStatus::Ptr status, TimerWheel::PtrConst clock);

}  // namespace Keel
