// LedgerBase: the interface of one shared-memory table, whatever side of it a process is on.
#pragma once

#include <cstdint>
#include <string>

namespace Ledger {

// write(): `always` publishes (and announces) even an unchanged value; `ifChanged` leaves a
// slot whose stored form equals the new value untouched and announces nothing.
enum class WriteFlag { always, ifChanged };

enum class MountStatus { unmounted, mounting, mounted };

struct WriterCounters {
  uint64_t inserts = 0;
  uint64_t updates = 0;
  uint64_t unchanged = 0;
  uint64_t removes = 0;
  uint64_t directCommits = 0;
  uint64_t slotGrowths = 0;
  uint64_t slotShrinks = 0;
  uint64_t bucketGrowths = 0;
  uint64_t bucketShrinks = 0;
  uint64_t rallyCompactions = 0;
  uint64_t recoveries = 0;
};

struct ReaderCounters {
  uint64_t lookups = 0;
  uint64_t lookasideReads = 0;
  uint64_t retries = 0;
  uint64_t remaps = 0;
};

template <class Key, class Value>
class LedgerBase {
 public:
  virtual ~LedgerBase() = default;

  virtual bool lookup(const Key& key, Value& out) = 0;
  virtual bool first(Value& out) = 0;
  // The entry after `prev` in table order, also when `prev` is gone; `hint` may name the slot
  // that held `prev` and is updated to the slot returned.
  virtual bool next(const Key& prev, Value& out, uint32_t* hint = nullptr) = 0;
  // Returns the address of the stored value (valid until the next change of the table), or
  // null when refused.
  virtual const void* write(const Value& value, WriteFlag flag = WriteFlag::always) = 0;
  virtual bool remove(const Key& key, Value* out = nullptr) = 0;
  virtual Value* directWrite(const Key& key) = 0;
  virtual Value* directUpdate(const Key& key) = 0;
  virtual void directCommit() = 0;

  virtual uint32_t capacity() const = 0;
  virtual uint32_t maxSize() const = 0;
  virtual uint32_t minSize() const = 0;
  virtual uint32_t members() const = 0;
  virtual uint64_t sequence() const = 0;
  virtual bool connected() const = 0;
  virtual bool quiesced() const = 0;
  // Per-key notifications on or off; tables that notify nobody ignore it.
  virtual void notifying(bool) {}
  virtual uint32_t emberId() const = 0;
  virtual MountStatus mountStatus() const = 0;

  virtual bool initialize() = 0;
  virtual bool validate() = 0;
  virtual bool validate(uint32_t emberId) = 0;
  virtual bool validateFiles() = 0;
  virtual bool cleanup() = 0;
  virtual void detach() = 0;
  virtual ReaderCounters readerCounters() const { return {}; }
  virtual WriterCounters writerCounters() const { return {}; }
};

// The write side of a table that a reader holds: every write is refused with its message
// and changes nothing. Readers say where the refusal is logged.
template <class Key, class Value>
class ReadOnlyLedger : public LedgerBase<Key, Value> {
 public:
  const void* write(const Value&, WriteFlag = WriteFlag::always) override {
    return refuse("write to read-only Ledger table"), nullptr;
  }
  bool remove(const Key&, Value* = nullptr) override {
    return refuse("remove to read-only Ledger table"), false;
  }
  Value* directWrite(const Key&) override {
    return refuse("write to read-only Ledger table"), nullptr;
  }
  Value* directUpdate(const Key&) override {
    return refuse("write to read-only Ledger table"), nullptr;
  }
  void directCommit() override { refuse("write to read-only Ledger table"); }
  bool validate() override { return refuse("validate to read-only Ledger table"), false; }
  bool validate(uint32_t) override { return validate(); }
  bool validateFiles() override { return refuse("validateFiles to read-only Ledger table"), false; }
  bool cleanup() override { return refuse("cleanup to read-only Ledger table"), false; }

 protected:
  virtual void refuse(const char* what) const = 0;
};

}  // namespace Ledger
