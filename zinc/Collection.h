// Keyed collections and attributes of entities.
//
// An entity declares each plural attribute with one line, after its NotifieeConst:
//
//   class LabelBlockAllocation : public Zinc::Entity {
//     ZINC_ENTITY(LabelBlockAllocation, "Mpls::LabelBlockAllocation")
//    public:
//     class NotifieeConst : public Zinc::NotifieeConstOf<LabelBlockAllocation> {
//      public:
//       virtual void onBlock(const Zinc::Name&) {}
//     };
//     ZINC_NOTIFIEE(LabelBlockAllocation)
//     ZINC_ORDERED_COLLECTION(block, Block, Zinc::Name, LabelBlock)
//   };
//
// which gives block(k) (the element, or a default value / null Ptr when absent), blockIs(k, v),
// blockDel(k) (returns the removed element; an absent key is not an error), blockDelAll(),
// blockIs(v) for a value that knows its key (v.key()) or an entity Ptr (keyed by its
// name()), blockNotify(k), blockCount(), blockHas(k), blockKeys() (a snapshot, safe to walk while
// the collection changes) and blockColl() (the collection itself, for iteration: ordered
// collections iterate in ascending key order, hash collections in no defined order).
// Every add, replace with a different element, and delete calls onBlock(k) on each bound
// notifiee after the change; a receiver learns of a deletion by finding the key absent.
//
// ZINC_ATTRIBUTE(mplsRouting, MplsRouting, bool) declares a single-valued attribute:
// mplsRouting(), mplsRoutingIs(v) (notifies onMplsRouting() when the value changes),
// mplsRoutingNotify().
#pragma once

#include <concepts>
#include <functional>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "zinc/Entity.h"

namespace Zinc {

// Hash functor: a key's own hash() when it has one, std::hash otherwise.
template <class K>
struct HashOf {
  size_t operator()(const K& k) const {
    if constexpr (requires { k.hash(); }) {
      return k.hash();
    } else {
      return std::hash<K>()(k);
    }
  }
};

enum class CollKind { ordered, hash };

template <class K, class V, CollKind kind>
class Coll {
 public:
  using Map = std::conditional_t<kind == CollKind::ordered, std::map<K, V>,
                                 std::unordered_map<K, V, HashOf<K>>>;
  using const_iterator = typename Map::const_iterator;

  V get(const K& k) const {
    const Entry* e = locate(k);
    return e ? e->second : V();
  }
  const V* find(const K& k) const {
    const Entry* e = locate(k);
    return e ? &e->second : nullptr;
  }
  bool contains(const K& k) const { return locate(k) != nullptr; }
  size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  const_iterator begin() const { return map_.begin(); }
  const_iterator end() const { return map_.end(); }

  // Adds or replaces; true when the collection changed.
  bool set(const K& k, V v) {
    Entry* e = const_cast<Entry*>(locate(k));
    if (!e) {
      last_.entry = &*map_.try_emplace(k, std::move(v)).first;
      return true;
    }
    if constexpr (std::equality_comparable<V>) {
      if (e->second == v) return false;
    }
    e->second = std::move(v);
    return true;
  }
  std::optional<V> erase(const K& k) {
    auto it = map_.find(k);
    if (it == map_.end()) return std::nullopt;
    std::optional<V> old(std::move(it->second));
    last_.entry = nullptr;
    map_.erase(it);
    return old;
  }
  std::vector<K> keys() const {
    std::vector<K> out;
    out.reserve(map_.size());
    for (const auto& kv : map_) out.push_back(kv.first);
    return out;
  }

 private:
  using Entry = typename Map::value_type;
  // The entry met last. Entities often read and update one key over and over (a counter per
  // type, bumped on every allocation), and comparing a key costs less than hashing it again.
  // Both kinds of map keep an entry where it is until it is erased; a copied or moved-from
  // collection starts without one.
  struct LastEntry {
    Entry* entry = nullptr;
    LastEntry() = default;
    LastEntry(const LastEntry&) {}
    LastEntry& operator=(const LastEntry&) {
      entry = nullptr;
      return *this;
    }
  };

  const Entry* locate(const K& k) const {
    if (last_.entry && last_.entry->first == k) return last_.entry;
    auto it = map_.find(k);
    if (it == map_.end()) return nullptr;
    // The map is this collection's own, and not const: only this accessor is.
    last_.entry = const_cast<Entry*>(&*it);
    return last_.entry;
  }

  Map map_;
  mutable LastEntry last_;
};

}  // namespace Zinc

// T::Notifiee for an entity whose T::NotifieeConst is already declared.
#define ZINC_NOTIFIEE(Type) \
  class Notifiee : public ::Zinc::NotifieeOf<Type, NotifieeConst> {};

#define ZINC_COLLECTION_(attr, Attr, K, V, kind)                                        \
 public:                                                                                \
  V attr(const K& k) const { return attr##_.get(k); }                                   \
  bool attr##Has(const K& k) const { return attr##_.contains(k); }                      \
  size_t attr##Count() const { return attr##_.size(); }                                 \
  std::vector<K> attr##Keys() const { return attr##_.keys(); }                          \
  const ::Zinc::Coll<K, V, kind>& attr##Coll() const { return attr##_; }                \
  void attr##Is(const K& k, const V& v) {                                               \
    if (attr##_.set(k, v)) notify(&NotifieeConst::on##Attr, k);                         \
  }                                                                                     \
  /* A value that knows its key (value.key()), or an entity Ptr keyed by its name(). */ \
  template <class VV = V>                                                               \
  requires requires(const VV& v) { K(v.key()); }                                        \
  void attr##Is(const VV& v) { attr##Is(K(v.key()), v); }                               \
  template <class VV = V>                                                               \
  requires requires(const VV& v) { K(v->name()); }                                      \
  void attr##Is(const VV& v) { attr##Is(K(v->name()), v); }                             \
  std::optional<V> attr##Del(const K& k) {                                              \
    std::optional<V> old = attr##_.erase(k);                                            \
    if (old) notify(&NotifieeConst::on##Attr, k);                                       \
    return old;                                                                         \
  }                                                                                     \
  void attr##DelAll() {                                                                 \
    for (const K& k : attr##_.keys()) attr##Del(k);                                     \
  }                                                                                     \
  void attr##Notify(const K& k) const { notify(&NotifieeConst::on##Attr, k); }          \
                                                                                        \
 private:                                                                               \
  ::Zinc::Coll<K, V, kind> attr##_;

#define ZINC_ORDERED_COLLECTION(attr, Attr, K, V) \
  ZINC_COLLECTION_(attr, Attr, K, V, ::Zinc::CollKind::ordered)
#define ZINC_HASH_COLLECTION(attr, Attr, K, V) \
  ZINC_COLLECTION_(attr, Attr, K, V, ::Zinc::CollKind::hash)

#define ZINC_ATTRIBUTE(attr, Attr, V)                             \
 public:                                                          \
  const V& attr() const { return attr##_; }                       \
  void attr##Is(const V& v) {                                     \
    if (attr##_ == v) return;                                     \
    attr##_ = v;                                                  \
    notify(&NotifieeConst::on##Attr);                             \
  }                                                               \
  void attr##Notify() const { notify(&NotifieeConst::on##Attr); } \
                                                                  \
 private:                                                         \
  V attr##_{};
