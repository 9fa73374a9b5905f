// A new embedded TPM makes its endorsement key when a command first needs it rather than when its
// state is made: the 2048-bit key generation takes longer than everything else the service does
// at start-up, and the service's own start-up commands never look at the key.
//
// Until the key exists, the commands below run as they are: none of them reads, uses or reveals
// the endorsement key (nor the flag that says one was made), and none changes what making the key
// later would do. Every other command is preceded by TPM_CreateEndorsementKeyPair, so that it
// finds the TPM exactly as if the key had been made with the state.
#pragma once

#include <span>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// True when `command` (a whole TPM 1.2 request) may run before the endorsement key exists.
bool RunsWithoutEndorsementKey(std::span<const BYTE> command);

}  // namespace kesttcs
