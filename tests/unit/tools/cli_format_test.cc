// kesttcs-cli's argument checks and answer decoding.
#include "tools/cli_format.h"

#include <array>

#include <gtest/gtest.h>

namespace kesttcs::cli {
namespace {

TEST(CliFormatTest, DigestsNeedExactlyFortyHexDigits) {
  const std::string hex = "00112233445566778899AABBCCDDEEFF0a1b2c3d";
  std::optional<TPM_DIGEST> d = ParseDigest(hex);
  ASSERT_TRUE(d.has_value());
  EXPECT_EQ(d->digest[0], 0x00);
  EXPECT_EQ(d->digest[10], 0xAA);
  EXPECT_EQ(d->digest[19], 0x3D);
  EXPECT_EQ(HexString(d->digest), "00112233445566778899aabbccddeeff0a1b2c3d");
  EXPECT_FALSE(ParseDigest(hex.substr(1)).has_value());
  EXPECT_FALSE(ParseDigest(hex + "0").has_value());
  EXPECT_FALSE(ParseDigest("zz" + hex.substr(2)).has_value());
  EXPECT_FALSE(ParseDigest("+1" + hex.substr(2)).has_value());
  EXPECT_FALSE(ParseDigest("").has_value());
}

TEST(CliFormatTest, PowerStatesAndRestartTimesAsText) {
  EXPECT_EQ(PowerStateText(0), "running");
  EXPECT_EQ(PowerStateText(1), "held for sleep");
  EXPECT_EQ(PowerStateText(2), "resuming");
  EXPECT_EQ(PowerStateText(3), "unknown");
  EXPECT_EQ(RestartTimeText(0), "never");
  EXPECT_EQ(RestartTimeText(86400 + 3661), "1970-01-02 01:01:01 UTC");
}

TEST(CliFormatTest, NumbersAreDecimalWithinTheirRange) {
  EXPECT_EQ(ParseNumber("16", 1, 4096), 16u);
  EXPECT_EQ(ParseNumber("4096", 1, 4096), 4096u);
  EXPECT_FALSE(ParseNumber("0", 1, 4096).has_value());
  EXPECT_FALSE(ParseNumber("4097", 1, 4096).has_value());
  EXPECT_FALSE(ParseNumber("-1", 0, 10).has_value());
  EXPECT_FALSE(ParseNumber("+1", 0, 10).has_value());
  EXPECT_FALSE(ParseNumber(" 1", 0, 10).has_value());
  EXPECT_FALSE(ParseNumber("1x", 0, 10).has_value());
  EXPECT_FALSE(ParseNumber("", 0, 10).has_value());
  EXPECT_FALSE(ParseNumber("99999999999999999999", 0, 0xFFFFFFFF).has_value());
}

TEST(CliFormatTest, OrdinalsGoByTpmNameOrNumber) {
  EXPECT_EQ(ParseOrdinal("TPM_ORD_GetRandom"), 0x46u);
  EXPECT_EQ(ParseOrdinal("GetRandom"), 0x46u);
  EXPECT_EQ(ParseOrdinal("70"), 0x46u);
  EXPECT_EQ(ParseOrdinal("0x46"), 0x46u);
  EXPECT_EQ(ParseOrdinal("0X4000000A"), 0x4000000Au);
  EXPECT_FALSE(ParseOrdinal("getrandom").has_value());
  EXPECT_FALSE(ParseOrdinal("TPM_ORD_").has_value());
  EXPECT_FALSE(ParseOrdinal("0x").has_value());
  EXPECT_FALSE(ParseOrdinal("0x1g").has_value());
  EXPECT_FALSE(ParseOrdinal("0x100000000").has_value());
  EXPECT_FALSE(ParseOrdinal("").has_value());
  EXPECT_EQ(OrdinalName(0x8D), "TPM_ORD_SetOrdinalAuditStatus");
  EXPECT_EQ(OrdinalName(0x20008000), "0x20008000");
}

// The client helper's own failures are named too, not only the service's and the TPM's.
TEST(CliFormatTest, ResultsOfTheServiceTheTpmAndTheClientHelperHaveNames) {
  EXPECT_STREQ(ResultCodeName(0xE0283003), "KESTTCS_AUTH_E_CRYPTO");
  EXPECT_STREQ(ResultCodeName(0xE0283001), "KESTTCS_AUTH_E_VERIFY");
  EXPECT_STREQ(ResultCodeName(0xE0280001), "TPM_E_AUTHFAIL");
  EXPECT_STREQ(ResultCodeName(0xE0283005), "UNKNOWN");
}

TEST(CliFormatTest, AnswersDecodeOrAreRefused) {
  const std::array<BYTE, 4> one = {0, 0, 0, 24};
  EXPECT_EQ(BigEndianNumber(one), 24u);
  const std::array<BYTE, 1> flag = {1};
  EXPECT_EQ(BigEndianNumber(flag), 1u);
  EXPECT_FALSE(BigEndianNumber(std::span<const BYTE>()).has_value());
  const std::array<BYTE, 5> five = {};
  EXPECT_FALSE(BigEndianNumber(five).has_value());

  // TPM_CAP_VERSION_INFO: tag 0x0030, then the version.
  const std::array<BYTE, 8> info = {0x00, 0x30, 1, 2, 0, 133, 0, 2};
  EXPECT_EQ(VersionFromVersionInfo(info), "1.2.0.133");
  EXPECT_FALSE(VersionFromVersionInfo(std::span<const BYTE>(info).first(5)).has_value());
  EXPECT_EQ(VersionFromVersion(std::span<const BYTE>(info).subspan(2, 4)), "1.2.0.133");
  EXPECT_FALSE(VersionFromVersion(std::span<const BYTE>(info).first(3)).has_value());

  const std::array<BYTE, 4> ibm = {'I', 'B', 'M', 0};
  EXPECT_EQ(ManufacturerText(ibm), "IBM");
  const std::array<BYTE, 4> odd = {'A', 0x01, 'B', 0xFF};
  EXPECT_EQ(ManufacturerText(odd), "A\\x01B\\xff");
  const std::array<BYTE, 7> wide = {'K', 0, 'S', 0, 0x01, 0x04, 'X'};
  EXPECT_EQ(Utf16LeText(wide), "KS?");
}

}  // namespace
}  // namespace kesttcs::cli
