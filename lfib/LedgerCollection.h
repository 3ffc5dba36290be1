// The pieces that every entity with shared-memory collections shares: the per-collection call
// counters, the via-set table kept in slabs, and the macros that declare one
// shared-memory collection (its notifiee operations and its members) from one list entry.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

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

// The via sets: one table whose values vary in length (a fixed part of 44 bytes and 12 bytes
// per via key, up to 128 keys). Its slots hold a reference into the table's slabs, where each
// via set takes only the bytes it uses: a 2-via set costs a 24-byte slot and an 80-byte slab
// entry, not a slot sized for 128 via keys.
template <class E>
using ViaSetLedger = Ledger::ZincLedgerMap<E, LfibViaSet, LfibViaSetKey,
                                           Ledger::ZincSlabOps<LfibViaSetKey, LfibViaSet>>;

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

// Walks a table in table order.
template <class Table, class Fn>
void forEachIn(Table& table, Fn& fn) {
  for (auto it = table.iterator(); it; ++it) fn(*it);
}

}  // namespace Mpls
