#include "swtpm_tcp.h"

#include <winsock2.h>

#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

static SOCKET g_data = INVALID_SOCKET;

/* The swtpm's data port: KESTTCS_SWTPM_PORT, or for a process that does not inherit the test's
 * environment (a service the service manager starts) the number in "swtpm_port.txt" beside this
 * library. 0 when neither says. */
static int SwtpmPort(void) {
  static char anchor;
  const char* port = getenv("KESTTCS_SWTPM_PORT");
  char path[MAX_PATH];
  HMODULE self = NULL;
  FILE* file;
  char* slash;
  int number = 0;
  if (port != NULL) return atoi(port);
  if (!GetModuleHandleExA(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          &anchor, &self) ||
      GetModuleFileNameA(self, path, MAX_PATH - 16) == 0) {
    return 0;
  }
  slash = strrchr(path, '\\');
  strcpy(slash != NULL ? slash + 1 : path, "swtpm_port.txt");
  file = fopen(path, "r");
  if (file == NULL) return 0;
  if (fscanf(file, "%d", &number) != 1) number = 0;
  fclose(file);
  return number;
}

static SOCKET ConnectTo(int portOffset) {
  const int port = SwtpmPort();
  struct sockaddr_in addr;
  WSADATA wsa;
  SOCKET s;
  if (port == 0 || WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return INVALID_SOCKET;
  memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons((u_short)(port + portOffset));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) return s;
  if (connect(s, (struct sockaddr*)&addr, sizeof(addr)) != 0) {
    closesocket(s);
    return INVALID_SOCKET;
  }
  return s;
}

static int IoAll(SOCKET s, uint8_t* p, uint32_t n, int writing) {
  while (n > 0) {
    int done = writing ? send(s, (const char*)p, (int)n, 0) : recv(s, (char*)p, (int)n, 0);
    if (done <= 0) return 0;
    p += done;
    n -= (uint32_t)done;
  }
  return 1;
}

int SwtpmConnect(void) {
  if (g_data == INVALID_SOCKET) g_data = ConnectTo(0);
  return g_data != INVALID_SOCKET;
}

void SwtpmDisconnect(void) {
  if (g_data == INVALID_SOCKET) return;
  closesocket(g_data);
  g_data = INVALID_SOCKET;
}

int SwtpmConnected(void) { return g_data != INVALID_SOCKET; }

int SwtpmExchange(const uint8_t* in, uint32_t inLen, uint8_t* out, uint32_t* outLen) {
  uint32_t size;
  if (*outLen < 10) return 1;
  if (!IoAll(g_data, (uint8_t*)in, inLen, 1) || !IoAll(g_data, out, 10, 0)) return 2;
  size = ((uint32_t)out[2] << 24) | ((uint32_t)out[3] << 16) | ((uint32_t)out[4] << 8) | out[5];
  if (size < 10 || size > *outLen) return 1;
  if (!IoAll(g_data, out + 10, size - 10, 0)) return 2;
  *outLen = size;
  return 0;
}

int SwtpmCancel(void) {
  uint8_t command[4] = {0, 0, 0, 9}; /* swtpm's CMD_CANCEL_TPM_CMD */
  uint8_t answer[4];
  SOCKET s = ConnectTo(1);
  int ok;
  if (s == INVALID_SOCKET) return 0;
  /* swtpm answers TPM_FAIL when no command was running; the request was delivered all the same. */
  ok = IoAll(s, command, 4, 1) && IoAll(s, answer, 4, 0);
  closesocket(s);
  return ok;
}
