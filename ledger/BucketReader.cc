#include "ledger/BucketReader.h"

#include <cstring>

#include "ledger/Exceptions.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("BucketReader")

namespace Ledger {

namespace {

uint64_t bucketFileSize(uint64_t numBuckets) { return kBucketTableHeaderSize + 8 * numBuckets; }
bool powerOfTwo(uint32_t n) { return n != 0 && (n & (n - 1)) == 0; }

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

void BucketReader::checkResize() {
  uint32_t n = headerNumBuckets();
  if (n == numBuckets_) return;
  if (numBuckets_ != 0) {
    ZTRACE(3, "BucketReader::checkResize() found mismatch, local " << numBuckets_
                                                                   << " header numBuckets:" << n);
  }
  if (!powerOfTwo(n) || n > kMaxSlots) {
    throw CorruptionException("BucketReader::checkResize() bad header numBuckets:" +
                              std::to_string(n));
  }
  if (file_.size() < bucketFileSize(n) && !file_.remap()) {
    throw CorruptionException("BucketReader::checkResize() failed to resize " + file_.path() +
                              ": " + file_.error());
  }
  if (file_.size() < bucketFileSize(n)) {
    throw CorruptionException("BucketReader::checkResize() header numBuckets:" + std::to_string(n) +
                              " beyond file size:" + std::to_string(file_.size()));
  }
  bind(n);
}

}  // namespace Ledger
