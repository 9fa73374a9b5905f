// A second service on the same home or the same socket, and start-ups that fail.
#include <gmock/gmock.h>

#include <string>

#include "reliability.h"
#include "tcs_calls.h"

namespace kesttcs::reliability {
namespace {

using ::testing::HasSubstr;

// A second instance, on the same home or on another home with the same socket, in service mode or
// with -debug, is refused before it touches the TPM state or the socket; the first one keeps its
// socket and serves on.
TEST(InstancesTest, SecondInstanceIsRefusedAndTheFirstKeepsServing) {
  Daemon first;
  const std::string holder = "kesttcsd (pid " + std::to_string(first.pid()) + ") is running";
  const fs::path other_home = first.directory() / "other";
  fs::create_directory(other_home);
  fs::copy_file(first.home() / "tcs_cfg.ini", other_home / "tcs_cfg.ini");

  const fs::path runs = first.directory() / "runs";
  fs::create_directory(runs);
  for (const fs::path& home : {first.home(), other_home}) {
    SCOPED_TRACE(home);
    const RunResult service = RunProgram({kDaemon}, first.Environment(home), runs);
    EXPECT_EQ(service.exitStatus, EBUSY) << service.err;
    EXPECT_THAT(service.err, HasSubstr(holder));
    const RunResult debug = RunProgram({kDaemon, "-debug"}, first.Environment(home), runs);
    EXPECT_THAT(debug.err, HasSubstr(holder));
    EXPECT_TRUE(fs::exists(first.socket()));
    EXPECT_EQ(OpenRandomClose(first.socket()), 0u);
  }
  EXPECT_THAT(RunProgram({kDaemon}, first.Environment(first.home()), runs).err, HasSubstr(".lock"));
  const RunResult stopped = first.Stop();
  EXPECT_EQ(stopped.exitStatus, 0) << stopped.err;
}

// A -debug start that fails says why on stderr: a TCP port in use, a damaged TPM state.
TEST(InstancesTest, FailedDebugStartSaysWhy) {
  DaemonOptions options;
  options.tcp = true;
  Daemon first(options);
  const fs::path home = first.directory() / "second";
  fs::create_directory(home);
  WriteFile(home / "tcs_cfg.ini", "[TPM]\nbackend=libtpms\n[RPC]\nsocket=" +
                                      (first.directory() / "second.sock").string() +
                                      "\ntcp_port=" + std::to_string(first.tcp_port()) + "\n");
  const RunResult port = RunProgram({kDaemon, "-debug"}, first.Environment(home), home);
  EXPECT_THAT(port.err, HasSubstr("kesttcsd: error 98 (Address already in use)"));
  first.Stop();

  const RunResult damaged = [&] {
    WriteFile(home / "tcs_cfg.ini", "[TPM]\nbackend=libtpms\n[RPC]\nsocket=" +
                                        (first.directory() / "second.sock").string() + "\n");
    fs::create_directories(home / "tpm");
    WriteFile(home / "tpm" / "00.permall", std::string(4096, '\x5a'));
    return RunProgram({kDaemon, "-debug"}, first.Environment(home), home);
  }();
  EXPECT_THAT(damaged.err, HasSubstr("kesttcsd: TPM access"));
  EXPECT_FALSE(fs::exists(first.directory() / "second.sock"));
}

}  // namespace
}  // namespace kesttcs::reliability
