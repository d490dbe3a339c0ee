// The system event log: summary, UTC offset, raw lines, clearing and adding records.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/bytes.h"
#include "common/diag.h"
#include "common/raw.h"
#include "common/sel_record.h"
#include "libipmi.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;

namespace {

constexpr int kTimeout = 60;
constexpr size_t kRawLineSize = 255;
constexpr uint8_t kReserveSel = 0x42;
constexpr uint8_t kClearSel = 0x47;
constexpr uint8_t kGetSelUtcOffset = 0x5C;

} // namespace


extern "C" TVX_API size_t convertTime(const time_t *timestamp, char *buffer, size_t size)
{
    // English month names whatever the process's locale: these lines are read by tools.
    static constexpr const char *kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (!timestamp || !buffer || size == 0) return 0;
    struct tm tm;
    if (!gmtime_r(timestamp, &tm)) {
        buffer[0] = '\0';
        return 0;
    }
    char text[48];
    int n = std::snprintf(text, sizeof text, "%02d-%s-%04d %02d:%02d:%02d ", tm.tm_mday, kMonths[tm.tm_mon % 12],
                          tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
    if (n < 0 || static_cast<size_t>(n) + 1 > size) {
        buffer[0] = '\0';
        return 0;
    }
    std::memcpy(buffer, text, static_cast<size_t>(n) + 1);
    return static_cast<size_t>(n);
}

extern "C" TVX_API void addEntryToRawStringList(ListNode **head, const uint8_t *record)
{
    if (!record) return;
    char line[kRawLineSize];
    char time[25];
    std::memset(line, 0, sizeof line);
    std::memset(time, 0, sizeof time);
    const uint8_t *r = record;
    uint8_t type = r[2];
    const char *timeColumn = time;
    if (tvx::sel::hasTimestamp(type)) {
        time_t t = static_cast<time_t>(tvx::sel::timestamp(r));
        convertTime(&t, time, sizeof time);
    } else if (tvx::sel::isOemUntimed(type)) {
        timeColumn = "-OEM-";
    } else {
        timeColumn = "Unknown";
    }
    int n = std::snprintf(line, sizeof line, "%04X %-20.20s ", r[0] | r[1] << 8, timeColumn);
    char *body = line + n;
    size_t room = sizeof line - static_cast<size_t>(n);
    if (type == tvx::sel::kSystemEvent) {
        std::snprintf(body, room, "Addr:%02X:%d, EvM:%02X, Sens:%02X:%02X, Trig:%02X, Data:%02X:%02X:%02X", r[7], r[8],
                      r[9], r[10], r[11], r[12], r[13], r[14], r[15]);
    } else if (tvx::sel::isOemTimed(type)) {
        std::snprintf(body, room, "OEM: %02X:%02X:%02X, Data:%02X:%02X:%02X:%02X:%02X:%02X", r[7], r[8], r[9], r[10],
                      r[11], r[12], r[13], r[14], r[15]);
    } else if (tvx::sel::isOemUntimed(type)) {
        std::snprintf(body, room, "OEM: Data:%02X:%02X:%02X:%02X-%02X:%02X:%02X:%02X-%02X:%02X:%02X:%02X-%02X", r[3],
                      r[4], r[5], r[6], r[7], r[8], r[9], r[10], r[11], r[12], r[13], r[14], r[15]);
    }
    addToList(head, line, kRawLineSize);
}

extern "C" TVX_API ListNode *ipmiGetSelRawStrings(IpmiSession *session, int reverse)
{
    if (!session) return nullptr;
    uint16_t count = 0;
    if (LIBIPMI_HL_GetNumOfSELEntries(session, &count, kTimeout) != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to get count of sel entries");
        return nullptr;
    }
    if (count == 0) return nullptr;
    uint8_t *records = static_cast<uint8_t *>(std::calloc(count, TVX_SEL_RECORD_SIZE));
    if (!records) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return nullptr;
    }
    if (LIBIPMI_HL_GetAllSELEntries(session, reinterpret_cast<SelRecord *>(records), kTimeout) != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to get sel entries");
        std::free(records);
        return nullptr;
    }
    ListNode *list = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t index = reverse ? count - 1 - i : i;
        addEntryToRawStringList(&list, records + index * TVX_SEL_RECORD_SIZE);
    }
    std::free(records);
    return list;
}

extern "C" TVX_API SelSummary ipmiGetSelInfo(IpmiSession *session)
{
    SelSummary summary;
    std::memset(&summary, 0, sizeof summary);
    if (!session) return summary;
    uint16_t n = 0;
    if (LIBIPMI_HL_GetNumOfSELEntries(session, &n, kTimeout) == 0) summary.entries = n;
    n = 0;
    if (LIBIPMI_HL_GetMaxPossibleSELEntries(session, &n, kTimeout) == 0) summary.maxEntries = n;
    SelInfo info;
    std::memset(&info, 0, sizeof info);
    if (IPMICMD_GetSELInfo(session, &info, kTimeout) == 0) {
        summary.lastAddTime = info.lastAddTime;
        summary.lastEraseTime = info.lastEraseTime;
    }
    return summary;
}

extern "C" TVX_API int16_t ipmiGetSelTimeUtcOffset(IpmiSession *session)
{
    uint8_t response[3] = {0xFF, 0xFF, 0xFF};
    uint32_t len = sizeof response;
    if (!ipmiSendCmd(session, TVX_NETFN_STORAGE, kGetSelUtcOffset, 0, nullptr, &len, response)) return -1;
    if (response[0] != 0) return -1;
    return static_cast<int16_t>(response[1] | response[2] << 8);
}

extern "C" TVX_API int ipmiClearEventLog(IpmiSession *session)
{
    if (!session) return 0;
    uint8_t response[8];
    std::memset(response, 0, sizeof response);
    uint32_t len = sizeof response;
    uint16_t status =
        LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, TVX_NETFN_STORAGE, kReserveSel, nullptr, 0, response, &len, kTimeout);
    // Without a reservation the clear still goes out with ID 0; the controller decides.
    tvx::ByteView rsp(response, len < sizeof response ? len : sizeof response);
    uint16_t reservation = status == 0 && rsp.u8(0, 0xFF) == 0 ? rsp.u16(1) : 0;
    uint8_t request[6] = {static_cast<uint8_t>(reservation), static_cast<uint8_t>(reservation >> 8), 'C', 'L', 'R', 0xAA};
    std::memset(response, 0, sizeof response);
    len = sizeof response;
    status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, TVX_NETFN_STORAGE, kClearSel, request, sizeof request, response,
                                              &len, kTimeout);
    return status == 0 ? 1 : 0;
}

extern "C" TVX_API int ipmiWriteSelEntry(IpmiSession *session, uint8_t sensorType, uint8_t sensorNumber,
                                         uint8_t eventDirType, uint8_t eventData1, uint8_t eventData2,
                                         uint8_t eventData3)
{
    if (!session) return 0;
    SelRecord record;
    std::memset(&record, 0, sizeof record);
    uint8_t *r = record.bytes;
    r[2] = tvx::sel::kSystemEvent; // record ID 0 and timestamp 0: the controller assigns both
    r[7] = 0x20;
    r[8] = 0x00;
    r[9] = 0x01;
    r[10] = sensorType;
    r[11] = sensorNumber;
    r[12] = eventDirType;
    r[13] = eventData1;
    r[14] = eventData2;
    r[15] = eventData3;
    SelAddResponse response;
    std::memset(&response, 0, sizeof response);
    uint16_t status = IPMICMD_AddSELEntry(session, &record, &response, kTimeout);
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send request with error 0x%x", tvx::swappedStatus(status));
        return 0;
    }
    return 1;
}
