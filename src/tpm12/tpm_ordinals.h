// Every TPM 1.2 command ordinal, by its TPM name, for the code that builds commands or looks at
// them, made from the one list clients share (<kesttcs/tpm_ordinal_list.h>). They are variables,
// not enumerators, because the interface table takes their addresses to learn their names. The
// vendor ordinals live with their users: the vendor commands (vendor_commands.h) and the vendor
// sequence the request manager admits (req_mgr.h).
#pragma once

#include <kesttcs/tcs_types.h>
#include <kesttcs/tpm_ordinal_list.h>

namespace kesttcs {

#define KESTTCS_DECLARE_TPM_ORDINAL(name, value) inline constexpr TPM_COMMAND_CODE name = value;
KESTTCS_TPM_ORDINALS(KESTTCS_DECLARE_TPM_ORDINAL)
KESTTCS_TSC_ORDINALS(KESTTCS_DECLARE_TPM_ORDINAL)
#undef KESTTCS_DECLARE_TPM_ORDINAL

}  // namespace kesttcs
