#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "zinc/Trace.h"

ZINC_TRACE_FILE("TraceTest")

namespace {

struct Captured {
  std::string name;
  int level;
  std::string text;
};

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Zinc::Trace::sinkIs([this](const Zinc::Trace& t, int level, std::string_view text) {
      lines.push_back({t.name(), level, std::string(text)});
    });
  }
  void TearDown() override {
    Zinc::Trace::sinkIs({});
    Zinc::Trace::configure("");
  }
  std::vector<Captured> lines;
};

int formatted = 0;
int countFormatting() { return ++formatted; }

TEST_F(TraceTest, DisabledTraceFormatsNothing) {
  Zinc::Trace::configure("");
  formatted = 0;
  ZTRACE(0, "never " << countFormatting());
  EXPECT_EQ(formatted, 0);
  EXPECT_TRUE(lines.empty());
}

TEST_F(TraceTest, LevelUpToN) {
  Zinc::Trace::configure("TraceTest/1");
  ZTRACE(0, "zero");
  ZTRACE(1, "one " << 1);
  ZTRACE(8, "eight");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].name, "TraceTest");
  EXPECT_EQ(lines[1].level, 1);
  EXPECT_EQ(lines[1].text, "one 1");
}

TEST_F(TraceTest, RangesWildcardsAndLastRuleWins) {
  Zinc::Trace::configure("Trace*/8-9");
  ZTRACE(1, "off");
  ZTRACE(8, "on");
  Zinc::Trace::configure("Trace*,Other/1,TraceTest/0");
  ZTRACE(0, "zero");
  ZTRACE(9, "nine");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "on");
  EXPECT_EQ(lines[1].text, "zero");
}

TEST_F(TraceTest, TraceCreatedAfterConfigureIsEnabled) {
  Zinc::Trace::configure("LateTrace/9");
  Zinc::Trace late("LateTrace");
  EXPECT_TRUE(late.enabled(9));
  Zinc::Trace other("OtherTrace");
  EXPECT_FALSE(other.enabled(0));
}

TEST_F(TraceTest, FileSink) {
  Zinc::Trace::sinkIs({});
  std::string path = ::testing::TempDir() + "trace_test_" + std::to_string(getpid());
  std::remove(path.c_str());
  Zinc::Trace::sinkFileIs(path);
  Zinc::Trace::configure("TraceTest");
  ZTRACE(3, "to the file");
  Zinc::Trace::sinkFileIs("");
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  EXPECT_NE(line.find("TraceTest/3 to the file"), std::string::npos) << line;
  std::remove(path.c_str());
}

}  // namespace
