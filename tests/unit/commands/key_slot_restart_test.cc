// A keyed command whose key slot was looked up before the TPM restarted (a sleep came between the
// look-up and the exchange) must not reach the TPM with that slot: the restarted TPM has lost the
// key, and the slot may by then name another one. The command loads the key again and sends the
// new slot, wherever among the parameters it goes. Single-threaded on the scripted TPM: the sleep
// runs between the command's two steps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/key_loading.h"
#include "keys/mem_cache.h"
#include "service/startup.h"
#include "storage/persistent_storage.h"
#include "storage/test_keys.h"
#include "tpm/power_state.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

using Bytes = std::vector<BYTE>;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Bytes U32(UINT32 v) { return {BYTE(v >> 24), BYTE(v >> 16), BYTE(v >> 8), BYTE(v)}; }
UINT32 U32At(const Bytes& b, size_t offset) {
  return UINT32(b[offset]) << 24 | UINT32(b[offset + 1]) << 16 | UINT32(b[offset + 2]) << 8 |
         b[offset + 3];
}

class KeySlotRestartTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS) << StartupFailureText();
    ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
  }
  void TearDown() override { EXPECT_THAT(core_.fake().Mismatches(), IsEmpty()); }

  void Answer(UINT32 ordinal, const Bytes& body = {}) {
    core_.fake().Expect({FakeTpmBackend::Response(TPM_SUCCESS, body), TSS_SUCCESS, ordinal});
  }
  void AnswerKeyHandles(const std::vector<TPM_KEY_HANDLE>& handles) {
    Bytes body = U32(UINT32(2 + 4 * handles.size()));
    body.insert(body.end(), {0, BYTE(handles.size())});
    for (TPM_KEY_HANDLE h : handles) {
      const Bytes b = U32(h);
      body.insert(body.end(), b.begin(), b.end());
    }
    Answer(TPM_ORD_GetCapability, body);
  }
  // Room, the service's own OIAP session on the SRK, the authorised LoadKey2 giving `slot`.
  void AnswerSrkLoad(TPM_KEY_HANDLE slot) {
    Answer(TPM_ORD_GetCapability, Bytes{0, 0, 0, 1, 1});
    Bytes oiap = U32(0x02000000 + slot);
    oiap.insert(oiap.end(), 20, 0x11);
    Answer(TPM_ORD_OIAP, oiap);
    Bytes load = U32(slot);
    load.insert(load.end(), 41, 0);
    Answer(TPM_ORD_LoadKey2, load);
  }

  testing::TestCore core_{testing::CoreOptions().Owned()};
  TCS_CONTEXT_HANDLE ctx_ = 0;
};

TEST_F(KeySlotRestartTest, AKeySlotLookedUpBeforeARestartIsLookedUpAgainBeforeTheCommandIsSent) {
  const Bytes blob = testing::KeyBlob({.fill = 7, .authDataUsage = 0, .keyUsage = 0x0010});
  AnswerSrkLoad(0x01000001);
  TCS_KEY_HANDLE key = 0;
  ASSERT_EQ(Tcsip_LoadKey2ByBlob_Internal(ctx_, kSrkKeyHandle, UINT32(blob.size()), blob.data(),
                                          nullptr, &key),
            TSS_SUCCESS);

  // The slot goes after a 16-bit entity type, as OSAP sends a key entity.
  TpmCommand command(ctx_, TPM_ORD_OSAP);
  ASSERT_EQ(command.Check(), TSS_SUCCESS);
  TPM_KEY_HANDLE slot = 0;
  AnswerKeyHandles({0x01000001});
  ASSERT_EQ(command.UseKey(key, &slot, sizeof(TPM_ENTITY_TYPE)), TSS_SUCCESS);
  EXPECT_EQ(slot, 0x01000001u);

  // The sleep: the restarted TPM holds no keys.
  ASSERT_EQ(CanIntoS3S4(), 0u);
  GotoS3S4();
  Answer(TPM_ORD_ContinueSelfTest);
  AnswerKeyHandles({});
  S3S4Return();

  const size_t before = core_.OrdinalsAfterStart().size();
  AnswerSrkLoad(0x01000002);
  Answer(TPM_ORD_OSAP);
  EXPECT_EQ(command.Run(TPM_TAG_RQU_COMMAND, TPM_ENTITY_TYPE{TPM_ET_KEYHANDLE}, slot), TSS_SUCCESS);
  const std::vector<UINT32> ordinals = core_.OrdinalsAfterStart();
  EXPECT_THAT(std::vector<UINT32>(ordinals.begin() + std::ptrdiff_t(before), ordinals.end()),
              ElementsAre(TPM_ORD_GetCapability, TPM_ORD_OIAP, TPM_ORD_LoadKey2, TPM_ORD_OSAP));
  const Bytes sent = core_.SentAfterStart().back();
  EXPECT_EQ(U32At(sent, 12), 0x01000002u);
  EXPECT_EQ(sent[11], TPM_ET_KEYHANDLE);
  EXPECT_EQ(getSlotByHandle(key), 0x01000002u);
}

}  // namespace
}  // namespace kesttcs
