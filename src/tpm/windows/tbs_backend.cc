// TPM Base Services loaded at run time. The TBS owns the TPM: it keeps keys resident and sessions
// alive across its own scheduling, and it answers with its own result codes, which are mapped to
// the driver layer's here so that the layers above see the same results as on the TDDL path.

#include <windows.h>

#include <tbs.h>

#include <atomic>
#include <cstdio>

#include "tpm/backends.h"
#include "tpm/shared_library.h"

namespace kesttcs {

namespace {

using TbsContextCreateFn = TBS_RESULT(WINAPI*)(const TBS_CONTEXT_PARAMS*, TBS_HCONTEXT*);
using TbsSubmitCommandFn = TBS_RESULT(WINAPI*)(TBS_HCONTEXT, TBS_COMMAND_LOCALITY,
                                               TBS_COMMAND_PRIORITY, const BYTE*, UINT32, BYTE*,
                                               UINT32*);
using TbsCancelCommandsFn = TBS_RESULT(WINAPI*)(TBS_HCONTEXT);
using TbsContextCloseFn = TBS_RESULT(WINAPI*)(TBS_HCONTEXT);

constexpr int kBindFailed = 1;
constexpr UINT32 kTbsContextVersionOne = 1;
constexpr TBS_RESULT kTbsSuccess = 0;
constexpr TBS_RESULT kTbsInsufficientBuffer = 0x80284005;
constexpr TBS_RESULT kTbsCommandCanceled = 0x8028400D;

TSS_RESULT DriverResultOf(TBS_RESULT result) {
  switch (result) {
    case kTbsSuccess:
      return TSS_SUCCESS;
    case kTbsInsufficientBuffer:
      return kDriverInsufficientBuffer;
    case kTbsCommandCanceled:
      return kDriverCommandAborted;
    default:
      return kDriverIoError;
  }
}

std::string Hex(TBS_RESULT result) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(result));
  return text;
}

class TbsBackend final : public TpmBackend {
 public:
  explicit TbsBackend(std::string path) : binding_(std::move(path)) {}
  ~TbsBackend() override { static_cast<void>(Close()); }

  int Bind() override {
    std::string why;
    if (binding_.Bind([this](const SharedLibrary& library,
                             std::string* missing) { return Resolve(library, missing); },
                      &why) != 0) {
      SetLastError("TBS library: " + why);
      return kBindFailed;
    }
    return 0;
  }

  TSS_RESULT Open() override {
    if (Bind() != 0) return kBindFailed;
    if (context_.load() != nullptr) return kDriverAlreadyOpened;
    TBS_CONTEXT_PARAMS params{kTbsContextVersionOne};
    TBS_HCONTEXT context = nullptr;
    TBS_RESULT result = create_(&params, &context);
    if (result != kTbsSuccess) {
      SetLastError("Tbsi_Context_Create failed with " + Hex(result));
      return DriverResultOf(result);
    }
    context_.store(context);
    std::string error;
    TSS_RESULT check = CheckAnswersAsTpm12(*this, &error);
    if (check != TSS_SUCCESS) {
      static_cast<void>(Close());
      SetLastError("TBS: " + error);
      return check;
    }
    SetLastError("");
    return TSS_SUCCESS;
  }

  TSS_RESULT Close() override {
    TBS_HCONTEXT context = context_.exchange(nullptr);
    if (context == nullptr) return kDriverAlreadyClosed;
    return DriverResultOf(close_(context));
  }

  TSS_RESULT Transmit(std::span<const BYTE> in, std::span<BYTE> out, UINT32* outLen,
                      UINT32 priority) override {
    *outLen = 0;
    TBS_HCONTEXT context = context_.load();
    if (context == nullptr) return kDriverNotOpen;
    UINT32 length = static_cast<UINT32>(out.size());
    TBS_RESULT result =
        submit_(context, TBS_COMMAND_LOCALITY_ZERO, static_cast<TBS_COMMAND_PRIORITY>(priority),
                in.data(), static_cast<UINT32>(in.size()), out.data(), &length);
    if (result != kTbsSuccess) return DriverResultOf(result);
    if (length > out.size()) return kDriverInsufficientBuffer;
    *outLen = length;
    return TSS_SUCCESS;
  }

  TSS_RESULT Cancel() override {
    TBS_HCONTEXT context = context_.load();
    if (context == nullptr) return kDriverNotOpen;
    return DriverResultOf(cancel_(context));
  }

  std::string Describe() const override { return "tbs:" + binding_.path(); }
  bool IsTbs() const override { return true; }

 private:
  // Takes the four entry points, all of them required.
  bool Resolve(const SharedLibrary& library, std::string* why) {
    create_ = library.Find<TbsContextCreateFn>("Tbsi_Context_Create");
    submit_ = library.Find<TbsSubmitCommandFn>("Tbsip_Submit_Command");
    cancel_ = library.Find<TbsCancelCommandsFn>("Tbsip_Cancel_Commands");
    close_ = library.Find<TbsContextCloseFn>("Tbsip_Context_Close");
    if (create_ != nullptr && submit_ != nullptr && cancel_ != nullptr && close_ != nullptr) {
      return true;
    }
    *why = binding_.path() +
           " lacks one of Tbsi_Context_Create, Tbsip_Submit_Command, Tbsip_Cancel_Commands, "
           "Tbsip_Context_Close";
    return false;
  }

  LibraryBinding binding_;
  // Stored by a successful binding, never changed afterwards.
  TbsContextCreateFn create_ = nullptr;
  TbsSubmitCommandFn submit_ = nullptr;
  TbsCancelCommandsFn cancel_ = nullptr;
  TbsContextCloseFn close_ = nullptr;
  // The open TBS context (null while closed); a cancel reads it from another thread.
  std::atomic<TBS_HCONTEXT> context_{nullptr};
};

}  // namespace

std::unique_ptr<TpmBackend> MakeTbsBackend(std::string libraryPath) {
  return std::make_unique<TbsBackend>(std::move(libraryPath));
}

}  // namespace kesttcs
