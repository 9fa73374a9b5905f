#include "tpm/fd_backend.h"

namespace kesttcs {

TSS_RESULT FdTpmBackend::Open() {
  if (open_) return kDriverAlreadyOpened;
  std::string error;
  fd_ = Connect(&error);
  if (!fd_.valid()) {
    SetLastError(Subject() + ": " + error);
    return kDriverIoError;
  }
  open_ = true;
  TSS_RESULT result = CheckAnswersAsTpm12(*this, &error);
  if (result != TSS_SUCCESS) {
    open_ = false;
    fd_.Reset();
    SetLastError(Subject() + ": " + error);
    return result;
  }
  SetLastError("");
  return TSS_SUCCESS;
}

TSS_RESULT FdTpmBackend::Close() {
  if (!open_) return kDriverAlreadyClosed;
  open_ = false;
  fd_.Reset();
  return TSS_SUCCESS;
}

}  // namespace kesttcs
