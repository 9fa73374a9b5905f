/* A TPM Device Driver Library that forwards to a swtpm process over its Unix sockets, as a vendor's
 * library forwards to its chip. The data socket path is taken from KESTTCS_TDDL_SWTPM_DATA and the
 * control socket path from KESTTCS_TDDL_SWTPM_CTRL when the library is opened. */
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tddl_results.h"

#define EXPORT __attribute__((visibility("default")))

static int g_fd = -1;

static int ConnectTo(const char* variable) {
  const char* path = getenv(variable);
  struct sockaddr_un addr;
  int fd;
  if (path == NULL || strlen(path) >= sizeof(addr.sun_path)) return -1;
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  strcpy(addr.sun_path, path);
  fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  if (connect(fd, (struct sockaddr*)&addr, sizeof(addr)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

static int IoAll(int fd, uint8_t* p, size_t n, int writing) {
  while (n > 0) {
    ssize_t done = writing ? write(fd, p, n) : read(fd, p, n);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return 0;
    p += done;
    n -= (size_t)done;
  }
  return 1;
}

EXPORT uint32_t TDDL_Open(void) {
  if (g_fd >= 0) return kAlreadyOpened;
  g_fd = ConnectTo("KESTTCS_TDDL_SWTPM_DATA");
  return g_fd >= 0 ? kSuccess : kIoError;
}

EXPORT uint32_t TDDL_Close(void) {
  if (g_fd < 0) return kAlreadyClosed;
  close(g_fd);
  g_fd = -1;
  return kSuccess;
}

EXPORT uint32_t TDDL_TransmitData(uint8_t* in, uint32_t inLen, uint8_t* out, uint32_t* outLen) {
  uint32_t size;
  if (g_fd < 0) return kFail;
  if (*outLen < 10) return kInsufficientBuffer;
  if (!IoAll(g_fd, in, inLen, 1) || !IoAll(g_fd, out, 10, 0)) return kIoError;
  size = ((uint32_t)out[2] << 24) | ((uint32_t)out[3] << 16) | ((uint32_t)out[4] << 8) | out[5];
  if (size < 10 || size > *outLen) return kInsufficientBuffer;
  if (!IoAll(g_fd, out + 10, size - 10, 0)) return kIoError;
  *outLen = size;
  return kSuccess;
}

EXPORT uint32_t TDDL_Cancel(void) {
  uint8_t command[4] = {0, 0, 0, 9}; /* swtpm's CMD_CANCEL_TPM_CMD */
  uint8_t answer[4];
  int fd = ConnectTo("KESTTCS_TDDL_SWTPM_CTRL");
  int ok;
  if (fd < 0) return kIoError;
  ok = IoAll(fd, command, 4, 1) && IoAll(fd, answer, 4, 0);
  close(fd);
  /* swtpm answers TPM_FAIL when no command was running; the request was delivered all the same. */
  return ok ? kSuccess : kIoError;
}
