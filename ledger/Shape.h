// Shape: slabs for values whose size varies (a via set holds 44 + 12 x count bytes, up to
// 1580). A table of such values stores a Shape::Offset (8 bytes) in each slot and the value's
// bytes in a slab entry; a via set of 2 vias costs a 72-byte entry, not a 1,600-byte slot.
//
// One slab file per size class, "slab.<c>" in the table's folder. Entries (4-byte entry header
// included) grow in eighth steps between powers of two, 64, 72, 80, ... 120, 128, 144, ...
// 2048 bytes (entrySizeOf), so an entry wastes less than a ninth of its bytes; a via set of
// 2, 4, 6, 8 or 16 vias fills its entry exactly.
//
//   struct SlabHeader {           // offset size
//     char     magic[8];          //   0    8   "LEDGRSLB"
//     uint32_t version;           //   8    4   3
//     uint32_t checksum;          //  12    4   platform hash of maxPayload and sizeClass
//     uint32_t numOccupied;       //  16    4   entries in use
//     uint32_t numEntries;        //  20    4   entries the file holds
//     uint32_t emberId;           //  24    4   the slot table's ember id
//     uint32_t freeList;          //  28    4   first free entry, kNoEntry when none
//     uint32_t maxPayload;        //  32    4   maxPayloadOf(sizeClass)
//     uint32_t sizeClass;         //  36    4
//     uint32_t highWater;         //  40    4   entries ever handed out; those at and above
//                                 //            it are free without being on the free list
//     uint32_t reserved[5];       //  44   20
//   };                            //  64
//   struct SlabEntry {            //  64 + i * (4 + maxPayload)
//     uint32_t payloadSize;       //   0    4   0: free
//     uint8_t  payload[maxPayload];   //      a free entry's first 4 bytes: the next free
//   };                            //            entry (free-list link)
//
// Readers rely on: a payload is written before the slot that refers to it is published, and
// never changed while any slot refers to it; the writer frees it only after the referring
// slot's final status store (Ops::retire), so a reader whose status re-check succeeds copied
// a payload that was whole. Slab files never shrink and are never cut.
//
// A file grows by doubling, but the entries above highWater are never written until they are
// handed out: the pages of a file's unused tail cost no memory. The writer maps the pages of
// the entries it is about to hand out in bulk, kPopulateAhead bytes at a time beyond the high
// water (EmberFile::populate), instead of faulting each page in as an entry first lands on it;
// a slab thus occupies at most that much more than its entries need.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/shm/EmberFile.h"

namespace Shape {

inline constexpr char kSlabMagic[8] = {'L', 'E', 'D', 'G', 'R', 'S', 'L', 'B'};
inline constexpr uint32_t kSlabVersion = 3;
inline constexpr uint32_t kNoEntry = 0xffffffffu;
inline constexpr uint32_t kEntryHeaderSize = 4;
inline constexpr uint32_t kNumClasses = 41;
inline constexpr uint32_t kPopulateAhead = 128 * 1024;
// Bytes of an entry of class c, its header included: (8 + c % 8) << (3 + c / 8).
constexpr uint32_t entrySizeOf(uint32_t c) { return (8 + c % 8) << (3 + c / 8); }
constexpr uint32_t maxPayloadOf(uint32_t c) { return entrySizeOf(c) - kEntryHeaderSize; }
inline constexpr uint32_t kMaxPayload = maxPayloadOf(kNumClasses - 1);
static_assert(entrySizeOf(0) == 64 && entrySizeOf(1) == 72 && entrySizeOf(8) == 128);
static_assert(entrySizeOf(kNumClasses - 1) == 2048 && kMaxPayload == 2044);
// A free entry keeps its free-list link where a payload would be.
static_assert(maxPayloadOf(0) >= sizeof(uint32_t));

struct SlabHeader {
  char magic[8];
  uint32_t version;
  uint32_t checksum;
  uint32_t numOccupied;
  uint32_t numEntries;
  uint32_t emberId;
  uint32_t freeList;
  uint32_t maxPayload;
  uint32_t sizeClass;
  uint32_t highWater;
  uint32_t reserved[5];

  static uint32_t checksumOf(uint32_t maxPayload, uint32_t sizeClass);
  // In order: header size, magic, version, checksum, numOccupied, shmem size, ember (unless
  // `expectedEmber` is 0), high water, free list. Throws Ledger::CorruptionException.
  void validate(size_t fileSize, uint32_t expectedEmber) const;
  // The fields that never change while the file lives (magic, version, checksum, ember),
  // for a reader mapping a slab that its writer is changing: the counts may be mid-update.
  void validateFixed(uint32_t expectedEmber) const;

 private:
  void validateIdentity() const;  // magic, version, checksum
  void validateEmber(uint32_t expectedEmber) const;
};
static_assert(sizeof(SlabHeader) == 64);

struct SlabEntryHeader {
  uint32_t payloadSize;
};
static_assert(sizeof(SlabEntryHeader) == kEntryHeaderSize);

// A reference to a slab entry, as stored in a slot: bit 63 set, size class in bits 32-39,
// entry index in bits 0-31. Zero is no entry.
struct Offset {
  uint64_t raw = 0;
  static Offset of(uint32_t sizeClass, uint32_t index) {
    return Offset{(uint64_t{1} << 63) | (uint64_t{sizeClass} << 32) | index};
  }
  bool valid() const { return raw >> 63; }
  uint32_t sizeClass() const { return static_cast<uint32_t>(raw >> 32) & 0xff; }
  uint32_t index() const { return static_cast<uint32_t>(raw); }
  bool operator==(const Offset&) const = default;
};
static_assert(sizeof(Offset) == 8);

// The size class holding `size` bytes, or kNumClasses when none does.
constexpr uint32_t sizeClassFor(size_t size) {
  uint32_t c = 0;
  while (c < kNumClasses && size > maxPayloadOf(c)) ++c;
  return c;
}

// The entries of a mapped slab file (`fileSize` bytes, header already validated): the free
// list walked (bounded: a loop or an index beyond the file is reported), every entry either
// free or holding a possible payload size, numOccupied equal to the entries in use and, with
// `referenced` (one mark per entry), exactly the referenced entries in use. The first
// inconsistency, or empty.
std::string checkEntries(const uint8_t* file, size_t fileSize,
                         const std::vector<bool>* referenced = nullptr);
// A slab entry that two slots refer to, in the words of every check that finds one.
std::string referencedTwice(uint32_t sizeClass, uint32_t index);

// The writer's end of one slab file.
class SlabWriter {
 public:
  enum class Attached { kept, wiped, created };
  // Opens or creates slab.<sizeClass>; keeps a valid slab of `emberId` (validateUnattached),
  // wipes anything else. Throws Ledger::InitializationException.
  Attached attach(const std::string& root, const std::string& table, uint32_t sizeClass,
                  uint32_t emberId, SharedMem::EmberFile::Perm perm);
  void detach() { file_.close(); }
  bool attached() const { return file_.isOpen(); }

  uint32_t alloc(uint32_t size);  // an entry index; grows the file when needed
  void free(uint32_t index);
  uint8_t* payload(uint32_t index) { return entry(index) + sizeof(SlabEntryHeader); }
  const uint8_t* entryAt(uint32_t index) { return entry(index); }
  const SlabEntryHeader& entryHeader(uint32_t index) {
    return *reinterpret_cast<const SlabEntryHeader*>(entry(index));
  }
  const SlabHeader& header() const { return *reinterpret_cast<const SlabHeader*>(file_.base()); }
  uint32_t numEntries() const { return header().numEntries; }
  // Rebuilds free list and count keeping exactly the entries marked in `live`.
  void rebuild(const std::vector<bool>& live);
  std::string check(const std::vector<bool>* referenced) const {
    return checkEntries(file_.base(), file_.size(), referenced);
  }

 private:
  SlabHeader& mutableHeader() { return *reinterpret_cast<SlabHeader*>(file_.base()); }
  uint64_t entryOffset(uint32_t index) const {
    return sizeof(SlabHeader) + uint64_t{index} * entrySize_;
  }
  uint8_t* entry(uint32_t index) { return file_.base() + entryOffset(index); }
  void format(uint32_t emberId);
  bool doResize(uint32_t numEntries);
  uint32_t allocAboveHighWater(uint32_t size);
  // Entry `index` is about to be written: its pages, and those of the next kPopulateAhead
  // bytes, are mapped unless an earlier call did so.
  void populateThrough(uint32_t index);

  SharedMem::EmberFile file_;
  uint32_t sizeClass_ = 0;
  uint32_t entrySize_ = 0;
  uint64_t populatedEnd_ = 0;  // bytes of the file below it are mapped (or were tried)
};

// A reader's read-only mapping of one slab file. Nothing in the file is trusted: every entry
// index is checked against the mapping (re-mapped once when the writer grew the file) and
// every payload size against maxPayload.
class SlabReader {
 public:
  // Maps slab.<sizeClass> read-only and validates its header (any ember when `emberId` is 0).
  // Throws Ledger::InitializationException without a file, CorruptionException on a bad
  // header.
  void attach(const std::string& root, const std::string& table, uint32_t sizeClass,
              uint32_t emberId);
  void detach();
  bool attached() const { return file_.isOpen(); }
  // Maps the file's current length again; false (traced "::doResize() failed to resize
  // from ") when that fails or the header no longer validates.
  bool doResize();

  const SlabHeader& header() const { return *reinterpret_cast<const SlabHeader*>(file_.base()); }
  uint32_t mappedEntries() const { return mappedEntries_; }
  size_t mappedSize() const { return file_.size(); }
  uint32_t maxPayload() const { return maxPayload_; }
  const std::string& path() const { return file_.path(); }
  uint64_t remaps() const { return remaps_; }

  // Copies the payload of entry `index` into `out` (room for `capacity` bytes): its size, or
  // 0 when the entry is free or its bytes are impossible (`why` says which). Re-maps once
  // when the index lies beyond the mapping.
  uint32_t copy(uint32_t index, uint8_t* out, uint32_t capacity, std::string& why);
  // The payload of entry `index` in place, for a table that nobody writes (tools); null when
  // the entry is free, beyond the mapping or impossible.
  const uint8_t* payload(uint32_t index, uint32_t* size) const;
  // checkEntries() on the mapping.
  std::string check(const std::vector<bool>* referenced = nullptr) const {
    return checkEntries(file_.base(), file_.size(), referenced);
  }

 private:
  const SlabEntryHeader* entry(uint32_t index) const {
    return reinterpret_cast<const SlabEntryHeader*>(file_.base() + sizeof(SlabHeader) +
                                                    uint64_t{index} * entrySize_);
  }
  void bind();

  SharedMem::EmberFile file_;
  uint32_t sizeClass_ = 0;
  uint32_t emberId_ = 0;
  uint32_t entrySize_ = 0;
  uint32_t maxPayload_ = 0;
  uint32_t mappedEntries_ = 0;
  uint64_t remaps_ = 0;
};

// A reader's view of all the slab files of one table, each mapped on first use.
class ReaderAllocator {
 public:
  void attach(const std::string& root, const std::string& table, uint32_t emberId);
  void detach();
  // Copies the payload `offset` names into `out` (room for `capacity` bytes): its size, or 0
  // with the reason in `why` (no such entry, free, impossible size, file missing).
  uint32_t copy(Offset offset, uint8_t* out, uint32_t capacity, std::string& why);
  // `stored` holds a slot's Offset; replaces it by the copy [uint32 size][payload] of what it
  // refers to (payload at most `capacity` bytes). False, with the reason, when it cannot.
  bool copyReferenced(uint8_t* stored, uint32_t capacity, std::string& why);
  // The slab of a size class, mapped now; null (reason in `why`) when it cannot be.
  SlabReader* slab(uint32_t sizeClass, std::string& why);

 private:
  std::string root_;
  std::string table_;
  uint32_t emberId_ = 0;
  std::array<SlabReader, kNumClasses> slabs_;
};

// Allocation over all size classes of one table.
class WriterAllocator {
 public:
  // The bytes of an entry that prefetch() fetches: header and a key of up to 28 bytes.
  static constexpr uint32_t kPrefetchedHead = 32;
  static_assert(kPrefetchedHead <= entrySizeOf(0));
  void attach(const std::string& root, const std::string& table, uint32_t emberId,
              SharedMem::EmberFile::Perm perm);
  void detach();
  Offset alloc(size_t size);
  void free(Offset offset);
  // Payload bytes and size of a live entry; null when the offset names no live entry.
  const uint8_t* payload(Offset offset, uint32_t* size = nullptr);
  uint8_t* mutablePayload(Offset offset) { return const_cast<uint8_t*>(payload(offset)); }
  // Starts fetching the entry that `offset` names, when it names one: its header and the
  // first bytes of its payload (where a table keeps the key), which may start the next line.
  void prefetch(Offset offset) {
    if (!offset.valid() || offset.sizeClass() >= kNumClasses) return;
    SlabWriter& slab = slabs_[offset.sizeClass()];
    if (offset.index() >= slab.numEntries()) return;
    const uint8_t* entry = slab.entryAt(offset.index());
    __builtin_prefetch(entry);
    __builtin_prefetch(entry + kPrefetchedHead - 1);
  }
  // Keeps exactly the entries named in `live` (recovery after a writer died).
  void rebuild(const std::vector<Offset>& live);
  // Every slab consistent (checkEntries) and in use by exactly the entries `live` names,
  // each named once: the first inconsistency, or empty.
  std::string check(const std::vector<Offset>& live) const;
  uint64_t occupied() const;
  SlabWriter& slab(uint32_t sizeClass) { return slabs_[sizeClass]; }

 private:
  std::array<SlabWriter, kNumClasses> slabs_;
};

}  // namespace Shape
