// kesttcs-cli audit: the TPM's ordinal audit. `audit set ORDINAL` and `audit clear ORDINAL` turn
// auditing of one ordinal on and off with the owner's authorisation (the service then records
// that ordinal's commands in its audit log); `audit show` lists the ordinals the TPM audits and
// its audit digest. ORDINAL is a TPM name (TPM_ORD_GetRandom, or GetRandom) or a number.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include <kesttcs/tcs_types.h>

#include "tools/cli_output.h"
#include "tools/tcs_connection.h"

namespace kesttcs::cli {

class AuditCommand {
 public:
  // Adds `audit set`, `audit clear` and `audit show` to `app`, which must outlive this object.
  explicit AuditCommand(CLI::App& app);

  bool parsed() const;
  // Checks the ordinal and reads the owner secret once the arguments are parsed; the exit status
  // when either cannot be had.
  std::optional<int> CheckArguments(Output& out);
  std::optional<Failure> Run(TcsConnection& tcs, Output& out) const;

 private:
  std::optional<Failure> SetStatus(TcsConnection& tcs, bool audited, Output& out) const;
  std::optional<Failure> Show(TcsConnection& tcs, Output& out) const;

  CLI::App* set_;
  CLI::App* clear_;
  CLI::App* show_;
  std::string ordinalText_;
  std::string ownerSource_;
  // Set by CheckArguments.
  UINT32 ordinal_ = 0;
  TPM_SECRET owner_{};
};

}  // namespace kesttcs::cli
