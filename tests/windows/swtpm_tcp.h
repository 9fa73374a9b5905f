/* The test driver libraries' way to a swtpm process: its data and control channels on 127.0.0.1,
 * the data port read when a channel is opened (from KESTTCS_SWTPM_PORT, else from "swtpm_port.txt"
 * beside the library), the control port the next one. */
#pragma once

#include <stdint.h>

/* Connects the data channel; nonzero on success. */
int SwtpmConnect(void);
/* Closes the data channel (nothing happens when it is closed). */
void SwtpmDisconnect(void);
int SwtpmConnected(void);
/* One command/response exchange: 0 done (*outLen set), 1 the response does not fit in *outLen
 * bytes, 2 the channel failed. */
int SwtpmExchange(const uint8_t* in, uint32_t inLen, uint8_t* out, uint32_t* outLen);
/* Sends swtpm's cancel request over the control channel; nonzero when it was delivered. */
int SwtpmCancel(void);
