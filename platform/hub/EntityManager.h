// Hub::EntityManager: the in-process view of the central state database. Entities live in
// a tree of directories (Zinc::Dir) addressed by slash-separated paths such as
// "mpls/config/labelRequest/" (a directory; the trailing slash is optional) or
// "mpls/config/labelRequest/ospf" (an entity in it). Adding and removing entities goes
// through the directories, so their notifiees see onEntry(name) for each change.
//
// Mounting (binding a path to an entity published by another agent) builds on this: a
// mount will resolve its path with dirIs() and enter the mounted entity with entityIs().
#pragma once

#include <string_view>
#include <vector>

#include "zinc/Dir.h"

namespace Hub {

class EntityManager : public Zinc::Entity {
  ZINC_ENTITY(EntityManager, "Hub::EntityManager")

 public:
  explicit EntityManager(Zinc::Name name);

  Zinc::Dir::Ptr root() const { return root_; }
  // The directory at `path`, or null when some part of it is missing or not a directory.
  Zinc::Dir::Ptr dir(std::string_view path) const;
  // The directory at `path`, created with every missing parent. Throws Zinc::RangeException
  // on an empty path component or when a component names an entity that is not a directory.
  Zinc::Dir::Ptr dirIs(std::string_view path);

  // The entity at "<dir path>/<name>", or null.
  Zinc::Entity::Ptr entity(std::string_view path) const;
  template <class T>
  Zinc::Ptr<T> entity(std::string_view path) const {
    return Zinc::ptrCast<T>(entity(path));
  }
  // Enters `e` under its own name into the directory at dirPath (created if missing),
  // replacing an entry of the same name.
  void entityIs(std::string_view dirPath, const Zinc::Entity::Ptr& e);
  // Removes the entity at `path`; absent is not an error. Returns what was removed.
  Zinc::Entity::Ptr entityDel(std::string_view path);

  static std::vector<std::string_view> splitPath(std::string_view path);

 private:
  Zinc::Dir::Ptr root_;
};

EntityManager::Ptr entityManagerFactory(const Zinc::Name& name);

}  // namespace Hub
