// Template bodies of LedgerWriter (included by LedgerWriter.h only).
#pragma once

namespace Ledger {

template <class Key, class Value, class OpsT>
SlotTableConfig LedgerWriter<Key, Value, OpsT>::slotConfig() const {
  SlotTableConfig c;
  c.root = config_.root;
  c.table = config_.table;
  c.shape = TableShape{ops_.valueSize(), config_.tableParameter, ops_.valueTypeName(),
                       ops_.classTypeName()};
  c.capacity = config_.capacity;
  c.minSlots = config_.minSize;
  c.maxSlots = std::min(config_.maxSize, kMaxSlots);
  c.fixedSize = config_.fixedSize;
  c.shrinkEnabled = config_.shrinkEnabled;
  c.perm = config_.perm;
  return c;
}

template <class Key, class Value, class OpsT>
AttachResult LedgerWriter<Key, Value, OpsT>::attach() {
  detach();
  map_.forgetMiss();
  // A shrink cut short by an exception ends with its attachment: the table it left behind
  // (corral open) is recovered below.
  shrinking_ = false;
  if (!SharedMem::validName(config_.table)) {
    throw InitializationException("SlotWriter::attach() cannot attach to shmem, bad table name: " +
                                  config_.table);
  }
  // All or nothing: a writer that could not attach every file holds none of them.
  try {
    return attachFiles();
  } catch (...) {
    releaseFiles();
    throw;
  }
}

template <class Key, class Value, class OpsT>
AttachResult LedgerWriter<Key, Value, OpsT>::attachFiles() {
  lock_.acquire(config_.root, config_.table, config_.perm);
  auto slotResult = slots_.attach(slotConfig());
  map_.sizeIndex();  // recovery relinks before the index is built
  const bool existing = slotResult == SlotWriterTable::Attached::Existing;
  attachBesideSlots(existing);
  setBucketThresholds();
  AttachResult result;
  if (existing) {
    result = adoptOrRecover();
  } else {
    resetFresh();
    result = slotResult == SlotWriterTable::Attached::NewFile ? AttachResult::newFile
                                                              : AttachResult::reformatted;
  }
  // Chains emptied and linked again above were rebuilt inside a resize bracket.
  buckets_.endRebuild();
  map_.reindex();
  maybeGrowBuckets();
  map_.forgetMiss();  // recovery and re-formatting walked and changed chains
  return result;
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::attachBesideSlots(bool adopt) {
  attachStorage();
  buckets_.attach(config_.root, config_.table, slots_.emberId(), config_.perm, adopt,
                  std::max(config_.minBuckets, 1u));
  rally_.attach(config_.root, config_.table, slots_.emberId(), slots_.numSlots(), adopt,
                config_.perm);
}

template <class Key, class Value, class OpsT>
AttachResult LedgerWriter<Key, Value, OpsT>::adoptOrRecover() {
  auto v = validator();
  if (v.validate()) return AttachResult::existing;
  ZTRACE_TO(trace(), 0, "LedgerWriter::attach() recovering " << config_.table << ": " << v.error());
  recover();
  if (auto again = validator(); again.validate()) {
    ++counters_.recoveries;
    return AttachResult::recovered;
  }
  slots_.reformat(slots_.config().capacity);
  attachBesideSlots(false);
  resetFresh();
  ZTRACE_TO(trace(), 0, "SlotWriter::attach() re-formatted " << config_.table);
  return AttachResult::reformatted;
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::attachStorage() {
  if constexpr (HasStorage<OpsT>) {
    ops_.attachStorage(config_.root, config_.table, slots_.emberId(), config_.perm);
  }
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::resetFresh() {
  buckets_.reset(std::max(config_.minBuckets, 1u));
  rally_.reset(slots_.numSlots());
  setBucketThresholds();
}

// Makes a table that a dead writer left half-changed consistent again, from the slots alone:
// a slot caught in a rewrite gets its look-aside copy back, slots that hold no valid entry or
// a second copy of a key (a move cut short) become free, and chains, free list and queue are
// rebuilt. Only operations that had not returned can be undone by this.
template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::recover() {
  const uint32_t n = slots_.numSlots();
  std::vector<uint32_t> occupied;
  for (uint32_t i = 0; i < n; ++i) {
    SlotHeader& s = slots_.slot(i);
    if (s.status & kLookaside) {
      if (s.status & kOccupied) {
        std::memcpy(&s.rhash, &slots_.lookaside().rhash,
                    slots_.slotSize() - offsetof(SlotHeader, rhash));
      }
      Shm::store(s.status, s.status + kLookaside, std::memory_order_release);
    }
    if (!(s.status & kOccupied)) continue;
    if (!storedValid(i) || s.rhash != reverseBits(OpsT::hash(ops_.storedKey(slots_.value(i))))) {
      slots_.markFree(i);
      continue;
    }
    occupied.push_back(i);
  }
  relinkAll(occupied);
  if constexpr (HasStorage<OpsT>) {
    std::vector<const uint8_t*> live;
    for (uint32_t i : occupied) live.push_back(slots_.value(i));
    ops_.rebuildStorage(live);
  }
  slots_.rebuildFreeList();
  rally_.reset(n);
  for (uint32_t i : occupied) notify(i);
  rally_.commit();
}

// The keys of the `occupied` slots, each with its slot, in chain order for `numBuckets`
// buckets: by bucket, then rhash, then key; two copies of one key (an entry caught moving)
// side by side, the lower slot first.
template <class Key, class Value, class OpsT>
auto LedgerWriter<Key, Value, OpsT>::inChainOrder(const std::vector<uint32_t>& occupied,
                                                  uint32_t numBuckets)
    -> std::vector<std::pair<Key, uint32_t>> {
  std::vector<std::pair<Key, uint32_t>> entries;
  entries.reserve(occupied.size());
  for (uint32_t i : occupied) entries.emplace_back(ops_.storedKey(slots_.value(i)), i);
  const uint32_t mask = numBuckets - 1;
  auto order = [&](const auto& a, const auto& b) {
    uint32_t ha = OpsT::hash(a.first), hb = OpsT::hash(b.first);
    if ((ha & mask) != (hb & mask)) return (ha & mask) < (hb & mask);
    if (ha != hb) return reverseBits(ha) < reverseBits(hb);
    if (!OpsT::equal(a.first, b.first)) return OpsT::less(a.first, b.first);
    return a.second < b.second;
  };
  std::sort(entries.begin(), entries.end(), order);
  return entries;
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::relinkAll(std::vector<uint32_t>& occupied) {
  uint32_t numBuckets = std::max(config_.minBuckets, 1u);
  while (numBuckets < occupied.size() && numBuckets <= kMaxSlots / 2) numBuckets *= 2;
  const std::vector<std::pair<Key, uint32_t>> entries = inChainOrder(occupied, numBuckets);
  const uint32_t mask = numBuckets - 1;
  buckets_.reset(numBuckets);
  occupied.clear();
  LinkRef tail{0, true};
  uint32_t tailBucket = kNoSlot;
  for (size_t k = 0; k < entries.size(); ++k) {
    auto [key, slot] = entries[k];
    if (k > 0 && OpsT::equal(entries[k - 1].first, key)) {
      slots_.markFree(slot);  // the higher copy of a moved entry
      continue;
    }
    uint32_t bucket = OpsT::hash(key) & mask;
    if (bucket != tailBucket) {
      if (tailBucket != kNoSlot) map_.setLink(tail, kEndOfChain | kNoSlot);
      tail = LinkRef{bucket, true};
      tailBucket = bucket;
    }
    map_.setLink(tail, slot);
    tail = LinkRef{slot, false};
    occupied.push_back(slot);
  }
  if (tailBucket != kNoSlot) map_.setLink(tail, kEndOfChain | kNoSlot);
  setBucketThresholds();
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::detach() {
  if (!attached()) return;
  ZTRACE_TO(trace(), 1,
            "LedgerWriter::detach() rootPath:" << SharedMem::rootPath(config_.root)
                                               << " table:" << config_.table);
  if (direct_) {
    ZTRACE_TO(trace(), 0, "LedgerWriter::detach() unbalanced directSlot:" << direct_->slot);
    direct_.reset();  // left with LOOKASIDE set: the next writer's attach restores the slot
  }
  rally_.commit();
  releaseFiles();
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::releaseFiles() {
  rally_.detach();
  if constexpr (HasStorage<OpsT>) ops_.detachStorage();
  buckets_.detach();
  slots_.detach();
  map_.dropIndex();
  lock_.release();
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::publish(SlotHeader& s, const Value& value) {
  if constexpr (OutOfLineOps<OpsT>) {
    // The payload first, while the slot is still closed: storage that cannot grow fails
    // here with nothing changed. The slot then takes the small stored form that refers to it.
    alignas(8) uint8_t staged[kMaxInlineStored];
    ZINC_ASSERT(ops_.valueSize() <= sizeof(staged), "an out-of-line stored form is small");
    ops_.store(value, staged);
    std::memcpy(slots_.openSlot(s, ops_.valueSize()), staged, ops_.valueSize());
  } else {
    ops_.store(value, slots_.openSlot(s, ops_.valueSize()));
  }
  slots_.closeSlot(s);
}

// A slot just allocated for a new entry, not reachable yet, is published with `fill` and
// will be announced: if the queue has no room for that, or `fill` fails, the slot goes back
// to the free list and the write fails with the table as it was.
template <class Key, class Value, class OpsT>
template <class Fill>
void LedgerWriter<Key, Value, OpsT>::fillNew(uint32_t slot, Fill fill) {
  try {
    rally_.reserveFor(slot);
    fill();
  } catch (...) {
    slots_.dealloc(slot);
    throw;
  }
}

// A new slot for a key that `pos` says is missing: linked to its successor and stamped with
// its rhash while still unreachable. The caller fills it and then links it in.
template <class Key, class Value, class OpsT>
uint32_t LedgerWriter<Key, Value, OpsT>::insertNew(const ChainPosition& pos, uint32_t hash) {
  uint32_t slot = slots_.alloc();
  map_.initSlot(slot, reverseBits(hash), pos.next);
  return slot;
}

template <class Key, class Value, class OpsT>
const void* LedgerWriter<Key, Value, OpsT>::write(const Value& value, WriteFlag flag) {
  checkWritable("LedgerWriter::write()");
  const Key key = OpsT::keyOf(value);
  uint32_t hash;
  if (ChainPosition recalled; map_.recallMiss(key, hash, recalled)) {
    return insertAt(value, recalled, hash);
  }
  hash = OpsT::hash(key);
  const uint32_t slot = map_.findSlot(key, hash, "WriterHashMap::find()");
  if (slot == kNoSlot) return insert(value, key, hash);
  SlotHeader& s = slots_.slot(slot);
  uint8_t* const stored = reinterpret_cast<uint8_t*>(&s) + kSlotHeaderSize;
  if (flag == WriteFlag::ifChanged && ops_.sameStored(stored, value)) [[unlikely]] {
    ++counters_.unchanged;
    return stored;
  }
  rally_.reserveFor(slot);  // before anything changes: a full queue fails the write here
  const uint8_t* old = keepForRetire(slot);
  publish(s, value);
  retire(old);
  ++counters_.updates;
  if (trace().enabled(9)) [[unlikely]]
    traceSlot("LedgerWriter::write() existing slot:", slot);
  notify(slot);
  rally_.commit();
  return stored;
}

template <class Key, class Value, class OpsT>
const void* LedgerWriter<Key, Value, OpsT>::insert(const Value& value, const Key& key,
                                                   uint32_t hash) {
  // The walk again, for the insertion point: the chain is in cache by now.
  return insertAt(value, map_.find(key, hash, "WriterHashMap::find()"), hash);
}

template <class Key, class Value, class OpsT>
const void* LedgerWriter<Key, Value, OpsT>::insertAt(const Value& value, const ChainPosition& pos,
                                                     uint32_t hash) {
  const uint32_t slot = insertNew(pos, hash);
  fillNew(slot, [&] { publish(slots_.slot(slot), value); });
  // The one store that makes the complete slot reachable.
  map_.setLink(pos.pred, slot);
  ++counters_.inserts;
  if (trace().enabled(9)) [[unlikely]]
    traceSlot("LedgerWriter::write() new slot:", slot);
  maybeGrowBuckets();
  notify(slot);
  rally_.commit();
  return slots_.value(slot);
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::writeBatch(const Value* values, size_t count, WriteFlag flag) {
  checkWritable("LedgerWriter::writeBatch()");
  constexpr size_t kBucketAhead = 16, kSlotAhead = 8;
  for (size_t i = 0; i < count; ++i) {
    if (i + kBucketAhead < count) {
      map_.prefetchBucket(OpsT::hash(OpsT::keyOf(values[i + kBucketAhead])));
    }
    if (i + kSlotAhead < count) {
      map_.prefetchFirstSlot(OpsT::hash(OpsT::keyOf(values[i + kSlotAhead])));
    }
    write(values[i], flag);
  }
}

template <class Key, class Value, class OpsT>
bool LedgerWriter<Key, Value, OpsT>::remove(const Key& key, Value* out) {
  checkWritable("LedgerWriter::remove()");
  const ChainPosition pos = map_.find(key, OpsT::hash(key), "WriterHashMap::find()");
  if (pos.hit == kNoSlot) return false;
  const uint32_t slot = pos.hit;
  rally_.reserveFor(slot);  // before anything changes: a full queue fails the remove here
  if (out) ops_.load(slots_.value(slot), *out);
  const uint8_t* old = keepForRetire(slot);
  map_.setLink(pos.pred, SlotWriterTable::loadLink(slots_.slot(slot).linkPair));
  slots_.dealloc(slot);
  retire(old);
  ++counters_.removes;
  notify(slot);
  doMaybeShrinkSlots();
  maybeShrinkBuckets();
  rally_.commit();
  return true;
}

template <class Key, class Value, class OpsT>
Value* LedgerWriter<Key, Value, OpsT>::openDirect(const Key& key, bool create) {
  const char* who = create ? "LedgerWriter::directWrite()" : "LedgerWriter::directUpdate()";
  checkWritable(who);
  if constexpr (!OpsT::kDirect) {
    throw Zinc::InternalException(std::string(who) + " needs values stored in their slots");
  } else {
    const uint32_t hash = OpsT::hash(key);
    const ChainPosition pos = map_.find(key, hash);
    if (pos.hit != kNoSlot) {
      rally_.reserveFor(pos.hit);  // directCommit announces it and must not fail
      slots_.openSlot(pos.hit);    // readers take the look-aside copy until directCommit
      direct_ = DirectSlot{pos.hit, key, false, pos.pred};
    } else {
      if (!create) return nullptr;
      uint32_t slot = insertNew(pos, hash);
      fillNew(slot, [&] { ops_.initStored(key, slots_.openSlot(slot)); });
      direct_ = DirectSlot{slot, key, true, pos.pred};
    }
    return reinterpret_cast<Value*>(slots_.value(direct_->slot));
  }
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::directCommit() {
  if (!direct_) {
    throw Zinc::InternalException("LedgerWriter::directCommit() not in direct mode! ");
  }
  DirectSlot d = *direct_;
  ZINC_ASSERT(OpsT::equal(ops_.storedKey(slots_.value(d.slot)), d.key),
              "the key of a direct slot must not change");
  direct_.reset();
  slots_.closeSlot(d.slot);
  if (d.isNew) {
    map_.setLink(d.pred, d.slot);
    ++counters_.inserts;
    maybeGrowBuckets();
  }
  ++counters_.directCommits;
  notify(d.slot);
  rally_.commit();
}

template <class Key, class Value, class OpsT>
bool LedgerWriter<Key, Value, OpsT>::lookup(const Key& key, Value& out) {
  checkAttached("LedgerWriter::lookup()");
  uint32_t slot = map_.lookup(key);
  if (slot == kNoSlot) return false;
  ops_.load(slots_.value(slot), out);
  return true;
}

template <class Key, class Value, class OpsT>
bool LedgerWriter<Key, Value, OpsT>::first(Value& out) {
  checkAttached("LedgerWriter::first()");
  uint32_t slot = map_.first();
  if (slot == kNoSlot) return false;
  ops_.load(slots_.value(slot), out);
  return true;
}

template <class Key, class Value, class OpsT>
bool LedgerWriter<Key, Value, OpsT>::next(const Key& prev, Value& out, uint32_t* hint) {
  checkAttached("LedgerWriter::next()");
  uint32_t slot = map_.next(prev, hint ? *hint : kNoSlot);
  if (hint) *hint = slot;
  if (slot == kNoSlot) return false;
  ops_.load(slots_.value(slot), out);
  return true;
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::maybeGrowBuckets() {
  while (slots_.occupiedSlots() > growThreshold_ && map_.growBuckets()) {
    ++counters_.bucketGrowths;
    setBucketThresholds();
  }
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::maybeShrinkBuckets() {
  const uint32_t minBuckets = std::max(config_.minBuckets, 1u);
  while (slots_.occupiedSlots() < bucketShrinkThreshold_ &&
         buckets_.numBuckets() / 2 >= minBuckets) {
    map_.shrinkBuckets();
    ++counters_.bucketShrinks;
    setBucketThresholds();
  }
}

// Cuts the slot table to its shrink threshold once occupancy falls below half of it: every
// entry above the cut moves to a free slot below it, then the file is cut. The corral marks
// in the queue tell readers which slots are being emptied.
template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::doMaybeShrinkSlots() {
  const uint32_t target = shrinkTarget();
  if (target == 0) return;
  const uint32_t n = slots_.numSlots();
  // Every move is announced twice, and none of it may fail half-way: room in the queue first,
  // or no shrink (the table keeps its size; the next removal tries again).
  try {
    rally_.reserveFor(n - 1, 2 * slots_.occupiedSlots());
  } catch (const TableFullException& e) {
    ZTRACE_TO(trace(), 0, "LedgerWriter::doMaybeShrinkSlots() not shrinking: " << e.what());
    return;
  }
  shrinking_ = true;
  rally_.markShrinkStart(target, n);
  slots_.purgeFreeSlots(target);
  moveDown(target, n);
  slots_.cut(target);
  rally_.markShrinkEnd();
  shrinking_ = false;
  ++counters_.slotShrinks;
}

// The slot count to cut the table to, or 0 for no shrink: none while one is in progress
// (it runs to its end), none until occupancy falls below half the shrink threshold, and
// never below the configured minimum.
template <class Key, class Value, class OpsT>
uint32_t LedgerWriter<Key, Value, OpsT>::shrinkTarget() const {
  const uint32_t threshold = slots_.shrinkThreshold();
  if (shrinking_) {
    ZTRACE_TO(trace(), 1,
              "LedgerWriter::doMaybeShrinkSlots() shrink started, ignoring shrinkThreshold:"
                  << threshold);
    return 0;
  }
  if (threshold == 0 || slots_.occupiedSlots() >= threshold / 2) return 0;
  const uint32_t target = std::max(threshold, slots_.config().minSlots);
  if (target >= slots_.numSlots()) return 0;
  ZTRACE_TO(trace(), 1,
            "LedgerWriter::doMaybeShrinkSlots() at threshold:" << threshold << " occupiedSlots:"
                                                               << slots_.occupiedSlots());
  return target;
}

// Moves every entry in slots [target, n) to a free slot below `target`, fetching the bucket
// of the entry a few slots on while this one moves.
template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::moveDown(uint32_t target, uint32_t n) {
  for (uint32_t from = target; from < n; ++from) {
    if (uint32_t ahead = from + 8; ahead < n && (slots_.slot(ahead).status & kOccupied)) {
      map_.prefetchBucket(OpsT::hash(ops_.storedKey(slots_.value(ahead))));
    }
    if (slots_.slot(from).status & kOccupied) moveSlot(from);
  }
}

template <class Key, class Value, class OpsT>
void LedgerWriter<Key, Value, OpsT>::moveSlot(uint32_t from) {
  const Key key = ops_.storedKey(slots_.value(from));
  const ChainPosition pos = map_.find(key, OpsT::hash(key));
  if (pos.hit != from) {
    throw CorruptionException("SlotWriter::move() slot " + std::to_string(from) +
                              " is not in its chain");
  }
  const uint32_t to = slots_.alloc();
  ZINC_ASSERT(to < from,
              "SlotWriter::move() should always move entries to lower section "
              "fromSlotId:" +
                  std::to_string(from) + " toSlotId:" + std::to_string(to));
  map_.initSlot(to, slots_.slot(from).rhash, SlotWriterTable::loadLink(slots_.slot(from).linkPair));
  uint8_t* stored = slots_.openSlot(to);
  std::memcpy(stored, slots_.value(from), ops_.valueSize());
  slots_.closeSlot(to);
  map_.setLink(pos.pred, to);  // the copy replaces the original in one store
  slots_.markFree(from);
  Shm::store(slots_.header().occupiedSlots, slots_.occupiedSlots() - 1, std::memory_order_relaxed);
  notify(to);
  notify(from);
}

template <class Key, class Value, class OpsT>
WriterCounters LedgerWriter<Key, Value, OpsT>::writerCounters() const {
  WriterCounters c = counters_;
  c.slotGrowths = slots_.growths();
  c.rallyCompactions = rally_.compactions();
  return c;
}

template <class Key, class Value, class OpsT>
std::string LedgerWriter<Key, Value, OpsT>::dumpHeaders() const {
  if (!attached()) return "detached\n";
  std::ostringstream os;
  os << SlotTable::describe(slots_.header()) << "numBuckets: " << buckets_.numBuckets()
     << "\nrallyGeneration: " << rally_.generation() << "\nrallyCount: " << rally_.count()
     << "\nrallyCapacity: " << rally_.capacity() << "\nrallyBaseSeq: " << rally_.baseSeq()
     << "\nsequence: " << rally_.sequence() << "\nincarnation: " << rally_.incarnation() << "\n";
  return os.str();
}

template <class Key, class Value, class OpsT>
bool LedgerWriter<Key, Value, OpsT>::validate(uint32_t emberId) {
  if (!attached()) {
    validationError_ = "LedgerWriter::validate() not attached";
    return false;
  }
  auto v = validator();
  bool ok = v.validate(emberId);
  validationError_ = v.error();
  if (const uint32_t slot = ok ? map_.indexMismatch() : kNoSlot; slot != kNoSlot) {
    validationError_ =
        "LedgerWriter::validate() walk index differs from slot: " + std::to_string(slot);
    return false;
  }
  return ok;
}

template <class Key, class Value, class OpsT>
bool LedgerWriter<Key, Value, OpsT>::validateFiles() {
  if (!attached()) return false;
  try {
    SlotTable::validate(slots_.base(), slots_.mappedSize(), slots_.emberId());
    return true;
  } catch (const CorruptionException& e) {
    validationError_ = e.what();
    return false;
  }
}

template <class Key, class Value, class OpsT>
bool LedgerWriter<Key, Value, OpsT>::cleanup() {
  detach();
  return SharedMem::EmberFile::removeTable(config_.root, config_.table);
}

}  // namespace Ledger
