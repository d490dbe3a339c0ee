/*
 * libipmi.so.2: the controller's IPMI library.
 *
 * Every function has C linkage, takes the session handle first and returns a 16-bit status
 * unless stated otherwise:
 *
 *   0                   the request was carried out and its completion code was 0x00
 *   0x0100 | cc         the controller answered with the non-zero completion code cc; the
 *                       response bytes that arrived (completion code in byte 0) are stored
 *   LIBIPMI_STATUS_*    no answer; this implementation's own codes, listed below, all
 *                       outside 0x0100-0x01FF
 *
 * Records are packed and little-endian as on the wire. Response records begin with the
 * completion code, followed by the IPMI response data bytes in specification order; request
 * records are the IPMI request data bytes.
 */
#ifndef LIBIPMI_H
#define LIBIPMI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define LIBIPMI_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#define LIBIPMI_ZERO_UNLESS_GIVEN = 0 /* a C++ caller may leave the field out: {number} */
#else
#define LIBIPMI_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#define LIBIPMI_ZERO_UNLESS_GIVEN
#endif

#if defined(__GNUC__)
#define LIBIPMI_API __attribute__((visibility("default")))
#else
#define LIBIPMI_API
#endif

/* ---- Status codes of this implementation (never 0x0100-0x01FF) ---------------------- */
#define LIBIPMI_STATUS_OK               0x0000
#define LIBIPMI_STATUS_INVALID_ARGUMENT 0x0001 /* null pointer, bad length, bad selector  */
#define LIBIPMI_STATUS_NO_SESSION       0x0002 /* handle not open (never opened or closed) */
#define LIBIPMI_STATUS_TIMEOUT          0x0003 /* the controller did not answer in time    */
#define LIBIPMI_STATUS_TRANSPORT        0x0004 /* the link to the controller failed        */
#define LIBIPMI_STATUS_BAD_RESPONSE     0x0005 /* an answer without a completion code, or
                                                  one that does not fit the command      */
#define LIBIPMI_STATUS_NO_MEMORY        0x0006
#define LIBIPMI_STATUS_BUFFER_TOO_SMALL 0x0007 /* the results do not fit the caller's buffer */
#define LIBIPMI_STATUS_NOT_AVAILABLE    0x0008 /* the transport cannot do this operation    */
#define LIBIPMI_STATUS_AUTH_FAILED      0x0009 /* the controller refused the session        */
#define LIBIPMI_STATUS_CONFIG_ERROR     0x000A /* bad machine profile, state or target      */
#define LIBIPMI_STATUS_RETRIES_EXHAUSTED 0x000B /* a walk kept losing its reservation       */
#define LIBIPMI_STATUS_COMPLETION_CODE(cc) ((uint16_t)(0x0100u | (uint8_t)(cc)))
#define LIBIPMI_STATUS_IS_COMPLETION_CODE(st) (((uint16_t)(st) >> 8) == 1u)

/* The largest response the platform produces, completion code included. A caller that
   states no capacity (*resLen == 0) must provide a buffer at least this large. */
#define LIBIPMI_MAX_RESPONSE_LEN 1024u

/* ---- Sessions and the raw exchange ---------------------------------------------------- */
#define LIBIPMI_SESSION_SIZE 36u

/* A zero-filled 36-byte block that the caller allocates; the platform never writes past it
   and keeps everything else it needs elsewhere, keyed by the block's address. */
typedef struct IpmiSession IpmiSession;

LIBIPMI_API uint16_t LIBIPMI_Create_IPMI_Local_Session_Ext(IpmiSession *session, char *userName,
        char *password, uint8_t *privLevel, char *userName2, void *ipAddr, uint32_t ipVersion,
        void *serverIp, int arg9, int arg10);
LIBIPMI_API uint16_t LIBIPMI_CloseSession(IpmiSession *session);

/* *resLen on entry: the capacity of resData when non-zero (never more is written), 0 for
   "not stated" (the whole response is written, at most LIBIPMI_MAX_RESPONSE_LEN bytes).
   On return: the number of response bytes stored, completion code included. A response
   longer than the stated capacity is cut to it. payloadType 0 is an IPMI message; no
   other payload is supported. */
LIBIPMI_API uint16_t LIBIPMI_Send_RAW_IPMI2_0_Command(IpmiSession *session, uint8_t payloadType,
        uint8_t netFnLun, uint8_t command, uint8_t *reqData, uint32_t reqLen, uint8_t *resData,
        uint32_t *resLen, int timeout);

#pragma pack(push, 1)

/* ---- SDR repository ------------------------------------------------------------------ */
typedef struct {
    uint8_t completionCode;
    uint16_t numAllocUnits;
    uint16_t allocUnitSize;
    uint16_t numFreeUnits;
    uint16_t largestFreeBlock;
    uint8_t maxRecordSize;
} SdrRepositoryAllocInfo;
LIBIPMI_STATIC_ASSERT(sizeof(SdrRepositoryAllocInfo) == 10, "SdrRepositoryAllocInfo is 10 bytes");

typedef struct {
    uint8_t completionCode;
    uint8_t version;
    uint16_t recordCount;
    uint16_t freeSpace;
    uint32_t addTimeStamp;
    uint32_t eraseTimeStamp;
    uint8_t opSupport;
} SdrRepositoryInfo;
LIBIPMI_STATIC_ASSERT(sizeof(SdrRepositoryInfo) == 15, "SdrRepositoryInfo is 15 bytes");

/* ---- Sensors ------------------------------------------------------------------------- */
/* The sensor number, then who owns the sensor, as its sensor record gives it (bytes 5 and 6
   of a full or compact sensor record): an extension of the one-byte request that keeps its
   meaning when the two are zero, as in a request made by {number} alone. */
typedef struct {
    uint8_t sensorNumber;
    uint8_t ownerId LIBIPMI_ZERO_UNLESS_GIVEN;  /* 0: the session's controller; else bits 7:1
                         the owner's slave address (bit 0 clear), or a system software ID
                         (bit 0 set) */
    uint8_t ownerLun LIBIPMI_ZERO_UNLESS_GIVEN; /* bits 7:4 the owner's channel, bits 1:0 the
                         sensor's LUN */
} SensorReadingRequest;
LIBIPMI_STATIC_ASSERT(sizeof(SensorReadingRequest) == 3, "SensorReadingRequest is 3 bytes");

typedef struct {
    uint8_t completionCode;
    uint8_t reading;
    uint8_t flags;
    uint8_t state0_7;
    uint8_t state8_14;
} SensorReadingResponse;
LIBIPMI_STATIC_ASSERT(sizeof(SensorReadingResponse) == 5, "SensorReadingResponse is 5 bytes");

/* ---- Chassis ------------------------------------------------------------------------- */
typedef struct {
    uint8_t currentPowerState;
    uint8_t lastPowerEvent;
    uint8_t miscChassisState;
    uint8_t frontPanelButtons;
} ChassisStatus;
LIBIPMI_STATIC_ASSERT(sizeof(ChassisStatus) == 4, "ChassisStatus is 4 bytes");

/* ---- FRU: the decoded record ----------------------------------------------------------- */
typedef struct {
    uint8_t typeLength;
    char *text;
} FruField;

typedef struct {
    uint8_t formatVersion, internalUseOffset, chassisOffset, boardOffset, productOffset,
            multiRecordOffset, pad, checksum;
    uint8_t internalUse[8];
    uint8_t chassisFormatVersion, chassisLength, chassisType;
    FruField chassisPartNumber, chassisSerialNumber;
    char **chassisCustomFields;
    uint8_t chassisCustomCount;
    uint8_t boardFormatVersion, boardLength, boardLanguage, boardMfgDateTime[3];
    FruField boardManufacturer, boardProductName, boardSerialNumber, boardPartNumber,
            boardFruFileId;
    char **boardCustomFields;
    uint8_t boardCustomCount;
    uint8_t productFormatVersion, productLength, productLanguage;
    FruField productManufacturer, productName, productPartNumber, productVersion,
            productSerialNumber, productAssetTag, productFruFileId;
    char **productCustomFields;
    uint8_t productCustomCount;
    uint8_t reserved[832];
} FruData;

LIBIPMI_STATIC_ASSERT(sizeof(FruField) == 1 + sizeof(char *), "FruField is packed");
#if UINTPTR_MAX == 0xFFFFFFFFu
/* With 4-byte pointers the record is the 945-byte layout the inventory reader relies on. */
LIBIPMI_STATIC_ASSERT(sizeof(FruData) == 945, "FruData is 945 bytes");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, internalUse) == 8, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, chassisFormatVersion) == 16, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, chassisType) == 18, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, chassisPartNumber) == 19, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, chassisSerialNumber) == 24, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, chassisCustomFields) == 29, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, chassisCustomCount) == 33, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, boardFormatVersion) == 34, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, boardMfgDateTime) == 37, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, boardManufacturer) == 40, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, boardFruFileId) == 60, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, boardCustomFields) == 65, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, boardCustomCount) == 69, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, productFormatVersion) == 70, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, productManufacturer) == 73, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, productFruFileId) == 103, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, productCustomFields) == 108, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, productCustomCount) == 112, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, reserved) == 113, "FruData layout");
#elif UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
/* With 8-byte pointers every text field is 9 bytes and the record 1013 (a host build's own). */
LIBIPMI_STATIC_ASSERT(sizeof(FruData) == 1013, "FruData is 1013 bytes with 8-byte pointers");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, chassisSerialNumber) == 28, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, chassisCustomFields) == 37, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, boardManufacturer) == 52, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, boardCustomFields) == 97, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, productManufacturer) == 109, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, productCustomFields) == 172, "FruData layout");
LIBIPMI_STATIC_ASSERT(offsetof(FruData, reserved) == 181, "FruData layout");
#endif

/* ---- LAN ----------------------------------------------------------------------------- */
typedef struct {
    uint8_t channelNumber;
} ChannelInfoRequest;
LIBIPMI_STATIC_ASSERT(sizeof(ChannelInfoRequest) == 1, "ChannelInfoRequest is 1 byte");

typedef struct {
    uint8_t completionCode;
    uint8_t channelNumber;
    uint8_t mediumType;
    uint8_t protocolType;
    uint8_t sessionSupport;
    uint8_t vendorId[3];
    uint8_t auxInfo[2];
} ChannelInfoResponse;
LIBIPMI_STATIC_ASSERT(sizeof(ChannelInfoResponse) == 10, "ChannelInfoResponse is 10 bytes");

typedef struct {
    uint8_t channelNumber;
    uint8_t parameterSelector;
    uint8_t setSelector;
    uint8_t blockSelector;
} LanConfigGetRequest;
LIBIPMI_STATIC_ASSERT(sizeof(LanConfigGetRequest) == 4, "LanConfigGetRequest is 4 bytes");

typedef struct {
    uint8_t completionCode;
    uint8_t parameterRevision;
    uint8_t data[25];
} LanConfigGetResponse;
LIBIPMI_STATIC_ASSERT(sizeof(LanConfigGetResponse) == 27, "LanConfigGetResponse is 27 bytes");

typedef struct {
    uint8_t channelNumber;
    uint8_t parameterSelector;
    uint8_t data[25];
} LanConfigSetRequest;
LIBIPMI_STATIC_ASSERT(sizeof(LanConfigSetRequest) == 27, "LanConfigSetRequest is 27 bytes");

/* ---- SEL ----------------------------------------------------------------------------- */
typedef struct {
    uint8_t bytes[16];
} SelRecord;
LIBIPMI_STATIC_ASSERT(sizeof(SelRecord) == 16, "SelRecord is 16 bytes");

typedef struct {
    uint8_t completionCode;
    uint8_t version;
    uint16_t entries;
    uint16_t freeSpace;
    uint32_t lastAddTime;
    uint32_t lastEraseTime;
    uint8_t opSupport;
} SelInfo;
LIBIPMI_STATIC_ASSERT(sizeof(SelInfo) == 15, "SelInfo is 15 bytes");

typedef struct {
    uint8_t completionCode;
    uint16_t recordId;
} SelAddResponse;
LIBIPMI_STATIC_ASSERT(sizeof(SelAddResponse) == 3, "SelAddResponse is 3 bytes");

#pragma pack(pop)

/* ---- Operations ------------------------------------------------------------------------
 * The following are declared by the contract; in this implementation an operation whose
 * subsystem has not been built yet answers LIBIPMI_STATUS_NOT_AVAILABLE (or, for
 * ipmi_convert_reading, -1) without touching its output. */

/* SDR repository. GetAllSDRs stores every record in repository order, one per slot of
   (allocation unit size x maximum record size in units) bytes, zero-filling the rest of each
   slot; it never writes past bufferSize.

   In this implementation:
   - The two info records: an answer with completion code 0 but fewer bytes than the record
     is LIBIPMI_STATUS_BAD_RESPONSE and leaves the record entirely untouched; with a non-zero
     completion code the bytes that arrived are stored (at least the code); extra bytes are
     dropped. The last successful allocation info of a session is remembered (until the
     session closes) and GetAllSDRs uses it instead of asking again.
   - A controller without Get SDR Repository Allocation Info (an optional command: completion
     code 0xC1) gets one derived from the records themselves, with completion code 0: every
     record's header is read (Reserve SDR Repository, then Get SDR of 5 bytes along the
     next-record chain), allocUnitSize is 16 and maxRecordSize the longest record in 16-byte
     units (1 for an empty repository), so that the slots hold every record; numAllocUnits
     is the units the records take, numFreeUnits and largestFreeBlock (not known) are 0. This
     costs one request per record more; failures are those of GetAllSDRs below.
   - GetAllSDRs reads each record in one Get SDR when the controller allows it (one
     reservation plus one request per record), else in pieces (header, then chunks sized to
     what the controller takes). It zeroes the slots after the last record and any bytes after
     the last whole slot. It fails with
       LIBIPMI_STATUS_BUFFER_TOO_SMALL   more records than slots, or a record longer than a slot
                                         (a chain that never ends stops when the slots run out)
       LIBIPMI_STATUS_BAD_RESPONSE       a record ID repeating in the next-record chain, an
                                         answer shorter than the record it announces, or an
                                         allocation info giving slots of 0 bytes
       LIBIPMI_STATUS_RETRIES_EXHAUSTED  the reservation was lost (0xC5) on 6 walks in a row
       0x0100|cc                         the controller refused a request (an empty repository,
                                         0xCB for the first record, is a success)
     and leaves the buffer's contents unspecified then. */
LIBIPMI_API uint16_t IPMICMD_GetSDRRepositoryAllocInfo(IpmiSession *s, SdrRepositoryAllocInfo *res,
        int timeout);
LIBIPMI_API uint16_t IPMICMD_GetSDRRepositoryInfo(IpmiSession *s, SdrRepositoryInfo *res, int timeout);
LIBIPMI_API uint16_t LIBIPMI_HL_GetAllSDRs(IpmiSession *s, uint8_t *buffer, uint32_t bufferSize,
        int timeout);

/* Sensors. Bytes of the response the controller did not send are left as the caller set
   them; an answer with completion code 0 but without reading and flags (fewer than 3 bytes)
   is LIBIPMI_STATUS_BAD_RESPONSE and leaves the record untouched.
   GetSensorReading asks the sensor's owner: the session's controller, on the LUN of ownerLun,
   when ownerId is 0 or its own address 0x20 on channel 0; any other controller through it,
   bridged (Send Message) to that address and channel. A sensor owned by system software
   (ownerId bit 0 set) has no controller to answer for it: LIBIPMI_STATUS_NOT_AVAILABLE,
   nothing sent.
   ipmi_convert_reading returns 0 on success and non-zero, leaving *value unchanged, for a
   record without analog reading or with an OEM linearization; also for a record that is not
   a full sensor record or ends before its conversion factors, an unknown linearization, and
   a result with no float value (logarithm of a non-positive number, 1/0, overflow).
   Linearization 0x0B is taken as the cube root. */
LIBIPMI_API uint16_t IPMICMD_GetSensorReading(IpmiSession *s, SensorReadingRequest *req,
        SensorReadingResponse *res, int timeout);
LIBIPMI_API int ipmi_convert_reading(uint8_t *fullSensorRecord, uint8_t raw, float *value);

/* Chassis. */
LIBIPMI_API uint16_t LIBIPMI_HL_PowerOff(IpmiSession *s, int timeout);
LIBIPMI_API uint16_t LIBIPMI_HL_PowerUp(IpmiSession *s, int timeout);
LIBIPMI_API uint16_t LIBIPMI_HL_PowerCycle(IpmiSession *s, int timeout);
LIBIPMI_API uint16_t LIBIPMI_HL_HardReset(IpmiSession *s, int timeout);
LIBIPMI_API uint16_t LIBIPMI_HL_SoftOff(IpmiSession *s, int timeout);
LIBIPMI_API uint16_t LIBIPMI_HL_GetChassisStatus(IpmiSession *s, int timeout, ChassisStatus *status);

/* FRU. Texts are zero-terminated, belong to the platform and stay valid until the session
   is closed. On success *length is the FRU inventory area size.
   Bytes 0-7 of the record are the FRU's common header as it stands: the area offsets are
   the header's own bytes, in units of 8 bytes (read "offsets in bytes, multiples of 8" as
   "offsets counting 8-byte blocks"; 0 still means "no such area"). An area that fails its
   checks (checksum, length, format version, end marker) is left out and its offset byte
   set to 0; a bad common header fails the call (LIBIPMI_STATUS_BAD_RESPONSE). Absent fields
   have type/length 0 and text NULL; binary fields read as lower-case hex digits. */
LIBIPMI_API uint16_t LIBIPMI_HL_GetFRUData(IpmiSession *s, uint8_t fruDeviceId, uint32_t *length,
        FruData *record, int timeout);

/* LAN. */
LIBIPMI_API uint16_t IPMICMD_GetChannelInfo(IpmiSession *s, ChannelInfoRequest *req,
        ChannelInfoResponse *res, int timeout);
LIBIPMI_API uint16_t IPMICMD_GetLANConfig(IpmiSession *s, LanConfigGetRequest *req,
        LanConfigGetResponse *res, int timeout);
/* SetLANConfig writes the parameter so that it takes effect on every controller, including
   those that keep a parameter written outside a set-in-progress / commit transaction only
   until the next commit, or lose it (OpenIPMI's simulator with a LAN configuration program
   does): for any selector but 0 it sends Set In Progress (parameter 0 = 1), the parameter,
   Commit Write (0 = 2) when the write succeeded, then Set Complete (0 = 0) in every case, so
   that no transaction is left open. A controller without the transaction (0x80 to Set In
   Progress) gets the parameter alone. Where another client holds a transaction (0x81), Set
   In Progress is asked again, at growing intervals, for up to five seconds: a write that
   joined that transaction would be lost to its Set Complete. Still 0x81, or any other failure
   of Set In Progress, is returned with nothing written. The status and *res are those of the
   parameter write itself, except that a failed commit (other than 0x80) returns the commit's
   status: the parameter did not take effect. Selector 0 is sent as given, in one request: the
   caller runs the transaction then. (platform/libipmi/lan_config_commit.h implements this
   sequence.) */
LIBIPMI_API uint16_t IPMICMD_SetLANConfig(IpmiSession *s, LanConfigSetRequest *req, uint32_t reqLen,
        uint8_t *res, int timeout);

/* SEL. GetAllSELEntries writes at most as many records as GetNumOfSELEntries reported last on
   the same session, in log order from the first record. */
LIBIPMI_API uint16_t LIBIPMI_HL_GetNumOfSELEntries(IpmiSession *s, uint16_t *count, int timeout);
LIBIPMI_API uint16_t LIBIPMI_HL_GetMaxPossibleSELEntries(IpmiSession *s, uint16_t *max, int timeout);
LIBIPMI_API uint16_t LIBIPMI_HL_GetAllSELEntries(IpmiSession *s, SelRecord *records, int timeout);
LIBIPMI_API uint16_t IPMICMD_GetSELInfo(IpmiSession *s, SelInfo *res, int timeout);
LIBIPMI_API uint16_t IPMICMD_AddSELEntry(IpmiSession *s, SelRecord *req, SelAddResponse *res,
        int timeout);

#ifdef __cplusplus
}
#endif

#endif /* LIBIPMI_H */
