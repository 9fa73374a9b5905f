#include "service/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "base/logging.h"

namespace kesttcs {
namespace {

namespace fs = std::filesystem;

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetLogging();
    SetEventSink([this](const ServiceEvent& event) { events_.push_back(event); });
    char pattern[] = "/tmp/kesttcs_config_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    ResetLogging();
    fs::remove_all(dir_);
  }

  TcsConfig Read(const std::string& text) {
    const fs::path file = dir_ / kConfigFileName;
    std::ofstream(file, std::ios::binary) << text;
    return ReadTcsConfig(file.string());
  }

  static void ExpectDefaults(const TcsConfig& config) {
    EXPECT_FALSE(config.needLog);
    EXPECT_EQ(config.backend, "auto");
    EXPECT_STREQ(config.vendor.data(), "KST");
    EXPECT_EQ(config.socket, "");
    EXPECT_EQ(config.group, "tss");
    EXPECT_EQ(config.tcpPort, 0);
    EXPECT_EQ(config.maxConnections, 4096u);
    EXPECT_EQ(config.maxConnectionsPerUser, 1024u);
    EXPECT_EQ(config.idleTimeout, 60u);
    EXPECT_EQ(config.requestMemory, 32u);
    EXPECT_EQ(config.maxContexts, 1024u);
    EXPECT_FALSE(config.eventLogPersist);
    ASSERT_TRUE(config.srkSecret.has_value());
    EXPECT_TRUE(std::all_of(std::begin(config.srkSecret->authdata),
                            std::end(config.srkSecret->authdata), [](BYTE b) { return b == 0; }));
  }

  std::vector<ServiceEvent> events_;
  fs::path dir_;
};

TEST_F(ConfigTest, MissingEmptyOrShippedFileGivesDefaults) {
  ExpectDefaults(ReadTcsConfig((dir_ / kConfigFileName).string()));
  ExpectDefaults(Read("[LOG]\n[TPM]\nbackend=\nvendor=\n[RPC]\nsocket=\ngroup=\ntcp_port=\n"));
  ExpectDefaults(Read("garbage line without equals\n[unclosed\n"));
  ExpectDefaults(ReadTcsConfig(std::string(KESTTCS_SOURCE_DIR) + "/packaging/tcs_cfg.ini"));
  EXPECT_TRUE(events_.empty());
}

TEST_F(ConfigTest, EveryKeyIsReadWithProfileRules) {
  const TcsConfig config = Read(
      "[log]\nNEEDLOG = 1\nneedLog = 0\n"  // names fold case; the first occurrence wins
      "[Tpm]\nbackend=swtpm:tcp:localhost:2321\nvendor=\"AB \"\n"
      "[RPC]\nsocket=/run/kesttcs/KestTCS\ngroup=kest-users\ntcp_port=65535\n");
  EXPECT_TRUE(config.needLog);
  EXPECT_EQ(config.backend, "swtpm:tcp:localhost:2321");
  EXPECT_STREQ(config.vendor.data(), "AB ");
  EXPECT_EQ(config.socket, "/run/kesttcs/KestTCS");
  EXPECT_EQ(config.group, "kest-users");
  EXPECT_EQ(config.tcpPort, 65535);
  for (const char* backend : {"libtpms", "libtpms:/var/lib/kesttcs/tpm",
                              "swtpm:unix:/run/swtpm.sock", "device:/dev/tpm0", "tddl:/x.so"}) {
    EXPECT_EQ(Read(std::string("[TPM]\nbackend=") + backend + "\n").backend, backend);
  }
  EXPECT_TRUE(events_.empty());
}

TEST_F(ConfigTest, NeedLogTakesTheLeadingInteger) {
  // Value, logging on, warning reported.
  const std::tuple<const char*, bool, bool> cases[] = {
      {"7", true, false},  {"5abc", true, false}, {"99999999999", true, false},
      {"0", false, false}, {"-3", false, false},  {"0x10", false, false},
      {"abc", false, true}};
  for (const auto& [value, on, warns] : cases) {
    events_.clear();
    EXPECT_EQ(Read(std::string("[LOG]\nneedLog=") + value + "\n").needLog, on) << value;
    EXPECT_EQ(events_.size(), warns ? 1u : 0u) << value;
  }
  // The value is cut to 99 characters before it is read.
  EXPECT_FALSE(Read("[LOG]\nneedLog=" + std::string(99, '0') + "1\n").needLog);
  EXPECT_TRUE(Read("[LOG]\nneedLog=" + std::string(98, '0') + "1\n").needLog);
}

TEST_F(ConfigTest, BadValuesGiveDefaultsAndNameTheKey) {
  ExpectDefaults(
      Read("[TPM]\nbackend=swtpm:tcp:localhost:0\nvendor=TOOLONG\n"
           "[RPC]\nsocket=relative/path\ngroup=bad group\ntcp_port=70000\n"));
  const char* keys[] = {"[TPM] backend", "[TPM] vendor", "[RPC] socket", "[RPC] group",
                        "[RPC] tcp_port"};
  ASSERT_EQ(events_.size(), 5u);
  for (std::size_t i = 0; i < events_.size(); ++i) {
    EXPECT_EQ(events_[i].type, kEventWarning);
    EXPECT_EQ(events_[i].eventCode, kEventBadConfigValue);
    EXPECT_THAT(events_[i].strings, ::testing::ElementsAre(::testing::HasSubstr(keys[i])));
  }

  events_.clear();
  for (const char* backend : {"tpm2", "AUTO", "libtpms:", "device:", "swtpm:tcp:host",
                              "swtpm:tcp::1", "swtpm:tcp:h:65536"}) {
    EXPECT_EQ(Read(std::string("[TPM]\nbackend=") + backend + "\n").backend, "auto") << backend;
  }
  EXPECT_EQ(Read("[RPC]\nsocket=/" + std::string(107, 's') + "\n").socket, "");
  EXPECT_EQ(Read("[RPC]\ntcp_port=-1\n").tcpPort, 0);
  EXPECT_EQ(Read("[RPC]\ngroup=-x\n").group, "tss");
  EXPECT_EQ(events_.size(), 10u);

  // Strings the backend itself would refuse are refused here too, with a warning each.
  events_.clear();
  for (const char* backend : {"swtpm:tcp:h:65535", "swtpm:unix:/a,", "swtpm:tcp:[::1:5"}) {
    EXPECT_EQ(Read(std::string("[TPM]\nbackend=") + backend + "\n").backend, "auto") << backend;
  }
  EXPECT_EQ(events_.size(), 3u);
}

// The limits take decimals within their ranges; anything else keeps the default with a warning.
TEST_F(ConfigTest, LimitsAreReadWithinTheirRanges) {
  const TcsConfig config = Read(
      "[RPC]\nmax_connections=10000\nmax_connections_per_user=1\nidle_timeout=0\n"
      "request_memory=4096\nmax_contexts=1048576\n");
  EXPECT_EQ(config.maxConnections, 10000u);
  EXPECT_EQ(config.maxConnectionsPerUser, 1u);
  EXPECT_EQ(config.idleTimeout, 0u);
  EXPECT_EQ(config.requestMemory, 4096u);
  EXPECT_EQ(config.maxContexts, 1048576u);
  EXPECT_TRUE(events_.empty());

  ExpectDefaults(
      Read("[RPC]\nmax_connections=0\nmax_connections_per_user=1048577\nidle_timeout=86401\n"
           "request_memory=1M\nmax_contexts=-5\n"));
  ASSERT_EQ(events_.size(), 5u);
  EXPECT_THAT(events_[0].strings, ::testing::ElementsAre(::testing::HasSubstr(
                                      "[RPC] max_connections; the default \"4096\" is used")));
}

// The events file is on with 1 and off with 0; anything else keeps it off with a warning.
TEST_F(ConfigTest, EventLogPersistenceIsZeroOrOne) {
  EXPECT_TRUE(Read("[eventlog]\nPersist=1\n").eventLogPersist);
  EXPECT_FALSE(Read("[EVENTLOG]\npersist=0\n").eventLogPersist);
  EXPECT_TRUE(events_.empty());
  for (const char* value : {"2", "yes", "-1", "1x"}) {
    EXPECT_FALSE(Read(std::string("[EVENTLOG]\npersist=") + value + "\n").eventLogPersist);
  }
  ASSERT_EQ(events_.size(), 4u);
  EXPECT_THAT(events_[0].strings,
              ::testing::ElementsAre(::testing::HasSubstr("[EVENTLOG] persist")));
}

// The SRK secret: well-known (20 zero bytes), none, or 40 hex digits; a bad value keeps the
// well-known secret and is reported without being repeated.
TEST_F(ConfigTest, SrkSecretIsWellKnownNoneOrFortyHexDigits) {
  EXPECT_FALSE(Read("[tpm]\nSRK_Secret=None\n").srkSecret.has_value());
  const TcsConfig given = Read("[TPM]\nsrk_secret=00112233445566778899aAbBcCdDeEfF01020304\n");
  ASSERT_TRUE(given.srkSecret.has_value());
  EXPECT_EQ(given.srkSecret->authdata[1], 0x11);
  EXPECT_EQ(given.srkSecret->authdata[10], 0xAA);
  EXPECT_EQ(given.srkSecret->authdata[19], 0x04);
  ASSERT_TRUE(Read("[TPM]\nsrk_secret=well-known\n").srkSecret.has_value());
  EXPECT_TRUE(events_.empty());
  for (const char* value : {"0011", "00112233445566778899aabbccddeeff0102030g", "secret phrase"}) {
    const TcsConfig bad = Read(std::string("[TPM]\nsrk_secret=") + value + "\n");
    ASSERT_TRUE(bad.srkSecret.has_value());
    EXPECT_EQ(bad.srkSecret->authdata[0], 0) << value;
  }
  ASSERT_EQ(events_.size(), 3u);
  for (const ServiceEvent& event : events_) {
    EXPECT_THAT(event.strings, ::testing::ElementsAre(::testing::HasSubstr("(hidden)")));
    EXPECT_THAT(event.strings,
                ::testing::Not(::testing::ElementsAre(::testing::HasSubstr("secret phrase"))));
  }
}

}  // namespace
}  // namespace kesttcs
