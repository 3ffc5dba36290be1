#include "platform/shm/MappingGuard.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

namespace SharedMem::MappingGuard {

namespace {

// A guarded range; `begin` 0 marks a free entry. `end` is published before `begin`.
struct Range {
  std::atomic<uintptr_t> begin{0};
  std::atomic<uintptr_t> end{0};
};
static_assert(std::atomic<uintptr_t>::is_always_lock_free);

constexpr size_t kRanges = 4096;
Range ranges[kRanges];
std::atomic<uint64_t> zeroed{0};
uintptr_t pageSize = 4096;  // the system's, taken when the handler is installed
struct sigaction previous;
std::once_flag installed;

bool guarded(uintptr_t address) {
  for (const Range& r : ranges) {
    const uintptr_t begin = r.begin.load(std::memory_order_acquire);
    if (begin != 0 && address >= begin && address < r.end.load(std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

// What SIGBUS did before the guard: its handler, or the default action once the guard's own
// is out of the way (the fault happens again on return from here).
void passOn(int sig, siginfo_t* info, void* context) {
  if (previous.sa_flags & SA_SIGINFO) {
    previous.sa_sigaction(sig, info, context);
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(sig);
  } else {
    ::signal(SIGBUS, SIG_DFL);
  }
}

void onBus(int sig, siginfo_t* info, void* context) {
  // BUS_ADRERR: the page has no backing any more (beyond the end of its file).
  const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
  if (info->si_code != BUS_ADRERR || !guarded(address)) return passOn(sig, info, context);
  void* at = reinterpret_cast<void*>(address & ~(pageSize - 1));
  // mmap is a plain system call, safe here; the page reads as zeros from now on. The
  // interrupted code's errno is left as it was.
  const int savedErrno = errno;
  const bool zeroedPage =
      ::mmap(at, pageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED;
  errno = savedErrno;
  if (!zeroedPage) return passOn(sig, info, context);
  zeroed.fetch_add(1, std::memory_order_relaxed);
}

void install() {
  pageSize = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
  struct sigaction action {};
  action.sa_sigaction = onBus;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGBUS, &action, &previous);
}

}  // namespace

void watch(const void* base, size_t length) {
  if (!base || length == 0) return;
  std::call_once(installed, install);
  const auto begin = reinterpret_cast<uintptr_t>(base);
  for (Range& r : ranges) {
    uintptr_t free = 0;
    // Claimed with a bound no address reaches, then opened: the handler never sees a
    // half-made range.
    if (r.begin.compare_exchange_strong(free, UINTPTR_MAX, std::memory_order_acq_rel)) {
      r.end.store(begin + length, std::memory_order_relaxed);
      r.begin.store(begin, std::memory_order_release);
      return;
    }
  }
}

void forget(const void* base) {
  const auto begin = reinterpret_cast<uintptr_t>(base);
  if (begin == 0) return;
  for (Range& r : ranges) {
    if (r.begin.load(std::memory_order_relaxed) == begin) {
      r.begin.store(0, std::memory_order_release);
      return;
    }
  }
}

uint64_t pagesZeroed() { return zeroed.load(std::memory_order_relaxed); }

}  // namespace SharedMem::MappingGuard
