// The DCE/RPC runtime end to end: a real server and real clients over a Unix socket in a
// temporary directory and over loopback TCP, serving a small echo interface.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "impacket_run.h"
#include "rpc/dcerpc/client.h"
#include "rpc/dcerpc/ndr.h"
#include "rpc/dcerpc/pdu.h"
#include "rpc/dcerpc/server.h"

namespace kesttcs::dcerpc {
namespace {

constexpr char kEchoUuid[] = "5a7c1f3e-2b4d-4e6f-8a9b-0c1d2e3f4a5b";

enum EchoOp : uint16_t {
  kEcho = 0,      // returns the stub unchanged
  kGate = 1,      // waits until the test opens the gate, then echoes
  kReverse = 2,   // [in] conformant byte array -> the bytes reversed, as a conformant array
  kGenerate = 3,  // [in] UINT32 n -> n bytes 0,1,2,... as a conformant array
  kWhoAmI = 4,    // -> pid, uid, connection id (low 32 bits)
  kOpCount = 5,
};

SyntaxId EchoSyntax() { return {*Uuid::Parse(kEchoUuid), 1, 0}; }

// A gate that calls of opnum kGate wait behind; counts the calls waiting.
class Gate {
 public:
  void Pass() {
    std::unique_lock lock(mu_);
    ++waiting_;
    cv_.notify_all();
    cv_.wait(lock, [this] { return open_; });
    --waiting_;
  }
  void Open() {
    std::lock_guard lock(mu_);
    open_ = true;
    cv_.notify_all();
  }
  void WaitForWaiters(int n) {
    std::unique_lock lock(mu_);
    cv_.wait(lock, [&] { return waiting_ >= n; });
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  int waiting_ = 0;
  bool open_ = false;
};

uint32_t EchoHandler(Gate& gate, const CallInfo& info, uint16_t opnum, std::span<const uint8_t> in,
                     std::vector<uint8_t>& out) {
  NdrReader reader(in, info.byte_order);
  NdrWriter writer(out);
  switch (opnum) {
    case kGate:
      gate.Pass();
      [[fallthrough]];
    case kEcho:
      writer.WriteBytes(in);
      return 0;
    case kReverse: {
      std::vector<uint8_t> bytes;
      if (!reader.ReadConformantBytes(bytes) || reader.remaining() != 0) return kRpcBadStubData;
      std::reverse(bytes.begin(), bytes.end());
      writer.WriteConformantBytes(bytes);
      return 0;
    }
    case kGenerate: {
      uint32_t n = 0;
      if (!reader.ReadUint32(n) || n > 4 * 1024 * 1024) return kRpcBadStubData;
      std::vector<uint8_t> bytes(n);
      for (uint32_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i);
      writer.WriteConformantBytes(bytes);
      return 0;
    }
    case kWhoAmI:
      writer.WriteUint32(static_cast<uint32_t>(info.peer.pid));
      writer.WriteUint32(info.peer.uid);
      writer.WriteUint32(static_cast<uint32_t>(info.peer.connection_id));
      return 0;
    default:
      return kNcaOpRangeError;
  }
}

class DcerpcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kesttcs-dcerpc-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    path_ = dir_ + "/run/KestTCS";
    ASSERT_TRUE(server_.RegisterInterface(
        EchoSyntax(),
        [this](const CallInfo& info, uint16_t opnum, std::span<const uint8_t> in,
               std::vector<uint8_t>& out) { return EchoHandler(gate_, info, opnum, in, out); }));
    server_.SetConnectionClosedCallback([this](const PeerIdentity& peer) {
      std::lock_guard lock(closed_mu_);
      closed_.push_back(peer);
      closed_cv_.notify_all();
    });
    ServerOptions options;
    options.unix_path = path_;
    options.tcp_port = 0;
    ASSERT_EQ(server_.Start(options), 0);
  }

  void TearDown() override {
    gate_.Open();
    server_.Stop();
    std::filesystem::remove_all(dir_);
  }

  std::unique_ptr<Client> BoundClient(bool tcp = false) {
    auto client = std::make_unique<Client>();
    EXPECT_EQ(tcp ? client->ConnectTcp(server_.tcp_port()) : client->ConnectUnix(path_), kRpcOk);
    EXPECT_EQ(client->Bind(EchoSyntax()), kRpcOk);
    return client;
  }

  // Waits until a connection of `connection_id` has been reported closed.
  PeerIdentity WaitClosed(uint64_t connection_id) {
    std::unique_lock lock(closed_mu_);
    for (;;) {
      for (const PeerIdentity& peer : closed_) {
        if (peer.connection_id == connection_id) return peer;
      }
      closed_cv_.wait(lock);
    }
  }

  std::string dir_;
  std::string path_;
  Gate gate_;
  Server server_;
  std::mutex closed_mu_;
  std::condition_variable closed_cv_;
  std::vector<PeerIdentity> closed_;
};

std::vector<uint8_t> Pattern(size_t n, uint8_t seed) {
  std::vector<uint8_t> bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + seed);
  return bytes;
}

// A raw connection for writing arbitrary bytes.
class RawSocket {
 public:
  explicit RawSocket(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, path.size());
    EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  }
  ~RawSocket() { Close(); }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  void Send(std::span<const uint8_t> bytes) {
    EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  // Reads one PDU; nullopt when the server closed the connection. A safety limit of 30 s keeps a
  // broken server from hanging the suite.
  std::optional<std::vector<uint8_t>> ReadPdu() {
    std::vector<uint8_t> pdu(kHeaderSize);
    if (!ReadExact(pdu.data(), kHeaderSize)) return std::nullopt;
    size_t length = pdu[8] | pdu[9] << 8;
    if (pdu[4] == 0) length = pdu[8] << 8 | pdu[9];
    if (length < kHeaderSize) return std::nullopt;
    pdu.resize(length);
    if (!ReadExact(pdu.data() + kHeaderSize, length - kHeaderSize)) return std::nullopt;
    return pdu;
  }
  // Reads one PDU and returns its fault status; nullopt when it is no fault or none came.
  std::optional<uint32_t> ReadFault() {
    std::optional<std::vector<uint8_t>> pdu = ReadPdu();
    if (!pdu) return std::nullopt;
    std::optional<PduHeader> header = ParseHeader(*pdu);
    if (!header || header->type != PduType::kFault) return std::nullopt;
    std::optional<ResponsePdu> fault = ParseResponse(*header, *pdu);
    if (!fault) return std::nullopt;
    return fault->status;
  }
  // True once the server has closed the connection (reads until EOF).
  bool ClosedByServer() {
    uint8_t byte;
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 30000) != 1) return false;
      ssize_t n = recv(fd_, &byte, 1, 0);
      if (n <= 0) return true;
    }
  }

 private:
  bool ReadExact(uint8_t* into, size_t n) {
    while (n > 0) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 30000) != 1) return false;
      ssize_t got = recv(fd_, into, n, 0);
      if (got <= 0) return false;
      into += got;
      n -= static_cast<size_t>(got);
    }
    return true;
  }
  int fd_ = -1;
};

std::vector<uint8_t> EchoBind(uint32_t call_id) {
  BindPdu bind{kMaxFragmentSize, kMaxFragmentSize, 0, {{0, EchoSyntax(), {NdrSyntax()}}}};
  return EncodeBind(PduType::kBind, call_id, bind);
}

TEST_F(DcerpcTest, UnixSocketCallsFaultsAndFragments) {
  struct stat st {};
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0660u);

  auto client = BoundClient();
  std::vector<uint8_t> out;
  std::vector<uint8_t> small = Pattern(32, 1);
  ASSERT_EQ(client->Call(kEcho, small, out), kRpcOk);
  EXPECT_EQ(out, small);

  // A request of many fragments and a response of many fragments.
  std::vector<uint8_t> large = Pattern(300000, 3);
  ASSERT_EQ(client->Call(kEcho, large, out), kRpcOk);
  EXPECT_EQ(out, large);
  std::vector<uint8_t> in;
  NdrWriter(in).WriteUint32(200001);
  ASSERT_EQ(client->Call(kGenerate, in, out), kRpcOk);
  NdrReader reader(out);
  std::span<const uint8_t> generated;
  ASSERT_TRUE(reader.ReadConformantBytes(generated));
  ASSERT_EQ(generated.size(), 200001u);
  EXPECT_EQ(generated[200000], static_cast<uint8_t>(200000));

  // Faults leave the connection usable.
  EXPECT_EQ(client->Call(kOpCount, small, out), kNcaOpRangeError);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(client->Call(kReverse, small, out), kRpcBadStubData);
  in.clear();
  NdrWriter(in).WriteConformantBytes(std::vector<uint8_t>{1, 2, 3});
  ASSERT_EQ(client->Call(kReverse, in, out), kRpcOk);
  EXPECT_EQ(out, (std::vector<uint8_t>{3, 0, 0, 0, 3, 2, 1}));

  // The handler sees the caller's credentials.
  ASSERT_EQ(client->Call(kWhoAmI, {}, out), kRpcOk);
  NdrReader who(out);
  uint32_t pid = 0, uid = 0, connection = 0;
  ASSERT_TRUE(who.ReadUint32(pid) && who.ReadUint32(uid) && who.ReadUint32(connection));
  EXPECT_EQ(pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(uid, getuid());

  client->Close();
  PeerIdentity closed = WaitClosed(connection);
  EXPECT_TRUE(closed.has_credentials);
  EXPECT_EQ(closed.pid, getpid());
}

TEST_F(DcerpcTest, TcpBindRefusalsAndRebind) {
  Client client;
  ASSERT_EQ(client.ConnectTcp(server_.tcp_port()), kRpcOk);
  SyntaxId wrong = EchoSyntax();
  wrong.uuid.time_low ^= 1;
  EXPECT_EQ(client.Bind(wrong), kRpcUnknownInterface);
  EXPECT_EQ(client.bind_nak_reason(), kNakReasonNotSpecified);
  SyntaxId wrong_version = EchoSyntax();
  wrong_version.major = 2;
  EXPECT_EQ(client.Bind(wrong_version), kRpcUnknownInterface);
  std::vector<uint8_t> out;
  EXPECT_EQ(client.Call(kEcho, {}, out), kRpcNotBound);

  // The connection survives the refusals and binds properly afterwards.
  ASSERT_EQ(client.Bind(EchoSyntax()), kRpcOk);
  std::vector<uint8_t> small = Pattern(32, 9);
  ASSERT_EQ(client.Call(kEcho, small, out), kRpcOk);
  EXPECT_EQ(out, small);
  ASSERT_EQ(client.Call(kWhoAmI, {}, out), kRpcOk);
  NdrReader who(out);
  uint32_t pid = 1;
  ASSERT_TRUE(who.ReadUint32(pid));
  EXPECT_EQ(pid, 0u);  // no peer credentials over TCP

  Client nobody;
  server_.Stop();
  EXPECT_EQ(nobody.ConnectUnix(path_), kRpcServerUnavailable);
  EXPECT_EQ(nobody.ConnectTcp(server_.tcp_port()), kRpcServerUnavailable);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(DcerpcTest, BindNegotiatesContextsAndBigEndianRequests) {
  RawSocket raw(path_);
  SyntaxId features = {*Uuid::Parse("6cb71c2c-9812-4540-0300-000000000000"), 1, 0};
  SyntaxId other = EchoSyntax();
  other.uuid.time_mid ^= 1;
  BindPdu bind{4280,
               4280,
               0,
               {{0, EchoSyntax(), {Ndr64Syntax()}},
                {1, EchoSyntax(), {Ndr64Syntax(), NdrSyntax()}},
                {2, EchoSyntax(), {features}},
                {3, other, {NdrSyntax()}}}};
  raw.Send(EncodeBind(PduType::kBind, 7, bind));
  auto reply = raw.ReadPdu();
  ASSERT_TRUE(reply);
  auto header = ParseHeader(*reply);
  ASSERT_TRUE(header && header->type == PduType::kBindAck);
  EXPECT_EQ(header->call_id, 7u);
  auto ack = ParseBindAck(*header, *reply);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->max_xmit_frag, 4280);
  EXPECT_EQ(ack->max_recv_frag, 4280);
  EXPECT_EQ(ack->secondary_address, path_);
  ASSERT_EQ(ack->results.size(), 4u);
  EXPECT_EQ(ack->results[0].result, kResultProviderRejection);
  EXPECT_EQ(ack->results[0].reason, kReasonTransferSyntaxesNotSupported);
  EXPECT_TRUE(ack->results[0].transfer_syntax.uuid.IsNil());
  EXPECT_EQ(ack->results[1].result, kResultAcceptance);
  EXPECT_EQ(ack->results[1].transfer_syntax, NdrSyntax());
  EXPECT_EQ(ack->results[2].result, kResultNegotiateAck);
  EXPECT_EQ(ack->results[2].reason, kFeatureKeepConnectionOnOrphan);
  EXPECT_EQ(ack->results[3].result, kResultProviderRejection);
  EXPECT_EQ(ack->results[3].reason, kReasonAbstractSyntaxNotSupported);

  // A big-endian request on context 1: stub = conformant array {5, 6} in big-endian.
  std::vector<uint8_t> request;
  EncodeRequestFragments(8, 1, kReverse, std::nullopt, std::vector<uint8_t>{0, 0, 0, 2, 5, 6},
                         kMaxFragmentSize, request);
  request[4] = 0x00;                    // drep: big-endian integers
  std::swap(request[8], request[9]);    // frag_length
  std::swap(request[12], request[15]);  // call_id
  std::swap(request[13], request[14]);
  std::swap(request[16], request[19]);  // alloc_hint
  std::swap(request[17], request[18]);
  std::swap(request[20], request[21]);  // context id
  std::swap(request[22], request[23]);  // opnum
  raw.Send(request);
  reply = raw.ReadPdu();
  ASSERT_TRUE(reply);
  header = ParseHeader(*reply);
  ASSERT_TRUE(header && header->type == PduType::kResponse);
  EXPECT_EQ(header->call_id, 8u);
  auto response = ParseResponse(*header, *reply);
  ASSERT_TRUE(response);
  EXPECT_EQ(std::vector<uint8_t>(response->stub.begin(), response->stub.end()),
            (std::vector<uint8_t>{2, 0, 0, 0, 6, 5}));

  // A request on the rejected context faults with unknown interface.
  request.clear();
  EncodeRequestFragments(9, 0, kEcho, std::nullopt, {}, kMaxFragmentSize, request);
  raw.Send(request);
  EXPECT_EQ(raw.ReadFault(), kNcaUnknownInterface);
}

TEST_F(DcerpcTest, HostileStreamsAreRefusedAndTheServerCarriesOn) {
  {  // Garbage closes the connection.
    RawSocket raw(path_);
    raw.Send(Pattern(100, 0x55));
    EXPECT_TRUE(raw.ClosedByServer());
  }
  {  // A fragment longer than the negotiated size closes the connection.
    RawSocket raw(path_);
    std::vector<uint8_t> bind = EchoBind(1);
    bind[8] = 0xff;
    bind[9] = 0xff;
    raw.Send(bind);
    EXPECT_TRUE(raw.ClosedByServer());
  }
  {  // A bind whose context count runs past the fragment closes the connection.
    RawSocket raw(path_);
    std::vector<uint8_t> bind = EchoBind(1);
    bind[24] = 200;
    raw.Send(bind);
    EXPECT_TRUE(raw.ClosedByServer());
  }
  {  // A truncated PDU followed by a disconnect.
    RawSocket raw(path_);
    std::vector<uint8_t> bind = EchoBind(1);
    raw.Send(std::span(bind).first(30));
  }
  {  // A request before any bind faults.
    RawSocket raw(path_);
    std::vector<uint8_t> request;
    EncodeRequestFragments(3, 0, kEcho, std::nullopt, Pattern(8, 0), kMaxFragmentSize, request);
    raw.Send(request);
    EXPECT_EQ(raw.ReadFault(), kNcaProtocolError);
  }
  {  // A request above the size cap faults once its last fragment has arrived; a continuation
     // fragment of no call closes the connection.
    RawSocket raw(path_);
    raw.Send(EchoBind(1));
    ASSERT_TRUE(raw.ReadPdu());
    std::vector<uint8_t> request;
    EncodeRequestFragments(2, 0, kEcho, std::nullopt, Pattern(kMaxRequestStub + 1, 0),
                           kMaxFragmentSize, request);
    raw.Send(request);
    EXPECT_EQ(raw.ReadFault(), kNcaFaultRemoteNoMemory);
    request.clear();
    EncodeRequestFragments(5, 0, kEcho, std::nullopt, Pattern(16, 0), kMaxFragmentSize, request);
    request[3] = kPfcLastFrag;
    raw.Send(request);
    EXPECT_TRUE(raw.ClosedByServer());
  }
  {  // An orphaned call's fragments are dropped and the connection keeps working.
    RawSocket raw(path_);
    raw.Send(EchoBind(1));
    ASSERT_TRUE(raw.ReadPdu());
    std::vector<uint8_t> request;
    EncodeRequestFragments(2, 0, kEcho, std::nullopt, Pattern(20000, 0), kMaxFragmentSize, request);
    raw.Send(std::span(request).first(kMaxFragmentSize));
    raw.Send(EncodeHeaderOnly(PduType::kOrphaned, 2, kPfcFirstFrag | kPfcLastFrag));
    raw.Send(std::span(request).subspan(kMaxFragmentSize));
    raw.Send(EncodeHeaderOnly(PduType::kCoCancel, 2, kPfcFirstFrag | kPfcLastFrag));
    request.clear();
    EncodeRequestFragments(3, 0, kEcho, std::nullopt, Pattern(8, 0), kMaxFragmentSize, request);
    raw.Send(request);
    auto reply = raw.ReadPdu();
    ASSERT_TRUE(reply);
    auto header = ParseHeader(*reply);
    ASSERT_TRUE(header && header->type == PduType::kResponse);
    EXPECT_EQ(header->call_id, 3u);
  }
  auto client = BoundClient();
  std::vector<uint8_t> out;
  EXPECT_EQ(client->Call(kEcho, Pattern(32, 0), out), kRpcOk);
}

// Sends one single-fragment request on a raw connection and returns the response stub.
std::vector<uint8_t> RawCall(RawSocket& raw, uint32_t call_id, uint16_t opnum,
                             std::span<const uint8_t> stub) {
  std::vector<uint8_t> request;
  EncodeRequestFragments(call_id, 0, opnum, std::nullopt, stub, kMaxFragmentSize, request);
  raw.Send(request);
  auto reply = raw.ReadPdu();
  if (!reply) return {};
  auto header = ParseHeader(*reply);
  if (!header || header->type != PduType::kResponse) return {};
  auto response = ParseResponse(*header, *reply);
  return std::vector<uint8_t>(response->stub.begin(), response->stub.end());
}

TEST_F(DcerpcTest, SlowCallBlocksNeitherOthersNorItsDisconnect) {
  RawSocket slow(path_);
  slow.Send(EchoBind(1));
  ASSERT_TRUE(slow.ReadPdu());
  std::vector<uint8_t> who = RawCall(slow, 2, kWhoAmI, {});
  ASSERT_EQ(who.size(), 12u);
  uint32_t slow_connection = who[8] | who[9] << 8 | who[10] << 16 | who[11] << 24;
  std::vector<uint8_t> request;
  EncodeRequestFragments(3, 0, kGate, std::nullopt, Pattern(8, 0), kMaxFragmentSize, request);
  slow.Send(request);
  gate_.WaitForWaiters(1);

  // Other clients are served while the slow call waits behind the gate.
  for (bool tcp : {false, true}) {
    auto fast = BoundClient(tcp);
    std::vector<uint8_t> out;
    EXPECT_EQ(fast->Call(kEcho, Pattern(32, 2), out), kRpcOk);
  }

  // The slow client disconnects mid-call; the server reports the closed connection once the
  // handler has finished, and keeps serving.
  slow.Close();
  gate_.Open();
  PeerIdentity closed = WaitClosed(slow_connection);
  EXPECT_TRUE(closed.has_credentials);
  EXPECT_EQ(closed.pid, getpid());
  auto after = BoundClient();
  std::vector<uint8_t> out;
  EXPECT_EQ(after->Call(kEcho, Pattern(32, 2), out), kRpcOk);
}

// A listening Unix socket at `path`, for a scripted server.
int ListenOn(const std::string& path) {
  int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  path.copy(addr.sun_path, path.size());
  EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  EXPECT_EQ(listen(listener, 1), 0);
  return listener;
}

// Accepts a client's connection on `listener`, takes its bind and acknowledges it (call id 1).
int AcceptBound(int listener) {
  int fd = accept(listener, nullptr, nullptr);
  uint8_t buffer[256];
  EXPECT_GT(recv(fd, buffer, sizeof(buffer), 0), 0);
  BindAckPdu ack{kMaxFragmentSize, kMaxFragmentSize, 1, "", {{0, 0, NdrSyntax()}}};
  std::vector<uint8_t> pdu = EncodeBindAck(PduType::kBindAck, 1, ack);
  EXPECT_EQ(send(fd, pdu.data(), pdu.size(), MSG_NOSIGNAL), static_cast<ssize_t>(pdu.size()));
  return fd;
}

TEST_F(DcerpcTest, ClientReportsLostConnectionAndMissingServer) {
  // A server that acknowledges the bind, takes the request and hangs up.
  std::string path = dir_ + "/hangup";
  int listener = ListenOn(path);
  std::thread fake([&] {
    int fd = AcceptBound(listener);
    uint8_t buffer[256];
    EXPECT_GT(recv(fd, buffer, sizeof(buffer), 0), 0);
    close(fd);
  });
  Client client;
  ASSERT_EQ(client.ConnectUnix(path), kRpcOk);
  ASSERT_EQ(client.Bind(EchoSyntax()), kRpcOk);
  std::vector<uint8_t> out;
  EXPECT_EQ(client.Call(kEcho, Pattern(32, 0), out), kRpcCallFailed);
  EXPECT_FALSE(client.connected());
  EXPECT_EQ(client.Call(kEcho, Pattern(32, 0), out), kRpcCallFailed);
  fake.join();
  close(listener);
  EXPECT_EQ(client.ConnectUnix(dir_ + "/nothing-here"), kRpcServerUnavailable);
}

// Wine's RPC server puts call id 1 into every PDU it sends; the client still takes the answers,
// as its connection carries one call at a time.
TEST_F(DcerpcTest, ClientTakesAnswersWhateverTheirCallId) {
  std::string path = dir_ + "/call-id-one";
  int listener = ListenOn(path);
  std::thread fake([&] {
    int fd = AcceptBound(listener);
    uint8_t buffer[256];
    std::vector<uint8_t> pdu;
    for (uint8_t seed = 0; seed < 2; ++seed) {
      EXPECT_GT(recv(fd, buffer, sizeof(buffer), 0), 0);
      pdu.clear();
      EncodeResponseFragments(1, 0, Pattern(8, seed), kMaxFragmentSize, pdu);
      EXPECT_EQ(send(fd, pdu.data(), pdu.size(), MSG_NOSIGNAL), static_cast<ssize_t>(pdu.size()));
    }
    close(fd);
  });
  Client client;
  ASSERT_EQ(client.ConnectUnix(path), kRpcOk);
  ASSERT_EQ(client.Bind(EchoSyntax()), kRpcOk);
  std::vector<uint8_t> out;
  EXPECT_EQ(client.Call(kEcho, Pattern(32, 0), out), kRpcOk);
  EXPECT_EQ(out, Pattern(8, 0));
  EXPECT_EQ(client.Call(kEcho, Pattern(32, 0), out), kRpcOk);
  EXPECT_EQ(out, Pattern(8, 1));
  fake.join();
  close(listener);
}

TEST_F(DcerpcTest, ThousandConcurrentCalls) {
  constexpr int kClients = 1000;
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < kClients; ++i) clients.push_back(BoundClient(i % 2 == 1));
  std::vector<uint32_t> status(kClients, 1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      std::vector<uint8_t> out;
      std::vector<uint8_t> in = Pattern(32, static_cast<uint8_t>(i));
      status[i] = clients[i]->Call(kGate, in, out);
      if (out != in) status[i] = 2;
    });
  }
  // Every call is inside its handler at the same time.
  gate_.WaitForWaiters(kClients);
  gate_.Open();
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < kClients; ++i) EXPECT_EQ(status[i], kRpcOk) << i;
}

TEST_F(DcerpcTest, StopFinishesCallsInFlight) {
  auto client = BoundClient();
  std::atomic<uint32_t> result{1};
  std::vector<uint8_t> out;
  std::thread caller([&] { result = client->Call(kGate, Pattern(8, 4), out); });
  gate_.WaitForWaiters(1);
  std::thread stopper([&] { server_.Stop(); });
  gate_.Open();
  stopper.join();
  caller.join();
  EXPECT_EQ(result.load(), kRpcOk);
  EXPECT_EQ(out, Pattern(8, 4));
  EXPECT_NE(client->Call(kEcho, {}, out), kRpcOk);
  server_.Wait();
}

// Debian's python3-impacket (with the system Python) as an independent client over
// ncacn_ip_tcp.
TEST_F(DcerpcTest, ImpacketClientInteroperates) {
  const std::optional<std::string> output = RunImpacketScript(dir_, R"(
from impacket_probe import connect, fault_of, bind_error
dce = connect(')" + std::string(kEchoUuid) + R"(')
dce.call(0, b'0123456789abcdef0123456789abcdef')
print('echo', dce.recv().decode())
dce.call(2, b'\x03\x00\x00\x00abc')
print('reverse', dce.recv()[4:].decode())
print(fault_of(dce, 99))
print('bind refused:', bind_error('11111111-2222-3333-4444-555555555555'))
)",
                                                              server_.tcp_port());
  if (!output) GTEST_SKIP() << "python3-impacket is not installed";
  EXPECT_EQ(*output,
            "echo 0123456789abcdef0123456789abcdef\n"
            "reverse cba\n"
            "fault nca_s_op_rng_error\n"
            "bind refused: Bind context rejected: reason_not_specified\n");  // a bind_nak
}

}  // namespace
}  // namespace kesttcs::dcerpc
