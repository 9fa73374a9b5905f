// The client library's runtime: connections, the generic remote call, output buffers, and the
// hand-written Tcsi_FreeMemory. The typed functions come from the generated tcs_proxies.cc.
#include <kesttcs/tcs_client.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "client/connection.h"
#include "client/proxy.h"
#include "rpc/dcerpc/client.h"
#include "rpc/dcerpc/server.h"

namespace kesttcs::client {
namespace {

uint32_t Open(dcerpc::Client& client, const char* endpoint) {
  return OpenConnection(client, endpoint, rpc::TcsInterfaceSyntax());
}

}  // namespace

uint32_t OpenConnection(dcerpc::Client& client, const char* endpoint,
                        const dcerpc::SyntaxId& syntax) {
  std::string where;
  if (endpoint != nullptr && *endpoint != '\0') {
    where = endpoint;
  } else if (const char* env = std::getenv("KESTTCS_ENDPOINT"); env != nullptr && *env != '\0') {
    where = env;
  } else {
    where = dcerpc::DefaultSocketPath();
  }
  uint32_t status = dcerpc::kRpcServerUnavailable;
  constexpr std::string_view kTcp = "tcp:";
  constexpr std::string_view kUnix = "unix:";
  if (where.starts_with(kTcp)) {
    // "tcp:127.0.0.1:PORT" (the service listens on loopback only) or "tcp:PORT".
    const std::string rest = where.substr(kTcp.size());
    const size_t colon = rest.rfind(':');
    const std::string host = colon == std::string::npos ? "127.0.0.1" : rest.substr(0, colon);
    const std::string port = colon == std::string::npos ? rest : rest.substr(colon + 1);
    char* end = nullptr;
    const unsigned long n = std::strtoul(port.c_str(), &end, 10);
    if ((host == "127.0.0.1" || host == "localhost") && !port.empty() && *end == '\0' && n > 0 &&
        n < 65536) {
      status = client.ConnectTcp(static_cast<uint16_t>(n));
    }
  } else {
    if (where.starts_with(kUnix)) where.erase(0, kUnix.size());
    if (!where.empty()) status = client.ConnectUnix(where);
  }
  if (status != dcerpc::kRpcOk) return status;
  return client.Bind(syntax);
}

namespace {

struct Shared {
  Mutex mu;
  std::shared_ptr<dcerpc::Client> process GUARDED_BY(mu);
  // The endpoint Tcs_Connect named; a dropped process connection reconnects there.
  std::string endpoint GUARDED_BY(mu);
  // Every buffer handed out, with the context it was returned under.
  std::unordered_map<void*, TCS_CONTEXT_HANDLE> buffers GUARDED_BY(mu);
};

Shared& S() {
  static Shared* shared = new Shared;
  return *shared;
}

thread_local std::shared_ptr<dcerpc::Client> t_connection;
thread_local uint32_t t_last_status = 0;

// The connection the calling thread's calls use, connecting the process's one when needed.
std::shared_ptr<dcerpc::Client> Connection(uint32_t& status) {
  if (t_connection) return t_connection;
  Shared& s = S();
  MutexLock lock(s.mu);
  if (s.process && s.process->connected()) return s.process;
  auto client = std::make_shared<dcerpc::Client>();
  status = Open(*client, s.endpoint.c_str());
  if (status != dcerpc::kRpcOk) return nullptr;
  s.process = client;
  return client;
}

// Bytes behind the embedded pointers of one C element.
size_t EmbeddedSize(rpc::Kind kind, const uint8_t* element) {
  if (kind == rpc::Kind::kPcrEvent) {
    TSS_PCR_EVENT e;
    std::memcpy(&e, element, sizeof(e));
    return (e.rgbPcrValue ? e.ulPcrValueLength : 0) + (e.rgbEvent ? e.ulEventLength : 0);
  }
  if (kind == rpc::Kind::kKeyInfo) {
    TSS_KM_KEYINFO k;
    std::memcpy(&k, element, sizeof(k));
    return k.rgbVendorData ? k.ulVendorDataLength : 0;
  }
  return 0;
}

// Copies the embedded arrays of one C element to `*tail` and points the element at the copies.
void MoveEmbedded(rpc::Kind kind, uint8_t* element, uint8_t*& tail) {
  auto move = [&](BYTE*& p, UINT32 length) {
    if (p == nullptr) return;
    if (length != 0) std::memcpy(tail, p, length);
    p = tail;
    tail += length;
  };
  if (kind == rpc::Kind::kPcrEvent) {
    TSS_PCR_EVENT e;
    std::memcpy(&e, element, sizeof(e));
    move(e.rgbPcrValue, e.ulPcrValueLength);
    move(e.rgbEvent, e.ulEventLength);
    std::memcpy(element, &e, sizeof(e));
  } else if (kind == rpc::Kind::kKeyInfo) {
    TSS_KM_KEYINFO k;
    std::memcpy(&k, element, sizeof(k));
    move(k.rgbVendorData, k.ulVendorDataLength);
    std::memcpy(element, &k, sizeof(k));
  }
}

}  // namespace

TSS_RESULT CallRemote(const rpc::Operation& op, rpc::CallFrame& frame) {
  uint32_t status = dcerpc::kRpcOk;
  std::shared_ptr<dcerpc::Client> client = Connection(status);
  if (!client) {
    t_last_status = status;
    return TCS_E_COMM_FAILURE;
  }
  std::vector<uint8_t> request;
  dcerpc::NdrWriter writer(request);
  if (!rpc::MarshalRequest(frame, writer)) return TCS_E_BAD_PARAMETER;
  std::vector<uint8_t> response;
  dcerpc::ByteOrder order = dcerpc::ByteOrder::kLittle;
  status = client->Call(op.opnum, request, response, &order);
  t_last_status = status;
  if (status != dcerpc::kRpcOk) return TCS_E_COMM_FAILURE;
  dcerpc::NdrReader reader(response, order);
  TSS_RESULT result = TSS_SUCCESS;
  if (!rpc::UnmarshalResponse(reader, frame, result)) {
    t_last_status = dcerpc::kRpcProtocolError;
    return TCS_E_COMM_FAILURE;
  }
  return result;
}

void* AllocateOutput(TCS_CONTEXT_HANDLE hContext, rpc::Kind kind, const rpc::Value& v,
                     bool single) {
  const std::vector<uint8_t> elements = rpc::OutputToC(kind, v, single);
  const size_t size = rpc::CSize(kind);
  const size_t count = elements.size() / size;
  size_t total = elements.size();
  for (size_t i = 0; i < count; ++i) total += EmbeddedSize(kind, elements.data() + i * size);
  // Aligned for any element type; never of size 0, so an empty array is still a non-null block.
  auto* block = static_cast<uint8_t*>(std::malloc(total == 0 ? 1 : total));
  if (block == nullptr) return nullptr;
  if (!elements.empty()) std::memcpy(block, elements.data(), elements.size());
  uint8_t* tail = block + elements.size();
  for (size_t i = 0; i < count; ++i) MoveEmbedded(kind, block + i * size, tail);
  Shared& s = S();
  MutexLock lock(s.mu);
  s.buffers[block] = hContext;
  return block;
}

std::string ProcessEndpoint() {
  Shared& s = S();
  MutexLock lock(s.mu);
  return s.endpoint;
}

void SetLastRpcStatus(uint32_t status) { t_last_status = status; }

}  // namespace kesttcs::client

using kesttcs::MutexLock;
using kesttcs::client::S;

extern "C" {

TSS_RESULT Tcs_Connect(const char* endpoint) {
  auto client = std::make_shared<kesttcs::dcerpc::Client>();
  const uint32_t status = kesttcs::client::Open(*client, endpoint);
  kesttcs::client::t_last_status = status;
  if (status != kesttcs::dcerpc::kRpcOk) return kesttcs::TCS_E_COMM_FAILURE;
  auto& s = S();
  MutexLock lock(s.mu);
  s.process = std::move(client);
  s.endpoint = endpoint != nullptr ? endpoint : "";
  return kesttcs::TSS_SUCCESS;
}

void Tcs_Disconnect(void) {
  std::shared_ptr<kesttcs::dcerpc::Client> old;
  {
    auto& s = S();
    MutexLock lock(s.mu);
    old.swap(s.process);
  }
  if (old) old->Close();
}

TSS_RESULT Tcs_ConnectThread(const char* endpoint) {
  auto client = std::make_shared<kesttcs::dcerpc::Client>();
  const uint32_t status = kesttcs::client::Open(*client, endpoint);
  kesttcs::client::t_last_status = status;
  if (status != kesttcs::dcerpc::kRpcOk) return kesttcs::TCS_E_COMM_FAILURE;
  kesttcs::client::t_connection = std::move(client);
  return kesttcs::TSS_SUCCESS;
}

void Tcs_DisconnectThread(void) {
  if (kesttcs::client::t_connection) kesttcs::client::t_connection->Close();
  kesttcs::client::t_connection.reset();
}

UINT32 Tcs_LastRpcStatus(void) { return kesttcs::client::t_last_status; }

void Tcs_FreeBuffer(void* buffer) {
  if (buffer == nullptr) return;
  {
    auto& s = S();
    MutexLock lock(s.mu);
    if (s.buffers.erase(buffer) == 0) return;
  }
  std::free(buffer);
}

TSS_RESULT Tcsi_FreeMemory(TCS_CONTEXT_HANDLE hContext, BYTE* pMemory) {
  std::vector<void*> freed;
  {
    auto& s = S();
    MutexLock lock(s.mu);
    for (auto it = s.buffers.begin(); it != s.buffers.end();) {
      const bool match = pMemory == nullptr ? it->second == hContext : it->first == pMemory;
      if (match && it->second == hContext) {
        freed.push_back(it->first);
        it = s.buffers.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (void* p : freed) std::free(p);
  // The service holds no copy of returned buffers; it checks the context and answers as designed.
  // A placeholder byte stands for the freed pointer, which must not be read any more.
  static BYTE placeholder = 0;
  return kesttcs::client::Invoke<kesttcs::rpc::OpnumOf("Tcsi_FreeMemory")>(
      hContext, pMemory != nullptr ? &placeholder : nullptr);
}

}  // extern "C"
