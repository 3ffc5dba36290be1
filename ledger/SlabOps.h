// Ledger::SlabOps<Key, Value, Codec>: the operations of a table whose values vary in size.
// Each slot stores a Shape::Offset (slot size 24); the value's encoded bytes, key first, live
// in a slab entry of the smallest size class that holds them.
//
// Codec supplies:
//   static size_t encodedSize(const Value&)
//   static void encode(const Value&, uint8_t* out)            key first
//   static void decode(const uint8_t* in, size_t size, Value& out)
//   static Key keyOfEncoded(const uint8_t* in, size_t size)
//   static Key keyOf(const Value&)
//   static std::string typeName()
//   static constexpr size_t kMaxEncodedSize                   at most the largest class holds
//
// The same ops serve the writer and readers. The writer's stored form is the slot's Offset,
// read in place through its WriterAllocator. A reader (after attachReaderStorage) copies:
// its consistent read of a slot calls copyOut() before re-checking the slot's status word,
// which replaces the copied Offset by [uint32 size][payload], the stored form that its
// storedKey/load/storedLength then read. A copy is as long as its payload, so a shadow keeps
// a 2-via set in 72 bytes, not in the largest form.
//
// Rewrites never touch a payload that a slot refers to: the new value goes to a new entry,
// the slot's offset is republished with the look-aside protocol, and the old entry is freed
// in retire(), after the slot's final status store.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ledger/Exceptions.h"
#include "ledger/Ops.h"
#include "ledger/Shape.h"
#include "ledger/SlotReaderTable.h"

namespace Ledger {

template <class Key, class Value, class Codec>
class SlabOps : public OutOfLineReader, public KeyOps<Key> {
 public:
  static constexpr bool kDirect = false;
  static constexpr bool kRetires = true;
  static constexpr bool kOutOfLine = true;
  static_assert(Codec::kMaxEncodedSize <= Shape::kMaxPayload,
                "the largest encoded value must fit the largest slab class");
  // Bytes of a reader's copy of the largest value.
  static constexpr uint32_t kMaxCopySize = uint32_t(sizeof(uint32_t) + Codec::kMaxEncodedSize);

  SlabOps()
      : allocator_(std::make_unique<Shape::WriterAllocator>()),
        reader_(std::make_unique<Shape::ReaderAllocator>()) {}
  // Storage belongs to one table handle: a copy starts unattached.
  SlabOps(const SlabOps&) : SlabOps() {}
  SlabOps& operator=(const SlabOps&) = delete;

  uint32_t valueSize() const { return sizeof(Shape::Offset); }
  static Key keyOf(const Value& value) { return Codec::keyOf(value); }

  Key storedKey(const uint8_t* stored) const {
    if (readerMode_) return Codec::keyOfEncoded(stored + sizeof(uint32_t), copiedSize(stored));
    uint32_t size = 0;
    const uint8_t* payload = payloadOf(stored, &size);
    return Codec::keyOfEncoded(payload, size);
  }
  void store(const Value& value, uint8_t* stored) {
    size_t size = Codec::encodedSize(value);
    Shape::Offset offset = allocator_->alloc(size);
    Codec::encode(value, allocator_->mutablePayload(offset));
    std::memcpy(stored, &offset, sizeof(offset));
  }
  void load(const uint8_t* stored, Value& out) const {
    if (readerMode_) {
      Codec::decode(stored + sizeof(uint32_t), copiedSize(stored), out);
      return;
    }
    uint32_t size = 0;
    const uint8_t* payload = payloadOf(stored, &size);
    Codec::decode(payload, size, out);
  }
  bool sameStored(const uint8_t* stored, const Value& value) const {
    uint32_t size = 0;
    const uint8_t* payload = payloadOf(stored, &size);
    if (size != Codec::encodedSize(value)) return false;
    scratch_.resize(size);
    Codec::encode(value, scratch_.data());
    return std::memcmp(payload, scratch_.data(), size) == 0;
  }
  void retire(const uint8_t* oldStored) { allocator_->free(offsetOf(oldStored)); }
  // Starts fetching the payload that a writer's stored form refers to (its key first).
  void prefetchStored(const uint8_t* stored) const { allocator_->prefetch(offsetOf(stored)); }
  bool storedValid(const uint8_t* stored) const {
    return allocator_->payload(offsetOf(stored)) != nullptr;
  }
  std::string valueTypeName() const { return std::string(Codec::typeName()); }
  std::string classTypeName() const { return "Ledger::SlabTable<" + valueTypeName() + ">"; }

  // Storage hooks, called by the writer.
  void attachStorage(const std::string& root, const std::string& table, uint32_t emberId,
                     SharedMem::EmberFile::Perm perm) {
    allocator_->attach(root, table, emberId, perm);
  }
  void detachStorage() { allocator_->detach(); }
  uint64_t storageOccupied() const { return allocator_->occupied(); }
  void rebuildStorage(const std::vector<const uint8_t*>& liveStored) {
    std::vector<Shape::Offset> live;
    live.reserve(liveStored.size());
    for (const uint8_t* stored : liveStored) live.push_back(offsetOf(stored));
    allocator_->rebuild(live);
  }
  // The slabs hold exactly the payloads of the stored forms `liveStored`, each once.
  std::string checkStorage(const std::vector<const uint8_t*>& liveStored) const {
    std::vector<Shape::Offset> live;
    live.reserve(liveStored.size());
    for (const uint8_t* stored : liveStored) live.push_back(offsetOf(stored));
    return allocator_->check(live);
  }
  Shape::WriterAllocator& allocator() const { return *allocator_; }

  // Reader side: the slab files are mapped on first use; from now on stored forms are copies.
  void attachReaderStorage(const std::string& root, const std::string& table, uint32_t emberId) {
    reader_->attach(root, table, emberId);
    readerMode_ = true;
  }
  void detachReaderStorage() { reader_->detach(); }
  // Bytes of a reader's copy: its size word and payload.
  uint32_t storedLength(const uint8_t* stored) const {
    return readerMode_ ? uint32_t(sizeof(uint32_t)) + copiedSize(stored) : valueSize();
  }
  bool copyOut(uint8_t* stored, std::string& why) override {
    return reader_->copyReferenced(stored, uint32_t(Codec::kMaxEncodedSize), why);
  }
  Shape::ReaderAllocator& readerAllocator() const { return *reader_; }

 private:
  static Shape::Offset offsetOf(const uint8_t* stored) {
    Shape::Offset offset;
    std::memcpy(&offset, stored, sizeof(offset));
    return offset;
  }
  static uint32_t copiedSize(const uint8_t* stored) {
    uint32_t size;
    std::memcpy(&size, stored, sizeof(size));
    return std::min<uint32_t>(size, uint32_t(Codec::kMaxEncodedSize));
  }
  const uint8_t* payloadOf(const uint8_t* stored, uint32_t* size) const {
    const uint8_t* payload = allocator_->payload(offsetOf(stored), size);
    if (!payload) {
      throw CorruptionException("SlabOps::payload() slot refers to no slab entry: 0x" +
                                std::to_string(offsetOf(stored).raw));
    }
    return payload;
  }

  std::unique_ptr<Shape::WriterAllocator> allocator_;
  std::unique_ptr<Shape::ReaderAllocator> reader_;
  bool readerMode_ = false;
  mutable std::vector<uint8_t> scratch_;
};

template <class OpsT>
concept HasStorage = requires(OpsT ops) {
  ops.detachStorage();
};

}  // namespace Ledger
