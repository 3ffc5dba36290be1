// The texts of the validator's findings, written once: the writer's Validator and the ledger
// tool's read-only check of a live table report the same finding in the same words, so that a
// line in a writer's log and one from the tool can be compared, or searched for, as they are.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>

namespace Ledger::ValidatorText {

using std::to_string;

inline std::string hex(uint32_t v) {
  std::ostringstream os;
  os << std::hex << v;
  return os.str();
}

// The free list.
inline std::string freeOutOfBound(uint32_t i) {
  return "Validator::walkFreeSlots() corrupted free slot detected with out of bound index: " +
         to_string(i);
}
inline std::string freeTwice(uint32_t i) {
  return "Validator::walkFreeSlots() duplicate freeSlot detected: " + to_string(i);
}
inline std::string freeNotEmpty(uint32_t i) {
  return "Validator::walkFreeSlots() corrupted free slot not marked as empty: " + to_string(i);
}

// The chains.
inline std::string badNumBuckets(uint32_t numBuckets) {
  return "Validator::walkOccupiedSlots() bad numBuckets:" + to_string(numBuckets);
}
inline std::string badLink(uint32_t link, uint32_t bucket) {
  return "Validator::walkOccupiedSlots() bad link:" + to_string(link) +
         " in bucket:" + to_string(bucket);
}
inline std::string slotTwice(uint32_t slot) {
  return "Validator::markOccupied() duplicate slot: " + to_string(slot);
}
inline std::string notOccupied(uint32_t status, uint32_t slot) {
  return "Validator::markOccupied() missing OCCUPIED bit: 0x" + hex(status) +
         " slot: " + to_string(slot);
}
inline std::string stuckLookaside(uint32_t status, uint32_t slot) {
  return "Validator::markOccupied() stuck LOOKASIDE bit: 0x" + hex(status) +
         " slot: " + to_string(slot);
}
inline std::string walkedTooMany(uint32_t walked, uint32_t occupied) {
  return "Validator::walkOccupiedSlots() walkedSlots:" + to_string(walked) +
         " is greater than header->occupiedSlots:" + to_string(occupied);
}
inline std::string occupiedMismatch(uint32_t occupied, uint32_t walked) {
  return "Validator::walkOccupiedSlots() mismatch header->occupiedSlots:" + to_string(occupied) +
         " walkedSlots:" + to_string(walked);
}
inline std::string noStoredValue(uint32_t slot) {
  return "Validator::walkOccupiedSlots() slot: " + to_string(slot) + " refers to no stored value";
}
// The key's hash (known to the writer) does not lead to the bucket, or disagrees with rhash.
inline std::string corruptKey(uint32_t slot, uint32_t bucket) {
  return "Validator::walkOccupiedSlots() corrupt key in slot: " + to_string(slot) +
         " bucket: " + to_string(bucket);
}
// The rhash alone (all that a reader that does not know the key type can check) does not
// lead to the bucket.
inline std::string corruptRhash(uint32_t slot, uint32_t bucket) {
  return "Validator::walkOccupiedSlots() corrupt rhash detected, slot: " + to_string(slot) +
         " bucket: " + to_string(bucket);
}
inline std::string outOfOrder(uint32_t slot, uint32_t bucket) {
  return "Validator::walkOccupiedSlots() chain out of order at slot: " + to_string(slot) +
         " bucket: " + to_string(bucket);
}

// Counts and out-of-line storage.
inline std::string badSlotCount(uint32_t free, uint32_t occupied, uint32_t numSlots) {
  return "Validator::doValidate() bad slotCount:" + to_string(free + occupied) +
         " free:" + to_string(free) + " occupied:" + to_string(occupied) +
         " numSlots:" + to_string(numSlots);
}
inline std::string storage(const std::string& problem) {
  return "Validator::doValidate() " + problem;
}

// An occupied slot's live notification.
inline std::string rallySlotOutOfRange(uint32_t slot, uint32_t slotCapacity) {
  return "Validator::markOccupied() slot: " + to_string(slot) +
         " has out of range rally slot: " + to_string(slotCapacity);
}
inline std::string noNotification(uint32_t slot) {
  return "Validator::markOccupied() no notification in rally queue, slot: " + to_string(slot);
}
inline std::string badRallyIndex(uint32_t slot, uint32_t pos) {
  return "Validator::markOccupied() slot: " + to_string(slot) +
         " bad rally index:" + to_string(pos);
}
inline std::string rallyPositionTaken(uint32_t slot, uint32_t pos) {
  return "Validator::markOccupied() slot: " + to_string(slot) +
         " duplicate rally position:" + to_string(pos);
}

// The change queue.
inline std::string corralOpen(uint32_t start, uint32_t end) {
  return "Validator::doValidate() corral pos:" + to_string(start) + " end:" + to_string(end) +
         " with no shrink in progress";
}
inline std::string unsettled(uint32_t settled, uint32_t count) {
  return "Validator::doValidate() rally settled:" + to_string(settled) +
         " count:" + to_string(count);
}
inline std::string baseBeyondLatest(uint64_t base, uint64_t latestSeq) {
  return "Validator::doValidate() rally base:" + to_string(base) +
         " beyond latest sequence:" + to_string(latestSeq);
}
inline std::string offsetZero(uint32_t pos, uint64_t base) {
  return "Validator::doValidate() rally pos:" + to_string(pos) +
         " sequence offset 0, not above base:" + to_string(base);
}
inline std::string outOfSequence(uint32_t pos, uint64_t sequence) {
  return "Validator::doValidate() rally pos:" + to_string(pos) +
         " sequence out of order: " + to_string(sequence);
}
inline std::string entrySlotOutOfRange(uint32_t pos, uint32_t slot) {
  return "Validator::doValidate() rally pos:" + to_string(pos) +
         " has out of range slot: " + to_string(slot);
}
inline std::string wrongRallySlot(uint32_t pos, uint32_t position, uint32_t slot) {
  return "Validator::doValidate() rally pos:" + to_string(pos) +
         " with wrong rallySlot:" + to_string(position) + " slot: " + to_string(slot);
}
inline std::string activeTombstone(uint32_t pos, uint32_t slot) {
  return "Validator::doValidate() active tombstone pos:" + to_string(pos) +
         " on deleted notification: slot " + to_string(slot);
}
inline std::string notLiveNotification(uint32_t slot, uint32_t pos) {
  return "Validator::doValidate() occupied slot:" + to_string(slot) +
         " rally pos:" + to_string(pos) + " not its live notification";
}

}  // namespace Ledger::ValidatorText
