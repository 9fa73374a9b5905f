// The TCS command scenario every real TPM runs (libtpms in-process, swtpm over its sockets, a TDDL
// library forwarding to swtpm): start-up from a TPM that waits for TPM_Startup, the metrics of a
// fresh TPM 1.2, random numbers, PCR read/extend/reset checked against our own SHA-1, the
// endorsement key, the StirRandom size bound, capabilities, ticks, self tests, and the outputs'
// place in the client context's memory.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "commands/capability.h"
#include "commands/tcsip_keyless.h"
#include "commands/tpm_metrics.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "service/startup.h"
#include "tpm12/marshal.h"
#include "tpm12/sha1.h"

namespace kesttcs::testing {

using Bytes = std::vector<BYTE>;

// Brings `core` up (its TPM waits for TPM_Startup; tracing on) and checks that start-up ran the
// TPM start-up sequence in full: ContinueSelfTest refused, Startup(ST_CLEAR), ContinueSelfTest.
inline void StartFromPostInit(TestCore& core) {
  ASSERT_EQ(core.Start(), TSS_SUCCESS) << StartupFailureText();
  std::vector<std::string> startup;
  for (const std::string& line : core.Traces()) {
    if (line.starts_with("TCS:ContinueSelfTest") || line.starts_with("TCS:StartupTPM")) {
      startup.push_back(line);
    }
  }
  EXPECT_THAT(startup, ::testing::ElementsAre("TCS:ContinueSelfTest  result = 0xe0280026\n",
                                              "TCS:StartupTPM result = 0x00000000\n",
                                              "TCS:ContinueSelfTest  result = 0x00000000\n"));
}

inline Bytes ToBytes(const BYTE* data, UINT32 size) { return Bytes(data, data + size); }

inline TPM_DIGEST Sha1Of(const Bytes& data) {
  TPM_DIGEST digest{};
  EXPECT_EQ(SHA1(digest.digest, data.data(), static_cast<UINT32>(data.size())), 0);
  return digest;
}

inline Bytes DigestBytes(const TPM_DIGEST& d) { return Bytes(d.digest, d.digest + 20); }

// TPM_KEY_PARMS of a 2048-bit RSA endorsement key: RSA, OAEP-SHA1-MGF1, no signature scheme, then
// TPM_RSA_KEY_PARMS (2048 bits, 2 primes, default exponent).
inline const Bytes kEkKeyParms = {0, 0, 0, 1, 0, 3, 0, 1, 0, 0, 0, 12,
                                  0, 0, 8, 0, 0, 0, 0, 2, 0, 0, 0, 0};
// TPM_PUBKEY of a 2048-bit key: the parameters, then the 4-byte size and the 256-byte modulus.
constexpr UINT32 kEkPubkeySize = 24 + 4 + 256;

// Runs the scenario on a started TPM 1.2 that has no owner. `hasEk`: the TPM was manufactured
// with an endorsement key; otherwise the scenario creates it.
inline void RunCommandsScenario(bool hasEk) {
  // Metrics of a fresh TPM 1.2 (libtpms inside, whatever carries it).
  tpm_metrics metrics;
  ASSERT_EQ(get_tpm_metrics(&metrics), TSS_SUCCESS);
  EXPECT_EQ(metrics.pcrCount, 24u);
  EXPECT_EQ(metrics.dirCount, 1u);
  EXPECT_EQ(metrics.keySlots, 20u);
  EXPECT_EQ(metrics.maxAuthSessions, 16u);
  EXPECT_EQ(metrics.version.major, 1);
  EXPECT_EQ(metrics.version.minor, 2);
  EXPECT_EQ(metrics.canSaveKeyContext, 1);
  EXPECT_EQ(metrics.canSaveAuthContext, 1);
  EXPECT_EQ(std::memcmp(metrics.manufacturer.data(), "IBM", 4), 0);
  EXPECT_FALSE(isOwnVendorTpm());
  EXPECT_FALSE(tpmHasOwner());
  EXPECT_EQ(getTpmVendorClass(), kVendorOther);

  TCS_CONTEXT_HANDLE hContext = 0;
  ASSERT_EQ(Tcsi_OpenContext_Internal(&hContext), TSS_SUCCESS);
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), 0u);
  size_t blocks = 0;

  // Random numbers land in the context's memory.
  UINT32 count = 16;
  BYTE* random = nullptr;
  ASSERT_EQ(Tcsip_GetRandom_Internal(hContext, &count, &random), TSS_SUCCESS);
  EXPECT_EQ(count, 16u);
  ASSERT_NE(random, nullptr);
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), ++blocks);
  UINT32 again = 16;
  BYTE* random2 = nullptr;
  ASSERT_EQ(Tcsip_GetRandom_Internal(hContext, &again, &random2), TSS_SUCCESS);
  EXPECT_NE(ToBytes(random, 16), ToBytes(random2, 16));
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), ++blocks);

  // Extend: the new value is SHA1(old || digest), and a read agrees.
  TPM_PCRVALUE before{};
  ASSERT_EQ(Tcsip_PcrRead_Internal(hContext, 10, &before), TSS_SUCCESS);
  TPM_DIGEST measurement = Sha1Of(Bytes{'k', 'e', 's', 't'});
  TPM_PCRVALUE extended{};
  ASSERT_EQ(Tcsip_Extend_Internal(hContext, 10, measurement, &extended), TSS_SUCCESS);
  Bytes chained = DigestBytes(before);
  Bytes m = DigestBytes(measurement);
  chained.insert(chained.end(), m.begin(), m.end());
  EXPECT_EQ(DigestBytes(extended), DigestBytes(Sha1Of(chained)));
  TPM_PCRVALUE after{};
  ASSERT_EQ(Tcsip_PcrRead_Internal(hContext, 10, &after), TSS_SUCCESS);
  EXPECT_EQ(DigestBytes(after), DigestBytes(extended));
  // A PCR that does not exist: the TPM's TPM_BADINDEX, mapped.
  EXPECT_EQ(Tcsip_PcrRead_Internal(hContext, 24, &after), 0xE0280002u);

  // PCR 16 (debug) can be reset from locality 0: extend it, reset it, read zeros.
  ASSERT_EQ(Tcsip_Extend_Internal(hContext, 16, measurement, &extended), TSS_SUCCESS);
  const Bytes select16 = {0, 3, 0x00, 0x00, 0x01};
  ASSERT_EQ(
      Tcsip_PcrReset_Internal(hContext, static_cast<UINT32>(select16.size()), select16.data()),
      TSS_SUCCESS);
  ASSERT_EQ(Tcsip_PcrRead_Internal(hContext, 16, &after), TSS_SUCCESS);
  EXPECT_EQ(DigestBytes(after), Bytes(20, 0));

  // The endorsement key: created here when the TPM came without one; its checksum is
  // SHA1(pubkey || antiReplay) both when created and when read.
  TPM_NONCE antiReplay{};
  std::memset(antiReplay.nonce, 0x5A, sizeof antiReplay.nonce);
  const Bytes nonce(antiReplay.nonce, antiReplay.nonce + 20);
  UINT32 ekSize = 0;
  BYTE* ek = nullptr;
  TPM_DIGEST checksum{};
  if (!hasEk) {
    EXPECT_EQ(Tcsip_ReadPubek_Internal(hContext, antiReplay, &ekSize, &ek, &checksum),
              TpmResult(TPM_NO_ENDORSEMENT));
    EXPECT_EQ(ek, nullptr);
    ASSERT_EQ(Tcsip_CreateEndorsementKeyPair_Internal(hContext, antiReplay,
                                                      static_cast<UINT32>(kEkKeyParms.size()),
                                                      kEkKeyParms.data(), &ekSize, &ek, &checksum),
              TSS_SUCCESS);
    ASSERT_EQ(ekSize, kEkPubkeySize);
    Bytes signedPart = ToBytes(ek, ekSize);
    signedPart.insert(signedPart.end(), nonce.begin(), nonce.end());
    EXPECT_EQ(DigestBytes(checksum), DigestBytes(Sha1Of(signedPart)));
    EXPECT_EQ(ctx_CountMemoryBlocks(hContext), ++blocks);
  } else {
    // A second endorsement key is refused by the TPM.
    EXPECT_EQ(Tcsip_CreateEndorsementKeyPair_Internal(hContext, antiReplay,
                                                      static_cast<UINT32>(kEkKeyParms.size()),
                                                      kEkKeyParms.data(), &ekSize, &ek, &checksum) &
                  0xFFFFF000u,
              0xE0280000u);
  }
  Bytes created = ek != nullptr ? ToBytes(ek, ekSize) : Bytes();
  UINT32 pubekSize = 0;
  BYTE* pubek = nullptr;
  ASSERT_EQ(Tcsip_ReadPubek_Internal(hContext, antiReplay, &pubekSize, &pubek, &checksum),
            TSS_SUCCESS);
  ASSERT_EQ(pubekSize, kEkPubkeySize);
  EXPECT_EQ(ToBytes(pubek, 12), Bytes(kEkKeyParms.begin(), kEkKeyParms.begin() + 12));
  if (!created.empty()) {
    EXPECT_EQ(ToBytes(pubek, pubekSize), created);
  }
  Bytes signedPart = ToBytes(pubek, pubekSize);
  signedPart.insert(signedPart.end(), nonce.begin(), nonce.end());
  EXPECT_EQ(DigestBytes(checksum), DigestBytes(Sha1Of(signedPart)));
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), ++blocks);

  // StirRandom: 4082 bytes make a 4096-byte command and are sent (the TPM judges them); 4083 are
  // refused before marshalling.
  Bytes stir(4083, 0xA5);
  EXPECT_EQ(Tcsip_StirRandom_Internal(hContext, 16, stir.data()), TSS_SUCCESS);
  const TSS_RESULT sent = Tcsip_StirRandom_Internal(hContext, 4082, stir.data());
  EXPECT_NE(sent, TCS_E_BAD_PARAMETER);
  EXPECT_EQ(sent & 0xFFFFF000u, sent == TSS_SUCCESS ? 0u : 0xE0280000u) << std::hex << sent;
  EXPECT_EQ(Tcsip_StirRandom_Internal(hContext, 4083, stir.data()), TCS_E_BAD_PARAMETER);

  // Capabilities through the TPM, and the service's own.
  std::array<BYTE, 4> pcrProperty = {0, 0, 0x01, 0x01};
  UINT32 capSize = 0;
  BYTE* cap = nullptr;
  ASSERT_EQ(Tcsip_GetCapability_Internal(hContext, TPM_CAP_PROPERTY, 4, pcrProperty.data(),
                                         &capSize, &cap),
            TSS_SUCCESS);
  EXPECT_EQ(ToBytes(cap, capSize), (Bytes{0, 0, 0, 24}));
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), ++blocks);
  ASSERT_EQ(Tcsi_GetCapability_Internal(hContext, TSS_TCSCAP_VERSION, 0, nullptr, &capSize, &cap),
            TSS_SUCCESS);
  EXPECT_EQ(ToBytes(cap, capSize), (Bytes{2, 1, 0, 13}));
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), ++blocks);

  // Ticks: a TPM_CURRENT_TICKS (tag 0x0014), 32 bytes.
  UINT32 ticksSize = 0;
  BYTE* ticks = nullptr;
  ASSERT_EQ(Tcsip_TPM_ReadCurrentTicks_Internal(hContext, &ticksSize, &ticks), TSS_SUCCESS);
  ASSERT_EQ(ticksSize, 32u);
  EXPECT_EQ(ToBytes(ticks, 2), (Bytes{0x00, 0x14}));
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), ++blocks);

  // DIR 0 of a fresh TPM is zero; self tests pass; the test result is handed out.
  TPM_DIGEST dir{};
  ASSERT_EQ(Tcsip_DirRead_Internal(hContext, 0, &dir), TSS_SUCCESS);
  EXPECT_EQ(DigestBytes(dir), Bytes(20, 0));
  EXPECT_EQ(Tcsip_SelfTestFull_Internal(hContext), TSS_SUCCESS);
  EXPECT_EQ(Tcsip_ContinueSelfTest_Internal(hContext), TSS_SUCCESS);
  UINT32 resultSize = 0;
  BYTE* result = nullptr;
  ASSERT_EQ(Tcsip_GetTestResult_Internal(hContext, &resultSize, &result), TSS_SUCCESS);
  if (resultSize != 0) ++blocks;
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), blocks);

  // No counter was created: the TPM's TPM_BAD_COUNTER passes through, nothing allocated.
  TPM_COUNTER_VALUE counter;
  EXPECT_EQ(Tcsip_ReadCounter_Internal(hContext, 1, &counter), TpmResult(TPM_BAD_COUNTER));
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), blocks);

  // A context nobody opened reaches nothing.
  EXPECT_EQ(Tcsip_GetRandom_Internal(0xA0000001, &count, &random), TCS_E_INVALID_CONTEXT);

  // Closing the context frees every output block.
  ASSERT_EQ(Tcsi_CloseContext_Internal(hContext), TSS_SUCCESS);
  EXPECT_EQ(ctx_CountMemoryBlocks(hContext), 0u);
  EXPECT_EQ(ctx_CountAllMemoryBlocks(), 0u);
}

}  // namespace kesttcs::testing
