// Test helper: a table's change queue files mapped writable, as a broken or hostile process
// would map them. The queue is the one the control block names when it is first asked for.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "ledger/RallyWriter.h"
#include "platform/shm/EmberFile.h"

namespace LedgerTest {

class RallyFiles {
 public:
  RallyFiles(std::string root, std::string table)
      : root_(std::move(root)), table_(std::move(table)) {}

  Ledger::RallyControl& control() {
    if (!control_.base()) {
      EXPECT_TRUE(open(control_, "rally"));
    }
    return *reinterpret_cast<Ledger::RallyControl*>(control_.base());
  }
  Ledger::RallyQueueHeader& queue() {
    if (!queue_.base()) {
      EXPECT_TRUE(open(queue_, Ledger::rallyQueueName(control().generation)));
    }
    return *reinterpret_cast<Ledger::RallyQueueHeader*>(queue_.base());
  }
  // The queue's recorded position of each slot's live entry.
  uint32_t* positions() {
    return reinterpret_cast<uint32_t*>(reinterpret_cast<uint8_t*>(&queue()) +
                                       sizeof(Ledger::RallyQueueHeader));
  }
  // The queue's entry words.
  uint64_t* entries() {
    const uint32_t slotCapacity = queue().slotCapacity;
    return reinterpret_cast<uint64_t*>(queue_.base() + Ledger::rallyEntriesOffset(slotCapacity));
  }

 private:
  bool open(SharedMem::EmberFile& file, const std::string& name) {
    return file.open(root_, table_, name, SharedMem::EmberFile::Access::ReadWrite, false);
  }

  std::string root_, table_;
  SharedMem::EmberFile control_, queue_;
};

}  // namespace LedgerTest
