// kesttcs-cli counter: the TPM's monotonic counters. `counter create --label ABCD` makes one with
// the owner's authorisation (OSAP, the counter's secret sent by ADIP), `counter increment ID` with
// the counter's secret, `counter read ID` without authorisation. Secrets come from --secret /
// --owner-secret FILE or '-', else the well-known secret.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include <kesttcs/tcs_types.h>

#include "tools/cli_output.h"
#include "tools/tcs_connection.h"

namespace kesttcs::cli {

class CounterCommand {
 public:
  // Adds `counter create|increment|read` to `app`, which must outlive this object.
  explicit CounterCommand(CLI::App& app);

  bool parsed() const;
  // Checks the arguments and reads the secrets; the exit status when one cannot be had.
  std::optional<int> CheckArguments(Output& out);
  std::optional<Failure> Run(TcsConnection& tcs, Output& out) const;

 private:
  std::optional<Failure> Create(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> Increment(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> Read(TcsConnection& tcs, Output& out) const;

  CLI::App* create_;
  CLI::App* increment_;
  CLI::App* read_;
  std::string idText_;
  std::string label_;
  std::string secretSource_;
  std::string ownerSource_;
  // Set by CheckArguments.
  UINT32 id_ = 0;
  TPM_SECRET secret_{};
  TPM_SECRET owner_{};
};

}  // namespace kesttcs::cli
