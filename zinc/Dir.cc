#include "zinc/Dir.h"

namespace Zinc {

Dir::Ptr dirFactory(const Name& name) { return Dir::Ptr(new Dir(name)); }

Dir::~Dir() {
  for (const auto& [name, e] : entries_) {
    if (e->handleParent() == this) e->handleParentIs(nullptr);
  }
}

void Dir::entryIs(const Entity::Ptr& e) {
  if (!e) return;
  Entity::Ptr old = entries_.get(e->name());
  if (!entries_.set(e->name(), e)) return;
  if (old && old->handleParent() == this) old->handleParentIs(nullptr);
  e->handleParentIs(this);
  notify(&NotifieeConst::onEntry, e->name());
}

Entity::Ptr Dir::entryDel(const Name& name) {
  std::optional<Entity::Ptr> old = entries_.erase(name);
  if (!old) return nullptr;
  if ((*old)->handleParent() == this) (*old)->handleParentIs(nullptr);
  notify(&NotifieeConst::onEntry, name);
  return *old;
}

void Dir::entryDelAll() {
  for (const Name& name : entries_.keys()) entryDel(name);
}

}  // namespace Zinc
