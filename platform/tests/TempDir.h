// Folders of their own for one test, removed with everything in them when the test ends.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace TestSupport {

// A fresh folder under `base`, named `prefix` and six random characters.
class TempDir {
 public:
  explicit TempDir(const std::string& base = std::filesystem::temp_directory_path().string(),
                   const std::string& prefix = "mpls-") {
    std::string pattern = base + "/" + prefix + "XXXXXX";
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed under " + base);
    path_ = pattern;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A root for a test's shared-memory tables: under /dev/shm, or the temporary folder on a
// system without it.
class ShmRoot : public TempDir {
 public:
  ShmRoot()
      : TempDir(std::filesystem::exists("/dev/shm")
                    ? "/dev/shm"
                    : std::filesystem::temp_directory_path().string(),
                "ledger-test-") {}
  // The file `name` of table `table`.
  std::string file(const std::string& table, const std::string& name) const {
    return path() + "/" + table + "/" + name;
  }
};

}  // namespace TestSupport
