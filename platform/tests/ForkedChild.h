// Test helper: a forked child process that reports to its parent through a pipe (and may be
// told things through a second one), and is killed (SIGKILL) when the parent is done with it
// while it still runs.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <type_traits>

namespace TestSupport {

class ForkedChild {
 public:
  // Forks; the child runs `body(fd)`, fd being the pipe's write end, and exits with what it
  // returns. The parent keeps the read end. A body that takes two descriptors also gets the
  // read end of a second pipe, on which the parent's tell() reaches it.
  template <class Body>
  explicit ForkedChild(Body body) {
    constexpr bool kTold = std::is_invocable_v<Body, int, int>;
    int fds[2], toChild[2] = {-1, -1};
    if (::pipe(fds) != 0 || (kTold && ::pipe(toChild) != 0)) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(fds[0]);
      if constexpr (kTold) {
        ::close(toChild[1]);
        ::_exit(body(fds[1], toChild[0]));
      } else {
        ::_exit(body(fds[1]));
      }
    }
    ::close(fds[1]);
    fd_ = fds[0];
    if (kTold) ::close(toChild[0]);
    toChild_ = toChild[1];
  }
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;
  // A child still running (a failed test left it) is killed.
  ~ForkedChild() {
    if (fd_ >= 0) ::close(fd_);
    if (toChild_ >= 0) ::close(toChild_);
    kill();
  }

  pid_t pid() const { return pid_; }

  // Sends `c` to a child whose body took the second pipe: false when it could not.
  bool tell(char c) { return toChild_ >= 0 && ::write(toChild_, &c, 1) == 1; }

  // Waits up to `timeoutMs` for `count` more bytes from the child: what arrived by then
  // (shorter when the time ran out or the child closed its end).
  std::string read(size_t count, int timeoutMs = 20000) {
    std::string got;
    while (got.size() < count) {
      pollfd pfd{fd_, POLLIN, 0};
      char chunk[256];
      const size_t want = std::min(count - got.size(), sizeof(chunk));
      if (::poll(&pfd, 1, timeoutMs) != 1) break;
      const ssize_t n = ::read(fd_, chunk, want);
      if (n <= 0 && !(n < 0 && errno == EAGAIN)) break;
      if (n > 0) got.append(chunk, size_t(n));
    }
    return got;
  }
  // Kills the child now (SIGKILL) and reaps it.
  void kill() {
    if (pid_ <= 0 || reaped_) return;
    ::kill(pid_, SIGKILL);
    wait();
  }

  // Appends what the child wrote since the last call, without waiting; false once the child
  // closed its end and everything was read.
  bool poll(std::string& report) {
    if (!nonBlocking_) {
      ::fcntl(fd_, F_SETFL, O_NONBLOCK);
      nonBlocking_ = true;
    }
    return take(report);
  }
  // Everything the child writes until it closes its end (by exiting, or dying).
  std::string readAll() {
    std::string report;
    if (nonBlocking_) ::fcntl(fd_, F_SETFL, 0);
    nonBlocking_ = false;
    while (take(report)) {
    }
    return report;
  }
  // Waits for the child to end: its wait status.
  int wait() {
    int status = 0;
    if (!reaped_) ::waitpid(pid_, &status, 0);
    reaped_ = true;
    return status;
  }

 private:
  // One read: false at the end of the stream (or on an error other than "nothing yet").
  bool take(std::string& report) {
    char chunk[65536];
    const ssize_t n = ::read(fd_, chunk, sizeof(chunk));
    if (n > 0) report.append(chunk, size_t(n));
    return n > 0 || (n < 0 && errno == EAGAIN);
  }

  pid_t pid_ = -1;
  int fd_ = -1;
  int toChild_ = -1;  // write end of the second pipe, when the body took it
  bool nonBlocking_ = false;
  bool reaped_ = false;
};

}  // namespace TestSupport
