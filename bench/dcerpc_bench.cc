// Round-trip latency of a 32-byte echo call through the DCE/RPC client and server over a Unix
// socket, against a bare Unix-socket echo of the same 32 bytes, with 1 and 8 client threads.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "rpc/dcerpc/client.h"
#include "rpc/dcerpc/server.h"

namespace kesttcs::dcerpc {
namespace {

SyntaxId BenchInterface() { return {*Uuid::Parse("5a7c1f3e-2b4d-4e6f-8a9b-0c1d2e3f4a5b"), 1, 0}; }

std::string TempDir() {
  char pattern[] = "/tmp/kesttcs-bench-XXXXXX";
  return mkdtemp(pattern) ? pattern : "/tmp";
}

// One echo server for the whole run.
struct RpcFixture {
  RpcFixture() : dir(TempDir()), path(dir + "/KestTCS") {
    (void)server.RegisterInterface(
        BenchInterface(),
        [](const CallInfo&, uint16_t, std::span<const uint8_t> in, std::vector<uint8_t>& out) {
          out.assign(in.begin(), in.end());
          return 0u;
        });
    ServerOptions options;
    options.unix_path = path;
    if (server.Start(options) != 0) std::abort();
  }
  ~RpcFixture() {
    server.Stop();
    std::filesystem::remove_all(dir);
  }
  std::string dir;
  std::string path;
  Server server;
};

RpcFixture& Rpc() {
  static RpcFixture fixture;
  return fixture;
}

void BM_RpcEcho32(benchmark::State& state) {
  Client client;
  if (client.ConnectUnix(Rpc().path) != kRpcOk || client.Bind(BenchInterface()) != kRpcOk) {
    state.SkipWithError("cannot bind");
    return;
  }
  std::vector<uint8_t> in(32, 0x5a), out;
  for (auto _ : state) {
    if (client.Call(0, in, out) != kRpcOk || out.size() != 32) state.SkipWithError("call failed");
  }
}
BENCHMARK(BM_RpcEcho32)->Threads(1)->Threads(8)->UseRealTime();

// A bare echo over a Unix socket pair: one server thread per connection, read 32, write 32.
void BM_BareUnixEcho32(benchmark::State& state) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    state.SkipWithError("socketpair");
    return;
  }
  std::thread echo([fd = fds[1]] {
    uint8_t buffer[32];
    for (;;) {
      size_t got = 0;
      while (got < sizeof(buffer)) {
        ssize_t n = read(fd, buffer + got, sizeof(buffer) - got);
        if (n <= 0) return;
        got += static_cast<size_t>(n);
      }
      if (write(fd, buffer, sizeof(buffer)) != static_cast<ssize_t>(sizeof(buffer))) return;
    }
  });
  uint8_t buffer[32] = {};
  for (auto _ : state) {
    if (write(fds[0], buffer, sizeof(buffer)) != static_cast<ssize_t>(sizeof(buffer))) break;
    size_t got = 0;
    while (got < sizeof(buffer)) {
      ssize_t n = read(fds[0], buffer + got, sizeof(buffer) - got);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
  }
  shutdown(fds[0], SHUT_RDWR);
  echo.join();
  close(fds[0]);
  close(fds[1]);
}
BENCHMARK(BM_BareUnixEcho32)->Threads(1)->Threads(8)->UseRealTime();

}  // namespace
}  // namespace kesttcs::dcerpc
