// EmberFile: the root directory and name rules, file modes, growth seen from another process
// that maps the same file, huge pages, and growth that finds no room.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ledger/tests/TestTable.h"
#include "platform/shm/EmberFile.h"
#include "platform/tests/ForkedChild.h"
#include "platform/tests/SmallTmpfs.h"

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

// A table file that is a FIFO is refused at once, for reading and for writing: a process that
// opened it to look would otherwise wait for another one at its far end.
TEST_F(Ember, AFifoInPlaceOfAFileIsRefusedWithoutWaiting) {
  ASSERT_EQ(::mkdir((root + "/t").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo((root + "/t/slots").c_str(), 0600), 0);
  TestSupport::ForkedChild child([&](int fd) {
    for (auto access : {EmberFile::Access::ReadOnly, EmberFile::Access::ReadWrite}) {
      EmberFile f;
      if (f.open(root, "t", "slots", access, true)) return 1;
      if (f.error().find("not a regular file:") == std::string::npos) return 2;
    }
    return ::write(fd, "r", 1) == 1 ? 0 : 3;
  });
  EXPECT_EQ(child.read(1, 5000), "r") << "open() waited on the FIFO, or did not refuse it";
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

constexpr size_t kMiB = size_t{1} << 20;

// Kilobytes of this process's mapping at `base` that huge pages of a shared file back.
size_t hugeMappedKiB(const uint8_t* base) {
  std::ifstream maps("/proc/self/smaps");
  std::ostringstream start;
  start << std::hex << reinterpret_cast<uintptr_t>(base) << '-';
  bool inMapping = false;
  for (std::string line; std::getline(maps, line);) {
    if (line.rfind(start.str(), 0) == 0) inMapping = true;
    if (inMapping && line.rfind("ShmemPmdMapped:", 0) == 0) return std::stoul(line.substr(15));
  }
  return 0;
}

// Linux 6.1 or later, with huge pages of 2 MiB, not denied to shared memory.
bool kernelBuildsSharedHugePages() {
  utsname name;
  unsigned major = 0, minor = 0;
  std::ifstream size("/sys/kernel/mm/transparent_hugepage/hpage_pmd_size");
  std::ifstream shmem("/sys/kernel/mm/transparent_hugepage/shmem_enabled");
  size_t bytes = 0;
  std::string modes;
  return ::uname(&name) == 0 && std::sscanf(name.release, "%u.%u", &major, &minor) == 2 &&
         (major > 6 || (major == 6 && minor >= 1)) && (size >> bytes) && bytes == 2 * kMiB &&
         std::getline(shmem, modes) && modes.find("[deny]") == std::string::npos;
}

bool holds(const uint8_t* at, size_t len, uint8_t byte) {
  return std::all_of(at, at + len, [byte](uint8_t b) { return b == byte; });
}

// A large growth comes in huge pages, where the kernel builds them for shared memory: the
// bytes written before it stay (the huge page they fall in is built from them), the new ones
// read zero, and a reader in another process maps the same huge pages.
TEST_F(Ember, LargeGrowthComesInHugePagesThatReadersShare) {
  EmberFile writer;
  ASSERT_TRUE(writer.open(root, "t", "data", EmberFile::Access::ReadWrite, true));
  ASSERT_TRUE(writer.resize(3 * kMiB / 2));
  std::memset(writer.base(), 5, 3 * kMiB / 2);
  ASSERT_TRUE(writer.resize(9 * kMiB + 4096));
  EXPECT_TRUE(holds(writer.base(), 3 * kMiB / 2, 5));
  EXPECT_TRUE(holds(writer.base() + 3 * kMiB / 2, 15 * kMiB / 2 + 4096, 0));
  EXPECT_EQ(occupied(writer.path()), 9 * kMiB + 4096);  // every page reserved, none more
  if (!kernelBuildsSharedHugePages()) GTEST_SKIP() << "no huge pages for shared memory here";
  EXPECT_EQ(hugeMappedKiB(writer.base()), 8 * 1024u);  // all but the last, partial, huge page
  writer.base()[9 * kMiB] = 6;
  TestSupport::ForkedChild child([&](int toParent) {
    EmberFile reader;
    bool ok = reader.open(root, "t", "data", EmberFile::Access::ReadOnly, false) &&
              holds(reader.base(), 3 * kMiB / 2, 5) &&
              holds(reader.base() + 3 * kMiB / 2, 15 * kMiB / 2, 0) && reader.base()[9 * kMiB] == 6;
    const std::string said = ok ? std::to_string(hugeMappedKiB(reader.base())) : "bad bytes";
    return ::write(toParent, said.data(), said.size()) == ssize_t(said.size()) ? 0 : 1;
  });
  EXPECT_EQ(child.read(64), "8192");
  EXPECT_EQ(child.wait(), 0);
}

// A file that grows by small steps (a queue's chunks, a table doubling from a few pages) ends
// up in huge pages too, from its start: each one built, from the bytes already there, by the
// step that completes it.
TEST_F(Ember, SmallStepsEndInHugePagesFromTheStart) {
  EmberFile writer;
  ASSERT_TRUE(writer.open(root, "t", "data", EmberFile::Access::ReadWrite, true));
  constexpr size_t kStep = 64 * 1024;
  size_t size = 0;
  for (uint8_t step = 1; size < 4 * kMiB + kStep; ++step, size += kStep) {
    ASSERT_TRUE(writer.resize(size + kStep));
    std::memset(writer.base() + size, step, kStep);
  }
  for (size_t at = 0; at < size; at += kStep) {
    ASSERT_TRUE(holds(writer.base() + at, kStep, uint8_t(at / kStep + 1))) << at;
  }
  if (!kernelBuildsSharedHugePages()) GTEST_SKIP() << "no huge pages for shared memory here";
  EXPECT_EQ(hugeMappedKiB(writer.base()), 4 * 1024u);  // both whole huge pages, not the tail
}

// A large growth that finds no room leaves the file as it was: its length, its mapping, its
// bytes; a smaller one then still goes through.
TEST(EmberNoSpace, FailedLargeGrowthLeavesTheFileAsItWas) {
  const std::string result = TestSupport::inSmallTmpfs("3m", [](const std::string& root) {
    EmberFile writer;
    if (!writer.open(root, "t", "data", EmberFile::Access::ReadWrite, true) ||
        !writer.resize(kMiB)) {
      return "cannot start: " + writer.error();
    }
    std::memset(writer.base(), 7, kMiB);
    if (writer.resize(8 * kMiB)) return std::string("grew beyond the file system");
    if (writer.error().find("No space left on device") == std::string::npos) {
      return "unclear error: " + writer.error();
    }
    if (writer.fileSize() != kMiB || writer.size() != kMiB) return std::string("length changed");
    if (!holds(writer.base(), kMiB, 7)) return std::string("bytes changed");
    if (!writer.resize(5 * kMiB / 2)) return "cannot grow into the room left: " + writer.error();
    if (!holds(writer.base(), kMiB, 7) || !holds(writer.base() + kMiB, 3 * kMiB / 2, 0)) {
      return std::string("bytes changed in the growth");
    }
    return std::string();
  });
  if (result == TestSupport::kNoSmallTmpfs) GTEST_SKIP() << "no mount namespace for a tmpfs here";
  EXPECT_EQ(result, "ok");
}

}  // namespace
