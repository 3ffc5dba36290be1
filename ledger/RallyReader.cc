#include "ledger/RallyReader.h"

#include <chrono>
#include <cstring>
#include <optional>

#include "ledger/Exceptions.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("RallyReader")

namespace Ledger {

using SharedMem::EmberFile;

void RallyReader::attach(const std::string& root, const std::string& table, uint32_t emberId) {
  detach();
  root_ = root;
  table_ = table;
  emberId_ = emberId;
  if (!controlFile_.open(root, table, "rally", EmberFile::Access::ReadOnly, false)) {
    throw InitializationException("RallyReader::attachRally() cannot attach to file " +
                                  controlFile_.path() + ": " + controlFile_.error());
  }
  const auto* c = reinterpret_cast<const RallyControl*>(controlFile_.base());
  if (controlFile_.size() < sizeof(RallyControl) ||
      std::memcmp(c->magic, kRallyControlMagic, 8) != 0 || c->version != kRallyControlVersion ||
      c->emberId != emberId) {
    controlFile_.close();
    throw InitializationException("RallyReader::initialize() failed to read ember file " +
                                  controlFile_.path());
  }
  control_ = c;
  incarnation_ = Shm::load(control_->incarnation, std::memory_order_acquire);
  if (openCurrentQueue()) {
    skipToEnd();
    return;
  }
  detach();
  throw InitializationException("RallyReader::attachRally() cannot attach to file " +
                                SharedMem::rootPath(root) + "/" + table + "/rally.*");
}

void RallyReader::detach() {
  ++placeEpoch_;
  queueFile_.close();
  controlFile_.close();
  control_ = nullptr;
  queue_ = nullptr;
  entries_ = nullptr;
}

bool RallyReader::openQueue(uint32_t g) {
  EmberFile file;
  if (!file.open(root_, table_, rallyQueueName(g), EmberFile::Access::ReadOnly, false))
    return false;
  if (file.size() < sizeof(RallyQueueHeader)) return false;
  const auto* q = reinterpret_cast<const RallyQueueHeader*>(file.base());
  // The sizes are read once: the mapping is checked against them, and every later bound comes
  // from these copies, never from the header again (whatever writes it meanwhile).
  const uint32_t slotCapacity = Shm::load(q->slotCapacity, std::memory_order_relaxed);
  const uint32_t capacity = Shm::load(q->capacity, std::memory_order_relaxed);
  if (std::memcmp(q->magic, kRallyQueueMagic, 8) != 0 || q->version != kRallyQueueVersion ||
      q->emberId != emberId_ || q->generation != g || slotCapacity > kMaxSlots) {
    return false;
  }
  // The old mapping goes with the old file: nothing points into it while the new one is
  // checked (a resize that fails leaves no queue mapped).
  queue_ = nullptr;
  entries_ = nullptr;
  queueFile_ = std::move(file);
  const uint64_t needed = rallyFileSize(slotCapacity, capacity);
  slotCapacity_ = slotCapacity;
  capacity_ = capacity;
  if (queueFile_.size() < needed) doResize(needed);
  generation_ = g;
  queue_ = reinterpret_cast<const RallyQueueHeader*>(queueFile_.base());
  baseSeq_ = queue_->baseSeq;
  entries_ =
      reinterpret_cast<const uint64_t*>(queueFile_.base() + rallyEntriesOffset(slotCapacity));
  return true;
}

void RallyReader::doResize(uint64_t bytes) {
  ZTRACE(3, "RallyReader::doResize() requesting to map "
                << capacity_ << " rally notifications. Requested file resize to " << bytes);
  const uint8_t* old = queueFile_.base();
  if (!queueFile_.remap() || queueFile_.size() < bytes) {
    ZTRACE(0, "RallyReader::doResize() failed to resize " << queueFile_.path());
    throw CorruptionException("RallyReader::doResize() failed to resize " + queueFile_.path() +
                              " to " + std::to_string(bytes));
  }
  if (queueFile_.base() != old) {
    ZTRACE(5, "RallyReader::doResize() changed base address mapping from "
                  << static_cast<const void*>(old) << " to "
                  << static_cast<const void*>(queueFile_.base()));
  }
  ZTRACE(5, "RallyReader::doResize() successful");
}

uint32_t RallyReader::count() const {
  if (!queue_) return 0;
  // Acquire: every entry below the count is complete.
  uint32_t n = Shm::load(queue_->count, std::memory_order_acquire);
  if (n > capacity_) {
    throw CorruptionException("RallyReader::doRally() unexpected position in queue count:" +
                              std::to_string(n) + " capacity:" + std::to_string(capacity_));
  }
  return n;
}

uint64_t RallyReader::writerSeq() const {
  return control_ ? Shm::load(control_->latestSeq, std::memory_order_acquire) : 0;
}

bool RallyReader::swapped() const {
  return Shm::load(control_->generation, std::memory_order_acquire) != generation_;
}

bool RallyReader::incarnationChanged() const {
  return control_ && Shm::load(control_->incarnation, std::memory_order_acquire) != incarnation_;
}

std::pair<uint32_t, uint32_t> RallyReader::corral() const {
  uint32_t start = Shm::load(control_->corralStart, std::memory_order_acquire);
  uint32_t end = Shm::load(control_->corralEnd, std::memory_order_relaxed);
  return {start, end};
}

uint32_t RallyReader::writerPid() const {
  return control_ ? Shm::load(control_->writerPid, std::memory_order_relaxed) : 0;
}

void RallyReader::prefetch() const {
  if (!control_ || !queue_) return;
  __builtin_prefetch(control_);
  __builtin_prefetch(queue_);
  // pos_ <= capacity_ after every walk; the entry before it is the one a walk checks first.
  if (pos_ > 0) __builtin_prefetch(&entries_[pos_ - 1]);
  if (pos_ < capacity_) __builtin_prefetch(&entries_[pos_]);
}

void RallyReader::skipToEnd() {
  if (!attached()) throw CorruptionException("RallyReader::skipToEnd() no queue mapped");
  ++placeEpoch_;
  // The sequence first: entries counted later but announced before it are above it anyway.
  lastSeq_ = writerSeq();
  followSwap();
  pos_ = findPosition(lastSeq_);
}

// Maps the queue of the control block's current generation, found again while the writer
// swaps it meanwhile. A writer makes a generation's file whole before it names it, and removes
// it only after naming the next one: a generation named twice in a row whose file cannot be
// opened is missing or bad, not in the middle of a swap, and is not tried again and again.
bool RallyReader::openCurrentQueue() {
  std::optional<uint32_t> failed;
  for (int tries = 0; tries < 1000; ++tries) {
    const uint32_t g = Shm::load(control_->generation, std::memory_order_acquire);
    if (g == generation_ && queue_) return true;
    if (openQueue(g)) return true;
    ZTRACE(3, "RallyReader::findPosition() rallySwapped again, generation:" << g);
    if (failed == g) return false;
    failed = g;
  }
  return false;
}

// Moves to the control block's current generation, found again if it is swapped meanwhile.
void RallyReader::followSwap() {
  if (openCurrentQueue()) return;
  throw CorruptionException("RallyReader::findPosition() rallySwapped again, generation:" +
                            std::to_string(generation_) + " cannot be opened");
}

uint32_t RallyReader::findPosition(uint64_t seq) {
  uint32_t low = 0;
  uint32_t high = count();
  while (low < high) {
    uint32_t mid = low + (high - low) / 2;
    uint64_t s = sequenceAt(mid);
    ZTRACE(9, "RallyReader::findPosition() mid pos:" << mid << " seq:" << s);
    if (s <= seq) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  ZTRACE(7, "RallyReader::findPosition() low pos:" << low << " for seq:" << seq
                                                   << " generation:" << generation_);
  return low;
}

RallyReader::Result RallyReader::rally(const SlotFn& doSlot, uint32_t maxEntries) {
  if (!attached()) return Result::resync;
  // The walk is timed only for its trace line: a woken reader's first read of the clock is a
  // cold one, a few hundred cycles before the first notification is handled.
  const bool timed = zincFileTrace_.enabled(7);
  const auto start =
      timed ? std::chrono::steady_clock::now() : std::chrono::steady_clock::time_point{};
  uint64_t before = consumed_;
  ZTRACE(9, "RallyReader::rally() Walking rally queue, sample:" << lastSeq_ << " pos:" << pos_);
  Result r = doRally(doSlot, maxEntries);
  if (timed && consumed_ != before) {
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    ZTRACE(7, "RallyReader::rally() Consumed " << consumed_ - before << " notifications in "
                                               << took.count()
                                               << " seconds until sequence:" << lastSeq_);
  }
  return r;
}

RallyReader::Result RallyReader::doRally(const SlotFn& doSlot, uint32_t maxEntries) {
  const uint64_t epoch = placeEpoch_;
  if (incarnationChanged()) return Result::resync;
  if (swapped() || !queue_) {
    followSwap();
    pos_ = findPosition(lastSeq_);
  }
  uint32_t n = count();
  if (pos_ > n || (pos_ > 0 && sequenceAt(pos_ - 1) > lastSeq_)) {
    ZTRACE(0, "RallyReader::doRally() unexpected position in generation:"
                  << generation_ << " pos:" << pos_ << " count:" << n << " lastSeq:" << lastSeq_);
    return Result::resync;
  }
  for (uint32_t done = 0; pos_ < n || (pos_ == n && pos_ < (n = count()));) {
    if (done == maxEntries) return Result::more;
    // One load for sequence and slot word alike (acquire: a tombstone implies the slot's newer
    // entry is counted).
    const RallyEntry e = RallyEntry::of(loadEntry(pos_), baseSeq_);
    const uint64_t seq = e.sequence;
    const uint32_t word = e.slotWord;
    if (seq <= lastSeq_) {
      ZTRACE(0, "RallyReader::doRally() unexpected sequence in generation:"
                    << generation_ << " pos:" << pos_ << " seq:" << seq << " lastSeq:" << lastSeq_);
      return Result::resync;
    }
    if (!(word & kTombstone)) {
      doSlot(word, seq);
      if (placeEpoch_ != epoch) {
        ZTRACE(5, "RallyReader::doRally() reader detached or moved during doSlot() seq:" << seq);
        return Result::interrupted;
      }
      ++done;
      if (swapped()) {
        ZTRACE(5, "RallyReader::doRally() rally queue was swapped during doSlot() seq:" << seq);
        lastSeq_ = seq;
        ++consumed_;
        followSwap();
        pos_ = findPosition(lastSeq_);
        n = count();
        continue;
      }
      if (RallyEntry::slotWordOf(loadEntry(pos_)) & kTombstone) {
        ZTRACE(9, "RallyReader::doRally() seq:" << seq << " was tombstoned during doSlot()");
      }
      ++consumed_;
    }
    lastSeq_ = seq;
    ++pos_;
  }
  return Result::ok;
}

RallyReader::Result RallyReader::handleAck(const SlotFn& doSlot, uint32_t maxEntries) {
  if (!attached()) return Result::resync;
  const uint64_t epoch = placeEpoch_;
  try {
    ZTRACE(9, "RallyReader::handleAck() minSeq:" << lastSeq_ + 1);
    const Result result = rally(doSlot, maxEntries);
    const bool walked = result == Result::ok || result == Result::more;
    if (walked && ackHook_) ackHook_(lastSeq_);
    return result;
  } catch (const CorruptionException& e) {
    // What doSlot met in files that it unmapped itself is no corruption of the queue.
    if (placeEpoch_ != epoch) return Result::interrupted;
    ZTRACE(0, "RallyReader::handleAck() corruption detected: " << e.what());
    corruption_ = e.what();
    return Result::corrupt;
  }
}

bool RallyReader::quiesced() const {
  if (!attached()) return false;
  uint64_t writer = writerSeq();
  ZTRACE(9, "RallyReader::quiesced() writerSeq:" << writer << " lastSeq:" << lastSeq_);
  if (swapped()) ZTRACE(9, "RallyReader::quiesced() rally swapped");
  if (writer < lastSeq_) {
    ZTRACE(1, "RallyReader::quiesced() latest notification out-of-range, writerSeq:"
                  << writer << " lastSeq:" << lastSeq_);
    return false;
  }
  return writer == lastSeq_ && !incarnationChanged();
}

}  // namespace Ledger
