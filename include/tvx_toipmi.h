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

#include <stddef.h>
#include <stdint.h>
#include <time.h>

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

/* ---- SDR repository cache and the library's list ------------------------------------------ */

/* The SDR cache: count slots of recordSize bytes, one SDR per slot in repository order, each
   beginning with the 5-byte SDR header (record ID LSB first, version, record type, length).
   A zero-initialised SDRInfo is a valid empty cache; freeSDRInfo empties it again. */
typedef struct {
    uint32_t recordSize;  /* allocation unit size x maximum record size in units */
    uint8_t *records;     /* owned; NULL or exactly recordSize x count bytes      */
    uint32_t count;
} SDRInfo;

/* Record types and positions within a slot. */
#define TVX_SDR_FULL_SENSOR    0x01u
#define TVX_SDR_COMPACT_SENSOR 0x02u
#define TVX_SDR_POS_RECORD_TYPE   3u
#define TVX_SDR_POS_LENGTH        4u
#define TVX_SDR_POS_SENSOR_NUMBER 7u
#define TVX_SDR_POS_ENTITY_ID     8u
#define TVX_SDR_POS_ENTITY_INST   9u
#define TVX_SDR_POS_SENSOR_TYPE   12u
#define TVX_SDR_POS_EVENT_TYPE    13u

/* The library's singly linked list of heap copies. Each node's data is a zero-filled copy
   of the element with one extra zero byte, so copied strings are always terminated. */
typedef struct ListNode {
    uint8_t *data;
    struct ListNode *next;
} ListNode;

/* Reads the whole repository into the cache. 1 = built, 0 = failure (with a diagnostic). */
TVX_API int getSDRInfo(IpmiSession *session, SDRInfo *info);
TVX_API void freeSDRInfo(SDRInfo *info);
/* The slot of that index (callers pass 0 to count - 1), or NULL for an empty cache. */
TVX_API uint8_t *getSdrByIndex(uint32_t index, SDRInfo *info);
/* The first compact sensor record of that entity, instance and sensor type, or NULL. */
TVX_API uint8_t *findCompactSdrByEntity(uint8_t entityId, uint8_t entityInstance, uint8_t sensorType,
        SDRInfo *info);
/* Appends copies of every record of recordType (1: first 64 bytes, 2: first 48 bytes, never
   past the end of the cache) with that sensor type; returns how many were appended. */
TVX_API uint32_t ipmiFindSensorByType(ListNode **list, uint8_t recordType, uint8_t sensorType,
        SDRInfo *info);
/* Appends a copy of size bytes of element. 1 = appended, 0 = nothing appended. */
TVX_API int addToList(ListNode **list, const void *element, uint32_t size);
/* Frees every node and its data; leaves *list NULL. */
TVX_API void freeList(ListNode **list);

/* ---- Sensor readings, status and texts ----------------------------------------------------- */

/* Reads one sensor. 1 = read (reading and state bits 0-14 stored, each pointer may be NULL),
   also when the reading is unavailable while scanning is disabled (both then 0); 0 = not read. */
TVX_API int ipmiGetSensorReading(IpmiSession *session, uint8_t sensorNumber, uint8_t *reading,
        uint16_t *stateBits);
/* The status word of a threshold comparison byte: "LowNRecov", "UpNRecov", "LowCrit",
   "UpCrit", "LowWarn", "UpWarn" (the most severe set, lower before upper) or "OK". */
TVX_API const char *ipmiSdrGetStatus(uint32_t thresholdBits);
/* The description of the lowest asserted discrete state that has a table row: constant text,
   "[no description]" (offset -1), or NULL (offset -1; untouched when the low byte is 0). */
TVX_API const char *ipmiGetDiscreteState(uint8_t sensorType, uint8_t eventReadingType, uint8_t stateLow,
        uint8_t stateHigh, int32_t *offset);

/* A row of an OEM value table: vendor (IANA number, low 16 bits), value, text. */
typedef struct {
    uint16_t vendor;
    uint16_t value;
    const char *text;
} OemValueString;

/* OEM sensor type names, ended by {0xFFFF, 0, NULL}. Vendor 12634 rows match any vendor. */
TVX_API extern const OemValueString ipmi_oem_sdr_type_vals[];

/* The name of a sensor type, in a static 32-byte buffer that the next call overwrites. */
TVX_API char *ipmiSdrGetSensorTypeDesc(uint32_t sensorType);
/* The text of an OEM value ("OEM reserved #xx" when the table has none), in a static 32-byte
   buffer that the next call overwrites. */
TVX_API char *oemval2str(uint32_t vendor, uint32_t value, const OemValueString *table);
/* The name of an IPMI base unit (0-92; "unknown" above). */
TVX_API const char *getUnitDesc(uint32_t unit);

#pragma pack(push, 1)
/* A component's status as the controller reports it; heap-allocated, the caller frees it. */
typedef struct {
    uint8_t componentId[2];
    uint8_t componentBytes[3];
    int8_t status;        /* 0-3; -3, -2, -1 for completion codes 0x01, 0x02 and others */
    uint8_t componentByte;
    uint8_t nameLength;   /* 0-31 */
    char name[16];        /* zero-padded; not terminated when all 16 are used */
} ComponentStatus;
#pragma pack(pop)
TVX_STATIC_ASSERT(sizeof(ComponentStatus) == 24, "ComponentStatus is 24 bytes");

/* Asks the controller for the status of the component named by two key bytes. NULL when
   there is no usable answer. */
TVX_API ComponentStatus *oemGetComponentStatus(IpmiSession *session, const uint8_t *key);

/* ---- Sensor lists ----------------------------------------------------------------------------- */

/* Sensor type codes of the sensor lists and getters. */
#define TVX_SENSOR_TEMPERATURE  0x01u
#define TVX_SENSOR_VOLTAGE      0x02u
#define TVX_SENSOR_CURRENT      0x03u
#define TVX_SENSOR_FAN          0x04u
#define TVX_SENSOR_POWER_UNIT   0x09u
#define TVX_SENSOR_OTHER_UNITS  0x0Bu /* a power supply's load */
#define TVX_SENSOR_FAN_STATUS   0xE6u /* the vendor's fan status (compact records) */
#define TVX_SENSOR_PSU_STATUS   0xE8u /* the vendor's power supply status (compact records) */

/* Sizes of the text fields of the list entries. Texts are zero-padded and not terminated
   when they fill their field. */
#define TVX_SENSOR_NAME_SIZE    18u
#define TVX_SENSOR_STATUS_SIZE  40u
#define TVX_SENSOR_UNIT_SIZE    4u

/* One fan (a full record of sensor type 0x04). */
typedef struct {
    uint8_t sensorNumber;
    uint8_t index;                          /* position in this list, from 0 */
    uint16_t eventMask;                     /* assertion mask of the fan's status sensor, or 0 */
    char name[TVX_SENSOR_NAME_SIZE];
    float reading;                          /* in the record's unit; 0 when not read */
    char status[TVX_SENSOR_STATUS_SIZE];    /* the status sensor's state, "N/A" or "Power Off" */
} FanSensorEntry;
TVX_STATIC_ASSERT(sizeof(FanSensorEntry) == 68, "FanSensorEntry is 68 bytes");
TVX_STATIC_ASSERT(offsetof(FanSensorEntry, eventMask) == 2, "FanSensorEntry.eventMask at 2");
TVX_STATIC_ASSERT(offsetof(FanSensorEntry, name) == 4, "FanSensorEntry.name at 4");
TVX_STATIC_ASSERT(offsetof(FanSensorEntry, reading) == 24, "FanSensorEntry.reading at 24");
TVX_STATIC_ASSERT(offsetof(FanSensorEntry, status) == 28, "FanSensorEntry.status at 28");

/* One temperature, voltage or current sensor (a full threshold record). */
typedef struct {
    char name[TVX_SENSOR_NAME_SIZE];
    float reading;                          /* in the record's unit; 0 when not read */
    char status[TVX_SENSOR_STATUS_SIZE];    /* "N/A", "Power Off" or ipmiSdrGetStatus's word */
    float lowerNonCritical;                 /* each threshold 0 when not readable */
    float lowerCritical;
    float upperNonCritical;
    float upperCritical;
    char unit[TVX_SENSOR_UNIT_SIZE];        /* the first four characters of the unit name */
} ThresholdSensorEntry;
TVX_STATIC_ASSERT(sizeof(ThresholdSensorEntry) == 84, "ThresholdSensorEntry is 84 bytes");
TVX_STATIC_ASSERT(offsetof(ThresholdSensorEntry, reading) == 20, "ThresholdSensorEntry.reading at 20");
TVX_STATIC_ASSERT(offsetof(ThresholdSensorEntry, status) == 24, "ThresholdSensorEntry.status at 24");
TVX_STATIC_ASSERT(offsetof(ThresholdSensorEntry, lowerNonCritical) == 64, "ThresholdSensorEntry.lowerNonCritical at 64");
TVX_STATIC_ASSERT(offsetof(ThresholdSensorEntry, upperCritical) == 76, "ThresholdSensorEntry.upperCritical at 76");
TVX_STATIC_ASSERT(offsetof(ThresholdSensorEntry, unit) == 80, "ThresholdSensorEntry.unit at 80");

/* One discrete sensor (a compact record). */
typedef struct {
    char name[TVX_SENSOR_NAME_SIZE];
    char state[TVX_SENSOR_STATUS_SIZE];        /* first asserted state, "N/A" or "Power Off" */
    char relatedState[TVX_SENSOR_STATUS_SIZE]; /* a related sensor's first asserted state, or "N/A" */
    uint8_t sensorType;
    uint8_t eventReadingType;
    uint8_t state0_7;                          /* the state bytes as read; 0 when not read */
    uint8_t state8_14;
    int32_t stateOffset;                       /* offset whose text was found; -1 no text; 0 not looked up */
    uint16_t sensorNumber;
} DiscreteSensorEntry;
TVX_STATIC_ASSERT(sizeof(DiscreteSensorEntry) == 112, "DiscreteSensorEntry is 112 bytes");
TVX_STATIC_ASSERT(offsetof(DiscreteSensorEntry, relatedState) == 58, "DiscreteSensorEntry.relatedState at 58");
TVX_STATIC_ASSERT(offsetof(DiscreteSensorEntry, sensorType) == 98, "DiscreteSensorEntry.sensorType at 98");
TVX_STATIC_ASSERT(offsetof(DiscreteSensorEntry, stateOffset) == 104, "DiscreteSensorEntry.stateOffset at 104");
TVX_STATIC_ASSERT(offsetof(DiscreteSensorEntry, sensorNumber) == 108, "DiscreteSensorEntry.sensorNumber at 108");

/* Any sensor record's identity. */
typedef struct {
    char name[TVX_SENSOR_NAME_SIZE];
    uint8_t sensorNumber;
    uint8_t sensorType;
    uint8_t eventReadingType;
    uint8_t entityId;
    uint8_t entityInstance;
} CommonSensorEntry;
TVX_STATIC_ASSERT(sizeof(CommonSensorEntry) == 23, "CommonSensorEntry is 23 bytes");
TVX_STATIC_ASSERT(offsetof(CommonSensorEntry, sensorNumber) == 18, "CommonSensorEntry.sensorNumber at 18");

/* Each appends one entry per sensor to *list (in SDR cache order, without clearing it first)
   and returns how many it appended; the caller frees the list with freeList. A sensor that
   cannot be read still gets an entry. The status texts are "N/A" while the server is on and
   "Power Off" while it is off when the sensor has no reading. */
TVX_API uint8_t ipmiGetFanSensors(IpmiSession *session, ListNode **list, SDRInfo *info);
/* sensorType 1 (temperature), 2 (voltage) or 3 (current); anything else appends nothing. */
TVX_API uint8_t ipmiGetTVCSensors(IpmiSession *session, ListNode **list, uint8_t sensorType, SDRInfo *info);
/* -1 for a NULL session, else ipmiGetTVCSensors of their type. */
TVX_API int ipmiGetTemperatureSensors(IpmiSession *session, ListNode **list, SDRInfo *info);
TVX_API int ipmiGetVoltageSensors(IpmiSession *session, ListNode **list, SDRInfo *info);
TVX_API int ipmiGetCurrentSensors(IpmiSession *session, ListNode **list, SDRInfo *info);
/* The compact records of one sensor type and event/reading type. With relatedState non-zero
   and relatedType non-zero, each entry also gets the state of the same entity's compact
   record of relatedType. `unused` is ignored. When nothing was appended, *list is freed and
   set to NULL. The session must be open. */
TVX_API uint8_t ipmiGetDiscreteSensors(IpmiSession *session, ListNode **list, uint8_t sensorType,
        uint8_t eventReadingType, uint8_t relatedType, uint32_t unused, int relatedState, SDRInfo *info);
/* Every full record, then every compact record; reads nothing from the controller. */
TVX_API uint32_t ipmiGetCommonSensors(ListNode **list, SDRInfo *info);
/* A fan's two speed limits from the controller (the fan's maximum speed and its rated speed):
   1 when stored (both 0 when the answer carries none), 0 on failure (both outputs 0). */
TVX_API int ipmiGetFanMaximumSpeed(IpmiSession *session, uint8_t fanNumber, uint32_t *first, uint32_t *second);

/* ---- Agent sensor getters ------------------------------------------------------------------- */

/* The agent's getters: each opens a session of its own (administrator, empty user name) and
   closes it before it returns; getSdrSensorStatus uses the caller's. Sensors are addressed by
   number among the full records of a sensor type in the agent's SDR cache. Values are
   truncated toward zero; voltages (and the voltage-scale getters) are in thousandths of the
   unit, rounded to tens. A processor's sensors (entity 0x03) report plain raw bytes. */

/* A sensor's status code on the agent's scale for its type (1: unknown or powered off). */
TVX_API int getSdrSensorStatus(IpmiSession *session, uint8_t sensorNumber, uint8_t sensorType,
        uint8_t eventReadingType);
TVX_API int getCurrentSensorsStatus(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info);
TVX_API int getCurrentValue(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info);
/* 3: the sensor's critical reaction is set, 2: not set, 1: unknown; 0 without a session or
   without records of the type. */
TVX_API int getCriticalReaction(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info);
TVX_API int getTemperatureSensorStatus(uint8_t sensorNumber, SDRInfo *info);
TVX_API int getTemperatureCurrentValue(uint8_t sensorNumber, SDRInfo *info);
/* which 0: the warning level (upper non-critical), else the critical level. 0 when none. */
TVX_API int getTemperatureThresholdLevel(uint8_t sensorNumber, SDRInfo *info, int32_t which);
TVX_API int getFanStatus(uint8_t sensorNumber, SDRInfo *info);
TVX_API int getFanCurrentSpeed(uint8_t sensorNumber, SDRInfo *info);
/* The fan's maximum speed as a percentage of its rated speed; 0 when unknown. */
TVX_API int getFanQuality(uint8_t sensorNumber, SDRInfo *info);
/* The fan's fail-shutdown delay; -1 when it cannot be read, 0 without a session or fans. */
TVX_API int getFanFailShutdownDelay(uint8_t sensorNumber, SDRInfo *info);
/* The status of a power supply status sensor (0xE8); info is not used. */
TVX_API int getPowerSupplyStatus(uint8_t sensorNumber, SDRInfo *info);
/* The load of the ordinal-th power supply (from 1); 0 when there is none. */
TVX_API int getPowerSupplyLoad(uint8_t ordinal, SDRInfo *info);
/* The normal maximum of the ordinal-th power supply's load sensor; 0 when the status sensor
   reports the supply not present, or there is none. */
TVX_API int getPowerSupplyNominal(uint8_t statusSensorNumber, uint8_t ordinal, SDRInfo *info);
TVX_API int getNormalMax(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info);
TVX_API int getVoltStatus(uint8_t sensorNumber, SDRInfo *info);
TVX_API int getVoltCurrentValue(uint8_t sensorNumber, SDRInfo *info);
TVX_API int getVoltNominalValue(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info);
/* which 0: lower critical, 1: upper critical (0 for any other which or an unreadable
   threshold); -1 without a session or record. */
TVX_API int getVoltThresholds(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info, int32_t which);

/* ---- System event log --------------------------------------------------------------------- */

/* SEL records are the 16-byte IPMI SEL record, passed as a pointer to their first byte. */
#define TVX_SEL_RECORD_SIZE 16u

typedef struct {
    uint16_t entries;
    uint16_t maxEntries;
    uint32_t lastAddTime;   /* seconds since 1970, as the controller reports them */
    uint32_t lastEraseTime;
} SelSummary;

/* Formats a SEL timestamp as UTC, "16-Nov-2026 21:45:12 " (with the trailing blank, English
   month names). Returns the length written, 0 when it does not fit (callers pass 25 bytes). */
TVX_API size_t convertTime(const time_t *timestamp, char *buffer, size_t size);
/* Appends the raw one-line text of a SEL record (255-byte nodes) to a list. */
TVX_API void addEntryToRawStringList(ListNode **head, const uint8_t *record);
/* One raw line per SEL record, newest last (reverse != 0: newest first). NULL when the log
   is empty or cannot be read. Free with freeList. */
TVX_API ListNode *ipmiGetSelRawStrings(IpmiSession *session, int reverse);
TVX_API SelSummary ipmiGetSelInfo(IpmiSession *session);
/* Minutes from UTC (0x07FF: unspecified), or -1 on failure. */
TVX_API int16_t ipmiGetSelTimeUtcOffset(IpmiSession *session);
/* Starts erasing the log. 1 when the controller accepted the request. */
TVX_API int ipmiClearEventLog(IpmiSession *session);
/* Adds a system event record (generator 0x20, revision 0x01; the controller stamps it). */
TVX_API int ipmiWriteSelEntry(IpmiSession *session, uint8_t sensorType, uint8_t sensorNumber,
        uint8_t eventDirType, uint8_t eventData1, uint8_t eventData2, uint8_t eventData3);

/* ---- Event message texts ------------------------------------------------------------------ */

/* What one text may cost, whatever the controller answers: one call fetches at most
   TVX_SEL_TEXT_MAX characters of a message text or of follow-up chunks (the rest of a longer
   text is not asked for), in at most TVX_SEL_TEXT_MAX / TVX_SEL_TEXT_MIN_CHUNK (128) chunk
   requests: a controller must make an average progress of TVX_SEL_TEXT_MIN_CHUNK characters
   per chunk, else the text ends where it stands after those requests. So no answer sequence
   makes one text take more than 128 chunk requests (plus its error code or first request). */
#define TVX_SEL_TEXT_MAX       1024u
#define TVX_SEL_TEXT_MIN_CHUNK 8u

#define TVX_LANG_ENGLISH 0x0409u
#define TVX_LANG_GERMAN  0x0407u

/* A SEL entry's error code, severity and parameters, as the controller keeps them. */
typedef struct {
    uint8_t errorCode[4];  /* opaque; sent back to fetch the text                      */
    uint8_t flags;         /* bits 4-6: 0 info, 1 minor, 2 major, 3 critical, else unknown */
    uint8_t paramCount;
    char **params;         /* paramCount zero-terminated strings; NULL when 0           */
} ErrorCodeRecord;

/* A short text of one entry: bytes 0-9 the controller's, byte 10 the text length (<= 20),
   11-30 the text, zero-padded, byte 31 zero. */
typedef struct {
    uint8_t info[10];
    uint8_t length;
    char text[20];
    uint8_t terminator;
} SelEntryText;
TVX_STATIC_ASSERT(sizeof(SelEntryText) == 32, "SelEntryText is 32 bytes");

/* One entry as text with its follow-up chunks; the caller frees text. */
typedef struct {
    uint16_t field1;
    uint16_t field2;
    uint16_t field3;
    uint8_t code[4];
    uint8_t byte14;
    uint8_t byte15;
    uint16_t nextId;       /* 0xFFFF when the request failed */
    uint16_t word18;
    uint16_t textSize;     /* the whole text, terminator included */
    uint8_t firstLength;
    uint8_t followUpHandle;
    char *text;
} iESLText;

TVX_API ErrorCodeRecord *getErrorCode(IpmiSession *session, const uint8_t *record, uint8_t selector);
TVX_API void freeErrorCode(ErrorCodeRecord *record);
/* The message text of an error code in a language, fetched chunk by chunk from offset. Pass
   buffer NULL and offset 0; returns a heap text (the caller frees it) or NULL. */
TVX_API char *getSelTextByErrorCode(IpmiSession *session, ErrorCodeRecord *errorCode, char *buffer,
        uint16_t offset, uint8_t selector, uint16_t language);
/* "<time>  <text with parameters> (<SEVERITY>)" for one record; heap string or NULL. Lines
   are at most 254 characters: a longer text is cut, the time and severity kept. */
TVX_API char *buildSelTextString(IpmiSession *session, const uint8_t *record, uint8_t selector,
        int withTime, int withSeverity, uint16_t language);
/* One English text line per SEL entry (with time and severity). Free with freeList. */
TVX_API ListNode *ipmiGetSelText(IpmiSession *session, int reverse, uint8_t selector);
TVX_API SelEntryText getSELEntryText(IpmiSession *session, uint16_t recordId);
TVX_API char *ipmiInterpretSELEntryUsTextFollowUp(IpmiSession *session, uint8_t handle, unsigned size);
TVX_API iESLText ipmiGetiESLSELEntryAsText(IpmiSession *session, uint8_t selector, uint16_t recordId,
        uint8_t p7, uint16_t p8, uint8_t p10, uint8_t p11);

/* ---- Internal event log --------------------------------------------------------------------- */

/* The controller's own log beside the SEL. The meanings of the fields, of the write
   parameters and of the record are the controller's; the library passes them through. */
#pragma pack(push, 1)
/* The log's summary, as the controller sends it; all zero when it could not be read. */
typedef struct {
    uint8_t s0;
    uint8_t s1;
    uint16_t s2;
    uint32_t s4;
    uint8_t s8;
    uint16_t s9;
    uint16_t s11;
    uint16_t s13;
    uint16_t s15;
    uint16_t s17;
    uint16_t s19;
} iELSummary;

/* One entry; body is a heap buffer (the caller frees it) holding the entry's body from the
   requested offset to its end. All zero, body NULL, when the entry could not be read. */
typedef struct {
    uint16_t e0;
    uint8_t e2;
    uint16_t e3;
    uint32_t e5;
    uint16_t e9;      /* always 0 */
    uint8_t *body;
} iELEntry;
#pragma pack(pop)
TVX_STATIC_ASSERT(sizeof(iELSummary) == 21, "iELSummary is 21 bytes");

TVX_API iELSummary ipmiGetiELInfo(IpmiSession *session);
/* Reads the body in 50-byte pieces, one request each. */
TVX_API iELEntry ipmiGetiELEntry(IpmiSession *session, uint16_t entryId, uint16_t offset);
/* Writes an entry: text (zero-terminated) and the 16 bytes of record. 1 when the request was
   exchanged, else 0. */
TVX_API int ipmiWriteiELEntry(IpmiSession *session, uint8_t w4, uint8_t w5, uint8_t w6,
        const uint8_t *record, const char *text, uint8_t w7);
/* Clears every entry (all != 0) or the one entry. 1 when the controller accepted it. */
TVX_API int ipmiCleariELLog(IpmiSession *session, int all, uint16_t entryId);

/* ---- Event notification queue --------------------------------------------------------------- */

/* A watcher (ID > 0) registers with the controller's SEL notification service and then
   receives one message per event. Register/unregister: 0 when the request was queued, -1
   otherwise. Receive: flags for msgrcv (0 waits, IPC_NOWAIT does not); type 0 takes the
   oldest message, a positive type only that watcher's. 1 when a message was received and
   its values stored (a NULL pointer skips that value), else 0. */
TVX_API int selNotifyRegisterRemote(int watcherId);
TVX_API int selNotifyUnregisterRemote(int watcherId);
TVX_API int selNotifyRecvRemote(int flags, uint8_t *code, uint32_t *value32, uint16_t *value16, long type);

/* ---- Chassis power control and LEDs --------------------------------------------------------- */

/* Each returns 1 when the platform carried the action out, else 0 (0 for a NULL session). */
TVX_API int ipmiPowerOff(IpmiSession *session);
TVX_API int ipmiPowerOn(IpmiSession *session);
TVX_API int ipmiPowerCycle(IpmiSession *session);
TVX_API int ipmiHardReset(IpmiSession *session);
TVX_API int ipmiSoftOff(IpmiSession *session);
/* 1 when the server is powered on; 0 when off or when the state could not be read. */
TVX_API int ipmiChassisPowerStatus(IpmiSession *session);
/* Resets the controller: kind 1 warm, anything else cold. */
TVX_API int ipmiReset(IpmiSession *session, int kind);
/* Chassis Control with the given code (0 down, 1 up, 2 cycle, 3 hard reset, 4 diagnostic
   interrupt, 5 soft shutdown). 1 when the controller accepted it. */
TVX_API int ipmiSendChassisControl(IpmiSession *session, int control);
/* The controller's graceful control function `code`. 1 when accepted. */
TVX_API int ipmiSendGracefullControl(IpmiSession *session, int code);
/* Sets the power-on / power-off source code. 1 when accepted. */
TVX_API int ipmiPowerOnSource(IpmiSession *session, int source);
TVX_API int ipmiPowerOffSource(IpmiSession *session, int source);
/* Sets the identify LED; returns the platform status (0 = carried out). */
TVX_API int ipmiSetIdenLed(IpmiSession *session, int state);
/* 1 when the identify LED is on; 0 when off or unreadable. */
TVX_API int ipmiGetIdenLed(IpmiSession *session);
/* The error LED (system status: 0 OK, 1 warning, 2 critical); 0 when unreadable. */
TVX_API int ipmiGetErrLed(IpmiSession *session);

/* ---- Chassis and board inventory ------------------------------------------------------------ */

/* Texts from the FRU devices the SDR cache's FRU Device Locators name (system chassis 0x17,
   system board 0x07). Each field is NULL or a heap copy the record owns; release the whole
   record with the matching free operation, whatever the getter returned. */
typedef struct {
    char *productManufacturer;
    char *productPartNumber;
    char *productVersion;
    char *chassisCustomField;   /* "Unknown" when the chassis area has no custom field */
    char *chassisSerialNumber;
    char *chassisPartNumber;
} ChassisInfo;

typedef struct {
    char *productName;
    char *customField;
    char *serialNumber;
    char *partNumber;
    char *manufacturer;
} BoardInfo;

/* The controller's EEPROM information block, uninterpreted; all zero on failure. */
typedef struct {
    uint8_t data[16];
} EEPROMInfo;
TVX_STATIC_ASSERT(sizeof(EEPROMInfo) == 16, "EEPROMInfo is 16 bytes");

/* 1 when at least one FRU device with a product area (chassis) or a board area (board) was
   read, else 0. Every matching device is read; a later device's text replaces an earlier
   one's. */
TVX_API int ipmiGetChassisInfo(IpmiSession *session, ChassisInfo *chassisInfo, SDRInfo *sdrInfo);
TVX_API void ipmiFreeChassisInfo(ChassisInfo *chassisInfo);
TVX_API int ipmiGetBoardInfo(IpmiSession *session, BoardInfo *boardInfo, SDRInfo *sdrInfo);
TVX_API void ipmiFreeBoardInfo(BoardInfo *boardInfo);
/* 1 when the controller reports the host's agent as connected, else 0. */
TVX_API int ipmiOemAgetConnected(IpmiSession *session);
/* The EEPROM information block of that index (its low byte is sent). */
TVX_API EEPROMInfo ipmiGetEEPROMInfo(IpmiSession *session, int index);

/* ---- Configuration-space variables and console log ------------------------------------------ */

#define TVX_VAR_CONSOLE_LOGGING 0x1630u /* ConfConsLoggingEnable: 1 on, 0 off */
#define TVX_VAR_FIRMWARE_BUILD  0x2150u
#define TVX_VAR_SDR_TEXT        0x2151u
#define TVX_VAR_SYSTEM_NAME     0x0201u
#define TVX_VAR_SYSTEM_TYPE     0x0205u
#define TVX_VAR_SYSTEM_ID       0x0207u
#define TVX_VAR_SYSTEM_OS       0x020Fu
#define TVX_VAR_ASSET_TAG       0x0210u
#define TVX_CONFIG_VALUE_MAX    250u
/* One value per sensor, indexed by the sensor's ordinal among the full records of its type. */
#define TVX_VAR_CRITICAL_REACTION             0x0000u /* sensors other than temperatures and fans */
#define TVX_VAR_FAN_CRITICAL_REACTION         0x0071u /* 1 byte: 0 none, else a reaction */
#define TVX_VAR_FAN_FAIL_SHUTDOWN_DELAY       0x0072u /* 16 bits */
#define TVX_VAR_TEMPERATURE_CRITICAL_REACTION 0x0073u /* 1 byte: 0 none, else a reaction */

/* Reads a variable into buffer (at least 255 bytes; not terminated). Returns the value's
   length (0 for an empty value or a NULL session), or -1 on failure. */
TVX_API int ipmiReadConfigSpaceVariable(IpmiSession *session, uint8_t index, uint16_t variableId,
        uint8_t *buffer);
/* Writes a variable. 1 when written (also for a NULL session, which sends nothing), else 0. */
TVX_API int ipmiWriteConfigSpaceVariable(IpmiSession *session, uint16_t variableId, uint8_t index,
        const uint8_t *data, uint8_t length);
/* Reads a variable in a session of its own into destination (zero-filled first). Returns
   destination, or NULL when it could not be read or does not fit. */
TVX_API void *getConfigSpaceVariable(void *destination, unsigned destinationSize, uint8_t index,
        uint16_t variableId);
/* Resets every variable to its default. 1 when the controller accepted it. */
TVX_API int ipmiResetConfigSpace(IpmiSession *session);
/* Console logging. GetState stores 1 (on) or 0 (off) into *state when it could be read;
   all four return 0 (Clear: the platform status). */
TVX_API int ipmiConsoleLogGetState(IpmiSession *session, uint32_t *state);
TVX_API int ipmiConsoleLogStart(IpmiSession *session);
TVX_API int ipmiConsoleLogStop(IpmiSession *session);
TVX_API int ipmiConsoleLogClear(IpmiSession *session);

/* ---- Memory, PCI and language queries ------------------------------------------------------- */

/* The controller's status and configuration value of a memory module (module index from 0),
   passed on as the controller sends it; 7 when it cannot be read. The status is 0 when the
   controller rejects the module number (completion code 0xC9). */
TVX_API unsigned ipmiGetMemoryModuleStatus(IpmiSession *session, uint8_t module);
TVX_API unsigned ipmiGetMemoryModuleConfig(IpmiSession *session, uint8_t module);
/* The controller's memory policy value, or 0xFF when it cannot be read. */
TVX_API unsigned ipmiGetMemoryPolicy(IpmiSession *session);
/* Reads a module's SPD image into buffer (zeroed first), 64 bytes per request. 1 when at least
   one chunk was stored (a later failure leaves the rest zero), else 0. Images are read up to
   the 64 KiB the request's offset can address. */
TVX_API int getMemorySPDdata(IpmiSession *session, uint8_t *buffer, unsigned size, uint8_t module);
/* 1 when the controller's PCI slot table has an entry for slot with a device in it. The walk
   ends at the end of the table or at an entry too short to read, and after 256 entries at
   the latest. */
TVX_API int ipmiGetPciInfo(IpmiSession *session, uint8_t slot);
/* The languages (LCIDs) the controller holds its texts in, at most 37. With *list NULL the list
   is allocated (the caller frees it), else the caller's array receives them. Returns their
   number; when the controller cannot be asked, the list holds 0x0407 alone and 1 is returned.
   0 for a NULL list pointer or when no list can be allocated. */
TVX_API int ipmiGetSupportedLanguage(IpmiSession *session, uint16_t **list);

/* ---- Processor getters ---------------------------------------------------------------------- */

/* Processors are named by the sensor number of their SDR processor sensor (presence) and the
   zero-based socket index (low 8 bits used). Each getter without a session argument opens and
   closes a session of its own. */
#define TVX_CPU_RECORD_SIZE 64u

/* 1 when the processor sensor reports anything (or cannot be read), 0 when its state is 0. */
TVX_API int getCpuPresenceStatus(IpmiSession *session, uint32_t sensorNumber);
/* Reads the processor record (completion code first) into a TVX_CPU_RECORD_SIZE-byte buffer.
   1 when it is there; 0 for an absent processor (nothing sent) or a failed request. */
TVX_API int getCpuInfo(IpmiSession *session, uint8_t *buffer, uint32_t sensorNumber, uint32_t socket);
/* "Intel", "AMD" or "unknown"; "" when there is no record. Constant text. */
TVX_API const char *getCpuManufacturerName(uint32_t sensorNumber, uint32_t socket);
/* The model name copied into buffer as sent, without a terminator (pass a zeroed buffer);
   returns buffer, or NULL (buffer untouched) when there is none or it is longer than length. */
TVX_API char *getCpuModelName(char *buffer, uint32_t length, uint32_t sensorNumber, uint32_t socket);
/* The stepping (0-15), also written into buffer as decimal text; 0 without a record. */
TVX_API uint32_t getCpuStep(char *buffer, uint32_t length, uint32_t sensorNumber, uint32_t socket);
/* The processor status code: 2-8 as the controller reports it (mode 0 and other modes ask for
   two different scales), 1 no session, 2 no answer. */
TVX_API uint32_t getCpuStatus(uint32_t sensorNumber, uint32_t socket, uint32_t mode);
/* The current speed; 0 when absent; 0xFFFFFFFF without a record. */
TVX_API uint32_t getCpuCurrentSpeed(uint32_t sensorNumber, uint32_t socket);
/* Cores times threads per core; -1 without a record. */
TVX_API int getCpuNumberLogicals(uint32_t sensorNumber, uint32_t socket);
/* Cache size of level 1, 2 or 3; 0 for other levels and without a record. */
TVX_API uint32_t getCpuCacheSize(uint32_t sensorNumber, uint32_t socket, uint32_t level);
/* Cores, processor family, enabled cores; 0 without a record. */
TVX_API uint32_t getCpuNumberCores(uint32_t sensorNumber, uint32_t socket);
TVX_API uint32_t getCpuFamily(uint32_t sensorNumber, uint32_t socket);
TVX_API uint32_t getCpuEnabledCores(uint32_t sensorNumber, uint32_t socket);
/* 3 when all of at least two threads per core are enabled; 2 when not (or absent); 1 when
   there is no session or no record. */
TVX_API uint32_t getCpuMultithreadingEnabled(uint32_t sensorNumber, uint32_t socket);

/* ---- Memory module getters ------------------------------------------------------------------ */

/* Modules are named by their zero-based index. Each getter without a session argument opens
   and closes a session of its own. */
#define TVX_SPD_IMAGE_SIZE 512u

typedef struct {
    uint32_t frequency; /* as the controller reports it */
    uint32_t capacity;  /* raw: MB, or with bit 15 set GB in bits 14..0 */
} MemoryModuleInfo;
TVX_STATIC_ASSERT(sizeof(MemoryModuleInfo) == 8, "MemoryModuleInfo is 8 bytes");

/* The highest module index the controller reports, in the caller's session; 0 on failure. */
TVX_API unsigned getMemoryMaxIndex(IpmiSession *session);
/* 1 with *info filled; 0 with *info untouched. */
TVX_API int getMemoryModuleInfo(uint8_t module, MemoryModuleInfo *info);
/* Capacity in MB; frequency as reported. 0xFFFFFFFF when the module info cannot be read. */
TVX_API uint32_t getMemoryModuleCapacity(uint8_t module);
TVX_API uint32_t getMemoryModuleFrequency(uint8_t module);
/* Memory status code: 2-7 and 11 from the controller's value, 1 unknown or no session. */
TVX_API uint32_t getMemoryModuleStatus(uint8_t module);
/* 3 approved, 2 not approved, 1 unknown. */
TVX_API uint32_t getMemoryModuleApprovedStatus(uint8_t module);
/* The controller's configuration value plus 2 (modulo 256); 1 when unknown. */
TVX_API uint32_t getMemoryModuleConfig(uint8_t module);
/* From the module's SPD image (read anew each call) through the decode-utility library:
   the module type (constant text of that library, also copied into buffer); "DEVICE / MODULE"
   in buffer (returns buffer); the DDR frequency class (-1 without SPD data); the voltage
   interface in buffer (returns buffer). NULL when there is no session, no SPD data or no text.
   Texts are copied with at most length bytes, the terminator included when it fits. */
TVX_API const char *getMemoryModuleForm(char *buffer, uint32_t length, uint8_t module);
TVX_API char *getMemoryModuleType(char *buffer, uint32_t length, uint8_t module);
TVX_API int getMemoryModuleMaxFrequency(uint8_t module);
TVX_API char *getMemoryModuleVoltInterface(char *buffer, uint32_t length, uint8_t module);

/* ---- Agent identity and status rollup ------------------------------------------------------- */

/* Copies "Halvex Tessorin 2 hardware monitoring agent" (or the company name "Veltrane") without
   a terminator; returns the character count, or -1 (buffer untouched) when length is smaller. */
TVX_API int snmpGetAgentId(char *buffer, unsigned length);
TVX_API int snmpGetAgentCompany(char *buffer, unsigned length);
/* "Build: <text>" from the firmware build variable (index 1: version, 0: build), bounded by
   length; "Build: unknown" without a session. A variable that cannot be read or is empty
   leaves the buffer as passed (pass a terminated one). Returns the string length then in it. */
TVX_API int snmpGetAgentVersion(char *buffer, unsigned length);
TVX_API int snmpGetAgentBuild(char *buffer, unsigned length);
/* Always 2. */
TVX_API int snmpGetAgentWriteAllowed(void);
TVX_API int snmpGetAgentShutdownAllowed(void);

/* For the library's users; the library never reads or writes it. */
TVX_API extern uint32_t gSystemCondition;

/* Signal states: 0-3 as the controller reports them, and these. */
#define TVX_SIGNAL_CANNOT_READ 253u /* also: an entity that is not present */
#define TVX_SIGNAL_EMPTY_SLOT  254u
#define TVX_SIGNAL_NO_ANSWER   255u
/* Component status (getComponentSensorStatus): 2-5 signal state 0-3, and these. */
#define TVX_COMPONENT_NO_SESSION  0u
#define TVX_COMPONENT_UNKNOWN     1u
#define TVX_COMPONENT_NOT_PRESENT 6u
/* Rollup status: 1-3 by severity (3 the worst); 5 nothing known. */
#define TVX_ROLLUP_OK       1u
#define TVX_ROLLUP_WARNING  2u
#define TVX_ROLLUP_CRITICAL 3u
#define TVX_ROLLUP_UNKNOWN  5u

/* A component is named by its SDR entity ID and instance and its kind (an IPMI sensor-type
   code). In the caller's session: the signal state; the presence code (-1: no answer). */
TVX_API uint8_t componentStatusSignalRead(IpmiSession *session, uint8_t kind, uint8_t entityId,
        uint8_t entityInstance);
TVX_API int getCompStatusPresent(IpmiSession *session, uint8_t kind, uint8_t entityId, uint8_t entityInstance);
/* The component status, in a session of its own. */
TVX_API uint32_t getComponentSensorStatus(uint8_t kind, uint8_t entityId, uint8_t entityInstance);
/* 1 when the entity counts as present (its entity-presence sensor, if it has one), else 0. */
TVX_API int isSdrEntityPresent(uint8_t entityId, uint8_t entityInstance, SDRInfo *info);
/* The text that explains a component's state ("Fan not installed", "Processor not installed",
   "Disabled", "PSU not installed", "N/A", "Empty Slot", "Unknown", "Empty PCI Slot",
   "Power Off"; constant), or NULL. *status holds a signal state; for some kinds it is read
   from the controller and stored there. */
TVX_API const char *ipmiGetSignalStatus(IpmiSession *session, uint8_t entityId, uint8_t entityInstance,
        uint8_t kind, uint8_t *status, SDRInfo *info);
/* The rollup value (0: does not count, 1-3) of a component status of a class (sensor type 1, 2,
   4, 7, 12 or 232) as that class's getter produces it. */
TVX_API uint8_t getUnitComponentStatus(uint8_t sensorType, uint8_t status);
/* The boot status on the rollup scale (system firmware's signal state); 0 without a session. */
TVX_API uint32_t getStatusBoot(void);
/* The worst rollup value of the components of one class (a sensor type as above), or of all
   classes and the boot status (filter 0); 5 when nothing is known. */
TVX_API uint32_t getStatusOverall(SDRInfo *info, uint8_t sensorTypeFilter);
TVX_API uint32_t getStatusPowerSupply(SDRInfo *info);
TVX_API uint32_t getStatusTemperature(SDRInfo *info);
TVX_API uint32_t getStatusFans(SDRInfo *info);
TVX_API uint32_t getStatusVoltages(SDRInfo *info);
TVX_API uint32_t getStatusCpu(SDRInfo *info);
TVX_API uint32_t getStatusMemoryModule(SDRInfo *info);

/* ---- Management network and channel getters ------------------------------------------------- */

/* Node types: the management controller, a network port function of the server. Address
   types: IPv4, IPv6. A port function is named by three identity bytes that the platform's
   port-function area reader understands. */
#define TVX_NODE_PORT_FUNCTION 2u
#define TVX_NODE_CONTROLLER    7u
#define TVX_ADDRESS_IPV4       2u
#define TVX_ADDRESS_IPV6       4u
#define TVX_MEDIUM_LAN_8023    4u

#define TVX_VAR_IPV6_ADDRESS        0x1A25u /* 16 bytes, per address index */
#define TVX_VAR_IPV6_ADDRESS_SOURCE 0x1A36u /* first byte: 1 static, 2 DHCP, ... */
#define TVX_VAR_IPV6_GATEWAY        0x1A3Au /* 16 bytes */
#define TVX_VAR_ALERT_DESTINATIONS  0x1412u /* 1 byte: the number of alert destinations */

/* The current value of a power consumption sensor (sensor type 0x0B). */
TVX_API int getPowerConsumptionCurrentValue(uint8_t sensorNumber, SDRInfo *info);
/* 1 when the 4 (IPv4) or 16 (IPv6) bytes are all zero or the type is neither; else 0. */
TVX_API int isEmptyIPAddress(const uint8_t *address, uint8_t addressType);
/* The controller model's name, "" for an unknown model (constant). */
TVX_API const char *getControllerModelName(unsigned model);
/* Address texts into buffer (zeroed first, bounded by length); each returns buffer, untouched
   when no session can be opened, empty when there is nothing to say. */
TVX_API char *getNodeIpNetMaskAddress(char *buffer, unsigned length, uint8_t addressType, uint8_t nodeType);
TVX_API char *getNodeGatewayAddress(char *buffer, unsigned length, uint8_t addressType, uint8_t nodeType);
TVX_API char *getUnitNodeIpAddress(char *buffer, unsigned length, uint8_t nodeType, uint8_t addressType,
        uint8_t port0, uint8_t port1, uint8_t port2, uint8_t addressIndex);
TVX_API char *getUnitNodeName(char *buffer, unsigned length, uint8_t nodeType, uint8_t addressType,
        uint8_t port0, uint8_t port1, uint8_t port2, uint8_t addressIndex);
/* Writes the node's 6-byte MAC address into buffer (at least 6 bytes; length is not used) when
   found; returns buffer. */
TVX_API uint8_t *getUnitNodeMacAddress(uint8_t *buffer, unsigned length, uint8_t nodeType, uint8_t port0,
        uint8_t port1, uint8_t port2);
/* 3 the address comes from DHCP, 2 from another source, 1 unknown. */
TVX_API int getUnitNodeUseDHCP(uint8_t addressType, uint8_t nodeType);
/* In the caller's session: the instance-th (from 1) channel 1-7 of a medium, or 255; how many
   channels of that medium there are. */
TVX_API uint8_t getChannelNumber(IpmiSession *session, uint8_t mediumType, uint8_t instance);
TVX_API uint8_t getChannelInstanceCount(IpmiSession *session, uint8_t mediumType);
/* The number of 802.3 LAN channels and the first one's number (255: none); each found once
   per process and kept (a default channel of 255 is looked for again). */
TVX_API uint8_t getLanChannelCount(IpmiSession *session);
TVX_API uint8_t getDefaultLanChannelNumber(IpmiSession *session);

/* ---- Test trap ------------------------------------------------------------------------------ */

/* Has the controller send a test alert to each alert destination of the default LAN channel.
   1 when the last destination's alert was accepted, else 0. */
TVX_API int sendTestTrap(void);

/* ---- LAN parameters ----------------------------------------------------------------------- */

/* LAN configuration parameter selectors. Addresses are raw bytes in IPMI order. */
#define TVX_LAN_IP_ADDRESS      3
#define TVX_LAN_ADDRESS_SOURCE  4
#define TVX_LAN_MAC_ADDRESS     5
#define TVX_LAN_SUBNET_MASK     6
#define TVX_LAN_DEFAULT_GATEWAY 12

/* The first 802.3 LAN channel (1-15), or 0 when there is none. */
TVX_API unsigned getChannel(IpmiSession *session);
/* The 27-byte Get LAN Configuration Parameters answer (completion code, revision, 25 data
   bytes) of the LAN channel; the caller frees it. NULL on failure. */
TVX_API uint8_t *_ipmiGetLanParameter(IpmiSession *session, int selector);
/* New 4-byte (6 for the MAC) blocks the caller frees, or NULL. */
TVX_API uint8_t *ipmiGetIpAddress(IpmiSession *session);
TVX_API uint8_t *ipmiGetNetMask(IpmiSession *session);
TVX_API uint8_t *ipmiGetDefaultGateway(IpmiSession *session);
TVX_API uint8_t *ipmiGetMacAddress(IpmiSession *session);
/* The address source (0 unspecified, 1 static, 2 DHCP, 3 BIOS, 4 other), or -1. */
TVX_API int ipmiGetAddressSource(IpmiSession *session);
/* Writes a parameter (selectors 3, 4, 5, 6, 12). 1 on success. */
TVX_API int _ipmiSetLanParameter(IpmiSession *session, int selector, const uint8_t *data);
TVX_API int ipmiSetIpAddress(IpmiSession *session, const uint8_t *data);
TVX_API int ipmiSetNetMask(IpmiSession *session, const uint8_t *data);
TVX_API int ipmiSetDefaultGateway(IpmiSession *session, const uint8_t *data);
TVX_API int ipmiSetMacAddress(IpmiSession *session, const uint8_t *data);
TVX_API int ipmiSetAddressSource(IpmiSession *session, int source);
/* The IPv4 address of the first local interface whose name begins with name, as text cut
   to size - 1 characters. 1 when found. */
TVX_API int getCurrentAddress(char *buffer, unsigned size, const char *name);

/* ---- Login banner and partition helpers ------------------------------------------------------ */

/* Writes the console's login banner to standard output; the result of the last output. */
TVX_API int ipmiPrintLoginHeader(IpmiSession *session);
/* The short banner of a system board of a partitionable server. */
TVX_API int KV_rmMenu(IpmiSession *session);
/* The system-board number 0-3 (controller address 127.1.2.N), or 255 for a standard
   server; determined once per process. */
TVX_API unsigned ipmiGetSbNumber(IpmiSession *session);
TVX_API int ipmiIsKVSystem(IpmiSession *session);
/* The board's IPMB slave address: 0xC0 + 2 x board, or 0x20 on a standard server. */
TVX_API int ipmiGetSbSlaveAddr(IpmiSession *session);

/* ---- Layouts that depend on the pointer size ------------------------------------------------
 * Records holding pointers are laid out for the target: on the controller (4-byte pointers)
 * and on a 64-bit host. Callers built separately rely on these sizes and positions. */
#if UINTPTR_MAX == 0xFFFFFFFFu
TVX_STATIC_ASSERT(sizeof(SDRInfo) == 12 && offsetof(SDRInfo, records) == 4 && offsetof(SDRInfo, count) == 8,
                  "SDRInfo: 12 bytes, records at 4, count at 8");
TVX_STATIC_ASSERT(sizeof(ListNode) == 8 && offsetof(ListNode, next) == 4, "ListNode: 8 bytes, next at 4");
TVX_STATIC_ASSERT(sizeof(OemValueString) == 8 && offsetof(OemValueString, text) == 4,
                  "OemValueString: 8 bytes, text at 4");
TVX_STATIC_ASSERT(sizeof(ChassisInfo) == 24 && offsetof(ChassisInfo, chassisPartNumber) == 20,
                  "ChassisInfo: 24 bytes");
TVX_STATIC_ASSERT(sizeof(BoardInfo) == 20 && offsetof(BoardInfo, manufacturer) == 16, "BoardInfo: 20 bytes");
TVX_STATIC_ASSERT(sizeof(ErrorCodeRecord) == 12 && offsetof(ErrorCodeRecord, params) == 8,
                  "ErrorCodeRecord: 12 bytes, params at 8");
TVX_STATIC_ASSERT(sizeof(iESLText) == 24 && offsetof(iESLText, textSize) == 16 && offsetof(iESLText, text) == 20,
                  "iESLText: 24 bytes, text at 20");
TVX_STATIC_ASSERT(sizeof(iELEntry) == 15 && offsetof(iELEntry, body) == 11, "iELEntry: 15 bytes, body at 11");
#elif UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
TVX_STATIC_ASSERT(sizeof(SDRInfo) == 24 && offsetof(SDRInfo, records) == 8 && offsetof(SDRInfo, count) == 16,
                  "SDRInfo: 24 bytes, records at 8, count at 16");
TVX_STATIC_ASSERT(sizeof(ListNode) == 16 && offsetof(ListNode, next) == 8, "ListNode: 16 bytes, next at 8");
TVX_STATIC_ASSERT(sizeof(OemValueString) == 16 && offsetof(OemValueString, text) == 8,
                  "OemValueString: 16 bytes, text at 8");
TVX_STATIC_ASSERT(sizeof(ChassisInfo) == 48 && offsetof(ChassisInfo, chassisPartNumber) == 40,
                  "ChassisInfo: 48 bytes");
TVX_STATIC_ASSERT(sizeof(BoardInfo) == 40 && offsetof(BoardInfo, manufacturer) == 32, "BoardInfo: 40 bytes");
TVX_STATIC_ASSERT(sizeof(ErrorCodeRecord) == 16 && offsetof(ErrorCodeRecord, params) == 8,
                  "ErrorCodeRecord: 16 bytes, params at 8");
TVX_STATIC_ASSERT(sizeof(iESLText) == 32 && offsetof(iESLText, textSize) == 16 && offsetof(iESLText, text) == 24,
                  "iESLText: 32 bytes, text at 24");
TVX_STATIC_ASSERT(sizeof(iELEntry) == 19 && offsetof(iELEntry, body) == 11, "iELEntry: 19 bytes, body at 11");
#endif
TVX_STATIC_ASSERT(sizeof(SelSummary) == 12, "SelSummary is 12 bytes");

#ifdef __cplusplus
}
#endif

#endif /* TVX_TOIPMI_H */
