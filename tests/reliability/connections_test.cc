// Many connections: an open-file limit below the clients' number, one process with thousands of
// connections, and connections left idle.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "reliability.h"
#include "tcs_calls.h"

namespace kesttcs::reliability {
namespace {

using std::chrono::seconds;

// Closes every descriptor of the list when the test ends.
struct Connections {
  ~Connections() { CloseAll(); }
  void CloseAll() {
    for (int fd : fds) {
      if (fd >= 0) close(fd);
    }
    fds.clear();
  }
  std::vector<int> fds;
};

// 1100 clients against a daemon allowed 1024 descriptors: the daemon takes what its limit leaves
// room for and refuses the rest at once, instead of failing to accept in a loop that burns the
// CPUs; once clients leave, a new one is served.
TEST(ConnectionLimitsTest, OutOfDescriptorsTheServiceIdlesAndServesOnceClientsLeave) {
  DaemonOptions options;
  options.open_files = 1024;
  Daemon daemon(options);
  Connections clients;
  for (int i = 0; i < 1100; ++i) {
    clients.fds.push_back(ConnectUnix(daemon.socket()));
    ASSERT_GE(clients.fds.back(), 0) << i;
  }
  std::this_thread::sleep_for(seconds(1));
  const double before = daemon.CpuSeconds();
  std::this_thread::sleep_for(seconds(3));
  const double busy = (daemon.CpuSeconds() - before) / 3;
  RecordProperty("cpu_share_while_full", std::to_string(busy));
  EXPECT_LT(busy, 0.10);

  clients.CloseAll();
  EXPECT_TRUE(WaitFor([&] { return OpenRandomClose(daemon.socket()) == 0; }, seconds(30)));
}

// One process holding 4096 connections reaches only its own per-user limit; another user is
// still served, and the process's own connections beyond the limit are closed at once.
TEST(ConnectionLimitsTest, OneProcessCannotLockOutAnotherUser) {
  if (!CanActAsOtherUsers()) GTEST_SKIP() << "needs root, the user nobody and the group tss";
  Daemon daemon;
  Connections hog;
  for (int i = 0; i < 4096; ++i) {
    hog.fds.push_back(ConnectUnix(daemon.socket()));
    ASSERT_GE(hog.fds.back(), 0) << i;
  }
  const int one_more = ConnectUnix(daemon.socket());
  EXPECT_TRUE(ClosedByServer(one_more));
  close(one_more);
  const std::string socket = daemon.socket();
  EXPECT_EQ(RunAs(NobodyUid(), TssGid(), [&] { return OpenRandomClose(socket) == 0 ? 0 : 1; }), 0);
}

// A connection left idle is closed after the idle time-out unless its client holds a context:
// then closing it would close the context, so it stays.
TEST(ConnectionLimitsTest, IdleConnectionsOfClientsWithoutContextsAreClosed) {
  DaemonOptions options;
  options.rpc_keys = "idle_timeout=1\n";
  Daemon daemon(options);
  const int idle = ConnectUnix(daemon.socket());
  EXPECT_TRUE(ClosedByServer(idle, seconds(10)));
  close(idle);

  ASSERT_EQ(Tcs_ConnectThread(daemon.socket().c_str()), 0u);
  TCS_CONTEXT_HANDLE hContext = 0;
  ASSERT_EQ(Tcsi_OpenContext(&hContext), 0u);
  std::this_thread::sleep_for(seconds(3));
  UINT32 count = 8;
  BYTE* bytes = nullptr;
  EXPECT_EQ(Tcsip_GetRandom(hContext, &count, &bytes), 0u);
  Tcs_FreeBuffer(bytes);
  EXPECT_EQ(Tcsi_CloseContext(hContext), 0u);
  Tcs_DisconnectThread();
}

}  // namespace
}  // namespace kesttcs::reliability
