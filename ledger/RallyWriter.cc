#include "ledger/RallyWriter.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "ledger/Exceptions.h"
#include "ledger/Format.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("RallyWriter")

namespace Ledger {

using SharedMem::EmberFile;

std::string rallyQueueName(uint32_t generation) { return "rally." + std::to_string(generation); }

namespace {

uint32_t capacityFor(uint32_t slotCapacity) {
  // Live entries never exceed slotCapacity, so a compaction always frees at least three
  // quarters. A compaction costs its new file's pages (first touches of shared memory are
  // dear) and a copy of every live entry: a queue of four entries a slot pays it at most once
  // per three slots' worth of notifications. Pages are taken as the queue fills, so a table
  // that changes little pays no more memory for it.
  return 4 * slotCapacity;
}

uint32_t slotCapacityFor(uint32_t numSlots) {
  uint32_t cap = kMinRallySlots;
  while (cap < numSlots && cap < kMaxSlots / 2) cap *= 2;
  return cap;
}

}  // namespace

void RallyWriter::attach(const std::string& root, const std::string& table, uint32_t emberId,
                         uint32_t numSlots, bool adopt, EmberFile::Perm perm) {
  detach();
  root_ = root;
  table_ = table;
  emberId_ = emberId;
  perm_ = perm;
  if (!controlFile_.open(root, table, "rally", EmberFile::Access::ReadWrite, true, perm) ||
      !controlFile_.resize(sizeof(RallyControl))) {
    throw InitializationException("RallyWriter::attach() cannot attach to file " +
                                  controlFile_.path() + ": " + controlFile_.error());
  }
  control_ = reinterpret_cast<RallyControl*>(controlFile_.base());
  bool controlValid = std::memcmp(control_->magic, kRallyControlMagic, 8) == 0 &&
                      control_->version == kRallyControlVersion;
  // Sequences count notifications from 1: one beyond kMaxRallySeq was never reached by
  // counting, so the block is damaged. The queue is not adopted and sequences start again
  // (readers resync on the new incarnation as after any restart).
  const bool seqSane = controlValid && control_->latestSeq <= kMaxRallySeq;
  latestSeq_ = seqSane ? control_->latestSeq : 0;
  uint32_t oldGeneration = controlValid ? control_->generation : 0;
  adopted_ = adopt && seqSane && control_->emberId == emberId && adoptQueue();
  if (!adopted_) {
    RallyControl fresh{};
    fresh.version = kRallyControlVersion;
    fresh.emberId = emberId;
    fresh.generation = oldGeneration;
    fresh.incarnation = controlValid ? control_->incarnation : 0;
    fresh.latestSeq = latestSeq_;
    std::memcpy(control_, &fresh, sizeof(fresh));
    std::atomic_thread_fence(std::memory_order_release);
    std::memcpy(control_->magic, kRallyControlMagic, 8);
    unbindQueue();
    swapIn(slotCapacityFor(numSlots), false);
  }
  // A reader that sees a new incarnation knows a writer (re)attached and resyncs.
  Shm::store(control_->incarnation, control_->incarnation + 1, std::memory_order_release);
  control_->writerPid = static_cast<uint32_t>(::getpid());
  kickedSeq_ = sequence();
  ZTRACE(1, "RallyWriter::attach() " << (adopted_ ? "adopted" : "new")
                                     << " generation:" << generation() << " seq:" << sequence());
}

bool RallyWriter::adoptQueue() {
  if (!queueFile_.open(root_, table_, rallyQueueName(control_->generation),
                       EmberFile::Access::ReadWrite, false, perm_)) {
    return false;
  }
  if (queueFile_.size() < sizeof(RallyQueueHeader)) return false;
  const auto* q = reinterpret_cast<const RallyQueueHeader*>(queueFile_.base());
  bool valid = std::memcmp(q->magic, kRallyQueueMagic, 8) == 0 &&
               q->version == kRallyQueueVersion && q->emberId == emberId_ &&
               q->generation == control_->generation && q->slotCapacity <= kMaxSlots &&
               q->count <= q->capacity && q->baseSeq <= latestSeq_ &&
               queueFile_.size() >= rallyFileSize(q->slotCapacity, q->capacity);
  if (!valid) return false;
  bindQueue();
  // Positions are checked by the validator; the queue's sequences must at least be sane.
  if (count_ > 0 && entry(count_ - 1).sequence > latestSeq_) return false;
  // Offsets left too little room (or none) for the queue's capacity: the first append that
  // would not fit swaps. Pages are reserved again from the first append on.
  offsetLimitIs(appendLimitFor(maxOffset_));
  // The writer before may have died with a tail unsettled, or while settling it. A `settled`
  // beyond the count is not to be trusted: the whole queue is settled again.
  settledIs(q->settled <= count_ ? q->settled : 0);
  settle();
  return true;
}

// Entries the bound queue can still take, with offsets up to `maxOffset`, counted from 0.
uint32_t RallyWriter::appendLimitFor(uint64_t maxOffset) const {
  const uint64_t used = latestSeq_ - baseSeq_;
  const uint64_t room = used < maxOffset ? maxOffset - used : 0;
  return static_cast<uint32_t>(std::min<uint64_t>(queue_->capacity, count_ + room));
}

void RallyWriter::bindQueue() {
  queue_ = reinterpret_cast<RallyQueueHeader*>(queueFile_.base());
  positions_ = reinterpret_cast<uint32_t*>(queueFile_.base() + sizeof(RallyQueueHeader));
  entries_ =
      reinterpret_cast<uint64_t*>(queueFile_.base() + rallyEntriesOffset(queue_->slotCapacity));
  count_ = queue_->count;
  slotCapacity_ = queue_->slotCapacity;
  baseSeq_ = queue_->baseSeq;
}

void RallyWriter::unbindQueue() {
  queueFile_.close();
  queue_ = nullptr;
  positions_ = nullptr;
  entries_ = nullptr;
  count_ = slotCapacity_ = appendLimit_ = offsetLimit_ = reservedEntries_ = 0;
  settledIs(0);
  baseSeq_ = 0;
}

void RallyWriter::detach() {
  settle();
  unbindQueue();
  controlFile_.close();
  control_ = nullptr;
}

// Writes generation + 1 whole (live entries of the current queue, in order, when keepLive),
// then publishes it in the control block, then drops the old file.
void RallyWriter::swapIn(uint32_t slotCapacity, bool keepLive) {
  uint32_t oldGeneration = control_->generation;
  uint32_t generation = oldGeneration + 1;
  uint32_t capacity = capacityFor(slotCapacity);
  const uint64_t maxOffset = std::max<uint64_t>(maxOffset_, capacity);
  const uint64_t baseSeq = rallyBaseFor(latestSeq_, capacity, maxOffset);
  EmberFile::unlinkFile(root_, table_, rallyQueueName(generation));  // leftover of a crash
  EmberFile next;
  // Pages for the live entries (never more than the slots) and a chunk; the rest as it fills.
  const uint32_t reserved = uint32_t(std::min<uint64_t>(
      capacity, uint64_t{std::min(slotCapacity, slotCapacity_)} + kReserveChunk));
  if (!next.open(root_, table_, rallyQueueName(generation), EmberFile::Access::ReadWrite, true,
                 perm_) ||
      !next.resize(rallyFileSize(slotCapacity, capacity),
                   rallyEntriesOffset(slotCapacity) + sizeof(uint64_t) * uint64_t{reserved})) {
    const std::string why = next.error();
    next.close();
    EmberFile::unlinkFile(root_, table_, rallyQueueName(generation));
    throw InitializationException("RallyWriter::swapIn() cannot create queue " +
                                  rallyQueueName(generation) + ": " + why);
  }
  auto* q = reinterpret_cast<RallyQueueHeader*>(next.base());
  auto* positions = reinterpret_cast<uint32_t*>(next.base() + sizeof(RallyQueueHeader));
  auto* entries = reinterpret_cast<uint64_t*>(next.base() + rallyEntriesOffset(slotCapacity));
  std::fill(positions, positions + slotCapacity, kNoPosition);
  const uint64_t announcedBefore = latestSeq_;
  const uint32_t count =
      keepLive && queue_ ? copyLive(entries, positions, slotCapacity, baseSeq) : 0;
  q->version = kRallyQueueVersion;
  q->emberId = emberId_;
  q->generation = generation;
  q->capacity = capacity;
  q->slotCapacity = slotCapacity;
  q->count = count;
  q->settled = count;
  q->baseSeq = baseSeq;
  std::memcpy(q->magic, kRallyQueueMagic, 8);
  // The new queue is complete before any reader can learn its generation: release.
  Shm::store(control_->generation, generation, std::memory_order_release);
  // Entries announced again are in the new generation only: the sequence that covers them
  // comes after the generation that holds them (release).
  if (latestSeq_ != announcedBefore) {
    Shm::store(control_->latestSeq, latestSeq_, std::memory_order_release);
  }
  queueFile_ = std::move(next);
  bindQueue();
  settledIs(count);
  reservedEntries_ = reserved;
  offsetLimitIs(appendLimitFor(maxOffset));
  EmberFile::unlinkFile(root_, table_, rallyQueueName(oldGeneration));
  ZTRACE(3, "RallyWriter::swapIn() generation:" << generation << " live:" << count
                                                << " capacity:" << capacity << " base:" << baseSeq);
}

uint32_t RallyWriter::copyLive(uint64_t* entries, uint32_t* positions, uint32_t slotCapacity,
                               uint64_t baseSeq) {
  std::vector<uint32_t> tooOld;
  uint32_t count = 0;
  for (uint32_t pos = 0; pos < count_; ++pos) {
    // The slot's live entry, the one its position names (settled): at most one per slot.
    const RallyEntry e = entry(pos);
    if (e.slotWord >= std::min(slotCapacity, slotCapacity_) || positions_[e.slotWord] != pos) {
      continue;
    }
    if (e.sequence <= baseSeq) {
      tooOld.push_back(e.slotWord);
      continue;
    }
    entries[count] = RallyEntry::wordOf(e.sequence - baseSeq, e.slotWord);
    positions[e.slotWord] = count++;
  }
  for (uint32_t slot : tooOld) {
    entries[count] = RallyEntry::wordOf(++latestSeq_ - baseSeq, slot);
    positions[slot] = count++;
  }
  reannounced_ += tooOld.size();
  if (!tooOld.empty()) {
    ZTRACE(3, "RallyWriter::swapIn() announced " << tooOld.size()
                                                 << " slots again, too old for base:" << baseSeq);
  }
  return count;
}

// For each entry appended since the last settle, in order: the slot's older live entry (the
// one its position names) becomes a tombstone, and the position names the new entry. Two
// stages run ahead of the walk: the position of the slot kSettleAhead entries on, and the
// older entry of the slot half as far on, fetched for writing.
void RallyWriter::settle() {
  if (!queue_) return;
  // Locals: the release stores below would make the compiler reload every member.
  uint64_t* const entries = entries_;
  uint32_t* const positions = positions_;
  const uint32_t end = count_;
  const uint32_t slotCapacity = slotCapacity_;
  for (uint32_t pos = settled_; pos < end; ++pos) {
    // Both are written below: fetched owned (readers may hold the entries' lines).
    if (pos + kSettleAhead < end) {
      const uint32_t ahead = RallyEntry::slotWordOf(entries[pos + kSettleAhead]);
      if (ahead < slotCapacity) Shm::prefetchForWrite(&positions[ahead]);
    }
    if (pos + kSettleAhead / 2 < end) {
      const uint32_t ahead = RallyEntry::slotWordOf(entries[pos + kSettleAhead / 2]);
      const uint32_t older = ahead < slotCapacity ? positions[ahead] : kNoPosition;
      if (older < end) Shm::prefetchForWrite(&entries[older]);
    }
    // A tombstone, or a slot index no writer of this queue could have appended, is left as
    // it is (the validator reports the latter).
    const uint32_t slot = RallyEntry::slotWordOf(entries[pos]);
    if (slot >= slotCapacity) continue;
    const uint32_t older = positions[slot];
    // Only the slot's own live entry: settling again after a crash finds it already done.
    if (older < pos && RallyEntry::slotWordOf(entries[older]) == slot) {
      // Release: whoever sees the tombstone sees the newer entry counted (it is below `end`,
      // whose count store came first). The whole word is stored: readers load it whole.
      Shm::store(entries[older], entries[older] | kTombstone, std::memory_order_release);
    }
    // Positions are the writer's and the validator's bookkeeping; readers do not use them.
    positions[slot] = pos;
  }
  storeSettled(end);
}

void RallyWriter::storeSettled(uint32_t settled) {
  settledIs(settled);
  // Release: a tool that loads `settled` (acquire) sees the tombstones and positions below it.
  Shm::store(queue_->settled, settled, std::memory_order_release);
}

void RallyWriter::makeRoomFor(uint32_t slot, uint32_t entries) {
  const uint64_t wanted = uint64_t{count_} + entries;
  if (slot < slotCapacity_ && wanted <= offsetLimit_) {
    if (!reserveEntries(wanted)) {
      throw TableFullException("RallyWriter::makeRoomFor() no room for the queue's entries: " +
                               queueFile_.error());
    }
    return;
  }
  settle();  // a compaction keeps live entries: one per slot
  try {
    if (slot >= slotCapacity_) {
      swapIn(slotCapacityFor(std::max(slot + 1, 2 * slotCapacity_)), true);
    } else {
      swapIn(slotCapacity_, true);
    }
  } catch (const InitializationException& e) {
    throw TableFullException(std::string("RallyWriter::makeRoomFor() ") + e.what());
  }
  ++compactions_;
  if (uint64_t{count_} + entries > appendLimit_ && !reserveEntries(uint64_t{count_} + entries)) {
    throw TableFullException("RallyWriter::makeRoomFor() no room for the queue's entries: " +
                             queueFile_.error());
  }
}

bool RallyWriter::reserveEntries(uint64_t upTo) {
  // A chunk ahead, or where the file system has less room left, just what is asked for.
  for (const uint64_t want : {std::max(upTo, uint64_t{reservedEntries_} + kReserveChunk), upTo}) {
    const uint32_t limit = uint32_t(std::min<uint64_t>(offsetLimit_, want));
    if (queueFile_.reserve(rallyEntriesOffset(slotCapacity_) + sizeof(uint64_t) * limit)) {
      reservedEntries_ = std::max(reservedEntries_, limit);
      offsetLimitIs(offsetLimit_);
      return true;
    }
  }
  return false;
}

void RallyWriter::markShrinkStart(uint32_t corralStart, uint32_t corralEnd) {
  ZTRACE(1, "RallyWriter::markShrinkStart() corralStart:" << corralStart
                                                          << " corralEnd:" << corralEnd);
  // End first, then start (release): a reader that sees the new start sees the range whole.
  Shm::store(control_->corralEnd, corralEnd, std::memory_order_relaxed);
  Shm::store(control_->corralStart, corralStart, std::memory_order_release);
}

void RallyWriter::markShrinkEnd() {
  ZTRACE(1, "RallyWriter::markShrinkEnd() corralStart:" << control_->corralStart
                                                        << " corralEnd:" << control_->corralEnd);
  // Every move is announced before the corral closes (release).
  Shm::store(control_->corralStart, 0u, std::memory_order_relaxed);
  Shm::store(control_->corralEnd, 0u, std::memory_order_release);
}

void RallyWriter::reset(uint32_t numSlots) {
  swapIn(slotCapacityFor(numSlots), false);
  markShrinkEnd();
}

uint32_t RallyWriter::generation() const { return control_ ? control_->generation : 0; }
uint32_t RallyWriter::incarnation() const { return control_ ? control_->incarnation : 0; }

uint32_t RallyWriter::position(uint32_t slot) const {
  return queue_ && slot < queue_->slotCapacity ? positions_[slot] : kNoPosition;
}

}  // namespace Ledger
