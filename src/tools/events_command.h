// kesttcs-cli events: the PCR event log. `events [--pcr N]` lists the logged events and, for each
// PCR that has some, whether extending their digests one by one from zero gives the value the TPM
// holds now; `events log --pcr N --type T --data FILE` extends PCR N with the SHA-1 of FILE and
// logs the event in one step.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <kesttcs/tcs_types.h>

#include "tools/cli_output.h"
#include "tools/tcs_connection.h"

namespace kesttcs::cli {

// The largest event data `events log` sends.
inline constexpr UINT32 kMaxEventData = 65536;

class EventsCommand {
 public:
  // Adds `events` and `events log` to `app`, which must outlive this object.
  explicit EventsCommand(CLI::App& app);

  bool parsed() const;
  // Checks the arguments once they are parsed; the exit status when one is bad.
  std::optional<int> CheckArguments(Output& out);
  std::optional<Failure> Run(TcsConnection& tcs, Output& out) const;

 private:
  std::optional<Failure> List(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> Log(TcsConnection& tcs, Output& out) const;

  CLI::App* events_;
  CLI::App* log_;
  std::string pcrText_;
  std::string logPcrText_;
  std::string typeText_;
  std::string dataFile_;
  // Set by CheckArguments.
  std::optional<UINT32> pcr_;
  UINT32 type_ = 0;
  std::vector<BYTE> data_;
};

}  // namespace kesttcs::cli
