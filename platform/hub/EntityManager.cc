#include "platform/hub/EntityManager.h"

#include <string>

#include "zinc/Exception.h"

namespace Hub {

EntityManager::Ptr entityManagerFactory(const Zinc::Name& name) {
  return Zinc::makePtr<EntityManager>(name);
}

EntityManager::EntityManager(Zinc::Name name)
    : Entity(std::move(name)), root_(Zinc::dirFactory("")) {
  root_->handleParentIs(this);
}

std::vector<std::string_view> EntityManager::splitPath(std::string_view path) {
  std::vector<std::string_view> parts;
  while (!path.empty() && path.front() == '/') path.remove_prefix(1);
  while (!path.empty() && path.back() == '/') path.remove_suffix(1);
  while (!path.empty()) {
    auto slash = path.find('/');
    parts.push_back(path.substr(0, slash));
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
  }
  return parts;
}

Zinc::Dir::Ptr EntityManager::dir(std::string_view path) const {
  Zinc::Dir::Ptr d = root_;
  for (std::string_view part : splitPath(path)) {
    d = d->entry<Zinc::Dir>(Zinc::Name(part));
    if (!d) return nullptr;
  }
  return d;
}

Zinc::Dir::Ptr EntityManager::dirIs(std::string_view path) {
  Zinc::Dir::Ptr d = root_;
  for (std::string_view part : splitPath(path)) {
    if (part.empty())
      throw Zinc::RangeException("empty component in path '" + std::string(path) + "'");
    Zinc::Name name(part);
    Zinc::Entity::Ptr e = d->entry(name);
    if (!e) {
      e = Zinc::dirFactory(name);
      d->entryIs(e);
    }
    d = Zinc::ptrCast<Zinc::Dir>(e);
    if (!d)
      throw Zinc::RangeException("'" + std::string(part) + "' in path '" + std::string(path) +
                                 "' is not a directory");
  }
  return d;
}

Zinc::Entity::Ptr EntityManager::entity(std::string_view path) const {
  auto slash = path.rfind('/');
  if (slash == std::string_view::npos) return root_->entry(Zinc::Name(path));
  Zinc::Dir::Ptr d = dir(path.substr(0, slash));
  return d ? d->entry(Zinc::Name(path.substr(slash + 1))) : nullptr;
}

void EntityManager::entityIs(std::string_view dirPath, const Zinc::Entity::Ptr& e) {
  dirIs(dirPath)->entryIs(e);
}

Zinc::Entity::Ptr EntityManager::entityDel(std::string_view path) {
  auto slash = path.rfind('/');
  Zinc::Dir::Ptr d = slash == std::string_view::npos ? root_ : dir(path.substr(0, slash));
  if (!d) return nullptr;
  return d->entryDel(Zinc::Name(path.substr(slash == std::string_view::npos ? 0 : slash + 1)));
}

}  // namespace Hub
