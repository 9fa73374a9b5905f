// The authorisation helper as libkesttcs-client exports it, used as a C caller would: the header's
// own example (compiled as C from the header comment), and sessions ended when the service cannot
// be reached.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

extern "C" TSS_RESULT ReadOwnerFlags(TCS_CONTEXT_HANDLE hContext, UINT32* nonVolatile,
                                     UINT32* volatileFlags);

namespace kesttcs {
namespace {

// Points the library at an endpoint where nothing listens.
class AuthClientTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("KESTTCS_ENDPOINT", "unix:/nonexistent/kesttcs/KestTCS", 1); }
  void TearDown() override { unsetenv("KESTTCS_ENDPOINT"); }
};

TEST_F(AuthClientTest, TheHeaderExampleFailsCleanlyWithoutTheService) {
  UINT32 nonVolatile = 0;
  UINT32 volatileFlags = 0;
  EXPECT_EQ(ReadOwnerFlags(0x12345678, &nonVolatile, &volatileFlags), TCS_E_COMM_FAILURE);
}

TEST_F(AuthClientTest, SessionsOpenOnlyThroughTheServiceAndCloseEvenWhenItIsGone) {
  TPM_SECRET secret;
  KestAuth_WellKnownSecret(&secret);
  KESTTCS_AUTH_SESSION s;
  std::memset(&s, 0, sizeof s);
  EXPECT_EQ(KestAuth_OpenOIAP(1, &secret, &s), TCS_E_COMM_FAILURE);
  EXPECT_EQ(KestAuth_OpenOSAP(1, KESTTCS_ET_OWNER, 0, &secret, &s), TCS_E_COMM_FAILURE);
  const BYTE row[4] = {0, 0, 0, 1};
  EXPECT_EQ(KestAuth_OpenDSAP(1, KESTTCS_ET_DEL_ROW, 0, sizeof row, row, &secret, &s),
            TCS_E_COMM_FAILURE);
  EXPECT_EQ(s.kind, 0u);  // nothing set up from a call that failed

  EXPECT_EQ(KestAuth_OpenOIAP(1, nullptr, &s), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_OpenOSAP(1, KESTTCS_ET_OWNER, 0, &secret, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_OpenDSAP(1, KESTTCS_ET_DEL_ROW, 0, 4, nullptr, &secret, &s),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_Close(1, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_Close(1, &s), TSS_SUCCESS);  // never begun: nothing to end, no call

  // An open session whose end cannot reach the service is closed here all the same, its key gone.
  const TPM_NONCE nonce{};
  const TPM_SECRET key = {{1, 2, 3}};
  ASSERT_EQ(KestAuth_BeginOIAP(&s, 0x02000007, &nonce, &key), TSS_SUCCESS);
  EXPECT_EQ(KestAuth_Close(1, &s), TCS_E_COMM_FAILURE);
  EXPECT_FALSE(s.open);
  EXPECT_EQ(s.handle, 0x02000007u);
  EXPECT_EQ(std::vector<BYTE>(s.key.authdata, s.key.authdata + 20), std::vector<BYTE>(20, 0));
  TPM_AUTH auth;
  EXPECT_EQ(KestAuth_Authorize(&s, 1, nullptr, 0, 1, &auth), KESTTCS_AUTH_E_CLOSED);
  EXPECT_EQ(KestAuth_Close(1, &s), TSS_SUCCESS);  // already ended
}

}  // namespace
}  // namespace kesttcs
