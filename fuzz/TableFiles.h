// A table's files written from fuzz input, for the targets that open tables: the slot file
// (raw, or with a well-formed header), the bucket table and the change queue's files, and the
// slab files of a table whose values vary in size, with the value type that such a table holds.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "ledger/Format.h"
#include "ledger/RallyWriter.h"
#include "ledger/Shape.h"
#include "ledger/SlabOps.h"

namespace Fuzz {

// A value of variable length for the slab table: its key and up to 64 words.
struct FuzzSet {
  FuzzKey k;
  std::vector<uint32_t> words;
};
struct FuzzSetCodec {
  static constexpr size_t kMaxEncodedSize = 4 + 4 * 64;
  static size_t encodedSize(const FuzzSet& v) { return 4 + 4 * v.words.size(); }
  static void encode(const FuzzSet& v, uint8_t* out) {
    std::memcpy(out, &v.k, 4);
    if (!v.words.empty()) std::memcpy(out + 4, v.words.data(), 4 * v.words.size());
  }
  static void decode(const uint8_t* in, size_t size, FuzzSet& out) {
    if (size < 4 || (size - 4) % 4 != 0) {
      throw Ledger::CorruptionException("FuzzSetCodec::decode() bad size");
    }
    std::memcpy(&out.k, in, 4);
    out.words.resize((size - 4) / 4);
    if (!out.words.empty()) std::memcpy(out.words.data(), in + 4, size - 4);
  }
  static FuzzKey keyOfEncoded(const uint8_t* in, size_t size) {
    if (size < 4) throw Ledger::CorruptionException("FuzzSetCodec::keyOfEncoded() bad size");
    FuzzKey k;
    std::memcpy(&k, in, 4);
    return k;
  }
  static FuzzKey keyOf(const FuzzSet& v) { return v.k; }
  static const char* typeName() { return "Fuzz::Set"; }
};
using FuzzSetOps = Ledger::SlabOps<FuzzKey, FuzzSet, FuzzSetCodec>;

// Header of `T` at the front of `file`, made well-formed by `shape` when asked.
template <class T, class Fn>
std::vector<uint8_t> withHeader(std::vector<uint8_t> body, bool wellFormed, Fn shape) {
  if (!wellFormed) return body;
  std::vector<uint8_t> file(sizeof(T), 0);
  file.insert(file.end(), body.begin(), body.end());
  if (!body.empty()) std::memcpy(file.data(), body.data(), std::min(body.size(), sizeof(T)));
  shape(*reinterpret_cast<T*>(file.data()));
  return file;
}

inline uint32_t writeSlots(const std::string& dir, Input& in, bool raw, bool slabs) {
  if (raw) {
    writeFile(dir + "/slots", in.take(in.word() % 4096));
    return 0;
  }
  Ledger::TableShape shape =
      slabs ? Ledger::TableShape{8, 0, "Fuzz::Set", FuzzSetOps().classTypeName()}
            : Ledger::TableShape{sizeof(FuzzValue), 0, "Fuzz::Value", "Ledger::Table<Fuzz::Value>"};
  uint32_t ember = in.word() | 1;
  auto file = formattedSlotFile(in, shape, ember, [](Ledger::SlotTableHeader&) {});
  writeFile(dir + "/slots", file);
  return ember;
}

// A count or number in a header made well-formed: mostly `shaped`, a value that lets the
// reader in; one time in four the word as it came (clear of the two bits that chose), so that
// readers also meet 0, huge and mismatched counts in a header that is whole otherwise.
inline uint32_t shapedOrAsItCame(uint32_t raw, uint32_t shaped) {
  return (raw & 0x300) == 0x300 ? raw >> 10 : shaped;
}

// A well-formed bucket header of the table `ember`: a small power of two of buckets, or now
// and then the count as it came (0, not a power of two, beyond the file).
inline void shapeBuckets(Ledger::BucketTableHeader& h, uint32_t ember) {
  std::memcpy(h.magic, Ledger::kBucketMagic, 8);
  h.version = Ledger::kBucketVersion;
  h.emberId = ember;
  h.numBuckets = shapedOrAsItCame(h.numBuckets, 1u << (h.numBuckets % 8));
  h.resizeSeq &= 2;
}

inline void writeOthers(const std::string& dir, Input& in, bool wellFormed, uint32_t ember) {
  writeFile(dir + "/buckets", withHeader<Ledger::BucketTableHeader>(
                                  in.take(in.word() % 1024), wellFormed,
                                  [&](Ledger::BucketTableHeader& h) { shapeBuckets(h, ember); }));
  uint32_t generation = 0;
  uint64_t latestSeq = 0;
  writeFile(dir + "/rally", withHeader<Ledger::RallyControl>(
                                in.take(in.word() % 128), wellFormed, [&](Ledger::RallyControl& c) {
                                  std::memcpy(c.magic, Ledger::kRallyControlMagic, 8);
                                  c.version = Ledger::kRallyControlVersion;
                                  c.emberId = ember;
                                  c.generation = shapedOrAsItCame(c.generation, c.generation % 4);
                                  generation = c.generation;
                                  latestSeq = c.latestSeq;
                                }));
  // Entry words come from the input as they are; a well-formed base lies a little below the
  // newest sequence, so that their offsets land near it.
  writeFile(dir + "/" + Ledger::rallyQueueName(generation),
            withHeader<Ledger::RallyQueueHeader>(
                in.take(in.word() % 2048), wellFormed, [&](Ledger::RallyQueueHeader& q) {
                  std::memcpy(q.magic, Ledger::kRallyQueueMagic, 8);
                  q.version = Ledger::kRallyQueueVersion;
                  q.emberId = ember;
                  q.generation = shapedOrAsItCame(q.generation, generation);
                  q.baseSeq = latestSeq - std::min<uint64_t>(latestSeq, q.baseSeq % 4096);
                  q.slotCapacity = shapedOrAsItCame(q.slotCapacity, q.slotCapacity % 256);
                  q.capacity = shapedOrAsItCame(q.capacity, q.capacity % 256);
                }));
}

// Slab files of the first three size classes: a fixed header made well-formed when asked
// (counts and entries from the input).
inline void writeSlabs(const std::string& dir, Input& in, bool wellFormed, uint32_t ember) {
  for (uint32_t c = 0; c < 3; ++c) {
    writeFile(dir + "/slab." + std::to_string(c),
              withHeader<Shape::SlabHeader>(
                  in.take(in.word() % 2048), wellFormed, [&](Shape::SlabHeader& h) {
                    std::memcpy(h.magic, Shape::kSlabMagic, 8);
                    h.version = Shape::kSlabVersion;
                    h.sizeClass = c;
                    h.maxPayload = Shape::maxPayloadOf(c);
                    h.checksum = Shape::SlabHeader::checksumOf(h.maxPayload, c);
                    h.emberId = ember;
                  }));
  }
}

}  // namespace Fuzz
