#include "platform/shm/EmberFile.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <utility>

#include "platform/shm/MappingGuard.h"
#include "zinc/Hash.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("EmberFile")

// Linux's advice to build huge pages over a range now (from 6.1; older kernels refuse it with
// EINVAL). Libraries older than that kernel do not name it.
#ifndef MADV_COLLAPSE
#define MADV_COLLAPSE 25
#endif

namespace SharedMem {

namespace {

uint64_t identityOf(const struct stat& st) { return (uint64_t(st.st_dev) << 40) ^ st.st_ino; }

std::string joinPath(std::string_view a, std::string_view b) {
  std::string path(a);
  if (!path.empty() && path.back() != '/') path += '/';
  path += b;
  return path;
}

bool makeDirs(const std::string& dir, mode_t mode) {
  for (size_t pos = 1; pos <= dir.size(); ++pos) {
    if (pos != dir.size() && dir[pos] != '/') continue;
    std::string prefix = dir.substr(0, pos);
    if (::mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) return false;
  }
  return true;
}

size_t pageSize() {
  static const size_t size = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

// The size of a huge page, as the kernel says (2 MiB where it says nothing).
size_t hugePageSize() {
  static const size_t size = [] {
    size_t bytes = 0;
    if (FILE* f = std::fopen("/sys/kernel/mm/transparent_hugepage/hpage_pmd_size", "r")) {
      if (std::fscanf(f, "%zu", &bytes) != 1) bytes = 0;
      std::fclose(f);
    }
    return bytes >= 4096 && (bytes & (bytes - 1)) == 0 ? bytes : size_t{2} << 20;
  }();
  return size;
}

// Whether `at` starts a huge page: a file's huge pages map only at such addresses (the file's
// offset 0 being mapped there).
bool onHugePage(const void* at) { return reinterpret_cast<uintptr_t>(at) % hugePageSize() == 0; }

// An address range of `bytes` that starts on a huge page, reserved (no access, no memory) for a
// mapping to be placed over it: a file's huge pages map only at such an address. nullptr when
// there is no room.
void* reserveAligned(size_t bytes) {
  const size_t huge = hugePageSize();
  const size_t page = pageSize();
  const size_t span = (bytes + page - 1) / page * page;
  void* area =
      ::mmap(nullptr, span + huge, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (area == MAP_FAILED) return nullptr;
  const uintptr_t start = reinterpret_cast<uintptr_t>(area);
  const uintptr_t aligned = (start + huge - 1) / huge * huge;
  if (aligned > start) ::munmap(area, aligned - start);
  ::munmap(reinterpret_cast<void*>(aligned + span), start + huge - aligned);
  return reinterpret_cast<void*>(aligned);
}

// The offsets [first, second) of the huge pages that reserving [from, to) completes (none when
// first == second): every whole one within it, and the one that `from` falls in when the range
// reaches its end. Only that one is built from base pages already there, by copying them; each
// huge page is built once, by the reservation that completes it. A file that grows by small
// steps (a queue's chunks, a table doubling from a few pages) thus ends up in huge pages from
// its start, as one that grows by a huge page at a time does.
std::pair<size_t, size_t> hugePagesOf(size_t from, size_t to) {
  const size_t huge = hugePageSize();
  const size_t start = from / huge * huge;
  return {start, std::max(start, to / huge * huge)};
}

}  // namespace

std::string rootPath(std::string_view root) {
  if (!root.empty()) return std::string(root);
  if (const char* env = std::getenv("LEDGER_ROOT"); env && *env) return env;
  return "/dev/shm/ledger";
}

bool validName(std::string_view name) {
  return !name.empty() && name != "." && name.find('/') == std::string_view::npos &&
         name.find("..") == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

EmberFile::EmberFile(EmberFile&& other) noexcept { *this = std::move(other); }

EmberFile& EmberFile::operator=(EmberFile&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::exchange(other.fd_, -1);
    base_ = std::exchange(other.base_, nullptr);
    size_ = std::exchange(other.size_, 0);
    reserved_ = std::exchange(other.reserved_, 0);
    writable_ = other.writable_;
    created_ = other.created_;
    emberId_ = other.emberId_;
    path_ = std::move(other.path_);
    error_ = std::move(other.error_);
  }
  return *this;
}

EmberFile::~EmberFile() { close(); }

bool EmberFile::fail(const std::string& what) {
  error_ = what + " " + path_ + ": " + std::strerror(errno);
  ZTRACE(0, "EmberFile " << error_);
  return false;
}

bool EmberFile::open(std::string_view root, std::string_view table, std::string_view name,
                     Access access, bool create, Perm perm) {
  close();
  std::string rootDir = rootPath(root);
  path_ = joinPath(joinPath(rootDir, table), name);
  if (!validName(table) || !validName(name)) {
    error_ = "invalid table or file name: " + path_;
    return false;
  }
  writable_ = access == Access::ReadWrite;
  mode_t mode = static_cast<mode_t>(perm);
  if (create && !makeDirs(joinPath(rootDir, table), mode | 0100 | (mode & 040 ? 010 : 0))) {
    return fail("cannot create folder for");
  }
  // O_NONBLOCK: whatever sits at the path, opening it does not wait (a FIFO would, for a
  // process at its far end); what is no regular file is refused below. It changes nothing
  // for a regular file.
  int flags = (writable_ ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  fd_ = ::open(path_.c_str(), flags);
  created_ = false;
  if (fd_ < 0 && errno == ENOENT && create && writable_) {
    fd_ = ::open(path_.c_str(), flags | O_CREAT | O_EXCL, mode);
    created_ = fd_ >= 0;
    if (created_ && ::fchmod(fd_, mode) != 0) return fail("cannot set mode of");
  }
  if (fd_ < 0) return fail("cannot open");
  struct stat st;
  if (::fstat(fd_, &st) != 0) return fail("cannot stat");
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return fail("not a regular file:");
  }
  identity_ = identityOf(st);
  return mapLength(static_cast<size_t>(st.st_size));
}

uint64_t EmberFile::identityAt(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? identityOf(st) : 0;
}

void EmberFile::close() {
  if (base_) unmap();
  if (fd_ >= 0) ::close(fd_);
  base_ = nullptr;
  size_ = 0;
  reserved_ = 0;
  fd_ = -1;
  identity_ = 0;
}

size_t EmberFile::fileSize() const {
  struct stat st;
  if (fd_ < 0 || ::fstat(fd_, &st) != 0) return 0;
  return static_cast<size_t>(st.st_size);
}

bool EmberFile::mapLength(size_t bytes) {
  if (bytes == size_ && (base_ || bytes == 0)) return true;
#ifdef MREMAP_MAYMOVE
  // Moving the mapping keeps its page tables: the pages mapped so far stay mapped, where a
  // fresh mapping would fault each of them in again on its next touch. A failure keeps the
  // old mapping.
  if (base_ && bytes > 0) {
    void* p = remapTo(bytes);
    if (p == MAP_FAILED) return fail("cannot map " + std::to_string(bytes) + " bytes of");
    if (!writable_) MappingGuard::forget(base_);
    base_ = static_cast<uint8_t*>(p);
    size_ = bytes;
    if (!writable_) MappingGuard::watch(base_, size_);
    return true;
  }
#endif
  uint8_t* mapped = nullptr;
  if (bytes > 0) {
    const int prot = PROT_READ | (writable_ ? PROT_WRITE : 0);
    void* at = bytes >= hugePageSize() ? reserveAligned(bytes) : nullptr;
    void* p = ::mmap(at, bytes, prot, MAP_SHARED | (at ? MAP_FIXED : 0), fd_, 0);
    if (p == MAP_FAILED) {
      if (at) ::munmap(at, bytes);
      return fail("cannot map " + std::to_string(bytes) + " bytes of");
    }
    mapped = static_cast<uint8_t*>(p);
  }
  // The new mapping is complete before the old one goes: a failure above keeps the old.
  if (base_) unmap();
  base_ = mapped;
  size_ = bytes;
  if (!writable_) MappingGuard::watch(base_, size_);
  return true;
}

#ifdef MREMAP_MAYMOVE
// The mapping at `bytes`: in place where it can stay (aligned to a huge page, or too small
// for one), else moved to an aligned range, else anywhere. MAP_FAILED when it cannot.
void* EmberFile::remapTo(size_t bytes) {
  const size_t huge = hugePageSize();
  void* p = MAP_FAILED;
  if (bytes < huge || onHugePage(base_)) {
    p = ::mremap(base_, size_, bytes, 0);
  }
  if (p == MAP_FAILED && bytes >= huge) {
    if (void* at = reserveAligned(bytes)) {
      p = ::mremap(base_, size_, bytes, MREMAP_MAYMOVE | MREMAP_FIXED, at);
      if (p == MAP_FAILED) ::munmap(at, bytes);
    }
  }
  return p != MAP_FAILED ? p : ::mremap(base_, size_, bytes, MREMAP_MAYMOVE);
}
#endif

// A read-only mapping is guarded against the file being cut under it (MappingGuard.h); a
// writable one is the writer's own, whose files nobody else shortens.
void EmberFile::unmap() {
  if (!writable_) MappingGuard::forget(base_);
  ::munmap(base_, size_);
}

bool EmberFile::resize(size_t bytes, size_t reserveBytes) {
  if (fd_ < 0) {
    errno = EBADF;
    return fail("resize of closed file");
  }
  const size_t wanted = std::min(bytes, reserveBytes);
  if (const auto [first, end] = hugePagesOf(reserved_, wanted); first == end) {
    return reserve(wanted) && extendTo(bytes) && mapLength(bytes);
  }
  // Extended and mapped first, so that reserve() can take the new range in huge pages; a
  // failure gives the length and the mapping back.
  const size_t oldFile = fileSize(), oldMapped = size_;
  if (extendTo(bytes) && mapLength(bytes) && reserve(wanted)) return true;
  undoGrowth(oldFile, oldMapped);
  return false;
}

void EmberFile::undoGrowth(size_t fileBytes, size_t mappedBytes) {
  const std::string why = error_;
  if (size_ != mappedBytes) mapLength(mappedBytes);
  if (fileSize() > fileBytes && ::ftruncate(fd_, static_cast<off_t>(fileBytes)) != 0) {
    ZTRACE(0, "EmberFile::undoGrowth() cannot cut " << path_ << " back to " << fileBytes
                                                    << " bytes: " << std::strerror(errno));
  }
  error_ = why;
}

bool EmberFile::extendTo(size_t bytes) {
  if (fileSize() >= bytes || ::ftruncate(fd_, static_cast<off_t>(bytes)) == 0) return true;
  return fail("cannot grow to " + std::to_string(bytes) + " bytes:");
}

bool EmberFile::reserve(size_t bytes) {
  if (bytes <= reserved_) return true;
  if (fd_ < 0 || !writable_) {
    errno = EBADF;
    return fail("cannot reserve pages of a file not open for writing:");
  }
  takeHugePages(reserved_, bytes);
  if (!takePages(fd_, reserved_, bytes)) {
    return fail("cannot reserve " + std::to_string(bytes) + " bytes:");
  }
  reserved_ = bytes;
  return true;
}

// A huge page is built from the base pages already in its range and zeros for the rest, and
// the kernel builds none over a range that has no page at all: one base page written in each
// (nothing changes where there is one) gives it a start.
void EmberFile::takeHugePages(size_t from, size_t to) {
  const auto [start, end] = hugePagesOf(from, std::min(to, size_));
  if (start == end || !onHugePage(base_)) return;
  const size_t huge = hugePageSize();
  const size_t page = pageSize();
  for (size_t at = start; at < end; at += huge) ::madvise(base_ + at, page, MADV_POPULATE_WRITE);
  if (::madvise(base_ + start, end - start, MADV_COLLAPSE) != 0) {
    ZTRACE(3, "EmberFile::takeHugePages() " << path_ << ": " << std::strerror(errno));
  }
}

// Allocates [from, to) and extends the file over it when shorter, or does nothing at all: the
// file system undoes a partial allocation before it reports the error.
bool EmberFile::takePages(int fd, size_t from, size_t to) {
  if (::fallocate(fd, 0, static_cast<off_t>(from), static_cast<off_t>(to - from)) == 0) {
    return true;
  }
  if (errno != EOPNOTSUPP && errno != ENOSYS) return false;
  struct stat st;
  return ::fstat(fd, &st) == 0 &&
         (size_t(st.st_size) >= to || ::ftruncate(fd, static_cast<off_t>(to)) == 0);
}

bool EmberFile::remap() { return fd_ >= 0 && mapLength(fileSize()); }

void EmberFile::releaseRange(size_t offset, size_t len) {
  if (fd_ < 0 || len == 0) return;
  reserved_ = std::min(reserved_, offset);
#ifdef FALLOC_FL_PUNCH_HOLE
  const size_t page = pageSize();
  size_t start = (offset + page - 1) / page * page;
  size_t end = offset + len;
  if (end <= start) return;
  if (::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(start),
                  static_cast<off_t>(end - start)) != 0) {
    ZTRACE(0, "EmberFile::releaseRange() cannot release pages of " << path_ << ": "
                                                                   << std::strerror(errno));
  }
#else
  (void)offset;
#endif
}

bool EmberFile::populate(size_t offset, size_t len) {
  if (!base_ || !writable_ || offset >= size_) return false;
  const size_t page = pageSize();
  const size_t start = offset / page * page;
  const size_t end = std::min(size_, offset + len);
  if (end <= offset) return false;
#ifdef MADV_POPULATE_WRITE
  if (::madvise(base_ + start, end - start, MADV_POPULATE_WRITE) == 0) return true;
  ZTRACE(3, "EmberFile::populate() " << path_ << ": " << std::strerror(errno));
#endif
  return false;
}

uint32_t EmberFile::freshEmberId() {
  static std::random_device device;
  timespec ts;
  ::clock_gettime(CLOCK_REALTIME, &ts);
  Zinc::Hash h(device());
  h.mix64(static_cast<uint64_t>(ts.tv_sec));
  h.mix(static_cast<uint32_t>(ts.tv_nsec));
  h.mix(static_cast<uint32_t>(::getpid()));
  uint32_t id = h.result();
  return id ? id : 1;
}

bool EmberFile::unlinkFile(std::string_view root, std::string_view table, std::string_view name) {
  if (!validName(table) || !validName(name)) return false;
  std::string path = joinPath(joinPath(rootPath(root), table), name);
  return ::unlink(path.c_str()) == 0;
}

bool EmberFile::exists(std::string_view root, std::string_view table, std::string_view name) {
  if (!validName(table) || !validName(name)) return false;
  std::string path = joinPath(joinPath(rootPath(root), table), name);
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool EmberFile::removeTable(std::string_view root, std::string_view table) {
  if (!validName(table)) return false;
  std::string dir = joinPath(rootPath(root), table);
  DIR* d = ::opendir(dir.c_str());
  if (!d) return false;
  while (dirent* entry = ::readdir(d)) {
    std::string_view name(entry->d_name);
    if (name == "." || name == "..") continue;
    ::unlink(joinPath(dir, name).c_str());
  }
  ::closedir(d);
  return ::rmdir(dir.c_str()) == 0;
}

}  // namespace SharedMem
