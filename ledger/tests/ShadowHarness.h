// Test helpers for shadows: a writer whose commits kick readers, and a notifiee that records
// and checks every per-key event.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ledger/LedgerShadow.h"
#include "ledger/LedgerWriter.h"
#include "ledger/tests/TestTable.h"
#include "platform/shm/ReaderKick.h"
#include "zinc/Loop.h"

namespace LedgerTest {

using Writer = Ledger::LedgerWriter<TestKey, TestValue>;
using Shadow = Ledger::LedgerShadow<TestKey, TestValue>;

// Runs `loop` until `pred` holds (checked before the first wait too), waiting for events at
// most 5 ms at a time; false when it still does not hold after `limit`.
inline bool runUntil(Zinc::Loop& loop, const std::function<bool()>& pred,
                     std::chrono::seconds limit = std::chrono::seconds(20)) {
  auto deadline = Zinc::Loop::now() + limit;
  while (!pred()) {
    if (Zinc::Loop::now() > deadline) return false;
    loop.runOnce(std::chrono::milliseconds(5));
  }
  return true;
}

// A writer (a W) on <root>/<table> whose every commit kicks the readers at the end of the
// batch (`flush()`), or through `loop`'s deferred calls when one is given.
template <class W>
struct KickingWriterOf {
  KickingWriterOf(const std::string& root, const std::string& table, uint32_t capacity = 64,
                  Zinc::Loop* loop = nullptr)
      : writer(tableConfig(root, table, capacity)) {
    writer.attach();
    Mem::ReaderKickSm::Defer defer;
    if (loop) defer = [loop](std::function<void()> fn) { loop->defer(std::move(fn)); };
    kicker = std::make_unique<Mem::ReaderKickSm>(SharedMem::rootPath(root) + "/" + table, defer);
    writer.rally().kickHookIs([this] { kicker->commitNotify(); });
  }
  void flush() { kicker->flush(); }

  W writer;
  std::unique_ptr<Mem::ReaderKickSm> kicker;
};

// The kicking writer of a table of TestValues.
struct KickingWriter : KickingWriterOf<Writer> {
  using KickingWriterOf::KickingWriterOf;
  // Writes the key's stored value again, byte for byte: an unchanged rewrite.
  void rewrite(uint64_t id) {
    TestValue current;
    ASSERT_TRUE(writer.lookup(TestKey{id}, current));
    writer.write(current, Ledger::WriteFlag::always);
  }
  std::map<uint64_t, uint64_t> contents() {
    std::map<uint64_t, uint64_t> all;
    TestValue v;
    for (bool more = writer.first(v); more; more = writer.next(v.k, v)) all[v.k.id] = v.version;
    return all;
  }
};

// Records every event and checks it as it comes: values whole, versions of a key strictly
// increasing (an unchanged rewrite would repeat one), no deletion of an absent key.
struct EventLog {
  std::map<uint64_t, uint64_t> present;  // key -> version, as the events tell it
  std::map<uint64_t, uint64_t> lastVersion;
  std::set<uint64_t> deletedSince;  // keys whose last event was a deletion
  std::vector<std::string> errors;
  uint64_t adds = 0, changes = 0, deletes = 0, batches = 0;

  Ledger::Notify<TestKey, TestValue> notifier() {
    Ledger::Notify<TestKey, TestValue> n;
    n.onBatch = [this] { ++batches; };
    n.onKey = [this](const TestKey& k, const TestValue* v) { onKey(k, v); };
    return n;
  }
  // Only the first errors are kept; the events after them still count.
  void error(std::string what) {
    if (errors.size() < 20) errors.push_back(std::move(what));
  }
  void onKey(const TestKey& k, const TestValue* v) {
    if (!v) {
      if (!present.erase(k.id)) error("deleted absent key " + std::to_string(k.id));
      ++deletes;
      deletedSince.insert(k.id);
      return;
    }
    if (!whole(*v) || v->k.id != k.id) {
      error("torn value for key " + std::to_string(k.id));
      return;
    }
    auto last = lastVersion.find(k.id);
    if (last != lastVersion.end() && v->version <= last->second) {
      error("key " + std::to_string(k.id) + " version " + std::to_string(v->version) + " after " +
            std::to_string(last->second) +
            (deletedSince.count(k.id) ? ", deleted in between" : ""));
    }
    lastVersion[k.id] = v->version;
    deletedSince.erase(k.id);
    (present.count(k.id) ? changes : adds)++;
    present[k.id] = v->version;
  }
};

inline std::map<uint64_t, uint64_t> shadowContents(Shadow& shadow) {
  std::map<uint64_t, uint64_t> all;
  shadow.store().forEach(
      [&](const TestKey& k, const TestValue* v) { all[k.id] = v ? v->version : 0; });
  return all;
}

}  // namespace LedgerTest
