// The pieces that every entity with shared-memory collections shares: the per-collection call
// counters, a via-set table split into size classes, and the macros that declare one
// shared-memory collection (its notifiee operations and its members) from one list entry.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "ledger/ZincLedgerMap.h"
#include "lfib/LfibTypes.h"
#include "zinc/Collection.h"

namespace Mpls {

// The three call counters of one shared-memory collection, registered as <attr>Is,
// <attr>Del and <attr>Notify.
struct CollectionCounters {
  uint64_t is = 0;
  uint64_t del = 0;
  uint64_t notify = 0;
};

class CounterRegistry {
 public:
  void add(const std::string& attr, CollectionCounters& c) {
    byName_[attr + "Is"] = &c.is;
    byName_[attr + "Del"] = &c.del;
    byName_[attr + "Notify"] = &c.notify;
  }
  // The counter of that name; 0 for an unknown name.
  uint64_t counter(const std::string& name) const {
    auto it = byName_.find(name);
    return it == byName_.end() ? 0 : *it->second;
  }
  const std::map<std::string, uint64_t*>& counters() const { return byName_; }

 private:
  std::map<std::string, uint64_t*> byName_;
};

// How one shared-memory collection is backed: mounted as the writer or as a reader of its
// table in the folder `root` (the table is <root>/<attribute>), or not mounted at all (its
// writes are then dropped as "no man's land"). A reader with a loop follows the table
// through a shadow.
struct CollectionControl {
  bool mounted = false;
  Ledger::LedgerMode mode = Ledger::LedgerMode::readOnly;
  std::string root;
  uint32_t capacity = 64;
  Zinc::Loop* loop = nullptr;
};

// Mounts or unmounts `table` as `control` says.
template <class Table>
void applyControl(Table& table, const CollectionControl& control) {
  if (control.mounted) {
    table.mountIs(control.mode, control.root, {}, control.capacity, control.loop);
  } else {
    table.unmount();
  }
}

// A shared-memory collection of value records, bound to entity E.
template <class E, class V, class K>
using LedgerTable = Ledger::ZincLedgerMap<E, V, K>;

// Via sets in size classes. A via set holds up to 128 via keys, 12 bytes each; one slot size
// for all would make a 2-via set cost a 1,600-byte slot. Each class is its own table:
//   "viaSet"    up to 2 via keys     value  68 bytes, slot   88
//   "viaSet8"   up to 8 via keys     value 140 bytes, slot  160
//   "viaSet32"  up to 32 via keys    value 428 bytes, slot  448
//   "viaSet128" up to 128 via keys   value 1580 bytes, slot 1600
// A via set lives in the smallest class that holds it. A write goes to that class first and
// then removes the key from the other classes, so a reader that looks a key up (smallest
// class first) always finds a whole via set, old or new. Notifications of all classes are
// reported as changes of the one collection.
template <class E>
class ViaSetTable {
 public:
  using Tier = Ledger::ZincLedgerMap<E, LfibViaSet, LfibViaSetKey>;
  using Ops = Ledger::ZincOps<LfibViaSetKey, LfibViaSet>;
  static constexpr std::array<uint32_t, 4> tierKeys{2, 8, 32, 128};
  static constexpr uint32_t fixedPart = 44;
  static constexpr uint32_t bytesPerViaKey = 12;

  static std::unique_ptr<ViaSetTable> entity(const std::string& name, E* entity,
                                             typename Tier::KeyHandler onKey,
                                             typename Tier::CollectionHandler onCollection,
                                             typename Tier::CollectionHandler onControl) {
    auto table = std::unique_ptr<ViaSetTable>(new ViaSetTable);
    for (size_t t = 0; t < tierKeys.size(); ++t) {
      std::string tierName = t == 0 ? name : name + std::to_string(tierKeys[t]);
      Ops ops(fixedPart + bytesPerViaKey * tierKeys[t]);
      table->tiers_[t] = Tier::entity(tierName, entity, onKey, onCollection, onControl, ops);
    }
    return table;
  }

  Tier& tier(size_t t) { return *tiers_[t]; }
  static size_t tierFor(uint32_t viaKeys) {
    size_t t = 0;
    while (tierKeys[t] < viaKeys) ++t;
    return t;
  }

  // The writer side keeps a private index of which class holds each via set (it is the only
  // writer, so the index is exact): a lookup or a rewrite then touches one table only.
  void mountIs(Ledger::LedgerMode mode, const std::string& root, const std::string& folder,
               uint32_t capacity = 64, Zinc::Loop* loop = nullptr) {
    for (auto& t : tiers_) t->mountIs(mode, root, folder, capacity, loop);
    tierOf_.clear();
    indexed_ = mode == Ledger::LedgerMode::writer;
    for (size_t t = 0; indexed_ && t < tiers_.size(); ++t) {
      for (auto it = tiers_[t]->iterator(); it; ++it) tierOf_[it->key()] = uint8_t(t);
    }
  }
  void flushKicks() {
    for (auto& t : tiers_) t->flushKicks();
  }
  bool inStep() const {
    for (auto& t : tiers_) {
      if (!t->inStep()) return false;
    }
    return true;
  }
  void unmount() {
    for (auto& t : tiers_) t->unmount();
    tierOf_.clear();
    indexed_ = false;
  }
  bool lookup(const LfibViaSetKey& key, LfibViaSet& out) {
    if (indexed_) {
      auto it = tierOf_.find(key);
      return it != tierOf_.end() && tiers_[it->second]->lookup(key, out);
    }
    for (auto& t : tiers_) {
      if (t->lookup(key, out)) return true;
    }
    return false;
  }
  LfibViaSet get(const LfibViaSetKey& key) {
    LfibViaSet vs;
    return lookup(key, vs) ? vs : LfibViaSet();
  }
  bool write(const LfibViaSet& vs) {
    const size_t home = tierFor(vs.viaKeys());
    const bool written = tiers_[home]->write(vs);
    if (!indexed_) {
      for (size_t t = 0; t < tiers_.size(); ++t) {
        if (t != home) tiers_[t]->remove(vs.key());
      }
      return written;
    }
    if (!written) return false;
    auto [it, added] = tierOf_.try_emplace(vs.key(), uint8_t(home));
    if (!added && it->second != home) {
      tiers_[it->second]->remove(vs.key());  // after the new home holds it
      it->second = uint8_t(home);
    }
    return true;
  }
  bool remove(const LfibViaSetKey& key) {
    if (indexed_) {
      auto it = tierOf_.find(key);
      if (it == tierOf_.end()) return false;
      bool removed = tiers_[it->second]->remove(key);
      tierOf_.erase(it);
      return removed;
    }
    bool removed = false;
    for (auto& t : tiers_) removed = t->remove(key) || removed;
    return removed;
  }
  uint32_t members() const {
    uint32_t n = 0;
    for (auto& t : tiers_) n += t->members();
    return n;
  }
  bool validateFiles() {
    bool ok = true;
    for (auto& t : tiers_) ok = t->validateFiles() && ok;
    return ok;
  }
  template <class Fn>
  void forEachTier(Fn&& fn) {
    for (auto& t : tiers_) fn(*t);
  }
  void handleParent(E* parent) {
    for (auto& t : tiers_) t->handleParent(parent);
  }
  void corruptionDetected(const std::string& reason) {
    for (auto& t : tiers_) t->corruptionDetected(reason);
  }
  // Calls fn(viaSet) for every via set of every class.
  template <class Fn>
  void forEach(Fn&& fn) {
    for (auto& t : tiers_) {
      for (auto it = t->iterator(); it; ++it) fn(*it);
    }
  }

 private:
  ViaSetTable() = default;
  std::array<std::unique_ptr<Tier>, tierKeys.size()> tiers_;
  std::unordered_map<LfibViaSetKey, uint8_t, Zinc::HashOf<LfibViaSetKey>> tierOf_;
  bool indexed_ = false;
};

}  // namespace Mpls

// ---- declaring shared-memory collections from one list ----
//
// A list entry is X(attr, Attr, Key, Value, Table): e.g.
//   X(mplsVia, MplsVia, LfibViaKey, LfibMplsVia, (LedgerTable<Self, LfibMplsVia, LfibViaKey>))

// In NotifieeConst: on<Attr>(key), on<Attr>Control(), on<Attr>zincImmediate() (the collection
// as a whole changed: mounted, resynchronised or emptied).
#define MPLS_LEDGER_NOTIFIEE_OPS(attr, Attr, K, V, Table) \
  virtual void on##Attr(const K&) {}                      \
  virtual void on##Attr##Control() {}                     \
  virtual void on##Attr##zincImmediate() {}

#define MPLS_PP_UNPAREN(...) __VA_ARGS__

// In the entity: the table, its counters and its operations. Every mutator raises its counter,
// writes or removes (corruption goes to the table, no man's land is traced and skipped),
// validates the key with verify<Attr>(key) and then notifies.
#define MPLS_LEDGER_COLLECTION(attr, Attr, K, V, Table)                                    \
 public:                                                                                   \
  V attr(const K& k) const { return attr##_->get(k); }                                     \
  bool attr##Has(const K& k) const {                                                       \
    V v;                                                                                   \
    return attr##_->lookup(k, v);                                                          \
  }                                                                                        \
  void attr##Is(const V& v) {                                                              \
    ++attr##Counters_.is;                                                                  \
    attr##_->write(v);                                                                     \
    verify##Attr(v.key());                                                                 \
    notify(&NotifieeConst::on##Attr, v.key());                                             \
  }                                                                                        \
  void attr##Commit(const V* v) {                                                          \
    if (v) attr##Is(*v);                                                                   \
  }                                                                                        \
  void attr##Del(const K& k) {                                                             \
    ++attr##Counters_.del;                                                                 \
    attr##_->remove(k);                                                                    \
    verify##Attr(k);                                                                       \
    notify(&NotifieeConst::on##Attr, k);                                                   \
  }                                                                                        \
  void attr##DelAll() {                                                                    \
    std::vector<K> keys;                                                                   \
    attr##ForEach([&](const V& v) { keys.push_back(v.key()); });                           \
    for (const K& k : keys) attr##Del(k);                                                  \
  }                                                                                        \
  void attr##Notify(const K& k) {                                                          \
    ++attr##Counters_.notify;                                                              \
    notify(&NotifieeConst::on##Attr, k);                                                   \
  }                                                                                        \
  void attr##NotifyCollection() const { notify(&NotifieeConst::on##Attr##zincImmediate); } \
  void attr##NotifyMountStatus() const { notify(&NotifieeConst::on##Attr##Control); }      \
  void attr##NotifyQuiesced() const { notify(&NotifieeConst::on##Attr##zincImmediate); }   \
  /* Mounts or unmounts the collection's table; its control state changed. */              \
  void attr##ControlIs(const ::Mpls::CollectionControl& control) {                         \
    attr##Control_ = control;                                                              \
    ::Mpls::applyControl(*attr##_, control);                                               \
  }                                                                                        \
  const ::Mpls::CollectionControl& attr##Control() const { return attr##Control_; }        \
  /* Reader side: one key changed in the table. */                                         \
  void attr##Changed(const K& k) const { notify(&NotifieeConst::on##Attr, k); }            \
  template <class Fn>                                                                      \
  void attr##ForEach(Fn&& fn) const {                                                      \
    ::Mpls::forEachIn(*attr##_, fn);                                                       \
  }                                                                                        \
  uint32_t attr##Count() const { return attr##_->members(); }                              \
  MPLS_PP_UNPAREN Table& attr##Ledger() const { return *attr##_; }                         \
  /* The same operations chosen by element type, for code generic over records. */         \
  bool elementLookup(const K& k, V& out) const { return attr##_->lookup(k, out); }         \
  void elementIs(const V& v) { attr##Is(v); }                                              \
  void elementDel(const K& k, const V*) { attr##Del(k); }                                  \
  const ::Mpls::CollectionCounters& attr##Counters() const { return attr##Counters_; }     \
                                                                                           \
 private:                                                                                  \
  std::unique_ptr<MPLS_PP_UNPAREN Table> attr##_ = MPLS_PP_UNPAREN Table::entity(          \
      #attr, this, &Self::attr##Changed, &Self::attr##NotifyCollection,                    \
      &Self::attr##NotifyMountStatus);                                                     \
  ::Mpls::CollectionCounters attr##Counters_;                                              \
  ::Mpls::CollectionControl attr##Control_;                                                \
  bool attr##Registered_ = (counterRegistry_.add(#attr, attr##Counters_), true);

namespace Mpls {

// Walks a table in table order (a via-set table: class by class).
template <class Table, class Fn>
void forEachIn(Table& table, Fn& fn) {
  if constexpr (requires { table.forEach(fn); }) {
    table.forEach(fn);
  } else {
    for (auto it = table.iterator(); it; ++it) fn(*it);
  }
}

}  // namespace Mpls
