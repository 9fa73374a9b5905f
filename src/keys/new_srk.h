// Where the SRK that TPM_TakeOwnership made goes: the key cache registers a hook at its init that
// records it in place of the old one. Until a hook is registered the new SRK is recorded nowhere.
#pragma once

#include <span>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Receives the new SRK as TPM_KEY bytes; called on the thread of the TakeOwnership call, without
// locks held. The bytes live only for the call.
using NewSrkHook = void (*)(std::span<const BYTE> srkKey);

// Installs `hook` (null: none). Safe to call while commands run.
void SetNewSrkHook(NewSrkHook hook);

// Hands `srkKey` to the registered hook, if any.
void HandOverNewSrk(std::span<const BYTE> srkKey);

}  // namespace kesttcs
