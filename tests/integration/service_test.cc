// The real kesttcsd binary as systemd would run it: a notify socket the test reads, a home
// directory with its own tcs_cfg.ini, the embedded TPM, traces on stderr. Also the entry commands
// (-install/-remove against a stand-in systemctl, "not under systemd") and start-up failures.
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_client.h>

#include "daemon_process.h"

namespace {

using namespace kesttcs::daemon_process;
namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kDisplayName[] = "Trusted Platform Core Service (KESTRON)";

std::string Config(const std::string& backend, const fs::path& socket, int needLog = 1) {
  return "[LOG]\nneedLog=" + std::to_string(needLog) + "\n[TPM]\nbackend=" + backend +
         "\n[RPC]\nsocket=" + socket.string() + "\n";
}

// One service home with its own notify socket and configuration.
class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    home_ = dir_.path() / "home";
    fs::create_directory(home_);
    socket_ = dir_.path() / "KestTCS";
  }
  std::vector<std::string> ServiceEnv(const NotifySocket& notify) const {
    return {"KESTTCS_HOME=" + home_.string(), "NOTIFY_SOCKET=" + notify.path().string(),
            "RUNTIME_DIRECTORY=" + dir_.path().string()};
  }
  RunResult Cli(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {kCli, "--endpoint", socket_.string()};
    argv.insert(argv.end(), args.begin(), args.end());
    const fs::path runDir = dir_.path() / "cli";
    fs::create_directories(runDir);
    return RunProgram(argv, {}, runDir);
  }

  TempDir dir_;
  fs::path home_;
  fs::path socket_;
};

TEST_F(ServiceTest, ServesUntilSigtermThenShutsDownInOrder) {
  WriteFile(home_ / "tcs_cfg.ini", Config("libtpms", socket_));
  NotifySocket notify(dir_.path() / "notify");
  Process daemon({kDaemon}, ServiceEnv(notify), dir_.path());

  std::vector<std::string> startup = notify.Until("READY=1");
  EXPECT_THAT(startup, ElementsAre("STATUS=Starting (check point 1)\nEXTEND_TIMEOUT_USEC=30000000",
                                   "STATUS=Starting (check point 1)\nEXTEND_TIMEOUT_USEC=1000000",
                                   "STATUS=Starting (check point 2)\nEXTEND_TIMEOUT_USEC=3000000",
                                   "STATUS=Starting (check point 3)\nEXTEND_TIMEOUT_USEC=3000000",
                                   "STATUS=Starting (check point 4)\nEXTEND_TIMEOUT_USEC=3000000",
                                   "STATUS=Starting (check point 5)\nEXTEND_TIMEOUT_USEC=3000000",
                                   "READY=1\nSTATUS=Running"));
  ASSERT_TRUE(fs::exists(socket_));
  EXPECT_TRUE(fs::is_directory(home_ / "data"));
  EXPECT_TRUE(fs::is_directory(home_ / "audit"));
  EXPECT_TRUE(fs::is_directory(home_ / "log"));
  EXPECT_TRUE(fs::is_directory(home_ / "tpm"));

  // Through the CLI.
  RunResult status = Cli({"status"});
  EXPECT_EQ(status.exitStatus, 0) << status.out << status.err;
  EXPECT_THAT(status.out, HasSubstr("reachable"));
  EXPECT_THAT(status.out, HasSubstr("TPM version:   1.2."));
  EXPECT_THAT(status.out, HasSubstr("PCRs:          24"));
  EXPECT_THAT(status.out, HasSubstr("Owner:         no"));
  RunResult random = Cli({"--json", "random", "16"});
  EXPECT_EQ(random.exitStatus, 0) << random.out << random.err;
  EXPECT_THAT(random.out, testing::ContainsRegex("\"random\": \"[0-9a-f]{32}\""));
  RunResult extend = Cli({"pcr", "extend", "16", std::string(40, '0')});
  // SHA-1 of 40 zero bytes: the first extend of a zero PCR.
  EXPECT_EQ(extend.out, "PCR 16: b80de5d138758541c5f05265ad144ab9fa86d1db\n") << extend.err;
  RunResult badIndex = Cli({"pcr", "read", "99"});
  EXPECT_EQ(badIndex.exitStatus, 1);
  EXPECT_THAT(badIndex.err, HasSubstr("Tcsip_PcrRead failed: 0xE0280002 (TPM_E_BADINDEX)"));
  RunResult badArgument = Cli({"random", "many"});
  EXPECT_EQ(badArgument.exitStatus, 2);
  EXPECT_THAT(badArgument.err, HasSubstr("bad argument"));
  RunResult badDigest = Cli({"pcr", "extend", "1", "abc"});
  EXPECT_EQ(badDigest.exitStatus, 2);

  // Through the client library, as an application would.
  ASSERT_EQ(Tcs_Connect(socket_.c_str()), 0u);
  TCS_CONTEXT_HANDLE hContext = 0;
  ASSERT_EQ(Tcsi_OpenContext(&hContext), 0u);
  UINT32 count = 20;
  BYTE* bytes = nullptr;
  EXPECT_EQ(Tcsip_GetRandom(hContext, &count, &bytes), 0u);
  EXPECT_EQ(count, 20u);
  EXPECT_NE(bytes, nullptr);
  Tcs_FreeBuffer(bytes);
  TPM_PCRVALUE pcr{};
  EXPECT_EQ(Tcsip_PcrRead(hContext, 16, &pcr), 0u);
  EXPECT_EQ(pcr.digest[0], 0xb8);
  EXPECT_EQ(Tcsi_CloseContext(hContext), 0u);
  Tcs_Disconnect();

  daemon.Signal(SIGTERM);
  RunResult result = daemon.Wait();
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_THAT(
      notify.Drain(),
      ElementsAre("STOPPING=1\nSTATUS=Stopping (check point 6)\nEXTEND_TIMEOUT_USEC=30000000",
                  "STATUS=Stopped", "STATUS=Stopped"));
  EXPECT_FALSE(fs::exists(socket_));

  // Lines before the configuration is read are dropped: logging is still off then.
  const std::vector<std::string> traces = TraceLines(result.err);
  EXPECT_THAT(traces, Not(testing::Contains("TCS:TCS service Starting ...")));
  EXPECT_THAT(traces, Not(testing::Contains("TCS:TCS service Starting:call startup tpm...")));
  // Start and stop each keep their order; READY=1 comes before the last start lines, so a stop
  // right after it may interleave with them.
  const std::vector<std::string> startOrder = {
      "TCS:TCS service Starting:startup tpm ok.",
      "TCS:TCS service Starting:call RpcServerUseProtseqEp ...",
      "TCS:TCS service Starting:call RpcServerUseProtseqEp ok.",
      "TCS:TCS service Starting:call RpcServerRegisterIf ...",
      "TCS:TCS service Starting:call RpcServerRegisterIf ok.",
      "TCS:TCS service Starting:call RpcServerListen ...",
      "TCS:TCS service Starting:call RpcServerListen ok.",
      "TCS:TCS service Starting:call RpcMgmtWaitServerListen ...",
      "TCS:TCS service start end.",
  };
  const std::vector<std::string> stopOrder = {
      "TCS:TCS service Stoping ...",
      "TCS:TCS service Stoping:call RpcMgmtStopServerListening...",
      "TCS:TCS service Stoping:call RpcMgmtStopServerListening ok.",
      "TCS:TCS service Stoping:call RpcServerUnregisterIf...",
      "TCS:TCS service Stoping:call RpcServerUnregisterIf ok.",
      "TCS:TCS service Stoping:call shutdown tpm...",
      "TCS:kesttcs_shutdown:ReleaseOwnCtrl",
      "TCS:kesttcs_shutdown:req_mgr_final",
      "TCS:TCS service Stoping:call shutdown tpm ok.",
      "TCS:ServiceStop:Ok!",
  };
  for (const auto* order : {&startOrder, &stopOrder}) {
    long previous = -1;
    for (const std::string& line : *order) {
      const long at = IndexOf(traces, line);
      EXPECT_GT(at, previous) << "missing or out of order: " << line << "\n" << result.err;
      previous = std::max(previous, at);
    }
  }
  EXPECT_LT(IndexOf(traces, "TCS:TCS service Starting:call RpcServerListen ok."),
            IndexOf(traces, "TCS:TCS service Stoping ..."));
  EXPECT_THAT(Lines(result.err), testing::Contains("ServiceMain"));
}

TEST_F(ServiceTest, WithoutConfigurationLoggingIsOffAndNoLogDirectoryIsMade) {
  NotifySocket notify(dir_.path() / "notify");
  // The entry commands are compared exactly: these run the service as well.
  for (const std::vector<std::string>& argv :
       {std::vector<std::string>{kDaemon, "-INSTALL"}, {kDaemon, "-install", "extra"}}) {
    SCOPED_TRACE(argv.back());
    Process daemon(argv, ServiceEnv(notify), dir_.path());
    std::vector<std::string> startup = notify.Until("READY=1");
    ASSERT_FALSE(startup.empty());
    EXPECT_EQ(startup.back(), "READY=1\nSTATUS=Running");
    // Without a configured socket the service listens in its runtime directory.
    EXPECT_TRUE(fs::exists(socket_));
    daemon.Signal(SIGTERM);
    RunResult result = daemon.Wait();
    const std::vector<std::string> stopping = notify.Drain();
    EXPECT_EQ(result.exitStatus, 0) << result.err << testing::PrintToString(stopping);
    EXPECT_THAT(TraceLines(result.err), testing::IsEmpty()) << result.err;
    EXPECT_FALSE(fs::exists(home_ / "log"));
    EXPECT_TRUE(fs::is_directory(home_ / "data"));
    EXPECT_TRUE(fs::is_directory(home_ / "audit"));
    EXPECT_TRUE(fs::is_directory(home_ / "tpm"));
  }
}

TEST_F(ServiceTest, UnwritableHomeEndsWithTheSystemError) {
  WriteFile(home_ / "tcs_cfg.ini", Config("libtpms", socket_));
  fs::permissions(dir_.path(), fs::perms(0755));
  fs::permissions(home_, fs::perms(0555));
  // Root writes anywhere; the daemon then runs as nobody.
  std::optional<std::pair<uid_t, gid_t>> runAs;
  if (geteuid() == 0) {
    const passwd* nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    runAs = std::make_pair(nobody->pw_uid, nobody->pw_gid);
  }
  NotifySocket notify(dir_.path() / "notify");
  Process daemon({kDaemon}, ServiceEnv(notify), dir_.path(), runAs);
  RunResult result = daemon.Wait();
  EXPECT_EQ(result.exitStatus, EACCES) << result.err;
  const std::vector<std::string> traces = TraceLines(result.err);
  EXPECT_THAT(traces,
              IsSupersetOf({"TCS:KestTCSp:Create directory:" + (home_ / "data").string() + " Fail!",
                            std::string("TCS:KestTcs_startup Fail!")}));
  std::vector<std::string> messages = notify.Drain();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "STATUS=Stopped: error 13 (Permission denied)\nERRNO=13");
  EXPECT_THAT(messages, Not(testing::Contains("READY=1\nSTATUS=Running")));
}

TEST_F(ServiceTest, UnreachableTpmEndsWithItsTcsCode) {
  WriteFile(home_ / "tcs_cfg.ini", Config("swtpm:unix:/nonexistent/kesttcs-swtpm", socket_));
  NotifySocket notify(dir_.path() / "notify");
  Process daemon({kDaemon}, ServiceEnv(notify), dir_.path());
  RunResult result = daemon.Wait();
  EXPECT_EQ(result.exitStatus, 3) << result.err;
  EXPECT_THAT(TraceLines(result.err), testing::Contains("TCS:KestTcs_startup Fail!"));
  std::vector<std::string> messages = notify.Drain();
  ASSERT_FALSE(messages.empty());
  EXPECT_THAT(messages.back(), StartsWith("STATUS=Stopped: service-specific error 0xE028"));
  // The reason is on stderr for the journal.
  EXPECT_THAT(result.err, HasSubstr("kesttcsd: TPM access"));
  EXPECT_FALSE(fs::exists(socket_));
}

TEST_F(ServiceTest, CliReportsAnUnreachableService) {
  RunResult r = Cli({"status"});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(r.err, "kesttcs-cli: cannot reach KestTCS at " + socket_.string() +
                       ": No such file or directory\n");
  RunResult json = Cli({"--json", "random", "8"});
  EXPECT_EQ(json.exitStatus, 1);
  EXPECT_THAT(json.out, HasSubstr("\"error\": \"cannot reach KestTCS at"));
}

TEST_F(ServiceTest, DebugModeStopsOnCtrlCWithoutStatusReports) {
  WriteFile(home_ / "tcs_cfg.ini", Config("libtpms", socket_));
  NotifySocket notify(dir_.path() / "notify");
  Process daemon({kDaemon, "-debug"}, ServiceEnv(notify), dir_.path());
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!fs::exists(socket_) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_TRUE(fs::exists(socket_));
  daemon.Signal(SIGINT);
  RunResult result = daemon.Wait();
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out, std::string("Stopping ") + kDisplayName + ".\n");
  // "CmdDebugService call serviceStart." comes before the configuration turns logging on.
  const std::vector<std::string> traces = TraceLines(result.err);
  EXPECT_THAT(traces, Not(testing::Contains("TCS:CmdDebugService call serviceStart.")));
  EXPECT_THAT(traces, testing::Contains("TCS:TCS service Stoping:call shutdown tpm ok."));
  EXPECT_THAT(notify.Drain(), testing::IsEmpty());
}

// A stand-in systemctl: records each call and plays a unit that stops after one poll.
class InstallTest : public ::testing::Test {
 protected:
  void SetUp() override {
    units_ = dir_.path() / "units";
    fs::create_directory(units_);
    runtime_ = dir_.path() / "systemd-runtime";
    fs::create_directory(runtime_);
    calls_ = dir_.path() / "calls";
    state_ = dir_.path() / "state";
    WriteFile(state_, "inactive\n");
    systemctl_ = dir_.path() / "systemctl";
    WriteFile(systemctl_,
              "#!/bin/sh\n"
              "echo \"$*\" >> '" +
                  calls_.string() +
                  "'\n"
                  "state='" +
                  state_.string() +
                  "'\n"
                  "case \"$1\" in\n"
                  "  is-active) s=$(cat \"$state\"); echo \"$s\";\n"
                  "             [ \"$s\" = deactivating ] && echo inactive > \"$state\";\n"
                  "             [ \"$s\" = active ];;\n"
                  "  stop) echo deactivating > \"$state\";;\n"
                  "  enable) [ -z \"$FAIL_ENABLE\" ];;\n"
                  "esac\n",
              fs::perms(0755));
  }
  std::vector<std::string> Env(const std::string& runtime) const {
    return {"KESTTCS_SYSTEMD_DIR=" + units_.string(), "KESTTCS_SYSTEMCTL=" + systemctl_.string(),
            "KESTTCS_SYSTEMD_RUNTIME=" + runtime, "KESTTCS_HOME=/srv/kest"};
  }
  RunResult Daemon(const std::string& command, std::vector<std::string> env) {
    return RunProgram({kDaemon, command}, env, dir_.path());
  }
  std::vector<std::string> TakeCalls() {
    std::vector<std::string> calls = Lines(ReadFile(calls_));
    fs::remove(calls_);
    return calls;
  }

  TempDir dir_;
  fs::path units_, runtime_, calls_, state_, systemctl_;
};

TEST_F(InstallTest, InstallWritesEnablesAndStartsRemoveStopsDisablesAndDeletes) {
  RunResult install = Daemon("-install", Env(runtime_));
  EXPECT_EQ(install.exitStatus, 0);
  EXPECT_EQ(install.out, std::string(kDisplayName) + " installed.\n");
  EXPECT_THAT(TakeCalls(),
              ElementsAre("daemon-reload", "enable KestTCS.service", "start KestTCS.service"));
  const std::string unit = ReadFile(units_ / "KestTCS.service");
  EXPECT_THAT(unit, HasSubstr("ExecStart=\"" + fs::canonical(kDaemon).string() + "\"\n"));
  EXPECT_THAT(unit, HasSubstr("Environment=\"KESTTCS_HOME=/srv/kest\"\n"));
  EXPECT_THAT(unit, HasSubstr("Type=notify\n"));

  RunResult again = Daemon("-install", Env(runtime_));
  EXPECT_EQ(again.out, "CreateService failed - " + (units_ / "KestTCS.service").string() +
                           ": File exists (0x11)\n");
  EXPECT_THAT(TakeCalls(), testing::IsEmpty());

  WriteFile(state_, "active\n");
  RunResult remove = Daemon("-remove", Env(runtime_));
  EXPECT_EQ(remove.exitStatus, 0);
  EXPECT_EQ(remove.out, std::string("Stopping ") + kDisplayName + "..\n" + kDisplayName +
                            " stopped.\n" + kDisplayName + " removed.\n");
  EXPECT_THAT(TakeCalls(),
              ElementsAre("is-active KestTCS.service", "stop --no-block KestTCS.service",
                          "is-active KestTCS.service", "is-active KestTCS.service",
                          "disable KestTCS.service", "daemon-reload"));
  EXPECT_FALSE(fs::exists(units_ / "KestTCS.service"));

  RunResult missing = Daemon("-remove", Env(runtime_));
  EXPECT_EQ(missing.out, "OpenService failed - " + (units_ / "KestTCS.service").string() +
                             ": No such file or directory (0x2)\n");
}

TEST_F(InstallTest, StoppedServiceIsRemovedWithoutStoppingAndFailedEnableLeavesNoUnit) {
  ASSERT_EQ(Daemon("-install", Env(runtime_)).exitStatus, 0);
  TakeCalls();
  RunResult remove = Daemon("-remove", Env(runtime_));
  EXPECT_EQ(remove.out, std::string(kDisplayName) + " removed.\n");
  EXPECT_THAT(TakeCalls(),
              ElementsAre("is-active KestTCS.service", "disable KestTCS.service", "daemon-reload"));

  std::vector<std::string> env = Env(runtime_);
  env.push_back("FAIL_ENABLE=1");
  RunResult install = Daemon("-install", env);
  EXPECT_EQ(install.out,
            "CreateService failed - systemctl enable KestTCS.service failed with status 1 (0x1)\n");
  EXPECT_FALSE(fs::exists(units_ / "KestTCS.service"));
  EXPECT_THAT(TakeCalls(), ElementsAre("daemon-reload", "enable KestTCS.service", "daemon-reload"));
}

TEST_F(InstallTest, WithoutSystemdBothCommandsFailCleanly) {
  const std::string absent = (dir_.path() / "no-systemd").string();
  for (const char* command : {"-install", "-remove"}) {
    RunResult r = Daemon(command, Env(absent));
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(r.out,
              "OpenSCManager failed - systemd is not running (" + absent + " is missing) (0x2)\n");
  }
  EXPECT_FALSE(fs::exists(calls_));
  EXPECT_TRUE(fs::is_empty(units_));
}

TEST(KesttcsdHelpTest, HelpPrintsUsage) {
  TempDir dir;
  RunResult r = RunProgram({kDaemon, "--help"}, {}, dir.path());
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_THAT(r.out, HasSubstr("[-install | -remove | -debug]"));
}

}  // namespace
