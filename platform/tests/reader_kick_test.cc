// Wake-ups across real processes: a forked reader blocks in epoll on its kick socket while
// this process plays the writer.
#include "platform/shm/ReaderKick.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include "platform/tests/TempDir.h"
#include "zinc/Loop.h"

namespace {

using Mem::ReaderKickListener;
using Mem::ReaderKickSm;

// A child process that registers a reader, reports "ready", blocks in epoll until kicked
// (or 20 s pass), waits `settleMs` more for late kicks, then reports how many it drained.
class ReaderChild {
 public:
  ReaderChild(const std::string& tableDir, int settleMs = 0) {
    int up[2];
    int down[2];
    EXPECT_EQ(::pipe(up), 0);
    EXPECT_EQ(::pipe(down), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(up[0]);
      ::close(down[1]);
      ::_exit(runChild(tableDir, settleMs, up[1], down[0]));
    }
    ::close(up[1]);
    ::close(down[0]);
    fromChild_ = up[0];
    toChild_ = down[1];
    char ready = 0;
    EXPECT_EQ(::read(fromChild_, &ready, 1), 1);
  }
  ~ReaderChild() {
    ::close(fromChild_);
    ::close(toChild_);
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  // Waits until the child sleeps in the kernel (state S), i.e. it is blocked, not spinning.
  bool blocked() const {
    for (int i = 0; i < 2000; ++i) {
      std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
      std::string line;
      std::getline(stat, line);
      auto close = line.rfind(')');
      if (close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S') {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }
  // Kicks drained by the child, or -1 when it was never woken.
  int result() {
    int32_t kicks = -1;
    EXPECT_EQ(::read(fromChild_, &kicks, sizeof(kicks)), ssize_t(sizeof(kicks)));
    EXPECT_EQ(::write(toChild_, "x", 1), 1);  // a byte, not EOF: later children share the pipe
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return kicks;
  }

 private:
  static int runChild(const std::string& tableDir, int settleMs, int out, int in) {
    ReaderKickListener listener(tableDir);
    int epfd = ::epoll_create1(0);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ::epoll_ctl(epfd, EPOLL_CTL_ADD, listener.fd(), &ev);
    if (::write(out, "r", 1) != 1) return 2;
    int32_t kicks = -1;
    if (::epoll_wait(epfd, &ev, 1, 20000) == 1) {
      if (settleMs) std::this_thread::sleep_for(std::chrono::milliseconds(settleMs));
      kicks = int32_t(listener.drain());
    }
    if (::write(out, &kicks, sizeof(kicks)) != sizeof(kicks)) return 2;
    char done;
    (void)::read(in, &done, 1);  // stay registered until the parent is finished with us
    return 0;
  }

  pid_t pid_ = -1;
  int fromChild_ = -1;
  int toChild_ = -1;
};

TEST(ReaderKick, CommitWakesBlockedReaderInAnotherProcess) {
  TestSupport::TempDir root;
  std::string table = root / "routes";
  ReaderChild child(table);
  ASSERT_TRUE(child.blocked());
  ReaderKickSm writer(table);
  EXPECT_EQ(writer.readers(), 1u);
  EXPECT_EQ(writer.flush(), 0u) << "nothing committed, nobody kicked";
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 1u);
  EXPECT_EQ(child.result(), 1);
}

TEST(ReaderKick, ManyCommitsInOneIterationKickOnce) {
  TestSupport::TempDir root;
  std::string table = root / "routes";
  ReaderChild child(table, 100);
  std::vector<std::function<void()>> deferred;
  ReaderKickSm writer(table, [&](std::function<void()> fn) { deferred.push_back(fn); });
  for (int i = 0; i < 1000; ++i) writer.commitNotify();
  ASSERT_EQ(deferred.size(), 1u) << "one deferred flush per iteration";
  deferred.front()();
  EXPECT_EQ(writer.kicksSent(), 1u);
  EXPECT_EQ(child.result(), 1);
}

TEST(ReaderKick, ReaderRegisteredAfterWriterIsKicked) {
  TestSupport::TempDir root;
  std::string table = root / "routes";
  ReaderKickSm writer(table);
  EXPECT_EQ(writer.readers(), 0u);
  ReaderChild first(table);
  ReaderChild second(table);
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 2u);
  EXPECT_EQ(first.result(), 1);
  EXPECT_EQ(second.result(), 1);
}

TEST(ReaderKick, DeadReaderIsDroppedOnFirstFailedKick) {
  TestSupport::TempDir root;
  std::string table = root / "routes";
  pid_t pid = ::fork();
  if (pid == 0) {
    new ReaderKickListener(table);  // registered and never unregistered: the process dies
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ReaderKickListener alive(table);
  ReaderKickSm writer(table);
  ASSERT_EQ(writer.readers(), 2u);
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 1u);
  EXPECT_EQ(writer.readersDropped(), 1u);
  EXPECT_EQ(writer.readers(), 1u);
  std::set<std::string> files;
  for (auto& entry : std::filesystem::directory_iterator(Mem::readersDir(table))) {
    files.insert(entry.path().filename().string());
  }
  EXPECT_EQ(files, (std::set<std::string>{alive.name() + ".sock", alive.name() + ".ack"}))
      << "the dead reader's registration and record are unlinked";
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 1u);
  EXPECT_EQ(writer.readersDropped(), 1u);
  EXPECT_EQ(alive.drain(), 2u);
}

TEST(ReaderKick, FullReaderQueueNeverBlocksWriter) {
  TestSupport::TempDir root;
  std::string table = root / "routes";
  ReaderKickListener sleepy(table);
  ReaderKickSm writer(table);
  for (int i = 0; i < 100000; ++i) {
    writer.commitNotify();
    ASSERT_EQ(writer.flush(), 1u);
  }
  EXPECT_EQ(writer.readersDropped(), 0u);
  EXPECT_TRUE(sleepy.wait(0));
  EXPECT_GT(sleepy.drain(), 0u);
  EXPECT_FALSE(sleepy.wait(0));
}

TEST(ReaderKick, DetachedReaderUnregisters) {
  TestSupport::TempDir root;
  std::string table = root / "routes";
  ReaderKickSm writer(table);
  {
    ReaderKickListener reader(table);
    writer.commitNotify();
    EXPECT_EQ(writer.flush(), 1u);
  }
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 0u);
  EXPECT_EQ(writer.readersDropped(), 0u) << "a clean detach is seen, not kicked";
}

TEST(ReaderKick, DeferredFlushAfterWriterIsGoneIsHarmless) {
  TestSupport::TempDir root;
  std::function<void()> pending;
  {
    ReaderKickSm writer(root / "t", [&](std::function<void()> fn) { pending = fn; });
    writer.commitNotify();
  }
  ASSERT_TRUE(pending);
  pending();
}

// A reader process on a notification loop (watchOn), as a shadow is: one byte to the parent
// per kick it was woken for. It runs until killed.
class LoopReader {
 public:
  explicit LoopReader(const std::string& tableDir) {
    int up[2];
    EXPECT_EQ(::pipe(up), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(up[0]);
      ReaderKickListener listener(tableDir);
      Zinc::Loop loop;
      listener.watchOn(loop, [&] { (void)!::write(up[1], "k", 1); });
      (void)!::write(up[1], "r", 1);
      loop.run();
      ::_exit(0);
    }
    ::close(up[1]);
    fromChild_ = up[0];
    char ready = 0;
    EXPECT_EQ(::read(fromChild_, &ready, 1), 1);
  }
  ~LoopReader() {
    kill();
    ::close(fromChild_);
  }
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  // Whether a wake-up was reported within a few seconds (consumes it).
  bool woken() {
    pollfd pfd{fromChild_, POLLIN, 0};
    char byte;
    return ::poll(&pfd, 1, 5000) == 1 && ::read(fromChild_, &byte, 1) == 1;
  }

 private:
  pid_t pid_ = -1;
  int fromChild_ = -1;
};

// Kicks until the reader has handed over its eventfd (its answer to the first datagram).
bool kickUntilHandedOver(ReaderKickSm& writer, LoopReader& reader) {
  for (int i = 0; i < 100 && writer.readersHandedOver() == 0; ++i) {
    writer.commitNotify();
    writer.flush();
    if (!reader.woken()) return false;
  }
  return writer.readersHandedOver() == 1;
}

TEST(ReaderKick, ReaderHandsOverItsEventFdAndIsWokenThroughIt) {
  TestSupport::TempDir root;
  std::string table = root / "routes";
  LoopReader reader(table);
  ReaderKickSm writer(table);
  ASSERT_TRUE(kickUntilHandedOver(writer, reader));
  for (int i = 0; i < 20; ++i) {
    writer.commitNotify();
    EXPECT_EQ(writer.flush(), 1u);
    EXPECT_TRUE(reader.woken()) << "kick " << i;
    EXPECT_EQ(writer.readersHandedOver(), 1u) << "no datagram needed any more";
  }
  EXPECT_EQ(writer.readersDropped(), 0u);
}

TEST(ReaderKick, ReaderThatExitsAfterHandoverIsDroppedAtTheNextFlush) {
  TestSupport::TempDir root;
  std::string table = root / "routes";
  LoopReader reader(table);
  ReaderKickSm writer(table);
  ASSERT_TRUE(kickUntilHandedOver(writer, reader));
  reader.kill();  // SIGKILL: its registration stays behind
  ASSERT_EQ(std::distance(std::filesystem::directory_iterator(Mem::readersDir(table)), {}), 2);
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 0u);
  EXPECT_EQ(writer.readersDropped(), 1u);
  EXPECT_EQ(writer.readers(), 0u);
  EXPECT_TRUE(std::filesystem::is_empty(Mem::readersDir(table)));
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 0u);
  EXPECT_EQ(writer.readersDropped(), 1u);
}

// A registration whose owner answers the first kick with descriptors that are not an eventfd
// and a pidfd (here both ends of a pipe, whose write end could block the writer).
TEST(ReaderKick, ForgedHandoverIsRefused) {
  TestSupport::TempDir root;
  std::string table = root / "routes";
  ReaderKickSm writer(table);
  ReaderKickListener listener(table);  // made the folder; its socket stands in as the forger
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  writer.commitNotify();
  ASSERT_EQ(writer.flush(), 1u);
  sockaddr_un from{};
  socklen_t fromLength = sizeof(from);
  char byte;
  ASSERT_EQ(::recvfrom(listener.fd(), &byte, 1, 0, reinterpret_cast<sockaddr*>(&from), &fromLength),
            0);
  const int forged[2] = {pipeFds[1], pipeFds[0]};
  ASSERT_EQ(Mem::sendDescriptorPair(listener.fd(), from, fromLength, forged, 0), 1);
  for (int i = 0; i < 3; ++i) {
    writer.commitNotify();
    EXPECT_EQ(writer.flush(), 1u);
  }
  EXPECT_EQ(writer.readersHandedOver(), 0u);
  EXPECT_EQ(listener.drainSocket(), 3u) << "still kicked by datagram";
  // The genuine handover, which drainSocket() just sent, is taken.
  writer.commitNotify();
  writer.flush();
  EXPECT_EQ(writer.readersHandedOver(), 1u);
  ::close(pipeFds[0]);
  ::close(pipeFds[1]);
}

}  // namespace
