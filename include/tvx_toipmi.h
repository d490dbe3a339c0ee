/*
 * libtvx_toipmi: the controller's IPMI data as values, texts and status codes for the
 * hardware-monitoring agent and the remote manager's console.
 *
 * Plain functions with C linkage over plain records. Failures are reported by return
 * values; diagnostics go to the standard error stream only. Every platform request carries
 * the time-out 60.
 *
 * Sessions: a session handle points to a 36-byte block that ipmiOpenSession allocates and
 * the platform fills; NULL means "no session". Close it with ipmiHelperCloseSession.
 */
#ifndef TVX_TOIPMI_H
#define TVX_TOIPMI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define TVX_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define TVX_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#if defined(__GNUC__)
#define TVX_API __attribute__((visibility("default")))
#else
#define TVX_API
#endif

/* The platform's session block, opaque to this library and its callers. */
typedef struct IpmiSession IpmiSession;

/* ---- Sessions and the request frame ----------------------------------------------------- */

/* NetFn/LUN bytes (network function shifted left by two, LUN 0). */
#define TVX_NETFN_CHASSIS     0x00u
#define TVX_NETFN_SENSOR      0x10u
#define TVX_NETFN_APP         0x18u
#define TVX_NETFN_STORAGE     0x28u
#define TVX_NETFN_OEM_GROUP   0xB8u

/* Privilege levels for ipmiOpenSession. */
#define TVX_PRIV_CALLBACK 1u
#define TVX_PRIV_USER     2u
#define TVX_PRIV_OPERATOR 3u
#define TVX_PRIV_ADMIN    4u
#define TVX_PRIV_OEM      5u

/* Opens a local session. Returns the handle, or NULL (with a diagnostic) on failure.
   ipAddr, IPVersion and pServerIp are handed to the platform unchanged. */
TVX_API IpmiSession *ipmiOpenSession(uint8_t privLevel, const char *username, void *ipAddr,
        uint32_t IPVersion, void *pServerIp);

/* As ipmiOpenSession, with one more diagnostic line when the session cannot be opened. */
TVX_API IpmiSession *ipmiHelperOpenSession(uint8_t privLevel, const char *username, void *ipAddr,
        uint32_t IPVersion, void *pServerIp);

/* Closes *session, frees its block and sets *session to NULL; a NULL *session (or a NULL
   pointer) does nothing, so closing twice is harmless. */
TVX_API void ipmiHelperCloseSession(IpmiSession **session);

/* Sends one request. Returns 1 when a response is in resData (completion code in byte 0,
   which may be non-zero) and 0 when there is none. *resLen: the capacity of resData on
   entry (must not be 0), the number of response bytes on return. */
TVX_API int ipmiSendCmd(IpmiSession *session, uint8_t netFnLun, uint8_t command, uint32_t reqLen,
        uint8_t *reqData, uint32_t *resLen, uint8_t *resData);

/* ---- Device identity -------------------------------------------------------------------- */

#pragma pack(push, 1)
/* The data bytes of Get Device ID, in wire order. All zero when no identity could be read. */
typedef struct {
    uint8_t deviceId;
    uint8_t deviceRevision;      /* bit 7: provides device SDRs; bits 3..0: revision       */
    uint8_t firmwareRevision1;   /* bit 7: device busy; bits 6..0: major revision, binary  */
    uint8_t firmwareRevision2;   /* minor revision, BCD                                    */
    uint8_t ipmiVersion;         /* BCD: bits 3..0 major, bits 7..4 minor (0x02 = 2.0)     */
    uint8_t additionalDeviceSupport;
    uint8_t manufacturerId[3];   /* IANA enterprise number, least significant byte first   */
    uint8_t productId[2];        /* least significant byte first                           */
    uint8_t auxFirmwareRevision[4];
} IpmiDeviceId;
#pragma pack(pop)
TVX_STATIC_ASSERT(sizeof(IpmiDeviceId) == 15, "IpmiDeviceId is 15 bytes");

/* Reads the controller's identity through the caller's session (which stays open). Never
   fails outwardly: on any trouble it writes a diagnostic and returns an all-zero record. */
TVX_API IpmiDeviceId ipmiGetDeviceId(IpmiSession *session);

#ifdef __cplusplus
}
#endif

#endif /* TVX_TOIPMI_H */
