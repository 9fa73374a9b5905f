// The real kesttcsd as a process (a child on the embedded TPM, started as systemd starts it): the
// time from its start to READY=1, on a fresh home and on one it has run on before (and there on a
// swtpm instead); and what idle clients cost it: its resident memory and threads while 1000 clients
// are connected, each holding one open context and sending nothing more, and how long its threads
// take to fall back once they have gone (one iteration; the figures are its counters).
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "reliability.h"
#include "rpc/dcerpc/client.h"
#include "rpc/dcerpc/server.h"
#include "rpc/operations.h"
#include "rpc/stubs.h"
#include "swtpm_process.h"

namespace kesttcs {
namespace {

using reliability::Daemon;
using reliability::DaemonOptions;
using Clock = std::chrono::steady_clock;

// Each client is a connection of this process; the soft limit of 1024 would stop short of 1000
// clients plus the daemon's own descriptors.
void RaiseOpenFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// A connection bound to the TCS interface with one context open on it; null when a step fails.
std::unique_ptr<dcerpc::Client> IdleClient(const Daemon& daemon) {
  auto client = std::make_unique<dcerpc::Client>();
  std::vector<uint8_t> out;
  if (client->ConnectUnix(daemon.socket().string()) != dcerpc::kRpcOk ||
      client->Bind(rpc::TcsInterfaceSyntax()) != dcerpc::kRpcOk ||
      client->Call(rpc::OpnumOf("Tcsi_OpenContext"), {}, out) != dcerpc::kRpcOk) {
    return nullptr;
  }
  return client;
}

void BM_StartToReady_FreshHome(benchmark::State& state) {
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    const Daemon daemon;
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}
BENCHMARK(BM_StartToReady_FreshHome)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(5);

// Each iteration stops the daemon and times its start again on the same home.
void TimeRestarts(benchmark::State& state, Daemon& daemon) {
  for (auto _ : state) {
    daemon.Stop();
    state.SetIterationTime(std::chrono::duration<double>(daemon.Start()).count());
  }
}

void BM_StartToReady_ExistingHome(benchmark::State& state) {
  Daemon daemon;
  TimeRestarts(state, daemon);
}
BENCHMARK(BM_StartToReady_ExistingHome)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(10);

// The same on a swtpm that is already running: the daemon's own start, without the embedded TPM's
// power-on self-test (libtpms generates an RSA key in it at every start).
void BM_StartToReady_ExistingHome_Swtpm(benchmark::State& state) {
  if (!testing::SwtpmInstalled()) return state.SkipWithError("swtpm is not installed");
  const testing::SwtpmProcess swtpm(/*startupClear=*/true);
  DaemonOptions options;
  options.tpm = swtpm.UnixConfig();
  Daemon daemon(options);
  TimeRestarts(state, daemon);
}
BENCHMARK(BM_StartToReady_ExistingHome_Swtpm)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(10);

double MiB(long kib) { return static_cast<double>(kib) / 1024.0; }

void BM_IdleClients(benchmark::State& state) {
  RaiseOpenFileLimit();
  const auto count = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    Daemon daemon;
    const long threadsBefore = daemon.Threads();
    const long residentBefore = daemon.ResidentKiB();
    std::vector<std::unique_ptr<dcerpc::Client>> clients;
    for (size_t i = 0; i < count; ++i) {
      clients.push_back(IdleClient(daemon));
      if (!clients.back()) return state.SkipWithError("a client could not open its context");
    }
    // Let the workers that served the opens go back to waiting in epoll.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    state.counters["rss_before_MiB"] = MiB(residentBefore);
    state.counters["rss_idle_MiB"] = MiB(daemon.ResidentKiB());
    state.counters["threads_before"] = static_cast<double>(threadsBefore);
    state.counters["threads_idle"] = static_cast<double>(daemon.Threads());

    clients.clear();
    const Clock::time_point gone = Clock::now();
    // Before the first client only the service's own threads ran; the pool keeps its floor.
    const long floor = threadsBefore + static_cast<long>(dcerpc::kMinWorkers);
    reliability::WaitFor([&] { return daemon.Threads() <= floor; }, std::chrono::seconds(60));
    state.counters["threads_after"] = static_cast<double>(daemon.Threads());
    state.counters["s_to_floor"] = std::chrono::duration<double>(Clock::now() - gone).count();
    state.counters["rss_after_MiB"] = MiB(daemon.ResidentKiB());
  }
}
BENCHMARK(BM_IdleClients)->Arg(1000)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
}  // namespace kesttcs
