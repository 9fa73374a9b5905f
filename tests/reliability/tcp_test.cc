// The loopback TCP endpoint: who may use it, and a client runtime that shares one binding among
// several connections.
#include <gmock/gmock.h>
#include <unistd.h>

#include <string>

#include "impacket_run.h"
#include "reliability.h"
#include "tcs_calls.h"

namespace kesttcs::reliability {
namespace {

// Over TCP the service admits whom the Unix socket admits: root, its own user and the members of
// the socket's group. A user outside the group has the connection closed before any call.
TEST(TcpTest, UsersOutsideTheSocketGroupAreRefused) {
  if (!CanActAsOtherUsers()) GTEST_SKIP() << "needs root, the user nobody and the group tss";
  DaemonOptions options;
  options.tcp = true;
  Daemon daemon(options);
  const std::string endpoint = "tcp:" + std::to_string(daemon.tcp_port());
  EXPECT_EQ(OpenRandomClose(endpoint), 0u);
  const uint16_t port = daemon.tcp_port();
  EXPECT_EQ(RunAs(NobodyUid(), NobodyGid(),
                  [&] {
                    const int fd = ConnectTcp(port);
                    const bool refused = fd >= 0 && ClosedByServer(fd);
                    return refused && OpenRandomClose(endpoint) != 0 ? 0 : 1;
                  }),
            0);
  // Over the Unix socket the same user is kept out by the socket's mode.
  const std::string socket = daemon.socket();
  EXPECT_EQ(RunAs(NobodyUid(), NobodyGid(), [&] { return ConnectUnix(socket) < 0 ? 0 : 1; }), 0);
}

// A multithreaded client on a Microsoft-compatible runtime shares one binding handle: the runtime
// opens a connection per concurrent call and binds each into the first connection's association
// group. Contexts belong to the group, so every call on the shared context succeeds, and so does
// closing it on any of the group's connections. A group id the server never issued gets a fresh
// group, whose connections cannot use the context.
TEST(TcpTest, ThreadsSharingOneBindingAllSucceed) {
  DaemonOptions options;
  options.tcp = true;
  Daemon daemon(options);
  const std::optional<std::string> output = RunImpacketScript(daemon.directory(), R"(
import struct, threading
from impacket.dcerpc.v5 import rpcrt
from impacket.uuid import uuidtup_to_bin
from impacket_probe import connect

TCS = uuidtup_to_bin(('fbcd9c02-72cb-47bb-99dd-aedb551491de', '1.0'))
first = connect()
group = rpcrt.MSRPCBindAck(first.bind(TCS).getData())['assoc_group']

join = 0
plain_init = rpcrt.MSRPCBind.__init__
def joining_init(self, data=None, alignment=0):
    plain_init(self, data, alignment)
    if data is None:
        self['assoc_group'] = join
rpcrt.MSRPCBind.__init__ = joining_init

def bound(group_id):
    global join
    join = group_id
    dce = connect()
    ack = rpcrt.MSRPCBindAck(dce.bind(TCS).getData())
    return dce, ack['assoc_group']

def call(dce, opnum, stub):
    dce.call(opnum, stub)
    return dce.recv()

def result(answer):
    return struct.unpack('<L', answer[-4:])[0]

h = struct.unpack('<L', call(first, 3, b'')[:4])[0]
connections = [bound(group) for _ in range(8)]
print('joined', all(g == group for _, g in connections))
results = [None] * 8
def random(i):
    results[i] = result(call(connections[i][0], 56, struct.pack('<LL', h, 16)))
threads = [threading.Thread(target=random, args=(i,)) for i in range(8)]
for t in threads: t.start()
for t in threads: t.join()
print('random', ' '.join('%x' % r for r in results))
stranger, stranger_group = bound(0x7fff1234)
print('fresh group', stranger_group not in (group, 0x7fff1234))
print('stranger', '%x' % result(call(stranger, 56, struct.pack('<LL', h, 16))))
print('close', '%x' % result(call(connections[5][0], 4, struct.pack('<L', h))))
)",
                                                              daemon.tcp_port());
  if (!output) GTEST_SKIP() << "python3-impacket is not installed";
  EXPECT_EQ(*output,
            "joined True\n"
            "random 0 0 0 0 0 0 0 0\n"
            "fresh group True\n"
            "stranger e02820c1\n"
            "close 0\n");
}

}  // namespace
}  // namespace kesttcs::reliability
