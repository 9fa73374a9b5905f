// kesttcs-cli nv: the TPM's non-volatile storage. `nv define INDEX --size N` with one write
// permission (--owner-write or --auth-write) and at most one read permission (--owner-read or
// --auth-read) defines a space under the owner's authorisation (OSAP, the space's secret sent by
// ADIP); `nv write INDEX FILE`, `nv read INDEX` and `nv release INDEX`. Write and read look the
// space's permissions up and authorise as they ask: with the space's secret, the owner's, or none.
// Secrets come from --secret / --owner-secret FILE or '-', else the well-known secret.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include <kesttcs/tcs_types.h>

#include "tools/cli_output.h"
#include "tools/tcs_connection.h"

namespace kesttcs::cli {

class NvCommand {
 public:
  // Adds `nv define|write|read|release` to `app`, which must outlive this object.
  explicit NvCommand(CLI::App& app);

  bool parsed() const;
  // Checks the arguments and reads the secrets; the exit status when one cannot be had.
  std::optional<int> CheckArguments(Output& out);
  std::optional<Failure> Run(TcsConnection& tcs, Output& out) const;

 private:
  std::optional<Failure> Define(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> Write(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> Read(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> Release(TcsConnection& tcs, Output& out) const;

  CLI::App* define_;
  CLI::App* write_;
  CLI::App* read_;
  CLI::App* release_;
  std::string indexText_;
  std::string sizeText_;
  std::string offsetText_;
  std::string inFile_;
  std::string outFile_;
  std::string secretSource_;
  std::string ownerSource_;
  bool ownerWrite_ = false;
  bool authWrite_ = false;
  bool ownerRead_ = false;
  bool authRead_ = false;
  // Set by CheckArguments.
  UINT32 index_ = 0;
  std::optional<UINT32> size_;
  UINT32 offset_ = 0;
  std::vector<BYTE> data_;
  TPM_SECRET secret_{};
  TPM_SECRET owner_{};
};

}  // namespace kesttcs::cli
