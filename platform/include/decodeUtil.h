/*
 * libtvx_decodeUtil.so.1: the controller's decode-utility library.
 *
 * SPD decoding takes a 512-byte JEDEC SPD image (DDR3, DDR4, DDR5; byte 2 selects the
 * layout). pniReadPortFnSpecificArea reads the specific area of a server network port
 * function and returns 0 when the area is in the buffer.
 *
 * NOT AVAILABLE YET in this implementation: the SPD decoders and the port-function area
 * are still to be built. Until then every function answers "not available": the text
 * functions return NULL, spdUtilGetDDRFrequencyType returns -1 and
 * pniReadPortFnSpecificArea returns non-zero without touching the area.
 */
#ifndef DECODEUTIL_H
#define DECODEUTIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define DECODEUTIL_API __attribute__((visibility("default")))
#else
#define DECODEUTIL_API
#endif

DECODEUTIL_API const char *spdUtilGetModuleTypeString(const uint8_t *spd); /* constant text, or NULL */
DECODEUTIL_API const char *spdUtilGetDeviceTypeString(const uint8_t *spd); /* may hold "_suffix" */
DECODEUTIL_API const char *spdUtilGetVoltageInterface(const uint8_t *spd);
DECODEUTIL_API int spdUtilGetDDRFrequencyType(const uint8_t *spd);
DECODEUTIL_API int pniReadPortFnSpecificArea(uint8_t id0, uint8_t id1, uint8_t id2,
        uint32_t size /* 345 */, uint8_t *area /* 348 bytes */);

#ifdef __cplusplus
}
#endif

#endif /* DECODEUTIL_H */
