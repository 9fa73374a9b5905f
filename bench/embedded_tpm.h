// The service core on the embedded libtpms TPM (state in a fresh temporary home), brought up once
// for every benchmark of the binary that needs it and left up until the process ends.
#pragma once

#include <cstdio>

#include "core_fixture.h"
#include "service/startup.h"

namespace kesttcs {

// The core once it is up; null (with a message on stderr) when it could not be started. Only the
// first call does the work.
inline testing::TestCore* EmbeddedCore() {
  static testing::TestCore* const core = [] {
    auto* started = new testing::TestCore(testing::CoreOptions().Backend("libtpms"));
    if (const TSS_RESULT result = started->Start(); result != TSS_SUCCESS) {
      std::fprintf(stderr, "KestTcs_startup: 0x%08X %s\n", result, StartupFailureText().c_str());
      return static_cast<testing::TestCore*>(nullptr);
    }
    return started;
  }();
  return core;
}

inline bool EmbeddedTpmReady() { return EmbeddedCore() != nullptr; }

}  // namespace kesttcs
