// Zinc::Dir: a directory entity holding named entities (which may be directories too).
// Adding, replacing or removing an entry calls onEntry(name) on the directory's notifiees.
// An entry's handleParent() is the directory while it is in it.
#pragma once

#include "zinc/Collection.h"

namespace Zinc {

class Dir : public Entity {
  ZINC_ENTITY(Dir, "Zinc::Dir")

 public:
  class NotifieeConst : public NotifieeConstOf<Dir> {
   public:
    virtual void onEntry(const Name&) {}
  };
  ZINC_NOTIFIEE(Dir)

  using Entries = Coll<Name, Entity::Ptr, CollKind::ordered>;

  Entity::Ptr entry(const Name& name) const { return entries_.get(name); }
  // The entry `name` if it is a T, else null.
  template <class T>
  Zinc::Ptr<T> entry(const Name& name) const {
    return ptrCast<T>(entries_.get(name));
  }
  bool entryHas(const Name& name) const { return entries_.contains(name); }
  size_t entryCount() const { return entries_.size(); }
  std::vector<Name> entryKeys() const { return entries_.keys(); }
  const Entries& entryColl() const { return entries_; }

  // Adds `e` under its own name, replacing any entry of that name.
  void entryIs(const Entity::Ptr& e);
  Entity::Ptr entryDel(const Name& name);
  void entryDelAll();
  void entryNotify(const Name& name) const { notify(&NotifieeConst::onEntry, name); }

  ~Dir() override;

 protected:
  friend Ptr dirFactory(const Name&);
  explicit Dir(Name name) : Entity(std::move(name)) {}

 private:
  Entries entries_;
};

Dir::Ptr dirFactory(const Name& name);

}  // namespace Zinc
