// Authorisation sessions in the embedded libtpms TPM 1.2: a context opens as many OIAP sessions as
// the TPM holds, ends one, and closing the context leaves no session in the TPM, as the TPM's own
// handle list shows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include <kesttcs/tcs_results.h>

#include "commands/tcsip_keyless.h"
#include "commands/tcsip_sessions.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/auth_mgr.h"
#include "service/startup.h"
#include "tpm12/marshal.h"

namespace kesttcs::testing {
namespace {

using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

constexpr TPM_CAPABILITY_AREA TPM_CAP_HANDLE = 0x14;

// The authorisation sessions the TPM holds (TPM_CAP_HANDLE, TPM_RT_AUTH), asked under `hContext`.
std::vector<TCS_AUTHHANDLE> TpmAuthHandles(TCS_CONTEXT_HANDLE hContext) {
  const BYTE rtAuth[4] = {0, 0, 0, 2};
  UINT32 size = 0;
  BYTE* answer = nullptr;
  EXPECT_EQ(Tcsip_GetCapability_Internal(hContext, TPM_CAP_HANDLE, 4, rtAuth, &size, &answer),
            TSS_SUCCESS);
  BlobReader reader(std::span<const BYTE>(answer, size));
  UINT16 count = 0;
  EXPECT_EQ(UnloadBlob(reader, &count), TSS_SUCCESS);
  std::vector<TCS_AUTHHANDLE> handles(count);
  for (TCS_AUTHHANDLE& handle : handles) EXPECT_EQ(UnloadBlob(reader, &handle), TSS_SUCCESS);
  return handles;
}

TEST(SessionsLibtpmsTest, ClosingAContextEndsEverySessionItOpened) {
  TestCore core(CoreOptions().Backend("libtpms"));
  ASSERT_EQ(core.Start(), TSS_SUCCESS) << StartupFailureText();
  TCS_CONTEXT_HANDLE client = 0;
  TCS_CONTEXT_HANDLE observer = 0;
  ASSERT_EQ(Tcsi_OpenContext_Internal(&client), TSS_SUCCESS);
  ASSERT_EQ(Tcsi_OpenContext_Internal(&observer), TSS_SUCCESS);
  ASSERT_THAT(TpmAuthHandles(observer), IsEmpty());

  // The per-context limit of the table only logs its refusal: all 16 of the TPM's sessions open.
  const auto maxSessions = static_cast<size_t>(auth_mgr_snapshot().maxSessions);
  ASSERT_EQ(maxSessions, kAuthTableEntries);
  std::vector<TCS_AUTHHANDLE> opened;
  TPM_NONCE nonceEven{};
  for (size_t i = 0; i < maxSessions; ++i) {
    TCS_AUTHHANDLE handle = 0;
    ASSERT_EQ(Tcsip_OIAP_Internal(client, &handle, &nonceEven), TSS_SUCCESS) << i;
    opened.push_back(handle);
  }
  // The TPM itself refuses one more; the table is unchanged.
  TCS_AUTHHANDLE refused = 0;
  EXPECT_NE(Tcsip_OIAP_Internal(client, &refused, &nonceEven), TSS_SUCCESS);
  EXPECT_EQ(auth_mgr_snapshot().usedSessions, static_cast<int16_t>(maxSessions));
  EXPECT_THAT(TpmAuthHandles(observer), UnorderedElementsAreArray(opened));

  // Another context cannot end the client's session; the client can.
  EXPECT_EQ(Tcsip_TerminateHandle_Internal(observer, opened[0]), TCS_E_INTERNAL_ERROR);
  EXPECT_EQ(Tcsip_TerminateHandle_Internal(client, opened[0]), TSS_SUCCESS);
  opened.erase(opened.begin());
  EXPECT_THAT(TpmAuthHandles(observer), UnorderedElementsAreArray(opened));

  ASSERT_EQ(Tcsi_CloseContext_Internal(client), TSS_SUCCESS);
  EXPECT_THAT(TpmAuthHandles(observer), IsEmpty());
  EXPECT_EQ(auth_mgr_snapshot().usedSessions, 0);
}

}  // namespace
}  // namespace kesttcs::testing
