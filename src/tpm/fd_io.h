// Blocking byte-stream helpers for the backends that reach a TPM through a file descriptor (swtpm
// sockets, the kernel character device). They retry on EINTR and short transfers.
#pragma once

#include <span>
#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Owns one file descriptor; closes it on destruction. -1 means none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int Release();
  void Reset(int fd = -1);

 private:
  int fd_ = -1;
};

// Writes all of `data`. False (errno set) when the descriptor fails or closes.
[[nodiscard]] bool WriteAll(int fd, std::span<const BYTE> data);
// Reads exactly data.size() bytes. False on error or end of stream before that.
[[nodiscard]] bool ReadExact(int fd, std::span<BYTE> data);

// Reads one TPM response from a stream: the 10-byte header, then the rest of the bytes its
// paramSize announces. Returns 0 and sets *outLen on success; kDriverIoError when the stream
// fails or ends early; kDriverInsufficientBuffer when paramSize is below 10 or beyond out.size()
// (the stream is then out of step and the caller must reconnect).
[[nodiscard]] TSS_RESULT ReadTpmResponse(int fd, std::span<BYTE> out, UINT32* outLen);

// Connects a stream socket to a Unix socket path or to HOST:PORT over TCP. On failure returns an
// invalid descriptor and sets *error.
UniqueFd ConnectUnix(const std::string& path, std::string* error);
UniqueFd ConnectTcp(const std::string& host, int port, std::string* error);

}  // namespace kesttcs
