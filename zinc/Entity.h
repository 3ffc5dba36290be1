// Entities and notifiees.
//
// An entity is a named, reference-counted object (held through Zinc::Ptr) whose state is a
// set of attributes and keyed collections (zinc/Collection.h). Each change is reported to the
// notifiees bound to the entity: T::NotifieeConst observes, T::Notifiee may also write.
//
// A notifiee is bound to at most one notifier at a time and sits in that notifier's
// notifieeList() while bound. It holds a reference to its notifier, so a notifier outlives
// its notifiees; a notifiee destroyed while bound unbinds itself. Notifiees may bind,
// rebind or unbind (themselves or others) while a notification is being delivered: a
// notifiee removed during delivery is skipped, one added during delivery is not called
// for that change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "zinc/Ptr.h"
#include "zinc/String.h"

namespace Zinc {

class NotifieeBase;

class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;

  // Every change of an entity asks whether anyone listens: without holes (left only by a
  // removal during a delivery) the list's length is the answer.
  size_t size() const { return holes_ ? countBound() : list_.size(); }
  bool empty() const { return size() == 0; }
  bool contains(const NotifieeBase* n) const;

  // Calls fn(n) for every notifiee bound before the call started and still bound.
  template <class Fn>
  void forEach(Fn&& fn) const {
    ++depth_;
    const size_t end = list_.size();
    for (size_t i = 0; i < end; ++i) {
      if (NotifieeBase* n = list_[i]) fn(n);
    }
    if (--depth_ == 0 && holes_) compact();
  }

 private:
  friend class NotifieeBase;
  void add(NotifieeBase* n) const { list_.push_back(n); }
  void remove(NotifieeBase* n) const;
  void compact() const;
  size_t countBound() const;

  mutable std::vector<NotifieeBase*> list_;
  mutable uint32_t depth_ = 0;
  mutable bool holes_ = false;
};

class Entity : public PtrInterface {
 public:
  using Ptr = Zinc::Ptr<Entity>;
  using PtrConst = Zinc::Ptr<Entity const>;

  const Name& name() const { return name_; }
  // The qualified type name, e.g. "Mpls::LabelManagerClient".
  virtual std::string_view fwkType() const { return "Zinc::Entity"; }
  // The entity that holds this one (its directory or owning entity); null at the top.
  // Not a counted reference: a parent holds its children, not the other way round.
  Entity* handleParent() const { return parent_; }
  void handleParentIs(Entity* parent) const { parent_ = parent; }
  const NotifieeList& notifieeList() const { return notifiees_; }

 protected:
  explicit Entity(Name name) : name_(std::move(name)) {}
  ~Entity() override = default;

  // Delivers one notification: calls (n->*method)(args...) on every bound notifiee of
  // type N. All notifiees of an entity type T derive from T::NotifieeConst.
  template <class N, class... P, class... A>
  void notify(void (N::*method)(P...), A&&... args) const {
    if (notifiees_.empty()) return;
    // A notifiee that unbinds may drop the last reference to this entity: hold one until
    // the delivery is over. (With notifiees bound the count is at least one, so this never
    // runs on an entity still under construction.)
    Zinc::Ptr<Entity const> keepAlive(this);
    notifiees_.forEach([&](NotifieeBase* n) { (static_cast<N*>(n)->*method)(args...); });
  }

 private:
  Name name_;
  mutable Entity* parent_ = nullptr;
  NotifieeList notifiees_;
};

class NotifieeBase {
 public:
  NotifieeBase(const NotifieeBase&) = delete;
  NotifieeBase& operator=(const NotifieeBase&) = delete;
  virtual ~NotifieeBase() { bind(nullptr); }

 protected:
  NotifieeBase() = default;
  // Unbinds from the current notifier (if any) and binds to `e` (if not null).
  void bind(const Entity* e);
  const Entity* boundEntity() const { return bound_.get(); }

 private:
  Zinc::Ptr<Entity const> bound_;
};

// Base of T::NotifieeConst: typed access to the notifier.
template <class T>
class NotifieeConstOf : public NotifieeBase {
 public:
  using Notifier = T;
  Zinc::Ptr<T const> notifier() const { return static_cast<T const*>(boundEntity()); }
  void notifierIs(const Zinc::Ptr<T const>& n) { bind(n.get()); }
};

// Base of T::Notifiee, which derives from T::NotifieeConst and may write to the notifier.
template <class T, class Const>
class NotifieeOf : public Const {
 public:
  Zinc::Ptr<T> notifier() const { return const_cast<T*>(Const::notifier().get()); }
  void notifierIs(const Zinc::Ptr<T>& n) { Const::notifierIs(n); }
};

template <class T, class... A>
Zinc::Ptr<T> makePtr(A&&... args) {
  return Zinc::Ptr<T>(new T(std::forward<A>(args)...));
}

}  // namespace Zinc

// Declares the framework boilerplate of an entity class: Ptr/PtrConst and fwkType().
#define ZINC_ENTITY(Type, qualifiedName)                              \
 public:                                                              \
  using Ptr = ::Zinc::Ptr<Type>;                                      \
  using PtrConst = ::Zinc::Ptr<Type const>;                           \
  std::string_view fwkType() const override { return qualifiedName; } \
                                                                      \
 private:
