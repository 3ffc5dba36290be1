// BucketReader: a reader's read-only mapping of a table's bucket file (layout in Format.h).
//
// The writer doubles or halves the bucket count inside a resize bracket: resizeSeq is odd
// while chains are being redistributed and advances again when the new count is published.
// A reader that walked a chain trusts a miss only when resizeSeq was even and unchanged
// around the walk (seqBegin/seqUnchanged); a hit proves itself by the slot's own re-check.
#pragma once

#include <cstdint>
#include <string>

#include "ledger/Format.h"
#include "platform/shm/EmberFile.h"

namespace Ledger {

class BucketReader {
 public:
  // Maps <root>/<table>/buckets read-only. Throws InitializationException when absent,
  // CorruptionException when its header is not the table's (`emberId`) or malformed.
  void attach(const std::string& root, const std::string& table, uint32_t emberId);
  void detach();
  bool attached() const { return base_ != nullptr; }

  // The bucket count this reader mapped.
  uint32_t numBuckets() const { return numBuckets_; }
  // The bits of a slot's rhash that name its bucket under numBuckets(): the top log2 of it.
  uint32_t rhashBits() const { return rhashBits_; }
  // Compares the mapped bucket count with the header's and re-maps on a mismatch. Throws
  // CorruptionException when the header's count is not usable.
  void checkResize();
  // checkResize() when the header's count is not the one in use, or none is in use: after it
  // returns, numBuckets() is the header's count, and not 0.
  void followResize() {
    if (numBuckets_ == 0 || headerNumBuckets() != numBuckets_) checkResize();
  }

  // Even resizeSeq to walk under, or an odd one when a redistribution is in progress.
  uint32_t seqBegin() const { return Shm::load(header().resizeSeq, std::memory_order_acquire); }
  // True when no redistribution started or ended since `seq` was read.
  bool seqUnchanged(uint32_t seq) const {
    std::atomic_thread_fence(std::memory_order_acquire);
    return Shm::load(header().resizeSeq, std::memory_order_relaxed) == seq;
  }
  uint32_t headerNumBuckets() const {
    return Shm::load(header().numBuckets, std::memory_order_acquire);
  }
  // The link pair of bucket `b` (below numBuckets()), loaded with acquire.
  uint64_t head(uint32_t b) const { return Shm::load(heads()[b], std::memory_order_acquire); }
  const uint64_t& headWord(uint32_t b) const { return heads()[b]; }
  const BucketTableHeader& header() const {
    return *reinterpret_cast<const BucketTableHeader*>(base_);
  }

 private:
  const uint64_t* heads() const {
    return reinterpret_cast<const uint64_t*>(base_ + kBucketTableHeaderSize);
  }
  void bind(uint32_t numBuckets);
  void rebind();

  SharedMem::EmberFile file_;
  const uint8_t* base_ = nullptr;
  uint32_t numBuckets_ = 0;
  uint32_t rhashBits_ = 0;
};

}  // namespace Ledger
