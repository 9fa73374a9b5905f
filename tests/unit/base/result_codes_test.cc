#include <kesttcs/tcs_results.h>

#include <gtest/gtest.h>

namespace kesttcs {
namespace {

TEST(ResultCodesTest, ServiceCodesCarryTheirLayer) {
  EXPECT_EQ(TCS_E_INVALID_CONTEXT, 0xE02820C1u);
  EXPECT_EQ(TCS_E_INVALID_CONTEXT & 0xF000u, kTcsLayerService);
  EXPECT_EQ(TCS_E_DRIVER_NOT_AVAILABLE & 0xF000u, kTcsLayerDriver);
  EXPECT_EQ(TpmResult(TPM_BAD_MODE), 0xE028002Cu);
  EXPECT_EQ(TpmResult(TPM_SUCCESS), TSS_SUCCESS);
  EXPECT_TRUE(IsTcsFamily(TpmResult(TPM_RETRY)));
  EXPECT_FALSE(IsTcsFamily(0x80280400u));
}

TEST(ResultCodesTest, NamesForLogsAndTools) {
  EXPECT_STREQ(ResultName(TSS_SUCCESS), "TSS_SUCCESS");
  EXPECT_STREQ(ResultName(0xE02820C1), "TCS_E_INVALID_CONTEXT");
  EXPECT_STREQ(ResultName(0xE0281087), "TCS_E_DRIVER_NOT_AVAILABLE");
  EXPECT_STREQ(ResultName(0xE0281082), "TDDL_E_ALREADY_CLOSED");
  EXPECT_STREQ(ResultName(0xE0280026), "TPM_E_INVALID_POSTINIT");
  EXPECT_STREQ(ResultName(0xE0280800), "TPM_E_RETRY");
  EXPECT_STREQ(ResultName(0xE0280063), "TPM_E_NOCONTEXTSPACE");
  EXPECT_STREQ(ResultName(0xE0280060), "UNKNOWN");  // a gap in the TPM table
  EXPECT_STREQ(ResultName(0x12345678), "UNKNOWN");
  EXPECT_STREQ(ResultText(0xE0282006), "not implemented");
  EXPECT_STREQ(ResultText(0x12345678), "unknown result");
}

}  // namespace
}  // namespace kesttcs
