// Validator: a full consistency walk of a table's files, run by the writer on attach, by
// tests and by the tools. It reports the first inconsistency it meets.
//
// Checks, in order: the slot header (SlotTable::validate); the free list (in range, no
// duplicate, not OCCUPIED); every chain (in range, no slot twice, OCCUPIED without a stuck
// LOOKASIDE, key hashing to its bucket with a matching rhash, strictly ascending (rhash, key),
// a live notification in the rally queue); counts (walked == occupiedSlots, free + occupied
// == numSlots; out-of-line storage: every occupied slot's own entry in use, nothing else);
// the rally queue (no open corral, header and base as the writer keeps them, the base not
// beyond the newest sequence, sequences above the base and ascending, every live entry the
// recorded position of its slot, no tombstone recorded as live). The queue must be settled
// first (RallyWriter::settle): the writer does so before it builds a validator.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ledger/BucketTable.h"
#include "ledger/Exceptions.h"
#include "ledger/RallyWriter.h"
#include "ledger/SlotWriterTable.h"
#include "ledger/ValidatorText.h"
#include "zinc/Trace.h"

namespace Ledger {

template <class Key, class OpsT>
class Validator {
 public:
  Validator(SlotWriterTable& slots, const BucketWriterTable& buckets, const RallyWriter& rally,
            const OpsT& ops, std::string name)
      : slots_(slots), buckets_(buckets), rally_(rally), ops_(ops), name_(std::move(name)) {}

  // True when the table is consistent; otherwise logs and keeps the reason in error().
  bool validate(uint32_t emberId = 0) {
    try {
      error_ = doValidate(emberId);
    } catch (const std::exception& e) {
      ZTRACE_TO(trace(), 0, "Validator::validate caught: " << e.what());
      error_ = e.what();
    }
    if (!error_.empty()) {
      ZTRACE_TO(trace(), 0,
                "Validator::validate() Ledger " << name_ << " validation failed: " << error_);
    }
    return error_.empty();
  }
  const std::string& error() const { return error_; }

  // The first inconsistency, or an empty string. Throws CorruptionException on a bad header.
  std::string doValidate(uint32_t emberId) {
    SlotTable::validate(slots_.base(), slots_.mappedSize(), emberId);
    const uint32_t n = slots_.numSlots();
    seen_.assign(n, kUnseen);
    uint32_t freeCount = 0, walked = 0;
    std::string problem = walkFreeSlots(freeCount);
    if (problem.empty()) problem = walkOccupiedSlots(walked);
    if (!problem.empty()) return problem;
    if (freeCount + walked != n) {
      return ValidatorText::badSlotCount(freeCount, walked, n);
    }
    if constexpr (requires { ops_.storageOccupied(); }) {
      if (ops_.storageOccupied() != walked) {
        return "Validator::doValidate() slab entries:" + std::to_string(ops_.storageOccupied()) +
               " for occupied slots:" + std::to_string(walked);
      }
      if (std::string problem = checkStorage(); !problem.empty()) return problem;
    }
    return checkRally();
  }

 private:
  enum : uint8_t { kUnseen, kFree, kOccupiedSeen };

  static const Zinc::Trace& trace() {
    static Zinc::Trace t("Validator");
    return t;
  }

  // Out-of-line storage: every occupied slot refers to its own entry, and only those are used.
  std::string checkStorage() {
    std::vector<const uint8_t*> live;
    for (uint32_t i = 0; i < seen_.size(); ++i) {
      if (seen_[i] == kOccupiedSeen) live.push_back(slots_.value(i));
    }
    std::string problem = ops_.checkStorage(live);
    return problem.empty() ? problem : ValidatorText::storage(problem);
  }

  std::string walkFreeSlots(uint32_t& freeCount) {
    const uint32_t n = slots_.numSlots();
    for (uint32_t i = slots_.header().freeListHead; !isEndOfChain(i);) {
      if (i >= n) {
        return ValidatorText::freeOutOfBound(i);
      }
      if (seen_[i] != kUnseen) {
        return ValidatorText::freeTwice(i);
      }
      if (slots_.slot(i).status & (kOccupied | kLookaside)) {
        return ValidatorText::freeNotEmpty(i);
      }
      seen_[i] = kFree;
      ++freeCount;
      i = SlotWriterTable::loadLink(slots_.slot(i).linkPair);
    }
    return {};
  }

  std::string walkOccupiedSlots(uint32_t& walked) {
    const uint32_t n = slots_.numSlots();
    const uint32_t occupied = slots_.occupiedSlots();
    const uint32_t numBuckets = buckets_.numBuckets();
    if (buckets_.header().numBuckets != numBuckets || (numBuckets & (numBuckets - 1)) != 0 ||
        buckets_.mappedSize() < kBucketTableHeaderSize + 8ull * numBuckets) {
      return ValidatorText::badNumBuckets(buckets_.header().numBuckets);
    }
    for (uint32_t b = 0; b < numBuckets; ++b) {
      uint32_t prev = kNoSlot;
      for (uint32_t i = SlotWriterTable::loadLink(buckets_.head(b)); !isEndOfChain(i);) {
        if (i >= n) {
          return ValidatorText::badLink(i, b);
        }
        if (std::string problem = markOccupied(i); !problem.empty()) return problem;
        if (++walked > occupied) {
          return ValidatorText::walkedTooMany(walked, occupied);
        }
        if (std::string problem = checkChainMember(i, b, prev); !problem.empty()) return problem;
        prev = i;
        i = SlotWriterTable::loadLink(slots_.slot(i).linkPair);
      }
    }
    if (walked != occupied) {
      return ValidatorText::occupiedMismatch(occupied, walked);
    }
    return {};
  }

  // Slot `i` of bucket `b`'s chain, after slot `prev` (kNoSlot for the first): a stored value
  // whose key hashes to the bucket and to the slot's rhash, after its predecessor in (rhash,
  // key) order.
  std::string checkChainMember(uint32_t i, uint32_t b, uint32_t prev) {
    const SlotHeader& s = slots_.slot(i);
    if constexpr (requires { ops_.storedValid(nullptr); }) {
      if (!ops_.storedValid(slots_.value(i))) {
        return ValidatorText::noStoredValue(i);
      }
    }
    Key key = ops_.storedKey(slots_.value(i));
    uint32_t hash = OpsT::hash(key);
    if ((hash & (buckets_.numBuckets() - 1)) != b || s.rhash != reverseBits(hash)) {
      return ValidatorText::corruptKey(i, b);
    }
    if (prev == kNoSlot) return {};
    const uint32_t prevRhash = slots_.slot(prev).rhash;
    if (s.rhash < prevRhash ||
        (s.rhash == prevRhash && !OpsT::less(ops_.storedKey(slots_.value(prev)), key))) {
      return ValidatorText::outOfOrder(i, b);
    }
    return {};
  }

  std::string markOccupied(uint32_t i) {
    if (seen_[i] != kUnseen) return ValidatorText::slotTwice(i);
    seen_[i] = kOccupiedSeen;
    uint32_t status = slots_.slot(i).status;
    if (!(status & kOccupied)) {
      return ValidatorText::notOccupied(status, i);
    }
    if (status & kLookaside) {
      return ValidatorText::stuckLookaside(status, i);
    }
    if (i >= rally_.slotCapacity()) {
      return ValidatorText::rallySlotOutOfRange(i, rally_.slotCapacity());
    }
    uint32_t pos = rally_.position(i);
    if (pos == kNoPosition) {
      return ValidatorText::noNotification(i);
    }
    if (pos >= rally_.count()) {
      return ValidatorText::badRallyIndex(i, pos);
    }
    if (rally_.entry(pos).slotWord != i) {
      return ValidatorText::rallyPositionTaken(i, pos);
    }
    return {};
  }

  // The queue file's header and control block as the writer last stored them, and a base no
  // later than the newest sequence.
  std::string checkRallyHeader() {
    const RallyControl& control = rally_.control();
    if (control.corralStart != control.corralEnd) {
      return ValidatorText::corralOpen(control.corralStart, control.corralEnd);
    }
    const RallyQueueHeader& q = rally_.queueHeader();
    if (q.count != rally_.count() || q.baseSeq != rally_.baseSeq() ||
        control.latestSeq != rally_.sequence()) {
      return "Validator::doValidate() rally count:" + std::to_string(q.count) +
             " base:" + std::to_string(q.baseSeq) +
             " latestSeq:" + std::to_string(control.latestSeq) +
             " differ from the writer's count:" + std::to_string(rally_.count()) +
             " base:" + std::to_string(rally_.baseSeq()) +
             " latestSeq:" + std::to_string(rally_.sequence());
    }
    if (q.baseSeq > control.latestSeq) {
      return ValidatorText::baseBeyondLatest(q.baseSeq, control.latestSeq);
    }
    return {};
  }

  std::string checkRally() {
    if (std::string problem = checkRallyHeader(); !problem.empty()) return problem;
    const uint64_t latestSeq = rally_.control().latestSeq;
    const uint64_t baseSeq = rally_.baseSeq();
    const uint32_t count = rally_.count();
    const uint32_t slotCapacity = rally_.slotCapacity();
    uint64_t lastSeq = baseSeq;
    for (uint32_t pos = 0; pos < count; ++pos) {
      const RallyEntry e = rally_.entry(pos);
      const uint32_t slot = e.slotWord & ~kTombstone;
      if (e.sequence == baseSeq) {
        return ValidatorText::offsetZero(pos, baseSeq);
      }
      if (e.sequence <= lastSeq || e.sequence > latestSeq) {
        return ValidatorText::outOfSequence(pos, e.sequence);
      }
      lastSeq = e.sequence;
      if (slot >= slotCapacity) {
        return ValidatorText::entrySlotOutOfRange(pos, slot);
      }
      const bool live = !(e.slotWord & kTombstone);
      if (live && rally_.position(slot) != pos) {
        return ValidatorText::wrongRallySlot(pos, rally_.position(slot), slot);
      }
      if (!live && rally_.position(slot) == pos) {
        return ValidatorText::activeTombstone(pos, slot);
      }
    }
    for (uint32_t slot = 0; slot < slotCapacity; ++slot) {
      uint32_t pos = rally_.position(slot);
      if (pos != kNoPosition && (pos >= count || rally_.entry(pos).slotWord != slot)) {
        return ValidatorText::notLiveNotification(slot, pos);
      }
    }
    return {};
  }

  SlotWriterTable& slots_;
  const BucketWriterTable& buckets_;
  const RallyWriter& rally_;
  const OpsT& ops_;
  std::string name_;
  std::string error_;
  std::vector<uint8_t> seen_;
};

}  // namespace Ledger
