// Operations of the contract whose subsystems this implementation has not built yet. Each
// answers LIBIPMI_STATUS_NOT_AVAILABLE without sending anything or touching its outputs, so
// a caller sees a plain "no answer".
#include "libipmi.h"

extern "C" {

uint16_t LIBIPMI_HL_GetFRUData(IpmiSession *, uint8_t, uint32_t *, FruData *, int)
{
    return LIBIPMI_STATUS_NOT_AVAILABLE;
}

} // extern "C"
