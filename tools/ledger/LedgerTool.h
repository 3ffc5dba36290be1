// The `ledger` command: look at the shared-memory tables under a root without writing code.
//
//   ledger [--root DIR] ls                 tables, sizes, members, writer liveness
//   ledger [--root DIR] show TABLE         header fields, counters, bucket and queue state
//   ledger [--root DIR] validate TABLE [--once]  structural check; exit status 0 valid,
//                                          1 not, 3 no verdict (the writer changed it during
//                                          every check)
//   ledger [--root DIR] dump TABLE [--json]  every entry, raw hex
//   ledger [--root DIR] watch TABLE [--count N]  one line per added, changed, deleted entry
//
// It only reads: files are mapped read-only, and the tool never takes the writer's lock.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace LedgerTool {

// Runs one command; returns the process exit status (0 ok, 1 a table that is invalid or
// cannot be read, 2 usage or no such table, 3 a table that validate never caught at rest).
int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace LedgerTool
