// Fuzz target: arbitrary bytes as a table's files, read by the reader side only. A direct
// reader looks keys up, iterates and reads slots by index; a shadow syncs and follows the
// change queue. Nothing may crash, hang or read out of bounds, whatever the files hold; a
// reader reports corruption and carries on. Lookups go one by one and in a batch.
//
// Input: one mode byte, then the bytes of the files. Mode bit 0 set: the slot file is taken
// as it comes. Clear: it gets a well-formed header (so that the fuzzer reaches slots and
// chains) with counters and slots from the input. Bit 1 set: the bucket header, the queue's
// control block and queue header are made well-formed, their fields and bodies from the
// input, so that walks and the queue reader are reached; clear: those files are raw bytes.
// Bit 2 set: the table is a slab table (slots hold slab references) and three slab files
// follow, with well-formed fixed headers when bit 1 is set; its readers copy the payloads.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "ledger/LedgerShadow.h"
#include "ledger/Shape.h"
#include "ledger/SlabOps.h"

namespace {

using namespace Fuzz;

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

uint32_t writeSlots(const std::string& dir, Input& in, bool raw, bool slabs) {
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

void writeOthers(const std::string& dir, Input& in, bool wellFormed, uint32_t ember) {
  writeFile(dir + "/buckets",
            withHeader<Ledger::BucketTableHeader>(in.take(in.word() % 1024), wellFormed,
                                                  [&](Ledger::BucketTableHeader& h) {
                                                    std::memcpy(h.magic, Ledger::kBucketMagic, 8);
                                                    h.version = Ledger::kBucketVersion;
                                                    h.emberId = ember;
                                                    h.numBuckets = 1u << (h.numBuckets % 8);
                                                    h.resizeSeq &= 2;
                                                  }));
  uint32_t generation = 0;
  uint64_t latestSeq = 0;
  writeFile(dir + "/rally", withHeader<Ledger::RallyControl>(
                                in.take(in.word() % 128), wellFormed, [&](Ledger::RallyControl& c) {
                                  std::memcpy(c.magic, Ledger::kRallyControlMagic, 8);
                                  c.version = Ledger::kRallyControlVersion;
                                  c.emberId = ember;
                                  c.generation %= 4;
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
                  q.generation = generation;
                  q.baseSeq = latestSeq - std::min<uint64_t>(latestSeq, q.baseSeq % 4096);
                  q.slotCapacity %= 256;
                  q.capacity %= 256;
                }));
}

// Slab files of the first three size classes: a fixed header made well-formed when asked
// (counts and entries from the input).
void writeSlabs(const std::string& dir, Input& in, bool wellFormed, uint32_t ember) {
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

template <class Value, class OpsT>
void readDirectly(const std::string& root, Input& in) {
  Ledger::LedgerReader<FuzzKey, Value, OpsT> reader(Ledger::ReaderConfig{root, "t"});
  if (!reader.initialize()) return;
  reader.corruptionHandlerIs([](const std::string&) {});
  Value v;
  for (uint32_t i = 0; i < 8; ++i) reader.lookup(FuzzKey{in.word() % 64}, v);
  FuzzKey keys[8];
  Value values[8];
  bool found[8];
  for (FuzzKey& k : keys) k.id = in.word() % 64;
  reader.lookupBatch(keys, values, found);
  uint32_t hint = Ledger::kNoSlot;
  int steps = 0;
  for (bool more = reader.first(v); more && steps < 10000;
       more = reader.next(OpsT::keyOf(v), v, &hint)) {
    ++steps;
  }
  for (uint32_t i = 0; i < 8; ++i) {
    try {
      reader.getValue(in.word() % 128, v);
    } catch (const Ledger::CorruptionException&) {
    }
  }
}

template <class Value, class OpsT>
void follow(const std::string& root) {
  Zinc::Loop loop;
  Ledger::ShadowOptions options;
  options.mountRetry = std::chrono::milliseconds(1);
  Ledger::LedgerShadow<FuzzKey, Value, OpsT> shadow(Ledger::ReaderConfig{root, "t"}, loop,
                                                    Ledger::DummyShadowNotifier(), OpsT(), options);
  shadow.initialize();
  for (int i = 0; i < 20; ++i) loop.runOnce(std::chrono::milliseconds(0));
  shadow.detach();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string root = "/dev/shm/ledger-reader-fuzz-" + std::to_string(::getpid());
  if (size < 1) return 0;
  Input in(data + 1, size - 1);
  const std::string dir = root + "/t";
  std::filesystem::create_directories(dir);
  const bool slabs = data[0] & 4;
  uint32_t ember = writeSlots(dir, in, data[0] & 1, slabs);
  writeOthers(dir, in, data[0] & 2, ember);
  if (slabs) {
    writeSlabs(dir, in, data[0] & 2, ember);
    readDirectly<FuzzSet, FuzzSetOps>(root, in);
    follow<FuzzSet, FuzzSetOps>(root);
  } else {
    readDirectly<FuzzValue, Ledger::Ops<FuzzKey, FuzzValue>>(root, in);
    follow<FuzzValue, Ledger::Ops<FuzzKey, FuzzValue>>(root);
  }
  std::filesystem::remove_all(root);
  return 0;
}
