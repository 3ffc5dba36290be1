// SharedMem::MappingGuard: a read-only mapping of a shared file outlives the file being cut.
//
// Writers never shorten a table's files (EmberFile::releaseRange frees pages, keeping the
// length), but any process allowed to open one could truncate it. Touching a page of a mapping
// beyond the end of its file raises SIGBUS, which would end the reader's process. Guarded
// mappings are registered here; the first registration installs a SIGBUS handler that, for an
// address inside one of them, maps a private page of zeros over the page that faulted and
// returns, so the read is made again and finds zeros: a reader sees an emptied or corrupt table
// and says so, as it does for any other bad content. A fault anywhere else goes to whatever
// handled SIGBUS before (or ends the process as it would have).
//
// The registry is a fixed table of address ranges with atomic bounds, so that the handler can
// search it without locks or allocation. A mapping that finds the table full goes unguarded.
#pragma once

#include <cstddef>
#include <cstdint>

namespace SharedMem::MappingGuard {

// Guards [base, base + length); a no-op for an empty range.
void watch(const void* base, size_t length);
// Stops guarding the range that starts at `base` (before it is unmapped).
void forget(const void* base);
// Pages the handler replaced with zeros so far, in this process.
uint64_t pagesZeroed();

}  // namespace SharedMem::MappingGuard
