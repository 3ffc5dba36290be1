// A private ledger root for one test: a fresh directory under /dev/shm (or $TMPDIR when
// /dev/shm is missing), removed with everything in it when the test ends.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace Mpls::Testing {

class TempLedgerRoot {
 public:
  TempLedgerRoot() {
    std::string base = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    std::string pattern = base + "/lfib-test-" + std::to_string(::getpid()) + "-XXXXXX";
    path_ = ::mkdtemp(pattern.data()) ? pattern : std::string();
  }
  ~TempLedgerRoot() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempLedgerRoot(const TempLedgerRoot&) = delete;
  TempLedgerRoot& operator=(const TempLedgerRoot&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace Mpls::Testing
