#include <gmock/gmock.h>
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
  const int line = __LINE__ - 5;
  EXPECT_EQ(checkedDivide(6, 3), 2);  // which also learns the name the text holds
  EXPECT_THAT([] { checkedDivide(1, 0); },
              ::testing::ThrowsMessage<Zinc::InternalException>(
                  "exception_test:" + std::to_string(line) + " " + checkedDivideName +
                  " -- assertion failed(b != 0): divisor must not be zero"));
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
  EXPECT_NE(Zinc::hashString("abc"), Zinc::hashString("abd"));
  // Tables in shared memory are hashed by one build and searched by another: a change of
  // these values is a change of the file format.
  EXPECT_EQ(Zinc::hashString(""), 0x2362f9deu);
  EXPECT_EQ(Zinc::hashString("LEDGRSLT"), 0x6a3efbdau);
}

}  // namespace
