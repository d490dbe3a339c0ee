/* Another implementation of the platform's IPMI library, written from the contract alone:
   a fixed controller with its own identity. It stands in for the controller's real library
   to show that a client runs with any implementation dropped in beside it. */
#include <string.h>

#include "libipmi.h"

#define NA 0x0008

uint16_t LIBIPMI_Create_IPMI_Local_Session_Ext(IpmiSession *s, char *u, char *p, uint8_t *priv, char *u2,
                                               void *ip, uint32_t v, void *srv, int a9, int a10)
{
    (void)u, (void)p, (void)priv, (void)u2, (void)ip, (void)v, (void)srv, (void)a9, (void)a10;
    return s ? 0 : 1;
}

uint16_t LIBIPMI_CloseSession(IpmiSession *s) { return s ? 0 : 1; }

uint16_t LIBIPMI_Send_RAW_IPMI2_0_Command(IpmiSession *s, uint8_t pt, uint8_t netFnLun, uint8_t cmd, uint8_t *req,
                                          uint32_t reqLen, uint8_t *res, uint32_t *resLen, int timeout)
{
    static const uint8_t devid[16] = {0x00, 0x51, 0x01, 0x09, 0x99, 0x02, 0x00,
                                      0x34, 0x12, 0x00, 0x42, 0x42, 1, 2, 3, 4};
    (void)pt, (void)req, (void)reqLen, (void)timeout;
    if (!s || !res || !resLen) return 1;
    if (netFnLun == 0x18 && cmd == 0x01) {
        uint32_t n = *resLen && *resLen < 16 ? *resLen : 16;
        memcpy(res, devid, n);
        *resLen = n;
        return 0;
    }
    res[0] = 0xC1;
    *resLen = 1;
    return 0x01C1;
}

uint16_t IPMICMD_GetSDRRepositoryAllocInfo(IpmiSession *s, SdrRepositoryAllocInfo *r, int t) { (void)s, (void)r, (void)t; return NA; }
uint16_t IPMICMD_GetSDRRepositoryInfo(IpmiSession *s, SdrRepositoryInfo *r, int t) { (void)s, (void)r, (void)t; return NA; }
uint16_t LIBIPMI_HL_GetAllSDRs(IpmiSession *s, uint8_t *b, uint32_t n, int t) { (void)s, (void)b, (void)n, (void)t; return NA; }
uint16_t IPMICMD_GetSensorReading(IpmiSession *s, SensorReadingRequest *q, SensorReadingResponse *r, int t) { (void)s, (void)q, (void)r, (void)t; return NA; }
int ipmi_convert_reading(uint8_t *rec, uint8_t raw, float *v) { (void)rec, (void)raw, (void)v; return -1; }
uint16_t LIBIPMI_HL_PowerOff(IpmiSession *s, int t) { (void)s, (void)t; return NA; }
uint16_t LIBIPMI_HL_PowerUp(IpmiSession *s, int t) { (void)s, (void)t; return NA; }
uint16_t LIBIPMI_HL_PowerCycle(IpmiSession *s, int t) { (void)s, (void)t; return NA; }
uint16_t LIBIPMI_HL_HardReset(IpmiSession *s, int t) { (void)s, (void)t; return NA; }
uint16_t LIBIPMI_HL_SoftOff(IpmiSession *s, int t) { (void)s, (void)t; return NA; }
uint16_t LIBIPMI_HL_GetChassisStatus(IpmiSession *s, int t, ChassisStatus *c) { (void)s, (void)t, (void)c; return NA; }
uint16_t LIBIPMI_HL_GetFRUData(IpmiSession *s, uint8_t id, uint32_t *l, FruData *r, int t) { (void)s, (void)id, (void)l, (void)r, (void)t; return NA; }
uint16_t IPMICMD_GetChannelInfo(IpmiSession *s, ChannelInfoRequest *q, ChannelInfoResponse *r, int t) { (void)s, (void)q, (void)r, (void)t; return NA; }
uint16_t IPMICMD_GetLANConfig(IpmiSession *s, LanConfigGetRequest *q, LanConfigGetResponse *r, int t) { (void)s, (void)q, (void)r, (void)t; return NA; }
uint16_t IPMICMD_SetLANConfig(IpmiSession *s, LanConfigSetRequest *q, uint32_t n, uint8_t *r, int t) { (void)s, (void)q, (void)n, (void)r, (void)t; return NA; }
uint16_t LIBIPMI_HL_GetNumOfSELEntries(IpmiSession *s, uint16_t *c, int t) { (void)s, (void)c, (void)t; return NA; }
uint16_t LIBIPMI_HL_GetMaxPossibleSELEntries(IpmiSession *s, uint16_t *m, int t) { (void)s, (void)m, (void)t; return NA; }
uint16_t LIBIPMI_HL_GetAllSELEntries(IpmiSession *s, SelRecord *r, int t) { (void)s, (void)r, (void)t; return NA; }
uint16_t IPMICMD_GetSELInfo(IpmiSession *s, SelInfo *r, int t) { (void)s, (void)r, (void)t; return NA; }
uint16_t IPMICMD_AddSELEntry(IpmiSession *s, SelRecord *q, SelAddResponse *r, int t) { (void)s, (void)q, (void)r, (void)t; return NA; }
