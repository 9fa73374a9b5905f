// Clients the RPC runtime does not name (over "\pipe\KestTCS" under Wine, and over ncacn_ip_tcp
// everywhere): their contexts belong to the runtime's association of the calling connection, the
// same rule as the Linux service's association groups. The connections of one client binding
// share an association, so its threads share their contexts; the contexts of an association are
// closed as by Tcsi_CloseContext when the runtime runs it down after its last connection closed.
#pragma once

#include <optional>

#include "rpc/context_owners.h"

namespace kesttcs {

// The owner for the association of the current call, noted in the owner map; nullopt when the
// runtime gives the call no association (the call is then refused).
std::optional<ContextOwner> CallingAssociation();

// Forgets every association without closing anything (service shut-down); a run-down that comes
// later finds no owner.
void ForgetAssociations();

}  // namespace kesttcs
