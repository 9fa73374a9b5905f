// The best case a TPM service can reach on this machine, as reference rows for the service's own:
// servers that read a TPM command from a Unix socket, run it in-process on the embedded libtpms
// TPM (TPMLIB_Process) and write the answer back, with nothing in between. Requests and answers are
// bare TPM 1.2 blobs, each framed by its own paramSize.
//   - the single-threaded form serves one connection at a time, in one thread;
//   - the epoll form serves any number of connections from one thread.
// Each server holds the TPM lock for as long as it has a client, so that it meets neither the
// service nor the other server at the TPM and pays for the lock only once per connection.
#pragma once

#include <span>
#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs::bench {

// Reads exactly `n` bytes from `fd`; false at the end of the input or on an error.
bool ReadFull(int fd, void* data, size_t n);

enum class BestCaseForm { kSingleThreaded, kEpoll };

// Starts a server of `form` listening on `socket_path` in a thread of its own that lives as long
// as the process. False when the socket cannot be made.
bool StartBestCaseServer(BestCaseForm form, const std::string& socket_path);

// A client connection to one of these servers.
class BestCaseClient {
 public:
  explicit BestCaseClient(const std::string& socket_path);
  ~BestCaseClient();
  BestCaseClient(const BestCaseClient&) = delete;
  BestCaseClient& operator=(const BestCaseClient&) = delete;

  bool connected() const { return fd_ >= 0; }
  // Sends `command` and reads the whole answer into `answer`; false on a broken connection or an
  // answer that does not fit.
  bool Exchange(std::span<const BYTE> command, std::span<BYTE> answer);

 private:
  int fd_;
};

}  // namespace kesttcs::bench
