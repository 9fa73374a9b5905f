// A swtpm process reached over two stream sockets: the data socket carries raw TPM command and
// response bytes, the control socket carries swtpm's control commands (here only the cancel).

#include <array>

#include "tpm/backends.h"
#include "tpm/fd_backend.h"
#include "tpm/tpm_bytes.h"

namespace kesttcs {

namespace {

// swtpm control command that abandons the TPM command in flight; its answer is a 4-byte result.
constexpr UINT32 kSwtpmCmdCancelTpmCmd = 0x09;

struct Endpoint {
  bool unixSocket;  // else TCP; not "unix", which GNU dialects predefine as a macro
  std::string pathOrHost;
  int port;
};

class SwtpmBackend final : public FdTpmBackend {
 public:
  SwtpmBackend(Endpoint data, Endpoint ctrl, std::string description)
      : data_(std::move(data)), ctrl_(std::move(ctrl)), description_(std::move(description)) {}

  TSS_RESULT Transmit(std::span<const BYTE> in, std::span<BYTE> out, UINT32* outLen,
                      UINT32 /*priority*/) override {
    *outLen = 0;
    if (!open_) return kDriverNotOpen;
    if (!fd_.valid()) {
      std::string error;
      fd_ = ConnectTo(data_, &error);
      if (!fd_.valid()) return kDriverIoError;
    }
    TSS_RESULT result =
        WriteAll(fd_.get(), in) ? ReadTpmResponse(fd_.get(), out, outLen) : kDriverIoError;
    // After a broken exchange the stream may hold part of a response: the next exchange starts on
    // a fresh connection so that it cannot read the remains of this one.
    if (result != TSS_SUCCESS) fd_.Reset();
    return result;
  }

  TSS_RESULT Cancel() override {
    if (!open_) return kDriverNotOpen;
    std::string error;
    UniqueFd ctrl = ConnectTo(ctrl_, &error);
    if (!ctrl.valid()) return kDriverIoError;
    std::array<BYTE, 4> request;
    UINT32ToArray(kSwtpmCmdCancelTpmCmd, request);
    std::array<BYTE, 4> answer;
    if (!WriteAll(ctrl.get(), request) || !ReadExact(ctrl.get(), answer)) return kDriverIoError;
    // swtpm answers TPM_FAIL when no command was running; either way the request was delivered.
    return TSS_SUCCESS;
  }

  std::string Describe() const override { return description_; }

 private:
  static UniqueFd ConnectTo(const Endpoint& endpoint, std::string* error) {
    return endpoint.unixSocket ? ConnectUnix(endpoint.pathOrHost, error)
                               : ConnectTcp(endpoint.pathOrHost, endpoint.port, error);
  }
  UniqueFd Connect(std::string* error) override { return ConnectTo(data_, error); }
  std::string Subject() const override { return "swtpm data channel " + description_; }

  const Endpoint data_;
  const Endpoint ctrl_;
  const std::string description_;
};

}  // namespace

std::unique_ptr<TpmBackend> MakeSwtpmUnixBackend(std::string dataPath, std::string ctrlPath) {
  std::string description = "swtpm:unix:" + dataPath + "," + ctrlPath;
  return std::make_unique<SwtpmBackend>(Endpoint{true, std::move(dataPath), 0},
                                        Endpoint{true, std::move(ctrlPath), 0},
                                        std::move(description));
}

std::unique_ptr<TpmBackend> MakeSwtpmTcpBackend(std::string host, int port, int ctrlPort) {
  std::string description =
      "swtpm:tcp:" + host + ":" + std::to_string(port) + ":" + std::to_string(ctrlPort);
  return std::make_unique<SwtpmBackend>(Endpoint{false, host, port},
                                        Endpoint{false, host, ctrlPort}, std::move(description));
}

}  // namespace kesttcs
