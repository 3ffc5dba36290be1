// LedgerBaseDummy, LedgerMap and LedgerTemporary: the handles an agent holds on a table.
//
// LedgerMap is the mode-independent handle: it starts on a LedgerBaseDummy (every operation
// refused), owns the real table once initialised, refuses writes in read-only mode, and turns
// corruption met on any access into corruptionDetected(): logged, counted, reported to the
// owner's handler, and (on the writer side) repaired by re-attaching, after which the access
// carries on as if the entry were absent. In writer mode, given a loop, it wakes the table's
// readers at most once per loop iteration after commits. In read-only mode it mounts a
// LedgerShadow (mountShadow), or takes any reader handed over with tableIs().
#pragma once

#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ledger/LedgerBase.h"
#include "ledger/LedgerShadow.h"
#include "ledger/LedgerWriter.h"
#include "platform/shm/ReaderKick.h"
#include "zinc/Trace.h"

namespace Ledger {

namespace Detail {
inline const Zinc::Trace& mapTrace() {
  static Zinc::Trace t("LedgerMap");
  return t;
}
}  // namespace Detail

template <class Key, class Value>
class LedgerBaseDummy : public LedgerBase<Key, Value> {
 public:
  bool lookup(const Key&, Value&) override { return refuse("lookup"); }
  bool first(Value&) override { return refuse("first"); }
  bool next(const Key&, Value&, uint32_t*) override { return refuse("next"); }
  const void* write(const Value&, WriteFlag) override { return refuse("write"), nullptr; }
  bool remove(const Key&, Value*) override { return refuse("remove"); }
  Value* directWrite(const Key&) override { return refuse("directWrite"), nullptr; }
  Value* directUpdate(const Key&) override { return refuse("directUpdate"), nullptr; }
  void directCommit() override { refuse("directCommit"); }
  uint32_t capacity() const override { return refuse("capacity"), 0; }
  uint32_t maxSize() const override { return refuse("maxSize"), 0; }
  uint32_t minSize() const override { return refuse("minSize"), 0; }
  uint32_t members() const override { return refuse("members"), 0; }
  uint64_t sequence() const override { return refuse("sequence"), 0; }
  bool connected() const override { return refuse("connected"); }
  bool quiesced() const override { return refuse("quiesced"); }
  uint32_t emberId() const override { return refuse("emberId"), 0; }
  MountStatus mountStatus() const override { return refuse("mountStatus"), MountStatus::unmounted; }
  bool initialize() override { return refuse("initialize"); }
  bool validate() override { return refuse("validate"); }
  bool validate(uint32_t) override { return refuse("validate"); }
  bool validateFiles() override { return refuse("validateFiles"); }
  bool cleanup() override { return refuse("cleanup"); }
  void detach() override { refuse("detach"); }

 private:
  static bool refuse(const char* operation) {
    ZTRACE_TO(Detail::mapTrace(), 3, "LedgerBaseDummy::" << operation << "() ");
    return false;
  }
};

enum class LedgerMode { writer, readOnly };

// How far a fetch ahead of a write has come, one stage per call, each for a key whose previous
// stage was started a while ago (LedgerWriter): its bucket head, then the first slot of its
// chain, then what that slot's stored form refers to (a slab payload, for values kept out of
// line).
enum class PrefetchStage { bucket, firstSlot, firstStored };

template <class Key, class Value, class OpsT = Ops<Key, Value>>
class LedgerMap {
 public:
  using CorruptionHandler = std::function<void(const std::string& reason)>;

  LedgerMap(LedgerConfig config, LedgerMode mode, OpsT ops = OpsT())
      : config_(std::move(config)), mode_(mode), ops_(std::move(ops)) {}
  // The table detaches before the kicker goes, which announces the writer's last changes.
  ~LedgerMap() {
    *alive_ = false;
    table_->detach();
  }

  // Writer mode: attaches a LedgerWriter (adopting, recovering or creating the files).
  // Read-only mode: the handle stays on the dummy until a reader is mounted into it.
  bool initialize() {
    if (mode_ == LedgerMode::readOnly) return false;
    auto writer = std::make_unique<LedgerWriter<Key, Value, OpsT>>(config_, ops_);
    writer->attach();
    if (loop_) wakeReadersOf(*writer);
    writer_ = writer.get();
    table_ = std::move(writer);
    initialized_ = true;
    return true;
  }
  // The reader side hands its mounted table over here.
  void tableIs(std::unique_ptr<LedgerBase<Key, Value>> table) {
    replaceTable(table ? std::move(table) : std::make_unique<LedgerBaseDummy<Key, Value>>());
    writer_ = nullptr;
    initialized_ = true;
  }
  // Read-only mode: mounts a shadow of the writer's table on `loop`; it keeps retrying until
  // the writer appears. Its corruption reports reach corruptionDetected(), and its first
  // moment in step advertises the collection ready. True when mounted at once.
  template <class Notify_ = Notify<Key, Value>>
  bool mountShadow(Zinc::Loop& loop, Notify_ notify = DummyShadowNotifier(),
                   ShadowOptions options = ShadowOptions()) {
    auto shadow = std::make_unique<LedgerShadow<Key, Value, OpsT>>(
        ReaderConfig{config_.root, config_.table}, loop, std::move(notify), ops_, options);
    shadow->corruptionHandlerIs([this](const std::string& why) { corruptionDetected(why); });
    shadow->readyHookIs([this] { advertiseCollectionReady(); });
    loop_ = &loop;
    bool mounted = shadow->initialize();
    tableIs(std::move(shadow));
    return mounted;
  }
  // The loop the map's tables run on. Writer mode: the readers are woken on it (set before
  // initialize()). Read-only: the shadow mounted into tableIs() follows the table on it
  // (mountShadow() sets it itself).
  void loopIs(Zinc::Loop* loop) { loop_ = loop; }

  // The bound collection learns once that the table is ready.
  void collectionReadyHandlerIs(std::function<void()> handler) {
    collectionReadyHandler_ = std::move(handler);
  }
  bool advertiseCollectionReady() {
    if (collectionAdvertised_) {
      ZTRACE_TO(Detail::mapTrace(), 3,
                "LedgerMap::advertiseCollectionReady() collection already advertised");
      return false;
    }
    collectionAdvertised_ = true;
    if (collectionReadyHandler_) collectionReadyHandler_();
    return true;
  }
  bool collectionAdvertised() const { return collectionAdvertised_; }
  // Per-key notifications on or off (see LedgerShadow::notifying); refused before the map is
  // initialised.
  bool notifying(bool on) {
    if (!initialized_) {
      ZTRACE_TO(Detail::mapTrace(), 0,
                "LedgerMap::notifying() not allowed at this time, initialized:" << initialized_);
      return false;
    }
    table_->notifying(on);
    return true;
  }

  bool initialized() const { return initialized_; }
  bool readOnly() const { return mode_ == LedgerMode::readOnly; }
  LedgerBase<Key, Value>& table() { return *table_; }
  void corruptionHandlerIs(CorruptionHandler handler) { corruptionHandler_ = std::move(handler); }
  uint64_t corruptions() const { return corruptions_; }

  bool lookup(const Key& key, Value& out) {
    return guarded("lookup", [&] { return table_->lookup(key, out); });
  }
  // Writer mode: starts fetching `stage` of what a look-up or write of `key` will touch; the
  // other modes ignore it.
  void prefetch(const Key& key, PrefetchStage stage = PrefetchStage::bucket) {
    if (writer_) prefetchHashed(OpsT::hash(key), stage);
  }
  // The same for the key whose keyHash() is `hash`: a caller that takes a key through the
  // stages hashes it once.
  static uint32_t keyHash(const Key& key) { return OpsT::hash(key); }
  void prefetchHashed(uint32_t hash, PrefetchStage stage = PrefetchStage::bucket) {
    if (!writer_) return;
    switch (stage) {
      case PrefetchStage::bucket:
        return writer_->prefetchBucket(hash);
      case PrefetchStage::firstSlot:
        return writer_->prefetchChain(hash);
      case PrefetchStage::firstStored:
        return writer_->prefetchFirstStored(hash);
    }
  }
  bool first(Value& out) {
    return guarded("first", [&] { return table_->first(out); });
  }
  bool next(const Key& prev, Value& out, uint32_t* hint = nullptr) {
    return guarded("next", [&] { return table_->next(prev, out, hint); });
  }
  const void* write(const Value& value, WriteFlag flag = WriteFlag::always) {
    if (refusedReadOnly("write")) return nullptr;
    const void* stored = nullptr;
    guarded("write", [&] { return (stored = table_->write(value, flag)) != nullptr; });
    return stored;
  }
  bool remove(const Key& key, Value* out = nullptr) {
    if (refusedReadOnly("remove")) return false;
    return guarded("remove", [&] { return table_->remove(key, out); });
  }
  // Writer mode: LedgerWriter::reserveChanges; the other modes have nothing to reserve.
  void reserveChanges(uint32_t count) {
    if (writer_) writer_->reserveChanges(count);
  }
  // Writes that may come at any time, also while no table is attached ("no man's land"
  // between a detach and the next attach): dropped with a trace instead of refused loudly.
  bool safeWrite(const Value& value) {
    if (!inNoMansLand("safeWrite")) return write(value) != nullptr;
    return false;
  }
  bool safeRemove(const Key& key) {
    if (!inNoMansLand("safeRemove")) return remove(key);
    return false;
  }
  bool validate() { return !refusedReadOnly("validate") && table_->validate(); }
  bool validateFiles() { return !refusedReadOnly("validateFiles") && table_->validateFiles(); }
  bool cleanup() {
    if (refusedReadOnly("cleanup")) return false;
    initialized_ = false;
    bool removed = table_->cleanup();
    table_ = std::make_unique<LedgerBaseDummy<Key, Value>>();
    writer_ = nullptr;
    return removed;
  }
  void cleanupAndDetach() {
    if (!initialized_) {
      ZTRACE_TO(Detail::mapTrace(), 0,
                "LedgerMap::cleanupAndDetach() " << config_.table
                                                 << " trying to cleanup uninitialized ledger.");
      return;
    }
    if (!readOnly()) cleanup();
    detach();
  }
  void detach() {
    table_->detach();
    replaceTable(std::make_unique<LedgerBaseDummy<Key, Value>>());
    writer_ = nullptr;
    initialized_ = false;
  }

  void corruptionDetected(const std::string& reason) {
    ++corruptions_;
    ZTRACE_TO(Detail::mapTrace(), 0,
              "LedgerMap::corruptionDetected() " << config_.table << " " << reason);
    if (corruptionHandler_) corruptionHandler_(reason);
    if (!writer_) return;
    // Validate, then recover or re-format. Called from reads, which carry on as if the entry
    // were absent: files that cannot be mapped again leave the table detached (writes to it
    // are dropped, traced), not an exception out of a lookup.
    try {
      writer_->attach();
    } catch (const Zinc::Exception& e) {
      ZTRACE_TO(Detail::mapTrace(), 0,
                "LedgerMap::corruptionDetected() " << config_.table
                                                   << " cannot attach again: " << e.what());
    }
  }

 private:
  // Asked on every write: the checks inline, the traces stay out of the way.
  bool refusedReadOnly(const char* operation) {
    if (!readOnly()) [[likely]]
      return false;
    traceRefused(operation);
    return true;
  }
  bool inNoMansLand(const char* operation) {
    if (initialized_ && table_->connected()) [[likely]]
      return false;
    traceNoMansLand(operation);
    return true;
  }
  [[gnu::cold, gnu::noinline]] void traceRefused(const char* operation) const {
    ZTRACE_TO(Detail::mapTrace(), 0, operation << " to read-only Ledger table " << config_.table);
  }
  [[gnu::cold, gnu::noinline]] void traceNoMansLand(const char* operation) const {
    ZTRACE_TO(Detail::mapTrace(), 1,
              "LedgerMap::" << operation << "() in no man's land " << config_.table << ", dropped");
  }
  template <class F>
  bool guarded(const char* operation, F&& f) {
    try {
      return f();
    } catch (const CorruptionException& e) {
      corruptionDetected(std::string(operation) + ": " + e.what());
      return false;
    }
  }

  LedgerConfig config_;
  LedgerMode mode_;
  OpsT ops_;
  std::unique_ptr<LedgerBase<Key, Value>> table_ = std::make_unique<LedgerBaseDummy<Key, Value>>();
  LedgerWriter<Key, Value, OpsT>* writer_ = nullptr;
  bool initialized_ = false;
  CorruptionHandler corruptionHandler_;
  uint64_t corruptions_ = 0;
  Zinc::Loop* loop_ = nullptr;
  std::unique_ptr<Mem::ReaderKickSm> kicker_;
  std::function<void()> collectionReadyHandler_;
  bool collectionAdvertised_ = false;

  // A shadow's notifiee, or its corruption handler, may detach or remount the map from inside
  // the shadow's own call: the table it replaces lives on, detached, until the loop's next
  // turn, so that the call returns through a live object.
  std::vector<std::unique_ptr<LedgerBase<Key, Value>>> retired_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);

  void replaceTable(std::unique_ptr<LedgerBase<Key, Value>> next) {
    std::unique_ptr<LedgerBase<Key, Value>> old = std::exchange(table_, std::move(next));
    if (!loop_) return;  // no table on a loop: nothing of the old one is running
    retired_.push_back(std::move(old));
    if (retired_.size() > 1) return;  // its clearing is on the way
    loop_->defer([this, alive = alive_] {
      if (*alive) retired_.clear();
    });
  }

  void wakeReadersOf(LedgerWriter<Key, Value, OpsT>& writer) {
    Zinc::Loop* loop = loop_;
    kicker_ = std::make_unique<Mem::ReaderKickSm>(
        SharedMem::rootPath(config_.root) + "/" + config_.table,
        [loop](std::function<void()> fn) { loop->defer(std::move(fn)); });
    writer.rally().kickHookIs([kicker = kicker_.get()] { kicker->commitNotify(); });
  }
};

// A writer on a table of its own (a unique name under the root), removed when it goes.
template <class Key, class Value, class OpsT = Ops<Key, Value>>
class LedgerTemporary : public LedgerWriter<Key, Value, OpsT> {
 public:
  explicit LedgerTemporary(LedgerConfig config = {}, OpsT ops = OpsT())
      : LedgerWriter<Key, Value, OpsT>(withUniqueName(std::move(config)), std::move(ops)) {
    this->attach();
  }
  ~LedgerTemporary() override { this->cleanup(); }

 private:
  static LedgerConfig withUniqueName(LedgerConfig config) {
    static std::atomic<uint32_t> counter{0};
    config.table = "tmp-" + (config.table.empty() ? std::string("table") : config.table) + "-" +
                   std::to_string(::getpid()) + "-" + std::to_string(counter++);
    return config;
  }
};

}  // namespace Ledger
