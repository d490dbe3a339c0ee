// libtvx_decodeUtil.so.1. The SPD decoders and the port-function area are not built yet:
// every function answers "not available" (NULL, -1, non-zero) and writes nothing.
#include "decodeUtil.h"

extern "C" {

const char *spdUtilGetModuleTypeString(const uint8_t *) { return nullptr; }
const char *spdUtilGetDeviceTypeString(const uint8_t *) { return nullptr; }
const char *spdUtilGetVoltageInterface(const uint8_t *) { return nullptr; }
int spdUtilGetDDRFrequencyType(const uint8_t *) { return -1; }
int pniReadPortFnSpecificArea(uint8_t, uint8_t, uint8_t, uint32_t, uint8_t *) { return -1; }

} // extern "C"
