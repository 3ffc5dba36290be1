// LedgerShadow: a reader that keeps a private copy of a table (its shadow) and follows the
// writer's changes through the rally queue, telling its notifiee key by key what was added,
// changed or deleted. Lookups are answered from the shadow without touching shared memory.
//
// States: detached -> attached (files mapped) -> syncing (Syncer walking every slot, rally
// off) -> in step (rally on, per-key notifications) -> detached. Falling out of step (the
// writer re-attached, the queue is inconsistent, corruption) goes back to syncing.
//
// Wake-ups: the shadow registers for kicks in the table's folder (a socket, and an eventfd it
// hands to the writer) and watches them on the notification loop; an idle shadow sleeps in
// the loop's epoll. The writer's re-attach is seen on the next kick (its incarnation
// changed), and a slow health check notices a table whose files were removed and made anew
// (nobody would kick us there).
//
// A shadow that cannot mount because the table does not exist yet retries on a timer
// (ReaderMounter) until the writer appears.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ledger/LedgerReader.h"
#include "ledger/RallyReader.h"
#include "ledger/ShadowStore.h"
#include "ledger/Syncer.h"
#include "platform/shm/EmberFile.h"
#include "platform/shm/ReaderKick.h"
#include "zinc/Loop.h"

namespace Ledger {

struct ShadowOptions {
  std::chrono::microseconds yieldTime{2000};    // longest sync slice
  std::chrono::milliseconds mountRetry{100};    // ReaderMounter period
  std::chrono::milliseconds healthCheck{1000};  // files removed and made anew?
  uint32_t rallySlice = 8192;                   // notifications per loop iteration
};

enum class ShadowState { detached, attached, syncing, inStep };

template <class Key, class Value, class OpsT = Ops<Key, Value>, class SlotKind = ValueShadowSlot>
class LedgerShadow : public ReadOnlyLedger<Key, Value> {
 public:
  using Store = ShadowStore<Key, Value, OpsT, SlotKind>;
  using CorruptionHandler = std::function<void(const std::string&)>;

  LedgerShadow(ReaderConfig config, Zinc::Loop& loop,
               Notify<Key, Value> notify = DummyShadowNotifier(), OpsT ops = OpsT(),
               ShadowOptions options = ShadowOptions())
      : config_(std::move(config)),
        loop_(loop),
        options_(options),
        reader_(config_, std::move(ops)),
        store_(reader_, std::move(notify)),
        syncer_(loop, syncHooks()) {
    syncer_.yieldTimeIs(options_.yieldTime);
    rally_.ackHookIs([this](uint64_t consumed) {
      if (kick_) kick_->acknowledge(consumed);
    });
    // An entry that does not decode is reported and passed over as if absent; no resync,
    // which would only meet it again.
    store_.corruptionHookIs([this](const std::string& why) {
      if (onCorruption_) onCorruption_(why);
    });
  }
  ~LedgerShadow() override {
    *alive_ = false;
    if (state_ != ShadowState::detached) detach();
    stopMounter();
  }

  // Mounts now if the table exists, else keeps retrying on a timer. True when mounted now.
  bool initialize() override {
    if (state_ != ShadowState::detached) return true;
    if (mount()) return true;
    startMounter();
    return false;
  }
  void detach() override {
    stopMounter();
    if (state_ == ShadowState::detached) {
      ZTRACE_TO(ShadowDetail::trace(), 0, "LedgerShadow::detach() already detached");
      return;
    }
    unmount();
    ZTRACE_TO(ShadowDetail::trace(), 1, "LedgerShadow::detach() detached");
  }

  ShadowState state() const { return state_; }
  bool inStep() const { return state_ == ShadowState::inStep; }
  void yieldTimeIs(std::chrono::microseconds t) { syncer_.yieldTimeIs(t); }
  // Per-key notifications off: a shadow in step keeps following the writer, silently; a sync
  // waits until they are on again, so that every key it finds is told.
  void notifying(bool on) override { notifying_ = on; }
  void corruptionHandlerIs(CorruptionHandler handler) {
    reader_.corruptionHandlerIs(handler);  // a key shadow's reads of the writer's table
    onCorruption_ = std::move(handler);
  }
  // Runs once, when the first sync has filled the shadow and it follows the writer: the
  // moment to advertise the bound collection as ready (LedgerMap::advertiseCollectionReady).
  void readyHookIs(std::function<void()> hook) { onReady_ = std::move(hook); }
  void notifyIs(Notify<Key, Value> notify) { store_.notifyIs(std::move(notify)); }
  Store& store() { return store_; }
  RallyReader& rally() { return rally_; }
  LedgerReader<Key, Value, OpsT>& reader() { return reader_; }
  // The name by which the writer knows this reader (LedgerWriter::clientQuiesced), empty
  // before the first mount; a new one when its registration had to be made anew.
  std::string readerName() const { return kick_ ? kick_->name() : std::string(); }
  uint64_t resyncs() const { return resyncs_; }
  uint64_t kicks() const { return kicks_; }

  // Requests a full re-walk (as after falling out of step).
  void resync(const std::string& why) {
    if (state_ == ShadowState::detached) return;  // the mounter syncs when it mounts
    ZTRACE_TO(ShadowDetail::trace(), 1,
              "LedgerShadow::resync() Out-of-sync, re-synchronizing local shadow " << config_.table
                                                                                   << ": " << why);
    ++resyncs_;
    if (writerChanged() && !remountFiles()) return;
    startSync(true);
  }

  // A value shadow answers from its copy; a key shadow reads the writer's table directly.
  // Either way an entry that does not decode, or a broken table, goes to the corruption
  // handler and reads as absent (a walk passes over the entry); without a handler a key
  // shadow throws it, as LedgerReader does.
  bool lookup(const Key& key, Value& out) override {
    if constexpr (SlotKind::kValues) {
      return store_.lookup(key, out);
    } else {
      return reader_.attached() && reader_.lookup(key, out);
    }
  }
  bool first(Value& out) override {
    if constexpr (SlotKind::kValues) {
      return fromSlot(store_.firstInOrder(), out, nullptr);
    } else {
      return reader_.attached() && reader_.first(out);
    }
  }
  // A value shadow walks its keys in table order, ascending (rhash, key), as the writer's
  // table does. The key after `prev` is found from `prev` itself, held or not: a walk spread
  // over several turns of the loop goes on where it was whatever the loop did meanwhile,
  // seeing once each key held throughout, and the hint is not needed.
  bool next(const Key& prev, Value& out, uint32_t* hint = nullptr) override {
    if constexpr (SlotKind::kValues) {
      return fromSlot(store_.afterInOrder(prev), out, hint);
    } else {
      return reader_.attached() && reader_.next(prev, out, hint);
    }
  }

  uint32_t capacity() const override { return store_.numSlots(); }
  uint32_t maxSize() const override { return kMaxSlots; }
  uint32_t minSize() const override { return 0; }
  uint32_t members() const override { return store_.members(); }
  uint64_t sequence() const override { return rally_.lastSeq(); }
  bool connected() const override { return state_ != ShadowState::detached; }
  // In step, and every notification up to the writer's latest consumed.
  bool quiesced() const override { return inStep() && rally_.quiesced(); }
  uint32_t emberId() const override { return reader_.emberId(); }
  MountStatus mountStatus() const override {
    if (state_ != ShadowState::detached) return MountStatus::mounted;
    return mounterTimer_ ? MountStatus::mounting : MountStatus::unmounted;
  }
  ReaderCounters readerCounters() const override { return reader_.readerCounters(); }

 private:
  void refuse(const char* what) const override { ZTRACE_TO(ShadowDetail::trace(), 0, what); }
  std::string tableDir() const { return SharedMem::rootPath(config_.root) + "/" + config_.table; }

  typename Syncer::Hooks syncHooks() {
    typename Syncer::Hooks h;
    h.doSlots = [this](uint32_t first, uint32_t last) {
      return store_.syncSlots(first, last, notifying_,
                              [this, epoch = syncer_.epoch()] { return syncer_.epoch() != epoch; });
    };
    h.slotsToWalk = [this] { return std::max(reader_.slotTable().numSlots(), store_.numSlots()); };
    h.notificationsEnabled = [this] { return notifying_; };
    h.done = [this] { syncComplete(); };
    h.corruption = [this](const std::string& why) { corruptionDetected(why); };
    return h;
  }

  // Maps the files and starts the first sync; false (and nothing mapped) when they are not
  // there or not readable yet.
  bool mount() {
    try {
      // Registered first: a kick for anything after the sync's starting point reaches us.
      if (!kick_) kick_ = std::make_unique<Mem::ReaderKickListener>(tableDir());
      reader_.attach();
      rally_.attach(config_.root, config_.table, reader_.emberId());
    } catch (const Zinc::Exception& e) {
      lastMountError_ = e.what();
      if (reader_.attached()) reader_.detach();
      return false;
    }
    identity_ = reader_.slotTable().fileIdentity();
    kick_->watchOn(loop_, [this] { onKick(); });
    healthTimer_ = loop_.timerEvery(options_.healthCheck, [this] { healthCheck(); });
    state_ = ShadowState::attached;
    ZTRACE_TO(
        ShadowDetail::trace(), 1,
        "LedgerShadow::initialize() attached " << config_.table << " ember:" << reader_.emberId());
    startSync(false);
    return true;
  }

  void unmount() {
    syncer_.interrupt();
    if (kick_) kick_->unwatch(loop_);
    kick_.reset();
    if (healthTimer_) loop_.timerDel(healthTimer_);
    healthTimer_ = 0;
    if (retryTimer_) loop_.timerDel(retryTimer_);
    retryTimer_ = 0;
    rally_.detach();
    if (reader_.attached()) reader_.detach();
    state_ = ShadowState::detached;
  }

  void startMounter() {
    if (mounterTimer_) return;
    ZTRACE_TO(ShadowDetail::trace(), 1,
              "ReaderMounter::timeout() start retrying to mount "
                  << config_.table
                  << ". This message can be safely ignored if the writer is not running.");
    ZTRACE_TO(ShadowDetail::trace(), 1,
              "ReaderMounter::timeout() " << config_.table << " not mounted: " << lastMountError_);
    mountTries_ = 0;
    mounterTimer_ = loop_.timerEvery(options_.mountRetry, [this] {
      ++mountTries_;
      if (!mount()) return;
      ZTRACE_TO(ShadowDetail::trace(), 1,
                " ReaderMounter::timeout() remounted after " << mountTries_ << " tries");
      stopMounter();
    });
  }
  void stopMounter() {
    if (mounterTimer_) loop_.timerDel(mounterTimer_);
    mounterTimer_ = 0;
  }

  void startSync(bool resync) {
    state_ = ShadowState::syncing;
    rallyScheduled_ = false;
    // The sync starts where the queue ends; a queue that cannot be read (a count beyond its
    // capacity, a generation without a file) is corruption, tried again later.
    try {
      rally_.skipToEnd();
    } catch (const CorruptionException& e) {
      syncer_.interrupt();  // a sync under way from before must not end this one in step
      corruptionDetected(e.what());
      return;
    }
    if (kick_) kick_->acknowledge(Mem::kNotInStep);
    store_.reserve();
    syncer_.sync(resync);
  }

  void syncComplete() {
    ZTRACE_TO(ShadowDetail::trace(), 3,
              "LedgerShadow::syncComplete() Synchronization complete, seq:" << rally_.lastSeq());
    store_.tryShrink(reader_.slotTable().numSlots());
    maybeEnableRally();
    if (inStep() && !advertised_) {
      advertised_ = true;
      if (onReady_) onReady_();
    }
  }

  void maybeEnableRally() {
    const bool done = !syncer_.syncing();
    const bool ready = rally_.attached();
    ZTRACE_TO(ShadowDetail::trace(), 5,
              "LedgerShadow::maybeEnableRally() syncer done:" << done << ", rally ready:" << ready);
    if (!done || !ready) return;
    state_ = ShadowState::inStep;
    batch();
    processRally();
  }

  void onKick() {
    rally_.prefetch();
    ++kicks_;
    if (state_ == ShadowState::inStep) {
      processRally();
    } else if (state_ == ShadowState::syncing && rally_.incarnationChanged()) {
      resync("writer re-attached during sync");
    }
  }

  void processRally() {
    rallyScheduled_ = false;
    if (state_ != ShadowState::inStep) return;
    const uint64_t before = store_.notifications();
    auto result = rally_.handleAck(
        [this](uint32_t slot, uint64_t seq) {
          store_.prefetchForRun(slot);
          store_.doSlot(slot, seq, notifying_);
        },
        options_.rallySlice);
    if (store_.notifications() != before) batch();
    // The notifiee detached the shadow (or mounted it anew, or asked for a resync): what this
    // walk left is not ours to act on any more.
    if (result == RallyReader::Result::interrupted || state_ != ShadowState::inStep) return;
    if (result == RallyReader::Result::corrupt) {
      corruptionDetected(rally_.corruption());
    } else if (result == RallyReader::Result::resync) {
      resync("rally queue");
    } else if (result == RallyReader::Result::more && !rallyScheduled_) {
      rallyScheduled_ = true;
      loop_.defer([this, alive = alive_] {
        if (*alive) processRally();
      });
    } else {
      store_.tryShrink(reader_.slotTable().numSlots());
    }
  }

  void batch() {
    if (notifying_ && store_.notify().onBatch) store_.notify().onBatch();
  }

  void corruptionDetected(const std::string& why) {
    ZTRACE_TO(ShadowDetail::trace(), 0, "LedgerShadow::corruptionDetected() " << why);
    // Try again a little later rather than spinning on a broken table; the handler, told
    // last, may detach the shadow instead (the retry then finds it so).
    state_ = ShadowState::attached;
    if (kick_) kick_->acknowledge(Mem::kNotInStep);
    if (onCorruption_) onCorruption_(why);
    if (state_ == ShadowState::detached) return;  // the handler detached the shadow
    if (retryTimer_) return;  // one retry at a time, however often the table is found broken
    retryTimer_ = loop_.timerAfter(options_.mountRetry, [this, alive = alive_] {
      if (!*alive) return;
      retryTimer_ = 0;
      if (state_ == ShadowState::attached) resync("after corruption");
    });
  }

  // The slot file at the table's path now (0 for none); identity_ is that of the one mapped.
  uint64_t fileIdentity() const { return SharedMem::EmberFile::identityAt(tableDir() + "/slots"); }
  bool writerChanged() const {
    return rally_.incarnationChanged() || fileIdentity() != identity_ ||
           Shm::load(reader_.slotTable().header().emberId, std::memory_order_acquire) !=
               reader_.emberId();
  }
  // Maps the table's files again (a new writer re-formatted or re-made them). When they
  // cannot be mapped whole, nothing stays mapped: the shadow unmounts (keeping what it holds)
  // and the mounter tries again until they can, then syncs.
  bool remountFiles() {
    try {
      reader_.attach();
      rally_.attach(config_.root, config_.table, reader_.emberId());
      identity_ = reader_.slotTable().fileIdentity();
      if (kick_ &&
          !SharedMem::EmberFile::exists(config_.root, config_.table, "readers/" + kickName())) {
        kick_->unwatch(loop_);
        kick_ = std::make_unique<Mem::ReaderKickListener>(tableDir());
        kick_->watchOn(loop_, [this] { onKick(); });
      }
      return true;
    } catch (const Zinc::Exception& e) {
      ZTRACE_TO(ShadowDetail::trace(), 1, "LedgerShadow::resync() cannot re-map: " << e.what());
      unmount();
      lastMountError_ = e.what();
      startMounter();
      return false;
    }
  }
  std::string kickName() const {
    const std::string& p = kick_->path();
    return p.substr(p.rfind('/') + 1);
  }

  void healthCheck() {
    if (state_ == ShadowState::detached) return;
    // A shadow left attached by a corruption has its retry armed already.
    if (writerChanged() || (state_ == ShadowState::attached && !retryTimer_)) {
      resync("health check");
    }
  }

  // The value of the shadow's slot `at`, or of the first after it that decodes, into `out`;
  // false when the walk ended.
  bool fromSlot(uint32_t at, Value& out, uint32_t* hint) {
    at = store_.valueFrom(at, out);
    if (at == kNoSlot) return false;
    if (hint) *hint = at;
    return true;
  }

  ReaderConfig config_;
  Zinc::Loop& loop_;
  ShadowOptions options_;
  LedgerReader<Key, Value, OpsT> reader_;
  Store store_;
  RallyReader rally_;
  Syncer syncer_;
  std::unique_ptr<Mem::ReaderKickListener> kick_;
  ShadowState state_ = ShadowState::detached;
  bool notifying_ = true;
  bool rallyScheduled_ = false;
  uint64_t identity_ = 0;
  uint64_t resyncs_ = 0;
  uint64_t kicks_ = 0;
  uint32_t mountTries_ = 0;
  std::string lastMountError_;
  Zinc::Loop::TimerId mounterTimer_ = 0;
  Zinc::Loop::TimerId healthTimer_ = 0;
  Zinc::Loop::TimerId retryTimer_ = 0;  // the resync after a corruption, while one is armed
  CorruptionHandler onCorruption_;
  std::function<void()> onReady_;
  bool advertised_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Ledger
