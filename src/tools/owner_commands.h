// kesttcs-cli provision, owner clear and sessions: taking ownership of the TPM through the service,
// clearing it again, and the service's session table. Secrets come from files or the terminal
// (tools/secret_input.h), never from the command line, and are never printed.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include <kesttcs/tcs_types.h>

#include "tools/cli_output.h"
#include "tools/tcs_connection.h"

namespace kesttcs::cli {

class OwnerCommands {
 public:
  // Adds `provision`, `owner clear` and `sessions` to `app`, which must outlive this object.
  explicit OwnerCommands(CLI::App& app);

  bool parsed() const;
  // Reads the secrets the parsed command needs; the exit status when one cannot be had.
  std::optional<int> CheckArguments(Output& out);
  std::optional<Failure> Run(TcsConnection& tcs, Output& out) const;

 private:
  std::optional<Failure> Provision(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> ClearOwner(TcsConnection& tcs, Output& out) const;

  CLI::App* provision_;
  CLI::App* ownerClear_;
  CLI::App* sessions_;
  std::string ownerSource_;
  std::string srkSource_;
  // Set by CheckArguments.
  TPM_SECRET owner_{};
  TPM_SECRET srk_{};
  bool srkWellKnown_ = true;
};

}  // namespace kesttcs::cli
