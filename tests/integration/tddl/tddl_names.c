/* A stand-in TPM Device Driver Library for the binding rules. Built several times: with
 * EXPORT_UPPER it exports TDDL_Open/Close/TransmitData/Cancel, with EXPORT_MIXED the Tddli_* set,
 * and with OMIT_TRANSMIT neither transmit entry. Every transmit answers a TPM 1.2 success response
 * whose one parameter byte names the set that answered: 'U' for TDDL_*, 'm' for Tddli_*. */
#include <stdint.h>
#include <string.h>

#define EXPORT __attribute__((visibility("default")))

static uint32_t Answer(uint8_t marker, uint8_t* out, uint32_t* outLen) {
  static const uint8_t kHeader[10] = {0x00, 0xC4, 0, 0, 0, 11, 0, 0, 0, 0};
  if (*outLen < 11) return 0x1083; /* insufficient buffer */
  memcpy(out, kHeader, sizeof(kHeader));
  out[10] = marker;
  *outLen = 11;
  return 0;
}

#ifdef EXPORT_UPPER
EXPORT uint32_t TDDL_Open(void) { return 0; }
EXPORT uint32_t TDDL_Close(void) { return 0; }
EXPORT uint32_t TDDL_Cancel(void) { return 0; }
#ifndef OMIT_TRANSMIT
EXPORT uint32_t TDDL_TransmitData(uint8_t* in, uint32_t inLen, uint8_t* out, uint32_t* outLen) {
  (void)in;
  (void)inLen;
  return Answer('U', out, outLen);
}
#endif
#endif

#ifdef EXPORT_MIXED
EXPORT uint32_t Tddli_Open(void) { return 0; }
EXPORT uint32_t Tddli_Close(void) { return 0; }
EXPORT uint32_t Tddli_Cancel(void) { return 0; }
#ifndef OMIT_TRANSMIT
EXPORT uint32_t Tddli_TransmitData(uint8_t* in, uint32_t inLen, uint8_t* out, uint32_t* outLen) {
  (void)in;
  (void)inLen;
  return Answer('m', out, outLen);
}
#endif
#endif

#ifdef OMIT_CANCEL_ONLY_OPEN
EXPORT uint32_t TDDL_Open(void) { return 0; }
EXPORT uint32_t TDDL_Close(void) { return 0; }
#endif
