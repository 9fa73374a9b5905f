// kesttcsd on a fresh embedded TPM that kesttcs-cli provisions the project's way (well-known owner
// and SRK secrets), for the tests that authorise commands with those secrets.
#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "kesttcsd_process.h"

namespace kesttcs::testing {

// Starts `daemon` and takes ownership with `kesttcs-cli provision` (its output in `log`).
inline ::testing::AssertionResult StartProvisioned(KesttcsdProcess& daemon,
                                                   const std::filesystem::path& log) {
  if (!daemon.Start()) return ::testing::AssertionFailure() << "kesttcsd did not start";
  const auto [status, output] = RunKesttcsCli({"provision"}, daemon.socket(), log);
  if (status != 0) return ::testing::AssertionFailure() << "provision: " << output;
  return ::testing::AssertionSuccess();
}

}  // namespace kesttcs::testing
