#include "rpc/windows/calling_client.h"

#include <windows.h>
// windows.h first: the RPC headers rely on its declarations.
#include <rpc.h>
#include <rpcdcep.h>

#include <map>

#include "base/logging.h"
#include "base/mutex.h"
#include "rpc/windows/association_clients.h"

namespace kesttcs {
namespace {

// One watched client process: the handle that signals its end and the registered wait.
struct Watch {
  HANDLE process = nullptr;
  HANDLE wait = nullptr;
};

// Lock: a leaf, never held while the owner map closes contexts.
struct Watches {
  Mutex mu;
  std::map<DWORD, Watch> by_pid GUARDED_BY(mu);
};

Watches& W() {
  static Watches* watches = new Watches;
  return *watches;
}

dcerpc::PeerIdentity PeerOf(DWORD pid) {
  dcerpc::PeerIdentity peer;
  peer.transport = dcerpc::Transport::kNamedPipe;
  peer.has_credentials = true;
  peer.pid = static_cast<ProcessId>(pid);
  // One "connection" per process: its contexts close when the process ends.
  peer.connection_id = pid;
  return peer;
}

// Runs on a thread-pool thread when a watched process has ended.
void CALLBACK ClientEnded(void* parameter, BOOLEAN /*timed_out*/) {
  const auto pid = static_cast<DWORD>(reinterpret_cast<uintptr_t>(parameter));
  Watch watch;
  {
    Watches& w = W();
    MutexLock lock(w.mu);
    const auto it = w.by_pid.find(pid);
    if (it == w.by_pid.end()) return;
    watch = it->second;
    w.by_pid.erase(it);
  }
  owners_ConnectionClosed(PeerOf(pid));
  // Not waiting for this very callback to return (it is the one running).
  UnregisterWait(watch.wait);
  CloseHandle(watch.process);
}

// Starts the wait for `pid`'s end unless one runs; false when the process cannot be watched.
bool WatchClient(DWORD pid) {
  Watches& w = W();
  MutexLock lock(w.mu);
  if (w.by_pid.contains(pid)) return true;
  Watch watch;
  watch.process = OpenProcess(SYNCHRONIZE, FALSE, pid);
  if (watch.process == nullptr) return false;
  if (!RegisterWaitForSingleObject(&watch.wait, watch.process, ClientEnded,
                                   reinterpret_cast<void*>(static_cast<uintptr_t>(pid)), INFINITE,
                                   WT_EXECUTEONLYONCE)) {
    CloseHandle(watch.process);
    return false;
  }
  w.by_pid[pid] = watch;
  return true;
}

}  // namespace

std::optional<ContextOwner> CallingClient() {
  unsigned long pid = 0;
  const RPC_STATUS status = I_RpcBindingInqLocalClientPID(I_RpcGetCurrentCallHandle(), &pid);
  // Where the runtime names no process (a named pipe under Wine, TCP), the association owns.
  if (status != RPC_S_OK || pid == 0) return CallingAssociation();
  if (!WatchClient(pid)) {
    TcsTrace("A client process cannot be watched; its call is refused.", nullptr);
    return std::nullopt;
  }
  const dcerpc::PeerIdentity peer = PeerOf(pid);
  owners_NoteConnection(peer);
  return OwnerOf(peer);
}

void StopWatchingClients() {
  std::map<DWORD, Watch> watches;
  {
    Watches& w = W();
    MutexLock lock(w.mu);
    watches.swap(w.by_pid);
  }
  for (const auto& [pid, watch] : watches) {
    // Waits for a callback already running, so none touches the owner map afterwards.
    UnregisterWaitEx(watch.wait, INVALID_HANDLE_VALUE);
    CloseHandle(watch.process);
  }
  ForgetAssociations();
}

}  // namespace kesttcs
