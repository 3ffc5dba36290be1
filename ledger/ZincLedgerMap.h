// ZincLedgerMap: one shared-memory table bound to one collection attribute of an entity.
//
// ZincOps<Key, Value> stores a framework value type in a slot through its serialised form
// (Zinc::Serial<Value>): packed little-endian attributes, key first, zero-padded to the slot's
// value size. A fixed-size type takes exactly its serialised size; a type with an inline array
// is given a value size that bounds how many elements the table holds (the caller picks a
// table whose capacity fits the value, see lfib/LfibStatus.h for the via-set size classes).
// Loading is bounded by the value size and refuses impossible bytes with a corruption
// exception, so a reader never trusts what the file holds.
//
// ZincLedgerMap<Entity, Value, Key, Ops> owns the table's LedgerMap and calls back into its
// entity: `onKey(key)` when one key changed and two collection-wide handlers (the table as a
// whole changed, its control/mount state changed). The back pointer to the entity is not a
// counted reference (the entity owns its tables); the entity's zero-references notifiee
// calls handleParent(nullptr) on each table before it goes, after which no callback runs.
//
// Mounting. Each entity mounts its tables under one folder of the ledger root:
//   <root>/<entity folder>/<attribute>/...   e.g. /dev/shm/ledger/lfib/status/mplsVia/slots
// where <root> is the argument, else $LEDGER_ROOT, else /dev/shm/ledger, and the entity
// folder is chosen by the entity (LfibStatus uses "lfib/<entity name>").
#pragma once

#include <bit>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ledger/LedgerMap.h"
#include "ledger/LedgerShadow.h"
#include "ledger/SlabOps.h"
#include "platform/shm/EmberFile.h"
#include "platform/shm/ReaderKick.h"
#include "zinc/Exception.h"
#include "zinc/Loop.h"
#include "zinc/Trace.h"
#include "zinc/Value.h"

namespace Ledger {

namespace Detail {
inline const Zinc::Trace& zincMapTrace() {
  static Zinc::Trace t("ZincLedgerMap");
  return t;
}
}  // namespace Detail

// The bucket count under which `entries` entries fit without the table re-chaining (it
// doubles its buckets when its entries outnumber them); 0 for no entries.
constexpr uint32_t bucketsFor(uint32_t entries) {
  if (entries == 0) return 0;
  return entries > kMaxSlots / 2 ? (kMaxSlots / 2) + 1 : std::bit_ceil(entries);
}
static_assert(bucketsFor(1000000) == 1u << 20 && bucketsFor(1u << 20) == 1u << 20);

template <class Key, class Value>
class ZincOps : public KeyOps<Key> {
 public:
  using Stored = Zinc::Serial<Value>;
  static_assert(std::is_same_v<typename Stored::Key, Key>, "a stored value starts with its key");
  static constexpr bool kDirect = false;
  static constexpr bool kRetires = false;

  // A fixed-size value takes its serialised size; a variable one its largest form.
  ZincOps() : valueSize_(static_cast<uint32_t>(Stored::size)) {}
  // A table of values whose serialised form is at most `valueSize` bytes.
  explicit ZincOps(uint32_t valueSize, std::string classSuffix = {})
      : valueSize_(valueSize), classSuffix_(std::move(classSuffix)) {
    ZINC_ASSERT(valueSize_ >= Zinc::Serial<Key>::size && valueSize_ <= Stored::size,
                "value size outside the serialised form's bounds");
  }

  uint32_t valueSize() const { return valueSize_; }
  bool fits(const Value& value) const { return Stored::length(value) <= valueSize_; }
  static Key keyOf(const Value& value) { return value.key(); }

  Key storedKey(const uint8_t* stored) const {
    Key key;
    try {
      Stored::loadKey(stored, key);
    } catch (const Zinc::Exception& e) {
      throw CorruptionException(std::string("ZincOps::storedKey() impossible key: ") + e.what());
    }
    return key;
  }
  void store(const Value& value, uint8_t* stored) const {
    ZINC_ASSERT(fits(value), "value does not fit the table's value size");
    size_t used = Stored::store(value, stored);
    std::memset(stored + used, 0, valueSize_ - used);
  }
  void load(const uint8_t* stored, Value& out) const {
    try {
      Stored::load(stored, valueSize_, out);
    } catch (const Zinc::Exception& e) {
      throw CorruptionException(std::string("ZincOps::load() impossible value: ") + e.what());
    }
  }
  bool sameStored(const uint8_t* stored, const Value& value) const {
    if (!fits(value)) return false;
    uint8_t buffer[Stored::size];
    size_t used = Stored::store(value, buffer);
    if (std::memcmp(stored, buffer, used) != 0) return false;
    for (size_t i = used; i < valueSize_; ++i) {
      if (stored[i] != 0) return false;
    }
    return true;
  }
  void retire(const uint8_t*) const {}
  void initStored(const Key&, uint8_t*) const {}
  std::string valueTypeName() const { return std::string(Value::zincTypeName()); }
  std::string classTypeName() const {
    return "Ledger::ZincLedgerMap<" + valueTypeName() + ">" + classSuffix_;
  }

 private:
  uint32_t valueSize_;
  std::string classSuffix_;
};

// The slab codec of a framework value type of variable length: its serialised form, key
// first, exactly as long as the value (a via set: fixed part plus the via keys it uses).
// Decoding refuses impossible bytes and bytes left over with a corruption exception.
template <class Key, class Value>
struct ZincSlabCodec {
  using Stored = Zinc::Serial<Value>;
  static_assert(std::is_same_v<typename Stored::Key, Key>, "a stored value starts with its key");
  static constexpr size_t kMaxEncodedSize = Stored::size;

  static size_t encodedSize(const Value& value) { return Stored::length(value); }
  static void encode(const Value& value, uint8_t* out) { Stored::store(value, out); }
  static void decode(const uint8_t* in, size_t size, Value& out) {
    size_t used = 0;
    try {
      used = Stored::load(in, size, out);
    } catch (const Zinc::Exception& e) {
      throw CorruptionException(std::string("ZincSlabCodec::decode() impossible value: ") +
                                e.what());
    }
    if (used != size) {
      throw CorruptionException("ZincSlabCodec::decode() " + std::to_string(size - used) +
                                " bytes after the value");
    }
  }
  static Key keyOfEncoded(const uint8_t* in, size_t size) {
    Key key;
    if (size < Zinc::Serial<Key>::size) {
      throw CorruptionException("ZincSlabCodec::keyOfEncoded() " + std::to_string(size) +
                                " bytes hold no key");
    }
    try {
      Stored::loadKey(in, key);
    } catch (const Zinc::Exception& e) {
      throw CorruptionException(std::string("ZincSlabCodec::keyOfEncoded() impossible key: ") +
                                e.what());
    }
    return key;
  }
  static Key keyOf(const Value& value) { return value.key(); }
  static std::string typeName() { return std::string(Value::zincTypeName()); }
};

template <class Key, class Value>
using ZincSlabOps = SlabOps<Key, Value, ZincSlabCodec<Key, Value>>;

template <class Entity, class Value, class Key, class OpsT = ZincOps<Key, Value>>
class ZincLedgerMap {
 public:
  using Map = LedgerMap<Key, Value, OpsT>;
  using Shadow = LedgerShadow<Key, Value, OpsT, KeyShadowSlot>;
  using KeyHandler = void (Entity::*)(const Key&) const;
  using CollectionHandler = void (Entity::*)() const;

  // Binds the attribute `name` of `entity`: onKey for one changed key, onCollection when the
  // table as a whole changed (mounted, resynchronised, emptied), onControl when its mount
  // state changed. Any handler may be null.
  static std::unique_ptr<ZincLedgerMap> entity(std::string name, Entity* entity, KeyHandler onKey,
                                               CollectionHandler onCollection = nullptr,
                                               CollectionHandler onControl = nullptr,
                                               OpsT ops = OpsT()) {
    return std::unique_ptr<ZincLedgerMap>(
        new ZincLedgerMap(std::move(name), entity, onKey, onCollection, onControl, ops));
  }
  ~ZincLedgerMap() {
    ZTRACE_TO(Detail::zincMapTrace(), 8,
              "ZincLedgerMap::~ZincLedgerMap() deleting state " << name_);
    dropMap();
  }
  ZincLedgerMap(const ZincLedgerMap&) = delete;
  ZincLedgerMap& operator=(const ZincLedgerMap&) = delete;

  const std::string& name() const { return name_; }
  std::string classType() const { return ops_.classTypeName(); }
  const OpsT& ops() const { return ops_; }
  // The mounted table's LedgerMap (mounted() first).
  Map& ledgerMap() { return *map_; }
  // Corruptions this table has met so far: none while it is not mounted.
  uint64_t corruptions() const { return map_ ? map_->corruptions() : 0; }
  bool mounted() const { return map_ && map_->initialized(); }
  // The folder under the root that holds this table.
  const std::string& tableName() const { return table_; }

  // Mounts the table `<folder>/<name>` under `root` with a fresh LedgerMap.
  //  - writer: attaches now (adopting existing files) and kicks the table's readers after each
  //    batch of changes: at the end of the loop iteration when `loop` is given, else when
  //    flushKicks() is called;
  //  - readOnly with a loop: a LedgerShadow follows the table on that loop (mounting when the
  //    writer appears) and reports every changed key to the entity. It is a key shadow: it
  //    keeps each slot's key and a digest of its value, not a copy of the value, so a reader
  //    of a million-route table holds a few dozen bytes per entry instead of the table
  //    twice; lookups and iteration read the writer's table (they see its latest values,
  //    which may be ahead of the notifications delivered so far);
  //  - readOnly without a loop: stays on the dummy until readerIs() hands a table over.
  //  `minBuckets` (0: the table's default) is a writer's floor for the bucket count of the
  //  table, a power of two: with bucketsFor(n), n entries go in without re-chaining.
  void mountIs(LedgerMode mode, const std::string& root, const std::string& folder,
               uint32_t capacity = 64, Zinc::Loop* loop = nullptr, uint32_t minBuckets = 0) {
    dropMap();
    LedgerConfig config;
    config.root = root;
    table_ = folder.empty() ? name_ : folder + "/" + name_;
    config.table = table_;
    config.capacity = capacity;
    if (minBuckets != 0) config.minBuckets = minBuckets;
    map_ = std::make_unique<Map>(config, mode, ops_);
    map_->corruptionHandlerIs([this](const std::string&) { collectionChanged(); });
    if (mode == LedgerMode::writer) {
      map_->initialize();
      attachKicker(root, loop);
    } else if (loop) {
      mountShadow(root, *loop);
    }
    controlChanged();
    collectionChanged();
  }
  void readerIs(std::unique_ptr<LedgerBase<Key, Value>> table) {
    if (!map_) throw Zinc::Exception("ZincLedgerMap::readerIs() " + name_ + " is not mounted");
    shadow_ = nullptr;  // a shadow mounted before is replaced, and goes with its table
    map_->tableIs(std::move(table));
    controlChanged();
    collectionChanged();
  }
  // Kicks the readers if something changed since the last kick.
  void flushKicks() {
    if (kicker_) kicker_->flush();
  }
  // Reader side: the shadow has consumed everything the writer published so far.
  bool inStep() const { return !shadow_ || (shadow_->inStep() && shadow_->quiesced()); }
  Shadow* shadow() const { return shadow_; }
  void unmount() {
    if (!map_) return;
    shadow_ = nullptr;  // detach() drops the shadow with its table
    map_->detach();
    controlChanged();
  }

  // ---- reads ----
  bool lookup(const Key& key, Value& out) { return map_ && map_->lookup(key, out); }
  // The writer side starts fetching one stage of what a write of `key` touches (see
  // LedgerMap::prefetch); unmounted or read-only, nothing happens.
  void prefetch(const Key& key, PrefetchStage stage = PrefetchStage::bucket) {
    if (map_) map_->prefetch(key, stage);
  }
  static uint32_t keyHash(const Key& key) { return Map::keyHash(key); }
  void prefetchHashed(uint32_t hash, PrefetchStage stage = PrefetchStage::bucket) {
    if (map_) map_->prefetchHashed(hash, stage);
  }
  Value get(const Key& key) {
    Value value = Zinc::initialValue<Value>();
    if (!lookup(key, value)) value = Zinc::initialValue<Value>();
    return value;
  }
  bool has(const Key& key) {
    Value value;
    return lookup(key, value);
  }
  uint32_t members() const {
    return mounted() && map_->table().connected() ? map_->table().members() : 0;
  }

  // ---- writes (the writer side); no man's land drops them with a trace ----
  bool write(const Value& value) {
    if (!map_) return noMansLand("safeWrite");
    return map_->safeWrite(value);
  }
  bool remove(const Key& key) {
    if (!map_) return noMansLand("safeRemove");
    return map_->safeRemove(key);
  }
  void reserveChanges(uint32_t count) {
    if (map_) map_->reserveChanges(count);
  }
  void corruptionDetected(const std::string& reason) {
    if (map_) map_->corruptionDetected(reason);
  }
  bool validateFiles() {
    ZTRACE_TO(Detail::zincMapTrace(), 7,
              "ZincLedgerMap::validateFiles() delegating to LedgerMap::validateFiles " << name_);
    return map_ && map_->validateFiles();
  }

  // ---- callbacks into the entity (the reader side calls keyChanged per changed key) ----
  void keyChanged(const Key& key) const {
    if (entity_ && onKey_) (entity_->*onKey_)(key);
  }
  void collectionChanged() const {
    if (entity_ && onCollection_) (entity_->*onCollection_)();
  }
  void controlChanged() const {
    if (entity_ && onControl_) (entity_->*onControl_)();
  }
  // The entity this table reports to; null detaches the callbacks (entity going away).
  void handleParent(Entity* parent) { entity_ = parent; }
  Entity* parent() const { return entity_; }

  // Iteration in table order, also while the table changes (next() finds the successor of a
  // key that has gone).
  class IteratorConst {
   public:
    bool done() const { return !valid_; }
    explicit operator bool() const { return valid_; }
    const Value& operator*() const { return value_; }
    const Value* operator->() const { return &value_; }
    IteratorConst& operator++() {
      map_->advance(*this);
      return *this;
    }

   private:
    friend class ZincLedgerMap;
    ZincLedgerMap* map_ = nullptr;
    Value value_ = Zinc::initialValue<Value>();
    bool valid_ = false;
  };
  IteratorConst iterator() {
    IteratorConst it;
    it.map_ = this;
    it.valid_ = map_ && map_->first(it.value_);
    return it;
  }
  void advance(IteratorConst& it) {
    if (!it.valid_) return;
    Value next = Zinc::initialValue<Value>();
    it.valid_ = map_->next(it.value_.key(), next);
    if (it.valid_) it.value_ = next;
  }

 private:
  ZincLedgerMap(std::string name, Entity* entity, KeyHandler onKey, CollectionHandler onCollection,
                CollectionHandler onControl, OpsT ops)
      : name_(std::move(name)),
        entity_(entity),
        onKey_(onKey),
        onCollection_(onCollection),
        onControl_(onControl),
        ops_(std::move(ops)) {}
  void attachKicker(const std::string& root, Zinc::Loop* loop) {
    auto* writer = dynamic_cast<LedgerWriter<Key, Value, OpsT>*>(&map_->table());
    if (!writer) return;
    Mem::ReaderKickSm::Defer defer;
    if (loop) defer = [loop](std::function<void()> fn) { loop->defer(std::move(fn)); };
    kicker_ = std::make_unique<Mem::ReaderKickSm>(SharedMem::rootPath(root) + "/" + table_, defer);
    writer->rally().kickHookIs([kicker = kicker_.get()] { kicker->commitNotify(); });
  }
  void mountShadow(const std::string& root, Zinc::Loop& loop) {
    Notify<Key, Value> notify;
    notify.onKey = [this](const Key& key, const Value*) { keyChanged(key); };
    auto shadow = std::make_unique<Shadow>(ReaderConfig{root, table_}, loop, notify, ops_);
    shadow_ = shadow.get();
    // Counted and traced by the map, whose own handler tells the entity.
    shadow->corruptionHandlerIs(
        [map = map_.get()](const std::string& why) { map->corruptionDetected(why); });
    shadow->initialize();
    map_->loopIs(&loop);
    map_->tableIs(std::move(shadow));
  }
  // The table goes, and then its kicker, which announces the writer's last changes.
  void dropMap() {
    shadow_ = nullptr;
    map_.reset();
    kicker_.reset();
  }
  bool noMansLand(const char* operation) const {
    ZTRACE_TO(Detail::zincMapTrace(), 1,
              "LedgerMap::" << operation << "() in no man's land " << name_);
    return false;
  }

  std::string name_;
  std::string table_;
  Entity* entity_;
  KeyHandler onKey_;
  CollectionHandler onCollection_;
  CollectionHandler onControl_;
  OpsT ops_;
  std::unique_ptr<Mem::ReaderKickSm> kicker_;  // outlives the writer, whose hook calls it
  std::unique_ptr<Map> map_;
  Shadow* shadow_ = nullptr;  // owned by map_
};

}  // namespace Ledger
