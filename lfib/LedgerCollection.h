// The pieces that every entity with shared-memory collections shares: the per-collection call
// counters, the via-set table kept in slabs, and the macros that declare one
// shared-memory collection (its notifiee operations and its members) from one list entry.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
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
// A writer that expects `expected` entries (0: no idea) makes a new table that holds them
// from the start: that many slots and enough buckets, so that a bulk load neither grows nor
// re-chains it on the way.
struct CollectionControl {
  bool mounted = false;
  Ledger::LedgerMode mode = Ledger::LedgerMode::readOnly;
  std::string root;
  uint32_t capacity = 64;
  Zinc::Loop* loop = nullptr;
  uint32_t expected = 0;
};

// Mounts or unmounts `table` as `control` says.
template <class Table>
void applyControl(Table& table, const CollectionControl& control) {
  if (control.mounted) {
    const uint32_t capacity = std::max(control.capacity, control.expected);
    table.mountIs(control.mode, control.root, {}, capacity, control.loop,
                  Ledger::bucketsFor(control.expected));
  } else {
    table.unmount();
  }
}

// What a mutator knows of one key right after its own write or remove: the value it wrote
// (the table now holds exactly that), or that the key is gone. Validation reads the element
// through it instead of looking up and decoding what was just written; `none` sends it to
// the table (a write that was dropped or met corruption).
template <class K, class V>
class JustWritten {
 public:
  // The element under `key`: what was just written, else what the table holds (read into
  // `scratch`, made only then: a value may be large, a via set is 1.5 KB); null when absent.
  template <class Table>
  const V* read(Table& table, const K& key, std::unique_ptr<V>& scratch) const {
    if (key_ && *key_ == key) return value_;
    scratch = std::make_unique<V>();
    return table.lookup(key, *scratch) ? scratch.get() : nullptr;
  }

  // Holds `value` (or, with a null value, the absence of `key`) for the scope's duration.
  class Scope {
   public:
    Scope(JustWritten& held, const K& key, const V* value) : held_(held) {
      held_.key_ = &key;
      held_.value_ = value;
    }
    ~Scope() { held_.key_ = nullptr; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    JustWritten& held_;
  };

 private:
  const K* key_ = nullptr;
  const V* value_ = nullptr;
};

// A shared-memory collection of value records, bound to entity E.
template <class E, class V, class K>
using LedgerTable = Ledger::ZincLedgerMap<E, V, K>;

// The via sets: one table whose values vary in length (a fixed part of 44 bytes and 12 bytes
// per via key, up to 128 keys). Its slots hold a reference into the table's slabs, where each
// via set takes only the bytes it uses: a 2-via set costs a 24-byte slot and a 72-byte slab
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
// validates the key with verify<Attr>(key) and then notifies. A validation that reads the
// element does so through <attr>Validated(key): after a write or remove that took effect it
// gets the value just written (or the key's absence) without going back to the table.
#define MPLS_LEDGER_COLLECTION(attr, Attr, K, V, Table)                                    \
 public:                                                                                   \
  V attr(const K& k) const { return attr##_->get(k); }                                     \
  bool attr##Has(const K& k) const {                                                       \
    V v;                                                                                   \
    return attr##_->lookup(k, v);                                                          \
  }                                                                                        \
  void attr##Is(const V& v) {                                                              \
    ++attr##Counters_.is;                                                                  \
    const bool written = attr##_->write(v);                                                \
    attr##Verify(v.key(), &v, written);                                                    \
    notify(&NotifieeConst::on##Attr, v.key());                                             \
  }                                                                                        \
  void attr##Commit(const V* v) {                                                          \
    if (v) attr##Is(*v);                                                                   \
  }                                                                                        \
  void attr##Del(const K& k) {                                                             \
    ++attr##Counters_.del;                                                                 \
    const bool removed = attr##_->remove(k);                                               \
    attr##Verify(k, nullptr, removed);                                                     \
    notify(&NotifieeConst::on##Attr, k);                                                   \
  }                                                                                        \
  /* Validation's read of k: what the mutator holds, else the table. */                    \
  const V* attr##Validated(const K& k, std::unique_ptr<V>& scratch) const {                \
    return attr##Held_.read(*attr##_, k, scratch);                                         \
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
  /* Room for `count` more changes of the collection (LedgerWriter::reserveChanges). */    \
  void elementReserve(const V*, uint32_t count) { attr##_->reserveChanges(count); }        \
  const ::Mpls::CollectionCounters& attr##Counters() const { return attr##Counters_; }     \
                                                                                           \
 private:                                                                                  \
  std::unique_ptr<MPLS_PP_UNPAREN Table> attr##_ = MPLS_PP_UNPAREN Table::entity(          \
      #attr, this, &Self::attr##Changed, &Self::attr##NotifyCollection,                    \
      &Self::attr##NotifyMountStatus);                                                     \
  /* After a write or remove that took effect, the table holds `value` (null: nothing). */ \
  void attr##Verify(const K& k, const V* value, bool tookEffect) {                         \
    if (!tookEffect) return verify##Attr(k);                                               \
    typename ::Mpls::JustWritten<K, V>::Scope held(attr##Held_, k, value);                 \
    verify##Attr(k);                                                                       \
  }                                                                                        \
  ::Mpls::JustWritten<K, V> attr##Held_;                                                   \
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
