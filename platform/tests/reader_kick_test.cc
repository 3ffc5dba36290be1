// Wake-ups across real processes: a forked reader blocks in epoll on its kick socket while
// this process plays the writer.
#include "platform/shm/ReaderKick.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
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
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "platform/tests/ForkedChild.h"
#include "platform/tests/TempDir.h"
#include "zinc/Exception.h"
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

// What a reader acknowledged, as a writer reads it from the reader's record: its sequence
// while the reader lives, nothing for a record cut short (by whoever can open it) or left by
// a reader that is gone.
TEST_F(ReaderKick, AcknowledgementsAreReadFromLiveWholeRecordsOnly) {
  auto reader = std::make_unique<ReaderKickListener>(table);
  const std::string ack = Mem::readersDir(table) + "/" + reader->name() + ".ack";
  reader->acknowledge(7);
  EXPECT_EQ(Mem::readerConsumed(table, reader->name()), std::optional<uint64_t>(7));
  std::filesystem::resize_file(ack, 8);
  EXPECT_EQ(Mem::readerConsumed(table, reader->name()), std::nullopt);
  const std::string name = reader->name();
  reader.reset();
  EXPECT_EQ(Mem::readerConsumed(table, name), std::nullopt);
  EXPECT_EQ(Mem::readerConsumed(table, "../x"), std::nullopt) << "not a reader's name";
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

// The names of the files in `dir`; none when there is no such folder.
std::set<std::string> filesIn(const std::string& dir) {
  std::set<std::string> files;
  std::error_code missing;
  for (auto& entry : std::filesystem::directory_iterator(dir, missing)) {
    files.insert(entry.path().filename().string());
  }
  return files;
}

// While it lives, this process can open only `count` more descriptors: the soft limit is
// lowered and every free number below it taken.
class DescriptorsLeft {
 public:
  explicit DescriptorsLeft(int count) {
    ::getrlimit(RLIMIT_NOFILE, &saved_);
    const int anchor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    rlimit low = saved_;
    low.rlim_cur = rlim_t(anchor + 64);  // room enough above the lowest free number
    ::setrlimit(RLIMIT_NOFILE, &low);
    held_.push_back(anchor);
    for (int fd; (fd = ::fcntl(anchor, F_DUPFD_CLOEXEC, 0)) >= 0;) held_.push_back(fd);
    for (; count > 0; --count) {
      ::close(held_.back());
      held_.pop_back();
    }
  }
  DescriptorsLeft(const DescriptorsLeft&) = delete;
  DescriptorsLeft& operator=(const DescriptorsLeft&) = delete;
  ~DescriptorsLeft() {
    for (int fd : held_) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &saved_);
  }

 private:
  rlimit saved_;
  std::vector<int> held_;
};

// A writer out of descriptors for a while cannot open a connection to a reader. That says
// nothing about the reader, alive all along: it stays registered and is kicked by the first
// flush once the writer has descriptors again.
TEST_F(ReaderKick, WriterOutOfDescriptorsKeepsTheReaderItCannotKick) {
  ReaderChild child(table);
  ReaderKickSm writer(table);
  ASSERT_EQ(writer.readers(), 1u);
  const auto registered = filesIn(Mem::readersDir(table));
  {
    DescriptorsLeft none(0);
    writer.commitNotify();
    EXPECT_EQ(writer.flush(), 0u) << "not kicked, and not counted as kicked";
  }
  EXPECT_EQ(writer.readersDropped(), 0u);
  EXPECT_EQ(writer.readers(), 1u);
  EXPECT_EQ(filesIn(Mem::readersDir(table)), registered) << "registration and record kept";
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 1u);
  EXPECT_EQ(child.result(), 1);
}

// The same writer, when a reader registers while it cannot read the readers folder: it keeps
// the readers it knows, and finds the new one once it has descriptors again.
TEST_F(ReaderKick, WriterOutOfDescriptorsKeepsTheRegistrationsItCannotRead) {
  ReaderChild known(table);
  ReaderKickSm writer(table);
  ReaderChild newcomer(table);
  {
    DescriptorsLeft none(0);
    writer.commitNotify();
    EXPECT_EQ(writer.flush(), 0u);
    EXPECT_EQ(writer.readers(), 1u) << "the folder could not be read: nobody is forgotten";
  }
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), 2u);
  EXPECT_EQ(writer.readersDropped(), 0u);
  EXPECT_EQ(known.result(), 1);
  EXPECT_EQ(newcomer.result(), 1);
}

// Descriptors open in this process.
size_t openDescriptors() {
  return size_t(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// Lines of /proc/self/maps that map a file whose path contains `part`.
std::vector<std::string> mappingsOf(const std::string& part) {
  std::vector<std::string> found;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(part) != std::string::npos) found.push_back(line);
  }
  return found;
}

// Whether a listener could be made in `tableDir` with `descriptors` left (-1: no limit); it
// is gone again when this returns.
bool makeListener(const std::string& tableDir, int descriptors = -1) {
  std::unique_ptr<DescriptorsLeft> left;
  if (descriptors >= 0) left = std::make_unique<DescriptorsLeft>(descriptors);
  try {
    ReaderKickListener listener(tableDir);
    return true;
  } catch (const Zinc::Exception&) {
    return false;
  }
}

// A listener that cannot be made, at whatever step it fails, leaves nothing of its own: no
// file in the readers folder (whose record a writer would take for a live reader's), no
// descriptor, no mapping. Mounts that retry make no pile of them.
TEST_F(ReaderKick, ListenerThatCannotBeMadeLeavesNothingBehind) {
  const std::string tooLong = root / std::string(100, 'x');  // no socket can be bound there
  const size_t descriptors = openDescriptors();
  for (int retry = 0; retry < 3; ++retry) EXPECT_FALSE(makeListener(tooLong));
  EXPECT_EQ(filesIn(Mem::readersDir(tooLong)), std::set<std::string>{});
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(mappingsOf(tooLong), std::vector<std::string>{});

  // Out of descriptors at each step in turn, up to enough for all of them.
  int failed = 0;
  int left = 0;
  for (; left < 16 && !makeListener(table, left); ++left) ++failed;
  EXPECT_GE(failed, 2) << "the record and the socket each need a descriptor";
  EXPECT_LT(left, 16) << "made with enough descriptors";
  EXPECT_EQ(filesIn(Mem::readersDir(table)), std::set<std::string>{});
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(mappingsOf(table), std::vector<std::string>{});
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

// More handovers arrive at once than one look at the writer's events takes in; a reader that
// registers behind them, before a commit, is still kicked for that commit.
TEST_F(ReaderKick, RegistrationBehindManyHandoversIsKickedForTheNextCommit) {
  constexpr uint32_t kReaders = 80;
  TestSupport::ForkedChild many([&](int out, int in) {
    std::vector<std::unique_ptr<ReaderKickListener>> listeners;
    for (uint32_t i = 0; i < kReaders; ++i) {
      listeners.push_back(std::make_unique<ReaderKickListener>(table));
    }
    (void)!::write(out, "r", 1);
    char go;
    if (::read(in, &go, 1) != 1) return 2;
    for (auto& listener : listeners) listener->drainSocket();  // answers with the handover
    (void)!::write(out, "h", 1);
    ::pause();
    return 0;
  });
  ASSERT_EQ(many.read(1), "r");
  ReaderKickSm writer(table);
  writer.commitNotify();
  ASSERT_EQ(writer.flush(), kReaders);
  ASSERT_TRUE(many.tell('h'));
  ASSERT_EQ(many.read(1), "h");
  ReaderChild newcomer(table);
  writer.commitNotify();
  EXPECT_EQ(writer.flush(), kReaders + 1);
  EXPECT_EQ(writer.readersHandedOver(), kReaders);
  EXPECT_EQ(newcomer.result(), 1);
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
