#include "platform/shm/ReaderKick.h"

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "zinc/Exception.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("ReaderKick")

namespace Mem {

namespace {

std::atomic<uint32_t> listenerCount{0};

std::string errnoText(int err) { return std::string(std::strerror(err)); }

void makeDir(const std::string& dir) {
  if (::mkdir(dir.c_str(), 0750) != 0 && errno != EEXIST) {
    throw Zinc::Exception("ReaderKick cannot create " + dir + ": " + errnoText(errno));
  }
}

bool fillAddress(const std::string& path, sockaddr_un& addr) {
  std::memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) return false;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return true;
}

bool isSocketName(const char* name) {
  size_t len = std::strlen(name);
  return len > 5 && std::strcmp(name + len - 5, ".sock") == 0;
}

}  // namespace

std::string readersDir(const std::string& tableDir) { return tableDir + "/readers"; }

ReaderKickListener::ReaderKickListener(const std::string& tableDir) {
  makeDir(tableDir);
  makeDir(readersDir(tableDir));
  path_ = readersDir(tableDir) + "/" + std::to_string(::getpid()) + "-" +
          std::to_string(listenerCount.fetch_add(1)) + ".sock";
  sockaddr_un addr;
  if (!fillAddress(path_, addr)) {
    throw Zinc::Exception("ReaderKickListener path too long for a socket: " + path_);
  }
  fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw Zinc::Exception("ReaderKickListener socket: " + errnoText(errno));
  ::unlink(path_.c_str());  // a registration left by a dead process that had our pid
  if (::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    int err = errno;
    ::close(fd_);
    throw Zinc::Exception("ReaderKickListener cannot bind " + path_ + ": " + errnoText(err));
  }
  ::chmod(path_.c_str(), 0620);  // the writer may be another user of the group
  ZTRACE(5, "ReaderKickListener() registered " << path_);
}

ReaderKickListener::~ReaderKickListener() {
  ::unlink(path_.c_str());
  ::close(fd_);
}

uint32_t ReaderKickListener::drain() {
  uint32_t kicks = 0;
  char byte;
  while (::recv(fd_, &byte, sizeof(byte), MSG_DONTWAIT) >= 0) ++kicks;
  return kicks;
}

bool ReaderKickListener::wait(int timeoutMs) const {
  pollfd pfd{fd_, POLLIN, 0};
  int rc;
  do {
    rc = ::poll(&pfd, 1, timeoutMs);
  } while (rc < 0 && errno == EINTR);
  return rc > 0;
}

ReaderKickSm::ReaderKickSm(const std::string& tableDir, Defer defer)
    : dir_(readersDir(tableDir)), defer_(std::move(defer)) {
  makeDir(tableDir);
  makeDir(dir_);
  sendFd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (sendFd_ < 0) throw Zinc::Exception("ReaderKickSm socket: " + errnoText(errno));
  // Watch before the first scan, so that no registration falls between the two.
  inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotifyFd_ >= 0 &&
      ::inotify_add_watch(inotifyFd_, dir_.c_str(), IN_CREATE | IN_DELETE | IN_MOVED_TO) < 0) {
    ::close(inotifyFd_);
    inotifyFd_ = -1;
  }
  if (inotifyFd_ < 0) ZTRACE(0, "ReaderKickSm() no inotify, rescanning on every kick");
  rescan();
}

ReaderKickSm::~ReaderKickSm() {
  *alive_ = false;
  if (inotifyFd_ >= 0) ::close(inotifyFd_);
  ::close(sendFd_);
}

void ReaderKickSm::commitNotify() {
  pending_ = true;
  if (!defer_ || flushScheduled_) return;
  flushScheduled_ = true;
  defer_([this, alive = alive_] {
    if (!*alive) return;
    flushScheduled_ = false;
    flush();
  });
}

uint32_t ReaderKickSm::flush() {
  if (!pending_) return 0;
  pending_ = false;
  refreshIfChanged();
  uint32_t kicked = 0;
  for (size_t i = 0; i < readers_.size();) {
    if (kick(readers_[i])) {
      ++kicked;
      ++i;
      continue;
    }
    ++readersDropped_;
    readers_[i] = std::move(readers_.back());
    readers_.pop_back();
  }
  kicksSent_ += kicked;
  return kicked;
}

void ReaderKickSm::refreshIfChanged() {
  if (inotifyFd_ < 0) return rescan();
  alignas(inotify_event) char events[4096];
  bool changed = false;
  while (::read(inotifyFd_, events, sizeof(events)) > 0) changed = true;
  if (changed) rescan();
}

void ReaderKickSm::rescan() {
  readers_.clear();
  DIR* dir = ::opendir(dir_.c_str());
  if (!dir) return;
  while (dirent* entry = ::readdir(dir)) {
    if (isSocketName(entry->d_name)) readers_.push_back(dir_ + "/" + entry->d_name);
  }
  ::closedir(dir);
}

// One empty datagram, never waiting. False when the reader is gone: its registration is
// unlinked so that no later kick (from this or another writer) pays for it again.
bool ReaderKickSm::kick(const std::string& path) {
  sockaddr_un addr;
  if (!fillAddress(path, addr)) return false;
  ssize_t sent = ::sendto(sendFd_, "", 0, MSG_DONTWAIT | MSG_NOSIGNAL,
                          reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  if (sent >= 0 || errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS) return true;
  ZTRACE(1, "ReaderKickSm::kick() dropping reader " << path << ": " << errnoText(errno));
  ::unlink(path.c_str());
  return false;
}

}  // namespace Mem
