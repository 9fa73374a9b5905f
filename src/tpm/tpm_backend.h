// The seam between the service and a TPM 1.2: a backend moves one command's bytes to the TPM and
// the response's bytes back. The driver binding (driver.h) owns exactly one backend, chosen by the
// "backend" configuration string; everything above the driver sees only the four operations.
//
// State rules every backend keeps:
//   - Bind() may be called any number of times, in any state; it never talks to the TPM.
//   - A backend starts closed. Open() moves it to open; Close() moves it back to closed and may be
//     called in either state (closing a closed backend returns kDriverAlreadyClosed, changes
//     nothing).
//   - Open() on an open backend returns kDriverAlreadyOpened and changes nothing. A failed Open()
//     leaves the backend closed and releases whatever it had acquired; LastError() says why.
//   - Transmit() and Cancel() on a closed backend return kDriverNotOpen and touch no buffer.
//   - Transmit() is called by one thread at a time (the request manager's TPM lock serialises it).
//     Cancel() may be called from any thread while a Transmit() runs; it asks the TPM to abandon
//     the command in flight and returns without waiting for that Transmit() to finish.
//   - Transmit() writes at most out.size() bytes and sets *outLen to the number written; on failure
//     *outLen is 0. Response bytes are passed through unparsed: checking them is the caller's job.
//   - Nothing throws; every failure is a nonzero driver result (the constants below, or the
//     result a driver library returned).
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <kesttcs/tcs_types.h>

#include <kesttcs/tcs_results.h>

namespace kesttcs {

// Results of the service's own backends, in the driver layer (0xE0281xxx) of the result family.
inline constexpr TSS_RESULT kDriverFail = TDDL_E_FAIL;
inline constexpr TSS_RESULT kDriverAlreadyOpened = TDDL_E_ALREADY_OPENED;
inline constexpr TSS_RESULT kDriverAlreadyClosed = TDDL_E_ALREADY_CLOSED;
inline constexpr TSS_RESULT kDriverInsufficientBuffer = TDDL_E_INSUFFICIENT_BUFFER;
inline constexpr TSS_RESULT kDriverCommandAborted = TDDL_E_COMMAND_ABORTED;
inline constexpr TSS_RESULT kDriverIoError = TCS_E_DRIVER_NOT_AVAILABLE;
inline constexpr TSS_RESULT kDriverNotOpen = kDriverAlreadyClosed;

// TBS-style priorities: normal traffic and the start-up commands.
inline constexpr UINT32 kPriorityNormal = 200;
inline constexpr UINT32 kPriorityHigh = 300;

class TpmBackend {
 public:
  virtual ~TpmBackend() = default;
  TpmBackend(const TpmBackend&) = delete;
  TpmBackend& operator=(const TpmBackend&) = delete;

  // Loads what the backend needs before it can open (a driver library and its entry points)
  // without touching the TPM. Idempotent. 0 when bound; 1 when binding failed (LastError() says
  // why). Backends with nothing to load return 0.
  [[nodiscard]] virtual int Bind() { return 0; }
  // Connects to the TPM (binding first). 0 on success; otherwise a driver result and LastError()
  // says why.
  [[nodiscard]] virtual TSS_RESULT Open() = 0;
  // Disconnects. 0 on success (also the result the TDDL library gave, passed through).
  virtual TSS_RESULT Close() = 0;
  // One command/response exchange. `priority` is a TBS priority; backends without priorities
  // ignore it. See the state rules above.
  [[nodiscard]] virtual TSS_RESULT Transmit(std::span<const BYTE> in, std::span<BYTE> out,
                                            UINT32* outLen, UINT32 priority) = 0;
  // Asks the TPM to abandon the command in flight. 0 when the request was delivered (whether a
  // command was running or not).
  virtual TSS_RESULT Cancel() = 0;
  // The configuration string this backend was made from ("swtpm:unix:/run/tpm.sock").
  virtual std::string Describe() const = 0;
  // True when the TPM is reached through TPM Base Services; binding such a backend puts the driver
  // on the TBS path (driver_is_tbs()).
  virtual bool IsTbs() const { return false; }

  // Why the last Open() failed (empty when it did not).
  const std::string& LastError() const { return last_error_; }

 protected:
  TpmBackend() = default;
  void SetLastError(std::string text) { last_error_ = std::move(text); }

 private:
  std::string last_error_;
};

// Builds the backend a configuration string names (the forms are listed in backend_config.h),
// closed; each host has its own choice (linux/backend_choice.cc, windows/backend_choice.cc). `home`
// is the service's home directory. On success returns the backend; on a bad string returns null and
// sets *error to a message that quotes the string and lists the accepted forms.
[[nodiscard]] std::unique_ptr<TpmBackend> CreateTpmBackend(std::string_view config,
                                                           const std::string& home,
                                                           std::string* error);

// Sends a harmless TPM 1.2 command through an open backend and checks that the answer is a TPM 1.2
// answer. Returns 0 for a TPM 1.2 (whatever its return code, POSTINIT included); kDriverFail with a
// message in *error when the TPM answers as a TPM 2.0 or not like a TPM at all; the transmit result
// when the exchange failed. Device, swtpm and TDDL backends call it at the end of Open().
[[nodiscard]] TSS_RESULT CheckAnswersAsTpm12(TpmBackend& backend, std::string* error);

}  // namespace kesttcs
