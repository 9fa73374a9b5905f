// A TPM Device Driver Library (TDDL) loaded at run time, as "tpmddl.dll" is on Windows. The library
// keeps its own open/closed state, so every call is passed through once the library is bound.
// Binding rules, kept exactly as the service has always bound its driver library:
//   1. Upper-case names first: TDDL_Open, and only when it is found TDDL_Close, TDDL_TransmitData
//      and TDDL_Cancel. When TDDL_Open is missing, the Tddli_* set instead. So a library that
//      exports both sets is bound to the upper-case set.
//   2. Binding succeeds when open, close and cancel were found; the transmit entry is not tested
//      (a library without it binds, and its transmits fail with TCS_E_DRIVER_NOT_AVAILABLE).
//   3. Binding is lazy: the first operation binds; a failed binding unloads the library and is
//      tried again by the next operation. Open, close and cancel answer 1 while unbound,
//      transmit TCS_E_DRIVER_NOT_AVAILABLE.

#include "tpm/backends.h"
#include "tpm/shared_library.h"

namespace kesttcs {

namespace {

using TddlOpenFn = TSS_RESULT (*)();
using TddlCloseFn = TSS_RESULT (*)();
using TddlCancelFn = TSS_RESULT (*)();
using TddlTransmitFn = TSS_RESULT (*)(BYTE* in, UINT32 inLen, BYTE* out, UINT32* outLen);

constexpr int kBindFailed = 1;

struct EntryNames {
  const char* open;
  const char* close;
  const char* transmit;
  const char* cancel;
};
constexpr EntryNames kUpperCaseNames = {"TDDL_Open", "TDDL_Close", "TDDL_TransmitData",
                                        "TDDL_Cancel"};
constexpr EntryNames kMixedCaseNames = {"Tddli_Open", "Tddli_Close", "Tddli_TransmitData",
                                        "Tddli_Cancel"};

class TddlBackend final : public TpmBackend {
 public:
  explicit TddlBackend(std::string path) : binding_(std::move(path)) {}

  int Bind() override {
    std::string why;
    if (binding_.Bind([this](const SharedLibrary& library,
                             std::string* missing) { return Resolve(library, missing); },
                      &why) != 0) {
      SetLastError("TDDL library: " + why);
      return kBindFailed;
    }
    return 0;
  }

  TSS_RESULT Open() override {
    if (Bind() != 0) return kBindFailed;
    TSS_RESULT result = open_();
    if (result != TSS_SUCCESS) {
      SetLastError("TDDL open failed: " + std::string(ResultName(result)));
      return result;
    }
    if (transmit_ == nullptr) return TSS_SUCCESS;  // nothing to probe through
    std::string error;
    result = CheckAnswersAsTpm12(*this, &error);
    if (result != TSS_SUCCESS) {
      static_cast<void>(close_());
      SetLastError("TDDL library " + binding_.path() + ": " + error);
      return result;
    }
    SetLastError("");
    return TSS_SUCCESS;
  }

  TSS_RESULT Close() override { return Bind() != 0 ? kBindFailed : close_(); }

  TSS_RESULT Transmit(std::span<const BYTE> in, std::span<BYTE> out, UINT32* outLen,
                      UINT32 /*priority*/) override {
    *outLen = 0;
    if (Bind() != 0 || transmit_ == nullptr) return TCS_E_DRIVER_NOT_AVAILABLE;
    UINT32 length = static_cast<UINT32>(out.size());
    // The library's signature takes a writable command buffer; it only reads it.
    TSS_RESULT result = transmit_(const_cast<BYTE*>(in.data()), static_cast<UINT32>(in.size()),
                                  out.data(), &length);
    if (result != TSS_SUCCESS) return result;
    // A library that claims more than the buffer holds is not believed.
    if (length > out.size()) return kDriverInsufficientBuffer;
    *outLen = length;
    return TSS_SUCCESS;
  }

  TSS_RESULT Cancel() override { return Bind() != 0 ? kBindFailed : cancel_(); }

  std::string Describe() const override { return "tddl:" + binding_.path(); }

 private:
  // Takes the entry points by the binding rules above; on failure stores none of them.
  bool Resolve(const SharedLibrary& library, std::string* why) {
    const EntryNames* names = &kUpperCaseNames;
    TddlOpenFn open = library.Find<TddlOpenFn>(names->open);
    if (open == nullptr) {
      names = &kMixedCaseNames;
      open = library.Find<TddlOpenFn>(names->open);
    }
    if (open == nullptr) {
      *why = binding_.path() + " exports neither TDDL_Open nor Tddli_Open";
      return false;
    }
    TddlCloseFn close = library.Find<TddlCloseFn>(names->close);
    TddlCancelFn cancel = library.Find<TddlCancelFn>(names->cancel);
    // The transmit entry is deliberately not required (rule 2 above).
    if (close == nullptr || cancel == nullptr) {
      *why = binding_.path() + " exports " + names->open + " without " + names->close + " and " +
             names->cancel;
      return false;
    }
    open_ = open;
    close_ = close;
    transmit_ = library.Find<TddlTransmitFn>(names->transmit);
    cancel_ = cancel;
    return true;
  }

  LibraryBinding binding_;
  // Stored by a successful binding, never changed afterwards.
  TddlOpenFn open_ = nullptr;
  TddlCloseFn close_ = nullptr;
  TddlTransmitFn transmit_ = nullptr;
  TddlCancelFn cancel_ = nullptr;
};

}  // namespace

std::unique_ptr<TpmBackend> MakeTddlBackend(std::string libraryPath) {
  return std::make_unique<TddlBackend>(std::move(libraryPath));
}

}  // namespace kesttcs
