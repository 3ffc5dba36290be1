// The byte layout of a table's shared-memory files, and the atomic accessors that every
// process uses on them. Writer and readers are separate processes, possibly separate builds:
// everything here is part of the file format and changes only with the version number.
//
// A table is a folder <root>/<table>/ holding:
//   slots      the slot table: header, look-aside slot, numSlots slots
//   buckets    the bucket table: header, numBuckets link pairs
//   rally      the change queue's control block (see RallyWriter.h)
//   rally.<g>  generation g of the change queue (see RallyWriter.h)
//   slab.<c>   value slabs of size class c, for tables with variable-size values (Shape.h)
//   writer.lock  flock()ed by the one writer; readers never touch it
//
// All integers are little-endian; every supported platform is.
//
// Slot table file ("slots"):
//
//   struct SlotTableHeader {           // offset size
//     char     magic[8];               //   0    8   "LEDGRSLT"
//     uint32_t version;                //   8    4   12
//     uint32_t emberId;                //  12    4   generation of the table's files
//     uint32_t platformSpec;           //  16    4   1
//     char     valueTypeName[64];      //  20   64   NUL-terminated, at most 63 characters
//     char     classTypeName[64];      //  84   64   NUL-terminated, at most 63 characters
//     uint32_t valueSize;              // 148    4   bytes of the serialised value
//     uint32_t slotSize;               // 152    4   16 + valueSize rounded up to 8
//     uint32_t tableParameter;         // 156    4   the writer's configuration word
//     uint32_t tableKind;              // 160    4   2
//     uint32_t checksum;               // 164    4   see SlotTable::checksum
//     uint32_t occupiedSlots;          // 168    4   written by the writer, read by anyone
//     uint32_t freeListHead;           // 172    4   kNoSlot when empty
//     uint32_t mostSlots;              // 176    4   high-water mark of numSlots
//     uint32_t reserved;               // 180    4   never written
//     uint32_t reservedCounter;        // 184    4   version floor: slots added by growth
//                                      //            start with this version (and link
//                                      //            generation 4 * floor), above any a
//                                      //            slot cut by a shrink had
//     uint32_t numSlots;               // 188    4
//   };                                 // 192
//   SlotHeader lookaside + value       // 192  slotSize
//   SlotHeader slot[numSlots] + value  // 192 + (i + 1) * slotSize
//
//   struct SlotHeader {                // offset size (slotSize is a multiple of 8, so every
//     uint32_t linkGeneration;         //   0    4    slot and its link pair are 8-aligned)
//     uint32_t link;                   //   4    4   kEndOfChain bit, or next slot's index
//     uint32_t status;                 //   8    4   OCCUPIED | LOOKASIDE | version << 2
//     uint32_t rhash;                  //  12    4   bit-reversed hash of the key
//   };                                 //  16    then the value, key first
//
// linkGeneration and link form one 64-bit word (generation in the low half) that is only
// ever written with one 64-bit store: a reader sees the pair whole.
//
// Bucket table file ("buckets"):
//
//   struct BucketTableHeader {         // offset size
//     char     magic[8];               //   0    8   "LEDGRBKT"
//     uint32_t version;                //   8    4   1
//     uint32_t emberId;                //  12    4   the slot table's ember id
//     uint32_t numBuckets;             //  16    4   a power of two
//     uint32_t resizeSeq;              //  20    4   odd while chains are redistributed
//     uint32_t reserved[10];           //  24   40
//   };                                 //  64
//   uint64_t head[numBuckets]          //  64 + 8 * i, a link pair like a slot's
//
// How a reader walks a chain without locks:
//  1. Load resizeSeq (acquire); if it is odd the writer is redistributing chains: wait and
//     retry. Load numBuckets (acquire) and the head pair of bucket hash % numBuckets.
//  2. At each slot: load status (acquire); take rhash and key from the slot, or from the
//     look-aside slot when LOOKASIDE is set; load the slot's link pair (acquire); fence
//     (acquire); re-load the status and the link pair that led here (the bucket head or the
//     previous slot's pair). If the status changed, or is not OCCUPIED, or that pair changed
//     (its generation moves on every store), restart: the slot may have been freed and reused
//     in another chain or another place of this one, which its status alone cannot show.
//  3. Compare (rhash, key): equal is a hit (copy the value with the status re-check), greater
//     ends the walk with a miss.
//  4. A miss counts only if, after a fence (acquire), resizeSeq still has the value of step 1.
// Every index is bounds-checked against the mapped size (re-map when the header's numSlots
// or numBuckets is beyond it) and every walk is bounded.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Ledger {

inline constexpr char kSlotMagic[8] = {'L', 'E', 'D', 'G', 'R', 'S', 'L', 'T'};
inline constexpr char kBucketMagic[8] = {'L', 'E', 'D', 'G', 'R', 'B', 'K', 'T'};
inline constexpr uint32_t kSlotVersion = 12;
inline constexpr uint32_t kBucketVersion = 1;
inline constexpr uint32_t kPlatformSpec = 1;
inline constexpr uint32_t kTableKind = 2;
inline constexpr size_t kTypeNameSize = 64;

inline constexpr uint32_t kNoSlot = 0xffffffffu;      // empty free list, fresh link
inline constexpr uint32_t kEndOfChain = 0x80000000u;  // link bit: no successor
inline constexpr uint32_t kMaxSlots = 0x7fffffffu;    // slot indexes fit in 31 bits

// Status word bits.
inline constexpr uint32_t kOccupied = 1u;
inline constexpr uint32_t kLookaside = 2u;
inline constexpr uint32_t kVersionStep = 4u;

struct SlotTableHeader {
  char magic[8];
  uint32_t version;
  uint32_t emberId;
  uint32_t platformSpec;
  char valueTypeName[kTypeNameSize];
  char classTypeName[kTypeNameSize];
  uint32_t valueSize;
  uint32_t slotSize;
  uint32_t tableParameter;
  uint32_t tableKind;
  uint32_t checksum;
  uint32_t occupiedSlots;
  uint32_t freeListHead;
  uint32_t mostSlots;
  uint32_t reserved;
  uint32_t reservedCounter;
  uint32_t numSlots;
};

// The pseudo-struct's linkGeneration and link, as the one 64-bit word they always move as.
struct SlotHeader {
  uint64_t linkPair;  // packLink(linkGeneration, link)
  uint32_t status;
  uint32_t rhash;
};

struct BucketTableHeader {
  char magic[8];
  uint32_t version;
  uint32_t emberId;
  uint32_t numBuckets;
  uint32_t resizeSeq;
  uint32_t reserved[10];
};

inline constexpr size_t kSlotTableHeaderSize = 192;
inline constexpr size_t kSlotHeaderSize = 16;
inline constexpr size_t kBucketTableHeaderSize = 64;

static_assert(std::is_trivially_copyable_v<SlotTableHeader>);
static_assert(std::is_standard_layout_v<SlotTableHeader>);
static_assert(sizeof(SlotTableHeader) == kSlotTableHeaderSize);
static_assert(offsetof(SlotTableHeader, version) == 8);
static_assert(offsetof(SlotTableHeader, emberId) == 12);
static_assert(offsetof(SlotTableHeader, platformSpec) == 16);
static_assert(offsetof(SlotTableHeader, valueTypeName) == 20);
static_assert(offsetof(SlotTableHeader, classTypeName) == 84);
static_assert(offsetof(SlotTableHeader, valueSize) == 148);
static_assert(offsetof(SlotTableHeader, slotSize) == 152);
static_assert(offsetof(SlotTableHeader, tableParameter) == 156);
static_assert(offsetof(SlotTableHeader, tableKind) == 160);
static_assert(offsetof(SlotTableHeader, checksum) == 164);
static_assert(offsetof(SlotTableHeader, occupiedSlots) == 168);
static_assert(offsetof(SlotTableHeader, freeListHead) == 172);
static_assert(offsetof(SlotTableHeader, mostSlots) == 176);
static_assert(offsetof(SlotTableHeader, reserved) == 180);
static_assert(offsetof(SlotTableHeader, reservedCounter) == 184);
static_assert(offsetof(SlotTableHeader, numSlots) == 188);
static_assert(std::is_trivially_copyable_v<SlotHeader>);
static_assert(sizeof(SlotHeader) == kSlotHeaderSize);
static_assert(offsetof(SlotHeader, status) == 8);
static_assert(offsetof(SlotHeader, rhash) == 12);
static_assert(std::is_trivially_copyable_v<BucketTableHeader>);
static_assert(sizeof(BucketTableHeader) == kBucketTableHeaderSize);
static_assert(offsetof(BucketTableHeader, numBuckets) == 16);
static_assert(offsetof(BucketTableHeader, resizeSeq) == 20);
// The protocol needs plain loads and stores of 32- and 64-bit words that no other process
// can see torn, without locks.
static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);
static_assert(std::atomic_ref<uint64_t>::required_alignment <= 8);

// 16-byte slot header + value, rounded up to 8 so that every link pair is 8-aligned.
constexpr uint32_t slotSizeFor(uint32_t valueSize) {
  return (static_cast<uint32_t>(kSlotHeaderSize) + valueSize + 7u) & ~7u;
}
static_assert(slotSizeFor(116) == 136);
static_assert(slotSizeFor(8) == 24);

// A 32-bit word with its bits reversed: bytes swapped, then nibbles, pairs and bits by
// shifting and masking. A dozen register operations and no memory: every walk of the table
// (writes, look-ups, syncs) reverses a hash per key while it misses the cache on slots and
// buckets, and a look-up table for this would be one more thing those misses evict.
constexpr uint32_t reverseBits(uint32_t x) {
  x = __builtin_bswap32(x);
  x = ((x >> 4) & 0x0f0f0f0fu) | ((x & 0x0f0f0f0fu) << 4);
  x = ((x >> 2) & 0x33333333u) | ((x & 0x33333333u) << 2);
  return ((x >> 1) & 0x55555555u) | ((x & 0x55555555u) << 1);
}
static_assert(reverseBits(1) == 0x80000000u && reverseBits(0x12345678u) == 0x1e6a2c48u);

// Table order: buckets by their index with its bits reversed, each chain in (rhash, key) order.
// A bucket's index is the low bits of its keys' hashes, which reversed are the high bits of
// their rhash: the whole table is then in ascending (rhash, key) order, whatever the bucket
// count. Doubling the buckets splits each chain into two that follow each other in this
// order, and halving merges them back; a walk from each key to the one after it goes on where
// it was across either.
//
// The bucket `distance` places after `bucket` in table order among `numBuckets` (a power of
// two), or `numBuckets` when the table ends before (or numBuckets is not a power of two).
constexpr uint32_t bucketAheadInOrder(uint32_t bucket, uint32_t numBuckets, uint32_t distance) {
  if (numBuckets < 2 || (numBuckets & (numBuckets - 1)) != 0) return numBuckets;
  const int shift = 32 - __builtin_ctz(numBuckets);
  const uint64_t order = uint64_t{reverseBits(bucket) >> shift} + distance;
  return order >= numBuckets ? numBuckets : reverseBits(uint32_t(order)) >> shift;
}
constexpr uint32_t nextBucketInOrder(uint32_t bucket, uint32_t numBuckets) {
  return bucketAheadInOrder(bucket, numBuckets, 1);
}
// How far ahead in table order a walk fetches: the first slot of the bucket this far ahead,
// and the bucket twice as far (whose head the first fetch then finds in the cache).
inline constexpr uint32_t kWalkAhead = 8;
static_assert(bucketAheadInOrder(0, 8, 3) == 6 && bucketAheadInOrder(6, 8, 2) == 5 &&
              bucketAheadInOrder(6, 8, 5) == 8);
static_assert(nextBucketInOrder(0, 8) == 4 && nextBucketInOrder(4, 8) == 2 &&
              nextBucketInOrder(6, 8) == 1 && nextBucketInOrder(7, 8) == 8 &&
              nextBucketInOrder(0, 1) == 1 && nextBucketInOrder(0, 6) == 6);

// Starts fetching each cache line of the `size` bytes at `at`, from byte `from` on, and the
// line of the last byte, which bytes that start late in a line reach: a slot or a value
// spans several lines, and asking for all of them at once overlaps their misses.
inline void prefetchSpan(const void* at, uint32_t size, uint32_t from = 0) {
  const auto* bytes = static_cast<const char*>(at);
  for (uint32_t offset = from; offset < size; offset += 64) __builtin_prefetch(bytes + offset);
  __builtin_prefetch(bytes + size - 1);
}

// A link pair as one 64-bit word: generation in the low half, link in the high half.
constexpr uint64_t packLink(uint32_t generation, uint32_t link) {
  return generation | (static_cast<uint64_t>(link) << 32);
}
constexpr uint32_t linkOf(uint64_t pair) { return static_cast<uint32_t>(pair >> 32); }
constexpr uint32_t generationOf(uint64_t pair) { return static_cast<uint32_t>(pair); }
constexpr bool isEndOfChain(uint32_t link) { return (link & kEndOfChain) != 0; }

// Atomic access to words of a shared mapping. The words are plain integers in the file;
// std::atomic_ref gives them atomic loads and stores (plain moves on this platform) without
// changing the layout. Readers map the files read-only: a load never writes.
namespace Shm {

template <class T>
inline T load(const T& word, std::memory_order order) {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(order);
}
template <class T>
inline void store(T& word, T value, std::memory_order order) {
  std::atomic_ref<T>(word).store(value, order);
}

// Asks for the line holding `address` in the state a store needs (owned, other copies
// invalidated), without waiting for it. Only a hint: it never faults, so the address may lie
// past the end of a mapping. PREFETCHW runs on every x86-64 processor this code meets (older
// ones decode it as a no-op); elsewhere the compiler's write prefetch stands in.
inline void prefetchForWrite(uintptr_t address) {
#if defined(__x86_64__)
  asm volatile("prefetchw (%0)" : : "r"(address));
#else
  __builtin_prefetch(reinterpret_cast<const void*>(address), 1);
#endif
}
inline void prefetchForWrite(const void* p) { prefetchForWrite(reinterpret_cast<uintptr_t>(p)); }

}  // namespace Shm

}  // namespace Ledger
