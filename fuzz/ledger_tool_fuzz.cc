// Fuzz target: arbitrary bytes as a table's files, looked at through the `ledger` tool: ls,
// show, validate, dump and dump --json. The tool reads tables that may be corrupt or changing
// under it; whatever the files hold, it must answer with a report or an error, never crash,
// hang or read out of bounds.
//
// Input: one mode byte, then the bytes of the files, laid out as for the reader target (bit 0:
// raw slot file; bit 1: well-formed bucket, queue and slab headers; bit 2: a slab table). Bit
// 3 puts the table one folder down, where ls must search for it.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "fuzz/TableFiles.h"
#include "tools/ledger/LedgerTool.h"

namespace {

void runTool(const std::string& root, std::vector<std::string> args) {
  args.insert(args.begin(), {"--root", root});
  std::ostringstream out, err;
  const int status = LedgerTool::run(args, out, err);
  if (status < 0 || status > 3) __builtin_trap();  // only 0 to 3 are answers
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string root = "/dev/shm/ledger-tool-fuzz-" + std::to_string(::getpid());
  if (size < 1) return 0;
  Fuzz::Input in(data + 1, size - 1);
  const std::string table = data[0] & 8 ? "lfib/t" : "t";
  const std::string dir = root + "/" + table;
  std::filesystem::create_directories(dir);
  const bool slabs = data[0] & 4;
  const uint32_t ember = Fuzz::writeSlots(dir, in, data[0] & 1, slabs);
  Fuzz::writeOthers(dir, in, data[0] & 2, ember);
  if (slabs) Fuzz::writeSlabs(dir, in, data[0] & 2, ember);
  runTool(root, {"ls"});
  runTool(root, {"show", table});
  runTool(root, {"validate", table, "--once"});  // the files' writer pid may be a live process
  runTool(root, {"dump", table});
  runTool(root, {"dump", table, "--json"});
  std::filesystem::remove_all(root);
  return 0;
}
