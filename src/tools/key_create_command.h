// kesttcs-cli key create: a new RSA key wrapped by the SRK or by a registered storage key
// (Tcsip_CreateWrapKey over an OSAP session on the parent, the new key's secrets sent by ADIP),
// written as the TPM_KEY blob the TPM returns to a file that did not exist before (unless
// --force), atomically.
//
// The parent's secret: the SRK's is the `srk_secret` of the service's tcs_cfg.ini when that is 40
// hex digits, else the well-known secret; a registered parent's is the well-known secret when the
// parent needs no authorisation, else typed at the terminal; --parent-secret FILE|- overrides
// both. The new key needs no authorisation (its usage secret is the well-known one) unless --auth
// (typed at the terminal) or --auth-secret FILE gives it a secret.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include <kesttcs/tcs_types.h>

#include "tools/cli_output.h"
#include "tools/tcs_connection.h"

namespace kesttcs::cli {

class KeyCreateCommand {
 public:
  // Adds `key create` to `app`, which must outlive this object.
  explicit KeyCreateCommand(CLI::App& app);

  bool parsed() const;
  // Checks the arguments and reads the secrets that do not depend on the parent; the exit status
  // when one is bad.
  std::optional<int> CheckArguments(Output& out);
  std::optional<Failure> Run(TcsConnection& tcs, Output& out) const;

 private:
  std::optional<Failure> ParentSecret(TcsConnection& tcs, TPM_SECRET* secret) const;

  CLI::App* create_;
  std::string parentText_;
  std::string usageText_;
  std::string outFile_;
  std::string parentSource_;
  std::string authSource_;
  unsigned bits_ = 2048;
  bool auth_ = false;
  bool force_ = false;
  // Set by CheckArguments.
  std::optional<TSS_UUID> parentUuid_;  // none for the SRK
  TPM_SECRET usageSecret_{};
};

}  // namespace kesttcs::cli
