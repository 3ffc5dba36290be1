// A read-only mapping of a file that another process cuts short: reads beyond the new end find
// zeros instead of ending the process, and faults that are not the guard's go where they went
// before. Each case runs in a child process, where a SIGBUS that got through is its death.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "platform/shm/EmberFile.h"
#include "platform/shm/MappingGuard.h"
#include "platform/tests/ForkedChild.h"
#include "platform/tests/TempDir.h"

namespace {

using SharedMem::EmberFile;
using TestSupport::ForkedChild;

constexpr size_t kLength = 64 << 10;

// A file `table`/f of kLength bytes of 0xab under `root`, opened with `access`, then cut to one
// page by another descriptor (as another process would). The root is the test's, made and
// removed by the parent: a child that dies leaves nothing behind.
struct CutFile {
  CutFile(const TestSupport::ShmRoot& root, const char* table, EmberFile::Access access) {
    EmberFile writer;
    if (!writer.open(root.path(), table, "f", EmberFile::Access::ReadWrite, true) ||
        !writer.resize(kLength)) {
      std::abort();
    }
    std::memset(writer.base(), 0xab, kLength);
    if (!file.open(root.path(), table, "f", access, false)) std::abort();
    if (::truncate(root.file(table, "f").c_str(), ::sysconf(_SC_PAGESIZE)) != 0) std::abort();
  }
  volatile uint8_t& at(size_t offset) { return file.base()[offset]; }

  EmberFile file;
};

int exitStatus(ForkedChild& child) {
  const int status = child.wait();
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(MappingGuard, AReaderOfACutFileReadsZerosBeyondTheEnd) {
  TestSupport::ShmRoot root;
  ForkedChild child([&](int) {
    CutFile f(root, "t", EmberFile::Access::ReadOnly);
    const uint64_t before = SharedMem::MappingGuard::pagesZeroed();
    if (f.at(100) != 0xab) return 1;       // before the cut: still there
    if (f.at(kLength / 2) != 0) return 2;  // beyond it: zeros, once the page is replaced
    if (f.at(kLength / 2 + 8) != 0) return 3;
    if (SharedMem::MappingGuard::pagesZeroed() != before + 1) return 4;
    if (f.at(kLength - 1) != 0) return 5;  // another page
    if (SharedMem::MappingGuard::pagesZeroed() != before + 2) return 6;
    f.file.close();  // unmapped whole, zero pages included
    return 0;
  });
  EXPECT_EQ(exitStatus(child), 0);
}

// The writer's own mapping is not guarded: a fault there goes to the handler installed before
// the guard's, or ends the process as it would have.
TEST(MappingGuard, OtherFaultsGoWhereTheyWentBefore) {
  TestSupport::ShmRoot root;
  ForkedChild handled([&](int) {
    struct sigaction action {};
    action.sa_handler = [](int) { ::_exit(42); };
    ::sigaction(SIGBUS, &action, nullptr);
    CutFile reader(root, "r1", EmberFile::Access::ReadOnly);  // the guard comes after it
    if (reader.at(kLength / 2) != 0) return 1;
    CutFile writer(root, "w1", EmberFile::Access::ReadWrite);
    writer.at(kLength / 2) = 1;
    return 0;
  });
  EXPECT_EQ(exitStatus(handled), 42);

  ForkedChild unhandled([&](int) {
    CutFile reader(root, "r2", EmberFile::Access::ReadOnly);
    if (reader.at(kLength / 2) != 0) return 1;
    CutFile writer(root, "w2", EmberFile::Access::ReadWrite);
    writer.at(kLength / 2) = 1;
    return 0;
  });
  // Killed by SIGBUS, or by the abort of a sanitizer that handled SIGBUS before the guard.
  const int status = exitStatus(unhandled);
  EXPECT_TRUE(status == -SIGBUS || status == -SIGABRT) << status;
}

}  // namespace
