// One home for all the cores a fuzz target brings up, one per input. Start-up locks the home and
// the socket for the rest of the process (kesttcsd.lock, KestTCS.lock), so a fresh home per input
// would hold two more descriptors each time, until start-up failed for want of descriptors. Before
// each input the home is emptied of everything but those lock files: each input starts from the
// same empty home (start-up takes locks this process holds already without touching them), and an
// input's result does not depend on the inputs before it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace kesttcs::testing {

class FuzzHome {
 public:
  // Below the temporary directory (scripts/fuzz-common.sh points it at memory).
  FuzzHome() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kesttcs-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) abort();
    path_ = pattern;
  }
  ~FuzzHome() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  FuzzHome(const FuzzHome&) = delete;
  FuzzHome& operator=(const FuzzHome&) = delete;

  // The home, emptied of what the last core left in it.
  const std::string& Emptied() {
    Empty(path_);
    return path_;
  }

 private:
  // Removes what `dir` holds but lock files and the directories on the way to them; true when
  // nothing is left.
  static bool Empty(const std::filesystem::path& dir) {
    bool empty = true;
    std::error_code ignored;
    std::vector<std::filesystem::path> entries;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ignored)) {
      entries.push_back(entry.path());
    }
    for (const std::filesystem::path& entry : entries) {
      if (std::filesystem::is_directory(std::filesystem::symlink_status(entry, ignored))) {
        if (Empty(entry)) {
          std::filesystem::remove(entry, ignored);
        } else {
          empty = false;
        }
      } else if (entry.extension() == ".lock") {
        empty = false;
      } else {
        std::filesystem::remove(entry, ignored);
      }
    }
    return empty;
  }

  std::string path_;
};

}  // namespace kesttcs::testing
