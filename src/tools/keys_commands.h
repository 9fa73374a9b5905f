// kesttcs-cli keys: the registered keys. `list`, `register` and `unregister` go through the
// service; `check` reads the storage file itself and needs no service; `loaded` shows the service's
// key cache.
//
// `keys check` exit status: 0 the file is sound (or empty); 1 it cannot be read; 3 its checksum
// does not match; 4 a record breaks the format; 5 both.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <kesttcs/tcs_types.h>

#include "tools/cli_output.h"
#include "tools/tcs_connection.h"

namespace kesttcs::cli {

inline constexpr int kExitChecksumMismatch = 3;
inline constexpr int kExitMalformedRecords = 4;
inline constexpr int kExitChecksumAndRecords = 5;

class KeysCommand {
 public:
  // Adds `keys` and its subcommands to `app`, which must outlive this object.
  explicit KeysCommand(CLI::App& app);

  bool parsed() const;
  // `keys check`, which reads the file instead of asking the service.
  bool needsNoService() const;

  // Checks the arguments once they are parsed; the exit status when one is bad.
  std::optional<int> CheckArguments(Output& out);
  // `keys check`: its exit status.
  int Check(Output& out) const;
  // The other subcommands.
  std::optional<Failure> Run(TcsConnection& tcs, Output& out) const;

 private:
  CLI::App* keys_;
  CLI::App* list_;
  CLI::App* register_;
  CLI::App* unregister_;
  CLI::App* check_;
  CLI::App* loaded_;
  std::string uuidText_;
  std::string parentText_;
  std::string blobFile_;
  std::string dataFile_;
  // Set by CheckArguments.
  TSS_UUID uuid_{};
  TSS_UUID parent_{};
  std::vector<BYTE> blob_;
};

}  // namespace kesttcs::cli
