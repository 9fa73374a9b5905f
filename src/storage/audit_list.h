// The audited-ordinal list: the TPM ordinals the TPM audits, as far as this service has set them,
// so that the request manager can decide per command whether to write audit records. Insertion
// order, no duplicates; empty at every start of the service.
//
// Lock: the audit mutex guards the list; it is a leaf (nothing else is taken while it is held), so
// the request manager may ask under the TPM lock.
#pragma once

#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// True when `ordinal` is in the list.
bool audit_isAudited(UINT32 ordinal);

// Appends `ordinal` when it is not in the list yet. 0, or TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT audit_add(UINT32 ordinal);

// Takes `ordinal` out of the list (nothing when absent).
void audit_remove(UINT32 ordinal);

// Empties the list.
void audit_clear();

// A copy of the list, in insertion order.
std::vector<UINT32> audit_ordinals();

}  // namespace kesttcs
