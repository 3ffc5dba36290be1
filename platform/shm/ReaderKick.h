// Wake-ups from a table's writer to its readers in other processes.
//
// Every attached reader owns a unix datagram socket bound to
//   <tableDir>/readers/<pid>-<n>.sock
// An idle reader blocks in epoll (its notification loop) on that socket's fd and costs no CPU.
// The writer (ReaderKickSm) marks a commit with commitNotify() and, at most once per loop
// iteration, sends one empty datagram to every registered socket. Sends never block: a reader
// whose queue is full already has a kick waiting, and a socket nobody listens on any more
// (ECONNREFUSED, ENOENT) is unlinked and forgotten on the first failed kick, so a dead reader
// costs the writer nothing.
//
// The writer learns of new and removed registrations through inotify on the readers folder,
// and keeps one socket connected to each reader, so a kick costs one non-blocking read plus one
// send per reader: no directory scan and no path lookup.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Mem {

// The folder under a table's folder in which readers register.
std::string readersDir(const std::string& tableDir);

// Reader side: one registration, removed when destroyed. Watch fd() for readability and call
// drain() when it fires; it consumes every pending kick (many kicks coalesce into one wake-up).
class ReaderKickListener {
 public:
  // Creates <tableDir>/readers if needed and binds a fresh socket there. Throws
  // Zinc::Exception with the reason when the folder or socket cannot be made.
  explicit ReaderKickListener(const std::string& tableDir);
  ReaderKickListener(const ReaderKickListener&) = delete;
  ReaderKickListener& operator=(const ReaderKickListener&) = delete;
  ~ReaderKickListener();

  int fd() const { return fd_; }
  const std::string& path() const { return path_; }
  // Consumes all pending kicks without blocking; returns how many there were.
  uint32_t drain();
  // Blocks until a kick arrives or timeoutMs passes (-1: forever); true when kicked. For
  // programs and tests without a notification loop. Does not drain.
  bool wait(int timeoutMs) const;

 private:
  std::string path_;
  int fd_ = -1;
};

// Writer side. Kicks go out from flush(); commitNotify() only sets a flag and, when a defer
// function was given, schedules one flush for the end of the current loop iteration.
class ReaderKickSm {
 public:
  // Runs a function once the current batch of work is done (the loop's deferred call).
  using Defer = std::function<void(std::function<void()>)>;

  explicit ReaderKickSm(const std::string& tableDir, Defer defer = {});
  ReaderKickSm(const ReaderKickSm&) = delete;
  ReaderKickSm& operator=(const ReaderKickSm&) = delete;
  ~ReaderKickSm();

  // Marks that readers have something new to look at.
  void commitNotify();
  // Kicks every registered reader once if a commit is pending; returns the readers kicked.
  uint32_t flush();

  uint32_t readers() const { return uint32_t(readers_.size()); }
  uint64_t kicksSent() const { return kicksSent_; }
  uint64_t readersDropped() const { return readersDropped_; }

 private:
  void refreshIfChanged();
  // A registered reader and the datagram socket connected to it (-1 until connected).
  struct Registration {
    std::string path;
    int fd = -1;
  };
  void rescan();
  bool kick(Registration& reader);
  static int connectTo(const std::string& path);
  static void closeFd(Registration& reader);

  std::string dir_;
  Defer defer_;
  int inotifyFd_ = -1;
  bool pending_ = false;
  bool flushScheduled_ = false;
  std::vector<Registration> readers_;
  uint64_t kicksSent_ = 0;
  uint64_t readersDropped_ = 0;
  // Guards the deferred flush against running after this object is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Mem
