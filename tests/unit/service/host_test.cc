// The service host's rules that need no running service: status reports and their systemd form,
// exit statuses, the control handler, the command line, the home paths and the unit text.
#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/logging.h"
#include "service/linux/host.h"
#include "service/service_status.h"
#include "service/startup.h"

namespace kesttcs {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class ServiceStatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetServiceStatus();
    SetServiceStatusSink([this](const ServiceStatusRecord& s) { reports_.push_back(s); });
  }
  void TearDown() override { ResetServiceStatus(); }
  std::vector<ServiceStatusRecord> reports_;
};

TEST_F(ServiceStatusTest, CheckPointsCountPendingReportsAcrossStartAndStop) {
  ReportServiceStatus(kServiceStartPending, 0, 1000);
  ReportServiceStatus(kServiceStartPending, 0, 3000);
  ReportServiceStatus(kServiceRunning, 0, 0);
  ReportServiceStatus(kServiceStopPending, 0, 30000);
  ReportServiceStatus(kServiceStopped, 0, 0);
  ReportServiceStatus(kServiceStartPending, 0, 3000);
  std::vector<UINT32> checkPoints;
  for (const auto& r : reports_) checkPoints.push_back(r.checkPoint);
  EXPECT_THAT(checkPoints, ElementsAre(1u, 2u, 0u, 3u, 0u, 4u));
  EXPECT_EQ(reports_[1].waitHint, 3000u);
  EXPECT_EQ(reports_[3].waitHint, 30000u);
  for (const auto& r : reports_) EXPECT_EQ(r.controlsAccepted, 0x45u);
}

TEST_F(ServiceStatusTest, ExitCodesSplitIntoSystemAndServiceSpecific) {
  ReportServiceStatus(kServiceStopped, 0xE0282005, 0);
  EXPECT_EQ(reports_.back().win32ExitCode, kServiceSpecificError);
  EXPECT_EQ(reports_.back().serviceSpecificExitCode, 0xE0282005u);
  // A system code leaves the service-specific code as it was.
  ReportServiceStatus(kServiceStopped, 13, 0);
  EXPECT_EQ(reports_.back().win32ExitCode, 13u);
  EXPECT_EQ(reports_.back().serviceSpecificExitCode, 0xE0282005u);
  // Only the top 16 bits decide: 0xE0290000 is not a TCS code.
  ReportServiceStatus(kServiceStopped, 0xE0290001, 0);
  EXPECT_EQ(reports_.back().win32ExitCode, 0xE0290001u);
}

TEST_F(ServiceStatusTest, DebugModeReportsNothingAndKeepsTheCounter) {
  SetDebugMode(true);
  EXPECT_EQ(ReportServiceStatus(kServiceStartPending, 0, 1000), 0u);
  EXPECT_EQ(ReportServiceStatus(kServiceRunning, 0, 0), 0u);
  EXPECT_TRUE(reports_.empty());
  SetDebugMode(false);
  ReportServiceStatus(kServiceStartPending, 0, 1000);
  ASSERT_EQ(reports_.size(), 1u);
  EXPECT_EQ(reports_[0].checkPoint, 1u);
}

TEST_F(ServiceStatusTest, FirstDirectReportCarriesTheInitialRecord) {
  SendServiceStatus();
  ASSERT_EQ(reports_.size(), 1u);
  EXPECT_EQ(reports_[0].serviceType, 0x30u);
  EXPECT_EQ(reports_[0].currentState, kServiceStartPending);
  EXPECT_EQ(reports_[0].checkPoint, 1u);
  EXPECT_EQ(reports_[0].waitHint, 30000u);
  // The counter is not consumed by it: the first ReportServiceStatus still carries 1.
  ReportServiceStatus(kServiceStartPending, 0, 1000);
  EXPECT_EQ(reports_[1].checkPoint, 1u);
}

TEST_F(ServiceStatusTest, StopControlReportsAroundTheStopAndPowerEventsUseTheSeam) {
  std::vector<std::string> order;
  SetServiceStatusSink([&](const ServiceStatusRecord& s) {
    order.push_back("state " + std::to_string(s.currentState));
  });
  EXPECT_EQ(ServiceControlHandler(kControlShutdown, 0, [&] { order.push_back("stop"); }), 0u);
  EXPECT_THAT(order, ElementsAre("state 3", "stop", "state 1"));

  order.clear();
  EXPECT_EQ(ServiceControlHandler(kControlPowerEvent, 0, [&] { order.push_back("stop"); }), 0u);
  SetPowerEventHandler([](UINT32 eventType) { return eventType == 0 ? 0x424D5144u : 0u; });
  EXPECT_EQ(ServiceControlHandler(kControlPowerEvent, 0, [] {}), 0x424D5144u);
  EXPECT_EQ(ServiceControlHandler(kControlPowerEvent, 4, [] {}), 0u);
  // Interrogate and unknown controls do nothing.
  EXPECT_EQ(ServiceControlHandler(4, 0, [&] { order.push_back("stop"); }), 0u);
  EXPECT_TRUE(order.empty());
}

TEST(ServiceExitStatusTest, MapsServiceCodesToProcessStatuses) {
  EXPECT_EQ(ExitStatusFromServiceCode(0), 0);
  EXPECT_EQ(ExitStatusFromServiceCode(0xE0282005), kExitStatusTcsError);
  EXPECT_EQ(ExitStatusFromServiceCode(0xE0281087), kExitStatusTcsError);
  EXPECT_EQ(ExitStatusFromServiceCode(13), 13);
  EXPECT_EQ(ExitStatusFromServiceCode(255), 255);
  EXPECT_EQ(ExitStatusFromServiceCode(256), kExitStatusOtherError);
  EXPECT_EQ(ExitStatusFromServiceCode(0x6BA), kExitStatusOtherError);
}

TEST(SystemdNotifyTextTest, EachStateHasItsMessage) {
  ServiceStatusRecord s;
  s.currentState = kServiceStartPending;
  s.checkPoint = 2;
  s.waitHint = 3000;
  EXPECT_EQ(host::SystemdNotifyText(s),
            "STATUS=Starting (check point 2)\nEXTEND_TIMEOUT_USEC=3000000");
  s.currentState = kServiceStopPending;
  s.waitHint = 30000;
  EXPECT_EQ(host::SystemdNotifyText(s),
            "STOPPING=1\nSTATUS=Stopping (check point 2)\nEXTEND_TIMEOUT_USEC=30000000");
  s.currentState = kServiceRunning;
  EXPECT_EQ(host::SystemdNotifyText(s), "READY=1\nSTATUS=Running");
  s.currentState = kServiceStopped;
  s.win32ExitCode = 0;
  EXPECT_EQ(host::SystemdNotifyText(s), "STATUS=Stopped");
  s.win32ExitCode = kServiceSpecificError;
  s.serviceSpecificExitCode = 0xE0282005;
  EXPECT_EQ(host::SystemdNotifyText(s),
            "STATUS=Stopped: service-specific error 0xE0282005 (TCS_E_OUTOFMEMORY)");
  s.win32ExitCode = 13;
  EXPECT_EQ(host::SystemdNotifyText(s), "STATUS=Stopped: error 13 (Permission denied)\nERRNO=13");
}

TEST(CommandLineTest, OnlyTheExactTailsAreCommands) {
  auto parse = [](std::vector<const char*> args) {
    args.insert(args.begin(), "kesttcsd");
    return host::ParseCommandLine(static_cast<int>(args.size()), args.data());
  };
  using host::EntryCommand;
  EXPECT_EQ(parse({"-install"}), EntryCommand::kInstall);
  EXPECT_EQ(parse({"-remove"}), EntryCommand::kRemove);
  EXPECT_EQ(parse({"-debug"}), EntryCommand::kDebug);
  EXPECT_EQ(parse({"--help"}), EntryCommand::kHelp);
  EXPECT_EQ(parse({"-h"}), EntryCommand::kHelp);
  EXPECT_EQ(parse({}), EntryCommand::kService);
  EXPECT_EQ(parse({"-INSTALL"}), EntryCommand::kService);
  EXPECT_EQ(parse({"-install", "extra"}), EntryCommand::kService);
  EXPECT_EQ(parse({"-install", ""}), EntryCommand::kService);  // "-install " with a blank
  EXPECT_EQ(parse({"-debug", "--help"}), EntryCommand::kService);
  EXPECT_EQ(parse({"install"}), EntryCommand::kService);
  EXPECT_THAT(host::UsageText("kesttcsd"),
              HasSubstr("Usage: kesttcsd [-install | -remove | -debug]"));
}

TEST(HostPathsTest, HomeFromEnvironmentOrExecutableDirectory) {
  HostPaths p = BuildHostPaths("/var/lib/kesttcs");
  EXPECT_EQ(p.config, "/var/lib/kesttcs/tcs_cfg.ini");
  EXPECT_EQ(p.data, "/var/lib/kesttcs/data");
  EXPECT_EQ(p.storageFile, "/var/lib/kesttcs/data/KestData.dat");
  EXPECT_EQ(p.audit, "/var/lib/kesttcs/audit");
  EXPECT_EQ(p.log, "/var/lib/kesttcs/log");
  EXPECT_EQ(BuildHostPaths("/").data, "/data");

  ::setenv("KESTTCS_HOME", "/srv/tcs//", 1);
  EXPECT_EQ(ResolveHomeDirectory(), "/srv/tcs");
  ::setenv("KESTTCS_HOME", "", 1);
  const std::string exeDir = ResolveHomeDirectory();
  ::unsetenv("KESTTCS_HOME");
  EXPECT_EQ(ResolveHomeDirectory(), exeDir);
  EXPECT_EQ(exeDir, std::string(KESTTCS_BINARY_DIR) + "/tests/unit");
}

TEST(SystemdUnitTest, UnitNamesTheBinaryAndTheHome) {
  const std::string packaged = host::SystemdUnitText("/usr/sbin/kesttcsd", "");
  EXPECT_THAT(packaged, HasSubstr("Description=Trusted Platform Core Service (KESTRON)\n"));
  EXPECT_THAT(packaged, HasSubstr("Type=notify\n"));
  EXPECT_THAT(packaged, HasSubstr("ExecStart=\"/usr/sbin/kesttcsd\"\n"));
  EXPECT_THAT(packaged, HasSubstr("Environment=\"KESTTCS_HOME=/var/lib/kesttcs\"\n"));
  EXPECT_THAT(packaged, HasSubstr("StateDirectory=kesttcs\n"));
  EXPECT_THAT(packaged, HasSubstr("RuntimeDirectory=kesttcs\n"));
  EXPECT_THAT(packaged, HasSubstr("WantedBy=multi-user.target\n"));
  EXPECT_THAT(packaged, HasSubstr("LimitNOFILE=8192\n"));

  const std::string custom = host::SystemdUnitText("/opt/kest tcs/kesttcsd", "/srv/100%\"x");
  EXPECT_THAT(custom, HasSubstr("ExecStart=\"/opt/kest tcs/kesttcsd\"\n"));
  EXPECT_THAT(custom, HasSubstr("Environment=\"KESTTCS_HOME=/srv/100%%\\\"x\"\n"));
  EXPECT_THAT(custom, Not(HasSubstr("StateDirectory=")));
  EXPECT_THAT(custom, HasSubstr("RuntimeDirectory=kesttcs\n"));
}

}  // namespace
}  // namespace kesttcs
