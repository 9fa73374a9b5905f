// NV storage and monotonic counters through the real kesttcsd and the client library, on the
// embedded libtpms TPM with an owner (owner secret well known, taken by kesttcs-cli provision):
// spaces defined and released under the owner's OSAP session, written and read with the owner's
// secret, with the space's own secret and without authorisation; counters created, incremented
// across a daemon restart and released both ways; kesttcs-cli's nv and counter commands. Every
// authorised answer's HMAC is checked, so a command sent with another ordinal than the one the
// client authorised would be refused.
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "daemon_process.h"
#include "kesttcsd_process.h"
#include "owner_authorised.h"

namespace kesttcs::testing {
namespace {

using daemon_process::WriteFile;
using ::testing::HasSubstr;

constexpr UINT32 kNvIndexLock = 0xFFFFFFFF;
constexpr UINT32 kAuthSpace = 0x00011101;
constexpr UINT32 kOwnerSpace = 0x00011102;
constexpr UINT32 kPerAuthRead = 0x00040000;
constexpr UINT32 kPerAuthWrite = 0x00000004;
constexpr UINT32 kPerOwnerWrite = 0x00000002;

// TPM_NV_DATA_PUBLIC: no PCR binding (an empty selection, any locality), the attributes, no
// per-boot locks, `size` bytes.
ByteVector NvPublic(UINT32 index, UINT32 attributes, UINT32 size) {
  Params p;
  p.U16(0x0018).U32(index);
  for (int i = 0; i < 2; ++i) p.U16(3).U8(0).U8(0).U8(0).U8(0x1F).Raw(ByteVector(20, 0));
  p.U16(0x0017).U32(attributes).U8(0).U8(0).U8(0).U32(size);
  return p.get();
}

// Tcsip_NV_DefineOrReleaseSpace under an owner OSAP session, the space's secret sent by ADIP.
TSS_RESULT DefineSpace(TCS_CONTEXT_HANDLE h, ByteVector pub, const TPM_SECRET& spaceSecret) {
  const TPM_SECRET owner = WellKnownSecret();
  KESTTCS_AUTH_SESSION s{};
  if (TSS_RESULT r = KestAuth_OpenOSAP(h, KESTTCS_ET_OWNER, 0, &owner, &s)) return r;
  TPM_ENCAUTH encAuth{};
  EXPECT_EQ(KestAuth_EncAuth(&s, &spaceSecret, KESTTCS_ADIP_EVEN, &encAuth), TSS_SUCCESS);
  return Authorised(h, s, TPM_ORD_NV_DefineSpace, Params().Raw(pub).Fixed(encAuth).get(),
                    [&](TPM_AUTH* auth, ByteVector*) {
                      return Tcsip_NV_DefineOrReleaseSpace(h, UINT32(pub.size()), pub.data(),
                                                           encAuth, auth);
                    });
}

// Writes `data` at `offset` of `index`: TPM_NV_WriteValueAuth with the space's secret, or
// TPM_NV_WriteValue with the owner's (`secret` the well-known one) or with none (null).
TSS_RESULT Write(TCS_CONTEXT_HANDLE h, UINT32 index, UINT32 offset, ByteVector data,
                 const TPM_SECRET* secret, bool spaceAuth) {
  const UINT32 size = UINT32(data.size());
  if (secret == nullptr) return Tcsip_NV_WriteValue(h, index, offset, size, data.data(), nullptr);
  const UINT32 ordinal = spaceAuth ? TPM_ORD_NV_WriteValueAuth : TPM_ORD_NV_WriteValue;
  return OverOiap(h, *secret, ordinal, Params().U32(index).U32(offset).U32(size).Raw(data).get(),
                  [&](TPM_AUTH* auth, ByteVector*) {
                    return spaceAuth
                               ? Tcsip_NV_WriteValueAuth(h, index, offset, size, data.data(), auth)
                               : Tcsip_NV_WriteValue(h, index, offset, size, data.data(), auth);
                  });
}

// Reads `size` bytes from `offset` of `index`, authorised as Write is.
TSS_RESULT Read(TCS_CONTEXT_HANDLE h, UINT32 index, UINT32 offset, UINT32 size,
                const TPM_SECRET* secret, bool spaceAuth, ByteVector* data) {
  BYTE* out = nullptr;
  if (secret == nullptr) {
    const TSS_RESULT r = Tcsip_NV_ReadValue(h, index, offset, &size, nullptr, &out);
    *data = Take(out, r == TSS_SUCCESS ? size : 0);
    return r;
  }
  const UINT32 ordinal = spaceAuth ? TPM_ORD_NV_ReadValueAuth : TPM_ORD_NV_ReadValue;
  return OverOiap(h, *secret, ordinal, Params().U32(index).U32(offset).U32(size).get(),
                  [&](TPM_AUTH* auth, ByteVector* outParams) {
                    const TSS_RESULT r =
                        spaceAuth ? Tcsip_NV_ReadValueAuth(h, index, offset, &size, auth, &out)
                                  : Tcsip_NV_ReadValue(h, index, offset, &size, auth, &out);
                    if (r != TSS_SUCCESS) return r;
                    *data = Take(out, size);
                    *outParams = Params().U32(size).Raw(*data).get();
                    return r;
                  });
}

ByteVector CounterBytes(const TPM_COUNTER_VALUE& v) {
  return Params().U16(v.tag).Raw(ByteVector(v.label, v.label + 4)).U32(v.counter).get();
}

// Tcsip_CreateCounter under an owner OSAP session, the counter's secret sent by ADIP.
TSS_RESULT CreateCounter(TCS_CONTEXT_HANDLE h, const TPM_SECRET& counterSecret, UINT32* id,
                         TPM_COUNTER_VALUE* value) {
  const TPM_SECRET owner = WellKnownSecret();
  KESTTCS_AUTH_SESSION s{};
  if (TSS_RESULT r = KestAuth_OpenOSAP(h, KESTTCS_ET_OWNER, 0, &owner, &s)) return r;
  TPM_ENCAUTH encAuth{};
  EXPECT_EQ(KestAuth_EncAuth(&s, &counterSecret, KESTTCS_ADIP_EVEN, &encAuth), TSS_SUCCESS);
  ByteVector label = {'K', 'E', 'S', 'T'};
  return Authorised(h, s, TPM_ORD_CreateCounter, Params().Fixed(encAuth).Raw(label).get(),
                    [&](TPM_AUTH* auth, ByteVector* out) {
                      const TSS_RESULT r =
                          Tcsip_CreateCounter(h, 4, label.data(), encAuth, auth, id, value);
                      *out = Params().U32(*id).Raw(CounterBytes(*value)).get();
                      return r;
                    });
}

TSS_RESULT Increment(TCS_CONTEXT_HANDLE h, UINT32 id, const TPM_SECRET& secret,
                     TPM_COUNTER_VALUE* value) {
  return OverOiap(h, secret, TPM_ORD_IncrementCounter, Params().U32(id).get(),
                  [&](TPM_AUTH* auth, ByteVector* out) {
                    const TSS_RESULT r = Tcsip_IncrementCounter(h, id, auth, value);
                    *out = CounterBytes(*value);
                    return r;
                  });
}

UINT32 ReadCounter(TCS_CONTEXT_HANDLE h, UINT32 id) {
  TPM_COUNTER_VALUE value{};
  EXPECT_EQ(Tcsip_ReadCounter(h, id, &value), TSS_SUCCESS);
  return value.counter;
}

class NvCountersTest : public ::testing::Test {
 protected:
  fs::path Home() const { return fs::path(dir_.path()) / "home"; }
  std::pair<int, std::string> Cli(const std::vector<std::string>& args) {
    return RunKesttcsCli(args, daemon_.socket(), fs::path(dir_.path()) / "cli.txt");
  }
  // An owner with the well-known secret, taken through kesttcs-cli.
  void SetUp() override {
    ASSERT_TRUE(daemon_.Start());
    auto [status, text] = Cli({"provision"});
    ASSERT_EQ(status, 0) << text;
    ASSERT_EQ(Tcsi_OpenContext(&h_), TSS_SUCCESS);
  }

  TempDir dir_;
  KesttcsdProcess daemon_{Home(), /*owned=*/false};
  TCS_CONTEXT_HANDLE h_ = 0;
};

TEST_F(NvCountersTest, SpacesAreDefinedWrittenReadAndReleased) {
  const TPM_SECRET owner = WellKnownSecret();
  const TPM_SECRET spaceSecret = SecretOf("space secret");
  const TPM_SECRET wrong = SecretOf("not the space secret");

  // Locking NV storage needs no session; from then on the TPM checks every space's permissions.
  TPM_ENCAUTH none{};
  ByteVector lock = NvPublic(kNvIndexLock, 0, 0);
  ASSERT_EQ(Tcsip_NV_DefineOrReleaseSpace(h_, UINT32(lock.size()), lock.data(), none, nullptr),
            TSS_SUCCESS);

  // A space of its own secret: written and read with it, refused with another.
  ASSERT_EQ(DefineSpace(h_, NvPublic(kAuthSpace, kPerAuthRead | kPerAuthWrite, 32), spaceSecret),
            TSS_SUCCESS);
  const ByteVector hello = {'h', 'e', 'l', 'l', 'o'};
  EXPECT_EQ(Write(h_, kAuthSpace, 4, hello, &spaceSecret, true), TSS_SUCCESS);
  EXPECT_EQ(Write(h_, kAuthSpace, 0, hello, &wrong, true), TpmResult(TPM_AUTHFAIL));
  ByteVector read;
  EXPECT_EQ(Read(h_, kAuthSpace, 4, 5, &spaceSecret, true, &read), TSS_SUCCESS);
  EXPECT_EQ(read, hello);
  EXPECT_EQ(Read(h_, kAuthSpace, 0, 5, &wrong, true, &read), TpmResult(TPM_AUTHFAIL));
  EXPECT_EQ(Read(h_, kAuthSpace, 30, 5, &spaceSecret, true, &read), TpmResult(TPM_NOSPACE));
  EXPECT_EQ(Read(h_, kAuthSpace, 0, 5, nullptr, false, &read), TpmResult(TPM_AUTH_CONFLICT));

  // An owner-written space that anyone reads.
  ASSERT_EQ(DefineSpace(h_, NvPublic(kOwnerSpace, kPerOwnerWrite, 16), spaceSecret), TSS_SUCCESS);
  const ByteVector data = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  EXPECT_EQ(Write(h_, kOwnerSpace, 0, data, &owner, false), TSS_SUCCESS);
  EXPECT_EQ(Write(h_, kOwnerSpace, 0, data, nullptr, false), TpmResult(TPM_AUTH_CONFLICT));
  EXPECT_EQ(Read(h_, kOwnerSpace, 0, 16, nullptr, false, &read), TSS_SUCCESS);
  EXPECT_EQ(read, data);
  EXPECT_EQ(Read(h_, kOwnerSpace, 8, 8, &owner, false, &read), TpmResult(TPM_AUTH_CONFLICT));

  // A public area with data size 0 releases the space.
  for (UINT32 index : {kAuthSpace, kOwnerSpace}) {
    ASSERT_EQ(DefineSpace(h_, NvPublic(index, kPerOwnerWrite, 0), spaceSecret), TSS_SUCCESS);
    EXPECT_EQ(Read(h_, index, 0, 1, nullptr, false, &read), TpmResult(TPM_BADINDEX));
  }
  // Data beyond the command buffer never reaches the TPM.
  ByteVector huge(4096 - 22 + 1);
  EXPECT_EQ(Tcsip_NV_WriteValue(h_, kOwnerSpace, 0, UINT32(huge.size()), huge.data(), nullptr),
            TCS_E_BAD_PARAMETER);
}

TEST_F(NvCountersTest, CounterIncrementsAcrossARestartAndIsReleased) {
  const TPM_SECRET counterSecret = SecretOf("counter secret");
  UINT32 id = 0;
  TPM_COUNTER_VALUE value{};
  ASSERT_EQ(CreateCounter(h_, counterSecret, &id, &value), TSS_SUCCESS);
  EXPECT_EQ(std::memcmp(value.label, "KEST", 4), 0);
  const UINT32 start = value.counter;
  EXPECT_EQ(ReadCounter(h_, id), start);
  ASSERT_EQ(Increment(h_, id, counterSecret, &value), TSS_SUCCESS);
  EXPECT_EQ(value.counter, start + 1);
  EXPECT_EQ(Increment(h_, id, SecretOf("wrong"), &value), TpmResult(TPM_AUTHFAIL));

  // The TPM's state lives in the daemon's home: a new daemon finds the counter where it was.
  ASSERT_EQ(daemon_.Stop(), 0);
  ASSERT_TRUE(daemon_.Start());
  ASSERT_EQ(Tcsi_OpenContext(&h_), TSS_SUCCESS);
  EXPECT_EQ(ReadCounter(h_, id), start + 1);
  ASSERT_EQ(Increment(h_, id, counterSecret, &value), TSS_SUCCESS);
  EXPECT_EQ(value.counter, start + 2);
  EXPECT_EQ(ReadCounter(h_, id), start + 2);

  EXPECT_EQ(
      OverOiap(h_, SecretOf("wrong"), TPM_ORD_ReleaseCounter, Params().U32(id).get(),
               [&](TPM_AUTH* auth, ByteVector*) { return Tcsip_ReleaseCounter(h_, id, auth); }),
      TpmResult(TPM_AUTHFAIL));
  EXPECT_EQ(
      OverOiap(h_, counterSecret, TPM_ORD_ReleaseCounter, Params().U32(id).get(),
               [&](TPM_AUTH* auth, ByteVector*) { return Tcsip_ReleaseCounter(h_, id, auth); }),
      TSS_SUCCESS);
  TPM_COUNTER_VALUE gone{};
  EXPECT_EQ(Tcsip_ReadCounter(h_, id, &gone), TpmResult(TPM_BAD_COUNTER));

  // Releasing with the owner's session sends TPM_ReleaseCounter's ordinal: the TPM takes the
  // caller's HMAC over 0xDF, which it checks with the counter's secret (here the owner's).
  const TPM_SECRET owner = WellKnownSecret();
  ASSERT_EQ(CreateCounter(h_, owner, &id, &value), TSS_SUCCESS);
  EXPECT_EQ(OverOiap(h_, owner, TPM_ORD_ReleaseCounterOwner, Params().U32(id).get(),
                     [&](TPM_AUTH* auth, ByteVector*) {
                       return Tcsip_ReleaseCounterOwner(h_, id, auth);
                     }),
            TpmResult(TPM_AUTHFAIL))
      << "an HMAC over 0xE0 does not match the command sent";
  EXPECT_EQ(OverOiap(h_, owner, TPM_ORD_ReleaseCounter, Params().U32(id).get(),
                     [&](TPM_AUTH* auth, ByteVector*) {
                       return Tcsip_ReleaseCounterOwner(h_, id, auth);
                     }),
            TSS_SUCCESS);
  EXPECT_EQ(Tcsip_ReadCounter(h_, id, &gone), TpmResult(TPM_BAD_COUNTER));
}

TEST_F(NvCountersTest, CliDefinesWritesReadsAndReleasesSpacesAndCountsCounters) {
  // With NV storage unlocked the TPM checks no permissions; lock it as a platform would.
  TPM_ENCAUTH none{};
  ByteVector lock = NvPublic(kNvIndexLock, 0, 0);
  ASSERT_EQ(Tcsip_NV_DefineOrReleaseSpace(h_, UINT32(lock.size()), lock.data(), none, nullptr),
            TSS_SUCCESS);
  const fs::path secretFile = fs::path(dir_.path()) / "space.txt";
  WriteFile(secretFile, "space pass phrase\n", fs::perms(0600));
  const fs::path in = fs::path(dir_.path()) / "in.bin";
  const fs::path out = fs::path(dir_.path()) / "out.bin";
  WriteFile(in, "kesttcs nv data");

  auto [status, text] = Cli({"nv", "define", "0x11200", "--size", "32", "--auth-write",
                             "--auth-read", "--secret", secretFile.string()});
  ASSERT_EQ(status, 0) << text;
  std::tie(status, text) = Cli({"nv", "define", "0x11200", "--size", "32", "--owner-write"});
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("already defined"));
  std::tie(status, text) =
      Cli({"nv", "write", "0x11200", in.string(), "--secret", secretFile.string()});
  EXPECT_EQ(status, 0) << text;
  std::tie(status, text) = Cli({"nv", "read", "0x11200", "--size", "15", "--secret",
                                secretFile.string(), "--out", out.string()});
  EXPECT_EQ(status, 0) << text;
  EXPECT_EQ(daemon_process::ReadFile(out), "kesttcs nv data");
  std::tie(status, text) = Cli({"nv", "read", "0x11200", "--size", "15"});
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("wrong secret"));
  std::tie(status, text) =
      Cli({"nv", "read", "0x11200", "--size", "64", "--secret", secretFile.string()});
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("beyond the space"));
  std::tie(status, text) = Cli({"--json", "nv", "release", "0x11200"});
  EXPECT_EQ(status, 0) << text;
  std::tie(status, text) = Cli({"nv", "read", "0x11200", "--size", "1"});
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("not defined"));
  std::tie(status, text) = Cli({"nv", "define", "0x11200", "--size", "8"});
  EXPECT_EQ(status, 2) << "a space needs a write permission";

  std::tie(status, text) =
      Cli({"--json", "counter", "create", "--label", "CLI1", "--secret", secretFile.string()});
  ASSERT_EQ(status, 0) << text;
  const nlohmann::json created = nlohmann::json::parse(text);
  const std::string id = created["id"].get<std::string>();
  const UINT32 start = created["value"].get<UINT32>();
  std::tie(status, text) =
      Cli({"--json", "counter", "increment", id, "--secret", secretFile.string()});
  EXPECT_EQ(status, 0) << text;
  EXPECT_EQ(nlohmann::json::parse(text)["value"].get<UINT32>(), start + 1);
  std::tie(status, text) = Cli({"counter", "increment", id});
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("wrong secret"));
  std::tie(status, text) = Cli({"--json", "counter", "read", id});
  EXPECT_EQ(status, 0) << text;
  EXPECT_EQ(nlohmann::json::parse(text)["value"].get<UINT32>(), start + 1);
  EXPECT_EQ(nlohmann::json::parse(text)["label"].get<std::string>(), "CLI1");
  std::tie(status, text) = Cli({"counter", "read", "0x7777"});
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("no such counter"));
  std::tie(status, text) = Cli({"counter", "create", "--label", "TOOLONG"});
  EXPECT_EQ(status, 2);
}

}  // namespace
}  // namespace kesttcs::testing
