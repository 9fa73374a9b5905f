// The DCE/RPC client: one connection to a server over a Unix stream socket or 127.0.0.1 TCP, bound
// to one interface, making calls by opnum with NDR 2.0 stub data.
//
// Results are RPC status values: 0 for success, the server's fault status for a fault (for example
// kNcaOpRangeError or kRpcBadStubData), or one of the client statuses below. Only connecting has a
// time limit; a call waits for its answer as long as the connection lives, and a connection that
// drops mid-call ends the call at once with kRpcCallFailed. Calls on one Client are serialised.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "rpc/dcerpc/pdu.h"

namespace kesttcs::dcerpc {

// Client statuses (the Windows RPC status numbers of the same meaning).
inline constexpr uint32_t kRpcOk = 0;
inline constexpr uint32_t kRpcUnknownInterface = 0x000006b5;   // bind refused
inline constexpr uint32_t kRpcServerUnavailable = 0x000006ba;  // cannot connect
inline constexpr uint32_t kRpcCallFailed = 0x000006be;         // connection lost mid-call
inline constexpr uint32_t kRpcProtocolError = 0x000006c0;      // the server broke the protocol
inline constexpr uint32_t kRpcNotBound = 0x000006e6;           // call before a successful bind
// The largest response stub the client accepts.
inline constexpr size_t kMaxResponseStub = 16 * 1024 * 1024;

class Client {
 public:
  Client() = default;
  ~Client() { Close(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Connect to a Unix stream socket or to 127.0.0.1:port, waiting at most `timeout`. Any earlier
  // connection is closed first. Returns kRpcOk or kRpcServerUnavailable.
  [[nodiscard]] uint32_t ConnectUnix(const std::string& path,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(5))
      EXCLUDES(mu_);
  [[nodiscard]] uint32_t ConnectTcp(uint16_t port,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(5))
      EXCLUDES(mu_);

  // Binds the connection to `iface` with NDR 2.0. Returns kRpcOk, kRpcUnknownInterface when the
  // server answers bind_nak (bind_nak_reason() tells why) or rejects the context, kRpcCallFailed
  // or kRpcProtocolError (the connection is closed then).
  [[nodiscard]] uint32_t Bind(const SyntaxId& iface) EXCLUDES(mu_);

  // Sends one request and waits for its response. On kRpcOk `stub_out` holds the response stub
  // (little-endian unless `*byte_order` says otherwise) ; on a fault it is empty and the fault
  // status is returned; on a transport or protocol failure the connection is closed.
  [[nodiscard]] uint32_t Call(uint16_t opnum, std::span<const uint8_t> stub_in,
                              std::vector<uint8_t>& stub_out, ByteOrder* byte_order = nullptr)
      EXCLUDES(mu_);

  void Close() EXCLUDES(mu_);
  bool connected() const EXCLUDES(mu_);

  // The reason of the last bind_nak.
  uint16_t bind_nak_reason() const EXCLUDES(mu_);

 private:
  uint32_t ConnectTo(int domain, const void* addr, size_t addr_len,
                     std::chrono::milliseconds timeout) EXCLUDES(mu_);
  // Sends all of `bytes`; false (connection closed) on failure.
  bool SendAll(std::span<const uint8_t> bytes) REQUIRES(mu_);
  // Reads until at least `n` bytes (at most the buffer's size) are buffered; false when the
  // connection ended or failed.
  bool Fill(size_t n) REQUIRES(mu_);
  // Reads one whole fragment; `fragment` views the input buffer until the next read. Returns
  // kRpcOk, kRpcCallFailed or kRpcProtocolError (closing the connection on failure).
  uint32_t ReadFragment(std::span<const uint8_t>& fragment, PduHeader& header) REQUIRES(mu_);
  void CloseLocked() REQUIRES(mu_);

  mutable Mutex mu_;
  int fd_ GUARDED_BY(mu_) = -1;
  bool bound_ GUARDED_BY(mu_) = false;
  uint32_t next_call_id_ GUARDED_BY(mu_) = 1;
  uint16_t context_id_ GUARDED_BY(mu_) = 0;
  // Our receive size is always kMaxFragmentSize; the server's receive size, agreed at bind,
  // limits what we send.
  uint16_t max_xmit_ GUARDED_BY(mu_) = kMinFragmentSize;
  uint16_t nak_reason_ GUARDED_BY(mu_) = 0;
  // Bytes read from the connection: in_[in_begin_, in_end_) are not consumed yet. Room for two
  // whole fragments, so that compacting is rare.
  static constexpr size_t kInputBuffer = 2 * kMaxFragmentSize;
  std::vector<uint8_t> in_ GUARDED_BY(mu_);
  size_t in_begin_ GUARDED_BY(mu_) = 0;
  size_t in_end_ GUARDED_BY(mu_) = 0;
  std::vector<uint8_t> request_ GUARDED_BY(mu_);  // kept to save an allocation per call
};

}  // namespace kesttcs::dcerpc
