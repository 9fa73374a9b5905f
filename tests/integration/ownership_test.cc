// Ownership and authorisation sessions through the real kesttcsd, on the embedded libtpms TPM and
// on a swtpm process: taking ownership with the client's authorisation helper (well-known and
// custom secrets), owner-authorised commands over OIAP and OSAP with HMACs the TPM checks, clearing
// the owner and taking it again, kesttcs-cli's provision, sessions and owner clear, and clients
// killed while they hold every session the TPM has.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_service_state.h>
#include <kesttcs/tpm_ordinals.h>

#include "daemon_process.h"
#include "kesttcsd_process.h"
#include "swtpm_process.h"

namespace kesttcs::testing {
namespace {

using daemon_process::kPatience;
using daemon_process::ReadFile;
using daemon_process::WriteFile;
using ::testing::HasSubstr;
using Bytes = std::vector<BYTE>;

constexpr TPM_ENTITY_TYPE kOwnerEntity = KESTTCS_ET_OWNER;
constexpr TPM_PROTOCOL_ID kAdcp = 0x0004;  // authorisation data change protocol
constexpr UINT32 kSubCapAuthHandles = 2;   // TPM_RT_AUTH
constexpr size_t kTpmSessions = 16;        // what libtpms holds at once

// The SRK to make: 2048-bit RSA storage key, OAEP, always authorised, no PCRs.
const Bytes kSrkParams = {1, 1, 0, 0, 0, 0x11, 0,  0, 0, 0, 1, 0, 0, 0, 1, 0,
                          3, 0, 1, 0, 0, 0,    12, 0, 0, 8, 0, 0, 0, 0, 2, 0,
                          0, 0, 0, 0, 0, 0,    0,  0, 0, 0, 0, 0, 0, 0, 0};

void Put32(Bytes& out, UINT32 v) {
  BYTE b[4];
  KestAuth_PutUINT32(b, v);
  out.insert(out.end(), b, b + 4);
}

TPM_SECRET Secret(const std::string& phrase) {
  TPM_SECRET s{};
  EXPECT_EQ(KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>(phrase.data()),
                                        UINT32(phrase.size()), &s),
            TSS_SUCCESS);
  return s;
}

TPM_SECRET WellKnown() {
  TPM_SECRET s{};
  KestAuth_WellKnownSecret(&s);
  return s;
}

// The TPM's authorisation session handles (TPM_CAP_HANDLE, TPM_RT_AUTH): a UINT16 count, then
// the handles.
std::vector<UINT32> TpmSessionHandles(TCS_CONTEXT_HANDLE h) {
  BYTE subCap[4];
  KestAuth_PutUINT32(subCap, kSubCapAuthHandles);
  UINT32 size = 0;
  BYTE* resp = nullptr;
  EXPECT_EQ(Tcsip_GetCapability(h, TPM_CAP_HANDLE, 4, subCap, &size, &resp), TSS_SUCCESS);
  std::vector<UINT32> handles;
  for (UINT32 at = 2; resp != nullptr && at + 4 <= size; at += 4) {
    handles.push_back(UINT32(resp[at]) << 24 | UINT32(resp[at + 1]) << 16 |
                      UINT32(resp[at + 2]) << 8 | resp[at + 3]);
  }
  Tcs_FreeBuffer(resp);
  return handles;
}

class Owner {
 public:
  explicit Owner(TCS_CONTEXT_HANDLE h) : h_(h) {}

  // TPM_TakeOwnership with secrets encrypted under the EK and the new owner secret's OIAP HMAC;
  // the answer's HMAC is checked.
  TSS_RESULT Take(const TPM_SECRET& owner, const TPM_SECRET& srk) {
    // The TPM stops giving out its endorsement key once it has an owner: keep the first answer.
    if (ek_.empty()) {
      TPM_NONCE antiReplay{};
      UINT32 ekSize = 0;
      BYTE* ek = nullptr;
      TPM_DIGEST checksum{};
      if (TSS_RESULT r = Tcsip_ReadPubek(h_, antiReplay, &ekSize, &ek, &checksum)) return r;
      ek_.assign(ek, ek + ekSize);
      Tcs_FreeBuffer(ek);
    }
    Bytes encOwner(256), encSrk(256);
    UINT32 ownerSize = 256, srkSize = 256;
    const UINT32 ekSize = UINT32(ek_.size());
    EXPECT_EQ(KestAuth_EncryptForOwnership(ek_.data(), ekSize, &owner, encOwner.data(), &ownerSize),
              0u);
    EXPECT_EQ(KestAuth_EncryptForOwnership(ek_.data(), ekSize, &srk, encSrk.data(), &srkSize), 0u);
    Bytes digest = {0, KESTTCS_PID_OWNER};
    Put32(digest, ownerSize);
    digest.insert(digest.end(), encOwner.begin(), encOwner.end());
    Put32(digest, srkSize);
    digest.insert(digest.end(), encSrk.begin(), encSrk.end());
    digest.insert(digest.end(), kSrkParams.begin(), kSrkParams.end());
    KESTTCS_AUTH_SESSION s{};
    if (TSS_RESULT r = KestAuth_OpenOIAP(h_, &owner, &s)) return r;
    TPM_AUTH auth{};
    EXPECT_EQ(KestAuth_Authorize(&s, TPM_ORD_TakeOwnership, digest.data(), UINT32(digest.size()), 0,
                                 &auth),
              0u);
    UINT32 srkKeySize = 0;
    BYTE* srkKey = nullptr;
    const TSS_RESULT r =
        Tcsip_TakeOwnership(h_, KESTTCS_PID_OWNER, ownerSize, encOwner.data(), srkSize,
                            encSrk.data(), UINT32(kSrkParams.size()),
                            const_cast<BYTE*>(kSrkParams.data()), &auth, &srkKeySize, &srkKey);
    if (r == TSS_SUCCESS) {
      EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_TakeOwnership, srkKey, srkKeySize, &auth), 0u);
      EXPECT_GT(srkKeySize, 256u);
    }
    Tcs_FreeBuffer(srkKey);
    return r;
  }

  // TPM_GetCapabilityOwner over OIAP; `flip` spoils one bit of the HMAC before sending. On
  // success the answer's HMAC is checked.
  TSS_RESULT GetCapabilityOwner(const TPM_SECRET& owner, bool flip = false) {
    KESTTCS_AUTH_SESSION s{};
    if (TSS_RESULT r = KestAuth_OpenOIAP(h_, &owner, &s)) return r;
    TPM_AUTH auth{};
    EXPECT_EQ(KestAuth_Authorize(&s, TPM_ORD_GetCapabilityOwner, nullptr, 0, 0, &auth), 0u);
    if (flip) auth.HMAC.authdata[7] ^= 0x10;
    TPM_VERSION version{};
    UINT32 nonVolatile = 0, volatileFlags = 0;
    const TSS_RESULT r =
        Tcsip_GetCapabilityOwner(h_, &auth, &version, &nonVolatile, &volatileFlags);
    if (r == TSS_SUCCESS) {
      BYTE out[12];
      std::memcpy(out, &version, 4);
      KestAuth_PutUINT32(out + 4, nonVolatile);
      KestAuth_PutUINT32(out + 8, volatileFlags);
      out[11] ^= 1;  // an answer changed on its way is caught
      EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, out, sizeof out, &auth),
                KESTTCS_AUTH_E_VERIFY);
      out[11] ^= 1;
      EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, out, sizeof out, &auth), 0u);
    }
    return r;
  }

  // TPM_ChangeAuthOwner over an OSAP session on the owner, the new secret sent with ADIP.
  TSS_RESULT Change(const TPM_SECRET& owner, const TPM_SECRET& next) {
    KESTTCS_AUTH_SESSION s{};
    if (TSS_RESULT r = KestAuth_OpenOSAP(h_, kOwnerEntity, 0, &owner, &s)) return r;
    TPM_ENCAUTH encAuth{};
    EXPECT_EQ(KestAuth_EncAuth(&s, &next, KESTTCS_ADIP_EVEN, &encAuth), 0u);
    Bytes digest = {0, BYTE(kAdcp)};
    digest.insert(digest.end(), encAuth.authdata, encAuth.authdata + 20);
    digest.insert(digest.end(), {0, BYTE(kOwnerEntity)});
    TPM_AUTH auth{};
    EXPECT_EQ(KestAuth_Authorize(&s, TPM_ORD_ChangeAuthOwner, digest.data(), UINT32(digest.size()),
                                 0, &auth),
              0u);
    const TSS_RESULT r = Tcsip_ChangeAuthOwner(h_, kAdcp, encAuth, kOwnerEntity, &auth);
    if (r == TSS_SUCCESS) {
      EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_ChangeAuthOwner, nullptr, 0, &auth), 0u);
    }
    return r;
  }

  TSS_RESULT Clear(const TPM_SECRET& owner) {
    KESTTCS_AUTH_SESSION s{};
    if (TSS_RESULT r = KestAuth_OpenOIAP(h_, &owner, &s)) return r;
    TPM_AUTH auth{};
    EXPECT_EQ(KestAuth_Authorize(&s, TPM_ORD_OwnerClear, nullptr, 0, 0, &auth), 0u);
    const TSS_RESULT r = Tcsip_OwnerClear(h_, &auth);
    if (r == TSS_SUCCESS) {
      EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_OwnerClear, nullptr, 0, &auth), 0u);
    }
    return r;
  }

 private:
  TCS_CONTEXT_HANDLE h_;
  Bytes ek_;
};

// What the platform does with physical presence asserted: enable and activate the TPM.
void EnableByPhysicalPresence(TCS_CONTEXT_HANDLE h) {
  constexpr UINT16 kCommandEnable = 0x0020, kPresent = 0x0008;
  ASSERT_EQ(Tcsip_PhysicalPresence(h, kCommandEnable), TSS_SUCCESS);
  ASSERT_EQ(Tcsip_PhysicalPresence(h, kPresent), TSS_SUCCESS);
  ASSERT_EQ(Tcsip_PhysicalEnable(h), TSS_SUCCESS);
  ASSERT_EQ(Tcsip_PhysicalSetDeactivated(h, 0), TSS_SUCCESS);
}

// The whole owner life cycle on whatever TPM the daemon runs on.
void RunOwnerLifeCycle(TCS_CONTEXT_HANDLE h) {
  Owner owner(h);
  const TPM_SECRET custom = Secret("correct horse battery staple");

  ASSERT_EQ(owner.Take(WellKnown(), WellKnown()), TSS_SUCCESS);
  EXPECT_EQ(owner.Take(WellKnown(), WellKnown()), TpmResult(TPM_OWNER_SET));
  EXPECT_EQ(owner.GetCapabilityOwner(WellKnown()), TSS_SUCCESS);
  EXPECT_EQ(owner.GetCapabilityOwner(custom), TpmResult(TPM_AUTHFAIL));
  EXPECT_EQ(owner.GetCapabilityOwner(WellKnown(), /*flip=*/true), TpmResult(TPM_AUTHFAIL));

  // OSAP with ADIP: the owner secret changes, and only the new one works afterwards.
  ASSERT_EQ(owner.Change(WellKnown(), custom), TSS_SUCCESS);
  EXPECT_EQ(owner.GetCapabilityOwner(WellKnown()), TpmResult(TPM_AUTHFAIL));
  EXPECT_EQ(owner.GetCapabilityOwner(custom), TSS_SUCCESS);

  EXPECT_EQ(owner.Clear(WellKnown()), TpmResult(TPM_AUTHFAIL));
  ASSERT_EQ(owner.Clear(custom), TSS_SUCCESS);
  // Clearing leaves the TPM disabled, as it left the factory; physical presence enables it.
  EXPECT_EQ(owner.Take(custom, Secret("srk")), TpmResult(TPM_DISABLED));
  ASSERT_NO_FATAL_FAILURE(EnableByPhysicalPresence(h));
  ASSERT_EQ(owner.Take(custom, Secret("srk")), TSS_SUCCESS);
  EXPECT_EQ(owner.GetCapabilityOwner(custom), TSS_SUCCESS);
  ASSERT_EQ(owner.Clear(custom), TSS_SUCCESS);

  // Every session the commands above opened is gone: ended by the TPM or flushed by the service.
  EXPECT_THAT(TpmSessionHandles(h), ::testing::IsEmpty());
}

class OwnershipTest : public ::testing::Test {
 protected:
  fs::path Home() const { return fs::path(dir_.path()) / "home"; }

  std::pair<int, std::string> Cli(const std::vector<std::string>& args, const std::string& socket) {
    return RunKesttcsCli(args, socket, fs::path(dir_.path()) / "cli.txt");
  }

  TempDir dir_;
};

TEST_F(OwnershipTest, OwnerLifeCycleOnTheEmbeddedTpm) {
  KesttcsdProcess daemon(Home(), /*owned=*/false);
  ASSERT_TRUE(daemon.Start());
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  RunOwnerLifeCycle(h);
}

TEST_F(OwnershipTest, OwnerLifeCycleOnASwtpmProcess) {
  if (!SwtpmInstalled()) GTEST_SKIP() << "swtpm is not installed";
  SwtpmProcess swtpm(/*startupClear=*/false);
  ASSERT_TRUE(swtpm.WaitReady());
  KesttcsdProcess daemon(Home(), /*owned=*/false, swtpm.UnixConfig());
  ASSERT_TRUE(daemon.Start());
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  // A fresh swtpm has no endorsement key yet.
  ASSERT_NO_FATAL_FAILURE(CreateEndorsementKey(h));
  RunOwnerLifeCycle(h);
}

TEST_F(OwnershipTest, CliProvisionsListsSessionsAndClears) {
  KesttcsdProcess daemon(Home(), /*owned=*/false);
  ASSERT_TRUE(daemon.Start());
  const fs::path ownerFile = fs::path(dir_.path()) / "owner.txt";
  WriteFile(ownerFile, "owner pass phrase\n", fs::perms(0600));

  auto [status, text] =
      Cli({"--json", "provision", "--owner-secret", ownerFile.string()}, daemon.socket());
  EXPECT_EQ(status, 0) << text;
  EXPECT_THAT(text, HasSubstr("\"modulus_bits\": 2048"));
  EXPECT_THAT(text, HasSubstr("\"owner_secret\": \"given\""));
  EXPECT_THAT(text, HasSubstr("\"srk_secret\": \"well-known\""));

  // A second provision is refused with words, not only a code.
  std::tie(status, text) = Cli({"provision"}, daemon.socket());
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("already has an owner"));

  // The owner secret is the SHA-1 of the file's pass phrase, as the helper derives it.
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  EXPECT_EQ(Owner(h).GetCapabilityOwner(Secret("owner pass phrase")), TSS_SUCCESS);

  // Sessions held by this context show in the service's table and in kesttcs-cli sessions.
  KESTTCS_AUTH_SESSION held[2]{};
  const TPM_SECRET any = WellKnown();
  for (KESTTCS_AUTH_SESSION& s : held) ASSERT_EQ(KestAuth_OpenOIAP(h, &any, &s), TSS_SUCCESS);
  KESTTCS_SESSION_TABLE table{};
  ASSERT_EQ(KestTcs_GetSessionTable(&table), TSS_SUCCESS);
  EXPECT_EQ(table.maxSessions, kTpmSessions);
  ASSERT_EQ(table.count, 2u);
  EXPECT_EQ(table.sessions[0].hContext, h);
  EXPECT_EQ(table.sessions[1].authHandle, held[1].handle);
  std::tie(status, text) = Cli({"--json", "sessions"}, daemon.socket());
  EXPECT_EQ(status, 0) << text;
  EXPECT_THAT(text, HasSubstr("\"used\": 2"));
  EXPECT_THAT(text, HasSubstr("\"sessions\": 2"));

  const fs::path wrongFile = fs::path(dir_.path()) / "wrong.txt";
  WriteFile(wrongFile, "not the owner", fs::perms(0600));
  std::tie(status, text) =
      Cli({"owner", "clear", "--owner-secret", wrongFile.string()}, daemon.socket());
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("owner secret is wrong"));
  std::tie(status, text) =
      Cli({"owner", "clear", "--owner-secret", ownerFile.string()}, daemon.socket());
  EXPECT_EQ(status, 0) << text;
  std::tie(status, text) = Cli({"provision"}, daemon.socket());
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("enable and activate it with physical presence"));
  ASSERT_NO_FATAL_FAILURE(EnableByPhysicalPresence(h));
  std::tie(status, text) = Cli({"provision"}, daemon.socket());
  EXPECT_EQ(status, 0) << text;
}

// A child that connects, opens a context and as many OIAP sessions as the TPM grants, reports the
// count on `report` and waits to be killed. It never returns.
[[noreturn]] void HoldSessions(const std::string& socket, int report) {
  TCS_CONTEXT_HANDLE h = 0;
  BYTE opened = 0;
  if (Tcs_Connect(socket.c_str()) == 0 && Tcsi_OpenContext(&h) == 0) {
    TCS_AUTHHANDLE handle = 0;
    TPM_NONCE nonce{};
    while (opened < kTpmSessions && Tcsip_OIAP(h, &handle, &nonce) == 0) ++opened;
  }
  static_cast<void>(write(report, &opened, 1));
  for (;;) pause();
}

TEST_F(OwnershipTest, ClientsKilledWhileHoldingSessionsLeaveNoneBehind) {
  KesttcsdProcess daemon(Home(), /*owned=*/false);
  ASSERT_TRUE(daemon.Start());
  Tcs_Disconnect();  // the children must not share this process's connection
  constexpr int kClients = 50;
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  std::vector<pid_t> children;
  for (int i = 0; i < kClients; ++i) {
    const pid_t pid = fork();
    if (pid == 0) HoldSessions(daemon.socket(), pipeFds[1]);
    ASSERT_GT(pid, 0);
    children.push_back(pid);
  }
  // Every child has taken what it could before any is killed.
  size_t granted = 0;
  for (int i = 0; i < kClients; ++i) {
    BYTE opened = 0;
    ASSERT_EQ(read(pipeFds[0], &opened, 1), 1);
    granted += opened;
  }
  close(pipeFds[0]);
  close(pipeFds[1]);
  EXPECT_EQ(granted, kTpmSessions);
  for (pid_t pid : children) kill(pid, SIGKILL);
  for (pid_t pid : children) waitpid(pid, nullptr, 0);

  ASSERT_EQ(Tcs_Connect(daemon.socket().c_str()), TSS_SUCCESS);
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  // The service closes a dead client's contexts once it sees its connections close.
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!TpmSessionHandles(h).empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_THAT(TpmSessionHandles(h), ::testing::IsEmpty());
  KESTTCS_SESSION_TABLE table{};
  ASSERT_EQ(KestTcs_GetSessionTable(&table), TSS_SUCCESS);
  EXPECT_EQ(table.count, 0u);

  // A new client gets every session again.
  size_t opened = 0;
  TCS_AUTHHANDLE handle = 0;
  TPM_NONCE nonce{};
  while (opened < kTpmSessions && Tcsip_OIAP(h, &handle, &nonce) == TSS_SUCCESS) ++opened;
  EXPECT_EQ(opened, kTpmSessions);
  EXPECT_EQ(TpmSessionHandles(h).size(), kTpmSessions);
  TCS_CONTEXT_HANDLE observer = 0;
  ASSERT_EQ(Tcsi_OpenContext(&observer), TSS_SUCCESS);
  ASSERT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
  EXPECT_THAT(TpmSessionHandles(observer), ::testing::IsEmpty());
}

}  // namespace
}  // namespace kesttcs::testing
