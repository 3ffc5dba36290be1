// EmberFile: the root directory and name rules, file modes, and growth seen from another
// process that maps the same file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "ledger/tests/TestTable.h"
#include "platform/shm/EmberFile.h"
#include "platform/tests/ForkedChild.h"

namespace {

using SharedMem::EmberFile;

struct Ember : ::testing::Test {
  LedgerTest::TempRoot temp;
  const std::string root = temp.path();
};

TEST(EmberRoot, ArgumentThenEnvironmentThenDefault) {
  const char* saved = std::getenv("LEDGER_ROOT");
  std::string keep = saved ? saved : "";
  ::unsetenv("LEDGER_ROOT");
  EXPECT_EQ(SharedMem::rootPath(), "/dev/shm/ledger");
  ::setenv("LEDGER_ROOT", "/tmp/elsewhere", 1);
  EXPECT_EQ(SharedMem::rootPath(), "/tmp/elsewhere");
  EXPECT_EQ(SharedMem::rootPath("/dev/shm/mine"), "/dev/shm/mine");
  if (saved) {
    ::setenv("LEDGER_ROOT", keep.c_str(), 1);
  } else {
    ::unsetenv("LEDGER_ROOT");
  }
}

TEST(EmberRoot, NamesAreChecked) {
  for (const char* good : {"lfibRoute", "a.b", "x-1"})
    EXPECT_TRUE(SharedMem::validName(good)) << good;
  for (const char* bad : {"", ".", "..", "a/b", "/", "a..b", "../x"}) {
    EXPECT_FALSE(SharedMem::validName(bad)) << bad;
  }
}

TEST_F(Ember, CreatesFilesWithRestrictiveModesUnderTheRoot) {
  ::umask(0);
  EmberFile owner, group;
  ASSERT_TRUE(owner.open(root, "t", "a", EmberFile::Access::ReadWrite, true));
  ASSERT_TRUE(
      group.open(root, "t", "b", EmberFile::Access::ReadWrite, true, EmberFile::Perm::GroupRead));
  ::umask(022);
  struct stat st;
  ASSERT_EQ(::stat((root + "/t/a").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(::stat((root + "/t/b").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_TRUE(owner.created());
  EmberFile missing;
  EXPECT_FALSE(missing.open(root, "t", "c", EmberFile::Access::ReadOnly, false));
  EXPECT_NE(missing.error().find("cannot open"), std::string::npos);
  EXPECT_FALSE(missing.open(root, "t", "../x", EmberFile::Access::ReadWrite, true));
  EXPECT_TRUE(EmberFile::removeTable(root, "t"));
  EXPECT_FALSE(EmberFile::exists(root, "t", "a"));
}

TEST_F(Ember, GrowthIsSeenByAnotherProcessAndReleasedPagesReadZero) {
  EmberFile writer;
  ASSERT_TRUE(writer.open(root, "t", "data", EmberFile::Access::ReadWrite, true));
  ASSERT_TRUE(writer.resize(4096));
  std::memset(writer.base(), 1, 4096);
  // A reader: maps, waits for growth, re-maps, reports what it sees.
  TestSupport::ForkedChild child([&](int toParent, int fromParent) {
    EmberFile reader;
    char c = 0;
    bool ok = reader.open(root, "t", "data", EmberFile::Access::ReadOnly, false) &&
              reader.size() == 4096 && reader.base()[4095] == 1;
    ok = ::write(toParent, "o", 1) == 1 && ok;  // mapped: the parent may grow the file
    ok = ok && ::read(fromParent, &c, 1) == 1 && reader.remap() && reader.size() == 1 << 20 &&
         reader.base()[(1 << 20) - 1] == 2 && reader.base()[0] == 1;
    ok = ::write(toParent, "m", 1) == 1 && ok;  // re-mapped: the parent may release
    bool released = ok && ::read(fromParent, &c, 1) == 1 && reader.base()[(1 << 20) - 1] == 0 &&
                    reader.base()[100] == 1;  // released tail reads zero, no fault; head kept
    c = !ok ? 'g' : released ? 'y' : 'r';
    return ::write(toParent, &c, 1) == 1 ? 0 : 1;
  });
  ASSERT_EQ(child.read(1), "o");
  ASSERT_TRUE(writer.resize(1 << 20));  // may move
  writer.base()[(1 << 20) - 1] = 2;
  ASSERT_TRUE(child.tell('g'));
  ASSERT_EQ(child.read(1), "m");
  writer.releaseRange(1 << 16, (1 << 20) - (1 << 16));
  EXPECT_EQ(writer.fileSize(), 1u << 20);  // never cut
  ASSERT_TRUE(child.tell('r'));
  EXPECT_EQ(child.read(1), "y");
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(writer.base()[(1 << 20) - 1], 0);
}

// Bytes of memory that a file's pages occupy.
uint64_t occupied(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? uint64_t(st.st_blocks) * 512 : 0;
}

TEST_F(Ember, PopulateMapsJustTheRangeAskedForWithinTheMapping) {
  constexpr size_t kPage = 4096;
  EmberFile writer;
  ASSERT_TRUE(writer.open(root, "t", "data", EmberFile::Access::ReadWrite, true));
  ASSERT_TRUE(writer.resize(64 * kPage, 0));  // no pages reserved
  EXPECT_EQ(occupied(writer.path()), 0u);
  // An unaligned range takes the pages it touches: [10 * page - 1, 14 * page + 1) spans six.
  ASSERT_TRUE(writer.populate(10 * kPage - 1, 4 * kPage + 2));
  EXPECT_EQ(occupied(writer.path()), 6 * kPage);
  // Clipped to the mapping; past its end or on an empty range nothing happens.
  ASSERT_TRUE(writer.populate(60 * kPage, 100 * kPage));
  EXPECT_EQ(occupied(writer.path()), 10 * kPage);
  EXPECT_FALSE(writer.populate(64 * kPage, kPage));
  EXPECT_FALSE(writer.populate(kPage, 0));
  EXPECT_EQ(occupied(writer.path()), 10 * kPage);
  // Populated pages read zero and keep what is written.
  EXPECT_EQ(writer.base()[11 * kPage], 0);
  writer.base()[11 * kPage] = 7;
  EmberFile reader;
  ASSERT_TRUE(reader.open(root, "t", "data", EmberFile::Access::ReadOnly, false));
  EXPECT_EQ(reader.base()[11 * kPage], 7);
  EXPECT_FALSE(reader.populate(0, kPage));  // a reader never allocates a writer's pages
  EXPECT_EQ(occupied(writer.path()), 10 * kPage);
}

// A writer takes the pages it grows into before it writes there, and takes again those it gave
// back: a write never meets a page that the file system could still refuse.
TEST_F(Ember, GrowthReservesPagesAndReserveTakesReleasedOnesAgain) {
  constexpr size_t kPage = 4096;
  EmberFile writer;
  ASSERT_TRUE(writer.open(root, "t", "data", EmberFile::Access::ReadWrite, true));
  ASSERT_TRUE(writer.resize(16 * kPage));
  EXPECT_EQ(occupied(writer.path()), 16 * kPage);
  ASSERT_TRUE(writer.resize(32 * kPage, 20 * kPage));  // the rest as it is needed
  EXPECT_EQ(occupied(writer.path()), 20 * kPage);
  EXPECT_EQ(writer.fileSize(), 32 * kPage);
  ASSERT_TRUE(writer.reserve(24 * kPage));
  EXPECT_EQ(occupied(writer.path()), 24 * kPage);
  writer.releaseRange(8 * kPage, 24 * kPage);
  EXPECT_EQ(occupied(writer.path()), 8 * kPage);
  ASSERT_TRUE(writer.reserve(12 * kPage));
  EXPECT_EQ(occupied(writer.path()), 12 * kPage);
  EmberFile reader;
  ASSERT_TRUE(reader.open(root, "t", "data", EmberFile::Access::ReadOnly, false));
  EXPECT_FALSE(reader.reserve(kPage));  // a reader never allocates a writer's pages
  EXPECT_NE(reader.error().find("not open for writing"), std::string::npos);
}

}  // namespace
