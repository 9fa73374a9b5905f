// Test helper: a fresh directory below the system's temporary directory, removed with its contents
// at the end.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace kesttcs::testing {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kesttcs-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // Empty when the directory could not be made.
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace kesttcs::testing
