// Wake-ups from a table's writer to its readers in other processes.
//
// Every attached reader owns a unix datagram socket bound to
//   <tableDir>/readers/<pid>-<n>.sock
// and an eventfd. An idle reader blocks in epoll (its notification loop) on both and costs no
// CPU. The writer (ReaderKickSm) marks a commit with commitNotify() and, at most once per loop
// iteration, kicks every registered reader once. Kicks never block.
//
// A kick is first an empty datagram on the reader's socket. The reader answers the first
// datagram of each writer with a handover: its eventfd and a pidfd of its own process, passed
// with SCM_RIGHTS to the writer's (autobound) socket. From then on that writer kicks with an
// 8-byte write to the eventfd, which wakes the reader as fast as the kernel wakes anything,
// and watches the pidfd: a reader that dies is dropped at the writer's next flush, which
// costs it one write to an eventfd nobody reads. A reader that never answers stays on datagrams; a
// socket nobody listens on any more (ECONNREFUSED, ENOENT) is unlinked and forgotten on the first
// failed kick. Either way a dead reader costs the writer nothing. A kick that fails for any other
// reason (the writer out of descriptors or memory, say) proves nothing about the reader: it stays
// registered and is kicked again at the next flush.
//
// The writer learns of new and removed registrations through inotify on the readers folder.
// A non-blocking epoll_wait per flush, repeated while it comes back full, tells it all that
// changed since the last one (registrations, handovers, readers gone); then a kick costs one
// write or send per reader: no directory scan and no path lookup.
//
// Beside its socket every reader keeps an acknowledgement record, <pid>-<n>.ack, in which it
// publishes the last change sequence it has consumed (ReaderAck below). The reader's name is
// the registration's, <pid>-<n>. The reader holds a shared flock on the record for as long as
// it lives, so that the writer can tell a live reader's record from one a dead reader left.
#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Zinc {
class Loop;
}

namespace Mem {

// The folder under a table's folder in which readers register.
std::string readersDir(const std::string& tableDir);

// The acknowledgement record, a 64-byte file written by its reader only:
//   char     magic[8]    "LEDGRACK"
//   uint32_t version     1
//   uint32_t pid         the reader's
//   uint64_t consumed    last sequence consumed, or kNotInStep; one aligned 64-bit store
//   uint64_t reserved[5]
struct ReaderAck {
  char magic[8];
  uint32_t version;
  uint32_t pid;
  uint64_t consumed;
  uint64_t reserved[5];
};
static_assert(sizeof(ReaderAck) == 64);
// What a reader that is not following the writer (still syncing) publishes.
inline constexpr uint64_t kNotInStep = ~uint64_t{0};

// The sequence that reader `name` (a registration name, "<pid>-<n>") of the table in
// `tableDir` has consumed; nothing when there is no such reader, it is dead, or its record is
// not well formed. The record is untrusted: its size, magic and version are checked.
std::optional<uint64_t> readerConsumed(const std::string& tableDir, const std::string& name);

// Sends a one-byte handover carrying two descriptors (SCM_RIGHTS) from `sock` to `to`: the
// reader's eventfd and pidfd. Returns sendmsg's result (errno set on failure).
ssize_t sendDescriptorPair(int sock, const sockaddr_un& to, socklen_t length, const int (&fds)[2],
                           int flags);

// Reader side: one registration, removed when destroyed. On a notification loop, watchOn()
// does all there is to do. Without one, wait for either fd() or eventFd() to be readable and
// call drain(): it consumes every pending kick and answers writers with the handover. Many
// kicks coalesce into one wake-up.
class ReaderKickListener {
 public:
  // Creates <tableDir>/readers if needed and binds a fresh socket there. Throws
  // Zinc::Exception with the reason when the folder, record or socket cannot be made, and then
  // leaves no file, descriptor or mapping of its own behind.
  explicit ReaderKickListener(const std::string& tableDir);
  ReaderKickListener(const ReaderKickListener&) = delete;
  ReaderKickListener& operator=(const ReaderKickListener&) = delete;
  ~ReaderKickListener() = default;

  // The datagram socket.
  int fd() const { return fd_.get(); }
  // The eventfd handed to writers; -1 when this system offers none (datagrams only).
  int eventFd() const { return eventFd_.get(); }
  const std::string& path() const { return path_; }
  // The registration's name, "<pid>-<n>", by which the writer asks about this reader.
  const std::string& name() const { return name_; }
  // Publishes the last sequence consumed (kNotInStep while not following the writer).
  void acknowledge(uint64_t consumed);
  uint64_t acknowledged() const;
  // Runs `onKick` on `loop` after every kick, by either path; the kicks are consumed (the
  // eventfd is watched edge-triggered: never read, it costs no system call). unwatch() before
  // this listener or the loop goes.
  void watchOn(Zinc::Loop& loop, std::function<void()> onKick);
  void unwatch(Zinc::Loop& loop);
  // Consumes all pending kicks of both kinds without blocking; returns how many there were.
  uint32_t drain() { return drainSocket() + drainEvents(); }
  // Consumes the pending datagrams, answering every writer that sent one with the handover.
  uint32_t drainSocket();
  // Consumes the eventfd's kicks.
  uint32_t drainEvents();
  // Blocks until a kick arrives or timeoutMs passes (-1: forever); true when kicked. For
  // programs and tests without a notification loop. Does not drain.
  bool wait(int timeoutMs) const;
  uint64_t handoversSent() const { return handoversSent_; }

 private:
  // Owners of what the listener makes, each undone when it goes; members, so that a
  // constructor that throws half way undoes what it made so far.
  class OwnedFd {
   public:
    OwnedFd() = default;
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() { reset(); }
    int get() const { return fd_; }
    void reset(int fd = -1);

   private:
    int fd_ = -1;
  };
  // A file this listener made: unlinked.
  class OwnedFile {
   public:
    OwnedFile() = default;
    OwnedFile(const OwnedFile&) = delete;
    OwnedFile& operator=(const OwnedFile&) = delete;
    ~OwnedFile();
    void own(const std::string& path) { path_ = path; }

   private:
    std::string path_;
  };
  // The acknowledgement record's mapping: unmapped.
  class AckMapping {
   public:
    AckMapping() = default;
    AckMapping(const AckMapping&) = delete;
    AckMapping& operator=(const AckMapping&) = delete;
    ~AckMapping();
    void own(void* at) { at_ = static_cast<ReaderAck*>(at); }
    ReaderAck* operator->() const { return at_; }

   private:
    ReaderAck* at_ = nullptr;
  };

  void openSocket(const sockaddr_un& addr);
  void openAckRecord();
  void openEventFd();
  void handOverTo(const sockaddr_un& writer, socklen_t length);

  std::string name_;
  std::string path_;
  std::string ackPath_;
  // Undone in the reverse order: the registration goes first, the record's lock last.
  OwnedFd ackFd_;  // holds the record's shared flock
  AckMapping ack_;
  OwnedFile ackFile_;
  OwnedFd pidFd_;
  OwnedFd eventFd_;
  OwnedFd fd_;
  OwnedFile socketFile_;
  uint64_t handoversSent_ = 0;
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
  // Kicks every registered reader once if a commit is pending; returns the readers kicked
  // (that are still registered when it returns).
  uint32_t flush();

  uint32_t readers() const { return uint32_t(readers_.size()); }
  // Registered readers whose eventfd this writer holds (kicked without a datagram).
  uint32_t readersHandedOver() const;
  uint64_t kicksSent() const { return kicksSent_; }
  uint64_t readersDropped() const { return readersDropped_; }

 private:
  // How a kick went: sent, failed for a reason that says nothing of the reader (tried again
  // at the next flush), or found nobody listening (the reader is gone).
  enum class Kicked : uint8_t { sent, notNow, gone };
  // A registered reader: the datagram socket connected to it (-1 until connected), and once
  // it handed them over, its eventfd and the pidfd of its process (-1 until then).
  struct Registration {
    std::string path;
    int fd = -1;
    int eventFd = -1;
    int pidFd = -1;
    uint64_t kickedIn = 0;         // the last flush that tried to kick it
    Kicked kicked = Kicked::sent;  // how that went
  };
  // What an epoll event of pollFd_ is about.
  enum class Watch : uint32_t { registrations, handover, exit };
  void kickAll();
  bool pollChanges();
  bool takeEvent(const epoll_event& event);
  void watch(int fd, Watch what);
  bool refreshIfChanged();
  bool rescan();
  Registration* findByFd(int fd, Watch what);
  void takeHandover(Registration& reader);
  Kicked kick(Registration& reader);
  Kicked sendKick(Registration& reader);
  void drop(size_t index);
  int connectTo(const std::string& path);
  void closeFds(Registration& reader);
  void closeHandover(Registration& reader);
  void unwatchAndClose(int& fd);

  std::string dir_;
  Defer defer_;
  int pollFd_ = -1;
  int inotifyFd_ = -1;
  bool pending_ = false;
  bool flushScheduled_ = false;
  bool rescanOwed_ = false;  // the readers folder could not be read when it changed
  uint64_t flushes_ = 0;
  std::vector<Registration> readers_;
  uint64_t kicksSent_ = 0;
  uint64_t readersDropped_ = 0;
  // Guards the deferred flush against running after this object is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Mem
