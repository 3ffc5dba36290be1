#include "ledger/BucketTable.h"

#include <cstring>

#include "ledger/Exceptions.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("BucketTable")

namespace Ledger {

namespace {

uint64_t bucketFileSize(uint64_t numBuckets) { return kBucketTableHeaderSize + 8 * numBuckets; }
bool powerOfTwo(uint32_t n) { return n != 0 && (n & (n - 1)) == 0; }

}  // namespace

bool BucketWriterTable::valid(uint32_t emberId) const {
  if (file_.size() < kBucketTableHeaderSize) return false;
  const BucketTableHeader& h = header();
  return std::memcmp(h.magic, kBucketMagic, 8) == 0 && h.version == kBucketVersion &&
         h.emberId == emberId && powerOfTwo(h.numBuckets) && h.numBuckets <= kMaxSlots &&
         (h.resizeSeq & 1) == 0 && file_.size() >= bucketFileSize(h.numBuckets);
}

bool BucketWriterTable::attach(const std::string& root, const std::string& table, uint32_t emberId,
                               SharedMem::EmberFile::Perm perm, bool adopt, uint32_t numBuckets) {
  emberId_ = emberId;
  if (!file_.open(root, table, "buckets", SharedMem::EmberFile::Access::ReadWrite, true, perm)) {
    throw InitializationException("BucketWriterTable::attach() cannot attach to shmem " +
                                  file_.path() + ": " + file_.error());
  }
  if (adopt && valid(emberId)) {
    numBuckets_ = header().numBuckets;
    return true;
  }
  reset(numBuckets);
  return false;
}

bool BucketWriterTable::reserve(uint32_t numBuckets) {
  size_t old = file_.size();
  size_t wanted = bucketFileSize(numBuckets);
  // Within the mapping, the heads that a shrink gave back take their pages again.
  if (!(wanted <= old ? file_.reserve(wanted) : file_.resize(wanted))) {
    ZTRACE(0, "BucketWriterTable::reserve() failed to resize " << file_.error());
    return false;
  }
  if (wanted <= old) return true;
  // New heads are empty before any reader can be told that they exist.
  size_t firstNew = old < kBucketTableHeaderSize ? 0 : (old - kBucketTableHeaderSize) / 8;
  for (size_t i = firstNew; i < numBuckets; ++i) heads()[i] = packLink(0, kNoSlot);
  return true;
}

void BucketWriterTable::reset(uint32_t numBuckets) {
  if (!reserve(numBuckets)) {
    throw InitializationException("BucketWriterTable::reset() failed to resize " + file_.error());
  }
  BucketTableHeader& h = mutableHeader();
  // Readers may be walking the chains about to be emptied, of a table whose entries the
  // writer links again next: a resize bracket, odd and unlike any value they saw before (a
  // dead writer's odd one included), makes them trust no miss until endRebuild() closes it.
  const uint32_t seq = Shm::load(h.resizeSeq, std::memory_order_relaxed);
  Shm::store(h.resizeSeq, seq + 1 + (seq & 1), std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  std::memset(h.magic, 0, 8);
  for (uint32_t i = 0; i < numBuckets; ++i) heads()[i] = packLink(0, kNoSlot);
  h.version = kBucketVersion;
  h.emberId = emberId_;
  h.numBuckets = numBuckets;
  std::memset(h.reserved, 0, sizeof(h.reserved));
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(h.magic, kBucketMagic, 8);
  numBuckets_ = numBuckets;
}

void BucketWriterTable::endRebuild() {
  if (Shm::load(header().resizeSeq, std::memory_order_relaxed) & 1) endResize(numBuckets_);
}

void BucketWriterTable::beginResize() {
  BucketTableHeader& h = mutableHeader();
  // Odd from here on. The fence keeps every link store of the redistribution after this
  // store: a reader that sees any of them and then re-reads resizeSeq sees it changed.
  Shm::store(h.resizeSeq, h.resizeSeq + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
}

void BucketWriterTable::endResize(uint32_t numBuckets) {
  BucketTableHeader& h = mutableHeader();
  numBuckets_ = numBuckets;
  // Release: the chains are complete for the new count before it is published, and both
  // before resizeSeq turns even again.
  Shm::store(h.numBuckets, numBuckets, std::memory_order_release);
  Shm::store(h.resizeSeq, h.resizeSeq + 1, std::memory_order_release);
}

void BucketWriterTable::release(uint32_t numBuckets) {
  size_t from = bucketFileSize(numBuckets);
  if (from < file_.size()) file_.releaseRange(from, file_.size() - from);
}

}  // namespace Ledger
