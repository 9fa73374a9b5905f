// The common part of the backends that reach their TPM through one file descriptor (the kernel
// character device, a swtpm data socket): the open flag, the descriptor, the TPM 1.2 check at open
// and close. A backend supplies how to connect and what to call the TPM in messages.
#pragma once

#include <atomic>
#include <string>

#include "tpm/fd_io.h"
#include "tpm/tpm_backend.h"

namespace kesttcs {

class FdTpmBackend : public TpmBackend {
 public:
  // Connects, then asks the TPM whether it answers as a TPM 1.2; a TPM that does not is
  // disconnected again and LastError() says why.
  TSS_RESULT Open() final;
  TSS_RESULT Close() final;

 protected:
  FdTpmBackend() = default;
  // Opens the descriptor. On failure returns an invalid one and sets *error.
  virtual UniqueFd Connect(std::string* error) = 0;
  // Names the TPM in messages: "TPM device /dev/tpm0", "swtpm data channel".
  virtual std::string Subject() const = 0;

  UniqueFd fd_;
  // Read by Cancel() from other threads.
  std::atomic<bool> open_{false};
};

}  // namespace kesttcs
