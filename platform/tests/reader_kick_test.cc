// Wake-ups across real processes: a forked reader blocks in epoll on its kick socket while
// this process plays the writer.
#include "platform/shm/ReaderKick.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "platform/tests/ForkedChild.h"
#include "platform/tests/TempDir.h"
#include "zinc/Loop.h"

namespace {

using Mem::ReaderKickListener;
using Mem::ReaderKickSm;

// A fresh table folder for each test.
class ReaderKick : public ::testing::Test {
 protected:
  TestSupport::TempDir root;
  const std::string table = root / "routes";
};

// A child process that registers a reader, reports "ready", blocks in epoll until kicked
// (or 20 s pass), waits `settleMs` more for late kicks, then reports how many it drained and
// stays registered until killed.
class ReaderChild {
 public:
  explicit ReaderChild(const std::string& tableDir, int settleMs = 0)
      : child_([&](int out) { return run(tableDir, settleMs, out); }) {
    EXPECT_EQ(child_.read(1), "r");
  }
  // Waits until the child sleeps in the kernel (state S), i.e. it is blocked, not spinning.
  bool blocked() const {
    for (int i = 0; i < 2000; ++i) {
      std::ifstream stat("/proc/" + std::to_string(child_.pid()) + "/stat");
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
    const std::string report = child_.read(sizeof(kicks));
    EXPECT_EQ(report.size(), sizeof(kicks));
    if (report.size() == sizeof(kicks)) std::memcpy(&kicks, report.data(), sizeof(kicks));
    return kicks;
  }

 private:
  static int run(const std::string& tableDir, int settleMs, int out) {
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
    ::pause();  // stay registered until the parent is finished with us
    return 0;
  }

  TestSupport::ForkedChild child_;
};

TEST_F(ReaderKick, CommitWakesBlockedReaderInAnotherProcess) {
  ReaderChild child(table);
  ASSERT_TRUE(child.blocked());
  ReaderKickSm writer(table);
  EXPECT_EQ(writer.readers(), 1u);
  EXPECT_EQ(writer.flush(), 0u) << "nothing committed, nobody kicked";
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 1u);
  EXPECT_EQ(child.result(), 1);
}

TEST_F(ReaderKick, ManyCommitsInOneIterationKickOnce) {
  ReaderChild child(table, 100);
  std::vector<std::function<void()>> deferred;
  ReaderKickSm writer(table, [&](std::function<void()> fn) { deferred.push_back(fn); });
  for (int i = 0; i < 1000; ++i) writer.commitNotify();
  ASSERT_EQ(deferred.size(), 1u) << "one deferred flush per iteration";
  deferred.front()();
  EXPECT_EQ(writer.kicksSent(), 1u);
  EXPECT_EQ(child.result(), 1);
}

TEST_F(ReaderKick, ReaderRegisteredAfterWriterIsKicked) {
  ReaderKickSm writer(table);
  EXPECT_EQ(writer.readers(), 0u);
  ReaderChild first(table);
  ReaderChild second(table);
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 2u);
  EXPECT_EQ(first.result(), 1);
  EXPECT_EQ(second.result(), 1);
}

TEST_F(ReaderKick, DeadReaderIsDroppedOnFirstFailedKick) {
  TestSupport::ForkedChild dead([&](int) {
    new ReaderKickListener(table);  // registered and never unregistered: the process dies
    return 0;
  });
  dead.wait();
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

TEST_F(ReaderKick, FullReaderQueueNeverBlocksWriter) {
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

TEST_F(ReaderKick, DetachedReaderUnregisters) {
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

TEST_F(ReaderKick, DeferredFlushAfterWriterIsGoneIsHarmless) {
  std::function<void()> pending;
  {
    ReaderKickSm writer(table, [&](std::function<void()> fn) { pending = fn; });
    writer.commitNotify();
  }
  ASSERT_TRUE(pending);
  pending();
}

// A reader process on a notification loop (watchOn), as a shadow is: one byte to the parent
// per kick it was woken for. It runs until killed.
class LoopReader {
 public:
  explicit LoopReader(const std::string& tableDir)
      : child_([&](int out) {
          ReaderKickListener listener(tableDir);
          Zinc::Loop loop;
          listener.watchOn(loop, [&] { (void)!::write(out, "k", 1); });
          (void)!::write(out, "r", 1);
          loop.run();
          return 0;
        }) {
    EXPECT_EQ(child_.read(1), "r");
  }
  void kill() { child_.kill(); }
  // Whether a wake-up was reported within a few seconds (consumes it).
  bool woken() { return child_.read(1, 5000) == "k"; }

 private:
  TestSupport::ForkedChild child_;
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

TEST_F(ReaderKick, ReaderHandsOverItsEventFdAndIsWokenThroughIt) {
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

TEST_F(ReaderKick, ReaderThatExitsAfterHandoverIsDroppedAtTheNextFlush) {
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

// Every entry of this process's epoll sets whose descriptor is no longer open here, or now
// names another file: "tfd" lines of /proc/self/fdinfo read against fstat.
std::vector<std::string> staleWatches() {
  std::vector<std::string> stale;
  for (auto& fd : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(fd.path());
    for (std::string line; std::getline(info, line);) {
      int target;
      unsigned long inode;
      const auto at = line.find("ino:");
      if (std::sscanf(line.c_str(), "tfd: %d", &target) != 1 || at == std::string::npos ||
          std::sscanf(line.c_str() + at, "ino:%lx", &inode) != 1) {
        continue;
      }
      struct stat st;
      if (::fstat(target, &st) != 0 || st.st_ino != inode) stale.push_back(line);
    }
  }
  return stale;
}

// A reader that never answered (still kicked by datagram) dies while another process, forked
// from the writer since, holds the writer's connection to it open: the failed kick drops the
// reader and takes the connection out of the writer's poll set as well.
TEST_F(ReaderKick, FailedKickLeavesNothingWatched) {
  TestSupport::ForkedChild mute([&](int out) {
    ReaderKickListener listener(table);  // never drained: no handover
    (void)!::write(out, "r", 1);
    ::pause();
    return 0;
  });
  ASSERT_EQ(mute.read(1), "r");
  ReaderKickSm writer(table);
  writer.commitNotify();
  ASSERT_EQ(writer.flush(), 1u);
  TestSupport::ForkedChild holder([](int) {
    ::pause();
    return 0;
  });
  mute.kill();
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 0u);
  EXPECT_EQ(writer.readersDropped(), 1u);
  EXPECT_EQ(staleWatches(), std::vector<std::string>{});
}

// A registration whose owner answers the first kick with descriptors that are not an eventfd
// and a pidfd (here both ends of a pipe, whose write end could block the writer).
TEST_F(ReaderKick, ForgedHandoverIsRefused) {
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
