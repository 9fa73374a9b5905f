// The request manager fed TPM answers from the fuzzer: start-up, then commands with zero, one and
// two authorisations and the transport ordinals, each answered by whatever bytes come next. Any
// answer must end in a result code, never a crash, an out-of-bounds read or a hang.
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "tpm/driver.h"
#include "tpm/fake_tpm_backend.h"
#include "tpm/req_mgr.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

std::array<BYTE, kTpmBlobSize> Command(TPM_TAG tag, UINT32 ordinal, int trailers) {
  std::array<BYTE, kTpmBlobSize> blob{};
  BlobWriter w(blob, kTpmHeaderSize);
  static_cast<void>(LoadBlob_UINT32(w, 16));
  TPM_AUTH auth{};
  auth.AuthHandle = 0x02000000;
  for (int i = 0; i < trailers; ++i) static_cast<void>(LoadBlob_Auth(w, auth));
  static_cast<void>(LoadBlob_Header(tag, w.offset(), ordinal, blob));
  return blob;
}

}  // namespace
}  // namespace kesttcs

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kesttcs;
  driver_use_backend(std::make_unique<FuzzTpmBackend>(std::span<const BYTE>(data, size)));
  SetTransportAttributes(TPM_TRANSPORT_EXCLUSIVE);
  if (req_mgr_init() == TSS_SUCCESS) {
    const struct {
      TPM_TAG tag;
      UINT32 ordinal;
      int trailers;
    } commands[] = {{TPM_TAG_RQU_COMMAND, 0x46, 0},
                    {TPM_TAG_RQU_AUTH1_COMMAND, 0x17, 1},
                    {TPM_TAG_RQU_AUTH2_COMMAND, 0x0C, 2},
                    {TPM_TAG_RQU_COMMAND, TPM_ORD_EstablishTransport, 0},
                    {TPM_TAG_RQU_AUTH1_COMMAND, TPM_ORD_ExecuteTransport, 1},
                    {TPM_TAG_RQU_COMMAND, 0x46, 0}};
    for (const auto& c : commands) {
      auto blob = Command(c.tag, c.ordinal, c.trailers);
      if (req_mgr_submit(blob) == TSS_SUCCESS) {
        UINT32 paramSize = 0;
        static_cast<void>(UnloadBlob_Header(blob, &paramSize));
      }
    }
  }
  static_cast<void>(req_mgr_final());
  driver_unbind();
  return 0;
}
