#include "platform/shm/ReaderKick.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
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

constexpr char kAckMagic[8] = {'L', 'E', 'D', 'G', 'R', 'A', 'C', 'K'};
constexpr uint32_t kAckVersion = 1;

std::string ackPathOf(const std::string& socketPath) {
  return socketPath.substr(0, socketPath.size() - 5) + ".ack";
}

// A registration name is "<pid>-<n>": nothing that could lead out of the readers folder.
bool validReaderName(const std::string& name) {
  if (name.empty() || name.size() > 64) return false;
  for (char c : name) {
    if (!(c >= '0' && c <= '9') && c != '-') return false;
  }
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
  name_ = std::to_string(::getpid()) + "-" + std::to_string(listenerCount.fetch_add(1));
  path_ = readersDir(tableDir) + "/" + name_ + ".sock";
  ackPath_ = ackPathOf(path_);
  openAckRecord();
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
    ::munmap(ack_, sizeof(ReaderAck));
    ::close(ackFd_);
    ::unlink(ackPath_.c_str());
    throw Zinc::Exception("ReaderKickListener cannot bind " + path_ + ": " + errnoText(err));
  }
  ::chmod(path_.c_str(), 0620);  // the writer may be another user of the group
  ZTRACE(5, "ReaderKickListener() registered " << path_);
}

ReaderKickListener::~ReaderKickListener() {
  ::unlink(path_.c_str());
  ::close(fd_);
  ::unlink(ackPath_.c_str());
  ::munmap(ack_, sizeof(ReaderAck));
  ::close(ackFd_);  // drops the flock
}

// Made fresh (a dead process with our pid may have left one), locked shared for our lifetime,
// and mapped for plain stores.
void ReaderKickListener::openAckRecord() {
  ::unlink(ackPath_.c_str());
  ackFd_ = ::open(ackPath_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640);
  void* at = MAP_FAILED;
  if (ackFd_ >= 0 && ::flock(ackFd_, LOCK_SH) == 0 && ::ftruncate(ackFd_, sizeof(ReaderAck)) == 0) {
    at = ::mmap(nullptr, sizeof(ReaderAck), PROT_READ | PROT_WRITE, MAP_SHARED, ackFd_, 0);
  }
  if (at == MAP_FAILED) {
    int err = errno;
    if (ackFd_ >= 0) ::close(ackFd_);
    ::unlink(ackPath_.c_str());
    throw Zinc::Exception("ReaderKickListener cannot make " + ackPath_ + ": " + errnoText(err));
  }
  ack_ = static_cast<ReaderAck*>(at);
  ack_->version = kAckVersion;
  ack_->pid = uint32_t(::getpid());
  std::atomic_ref<uint64_t>(ack_->consumed).store(kNotInStep, std::memory_order_relaxed);
  // Release: the record is whole before its magic says so.
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(ack_->magic, kAckMagic, sizeof(kAckMagic));
}

void ReaderKickListener::acknowledge(uint64_t consumed) {
  // Release: whoever reads this sequence also sees what this reader did before consuming it.
  std::atomic_ref<uint64_t>(ack_->consumed).store(consumed, std::memory_order_release);
}

uint64_t ReaderKickListener::acknowledged() const {
  return std::atomic_ref<uint64_t>(ack_->consumed).load(std::memory_order_relaxed);
}

// A record nobody holds locked belongs to a dead reader; a live one's is locked shared.
std::optional<uint64_t> readerConsumed(const std::string& tableDir, const std::string& name) {
  if (!validReaderName(name)) return std::nullopt;
  const std::string path = readersDir(tableDir) + "/" + name + ".ack";
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  std::optional<uint64_t> consumed;
  struct stat st;
  void* at = MAP_FAILED;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= off_t(sizeof(ReaderAck))) {
    at = ::mmap(nullptr, sizeof(ReaderAck), PROT_READ, MAP_SHARED, fd, 0);
  }
  const bool alive = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  if (at != MAP_FAILED) {
    const auto* record = static_cast<const ReaderAck*>(at);
    const bool wellFormed = std::memcmp(record->magic, kAckMagic, sizeof(kAckMagic)) == 0 &&
                            record->version == kAckVersion;
    // Acquire: pairs with the reader's release store of the sequence.
    const uint64_t seq = std::atomic_ref<uint64_t>(const_cast<uint64_t&>(record->consumed))
                             .load(std::memory_order_acquire);
    if (alive && wellFormed) consumed = seq;
    ::munmap(at, sizeof(ReaderAck));
  }
  ::close(fd);  // drops the lock if we took it
  return consumed;
}

uint32_t ReaderKickListener::drain() {
  // Up to kBatch kicks a call: one call when, as usual, a handful are waiting.
  constexpr unsigned kBatch = 64;
  mmsghdr messages[kBatch] = {};
  uint32_t kicks = 0;
  for (;;) {
    int n = ::recvmmsg(fd_, messages, kBatch, MSG_DONTWAIT, nullptr);
    if (n <= 0) return kicks;
    kicks += uint32_t(n);
    if (unsigned(n) < kBatch) return kicks;
  }
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
  for (auto& reader : readers_) closeFd(reader);
  if (inotifyFd_ >= 0) ::close(inotifyFd_);
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
    closeFd(readers_[i]);
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
  std::vector<Registration> found;
  if (DIR* dir = ::opendir(dir_.c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      if (isSocketName(entry->d_name)) found.push_back({dir_ + "/" + entry->d_name, -1});
    }
    ::closedir(dir);
  }
  // Keep the connections of readers still registered; close the others'.
  for (auto& old : readers_) {
    for (auto& now : found) {
      if (now.path == old.path && now.fd < 0) std::swap(now.fd, old.fd);
    }
    closeFd(old);
  }
  readers_ = std::move(found);
}

int ReaderKickSm::connectTo(const std::string& path) {
  sockaddr_un addr;
  if (!fillAddress(path, addr)) return -1;
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

void ReaderKickSm::closeFd(Registration& reader) {
  if (reader.fd >= 0) ::close(reader.fd);
  reader.fd = -1;
}

// One empty datagram, never waiting. A failed send is tried once more on a fresh connection
// (the path may have been bound anew); false when the reader is gone: its registration is
// unlinked so that no later kick (from this or another writer) pays for it again.
bool ReaderKickSm::kick(Registration& reader) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (reader.fd < 0) reader.fd = connectTo(reader.path);
    if (reader.fd < 0) break;
    if (::send(reader.fd, "", 0, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 || errno == EAGAIN ||
        errno == EWOULDBLOCK || errno == ENOBUFS) {
      return true;
    }
    closeFd(reader);
  }
  ZTRACE(1, "ReaderKickSm::kick() dropping reader " << reader.path << ": " << errnoText(errno));
  ::unlink(reader.path.c_str());
  ::unlink(ackPathOf(reader.path).c_str());
  return false;
}

}  // namespace Mem
