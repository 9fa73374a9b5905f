// The client library against the real service stack in this process: the RPC server (Unix socket
// and loopback TCP), the API frame, client contexts and the TCS commands on the embedded libtpms
// TPM 1.2 in a temporary home.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/logging.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "impacket_run.h"
#include "rpc/api_frame.h"
#include "rpc/context_owners.h"
#include "rpc/dcerpc/client.h"
#include "rpc/rpc_dispatch.h"
#include "rpc/rpc_service.h"
#include "rpc/stubs.h"
#include "service/startup.h"
#include "tpm12/sha1.h"

namespace kesttcs::testing {
namespace {

using Bytes = std::vector<BYTE>;
using ::testing::ElementsAre;

uint16_t FreeTcpPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

// Waits (without a time assertion) until `done` holds or 20 s have passed.
template <typename F>
bool Eventually(F done) {
  for (int i = 0; i < 2000; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

Bytes Take(BYTE* data, UINT32 size) {
  Bytes b(data, data + size);
  Tcs_FreeBuffer(data);
  return b;
}

class RpcClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS) << StartupFailureText();
    socket_ = core_.home() + "/KestTCS";
    port_ = FreeTcpPort();
    ASSERT_EQ(RpcServerUseProtseqEp({socket_, "", port_}), 0u);
    ASSERT_EQ(RpcServerRegisterIf(), 0u);
    ASSERT_EQ(RpcServerListen(1000), 0u);
    ASSERT_EQ(Tcs_Connect(socket_.c_str()), TSS_SUCCESS);
  }
  void TearDown() override {
    Tcs_Disconnect();
    static_cast<void>(RpcMgmtStopServerListening());  // a test may have stopped it already
    EXPECT_EQ(RpcServerUnregisterIf(), 0u);
  }

  std::vector<std::string> TakeTraces() { return core_.TakeTraces(); }

  Bytes TcsCap(TCS_CONTEXT_HANDLE h, TPM_CAPABILITY_AREA area, UINT32 sub, TSS_RESULT* result) {
    BYTE subCap[4] = {BYTE(sub >> 24), BYTE(sub >> 16), BYTE(sub >> 8), BYTE(sub)};
    UINT32 size = 0;
    BYTE* resp = nullptr;
    *result = Tcsi_GetCapability(h, area, 4, subCap, &size, &resp);
    return resp ? Take(resp, size) : Bytes{};
  }

  TestCore core_{CoreOptions().Backend("libtpms")};
  std::string socket_;
  uint16_t port_ = 0;
};

TEST_F(RpcClientTest, ContextsMemoryAndTcsCapabilities) {
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  EXPECT_EQ(h >> 28, 0xAu);
  EXPECT_EQ(owners_CountContexts(), 1u);
  EXPECT_EQ(owners_CountContextsOfProcess(getpid()), 1u);

  TSS_RESULT r = 0;
  EXPECT_EQ(TcsCap(h, 2, 0, &r), (Bytes{2, 1, 0, 13}));
  EXPECT_EQ(r, TSS_SUCCESS);
  EXPECT_EQ(TcsCap(h, 3, 0x100, &r), Bytes{1});
  EXPECT_EQ(TcsCap(h, 3, 0x101, &r), Bytes{0});
  EXPECT_EQ(TcsCap(h, 4, 0, &r), Bytes{1});
  EXPECT_EQ(TcsCap(h, 5, 0x102, &r), (Bytes{'K', 'E', 'S', 'T'}));
  Bytes wide;
  for (char c : std::string("KESTRON TECHNOLOGY")) wide.insert(wide.end(), {BYTE(c), 0});
  EXPECT_EQ(TcsCap(h, 5, 0x103, &r), wide);
  EXPECT_EQ(TcsCap(h, 1, 0x23, &r), Bytes{1});
  EXPECT_EQ(TcsCap(h, 5, 0x999, &r), Bytes{});
  EXPECT_EQ(r, TCS_E_FAIL);
  // The service keeps no copy of what it returned.
  EXPECT_EQ(ctx_CountAllMemoryBlocks(), 0u);

  // Tcsi_FreeMemory frees the caller's copy and checks the context.
  UINT32 size = 0;
  BYTE* resp = nullptr;
  BYTE sub[4] = {0, 0, 0, 0};
  ASSERT_EQ(Tcsi_GetCapability(h, 2, 4, sub, &size, &resp), TSS_SUCCESS);
  EXPECT_EQ(Tcsi_FreeMemory(h, resp), TSS_SUCCESS);
  EXPECT_EQ(Tcsi_FreeMemory(h, nullptr), TSS_SUCCESS);
  // The service's own context and unknown handles are refused.
  EXPECT_EQ(TcsCap(kInternalContextHandle, 2, 0, &r), Bytes{});
  EXPECT_EQ(r, TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(Tcsi_CloseContext(kInternalContextHandle), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(Tcsi_CloseContext(h ^ 0x1), TCS_E_INVALID_CONTEXT);

  EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
  EXPECT_EQ(Tcsi_CloseContext(h), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(Tcsi_FreeMemory(h, nullptr), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(owners_CountContexts(), 0u);
  EXPECT_EQ(ctx_CountContexts(), 0u);
  // A null output pointer is refused before anything is sent.
  EXPECT_EQ(Tcsi_OpenContext(nullptr), TCS_E_BAD_PARAMETER);
  // Reserved operations answer "not implemented".
  EXPECT_EQ(Tcsi_Reserved123(h), TCS_E_NOTIMPL);
}

TEST_F(RpcClientTest, KeylessTpmOperations) {
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);

  UINT32 n = 16;
  BYTE* random = nullptr;
  ASSERT_EQ(Tcsip_GetRandom(h, &n, &random), TSS_SUCCESS);
  EXPECT_EQ(n, 16u);
  EXPECT_EQ(Take(random, n).size(), 16u);

  BYTE entropy[32] = {1, 2, 3};
  EXPECT_EQ(Tcsip_StirRandom(h, sizeof(entropy), entropy), TSS_SUCCESS);
  EXPECT_EQ(Tcsip_StirRandom(h, 5, nullptr), TCS_E_BAD_PARAMETER);

  TPM_PCRVALUE before{}, after{}, read{};
  ASSERT_EQ(Tcsip_PcrRead(h, 10, &before), TSS_SUCCESS);
  TPM_DIGEST in{};
  std::memset(in.digest, 0x5A, sizeof(in.digest));
  ASSERT_EQ(Tcsip_Extend(h, 10, in, &after), TSS_SUCCESS);
  BYTE both[40];
  std::memcpy(both, before.digest, 20);
  std::memcpy(both + 20, in.digest, 20);
  TPM_DIGEST expected{};
  ASSERT_EQ(SHA1(expected.digest, both, 40), 0);
  EXPECT_EQ(0, std::memcmp(after.digest, expected.digest, 20));
  ASSERT_EQ(Tcsip_PcrRead(h, 10, &read), TSS_SUCCESS);
  EXPECT_EQ(0, std::memcmp(read.digest, after.digest, 20));

  TPM_NONCE anti{};
  UINT32 ekSize = 0;
  BYTE* ek = nullptr;
  TPM_DIGEST checksum{};
  ASSERT_EQ(Tcsip_ReadPubek(h, anti, &ekSize, &ek, &checksum), TSS_SUCCESS);
  EXPECT_GT(Take(ek, ekSize).size(), 256u);

  BYTE versionVal[4] = {0, 0, 0, 0};
  UINT32 capSize = 0;
  BYTE* cap = nullptr;
  ASSERT_EQ(Tcsip_GetCapability(h, 0x1A, 0, versionVal, &capSize, &cap), TSS_SUCCESS);
  const Bytes version = Take(cap, capSize);
  ASSERT_GE(version.size(), 6u);
  EXPECT_EQ(version[2], 1);  // TPM 1.2
  EXPECT_EQ(version[3], 2);

  EXPECT_EQ(Tcsip_SelfTestFull(h), TSS_SUCCESS);
  EXPECT_EQ(Tcsip_ContinueSelfTest(h), TSS_SUCCESS);
  UINT32 testSize = 0;
  BYTE* test = nullptr;
  EXPECT_EQ(Tcsip_GetTestResult(h, &testSize, &test), TSS_SUCCESS);
  Tcs_FreeBuffer(test);

  UINT32 ticksSize = 0;
  BYTE* ticks = nullptr;
  ASSERT_EQ(Tcsip_TPM_ReadCurrentTicks(h, &ticksSize, &ticks), TSS_SUCCESS);
  EXPECT_EQ(Take(ticks, ticksSize).size(), 32u);

  TPM_COUNTER_VALUE counter{};
  // No counter exists: the TPM's return code comes back in the TPM layer.
  EXPECT_EQ(Tcsip_ReadCounter(h, 0x1234, &counter) & 0xFFFFF000u, 0xE0280000u);

  TPM_DIRVALUE dir{};
  EXPECT_EQ(Tcsip_DirRead(h, 0, &dir), TSS_SUCCESS);
  EXPECT_EQ(ctx_CountAllMemoryBlocks(), 0u);
  EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
}

TEST_F(RpcClientTest, TcpContextsBelongToTheirConnection) {
  ASSERT_EQ(Tcs_Connect(("tcp:127.0.0.1:" + std::to_string(port_)).c_str()), TSS_SUCCESS);
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  TSS_RESULT r = 0;
  EXPECT_EQ(TcsCap(h, 2, 0, &r), (Bytes{2, 1, 0, 13}));
  UINT32 n = 16;
  BYTE* random = nullptr;
  ASSERT_EQ(Tcsip_GetRandom(h, &n, &random), TSS_SUCCESS);
  Tcs_FreeBuffer(random);

  std::thread other([&] {
    ASSERT_EQ(Tcs_ConnectThread(("tcp:127.0.0.1:" + std::to_string(port_)).c_str()), TSS_SUCCESS);
    TSS_RESULT result = 0;
    EXPECT_EQ(TcsCap(h, 2, 0, &result), Bytes{});
    EXPECT_EQ(result, TCS_E_INVALID_CONTEXT);
    Tcs_DisconnectThread();
  });
  other.join();

  // Dropping the connection closes its context.
  Tcs_Disconnect();
  EXPECT_TRUE(Eventually([] { return ctx_CountContexts() == 0; }));
  EXPECT_EQ(Tcs_Connect("tcp:127.0.0.1:1"), TCS_E_COMM_FAILURE);
  EXPECT_EQ(Tcs_Connect("tcp:10.0.0.1:80"), TCS_E_COMM_FAILURE);
  EXPECT_EQ(Tcs_Connect(socket_.c_str()), TSS_SUCCESS);
}

TEST_F(RpcClientTest, TraceTextsPerFrameVariant) {
  SetNeedLog(true);
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  char hex[16];
  std::snprintf(hex, sizeof(hex), "0x%.8X", h);
  const std::string H = hex;
  std::snprintf(hex, sizeof(hex), "0x%08x", h);
  const std::string h_lower = hex;
  EXPECT_THAT(
      TakeTraces(),
      ElementsAre("TCS:RecvApiCall:Tcsi_OpenContext start.\n", "TCS:Tcsi_OpenContext_Internal\n",
                  "TCS:RecvApiCall:Tcsi_OpenContext:hContext=" + H + ",result=0x00000000\n",
                  "TCS:TCSMakehContext=" + h_lower + "\n"));

  TSS_RESULT r = 0;
  TcsCap(h, 2, 0, &r);  // kTraced
  EXPECT_THAT(
      TakeTraces(),
      ElementsAre("TCS:RecvApiCall:Tcsi_GetCapability start:hContext=" + H + "\n",
                  "TCS:RecvApiCall:Tcsi_GetCapability:hContext=" + H + ",result=0x00000000\n"));

  UINT32 ticksSize = 0;
  BYTE* ticks = nullptr;
  ASSERT_EQ(Tcsip_TPM_ReadCurrentTicks(h, &ticksSize, &ticks), TSS_SUCCESS);  // kResultTraced
  Tcs_FreeBuffer(ticks);
  std::vector<std::string> lines;
  for (const std::string& l : TakeTraces()) {
    if (l.starts_with("TCS:RecvApiCall")) lines.push_back(l);
  }
  EXPECT_THAT(lines, ElementsAre("TCS:RecvApiCall:Tcsip_TPM_ReadCurrentTicks:hContext=" + H +
                                 ",result=0x00000000\n"));

  ASSERT_EQ(Tcsip_SelfTestFull(h), TSS_SUCCESS);  // blank before the colon
  lines.clear();
  for (const std::string& l : TakeTraces()) {
    if (l.starts_with("TCS:RecvApiCall")) lines.push_back(l);
  }
  EXPECT_THAT(lines, ElementsAre("TCS:RecvApiCall:Tcsip_SelfTestFull start :hContext=" + H + "\n",
                                 "TCS:RecvApiCall:Tcsip_SelfTestFull:hContext=" + H +
                                     ",result=0x00000000\n"));

  // kTracedLocked with the session form, on an operation the service does not implement yet.
  TPM_AUTH auth{};
  auth.AuthHandle = 0x01020304;
  TCS_KEY_HANDLE key = 0, hmac = 0;
  BYTE blob[4] = {};
  const TSS_RESULT lk = Tcsip_LoadKeyByBlob(h, 0x40000000, 4, blob, &auth, &key, &hmac);
  std::snprintf(hex, sizeof(hex), "0x%.8X", lk);
  EXPECT_THAT(TakeTraces(),
              ElementsAre("TCS:RecvApiCall:Tcsip_LoadKeyByBlob_Internal start:hContext=" + H +
                              ",authHandle=0x01020304,hUnwrappingkey=0x40000000\n",
                          ::testing::StartsWith("TCS:RecvApiCall:Tcsip_LoadKeyByBlob_Internal:"
                                                "result=" +
                                                std::string(hex) + ",hContext=" + H +
                                                ",hUnwrappingkey=0x40000000,hKey=")));

  // kTracedInsideLock: both lines under the lock, then the unlock line.
  UINT32 outSize = 0;
  BYTE* out = nullptr;
  const TSS_RESULT ub = Tcsip_Unbind(h, 0x22330000, 4, blob, nullptr, &outSize, &out);
  std::snprintf(hex, sizeof(hex), "0x%.8X", ub);
  // The frame's own lines, without those of the operation it calls.
  lines.clear();
  for (const std::string& l : TakeTraces()) {
    if (l.starts_with("TCS:RecvApiCall")) lines.push_back(l);
  }
  EXPECT_THAT(lines,
              ElementsAre("TCS:RecvApiCall:Tcsip_Unbind start:hContext=" + H + "\n",
                          "TCS:RecvApiCall:Tcsip_Unbind:hContext=" + H + ",result=" + hex + "\n",
                          "TCS:RecvApiCall:UnlockTreateFunc\n"));
  // The locked operation failed and still released the API mutex.
  ASSERT_TRUE(ApiSerialisationLock().native().try_lock());
  ApiSerialisationLock().native().unlock();

  // kSilentLocked: vendor commands trace nothing of the frame.
  BYTE data[4] = {};
  Tcsip_VendorCommand1(h, 1, 4, data);
  for (const std::string& l : TakeTraces()) EXPECT_FALSE(l.starts_with("TCS:RecvApiCall")) << l;

  ASSERT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);  // kTracedLocked, with its extra line
  EXPECT_THAT(TakeTraces(),
              ::testing::IsSupersetOf(
                  {"TCS:RecvApiCall:Tcsi_CloseContext start:hContext=" + H + "\n",
                   "TCS:RecvApiCall:Tcsi_CloseContext:hContext=" + H + ",Result=0x00000000\n",
                   "TCS:TCSReleaseContext=" + h_lower + ",result =0x00000000\n"}));
  EXPECT_EQ(Tcsi_CloseContext(h), TCS_E_INVALID_CONTEXT);
  ASSERT_TRUE(ApiSerialisationLock().native().try_lock());
  ApiSerialisationLock().native().unlock();
  TakeTraces();

  // With needLog off nothing is traced and results are the same.
  SetNeedLog(false);
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  TcsCap(h, 2, 0, &r);
  EXPECT_EQ(r, TSS_SUCCESS);
  EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
  EXPECT_THAT(TakeTraces(), ::testing::IsEmpty());
  EXPECT_EQ(FirstBadTraceText(), "");
}

TEST_F(RpcClientTest, ContextRefusedToAnotherProcess) {
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The child's own connection; the handle is the parent's.
    if (Tcs_ConnectThread(socket_.c_str()) != TSS_SUCCESS) _exit(10);
    BYTE sub[4] = {};
    UINT32 size = 0;
    BYTE* resp = nullptr;
    if (Tcsi_GetCapability(h, 2, 4, sub, &size, &resp) != TCS_E_INVALID_CONTEXT) _exit(11);
    if (Tcsi_CloseContext(h) != TCS_E_INVALID_CONTEXT) _exit(12);
    // Vendor command 3 does not look at its context itself; the service's ownership check still
    // keeps another process's handle, or a made-up one, from reaching the TPM.
    for (TCS_CONTEXT_HANDLE foreign : {h, TCS_CONTEXT_HANDLE{0xA0000001}}) {
      if (Tcsip_VendorCommand3(foreign, 1, 0, nullptr, &size, &resp) != TCS_E_INVALID_CONTEXT) {
        _exit(15);
      }
    }
    TCS_CONTEXT_HANDLE mine = 0;
    if (Tcsi_OpenContext(&mine) != TSS_SUCCESS) _exit(13);
    if (Tcsi_GetCapability(mine, 2, 4, sub, &size, &resp) != TSS_SUCCESS) _exit(14);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  // The child's context went with its connection; the parent's stays usable.
  EXPECT_TRUE(Eventually([] { return ctx_CountContexts() == 1; }));
  TSS_RESULT r = 0;
  EXPECT_EQ(TcsCap(h, 2, 0, &r), (Bytes{2, 1, 0, 13}));
  EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
}

TEST_F(RpcClientTest, KilledProcessLeavesNoContext) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(ready[0]);
    if (Tcs_ConnectThread(socket_.c_str()) != TSS_SUCCESS) _exit(10);
    for (int i = 0; i < 3; ++i) {
      TCS_CONTEXT_HANDLE h = 0;
      if (Tcsi_OpenContext(&h) != TSS_SUCCESS) _exit(11);
    }
    const char c = 'r';
    if (write(ready[1], &c, 1) != 1) _exit(12);
    pause();
    _exit(0);
  }
  close(ready[1]);
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  close(ready[0]);
  EXPECT_EQ(owners_CountContextsOfProcess(child), 3u);
  EXPECT_EQ(ctx_CountContexts(), 3u);
  const size_t abandoned = owners_CountAbandonedClosed();
  kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(Eventually([] { return ctx_CountContexts() == 0; }));
  EXPECT_EQ(owners_CountContextsOfProcess(child), 0u);
  EXPECT_EQ(owners_CountAbandonedClosed(), abandoned + 3);
}

TEST_F(RpcClientTest, ThousandConcurrentClients) {
  constexpr int kClients = 1000;
  std::barrier all_connected(kClients);
  std::atomic<int> succeeded{0};
  std::vector<std::thread> threads;
  threads.reserve(kClients);
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&] {
      const bool connected = Tcs_ConnectThread(socket_.c_str()) == TSS_SUCCESS;
      all_connected.arrive_and_wait();  // every connection is open at once
      if (!connected) return;
      TCS_CONTEXT_HANDLE h = 0;
      BYTE sub[4] = {};
      UINT32 size = 0;
      BYTE* resp = nullptr;
      if (Tcsi_OpenContext(&h) == TSS_SUCCESS &&
          Tcsi_GetCapability(h, 2, 4, sub, &size, &resp) == TSS_SUCCESS && size == 4 &&
          Tcsi_CloseContext(h) == TSS_SUCCESS) {
        ++succeeded;
      }
      Tcs_FreeBuffer(resp);
      Tcs_DisconnectThread();
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(succeeded.load(), kClients);
  EXPECT_EQ(ctx_CountContexts(), 0u);
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM")) RecordProperty("peak_rss", line);
    if (line.starts_with("VmHWM"))
      std::printf("1000 clients, peak RSS of the process: %s\n", line.c_str());
  }
}

TEST_F(RpcClientTest, FaultsAndServiceGone) {
  dcerpc::Client raw;
  ASSERT_EQ(raw.ConnectUnix(socket_), dcerpc::kRpcOk);
  ASSERT_EQ(raw.Bind(rpc::TcsInterfaceSyntax()), dcerpc::kRpcOk);
  std::vector<uint8_t> out;
  EXPECT_EQ(raw.Call(rpc::kOperationCount, {}, out), dcerpc::kNcaOpRangeError);
  const std::vector<uint8_t> garbage = {1, 2, 3};
  EXPECT_EQ(raw.Call(rpc::OpnumOf("Tcsi_GetCapability"), garbage, out), dcerpc::kRpcBadStubData);
  ASSERT_EQ(raw.Call(rpc::OpnumOf("Tcsi_Reserved124"), garbage, out), dcerpc::kRpcOk);
  EXPECT_EQ(out, (std::vector<uint8_t>{0x06, 0x20, 0x28, 0xE0}));

  // The service stops while the host waits for the end of listening, and the stop path goes on
  // to unregister the interface before the waiter wakes: calls fail with the communication
  // result, and the waiter returns.
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  std::thread waiter([] { EXPECT_EQ(RpcMgmtWaitServerListen(), 0u); });
  EXPECT_EQ(RpcMgmtStopServerListening(), 0u);
  EXPECT_EQ(RpcServerUnregisterIf(), 0u);
  waiter.join();
  EXPECT_EQ(Tcsi_CloseContext(h), TCS_E_COMM_FAILURE);
  EXPECT_NE(Tcs_LastRpcStatus(), 0u);
  EXPECT_EQ(Tcsi_OpenContext(&h), TCS_E_COMM_FAILURE);
  EXPECT_EQ(Tcs_LastRpcStatus(), dcerpc::kRpcServerUnavailable);
  // Set up again for the common tear-down.
  ASSERT_EQ(RpcServerRegisterIf(), 0u);
}

}  // namespace
}  // namespace kesttcs::testing

namespace kesttcs::testing {
namespace {

// Debian's python3-impacket as an independent DCE/RPC client of the TCS interface over
// ncacn_ip_tcp, with hand-built NDR stubs.
TEST_F(RpcClientTest, ImpacketClientCallsTheInterface) {
  const std::optional<std::string> output = RunImpacketScript(core_.home(), R"(import struct
from impacket_probe import connect, fault_of, bind_error
dce = connect('fbcd9c02-72cb-47bb-99dd-aedb551491de')
dce.call(3, b'')
h, r = struct.unpack('<II', dce.recv())
print('open', hex(h >> 28), hex(r))
dce.call(6, struct.pack('<IIII', h, 2, 4, 4) + b'\0\0\0\0')
size, ref, count = struct.unpack('<III', dce.recv()[:12])
print('capability', size, ref != 0, count)
dce.call(56, struct.pack('<II', h, 16))
out = dce.recv()
n, ref, count = struct.unpack('<III', out[:12])
print('random', n, count, len(out[12:12 + count]), hex(struct.unpack('<I', out[-4:])[0]))
dce.call(4, struct.pack('<I', h))
print('close', hex(struct.unpack('<I', dce.recv())[0]))
print(fault_of(dce, 126))
print('bind refused' if bind_error('fbcd9c02-72cb-47bb-99dd-aedb551491df') else 'bound')
)",
                                                              port_);
  if (!output) GTEST_SKIP() << "python3-impacket is not installed";
  EXPECT_EQ(*output,
            "open 0xa 0x0\n"
            "capability 4 True 4\n"
            "random 16 16 16 0x0\n"
            "close 0x0\n"
            "fault nca_s_op_rng_error\n"
            "bind refused\n");
  EXPECT_EQ(ctx_CountContexts(), 0u);
}

}  // namespace
}  // namespace kesttcs::testing
