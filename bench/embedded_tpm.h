// The embedded libtpms TPM behind the request manager, opened once for every benchmark of the
// binary that needs it (state in a fresh temporary directory).
#pragma once

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tpm/driver.h"
#include "tpm/req_mgr.h"

namespace kesttcs {

// True once the request manager runs on the embedded TPM; false (with a message on stderr) when it
// could not be started. Only the first call does the work.
inline bool EmbeddedTpmReady() {
  static const bool ready = [] {
    std::string dir = (std::filesystem::temp_directory_path() / "kesttcs-bench-XXXXXX").string();
    if (::mkdtemp(dir.data()) == nullptr) return false;
    driver_configure("libtpms:" + dir + "/tpm", dir);
    TSS_RESULT result = req_mgr_init();
    if (result != TSS_SUCCESS) {
      std::fprintf(stderr, "req_mgr_init: 0x%08X %s\n", result, driver_last_error().c_str());
    }
    return result == TSS_SUCCESS;
  }();
  return ready;
}

}  // namespace kesttcs
