// The `ledger` command-line tool (see tools/ledger/LedgerTool.h).
#include <iostream>

#include "tools/ledger/LedgerTool.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  return LedgerTool::run(args, std::cout, std::cerr);
}
