#include "zinc/Entity.h"

#include <algorithm>

namespace Zinc {

size_t NotifieeList::countBound() const {
  return list_.size() - std::count(list_.begin(), list_.end(), nullptr);
}

bool NotifieeList::contains(const NotifieeBase* n) const {
  return n && std::find(list_.begin(), list_.end(), n) != list_.end();
}

void NotifieeList::remove(NotifieeBase* n) const {
  auto it = std::find(list_.begin(), list_.end(), n);
  if (it == list_.end()) return;
  if (depth_ > 0) {
    *it = nullptr;  // a delivery is walking the list: leave a hole, compact afterwards
    holes_ = true;
  } else {
    list_.erase(it);
  }
}

void NotifieeList::compact() const {
  std::erase(list_, nullptr);
  holes_ = false;
}

void NotifieeBase::bind(const Entity* e) {
  if (bound_.get() == e) return;
  if (bound_) bound_->notifieeList().remove(this);
  // Keep the old notifier alive until this notifiee is off its list.
  Zinc::Ptr<Entity const> old = std::exchange(bound_, Zinc::Ptr<Entity const>(e));
  if (e) e->notifieeList().add(this);
}

}  // namespace Zinc
