#include "ledger/BucketReader.h"

#include <cstring>

#include "ledger/Exceptions.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("BucketReader")

namespace Ledger {

namespace {

uint64_t bucketFileSize(uint64_t numBuckets) { return kBucketTableHeaderSize + 8 * numBuckets; }
bool powerOfTwo(uint32_t n) { return n != 0 && (n & (n - 1)) == 0; }

// What a reader sees of a bucket file cut shorter than its header: a header of zeros (no
// buckets), in place of the file's.
alignas(64) constexpr uint8_t kNoBuckets[kBucketTableHeaderSize] = {};

}  // namespace

void BucketReader::attach(const std::string& root, const std::string& table, uint32_t emberId) {
  detach();
  if (!file_.open(root, table, "buckets", SharedMem::EmberFile::Access::ReadOnly, false)) {
    throw InitializationException("BucketReader::attach() no shared memory region " + file_.path() +
                                  ": " + file_.error());
  }
  if (file_.size() < kBucketTableHeaderSize) {
    file_.close();
    throw CorruptionException("BucketReader::attach() bad file size: " +
                              std::to_string(file_.size()));
  }
  base_ = file_.base();
  const BucketTableHeader& h = header();
  if (std::memcmp(h.magic, kBucketMagic, 8) != 0 || h.version != kBucketVersion ||
      h.emberId != emberId) {
    uint32_t ember = h.emberId;
    detach();
    throw CorruptionException("BucketReader::attach() bad header, ember:" + std::to_string(ember) +
                              " wanted:" + std::to_string(emberId));
  }
  numBuckets_ = 0;
  checkResize();
}

void BucketReader::detach() {
  file_.close();
  base_ = nullptr;
  numBuckets_ = 0;
  rhashBits_ = 0;
}

void BucketReader::bind(uint32_t numBuckets) {
  base_ = file_.base();
  numBuckets_ = numBuckets;
  rhashBits_ = numBuckets == 0 ? 0 : reverseBits(numBuckets - 1);
}

// After a re-map, which may have moved the mapping or found the file cut: the buckets in use
// stay in use only while the mapping still holds them.
void BucketReader::rebind() {
  if (file_.base() == nullptr || file_.size() < kBucketTableHeaderSize) {
    base_ = kNoBuckets;
    numBuckets_ = rhashBits_ = 0;
    return;
  }
  base_ = file_.base();
  if (file_.size() < bucketFileSize(numBuckets_)) numBuckets_ = rhashBits_ = 0;
}

// A count of 0 is never in use: every walk comes here and reports the header, and a reader
// left on kNoBuckets by a cut file maps the file again first, to find it whole.
void BucketReader::checkResize() {
  if (base_ == kNoBuckets && file_.remap()) rebind();
  const uint32_t n = headerNumBuckets();
  if (n == numBuckets_ && n != 0) return;
  if (numBuckets_ != 0) {
    ZTRACE(3, "BucketReader::checkResize() found mismatch, local " << numBuckets_
                                                                   << " header numBuckets:" << n);
  }
  if (!powerOfTwo(n) || n > kMaxSlots) {
    throw CorruptionException("BucketReader::checkResize() bad header numBuckets:" +
                              std::to_string(n));
  }
  if (file_.size() < bucketFileSize(n)) {
    if (!file_.remap()) {
      throw CorruptionException("BucketReader::checkResize() failed to resize " + file_.path() +
                                ": " + file_.error());
    }
    rebind();
  }
  if (file_.size() < bucketFileSize(n)) {
    throw CorruptionException("BucketReader::checkResize() header numBuckets:" + std::to_string(n) +
                              " beyond file size:" + std::to_string(file_.size()));
  }
  bind(n);
}

}  // namespace Ledger
