// Who makes the current call on the Windows host: where the RPC runtime names the client process
// (I_RpcBindingInqLocalClientPID: local RPC, and "\pipe\KestTCS" on Windows), its contexts belong
// to it. The first call of a process starts a wait on its handle; when the process ends, its
// contexts are closed as by Tcsi_CloseContext (context run-down), as when a Linux client's last
// connection closes. Where it names none, the runtime's association of the call owns them
// (association_clients.h).
#pragma once

#include <optional>

#include "rpc/context_owners.h"

namespace kesttcs {

// The owner the current RPC call acts for, noted in the owner map; nullopt when the runtime
// identifies neither a process nor an association (the call is then refused).
std::optional<ContextOwner> CallingClient();

// Stops every wait for a client's end and forgets the associations, without closing anything
// (service shut-down, after listening has stopped).
void StopWatchingClients();

}  // namespace kesttcs
