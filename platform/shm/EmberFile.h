// SharedMem::EmberFile: one named, resizable shared-memory file, mapped shared.
//
// Files live under one root directory, one folder per table: <root>/<table>/<file>. The root is
// the constructor argument when given, else the environment variable LEDGER_ROOT, else
// "/dev/shm/ledger". Table and file names are validated: not empty, no '/', no "..".
//
// A file is created with mode 0600 (0640 on request), whatever the umask. It grows with
// a new mapping, which may move: callers keep offsets, not pointers, across resize().
// Shrinking never cuts the file: releaseRange() gives the pages of a tail back to the system
// (reads there return zeros), so a reader in another process that still maps the old length
// never faults on a page beyond the end of the file.
//
// A writer takes the pages of what it is about to use before it writes there (reserve(), and
// resize() on growth): a file system that is full (a /dev/shm of a few megabytes in a
// container) then refuses the growth with an error, and the file stays as it was. A write to
// a page of a shared mapping that the file system cannot give would kill the writer with
// SIGBUS instead.
//
// Where the kernel allows it, a writer's file comes in huge pages (2 MiB on x86-64): every
// huge page of the mapping that a reserve() completes is collapsed into one (takeHugePages),
// and resize() maps a growth before it reserves it so that this applies.
// Readers that map the file then share those pages: a table of a million entries spans
// hundreds of megabytes, and on 4 KiB pages nearly every random look-up also misses the TLB.
// It is advice: where the kernel refuses, pages come in the base size, as without it.
//
// The ember id names a generation of a table's files: the writer that formats a table draws a
// fresh id (freshEmberId) and stamps it into every file of the table; a file stamped with
// another id belongs to an older generation.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace SharedMem {

// The root directory: `root` when not empty, else $LEDGER_ROOT, else "/dev/shm/ledger".
std::string rootPath(std::string_view root = {});

// A table or file name: not empty, no '/', not "." or containing "..".
bool validName(std::string_view name);

class EmberFile {
 public:
  enum class Access { ReadOnly, ReadWrite };
  enum class Perm : mode_t { OwnerOnly = 0600, GroupRead = 0640 };

  EmberFile() = default;
  EmberFile(const EmberFile&) = delete;
  EmberFile& operator=(const EmberFile&) = delete;
  EmberFile(EmberFile&& other) noexcept;
  EmberFile& operator=(EmberFile&& other) noexcept;
  ~EmberFile();

  // Opens <root>/<table>/<name>, creating folder and file when `create` is set (the new file
  // has length 0 and `created()` is true). Maps the whole file. Returns false and sets
  // error() on failure.
  bool open(std::string_view root, std::string_view table, std::string_view name, Access access,
            bool create, Perm perm = Perm::OwnerOnly);
  void close();
  bool isOpen() const { return fd_ >= 0; }
  bool created() const { return created_; }
  const std::string& path() const { return path_; }
  const std::string& error() const { return error_; }

  uint8_t* base() const { return base_; }
  size_t size() const { return size_; }  // bytes mapped
  size_t fileSize() const;               // bytes in the file now (another process may grow it)
  // Which file this is (its device and inode, as opened): a table removed and made again has
  // other files at the same paths. identityAt() is that of the file at `path` now, 0 for none.
  uint64_t identity() const { return identity_; }
  static uint64_t identityAt(const std::string& path);

  // Grows the file to at least `bytes` (never shrinks it), reserves the first `reserveBytes`
  // of them (all by default), and maps `bytes`; the mapping may move. On failure the old
  // mapping stays and error() says why.
  bool resize(size_t bytes, size_t reserveBytes = SIZE_MAX);
  // Writable file: gives the first `bytes` of the file pages of their own now, growing it
  // when shorter, pages released by releaseRange() included. On failure (no space left) the
  // file keeps its length and pages, and error() says why. Where the file system cannot
  // reserve ahead, pages come with the writes, as they would without this.
  bool reserve(size_t bytes);
  // Maps the file's current length (a reader following a writer's growth).
  bool remap();
  // Returns the pages of [offset, offset + len) to the system; the file keeps its length and
  // those bytes read as zero afterwards.
  void releaseRange(size_t offset, size_t len);
  // Writable mapping: allocates and maps the pages of [offset, offset + len) (clipped to the
  // mapping) in one call, where writing them one after the other would fault each one in on
  // its own. They then occupy memory: populate only what is about to be written. False when
  // the system cannot (the pages then fault in as they are written).
  bool populate(size_t offset, size_t len);

  uint32_t emberId() const { return emberId_; }
  void emberIdIs(uint32_t id) { emberId_ = id; }
  static uint32_t freshEmberId();

  // Removes <root>/<table>/<name> / the whole table folder.
  static bool unlinkFile(std::string_view root, std::string_view table, std::string_view name);
  static bool removeTable(std::string_view root, std::string_view table);
  static bool exists(std::string_view root, std::string_view table, std::string_view name);
  // Takes the pages of bytes [from, to) of the open file `fd`, lengthening it to `to` when
  // shorter; where the file system cannot allocate ahead, only lengthens it. False (errno
  // set) when there is no room.
  static bool takePages(int fd, size_t from, size_t to);

 private:
  void unmap();
  bool mapLength(size_t bytes);
  void* remapTo(size_t bytes);
  // Makes the file at least `bytes` long (ftruncate; the pages come when touched).
  bool extendTo(size_t bytes);
  // Builds the huge pages of [from, to) within the mapping where the kernel can; see above.
  void takeHugePages(size_t from, size_t to);
  // A growth that failed after extending and mapping: back to `fileBytes` and `mappedBytes`.
  void undoGrowth(size_t fileBytes, size_t mappedBytes);
  bool fail(const std::string& what);

  int fd_ = -1;
  uint8_t* base_ = nullptr;
  size_t size_ = 0;
  size_t reserved_ = 0;  // the first reserved_ bytes have pages of their own
  bool writable_ = false;
  bool created_ = false;
  uint32_t emberId_ = 0;
  uint64_t identity_ = 0;
  std::string path_;
  std::string error_;
};

}  // namespace SharedMem
