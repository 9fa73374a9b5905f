#include "service/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "service/logging.h"

namespace kesttcs {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

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

  void ExpectDefaults(const TcsConfig& config) {
    EXPECT_FALSE(config.needLog);
    EXPECT_EQ(config.backend, "auto");
    EXPECT_STREQ(config.vendor.data(), "KST");
    EXPECT_EQ(config.socket, "");
    EXPECT_EQ(config.group, "tss");
    EXPECT_EQ(config.tcpPort, 0);
  }

  std::vector<ServiceEvent> events_;
  fs::path dir_;
};

TEST_F(ConfigTest, MissingOrEmptyFileGivesDefaults) {
  ExpectDefaults(ReadTcsConfig((dir_ / kConfigFileName).string()));
  ExpectDefaults(Read(""));
  ExpectDefaults(Read("[LOG]\n[TPM]\nbackend=\nvendor=\n[RPC]\nsocket=\ngroup=\ntcp_port=\n"));
  ExpectDefaults(Read("garbage line without equals\n[unclosed\n"));
  EXPECT_TRUE(events_.empty());
}

TEST_F(ConfigTest, EveryKeyIsReadWithProfileRules) {
  const TcsConfig config = Read(
      "; sample\n"
      "[log]\n"
      "NEEDLOG = 1\n"
      "needLog = 0\n"  // the first occurrence wins
      "[Tpm]\n"
      "backend=swtpm:tcp:localhost:2321\n"
      "vendor=\"AB \"\n"
      "[RPC]\n"
      "socket=/run/kesttcs/KestTCS\n"
      "group=kest-users\n"
      "tcp_port=65535\n");
  EXPECT_TRUE(config.needLog);
  EXPECT_EQ(config.backend, "swtpm:tcp:localhost:2321");
  EXPECT_STREQ(config.vendor.data(), "AB ");
  EXPECT_EQ(config.socket, "/run/kesttcs/KestTCS");
  EXPECT_EQ(config.group, "kest-users");
  EXPECT_EQ(config.tcpPort, 65535);
  EXPECT_TRUE(events_.empty());

  for (const char* backend : {"auto", "libtpms", "libtpms:/var/lib/kesttcs/tpm",
                              "swtpm:unix:/run/swtpm.sock", "device:/dev/tpm0", "tddl:/x.so"}) {
    EXPECT_EQ(Read(std::string("[TPM]\nbackend=") + backend + "\n").backend, backend);
  }
  EXPECT_TRUE(events_.empty());
}

TEST_F(ConfigTest, NeedLogTakesTheLeadingInteger) {
  struct Case {
    const char* value;
    bool on;
    bool warns;
  } cases[] = {{"1", true, false},           {"7", true, false},   {"5abc", true, false},
               {"99999999999", true, false}, {"0", false, false},  {"-3", false, false},
               {"+2", true, false},          {"abc", false, true}, {"0x10", false, false}};
  for (const Case& c : cases) {
    events_.clear();
    EXPECT_EQ(Read(std::string("[LOG]\nneedLog=") + c.value + "\n").needLog, c.on) << c.value;
    EXPECT_EQ(events_.size(), c.warns ? 1u : 0u) << c.value;
  }
  // The value is cut to 99 characters before it is read.
  EXPECT_FALSE(Read("[LOG]\nneedLog=" + std::string(99, '0') + "1\n").needLog);
  EXPECT_TRUE(Read("[LOG]\nneedLog=" + std::string(98, '0') + "1\n").needLog);
}

TEST_F(ConfigTest, BadValuesGiveDefaultsAndNameTheKey) {
  const TcsConfig config = Read(
      "[TPM]\n"
      "backend=swtpm:tcp:localhost:0\n"
      "vendor=TOOLONG\n"
      "[RPC]\n"
      "socket=relative/path\n"
      "group=bad group\n"
      "tcp_port=70000\n");
  ExpectDefaults(config);
  ASSERT_EQ(events_.size(), 5u);
  const char* keys[] = {"[TPM] backend", "[TPM] vendor", "[RPC] socket", "[RPC] group",
                        "[RPC] tcp_port"};
  for (std::size_t i = 0; i < events_.size(); ++i) {
    EXPECT_EQ(events_[i].type, kEventWarning);
    EXPECT_EQ(events_[i].eventCode, kEventBadConfigValue);
    ASSERT_EQ(events_[i].strings.size(), 1u);
    EXPECT_THAT(events_[i].strings[0], HasSubstr(keys[i]));
  }
  EXPECT_THAT(events_[4].strings[0], HasSubstr("\"70000\""));

  events_.clear();
  for (const char* backend : {"tpm2", "libtpms:", "swtpm:tcp:host", "swtpm:tcp::2321",
                              "swtpm:tcp:h:65536", "device:", "AUTO"}) {
    EXPECT_EQ(Read(std::string("[TPM]\nbackend=") + backend + "\n").backend, "auto") << backend;
  }
  EXPECT_EQ(events_.size(), 7u);
  events_.clear();
  EXPECT_EQ(Read("[RPC]\nsocket=/" + std::string(107, 's') + "\n").socket, "");
  EXPECT_EQ(Read("[RPC]\ntcp_port=-1\n").tcpPort, 0);
  EXPECT_EQ(Read("[RPC]\ngroup=-x\n").group, "tss");
  EXPECT_EQ(events_.size(), 3u);
}

TEST_F(ConfigTest, ShippedSampleReadsWithoutWarnings) {
  const TcsConfig config =
      ReadTcsConfig(std::string(KESTTCS_SOURCE_DIR) + "/packaging/tcs_cfg.ini");
  ExpectDefaults(config);
  EXPECT_TRUE(events_.empty());
}

}  // namespace
}  // namespace kesttcs
