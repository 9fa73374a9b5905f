// Many signing keys under one storage key under the SRK of an owned TPM (owner and SRK secrets
// well known), for the tests and benchmarks that need more keys than the TPM has slots.
//
// Making RSA keys takes the TPM a while (a 2048-bit key takes seconds), so the keys are made once
// and kept on disk under the build tree, in KESTTCS_BINARY_DIR/tests/fixtures/signing-keys-<tpm>/
// (<tpm> is "libtpms" or "swtpm"): "tpm-state/" (the TPM's state files: the embedded TPM's home
// tpm/ directory, or the swtpm state directory), "storage.blob", "signing-000.blob" and on, and
// "complete" (the number of signing keys, written last). The blobs only load under the SRK kept in
// that state, so every run starts the TPM from a copy of it. A fixture with fewer keys than asked,
// or without "complete", is made again; delete the directory to force that. Tests run in parallel
// processes, so the look and the making happen under a lock on "signing-keys-<tpm>.lock": the
// second process waits and then reads the first one's fixture instead of replacing it while the
// first is still copying from it. The directory is filled under a temporary name and renamed into
// place, so a run killed half-way leaves no fixture that looks whole.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

#include "daemon_process.h"
#include "kesttcsd_process.h"
#include "swtpm_process.h"
#include "wrapped_keys.h"

namespace kesttcs::testing::signing_keys {

using Bytes = std::vector<BYTE>;

enum class FixtureTpm { kLibtpms, kSwtpm };

// A 2048-bit storage key and small signing keys (PKCS#1 v1.5 with SHA-1): the TPM makes those
// quickly, and they sign as well as large ones for these tests.
inline const Bytes kStorageKeyInfo =
    wrapped_keys::KeyInfo(wrapped_keys::kStorageUsage, 2048, /*OAEP*/ 3, /*none*/ 1);
inline const Bytes kSigningKeyInfo =
    wrapped_keys::KeyInfo(wrapped_keys::kSigningUsage, 512, /*none*/ 1, /*PKCS#1 SHA-1*/ 2);

struct SigningKeys {
  Bytes storage;
  std::vector<Bytes> signing;
};

inline const char* TpmName(FixtureTpm tpm) {
  return tpm == FixtureTpm::kLibtpms ? "libtpms" : "swtpm";
}

inline fs::path FixtureDir(FixtureTpm tpm) {
  return fs::path(KESTTCS_BINARY_DIR) / "tests" / "fixtures" /
         (std::string("signing-keys-") + TpmName(tpm));
}

inline std::string SigningBlobName(size_t i) {
  char name[48];  // room for any size_t
  std::snprintf(name, sizeof(name), "signing-%03zu.blob", i);
  return name;
}

inline std::optional<Bytes> ReadBlob(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

inline void WriteBlob(const fs::path& path, const Bytes& blob) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(blob.data()), std::streamsize(blob.size()));
}

// The fixture's first `count` signing keys and its storage key; nothing when it is incomplete or
// holds fewer.
inline std::optional<SigningKeys> ReadFixture(const fs::path& dir, size_t count) {
  size_t complete = 0;
  if (!(std::ifstream(dir / "complete") >> complete) || complete < count) return std::nullopt;
  SigningKeys keys;
  std::optional<Bytes> storage = ReadBlob(dir / "storage.blob");
  if (!storage) return std::nullopt;
  keys.storage = std::move(*storage);
  for (size_t i = 0; i < count; ++i) {
    std::optional<Bytes> blob = ReadBlob(dir / SigningBlobName(i));
    if (!blob) return std::nullopt;
    keys.signing.push_back(std::move(*blob));
  }
  return keys;
}

// Copies the regular files of `from` (recursively) to `to`, leaving sockets behind.
inline void CopyStateFiles(const fs::path& from, const fs::path& to) {
  fs::create_directories(to);
  for (const fs::directory_entry& e : fs::recursive_directory_iterator(from)) {
    const fs::path target = to / fs::relative(e.path(), from);
    if (e.is_directory()) fs::create_directories(target);
    if (e.is_regular_file()) fs::copy_file(e.path(), target);
  }
}

// kesttcsd on the chosen TPM in `home`: the embedded TPM with its state in home/tpm, or a swtpm
// process of its own. With `state` the TPM starts from a copy of those state files.
class FixtureService {
 public:
  FixtureService(FixtureTpm tpm, const fs::path& home, const fs::path& state = {}) {
    if (tpm == FixtureTpm::kSwtpm) {
      swtpm_ = std::make_unique<SwtpmProcess>(/*startupClear=*/false, std::pair{0, 0}, state);
    } else if (!state.empty()) {
      CopyStateFiles(state, home / "tpm");
    }
    daemon_ = std::make_unique<KesttcsdProcess>(home, /*owned=*/false,
                                                swtpm_ ? swtpm_->UnixConfig() : "libtpms");
  }

  // Starts the TPM and the daemon; false when either does not come up.
  bool Start() { return (!swtpm_ || swtpm_->WaitReady()) && daemon_->Start(); }
  KesttcsdProcess& daemon() { return *daemon_; }
  // Stops the daemon (so that the embedded TPM's state is written) and the swtpm, and copies the
  // TPM's state files to `to`.
  void StopAndSaveState(const fs::path& home, const fs::path& to) {
    daemon_->Stop();
    if (swtpm_) swtpm_->Stop();
    CopyStateFiles(swtpm_ ? fs::path(swtpm_->state_dir()) : home / "tpm", to);
  }

 private:
  std::unique_ptr<SwtpmProcess> swtpm_;
  std::unique_ptr<KesttcsdProcess> daemon_;
};

// Makes the fixture in a fresh TPM: ownership by `kesttcs-cli provision`, the storage key under
// the SRK, `count` signing keys under it; then the state and the blobs into FixtureDir(tpm).
// Failures are reported through gtest.
inline void MakeFixture(FixtureTpm tpm, size_t count) {
  const TempDir work;
  const fs::path home = fs::path(work.path()) / "home";
  FixtureService service(tpm, home);
  ASSERT_TRUE(service.Start()) << daemon_process::ReadFile(home / "kesttcsd.log");
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  // A fresh swtpm has no endorsement key; the embedded TPM is made with one.
  if (tpm == FixtureTpm::kSwtpm) {
    ASSERT_NO_FATAL_FAILURE(CreateEndorsementKey(h));
  }
  const auto [status, text] =
      RunKesttcsCli({"provision"}, service.daemon().socket(), fs::path(work.path()) / "cli.txt");
  ASSERT_EQ(status, 0) << text;

  // Beside the fixture's place, so that the rename stays on one file system.
  const fs::path dir = FixtureDir(tpm);
  const fs::path staging = dir.string() + ".making-" + std::to_string(getpid());
  fs::remove_all(staging);
  fs::create_directories(staging);
  const Bytes storage = wrapped_keys::CreateKey(h, wrapped_keys::kSrk, kStorageKeyInfo);
  ASSERT_FALSE(::testing::Test::HasFailure());
  WriteBlob(staging / "storage.blob", storage);
  const TCS_KEY_HANDLE parent = wrapped_keys::Load(h, wrapped_keys::kSrk, storage);
  for (size_t i = 0; i < count; ++i) {
    WriteBlob(staging / SigningBlobName(i), wrapped_keys::CreateKey(h, parent, kSigningKeyInfo));
    ASSERT_FALSE(::testing::Test::HasFailure()) << "signing key " << i;
  }
  ASSERT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
  service.StopAndSaveState(home, staging / "tpm-state");
  std::ofstream(staging / "complete") << count << "\n";

  std::error_code ec;
  fs::remove_all(dir, ec);
  fs::rename(staging, dir);
}

// Holds an exclusive flock(2) on `path` while it lives; the lock goes with the process however
// it ends.
class FileLock {
 public:
  explicit FileLock(const fs::path& path)
      : fd_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (fd_ >= 0) flock(fd_, LOCK_EX);
  }
  ~FileLock() {
    if (fd_ >= 0) close(fd_);
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_;
};

// The fixture's keys, made first when the build tree does not hold enough of them.
inline std::optional<SigningKeys> Fixture(FixtureTpm tpm, size_t count) {
  fs::create_directories(FixtureDir(tpm).parent_path());
  const FileLock lock(FixtureDir(tpm).string() + ".lock");
  if (std::optional<SigningKeys> keys = ReadFixture(FixtureDir(tpm), count)) return keys;
  MakeFixture(tpm, count);
  return ReadFixture(FixtureDir(tpm), count);
}

}  // namespace kesttcs::testing::signing_keys
