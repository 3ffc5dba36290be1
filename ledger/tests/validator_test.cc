// The validator's checks, one breakage each (see CheckedTable.h): every kind of inconsistency a
// table's files can hold is reported, first of all, in its own words.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "ledger/tests/CheckedTable.h"
#include "zinc/tests/TestSupport.h"

namespace {

using namespace LedgerTest;

// Each breakage on a table of its own: the validator's first finding is the one it caused.
TEST(ValidatorCheck, EveryFindingIsReportedInItsOwnWords) {
  for (const Breakage& b : breakages()) {
    if (b.seenBy == SeenBy::toolOnly) continue;
    CheckedTable t;
    const std::string expected = b.apply(t);
    EXPECT_EQ(t.report(), expected) << b.name;
  }
}

// A table whose header does not validate: the validator's own walk never starts, and the
// failure is reported as what the header check threw.
TEST(ValidatorCheck, AHeaderFailureIsCaughtAndReported) {
  CheckedTable t;
  ZincTest::TraceCapture trace{"Validator/0"};
  t.header().magic[0] = 'X';
  const std::string why = t.report();
  EXPECT_THAT(why, ::testing::StartsWith("SlotTable::Header::validate() "));
  EXPECT_TRUE(trace.has("Validator::validate caught: " + why));
  EXPECT_TRUE(trace.has("Validator::validate() Ledger checked validation failed: " + why));
}

}  // namespace
