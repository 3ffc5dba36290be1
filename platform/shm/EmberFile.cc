#include "platform/shm/EmberFile.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <utility>

#include "platform/shm/MappingGuard.h"
#include "zinc/Hash.h"
#include "zinc/Trace.h"

ZINC_TRACE_FILE("EmberFile")

namespace SharedMem {

namespace {

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
  int flags = (writable_ ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW;
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
  return mapLength(static_cast<size_t>(st.st_size));
}

void EmberFile::close() {
  if (base_) unmap();
  if (fd_ >= 0) ::close(fd_);
  base_ = nullptr;
  size_ = 0;
  reserved_ = 0;
  fd_ = -1;
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
    void* p = ::mremap(base_, size_, bytes, MREMAP_MAYMOVE);
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
    int prot = PROT_READ | (writable_ ? PROT_WRITE : 0);
    void* p = ::mmap(nullptr, bytes, prot, MAP_SHARED, fd_, 0);
    if (p == MAP_FAILED) return fail("cannot map " + std::to_string(bytes) + " bytes of");
    mapped = static_cast<uint8_t*>(p);
  }
  // The new mapping is complete before the old one goes: a failure above keeps the old.
  if (base_) unmap();
  base_ = mapped;
  size_ = bytes;
  if (!writable_) MappingGuard::watch(base_, size_);
  return true;
}

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
  return reserve(std::min(bytes, reserveBytes)) && extendTo(bytes) && mapLength(bytes);
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
  if (!takePages(fd_, reserved_, bytes)) {
    return fail("cannot reserve " + std::to_string(bytes) + " bytes:");
  }
  reserved_ = bytes;
  return true;
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
  long page = ::sysconf(_SC_PAGESIZE);
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
  const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
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
