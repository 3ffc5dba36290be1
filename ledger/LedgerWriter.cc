#include "ledger/LedgerWriter.h"

#include <errno.h>

#include <cstring>

ZINC_TRACE_FILE("LedgerWriterLock")

namespace Ledger {

Zinc::Trace writerTrace("LedgerWriter");
Zinc::Trace hashMapTrace("WriterHashMap");

void WriterLock::acquire(const std::string& root, const std::string& table,
                         SharedMem::EmberFile::Perm perm) {
  release();
  SharedMem::EmberFile probe;  // creates the table folder
  if (!probe.open(root, table, "writer.lock", SharedMem::EmberFile::Access::ReadWrite, true,
                  perm)) {
    throw InitializationException("SlotWriter::attach() cannot attach to shmem " + probe.path() +
                                  ": " + probe.error());
  }
  fd_ = ::open(probe.path().c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd_ < 0 || ::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    std::string why = std::strerror(errno);
    release();
    throw InitializationException("SlotWriter::attach() cannot attach to shmem " + probe.path() +
                                  ": another writer holds the table (" + why + ")");
  }
  ZTRACE(3, "WriterLock::acquire() " << probe.path());
}

void WriterLock::release() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace Ledger
