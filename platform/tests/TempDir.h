// A unique temporary folder for one test, removed with everything in it when the test ends.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace TestSupport {

class TempDir {
 public:
  TempDir() {
    std::string pattern = std::filesystem::temp_directory_path().string() + "/mpls-XXXXXX";
    path_ = ::mkdtemp(pattern.data()) ? pattern : std::string();
    if (path_.empty()) throw std::runtime_error("mkdtemp failed");
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

}  // namespace TestSupport
