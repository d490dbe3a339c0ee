/* Another implementation of the decode-utility library (see alt_libipmi.c). */
#include "decodeUtil.h"

const char *spdUtilGetModuleTypeString(const uint8_t *spd) { (void)spd; return 0; }
const char *spdUtilGetDeviceTypeString(const uint8_t *spd) { (void)spd; return 0; }
const char *spdUtilGetVoltageInterface(const uint8_t *spd) { (void)spd; return 0; }
int spdUtilGetDDRFrequencyType(const uint8_t *spd) { (void)spd; return -1; }
int pniReadPortFnSpecificArea(uint8_t a, uint8_t b, uint8_t c, uint32_t n, uint8_t *area)
{
    (void)a, (void)b, (void)c, (void)n, (void)area;
    return -1;
}
