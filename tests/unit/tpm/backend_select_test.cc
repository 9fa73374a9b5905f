// Choosing a TPM backend from its configuration string, and the TPM 1.2 check made at open.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include "tpm/fake_tpm_backend.h"
#include "tpm/tpm_backend.h"

namespace kesttcs {
namespace {

using ::testing::HasSubstr;

std::string Chosen(std::string_view config) {
  std::string error;
  std::unique_ptr<TpmBackend> backend = CreateTpmBackend(config, "/home/kt", &error);
  EXPECT_NE(backend, nullptr) << error;
  return backend ? backend->Describe() : "";
}

std::string Refusal(std::string_view config) {
  std::string error;
  EXPECT_EQ(CreateTpmBackend(config, "/home/kt", &error), nullptr) << config;
  return error;
}

TEST(BackendSelectTest, GoodStrings) {
  EXPECT_EQ(Chosen("auto"),
            ::access("/dev/tpm0", F_OK) == 0 ? "device:/dev/tpm0" : "libtpms:/home/kt/tpm");
  EXPECT_EQ(Chosen("libtpms"), "libtpms:/home/kt/tpm");
  EXPECT_EQ(Chosen("libtpms:/var/lib/tpm"), "libtpms:/var/lib/tpm");
  EXPECT_EQ(Chosen("swtpm:tcp:localhost:2321"), "swtpm:tcp:localhost:2321:2322");
  EXPECT_EQ(Chosen("swtpm:tcp:127.0.0.1:2321:4000"), "swtpm:tcp:127.0.0.1:2321:4000");
  EXPECT_EQ(Chosen("swtpm:tcp:[::1]:2321"), "swtpm:tcp:::1:2321:2322");
  EXPECT_EQ(Chosen("swtpm:unix:/run/swtpm.sock"),
            "swtpm:unix:/run/swtpm.sock,/run/swtpm.sock.ctrl");
  EXPECT_EQ(Chosen("swtpm:unix:/run/d,/run/c"), "swtpm:unix:/run/d,/run/c");
  EXPECT_EQ(Chosen("device:/dev/tpm1"), "device:/dev/tpm1");
  EXPECT_EQ(Chosen("tddl:/usr/lib/libtddl.so"), "tddl:/usr/lib/libtddl.so");
}

TEST(BackendSelectTest, BadStringsSayWhatIsWrongAndWhatWouldDo) {
  struct Case {
    const char* config;
    const char* why;
  };
  for (const Case& c : {Case{"", "unknown kind"},
                        Case{"tpm2", "unknown kind"},
                        Case{"Auto", "unknown kind"},
                        Case{"libtpms:", "empty state directory"},
                        Case{"swtpm", "unknown kind"},
                        Case{"swtpm:", "tcp: or unix:"},
                        Case{"swtpm:udp:x:1", "tcp: or unix:"},
                        Case{"swtpm:tcp:", "missing host"},
                        Case{"swtpm:tcp:host", "missing port"},
                        Case{"swtpm:tcp:host:", "bad port"},
                        Case{"swtpm:tcp:host:0", "bad port"},
                        Case{"swtpm:tcp:host:65536", "bad port"},
                        Case{"swtpm:tcp:host:12x", "bad port"},
                        Case{"swtpm:tcp:host:65535", "no control port"},
                        Case{"swtpm:tcp:host:1:x", "bad control port"},
                        Case{"swtpm:tcp:[::1:5", "unclosed"},
                        Case{"swtpm:unix:", "empty socket path"},
                        Case{"swtpm:unix:/a,", "empty socket path"},
                        Case{"device:", "empty device path"},
                        Case{"tddl:", "empty library path"}}) {
    std::string error = Refusal(c.config);
    EXPECT_THAT(error, HasSubstr("bad TPM backend \"" + std::string(c.config) + "\"")) << c.config;
    EXPECT_THAT(error, HasSubstr(c.why)) << c.config;
    EXPECT_THAT(error, HasSubstr("expected auto, libtpms[:DIR], swtpm:tcp:HOST:PORT")) << c.config;
  }
}

TEST(BackendSelectTest, Tpm2AnswersAreRefusedAtOpen) {
  struct Case {
    std::vector<BYTE> answer;
    TSS_RESULT expected;
    const char* says;
  };
  std::vector<BYTE> tpm2Tag = {0x80, 0x01, 0, 0, 0, 10, 0, 0, 0x01, 0x00};
  std::vector<BYTE> badTag = FakeTpmBackend::Response(TPM_BADTAG);
  std::vector<BYTE> tpm2Code = FakeTpmBackend::Response(0x0000014B);  // format-zero, version bit
  std::vector<BYTE> postinit = FakeTpmBackend::Response(TPM_INVALID_POSTINIT);
  std::vector<BYTE> retry = FakeTpmBackend::Response(TPM_RETRY);
  std::vector<BYTE> vendor = FakeTpmBackend::Response(0x00000480);
  std::vector<BYTE> shortAnswer = {0x00, 0xC4, 0, 0};
  std::vector<BYTE> oddTag = FakeTpmBackend::Response(0);
  oddTag[1] = 0xC5;
  for (const Case& c : {Case{tpm2Tag, kDriverFail, "TPM 2.0"}, Case{badTag, kDriverFail, "TPM 2.0"},
                        Case{tpm2Code, kDriverFail, "TPM 2.0"}, Case{postinit, TSS_SUCCESS, ""},
                        Case{retry, TSS_SUCCESS, ""}, Case{vendor, TSS_SUCCESS, ""},
                        Case{shortAnswer, kDriverFail, "too short"},
                        Case{oddTag, kDriverFail, "unknown tag 0x00C5"}}) {
    FakeTpmBackend tpm;
    ASSERT_EQ(tpm.Open(), TSS_SUCCESS);
    tpm.Expect({c.answer, TSS_SUCCESS, 0x65});
    std::string error;
    EXPECT_EQ(CheckAnswersAsTpm12(tpm, &error), c.expected) << c.says;
    EXPECT_THAT(error, HasSubstr(c.says));
    EXPECT_TRUE(tpm.Mismatches().empty());
  }
  FakeTpmBackend silent;
  ASSERT_EQ(silent.Open(), TSS_SUCCESS);
  silent.Fail(kDriverIoError);
  std::string error;
  EXPECT_EQ(CheckAnswersAsTpm12(silent, &error), kDriverIoError);
  EXPECT_THAT(error, HasSubstr("no answer"));
}

TEST(BackendSelectTest, ClosedBackendsRefuseExchanges) {
  std::string error;
  for (const char* config :
       {"swtpm:unix:/nonexistent/sock", "device:/nonexistent/tpm0", "swtpm:tcp:127.0.0.1:1"}) {
    std::unique_ptr<TpmBackend> backend = CreateTpmBackend(config, "/tmp", &error);
    ASSERT_NE(backend, nullptr);
    std::array<BYTE, 10> in{};
    std::array<BYTE, 64> out{};
    UINT32 outLen = 5;
    EXPECT_EQ(backend->Transmit(in, out, &outLen, kPriorityNormal), kDriverNotOpen) << config;
    EXPECT_EQ(outLen, 0u);
    EXPECT_EQ(backend->Cancel(), kDriverNotOpen) << config;
    EXPECT_EQ(backend->Close(), kDriverAlreadyClosed) << config;
    EXPECT_EQ(backend->Open(), kDriverIoError) << config;
    EXPECT_FALSE(backend->LastError().empty()) << config;
  }
}

}  // namespace
}  // namespace kesttcs
