// BucketWriterTable: the writer's mapping of the bucket table file (layout in Format.h).
// Chains themselves are WriterHashMap's business; this class owns the file, its header and
// the resize protocol readers rely on.
#pragma once

#include <cstdint>
#include <string>

#include "ledger/Format.h"
#include "platform/shm/EmberFile.h"

namespace Ledger {

class BucketWriterTable {
 public:
  // Opens or creates "buckets". Adopts the file when `adopt` is set and it is well formed for
  // `emberId`; otherwise formats it with `numBuckets` empty buckets. Returns whether it was
  // adopted. Throws InitializationException when the file cannot be made.
  bool attach(const std::string& root, const std::string& table, uint32_t emberId,
              SharedMem::EmberFile::Perm perm, bool adopt, uint32_t numBuckets);
  void detach() { file_.close(); }

  uint32_t numBuckets() const { return numBuckets_; }
  uint64_t& head(uint32_t bucket) { return heads()[bucket]; }
  const uint64_t& head(uint32_t bucket) const { return heads()[bucket]; }

  // Makes the file hold at least `numBuckets` heads (the new ones empty); the mapping may move.
  bool reserve(uint32_t numBuckets);
  // Formats every bucket empty with `numBuckets` buckets, inside a resize bracket left open
  // for the writer to link the table's entries again; endRebuild() closes it.
  void reset(uint32_t numBuckets);
  void endRebuild();
  // Brackets a redistribution of the chains (see Format.h): readers retry a miss that
  // overlapped it.
  void beginResize();
  void endResize(uint32_t numBuckets);
  // Gives back the pages of the heads from `numBuckets` on (after a shrink).
  void release(uint32_t numBuckets);

  const BucketTableHeader& header() const {
    return *reinterpret_cast<const BucketTableHeader*>(file_.base());
  }
  size_t mappedSize() const { return file_.size(); }

 private:
  BucketTableHeader& mutableHeader() { return *reinterpret_cast<BucketTableHeader*>(file_.base()); }
  uint64_t* heads() const {
    return reinterpret_cast<uint64_t*>(file_.base() + kBucketTableHeaderSize);
  }
  bool valid(uint32_t emberId) const;

  SharedMem::EmberFile file_;
  uint32_t numBuckets_ = 0;
  uint32_t emberId_ = 0;
};

}  // namespace Ledger
