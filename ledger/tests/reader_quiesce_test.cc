// Whether a reader has consumed the writer's changes, asked by the writer of a reader in
// another process: LedgerWriter::clientQuiesced(readerName) against the reader's
// acknowledgement record, which is untrusted input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "ledger/tests/ShadowHarness.h"
#include "platform/tests/ForkedChild.h"

namespace {

using namespace std::chrono_literals;
using namespace LedgerTest;

// A shadow in a child process. It sends its reader name once it follows the writer, then
// serves its loop (waking only on kicks) until killed.
class ReaderProcess {
 public:
  explicit ReaderProcess(const std::string& root)
      : child_([&](int out) { return run(root, out); }) {
    const std::string name = child_.read(kNameSize);
    name_ = name.substr(0, name.find('\0'));
  }
  const std::string& name() const { return name_; }
  void kill() { child_.kill(); }

 private:
  static constexpr size_t kNameSize = 64;  // the name, NUL-padded

  static int run(const std::string& root, int out) {
    Zinc::Loop loop;
    Shadow shadow(Ledger::ReaderConfig{root, "routes"}, loop);
    shadow.initialize();
    loop.runUntil([&] { return shadow.inStep(); }, 20s);
    char name[kNameSize] = {};
    shadow.readerName().copy(name, kNameSize - 1);
    if (::write(out, name, kNameSize) != ssize_t(kNameSize)) return 1;
    loop.run();
    return 0;
  }

  TestSupport::ForkedChild child_;
  std::string name_;
};

// Asks until `want` or a few seconds have passed; the reader needs a moment to wake.
bool settlesTo(KickingWriter& w, const std::string& name, bool want) {
  for (int i = 0; i < 5000; ++i) {
    if (w.writer.clientQuiesced(name) == want) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

TEST(ClientQuiesced, FollowsWhatAReaderInAnotherProcessConsumed) {
  TempRoot root;
  KickingWriter w(root.path(), "routes");
  for (uint64_t id = 0; id < 50; ++id) w.writer.write(makeValue(id, 1));
  w.flush();
  ReaderProcess reader(root.path());
  ASSERT_FALSE(reader.name().empty());
  EXPECT_TRUE(settlesTo(w, reader.name(), true));

  // Announced but not kicked: the reader sleeps and has not consumed it.
  w.writer.write(makeValue(7, 2));
  EXPECT_FALSE(w.writer.clientQuiesced(reader.name()));
  w.flush();
  EXPECT_TRUE(settlesTo(w, reader.name(), true));

  // An unchanged rewrite is still a change announced, to be consumed like any other.
  w.rewrite(8);
  w.writer.remove(TestKey{9});
  EXPECT_FALSE(w.writer.clientQuiesced(reader.name()));
  w.flush();
  EXPECT_TRUE(settlesTo(w, reader.name(), true));

  // A reader that died is not quiesced, although nothing changed since its last word.
  reader.kill();
  EXPECT_FALSE(w.writer.clientQuiesced(reader.name()));
}

TEST(ClientQuiesced, OnlyAKnownLiveReaderWithAWellFormedRecordCounts) {
  TempRoot root;
  KickingWriter w(root.path(), "routes");
  w.writer.write(makeValue(1, 1));
  const std::string dir = Mem::readersDir(root.path() + "/routes");
  for (const char* name : {"", "12-0", "../routes", "a/b", ".", "12-0.ack"}) {
    EXPECT_FALSE(w.writer.clientQuiesced(name)) << name;
  }

  // Records this test holds locked, as a live reader would, with bad contents.
  auto record = [&](const std::string& name, const void* bytes, size_t size) {
    int fd = ::open((dir + "/" + name + ".ack").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640);
    EXPECT_EQ(::write(fd, bytes, size), ssize_t(size));
    EXPECT_EQ(::flock(fd, LOCK_SH), 0);
    return fd;
  };
  Mem::ReaderAck good{{'L', 'E', 'D', 'G', 'R', 'A', 'C', 'K'}, 1, 1, w.writer.sequence(), {}};
  int fds[5];
  fds[0] = record("100-0", &good, sizeof(good));
  EXPECT_TRUE(w.writer.clientQuiesced("100-0"));  // the well-formed control case
  Mem::ReaderAck badMagic = good;
  badMagic.magic[0] = 'X';
  fds[1] = record("100-1", &badMagic, sizeof(badMagic));
  Mem::ReaderAck badVersion = good;
  badVersion.version = 2;
  fds[2] = record("100-2", &badVersion, sizeof(badVersion));
  fds[3] = record("100-3", &good, sizeof(good) - 1);  // truncated
  Mem::ReaderAck ahead = good;
  ahead.consumed = good.consumed + 1;  // claims more than the writer announced
  fds[4] = record("100-4", &ahead, sizeof(ahead));
  for (const char* name : {"100-1", "100-2", "100-3", "100-4"}) {
    EXPECT_FALSE(w.writer.clientQuiesced(name)) << name;
  }
  // The same good record with nobody holding it: its reader is gone.
  ::close(fds[0]);
  EXPECT_FALSE(w.writer.clientQuiesced("100-0"));
  for (int i = 1; i < 5; ++i) ::close(fds[i]);

  // A reader still syncing says so, and a detached writer has no readers.
  Mem::ReaderKickListener syncing(root.path() + "/routes");
  EXPECT_FALSE(w.writer.clientQuiesced(syncing.name()));
  syncing.acknowledge(w.writer.sequence());
  EXPECT_TRUE(w.writer.clientQuiesced(syncing.name()));
  w.writer.detach();
  EXPECT_FALSE(w.writer.clientQuiesced(syncing.name()));
}

}  // namespace
