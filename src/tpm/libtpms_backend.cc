// The embedded TPM 1.2: libtpms running in this process. Its permanent state is kept through the
// library's NV callbacks in files of the state directory named as libtpms names them itself
// ("00.permall"), so a state taken from a swtpm state file (minus swtpm's 16-byte header) loads
// unchanged. A state directory without a permanent state file makes a new TPM, which comes up like
// a new machine's TPM (enabled, activated, no owner, not started) and gets its endorsement key
// just before the first command that needs one (endorsement_key_deferral.h). Until then a marker
// file beside the state says that the key is still to be made, so that a service stopped before
// makes it on a later start.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <libtpms/tpm_library.h>
#include <libtpms/tpm_memory.h>
#include <libtpms/tpm_nvfilename.h>

#include "tpm/backends.h"
#include "tpm/endorsement_key_deferral.h"
#include "tpm/fd_io.h"
#include "tpm/tpm_bytes.h"
#include "tpm12/marshal.h"

namespace kesttcs {

namespace {

// libtpms return codes used by the NV callbacks (the library's TPM_SUCCESS, TPM_FAIL, TPM_RETRY;
// TPM_RETRY from a load tells the library that the state does not exist yet).
constexpr TPM_RESULT kLibOk = 0x00;
constexpr TPM_RESULT kLibFail = 0x09;
constexpr TPM_RESULT kLibNoState = 0x800;

// The one libtpms TPM of this process: set while a backend has it open.
std::atomic<bool> g_libtpms_in_use{false};
// The state directory of the open backend, read by the NV callbacks. Written only by the backend
// that holds g_libtpms_in_use, before the library is initialised.
std::string g_state_dir;

std::string StatePath(uint32_t tpmNumber, const char* name) {
  std::array<char, 16> prefix;
  std::snprintf(prefix.data(), prefix.size(), "%02x.", tpmNumber);
  return g_state_dir + "/" + prefix.data() + name;
}

TPM_RESULT NvInit() {
  std::error_code ec;
  std::filesystem::create_directories(g_state_dir, ec);
  return ec ? kLibFail : kLibOk;
}

TPM_RESULT NvLoad(unsigned char** data, uint32_t* length, uint32_t tpmNumber, const char* name) {
  *data = nullptr;
  *length = 0;
  UniqueFd fd(::open(StatePath(tpmNumber, name).c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return errno == ENOENT ? kLibNoState : kLibFail;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || st.st_size <= 0 || st.st_size > TPM_ALLOC_MAX) {
    return kLibFail;
  }
  uint32_t size = static_cast<uint32_t>(st.st_size);
  if (TPM_Malloc(data, size) != kLibOk) return kLibFail;
  if (!ReadExact(fd.get(), std::span<BYTE>(*data, size))) {
    TPM_Free(*data);
    *data = nullptr;
    return kLibFail;
  }
  *length = size;
  return kLibOk;
}

// Writes beside the file and renames over it, so that a crash leaves the old or the new state.
TPM_RESULT NvStore(const unsigned char* data, uint32_t length, uint32_t tpmNumber,
                   const char* name) {
  std::string path = StatePath(tpmNumber, name);
  std::string temp = path + ".tmp";
  UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd.valid()) return kLibFail;
  bool written = WriteAll(fd.get(), std::span<const BYTE>(data, length)) && ::fsync(fd.get()) == 0;
  fd.Reset();
  if (!written || ::rename(temp.c_str(), path.c_str()) != 0) {
    ::unlink(temp.c_str());
    return kLibFail;
  }
  return kLibOk;
}

TPM_RESULT NvDelete(uint32_t tpmNumber, const char* name, TPM_BOOL mustExist) {
  if (::unlink(StatePath(tpmNumber, name).c_str()) == 0) return kLibOk;
  return errno == ENOENT && !mustExist ? kLibOk : kLibFail;
}

TPM_RESULT IoInit() { return kLibOk; }

TPM_RESULT IoGetLocality(TPM_MODIFIER_INDICATOR* locality, uint32_t /*tpmNumber*/) {
  *locality = 0;
  return kLibOk;
}

TPM_RESULT IoGetPhysicalPresence(TPM_BOOL* physicalPresence, uint32_t /*tpmNumber*/) {
  *physicalPresence = 0;
  return kLibOk;
}

// Beside the permanent state while the endorsement key is still to be made.
constexpr char kEndorsementKeyPendingName[] = "endorsement-key.pending";

// TPM_CreateEndorsementKeyPair: antiReplay (20 bytes), TPM_KEY_PARMS for a 2048-bit RSA key with
// OAEP encryption and no signature scheme (TPM_RSA_KEY_PARMS: keyLength, numPrimes, no exponent).
constexpr std::array<BYTE, 54> kCreateEndorsementKeyPair = {
    0x00, 0xC1, 0, 0,  0, 54, 0, 0, 0, 0x78,                                // header
    0,    0,    0, 0,  0, 0,  0, 0, 0, 0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // antiReplay
    0,    0,    0, 1,                                                       // TPM_ALG_RSA
    0,    3,            // TPM_ES_RSAESOAEP_SHA1_MGF1
    0,    1,            // TPM_SS_NONE
    0,    0,    0, 12,  // parmSize
    0,    0,    8, 0,   // keyLength 2048
    0,    0,    0, 2,   // numPrimes
    0,    0,    0, 0};  // exponentSize

class LibtpmsBackend final : public TpmBackend {
 public:
  explicit LibtpmsBackend(std::string stateDir) : state_dir_(std::move(stateDir)) {}
  ~LibtpmsBackend() override { static_cast<void>(Close()); }

  TSS_RESULT Open() override {
    if (open_) return kDriverAlreadyOpened;
    bool expected = false;
    if (!g_libtpms_in_use.compare_exchange_strong(expected, true)) {
      SetLastError("libtpms:" + state_dir_ +
                   ": another embedded TPM is already open in this process (libtpms holds one "
                   "TPM per process)");
      return kDriverAlreadyOpened;
    }
    g_state_dir = state_dir_;
    const std::string pending = state_dir_ + "/" + kEndorsementKeyPendingName;
    bool fresh = !std::filesystem::exists(StatePath(0, TPM_PERMANENT_ALL_NAME));
    std::string error;
    if ((fresh && !MarkEndorsementKeyPending(pending, &error)) || !StartLibrary(&error)) {
      // A half-made state would pass for a finished one next time: start again from nothing.
      if (fresh) {
        ::unlink(StatePath(0, TPM_PERMANENT_ALL_NAME).c_str());
        ::unlink(pending.c_str());
      }
      g_libtpms_in_use = false;
      SetLastError("libtpms:" + state_dir_ + ": " + error);
      return kDriverFail;
    }
    endorsement_key_pending_ = std::filesystem::exists(pending);
    open_ = true;
    SetLastError("");
    return TSS_SUCCESS;
  }

  TSS_RESULT Close() override {
    if (!open_) return kDriverAlreadyClosed;
    open_ = false;
    Stop();
    g_libtpms_in_use = false;
    return TSS_SUCCESS;
  }

  TSS_RESULT Transmit(std::span<const BYTE> in, std::span<BYTE> out, UINT32* outLen,
                      UINT32 /*priority*/) override {
    *outLen = 0;
    if (!open_) return kDriverNotOpen;
    if (endorsement_key_pending_ && !RunsWithoutEndorsementKey(in)) MakeEndorsementKey();
    return Process(in, out, outLen);
  }

  // Commands run to completion inside Transmit, so there is never one in flight to abandon.
  TSS_RESULT Cancel() override { return open_ ? TSS_SUCCESS : kDriverNotOpen; }

  std::string Describe() const override { return "libtpms:" + state_dir_; }

 private:
  bool StartLibrary(std::string* error) {
    static libtpms_callbacks callbacks = {
        .sizeOfStruct = sizeof(libtpms_callbacks),
        .tpm_nvram_init = NvInit,
        .tpm_nvram_loaddata = NvLoad,
        .tpm_nvram_storedata = NvStore,
        .tpm_nvram_deletename = NvDelete,
        .tpm_io_init = IoInit,
        .tpm_io_getlocality = IoGetLocality,
        .tpm_io_getphysicalpresence = IoGetPhysicalPresence,
    };
    if (TPMLIB_ChooseTPMVersion(TPMLIB_TPM_VERSION_1_2) != kLibOk ||
        TPMLIB_RegisterCallbacks(&callbacks) != kLibOk) {
      *error = "libtpms does not offer a TPM 1.2";
      return false;
    }
    TPM_RESULT rc = TPMLIB_MainInit();
    if (rc != kLibOk) {
      *error = "TPM start failed with TPM code " + std::to_string(rc) + " (state unreadable?)";
      return false;
    }
    return true;
  }

  void Stop() {
    TPMLIB_Terminate();
    TPM_Free(response_);
    response_ = nullptr;
    response_capacity_ = 0;
  }

  TSS_RESULT Process(std::span<const BYTE> in, std::span<BYTE> out, UINT32* outLen) {
    uint32_t length = 0;
    // The library takes a writable command pointer but only reads the command.
    TPM_RESULT rc = TPMLIB_Process(&response_, &length, &response_capacity_,
                                   const_cast<BYTE*>(in.data()), static_cast<uint32_t>(in.size()));
    if (rc != kLibOk) return kDriverFail;
    if (length > out.size()) return kDriverInsufficientBuffer;
    std::memcpy(out.data(), response_, length);
    *outLen = length;
    return TSS_SUCCESS;
  }

  bool MarkEndorsementKeyPending(const std::string& path, std::string* error) const {
    std::error_code ec;
    std::filesystem::create_directories(state_dir_, ec);
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd.valid() || ::fsync(fd.get()) != 0) {
      *error = "cannot create " + path;
      return false;
    }
    return true;
  }

  // Makes the endorsement key. The key is there once the TPM made it, or refuses to because it
  // has one; any other answer (a TPM not started yet, say) leaves it to the next command.
  void MakeEndorsementKey() {
    std::array<BYTE, kTpmBlobSize> response;
    UINT32 length = 0;
    if (Process(kCreateEndorsementKeyPair, response, &length) != TSS_SUCCESS ||
        length < kTpmHeaderSize) {
      return;
    }
    const UINT32 code = PeekUINT32(response, 6);
    if (code != TPM_SUCCESS && code != TPM_DISABLED_CMD) return;
    endorsement_key_pending_ = false;
    ::unlink((state_dir_ + "/" + kEndorsementKeyPendingName).c_str());
  }

  const std::string state_dir_;
  // Read by Cancel() from other threads.
  std::atomic<bool> open_{false};
  // Read and written only inside Open and Transmit, which never run at once.
  bool endorsement_key_pending_ = false;
  unsigned char* response_ = nullptr;
  uint32_t response_capacity_ = 0;
};

}  // namespace

std::unique_ptr<TpmBackend> MakeLibtpmsBackend(std::string stateDir) {
  return std::make_unique<LibtpmsBackend>(std::move(stateDir));
}

}  // namespace kesttcs
