/*
 * libtvx_decodeUtil.so.1: the controller's decode-utility library.
 *
 * SPD decoding
 * ------------
 * Each decoder takes a memory module's SPD image as the controller reads it from the module's
 * EEPROM: 512 bytes (a DDR3 module's 256 bytes followed by anything). Byte 2, the memory type,
 * selects the JEDEC layout: DDR3 (0x0B), DDR4 (0x0C) or DDR5 (0x12). An image is decoded only
 * when it is of one of these types, its byte 0 declares at least its base block (DDR3, DDR4:
 * bytes used not 0; DDR5: a device of 512 bytes or more), and the CRC of its base block holds
 * (DDR3: bytes 0-125, or 0-116 as bit 7 of byte 0 says; DDR4: bytes 0-125; DDR5: bytes
 * 0-509). For any other image (NULL, blank, erased, cut short and zero-filled, another memory
 * type, a damaged byte) the text decoders return NULL and spdUtilGetDDRFrequencyType -1.
 * The decoders read nothing past the 512 bytes and keep no state; the texts are constants
 * that the caller must not change or free.
 *
 * spdUtilGetDeviceTypeString: "DDR3 SDRAM", "DDR4 SDRAM" or "DDR5 SDRAM" (never an "_suffix").
 *
 * spdUtilGetModuleTypeString: the module type of byte 3 (bits 3:0), as JEDEC names it.
 *   DDR3: 1 "RDIMM", 2 "UDIMM", 3 "SO-DIMM", 4 "Micro-DIMM", 5 "Mini-RDIMM", 6 "Mini-UDIMM",
 *         7 "Mini-CDIMM", 8 "72b-SO-UDIMM", 9 "72b-SO-RDIMM", 10 "72b-SO-CDIMM", 11 "LRDIMM",
 *         12 "16b-SO-DIMM", 13 "32b-SO-DIMM".
 *   DDR4: 1 "RDIMM", 2 "UDIMM", 3 "SO-DIMM", 4 "LRDIMM", 5 "Mini-RDIMM", 6 "Mini-UDIMM",
 *         8 "72b-SO-RDIMM", 9 "72b-SO-UDIMM", 12 "16b-SO-DIMM", 13 "32b-SO-DIMM".
 *   DDR5: 1 "RDIMM", 2 "UDIMM", 3 "SO-DIMM", 4 "LRDIMM", 5 "CUDIMM", 6 "CSODIMM", 7 "MRDIMM",
 *         8 "CAMM2", 10 "DDIMM", 11 "Solder-down".
 *   A hybrid DDR4 or DDR5 module (bit 7) carries its media (bits 6:4: 1 NVDIMM-N, 2 NVDIMM-P)
 *   before its base type: "NVDIMM-N RDIMM", "NVDIMM-P LRDIMM".
 *   NULL for every other code (DDR4's 0 "extended type" and 15 "no base memory" included) and
 *   for other hybrid media.
 *
 * spdUtilGetVoltageInterface: the supply voltage (VDD) the module works at.
 *   DDR3 (byte 6): every operable voltage, highest first: "1.5 V", "1.5 V, 1.35 V" (DDR3L),
 *         "1.5 V, 1.35 V, 1.25 V" (DDR3U), "1.5 V, 1.25 V", and for modules that are not
 *         1.5 V operable "1.35 V", "1.25 V", "1.35 V, 1.25 V"; NULL when none is operable.
 *   DDR4 (byte 11): "1.2 V" when 1.2 V operable, else NULL (only endurant, or reserved).
 *   DDR5 (byte 16): "1.1 V" for the nominal 1.1 V, NULL for the reserved values.
 *
 * spdUtilGetDDRFrequencyType: the module's frequency class, its JEDEC speed bin as a data rate
 *   in MT/s (DDR4-2666: 2666): the fastest bin of its generation whose minimum clock cycle time
 *   the module's own minimum (tCKmin: DDR3 byte 12 in the medium timebase of bytes 10-11
 *   corrected by byte 34 in the fine timebase of byte 9; DDR4 byte 18 in 125 ps corrected by
 *   byte 125 in ps; DDR5 bytes 20-21 in ps) meets, allowing one rounding step (a fine
 *   timebase unit, at least 1 ps).
 *   DDR3: 800, 1066, 1333, 1600, 1866, 2133.
 *   DDR4: 1600, 1866, 2133, 2400, 2666, 2933, 3200.
 *   DDR5: 3200, 3600, 4000, ... 8800 (every 400).
 *   A module faster than the fastest bin gets the fastest bin. -1 when the image is not
 *   decoded (above), its timebases are invalid or reserved, or its tCKmin is slower than the
 *   generation's slowest bin.
 *
 * Port-function area
 * ------------------
 * pniReadPortFnSpecificArea reads the specific area of a server network port function (size
 * bytes, at most 345, from its start) and returns 0 when the area is in the buffer; non-zero
 * and the buffer untouched otherwise. This implementation asks the controller that a local
 * session of libipmi.so.2 reaches (the virtual controller, or a LAN target): vendor OEM
 * command 0xF1, sub-function 0x1C (identity bytes, 16-bit offset, length; at most 64 bytes a
 * request). IPMI has no standard command for a host's network port functions, so a stock
 * controller (which answers 0xC1) reports the area unavailable.
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
DECODEUTIL_API const char *spdUtilGetDeviceTypeString(const uint8_t *spd); /* constant text, or NULL; may hold "_suffix" */
DECODEUTIL_API const char *spdUtilGetVoltageInterface(const uint8_t *spd); /* constant text, or NULL */
DECODEUTIL_API int spdUtilGetDDRFrequencyType(const uint8_t *spd);          /* MT/s, or -1 */
DECODEUTIL_API int pniReadPortFnSpecificArea(uint8_t id0, uint8_t id1, uint8_t id2,
        uint32_t size /* 345 */, uint8_t *area /* 348 bytes */);

#ifdef __cplusplus
}
#endif

#endif /* DECODEUTIL_H */
