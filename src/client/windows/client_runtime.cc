// The Windows client library's runtime: the binding, the blocks widl's stubs allocate for the
// caller (recorded per context, so that Tcs_FreeBuffer and Tcsi_FreeMemory free exactly what the
// library handed out) and the calling thread's last RPC status.
#include <windows.h>
// windows.h first: the RPC headers rely on its declarations.
#include <rpc.h>
#include <rpcndr.h>

#include <algorithm>
#include <cstdlib>
#include <unordered_map>
#include <vector>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

#include "base/mutex.h"
#include "client/windows/client_call.h"
#include "client/windows/endpoint.h"
#include "client/windows/rpc_binding.h"

namespace kesttcs::client {
namespace {

struct Buffer {
  TCS_CONTEXT_HANDLE hContext;
  std::vector<void*> embedded;  // the arrays inside the block's structures
};

struct Shared {
  // Binding and unbinding; calls read the handle without it (the runtime copes with a handle in
  // use, not with one freed under a call: rebind while no call runs).
  Mutex bind_mu;
  Mutex mu;
  std::unordered_map<void*, Buffer> buffers GUARDED_BY(mu);
};

Shared& S() {
  static Shared* shared = new Shared;
  return *shared;
}

thread_local UINT32 t_last_status = 0;
// The blocks the stub allocated during the calling thread's current call.
thread_local bool t_recording = false;
thread_local std::vector<void*> t_blocks;
// The status the calling thread's last failed call raised.
thread_local UINT32 t_caught = 0;

void NullFilled(void** filled[], unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    if (filled[i] != nullptr) *filled[i] = nullptr;
  }
}

void FreeBuffer(void* block, const Buffer& buffer) {
  for (void* p : buffer.embedded) std::free(p);
  std::free(block);
}

// Binds to `endpoint` (null or empty: $KESTTCS_ENDPOINT, else the local default); with
// `unless_bound`, keeps a binding there is.
TSS_RESULT Bind(const char* endpoint, bool unless_bound) {
  MutexLock lock(S().bind_mu);
  if (unless_bound && KestTcs_IsBound()) return TSS_SUCCESS;
  const char* env = std::getenv("KESTTCS_ENDPOINT");
  const char* text = endpoint != nullptr && *endpoint != '\0' ? endpoint
                     : env != nullptr && *env != '\0'         ? env
                                                              : kDefaultWindowsEndpoint;
  const std::optional<RpcEndpoint> where = ParseEndpoint(text);
  t_last_status = where ? KestTcs_Bind(where->protseq.c_str(),
                                       where->network.empty() ? nullptr : where->network.c_str(),
                                       where->endpoint.c_str())
                        : RPC_S_INVALID_STRING_BINDING;
  return t_last_status == RPC_S_OK ? TSS_SUCCESS : TCS_E_COMM_FAILURE;
}

}  // namespace
}  // namespace kesttcs::client

using kesttcs::MutexLock;
using namespace kesttcs::client;

extern "C" {

void* __RPC_USER MIDL_user_allocate(SIZE_T size) {
  void* block = std::malloc(size);
  if (block != nullptr && t_recording) t_blocks.push_back(block);
  return block;
}

void __RPC_USER MIDL_user_free(void* block) {
  if (t_recording) std::erase(t_blocks, block);
  std::free(block);
}

void KestTcs_BeginCall(void** filled[], unsigned count) {
  static_cast<void>(Bind(nullptr, true));
  NullFilled(filled, count);
  t_blocks.clear();
  t_recording = true;
}

unsigned int KestTcs_EndCall(unsigned int hContext, unsigned int result, void** filled[],
                             unsigned count) {
  t_recording = false;
  t_last_status = RPC_S_OK;
  std::vector<void*> outputs;
  for (unsigned i = 0; i < count; ++i) {
    if (filled[i] != nullptr && *filled[i] != nullptr) outputs.push_back(*filled[i]);
  }
  std::vector<void*> embedded;
  for (void* block : t_blocks) {
    if (std::find(outputs.begin(), outputs.end(), block) == outputs.end()) {
      embedded.push_back(block);
    }
  }
  t_blocks.clear();
  if (outputs.empty()) {
    for (void* block : embedded) std::free(block);
    return result;
  }
  Shared& s = S();
  MutexLock lock(s.mu);
  // Only operations with a single structure output hand out structures with embedded arrays.
  s.buffers[outputs.front()] = Buffer{hContext, std::move(embedded)};
  for (size_t i = 1; i < outputs.size(); ++i) s.buffers[outputs[i]] = Buffer{hContext, {}};
  return result;
}

int KestTcs_CatchStatus(unsigned long status) {
  t_caught = static_cast<UINT32>(status);
  return EXCEPTION_EXECUTE_HANDLER;
}

unsigned int KestTcs_FailCall(void** filled[], unsigned count) {
  t_recording = false;
  for (void* block : t_blocks) std::free(block);
  t_blocks.clear();
  NullFilled(filled, count);
  t_last_status = t_caught;
  return t_caught == RPC_X_NULL_REF_POINTER ? kesttcs::TCS_E_BAD_PARAMETER
                                            : kesttcs::TCS_E_COMM_FAILURE;
}

unsigned int KestTcs_RefuseCall(void** filled[], unsigned count) {
  NullFilled(filled, count);
  return kesttcs::TCS_E_BAD_PARAMETER;
}

void* KestTcs_NoElements(void) {
  alignas(16) static unsigned char none[16];
  return none;
}

void KestTcs_NoteRpcStatus(unsigned long status) { t_last_status = static_cast<UINT32>(status); }

void KestTcs_FreeContextBuffers(unsigned int hContext, void* memory) {
  std::vector<std::pair<void*, Buffer>> freed;
  {
    Shared& s = S();
    MutexLock lock(s.mu);
    for (auto it = s.buffers.begin(); it != s.buffers.end();) {
      const bool match = memory == nullptr || it->first == memory;
      if (match && it->second.hContext == hContext) {
        freed.emplace_back(it->first, std::move(it->second));
        it = s.buffers.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& [block, buffer] : freed) FreeBuffer(block, buffer);
}

TSS_RESULT Tcs_Connect(const char* endpoint) { return Bind(endpoint, false); }

void Tcs_Disconnect(void) {
  MutexLock lock(S().bind_mu);
  KestTcs_Unbind();
}

// The binding handle is the process's one, and the RPC runtime runs concurrent calls on it over
// connections of its own: a thread uses the process's binding, made here when there is none.
TSS_RESULT Tcs_ConnectThread(const char* endpoint) { return Bind(endpoint, true); }

void Tcs_DisconnectThread(void) {}

UINT32 Tcs_LastRpcStatus(void) { return t_last_status; }

void Tcs_FreeBuffer(void* buffer) {
  if (buffer == nullptr) return;
  Buffer owned;
  {
    Shared& s = S();
    MutexLock lock(s.mu);
    auto it = s.buffers.find(buffer);
    if (it == s.buffers.end()) return;
    owned = std::move(it->second);
    s.buffers.erase(it);
  }
  FreeBuffer(buffer, owned);
}

}  // extern "C"
