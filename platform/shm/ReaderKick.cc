#include "platform/shm/ReaderKick.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string_view>

#include "platform/shm/EmberFile.h"
#include "platform/shm/MappingGuard.h"
#include "zinc/Exception.h"
#include "zinc/Loop.h"
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

void closeIfOpen(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

// What a reader hands over must be what it claims to be: a non-blocking eventfd (a write to
// anything else could block the writer) and a pidfd (EPERM: one of another user's process).
bool isEventFd(int fd) {
  char link[64];
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = ::readlink(path.c_str(), link, sizeof(link));
  constexpr std::string_view kEventFd = "anon_inode:[eventfd]";
  if (n != ssize_t(kEventFd.size()) || std::string_view(link, size_t(n)) != kEventFd) return false;
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}
bool isPidFd(int fd) {
  return ::syscall(SYS_pidfd_send_signal, fd, 0, nullptr, 0) == 0 || errno == EPERM;
}

// The descriptors passed with SCM_RIGHTS in `msg`, at most `max` (any beyond are closed).
size_t receivedFds(msghdr& msg, int* fds, size_t max) {
  size_t count = 0;
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    const size_t n = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < n; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
      if (count < max) {
        fds[count++] = fd;
      } else {
        ::close(fd);
      }
    }
  }
  return count;
}

// An epoll event's data: what it is about and the fd.
uint64_t watchData(uint32_t what, int fd) { return (uint64_t{what} << 32) | uint32_t(fd); }

// The record's page is taken when the file is made: on a file system that is full, an error
// here rather than SIGBUS at the first store through the mapping.
bool sizeAckRecord(int fd) { return SharedMem::EmberFile::takePages(fd, 0, sizeof(ReaderAck)); }

}  // namespace

std::string readersDir(const std::string& tableDir) { return tableDir + "/readers"; }

// The socket's path is checked before anything is made; whatever is made before a later step
// fails is undone by its owner (a member) as the exception leaves.
ReaderKickListener::ReaderKickListener(const std::string& tableDir) {
  name_ = std::to_string(::getpid()) + "-" + std::to_string(listenerCount.fetch_add(1));
  path_ = readersDir(tableDir) + "/" + name_ + ".sock";
  ackPath_ = ackPathOf(path_);
  sockaddr_un addr;
  if (!fillAddress(path_, addr)) {
    throw Zinc::Exception("ReaderKickListener path too long for a socket: " + path_);
  }
  makeDir(tableDir);
  makeDir(readersDir(tableDir));
  openAckRecord();
  openSocket(addr);
  openEventFd();
  ZTRACE(5, "ReaderKickListener() registered " << path_);
}

void ReaderKickListener::OwnedFd::reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

ReaderKickListener::OwnedFile::~OwnedFile() {
  if (!path_.empty()) ::unlink(path_.c_str());
}

ReaderKickListener::AckMapping::~AckMapping() {
  if (at_) ::munmap(at_, sizeof(ReaderAck));
}

// Bound after the record is made: a writer that finds the registration finds the record.
void ReaderKickListener::openSocket(const sockaddr_un& addr) {
  fd_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd_.get() < 0) throw Zinc::Exception("ReaderKickListener socket: " + errnoText(errno));
  ::unlink(path_.c_str());  // a registration left by a dead process that had our pid
  if (::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int err = errno;
    throw Zinc::Exception("ReaderKickListener cannot bind " + path_ + ": " + errnoText(err));
  }
  socketFile_.own(path_);
  ::chmod(path_.c_str(), 0620);  // the writer may be another user of the group
}

// Made fresh (a dead process with our pid may have left one), locked shared for our lifetime,
// and mapped for plain stores.
void ReaderKickListener::openAckRecord() {
  ::unlink(ackPath_.c_str());
  ackFd_.reset(::open(ackPath_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640));
  const int fd = ackFd_.get();
  if (fd >= 0) ackFile_.own(ackPath_);
  void* at = MAP_FAILED;
  if (fd >= 0 && ::flock(fd, LOCK_SH) == 0 && sizeAckRecord(fd)) {
    at = ::mmap(nullptr, sizeof(ReaderAck), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  if (at == MAP_FAILED) {
    const int err = errno;
    throw Zinc::Exception("ReaderKickListener cannot make " + ackPath_ + ": " + errnoText(err));
  }
  ack_.own(at);
  ack_->version = kAckVersion;
  ack_->pid = uint32_t(::getpid());
  std::atomic_ref<uint64_t>(ack_->consumed).store(kNotInStep, std::memory_order_relaxed);
  // Release: the record is whole before its magic says so.
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(ack_->magic, kAckMagic, sizeof(kAckMagic));
}

// Both or neither: without them writers keep kicking by datagram.
void ReaderKickListener::openEventFd() {
  eventFd_.reset(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  pidFd_.reset(int(::syscall(SYS_pidfd_open, ::getpid(), 0)));
  if (eventFd_.get() >= 0 && pidFd_.get() >= 0) return;
  ZTRACE(1, "ReaderKickListener() no eventfd or pidfd, kicked by datagram: " << errnoText(errno));
  eventFd_.reset();
  pidFd_.reset();
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
  // Any process that can open the record can cut it short under the mapping.
  if (at != MAP_FAILED) SharedMem::MappingGuard::watch(at, sizeof(ReaderAck));
  const bool alive = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  if (at != MAP_FAILED) {
    const auto* record = static_cast<const ReaderAck*>(at);
    const bool wellFormed = std::memcmp(record->magic, kAckMagic, sizeof(kAckMagic)) == 0 &&
                            record->version == kAckVersion;
    // Acquire: pairs with the reader's release store of the sequence.
    const uint64_t seq = std::atomic_ref<uint64_t>(const_cast<uint64_t&>(record->consumed))
                             .load(std::memory_order_acquire);
    if (alive && wellFormed) consumed = seq;
    SharedMem::MappingGuard::forget(at);
    ::munmap(at, sizeof(ReaderAck));
  }
  ::close(fd);  // drops the lock if we took it
  return consumed;
}

uint32_t ReaderKickListener::drainSocket() {
  // Up to kBatch kicks a call: one call when, as usual, a handful are waiting.
  constexpr unsigned kBatch = 64;
  mmsghdr messages[kBatch];
  sockaddr_un senders[kBatch];
  uint32_t kicks = 0;
  for (;;) {
    std::memset(messages, 0, sizeof(messages));
    for (unsigned i = 0; i < kBatch; ++i) {
      messages[i].msg_hdr.msg_name = &senders[i];
      messages[i].msg_hdr.msg_namelen = sizeof(senders[i]);
    }
    int n = ::recvmmsg(fd(), messages, kBatch, MSG_DONTWAIT, nullptr);
    if (n <= 0) return kicks;
    kicks += uint32_t(n);
    // Every writer heard from gets the handover once per batch; it stops sending datagrams
    // once it has it.
    for (int i = 0; i < n && eventFd() >= 0; ++i) {
      const socklen_t length = messages[i].msg_hdr.msg_namelen;
      if (length <= sizeof(sa_family_t) || length > sizeof(sockaddr_un)) continue;
      bool answered = false;
      for (int j = 0; j < i && !answered; ++j) {
        answered = messages[j].msg_hdr.msg_namelen == length &&
                   std::memcmp(&senders[j], &senders[i], length) == 0;
      }
      if (!answered) handOverTo(senders[i], length);
    }
    if (unsigned(n) < kBatch) return kicks;
  }
}

ssize_t sendDescriptorPair(int sock, const sockaddr_un& to, socklen_t length, const int (&fds)[2],
                           int flags) {
  char tag = 'H';
  iovec iov{&tag, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};
  msghdr msg{};
  msg.msg_name = const_cast<sockaddr_un*>(&to);
  msg.msg_namelen = length;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof(control);
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  c->cmsg_len = CMSG_LEN(2 * sizeof(int));
  std::memcpy(CMSG_DATA(c), fds, sizeof(fds));
  return ::sendmsg(sock, &msg, flags);
}

// The eventfd and the pidfd, to the writer's socket; never waiting. Lost answers are harmless:
// the writer kicks by datagram until one arrives, and every datagram is answered.
void ReaderKickListener::handOverTo(const sockaddr_un& writer, socklen_t length) {
  const int fds[2] = {eventFd(), pidFd_.get()};
  if (sendDescriptorPair(fd(), writer, length, fds, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
    ++handoversSent_;
  } else {
    ZTRACE(5, "ReaderKickListener::handOverTo() " << errnoText(errno));
  }
}

void ReaderKickListener::watchOn(Zinc::Loop& loop, std::function<void()> onKick) {
  if (eventFd() >= 0) {
    loop.fdWatchIs(
        eventFd(), [onKick](uint32_t) { onKick(); },
        Zinc::Loop::readable | Zinc::Loop::edgeTriggered);
  }
  loop.fdWatchIs(fd(), [this, onKick = std::move(onKick)](uint32_t) {
    drainSocket();
    onKick();
  });
}

void ReaderKickListener::unwatch(Zinc::Loop& loop) {
  loop.fdWatchDel(fd());
  if (eventFd() >= 0) loop.fdWatchDel(eventFd());
}

uint32_t ReaderKickListener::drainEvents() {
  uint64_t count = 0;
  if (eventFd() < 0 || ::read(eventFd(), &count, sizeof(count)) != sizeof(count)) return 0;
  return uint32_t(std::min<uint64_t>(count, UINT32_MAX));
}

bool ReaderKickListener::wait(int timeoutMs) const {
  pollfd pfds[2] = {{fd(), POLLIN, 0}, {eventFd(), POLLIN, 0}};
  int rc;
  do {
    rc = ::poll(pfds, eventFd() >= 0 ? 2 : 1, timeoutMs);
  } while (rc < 0 && errno == EINTR);
  return rc > 0;
}

ReaderKickSm::ReaderKickSm(const std::string& tableDir, Defer defer)
    : dir_(readersDir(tableDir)), defer_(std::move(defer)) {
  makeDir(tableDir);
  makeDir(dir_);
  pollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (pollFd_ < 0) throw Zinc::Exception("ReaderKickSm epoll: " + errnoText(errno));
  // Watch before the first scan, so that no registration falls between the two.
  inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotifyFd_ >= 0 &&
      ::inotify_add_watch(inotifyFd_, dir_.c_str(), IN_CREATE | IN_DELETE | IN_MOVED_TO) < 0) {
    closeIfOpen(inotifyFd_);
  }
  if (inotifyFd_ < 0) {
    ZTRACE(0, "ReaderKickSm() no inotify, rescanning on every kick");
  } else {
    watch(inotifyFd_, Watch::registrations);
  }
  rescanOwed_ = !rescan();
}

// A commit not announced yet is announced now: the flush deferred to the loop will find this
// kicker gone (its writer went in the same loop turn as its last changes).
ReaderKickSm::~ReaderKickSm() {
  flush();
  *alive_ = false;
  for (auto& reader : readers_) closeFds(reader);
  closeIfOpen(inotifyFd_);
  closeIfOpen(pollFd_);
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

// Kicks first, with what is known, so that the readers' wake-ups are under way while the
// writer looks at what changed since the last flush; readers that the look finds registered
// get theirs after it. A reader whose kick found it gone is dropped after the look, unless the
// look found it unregistered (a clean detach). A reader that the look finds exited is dropped
// there: the one write it cost, to an eventfd nobody reads any more, is the last.
uint32_t ReaderKickSm::flush() {
  if (!pending_) return 0;
  pending_ = false;
  ++flushes_;
  kickAll();
  if (pollChanges()) kickAll();
  for (size_t i = 0; i < readers_.size();) {
    if (readers_[i].kicked == Kicked::gone) {
      drop(i);
    } else {
      ++i;
    }
  }
  const auto kicked = uint32_t(std::count_if(readers_.begin(), readers_.end(), [&](auto& r) {
    return r.kickedIn == flushes_ && r.kicked == Kicked::sent;
  }));
  kicksSent_ += kicked;
  return kicked;
}

// Every reader not tried in this flush yet.
void ReaderKickSm::kickAll() {
  for (auto& reader : readers_) {
    if (reader.kickedIn == flushes_) continue;
    reader.kickedIn = flushes_;
    reader.kicked = kick(reader);
  }
}

uint32_t ReaderKickSm::readersHandedOver() const {
  return uint32_t(std::count_if(readers_.begin(), readers_.end(),
                                [](const Registration& r) { return r.eventFd >= 0; }));
}

void ReaderKickSm::watch(int fd, Watch what) {
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = watchData(uint32_t(what), fd);
  if (::epoll_ctl(pollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
    ZTRACE(0, "ReaderKickSm::watch() " << fd << ": " << errnoText(errno));
  }
}

// A look, never waiting, at everything that happened since the last flush: registrations
// made or removed, handovers received, readers that exited. Many handovers or exits at once
// fill a batch of events and may hide the registrations' behind them: the look goes on while
// batches come back full, and past kMaxBatches reads the registrations' inotify fd anyway.
// True when the registrations were read anew.
bool ReaderKickSm::pollChanges() {
  constexpr int kBatch = 64;
  constexpr int kMaxBatches = 16;
  bool changed = inotifyFd_ < 0 || rescanOwed_;
  int n = kBatch;
  for (int batch = 0; batch < kMaxBatches && n == kBatch; ++batch) {
    epoll_event events[kBatch];
    n = ::epoll_wait(pollFd_, events, kBatch, 0);
    for (int i = 0; i < n; ++i) changed |= takeEvent(events[i]);
  }
  return (changed || n == kBatch) && refreshIfChanged();
}

// True when the event is about the registrations.
bool ReaderKickSm::takeEvent(const epoll_event& event) {
  const int fd = int(uint32_t(event.data.u64));
  const auto what = Watch(event.data.u64 >> 32);
  if (what == Watch::registrations) return true;
  Registration* reader = findByFd(fd, what);
  if (reader && what == Watch::handover) {
    takeHandover(*reader);
  } else if (reader) {
    // The fd may be another reader's by now (closed and reused within this batch).
    pollfd exited{fd, POLLIN, 0};
    if (::poll(&exited, 1, 0) == 1) drop(size_t(reader - readers_.data()));
  }
  return false;
}

bool ReaderKickSm::refreshIfChanged() {
  alignas(inotify_event) char events[4096];
  bool changed = inotifyFd_ < 0 || rescanOwed_;
  while (inotifyFd_ >= 0 && ::read(inotifyFd_, events, sizeof(events)) > 0) changed = true;
  if (changed) rescanOwed_ = !rescan();
  return changed && !rescanOwed_;
}

ReaderKickSm::Registration* ReaderKickSm::findByFd(int fd, Watch what) {
  for (auto& reader : readers_) {
    if ((what == Watch::handover ? reader.fd : reader.pidFd) == fd) return &reader;
  }
  return nullptr;
}

// False when the folder cannot be read (no descriptor left, say): the registrations known are
// kept, and the folder read again at the next flush.
bool ReaderKickSm::rescan() {
  DIR* dir = ::opendir(dir_.c_str());
  if (!dir) {
    const int why = errno;
    ZTRACE(0, "ReaderKickSm::rescan() cannot read "
                  << dir_ << ", trying again at the next flush: " << errnoText(why));
    return false;
  }
  std::vector<Registration> found;
  while (dirent* entry = ::readdir(dir)) {
    if (isSocketName(entry->d_name)) found.push_back({dir_ + "/" + entry->d_name});
  }
  ::closedir(dir);
  // Keep the connections (and handovers) of readers still registered; close the others'.
  for (auto& old : readers_) {
    for (auto& now : found) {
      if (now.path == old.path) {
        std::swap(now, old);
        break;
      }
    }
    closeFds(old);
  }
  readers_ = std::move(found);
  return true;
}

// Datagrams from this socket carry its (autobound, abstract) address, to which the reader
// answers with its handover. On failure -1, with errno telling why.
int ReaderKickSm::connectTo(const std::string& path) {
  sockaddr_un addr;
  if (!fillAddress(path, addr)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un unnamed{};
  unnamed.sun_family = AF_UNIX;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&unnamed), sizeof(sa_family_t)) != 0 ||
      ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int err = errno;
    ::close(fd);
    errno = err;
    return -1;
  }
  watch(fd, Watch::handover);
  return fd;
}

// Everything the reader sent: a well-formed handover replaces the one held; anything else is
// closed and ignored.
void ReaderKickSm::takeHandover(Registration& reader) {
  for (;;) {
    char tag;
    iovec iov{&tag, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    if (::recvmsg(reader.fd, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) < 0) return;
    int fds[2];
    const size_t n = receivedFds(msg, fds, 2);
    if (n == 2 && isEventFd(fds[0]) && isPidFd(fds[1])) {
      closeHandover(reader);
      reader.eventFd = fds[0];
      reader.pidFd = fds[1];
      watch(reader.pidFd, Watch::exit);
      ZTRACE(5, "ReaderKickSm::takeHandover() kicking " << reader.path << " by eventfd");
      continue;
    }
    for (size_t i = 0; i < n; ++i) ::close(fds[i]);
  }
}

void ReaderKickSm::closeFds(Registration& reader) {
  unwatchAndClose(reader.fd);
  closeHandover(reader);
}

void ReaderKickSm::closeHandover(Registration& reader) {
  closeIfOpen(reader.eventFd);
  unwatchAndClose(reader.pidFd);
}

// Out of the poll set first: closing is not enough while another process still holds the
// same open file (a pidfd or socket it sent us), and an entry left behind would report its
// old events, under a number that may be reused, on every flush.
void ReaderKickSm::unwatchAndClose(int& fd) {
  if (fd >= 0) ::epoll_ctl(pollFd_, EPOLL_CTL_DEL, fd, nullptr);
  closeIfOpen(fd);
}

// The reader is gone: its registration and record are unlinked, so that no later kick (from
// this or another writer) pays for it again.
void ReaderKickSm::drop(size_t index) {
  Registration& reader = readers_[index];
  ZTRACE(1, "ReaderKickSm::drop() dropping reader " << reader.path);
  ++readersDropped_;
  ::unlink(reader.path.c_str());
  ::unlink(ackPathOf(reader.path).c_str());
  closeFds(reader);
  readers_[index] = std::move(readers_.back());
  readers_.pop_back();
}

// By eventfd when the reader handed one over, else one empty datagram; never waiting.
ReaderKickSm::Kicked ReaderKickSm::kick(Registration& reader) {
  if (reader.eventFd >= 0) {
    const uint64_t one = 1;
    if (::write(reader.eventFd, &one, sizeof(one)) == sizeof(one) || errno == EAGAIN) {
      return Kicked::sent;
    }
    closeHandover(reader);
  }
  return sendKick(reader);
}

// A failed send is tried once more on a fresh connection (the path may have been bound anew).
// Only a socket that is not there, or that nobody is bound to, proves the reader gone; any
// other failure (no descriptor or memory left here, no permission) keeps it for the next flush.
ReaderKickSm::Kicked ReaderKickSm::sendKick(Registration& reader) {
  int why = 0;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (reader.fd < 0) reader.fd = connectTo(reader.path);
    if (reader.fd < 0) {
      why = errno;
      break;
    }
    if (::send(reader.fd, "", 0, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 || errno == EAGAIN ||
        errno == EWOULDBLOCK || errno == ENOBUFS) {
      return Kicked::sent;
    }
    why = errno;
    // Out of the poll set too: a child forked since may hold the same socket open.
    unwatchAndClose(reader.fd);
  }
  if (why == ECONNREFUSED || why == ENOENT) {
    ZTRACE(1, "ReaderKickSm::kick() nobody listens at " << reader.path << ": " << errnoText(why));
    return Kicked::gone;
  }
  ZTRACE(0, "ReaderKickSm::kick() cannot kick "
                << reader.path << " now, trying again at the next flush: " << errnoText(why));
  return Kicked::notNow;
}

}  // namespace Mem
