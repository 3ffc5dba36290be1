// Test fixture: a writer on a table of its own that starts with 4 slots and 4 buckets, so
// that a few thousand operations grow, shrink and compact everything it has.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ledger/LedgerWriter.h"
#include "ledger/tests/TestTable.h"

namespace LedgerTest {

class SmallTable : public ::testing::Test {
 protected:
  using Writer = Ledger::LedgerWriter<TestKey, TestValue>;

  explicit SmallTable(const std::string& table)
      : config(tableConfig(root.path(), table, 4, 4)), writer(std::make_unique<Writer>(config)) {
    writer->attach();
  }

  TempRoot root;
  Ledger::LedgerConfig config;
  std::unique_ptr<Writer> writer;
};

}  // namespace LedgerTest
