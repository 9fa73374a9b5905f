// A kernel TPM 1.2 character device. The driver takes one whole command per write() and hands back
// the whole response to the next read(). Cancel goes through the chip's sysfs "cancel" attribute.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tpm/backends.h"
#include "tpm/fd_backend.h"

namespace kesttcs {

namespace {

// "/dev/tpm0" -> "/sys/class/tpm/tpm0/device/cancel"; empty when the name is not "tpm<N>".
std::string CancelPathFor(const std::string& devicePath) {
  std::string name = devicePath.substr(devicePath.find_last_of('/') + 1);
  if (name.size() <= 3 || name.compare(0, 3, "tpm") != 0 ||
      name.find_first_not_of("0123456789", 3) != std::string::npos) {
    return "";
  }
  return "/sys/class/tpm/" + name + "/device/cancel";
}

class DeviceBackend final : public FdTpmBackend {
 public:
  explicit DeviceBackend(std::string path)
      : path_(std::move(path)), cancel_path_(CancelPathFor(path_)) {}

  TSS_RESULT Transmit(std::span<const BYTE> in, std::span<BYTE> out, UINT32* outLen,
                      UINT32 /*priority*/) override {
    *outLen = 0;
    if (!open_) return kDriverNotOpen;
    if (!WriteAll(fd_.get(), in)) return kDriverIoError;
    ssize_t n;
    do {
      n = ::read(fd_.get(), out.data(), out.size());
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return kDriverIoError;
    *outLen = static_cast<UINT32>(n);
    return TSS_SUCCESS;
  }

  TSS_RESULT Cancel() override {
    if (!open_) return kDriverNotOpen;
    if (cancel_path_.empty()) return kDriverFail;
    UniqueFd cancel(::open(cancel_path_.c_str(), O_WRONLY | O_CLOEXEC));
    static constexpr BYTE kAnyByte[] = {'1'};
    return cancel.valid() && WriteAll(cancel.get(), kAnyByte) ? TSS_SUCCESS : kDriverFail;
  }

  std::string Describe() const override { return "device:" + path_; }

 private:
  UniqueFd Connect(std::string* error) override {
    UniqueFd fd(::open(path_.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd.valid()) *error = std::string("cannot open: ") + std::strerror(errno);
    return fd;
  }
  std::string Subject() const override { return "TPM device " + path_; }

  const std::string path_;
  const std::string cancel_path_;
};

}  // namespace

std::unique_ptr<TpmBackend> MakeDeviceBackend(std::string devicePath) {
  return std::make_unique<DeviceBackend>(std::move(devicePath));
}

}  // namespace kesttcs
