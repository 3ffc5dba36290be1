// Test helper: Ops of TestValues whose decoding checks what it reads, as a typed record's
// does. A stored value with version kUndecodable is refused (CorruptionException). A test can
// also have the next decode of one place in a slot file meet a rewrite under way: the writer's
// rewrite runs, and the bytes read (torn) do not decode.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <utility>

#include "ledger/Exceptions.h"
#include "ledger/Ops.h"
#include "ledger/tests/TestTable.h"

namespace LedgerTest {

inline constexpr uint64_t kUndecodable = ~uint64_t{0};

// The rewrite that the next decode of the bytes at `at` meets (once). `torn`: the bytes read
// do not decode; else the decode goes on, reading the bytes as the rewrite left them.
struct Tear {
  const uint8_t* at = nullptr;
  std::function<void()> rewrite;
  bool torn = true;
};
inline Tear& nextTear() {
  static Tear tear;
  return tear;
}

struct DecodingOps : Ledger::Ops<TestKey, TestValue> {
  // The key alone decodes whatever the version (as a record's key does).
  TestKey storedKey(const uint8_t* stored) const {
    checkTear(stored);
    return Ops::storedKey(stored);
  }
  void load(const uint8_t* stored, TestValue& out) const {
    checkTear(stored);
    checkVersion(stored);
    Ops::load(stored, out);
  }
  static void checkTear(const uint8_t* stored) {
    Tear& tear = nextTear();
    if (tear.rewrite && stored == tear.at) {
      const Tear met = std::exchange(tear, {});  // once: cleared before the rewrite runs
      met.rewrite();
      if (met.torn) throw Ledger::CorruptionException("DecodingOps: bytes torn by a rewrite");
    }
  }
  static void checkVersion(const uint8_t* stored) {
    uint64_t version;
    std::memcpy(&version, stored + offsetof(TestValue, version), sizeof version);
    if (version == kUndecodable) throw Ledger::CorruptionException("DecodingOps: no such version");
  }
};

// Makes the entry stored at `stored` (a writer's slot value) undecodable, its key unchanged.
inline void spoil(uint8_t* stored) {
  std::memcpy(stored + offsetof(TestValue, version), &kUndecodable, sizeof kUndecodable);
}

}  // namespace LedgerTest
