// Operations of the contract whose subsystems this implementation has not built yet. Each
// answers LIBIPMI_STATUS_NOT_AVAILABLE without sending anything or touching its outputs, so
// a caller sees a plain "no answer".
#include "libipmi.h"

#define NOT_AVAILABLE return LIBIPMI_STATUS_NOT_AVAILABLE

extern "C" {

uint16_t LIBIPMI_HL_PowerOff(IpmiSession *, int) { NOT_AVAILABLE; }
uint16_t LIBIPMI_HL_PowerUp(IpmiSession *, int) { NOT_AVAILABLE; }
uint16_t LIBIPMI_HL_PowerCycle(IpmiSession *, int) { NOT_AVAILABLE; }
uint16_t LIBIPMI_HL_HardReset(IpmiSession *, int) { NOT_AVAILABLE; }
uint16_t LIBIPMI_HL_SoftOff(IpmiSession *, int) { NOT_AVAILABLE; }
uint16_t LIBIPMI_HL_GetChassisStatus(IpmiSession *, int, ChassisStatus *) { NOT_AVAILABLE; }

uint16_t LIBIPMI_HL_GetFRUData(IpmiSession *, uint8_t, uint32_t *, FruData *, int) { NOT_AVAILABLE; }

uint16_t IPMICMD_GetChannelInfo(IpmiSession *, ChannelInfoRequest *, ChannelInfoResponse *, int) { NOT_AVAILABLE; }
uint16_t IPMICMD_GetLANConfig(IpmiSession *, LanConfigGetRequest *, LanConfigGetResponse *, int) { NOT_AVAILABLE; }
uint16_t IPMICMD_SetLANConfig(IpmiSession *, LanConfigSetRequest *, uint32_t, uint8_t *, int) { NOT_AVAILABLE; }

uint16_t LIBIPMI_HL_GetNumOfSELEntries(IpmiSession *, uint16_t *, int) { NOT_AVAILABLE; }
uint16_t LIBIPMI_HL_GetMaxPossibleSELEntries(IpmiSession *, uint16_t *, int) { NOT_AVAILABLE; }
uint16_t LIBIPMI_HL_GetAllSELEntries(IpmiSession *, SelRecord *, int) { NOT_AVAILABLE; }
uint16_t IPMICMD_GetSELInfo(IpmiSession *, SelInfo *, int) { NOT_AVAILABLE; }
uint16_t IPMICMD_AddSELEntry(IpmiSession *, SelRecord *, SelAddResponse *, int) { NOT_AVAILABLE; }

} // extern "C"
