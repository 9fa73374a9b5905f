// The steps that every TCS operation sending one TPM command shares: the context check, the size
// bound, marshalling into a 4096-byte buffer, the exchange through the request manager, the mapping
// of the TPM's return code, and the copy of outputs into memory owned by the client context. An
// operation reads as prepare (Check, Run's fields), submit (Run) and complete (Unload*):
//
//   TpmCommand command(hContext, TPM_ORD_StirRandom);
//   if (TSS_RESULT rc = command.Check(kStirRandomFixedBytes, inDataSize, inData)) return rc;
//   return command.Run(TPM_TAG_RQU_COMMAND, inDataSize, std::span(inData, inDataSize));
//
// An authorised command names its sessions after Check and runs with RunAuthorised, which keeps the
// session table straight:
//
//   TpmCommand command(hContext, TPM_ORD_OwnerClear);
//   if (TSS_RESULT rc = command.Check(kOwnerClearFixedBytes)) return rc;
//   if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
//   return command.RunAuthorised();
//
// A TpmCommand lives on the calling thread's stack and is used by that thread only. Run takes the
// TPM lock through req_mgr_submit; the session bookkeeping takes the auth mutex (and, to end a
// session, the TPM lock after it); nothing else is taken except the context list's and the context
// memory table's locks (briefly, through ctx_ValidateContext and getSomeMemory).
#pragma once

#include <array>
#include <span>

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_types.h>

#include "tpm12/marshal.h"

namespace kesttcs {

// True when a command of `fixedBytes` (header, fixed parameters, authorisation trailers) plus
// `variableBytes` of caller data fits the 4096-byte command buffer. Computed in 64 bits, so a size
// near 2^32 cannot wrap into a small one.
constexpr bool FitsCommandBuffer(UINT64 variableBytes, UINT32 fixedBytes) noexcept {
  return variableBytes + fixedBytes <= kTpmBlobSize;
}

// True when `bytes` hold exactly one T in its wire form (a caller's structure that is sent as its
// own bytes, since the caller's HMAC covers them).
template <class T>
bool HoldsExactlyOne(std::span<const BYTE> bytes) noexcept {
  BlobReader reader(bytes);
  return bytes.size() <= kTpmBlobSize &&
         UnloadBlob(reader, static_cast<T*>(nullptr)) == TSS_SUCCESS && reader.remaining() == 0;
}

class TpmCommand {
 public:
  TpmCommand(TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE ordinal) noexcept
      : hContext_(hContext), ordinal_(ordinal) {}
  TpmCommand(const TpmCommand&) = delete;
  TpmCommand& operator=(const TpmCommand&) = delete;

  // First step of an operation: checks the context (its result on failure), then that `inData`
  // is present when `inSize` is not 0 and that `inSize` caller bytes plus `fixedBytes` fit the
  // command buffer (TCS_E_BAD_PARAMETER otherwise). Sends nothing.
  [[nodiscard]] TSS_RESULT Check(UINT32 fixedBytes = kTpmHeaderSize, UINT32 inSize = 0,
                                 const void* inData = nullptr) const noexcept;

  // Marshals `fields` from offset 10, writes the header (tag, paramSize, ordinal), sends the
  // command with req_mgr_submit and maps the answer. Returns TCS_E_BAD_PARAMETER when the fields
  // do not fit (nothing sent), the request manager's failure, or the TPM's return code mapped by
  // UnloadBlob_Header (0 when the TPM accepted the command). After 0 the Unload* members read the
  // response parameters, limited to the response's paramSize. Does not check the context.
  template <class... Fields>
  [[nodiscard]] TSS_RESULT Run(TPM_TAG tag, const Fields&... fields) noexcept {
    BlobWriter writer(blob_, kTpmHeaderSize);
    if (TSS_RESULT rc = LoadBlobs(writer, fields...)) return rc;
    if (TSS_RESULT rc = LoadBlob_Header(tag, writer.offset(), ordinal_, blob_)) return rc;
    return Submit();
  }

  // Makes the key `hKey` resident (ensureKeyIsLoaded) and sets *slot to its TPM slot, which the
  // caller sends as the parameter `paramOffset` bytes after the header (0: the first parameter).
  // TCS_E_INVALID_KEY when it cannot be loaded. A command uses at most two keys. Should the TPM
  // restart (a sleep) before the command is sent, the slots are stale: the exchange then loads
  // the keys again and sends their new slots instead.
  [[nodiscard]] TSS_RESULT UseKey(TCS_KEY_HANDLE hKey, TPM_KEY_HANDLE* slot,
                                  UINT16 paramOffset = 0) noexcept;

  // Names the authorisation sessions the command carries, in the order of their trailers (null:
  // none, so a command whose session is optional passes what it was given), and checks each with
  // auth_mgr_check_auth: TCS_E_INTERNAL_ERROR for a session the context does not own, and nothing
  // is sent. Call after Check.
  [[nodiscard]] TSS_RESULT UseSessions(TPM_AUTH* first, TPM_AUTH* second = nullptr) noexcept;

  // Adds a transport session (TPM_ExecuteTransport, TPM_ReleaseTransportSigned) as the command's
  // last authorisation. The session table holds no transport sessions, so it is not checked here:
  // the transport operations check the session's owner first. TCS_E_INTERNAL_ERROR for a null
  // session, TCS_E_BAD_PARAMETER when the command already carries two. Call after UseSessions.
  [[nodiscard]] TSS_RESULT UseTransportSession(TPM_AUTH* transport) noexcept;

  // Run for the sessions UseSessions named: tag 0x00C1, 0x00C2 or 0x00C3 by their number, their
  // request trailers after `fields`. When the exchange fails or the TPM refuses the command, every
  // session is released (auth_mgr_release: ended in the TPM, freed in the table) and the failure
  // returned. Otherwise the response trailers are read back into the sessions' TPM_AUTH (nonceEven,
  // continue flag, HMAC) for the caller to verify, a session that was sent with continue 0 is freed
  // in the table (the TPM has ended it), and the Unload* members read the outputs before the
  // trailers. A response too short for its trailers counts as a failed one (TCS_E_BAD_PARAMETER).
  template <class... Fields>
  [[nodiscard]] TSS_RESULT RunAuthorised(const Fields&... fields) noexcept {
    BlobWriter writer(blob_, kTpmHeaderSize);
    if (TSS_RESULT rc = LoadBlobs(writer, fields...)) return rc;
    for (size_t i = 0; i < sessionCount_; ++i) {
      if (TSS_RESULT rc = LoadBlob(writer, *sessions_[i])) return rc;
    }
    if (TSS_RESULT rc = LoadBlob_Header(SessionTag(), writer.offset(), ordinal_, blob_)) return rc;
    return FinishAuthorised(Submit());
  }

  // Reads the next response fields into the pointed-to objects (TCS_E_BAD_PARAMETER when the
  // response is too short; fields read before the failing one are written).
  template <class... Out>
  [[nodiscard]] TSS_RESULT Unload(Out... out) noexcept {
    return UnloadBlobs(outputs_, out...);
  }

  // Reads a UINT32 size and that many bytes, and hands them to the client in a new block of the
  // context's memory: *size and *data on success (a size of 0 gives a null *data and allocates
  // nothing). TCS_E_BAD_PARAMETER when the response is short, TCS_E_OUTOFMEMORY when the block
  // cannot be allocated; *size and *data are then unchanged.
  [[nodiscard]] TSS_RESULT UnloadSized(UINT32* size, BYTE** data) noexcept;

  // Reads one structure of type T, checking its internal sizes against the response, and sets
  // *bytes to its raw bytes (still in the response buffer). Nothing is allocated.
  template <class T>
  [[nodiscard]] TSS_RESULT TakeStructure(std::span<const BYTE>* bytes) noexcept {
    const UINT16 start = outputs_.offset();
    if (TSS_RESULT rc = UnloadBlob(outputs_, static_cast<T*>(nullptr))) return rc;
    *bytes = outputs_.blob().subspan(start, outputs_.offset() - start);
    return TSS_SUCCESS;
  }

  // TakeStructure, then hands the bytes to the client as UnloadSized does.
  template <class T>
  [[nodiscard]] TSS_RESULT UnloadStructure(UINT32* size, BYTE** data) noexcept {
    std::span<const BYTE> bytes;
    if (TSS_RESULT rc = TakeStructure<T>(&bytes)) return rc;
    return HandOut(bytes, size, data);
  }

  // Hands every response parameter not read yet to the client, as UnloadSized does.
  [[nodiscard]] TSS_RESULT UnloadRest(UINT32* size, BYTE** data) noexcept;

  // The reader over the response parameters not read yet (valid after Run returned 0).
  BlobReader& Outputs() noexcept { return outputs_; }

  // Copies `bytes` into a new block of the context's memory (CopyToContextMemory).
  [[nodiscard]] TSS_RESULT HandOut(std::span<const BYTE> bytes, UINT32* size, BYTE** data) noexcept;

 private:
  [[nodiscard]] TSS_RESULT Submit() noexcept;
  // Looks the keys of UseKey up again and writes their slots over the parameters they were sent as.
  [[nodiscard]] TSS_RESULT RefreshKeySlots() noexcept;
  TPM_TAG SessionTag() const noexcept;
  // The session bookkeeping after the exchange whose result is `result` (see RunAuthorised).
  [[nodiscard]] TSS_RESULT FinishAuthorised(TSS_RESULT result) noexcept;
  [[nodiscard]] TSS_RESULT UnloadSessionTrailers() noexcept;

  TCS_CONTEXT_HANDLE hContext_;
  TPM_COMMAND_CODE ordinal_;
  std::array<TPM_AUTH*, 2> sessions_{};
  size_t sessionCount_ = 0;
  // The keys of UseKey, where their slots are sent, and the TPM start-up count the first slot was
  // looked up under.
  struct KeyUse {
    TCS_KEY_HANDLE key;
    UINT16 paramOffset;
  };
  std::array<KeyUse, 2> keys_{};
  size_t keyCount_ = 0;
  UINT64 keyStartups_ = 0;
  std::array<BYTE, kTpmBlobSize> blob_;  // only [0, paramSize) is ever read
  BlobReader outputs_{std::span<const BYTE>()};
};

// Copies `bytes` into a new block of hContext's memory: *size and *data on success (no block and a
// null *data for 0 bytes). TCS_E_OUTOFMEMORY when the block cannot be allocated (nothing written).
[[nodiscard]] TSS_RESULT CopyToContextMemory(TCS_CONTEXT_HANDLE hContext,
                                             std::span<const BYTE> bytes, UINT32* size,
                                             BYTE** data) noexcept;

}  // namespace kesttcs
