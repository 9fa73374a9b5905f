// Where kesttcs-cli takes TPM secrets from: never the command line (other users see it in the
// process list). A secret is the SHA-1 of a pass phrase, read from a file (one final line end
// dropped) or typed at the terminal with echo off; without either, the well-known secret.
#pragma once

#include <optional>
#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

// The secret named by `source`: "" the well-known secret, "-" a pass phrase typed at the terminal
// after `prompt` (asked twice when `confirm`), anything else a file holding the pass phrase.
// Nothing, with *problem set, when the file cannot be read, the terminal is not there, or the two
// entries differ.
std::optional<TPM_SECRET> ReadSecret(const std::string& source, const std::string& prompt,
                                     bool confirm, std::string* problem);

// An object's own secret (asked twice at the terminal when `newObject`) and the owner's, each read
// as ReadSecret does. False, with *problem set, when either cannot be had.
bool ReadObjectAndOwnerSecrets(const std::string& objectSource, const std::string& objectPrompt,
                               bool newObject, const std::string& ownerSource, TPM_SECRET* object,
                               TPM_SECRET* owner, std::string* problem);

}  // namespace kesttcs::cli
