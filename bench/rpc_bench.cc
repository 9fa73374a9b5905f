// Calls through the client library to the service (RPC server, API frame, contexts, commands on
// the embedded libtpms TPM in a temporary home, all in this process) against a bare Unix-socket
// echo of the same message size: Tcsi_GetCapability (no TPM command) and Tcsip_GetRandom(16), with
// 1 and 8 client threads, each thread on its own connection. Compare each RPC row with its echo
// row for the per-call overhead of the RPC path. Also Tcsi_GetPcrEventLog of a log of 100 000
// events, one call answered in one fragmented response, against the same copy made in-process.
//
// Reference rows: TPM_GetRandom(16) sent to the best-case servers (best_case_servers.h), the
// single-threaded one for one client and the epoll one for 8. One-client rows run in each CPU
// placement (cpu_placement.h); every RPC and best-case row counts the wake-ups per call
// (switch_count.h). The ratios of service to best case follow the report; for figures that hold on
// a loaded machine run with
//   --benchmark_filter='Rpc|BestCase|Echo' --benchmark_repetitions=7
//   --benchmark_enable_random_interleaving=true
#include <benchmark/benchmark.h>
#include <kesttcs/tcs_client.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "best_case_servers.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "cpu_placement.h"
#include "embedded_tpm.h"
#include "ratio_report.h"
#include "rpc/rpc_service.h"
#include "storage/event_log.h"
#include "switch_count.h"

namespace {

using kesttcs::bench::Placement;
using kesttcs::bench::RatioOf;
using kesttcs::bench::ReadFull;

// Sizes of the two calls' request and response PDUs (header and stub), which the echo mirrors.
constexpr size_t kCapabilityMessage = 44;
constexpr size_t kRandomMessage = 64;

struct Environment {
  std::string socket;
  std::string echo_socket;
  std::string best_case_socket;
  std::string best_case_epoll_socket;
};

void EchoServer(int listener) {
  for (;;) {
    const int fd = ::accept(listener, nullptr, nullptr);
    if (fd < 0) return;
    std::thread([fd] {
      char size = 0;
      std::vector<char> buffer;
      // Each message is announced by its one-byte length.
      while (ReadFull(fd, &size, 1)) {
        buffer.resize(static_cast<unsigned char>(size));
        if (!ReadFull(fd, buffer.data(), buffer.size())) break;
        if (::write(fd, buffer.data(), buffer.size()) != static_cast<ssize_t>(buffer.size())) break;
      }
      ::close(fd);
    }).detach();
  }
}

const Environment& Env() {
  static Environment* env = [] {
    const kesttcs::testing::TestCore* core = kesttcs::EmbeddedCore();
    if (core == nullptr) std::abort();
    auto* e = new Environment;
    e->socket = core->home() + "/KestTCS";
    e->echo_socket = core->home() + "/echo";
    if (kesttcs::RpcServerUseProtseqEp({e->socket, "", 0}) != 0 ||
        kesttcs::RpcServerRegisterIf() != 0 || kesttcs::RpcServerListen(1000) != 0) {
      std::abort();
    }
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", e->echo_socket.c_str());
    if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(listener, 64) != 0) {
      std::abort();
    }
    std::thread(EchoServer, listener).detach();
    e->best_case_socket = core->home() + "/best-case";
    e->best_case_epoll_socket = core->home() + "/best-case-epoll";
    if (!StartBestCaseServer(kesttcs::bench::BestCaseForm::kSingleThreaded, e->best_case_socket) ||
        !StartBestCaseServer(kesttcs::bench::BestCaseForm::kEpoll, e->best_case_epoll_socket)) {
      std::abort();
    }
    return e;
  }();
  return *env;
}

Placement PlacementOf(const benchmark::State& state) {
  return static_cast<Placement>(state.range(0));
}

void RpcGetCapability(benchmark::State& state) {
  const Environment& env = Env();
  kesttcs::bench::ScopedPlacement placement(PlacementOf(state));
  if (!placement.ok()) state.SkipWithError("needs two CPUs");
  if (Tcs_ConnectThread(env.socket.c_str()) != 0) state.SkipWithError("connect");
  TCS_CONTEXT_HANDLE h = 0;
  if (Tcsi_OpenContext(&h) != 0) state.SkipWithError("open");
  BYTE sub[4] = {};
  const kesttcs::bench::SwitchCount switches;
  for (auto _ : state) {
    UINT32 size = 0;
    BYTE* resp = nullptr;
    if (Tcsi_GetCapability(h, 2, 4, sub, &size, &resp) != 0) state.SkipWithError("call");
    Tcs_FreeBuffer(resp);
  }
  switches.Report(state);
  static_cast<void>(Tcsi_CloseContext(h));
  Tcs_DisconnectThread();
  state.SetItemsProcessed(state.iterations());
}

void RpcGetRandom16(benchmark::State& state) {
  const Environment& env = Env();
  kesttcs::bench::ScopedPlacement placement(PlacementOf(state));
  if (!placement.ok()) state.SkipWithError("needs two CPUs");
  if (Tcs_ConnectThread(env.socket.c_str()) != 0) state.SkipWithError("connect");
  TCS_CONTEXT_HANDLE h = 0;
  if (Tcsi_OpenContext(&h) != 0) state.SkipWithError("open");
  const kesttcs::bench::SwitchCount switches;
  for (auto _ : state) {
    UINT32 n = 16;
    BYTE* random = nullptr;
    if (Tcsip_GetRandom(h, &n, &random) != 0) state.SkipWithError("call");
    Tcs_FreeBuffer(random);
  }
  switches.Report(state);
  static_cast<void>(Tcsi_CloseContext(h));
  Tcs_DisconnectThread();
  state.SetItemsProcessed(state.iterations());
}

// TPM_GetRandom(16), as the service sends it for Tcsip_GetRandom(h, 16).
constexpr std::array<BYTE, 14> kTpmGetRandom16 = {0x00, 0xC1, 0,    0, 0, 14, 0,
                                                  0,    0,    0x46, 0, 0, 0,  16};

void BestCase(benchmark::State& state, const std::string& socket) {
  kesttcs::bench::ScopedPlacement placement(PlacementOf(state));
  if (!placement.ok()) state.SkipWithError("needs two CPUs");
  kesttcs::bench::BestCaseClient client(socket);
  if (!client.connected()) state.SkipWithError("connect");
  std::array<BYTE, 64> answer;
  const kesttcs::bench::SwitchCount switches;
  for (auto _ : state) {
    if (!client.Exchange(kTpmGetRandom16, answer)) state.SkipWithError("exchange");
  }
  switches.Report(state);
  state.SetItemsProcessed(state.iterations());
}

void BestCaseGetRandom16(benchmark::State& state) { BestCase(state, Env().best_case_socket); }
void BestCaseEpollGetRandom16(benchmark::State& state) {
  BestCase(state, Env().best_case_epoll_socket);
}

constexpr UINT32 kLoggedEvents = 100000;

// Fills the event log once with kLoggedEvents events (20-byte digest, 16 bytes of data) spread
// over the 24 PCRs, logged in-process so that only the reading is measured.
bool FillEventLog() {
  static const bool filled = [] {
    BYTE digest[20] = {};
    BYTE data[16] = {};
    for (UINT32 i = 0; i < kLoggedEvents; ++i) {
      digest[0] = static_cast<BYTE>(i);
      TSS_PCR_EVENT e{{1, 2, 0, 0}, i % 24, 13, sizeof(digest), digest, sizeof(data), data};
      UINT32 number = 0;
      if (kesttcs::Tcsi_LogPcrEvent_Internal(kesttcs::kInternalContextHandle, e, &number) != 0) {
        return false;
      }
    }
    return true;
  }();
  return filled;
}

void RpcGetPcrEventLog100k(benchmark::State& state) {
  const Environment& env = Env();
  if (!FillEventLog()) state.SkipWithError("fill");
  if (Tcs_ConnectThread(env.socket.c_str()) != 0) state.SkipWithError("connect");
  TCS_CONTEXT_HANDLE h = 0;
  if (Tcsi_OpenContext(&h) != 0) state.SkipWithError("open");
  for (auto _ : state) {
    UINT32 count = 0;
    TSS_PCR_EVENT* events = nullptr;
    if (Tcsi_GetPcrEventLog(h, &count, &events) != 0 || count != kLoggedEvents) {
      state.SkipWithError("call");
    }
    Tcs_FreeBuffer(events);
  }
  static_cast<void>(Tcsi_CloseContext(h));
  Tcs_DisconnectThread();
  state.SetItemsProcessed(state.iterations() * kLoggedEvents);
}

// The same answer made by the internal function alone: the copies into context memory.
void InternalGetPcrEventLog100k(benchmark::State& state) {
  Env();
  if (!FillEventLog()) state.SkipWithError("fill");
  for (auto _ : state) {
    UINT32 count = 0;
    TSS_PCR_EVENT* events = nullptr;
    if (kesttcs::Tcsi_GetPcrEventLog_Internal(kesttcs::kInternalContextHandle, &count, &events) !=
        0) {
      state.SkipWithError("call");
    }
    kesttcs::ctx_FreeContextMemory(kesttcs::kInternalContextHandle);
  }
  state.SetItemsProcessed(state.iterations() * kLoggedEvents);
}

void Echo(benchmark::State& state, size_t message) {
  const Environment& env = Env();
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", env.echo_socket.c_str());
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    state.SkipWithError("connect");
  }
  std::vector<char> out(message + 1, 'x');
  out[0] = static_cast<char>(message);
  std::vector<char> in(message);
  for (auto _ : state) {
    if (::write(fd, out.data(), out.size()) != static_cast<ssize_t>(out.size()) ||
        !ReadFull(fd, in.data(), in.size())) {
      state.SkipWithError("echo");
    }
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations());
}

void EchoCapabilitySize(benchmark::State& state) { Echo(state, kCapabilityMessage); }
void EchoRandomSize(benchmark::State& state) { Echo(state, kRandomMessage); }

BENCHMARK(RpcGetCapability)->ArgName("placement")->DenseRange(0, 2)->Threads(1)->UseRealTime();
BENCHMARK(RpcGetCapability)->ArgName("placement")->Arg(0)->Threads(8)->UseRealTime();
BENCHMARK(EchoCapabilitySize)->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(RpcGetRandom16)->ArgName("placement")->DenseRange(0, 2)->Threads(1)->UseRealTime();
BENCHMARK(RpcGetRandom16)->ArgName("placement")->Arg(0)->Threads(8)->UseRealTime();
BENCHMARK(BestCaseGetRandom16)->ArgName("placement")->DenseRange(0, 2)->Threads(1)->UseRealTime();
BENCHMARK(BestCaseEpollGetRandom16)->ArgName("placement")->Arg(0)->Threads(8)->UseRealTime();
BENCHMARK(EchoRandomSize)->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(RpcGetPcrEventLog100k)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(InternalGetPcrEventLog100k)->Unit(benchmark::kMillisecond)->UseRealTime();

const bool kRatios = [] {
  for (const Placement p : {Placement::kUnpinned, Placement::kOneCpu, Placement::kTwoCpus}) {
    const std::string arg = "/placement:" + std::to_string(static_cast<int>(p));
    kesttcs::bench::RegisterRatio(std::string("GetRandom(16), one client, ") + PlacementName(p),
                                  "RpcGetRandom16" + arg + "/real_time/threads:1",
                                  "BestCaseGetRandom16" + arg + "/real_time/threads:1",
                                  RatioOf::kTimePerCall);
  }
  kesttcs::bench::RegisterRatio("GetRandom(16), 8 clients (best case: epoll server)",
                                "RpcGetRandom16/placement:0/real_time/threads:8",
                                "BestCaseEpollGetRandom16/placement:0/real_time/threads:8",
                                RatioOf::kCallsPerSecond);
  return kesttcs::bench::RegisterRatio("Tcsi_GetCapability, 8 clients (best case: bare echo)",
                                       "RpcGetCapability/placement:0/real_time/threads:8",
                                       "EchoCapabilitySize/real_time/threads:8",
                                       RatioOf::kCallsPerSecond);
}();

}  // namespace
