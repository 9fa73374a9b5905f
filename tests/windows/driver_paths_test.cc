// The Windows host's TPM driver paths under Wine, against a swtpm process reached through the test
// driver libraries beside this program: the backend string on the command line ("auto" finds
// tbs.dll; "tddl:tpmddl.dll" names the driver library) and the path it must take ("tbs" or
// "tddl"). Brings the request manager up, sends TPM_GetRandom and TPM_PCRRead through it, cancels,
// and brings it down. Prints one line per check; the exit status is the number of failed checks.
#include <array>
#include <cstdio>
#include <string>

#include "driver_choice.h"
#include "tpm/driver.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_bytes.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

int failures = 0;

void Check(bool ok, const char* what, const std::string& detail = "") {
  std::printf("%s %s%s%s\n", ok ? "ok  " : "FAIL", what, detail.empty() ? "" : ": ",
              detail.c_str());
  if (!ok) ++failures;
}

// Sends `command` through the request manager; the response's parameter size, or 0 on failure.
UINT32 Submit(std::initializer_list<BYTE> command, TSS_RESULT* tpmResult) {
  std::array<BYTE, kTpmBlobSize> blob{};
  std::copy(command.begin(), command.end(), blob.begin());
  if (req_mgr_submit(blob) != TSS_SUCCESS) return 0;
  UINT32 paramSize = 0;
  *tpmResult = UnloadBlob_Header(blob, &paramSize);
  return paramSize;
}

}  // namespace

int RunChecks(const char* backend, bool wantTbs) {
  driver_configure(backend, ".");

  const TSS_RESULT init = req_mgr_init();
  Check(init == TSS_SUCCESS, "request manager up", driver_last_error());
  if (init != TSS_SUCCESS) return failures;
  Check(driver_is_tbs() == wantTbs, "driver path", wantTbs ? "TBS" : "TDDL");

  TSS_RESULT tpmResult = 1;
  const UINT32 randomSize =
      Submit({0x00, 0xC1, 0, 0, 0, 14, 0, 0, 0, 0x46, 0, 0, 0, 16}, &tpmResult);
  Check(randomSize == 30 && tpmResult == TSS_SUCCESS, "TPM_GetRandom(16) answers 16 bytes");
  const UINT32 pcrSize = Submit({0x00, 0xC1, 0, 0, 0, 14, 0, 0, 0, 0x15, 0, 0, 0, 15}, &tpmResult);
  Check(pcrSize == 30 && tpmResult == TSS_SUCCESS, "TPM_PCRRead(15) answers a digest");

  Check(req_mgr_cancel() == TSS_SUCCESS, "cancel delivered");
  Check(req_mgr_final() == TSS_SUCCESS, "request manager down");
  return failures;
}

}  // namespace kesttcs

int main(int argc, char** argv) { return RunForDriver(argc, argv, kesttcs::RunChecks); }
