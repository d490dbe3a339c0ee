// Operations of the contract whose subsystems this implementation has not built yet. Each
// answers LIBIPMI_STATUS_NOT_AVAILABLE without sending anything or touching its outputs, so
// a caller sees a plain "no answer".
#include "libipmi.h"

#define NOT_AVAILABLE return LIBIPMI_STATUS_NOT_AVAILABLE

extern "C" {

uint16_t IPMICMD_GetSDRRepositoryAllocInfo(IpmiSession *, SdrRepositoryAllocInfo *, int) { NOT_AVAILABLE; }
uint16_t IPMICMD_GetSDRRepositoryInfo(IpmiSession *, SdrRepositoryInfo *, int) { NOT_AVAILABLE; }
uint16_t LIBIPMI_HL_GetAllSDRs(IpmiSession *, uint8_t *, uint32_t, int) { NOT_AVAILABLE; }
uint16_t IPMICMD_GetSensorReading(IpmiSession *, SensorReadingRequest *, SensorReadingResponse *, int) { NOT_AVAILABLE; }
int ipmi_convert_reading(uint8_t *, uint8_t, float *) { return -1; }


uint16_t LIBIPMI_HL_GetFRUData(IpmiSession *, uint8_t, uint32_t *, FruData *, int) { NOT_AVAILABLE; }



} // extern "C"
