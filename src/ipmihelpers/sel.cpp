// The system event log: summary, UTC offset, raw lines, clearing and adding records.
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/diag.h"
#include "common/list_tail.h"
#include "common/raw.h"
#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx/records.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;
namespace sel = tvx::sel;
namespace wire = tvx::wire;

namespace {

constexpr size_t kRawLineSize = 255;
constexpr wire::U16 kReservationId{1}; // Reserve SEL answer
constexpr wire::U16 kUtcOffset{1};     // Get SEL Time UTC Offset answer

// The hex digits of a run, upper case, with `separator` between bytes and `group` (after
// every four bytes) instead where a group ends.
int hexRun(char *out, size_t room, wire::View bytes, char separator, char group = 0)
{
    size_t n = 0;
    for (size_t at = 0; at < bytes.size(); at += 4) {
        if (at && n + 1 < room) out[n++] = group ? group : separator;
        n += wire::formatHex(bytes.upTo(at, 4).span(), out + (n < room ? n : room), n < room ? room - n : 0,
                             separator, true);
    }
    if (room) out[n < room ? n : room - 1] = '\0';
    return static_cast<int>(n);
}

// UTC calendar fields of seconds since 1970 (the proleptic Gregorian civil-from-days
// conversion), for any 64-bit count: gmtime_r would stop at 2038 where time_t has 32 bits.
struct UtcTime {
    int64_t year;
    int month, day, hour, minute, second; // month 1-12
};

UtcTime utcTime(int64_t seconds)
{
    int64_t days = seconds / 86400, rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    const int64_t z = days + 719468; // days since 0000-03-01
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t dayOfEra = z - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const int month = static_cast<int>(monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9);
    return {yearOfEra + era * 400 + (month <= 2), month, static_cast<int>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1),
            static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60)};
}

} // namespace

extern "C" TVX_API size_t convertTime(const time_t *timestamp, char *buffer, size_t size)
{
    // English month names whatever the process's locale: these lines are read by tools.
    static constexpr const char *kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (!timestamp || !buffer || size == 0) return 0;
    // A SEL timestamp is an unsigned 32-bit count: where time_t has 32 bits (the controller),
    // the value's bits are read as that count, so that times from 2038 on stay right.
    const int64_t seconds = sizeof(time_t) == 4 ? static_cast<int64_t>(static_cast<uint32_t>(*timestamp))
                                                : static_cast<int64_t>(*timestamp);
    const UtcTime t = utcTime(seconds);
    // The C library's calendar stops where the year less 1900 leaves an int; so does this one.
    if (t.year - 1900 > INT_MAX || t.year - 1900 < INT_MIN) {
        buffer[0] = '\0';
        return 0;
    }
    char text[64];
    int n = std::snprintf(text, sizeof text, "%02d-%s-%04lld %02d:%02d:%02d ", t.day, kMonths[t.month - 1],
                          static_cast<long long>(t.year), t.hour, t.minute, t.second);
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
    const wire::View r(record, sel::kRecordSize);
    auto at = [&r](wire::U8 field) { return static_cast<int>(r.get(field, uint8_t{0})); };
    uint8_t type = r.get(sel::kRecordType, uint8_t{0});
    const char *timeColumn = time;
    if (sel::hasTimestamp(type)) {
        time_t t = static_cast<time_t>(r.get(sel::kTimestamp, uint32_t{0}));
        convertTime(&t, time, sizeof time);
    } else if (sel::isOemUntimed(type)) {
        timeColumn = "-OEM-";
    } else {
        timeColumn = "Unknown";
    }
    int n = std::snprintf(line, sizeof line, "%04X %-20.20s ", r.get(sel::kRecordId, uint16_t{0}), timeColumn);
    char *body = line + n;
    size_t room = sizeof line - static_cast<size_t>(n);
    char first[40], second[40];
    if (type == sel::kSystemEvent) {
        hexRun(first, sizeof first, r.get(sel::kEventData), ':');
        std::snprintf(body, room, "Addr:%02X:%d, EvM:%02X, Sens:%02X:%02X, Trig:%02X, Data:%s", at(sel::kGeneratorAddress),
                      at(sel::kGeneratorChannelLun), at(sel::kEvmRevision), at(sel::kSensorType),
                      at(sel::kSensorNumber), at(sel::kEventDirType), first);
    } else if (sel::isOemTimed(type)) {
        hexRun(first, sizeof first, r.get(sel::kManufacturerIdBytes), ':');
        hexRun(second, sizeof second, r.get(sel::kOemTimedData), ':');
        std::snprintf(body, room, "OEM: %s, Data:%s", first, second);
    } else if (sel::isOemUntimed(type)) {
        hexRun(first, sizeof first, r.get(sel::kOemData), ':', '-');
        std::snprintf(body, room, "OEM: Data:%s", first);
    }
    addToList(head, line, kRawLineSize);
}

extern "C" TVX_API ListNode *ipmiGetSelRawStrings(IpmiSession *session, int reverse)
{
    if (!session) return nullptr;
    uint16_t count = 0;
    if (LIBIPMI_HL_GetNumOfSELEntries(session, &count, tvx::kPlatformTimeout) != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to get count of sel entries");
        return nullptr;
    }
    if (count == 0) return nullptr;
    uint8_t *records = static_cast<uint8_t *>(std::calloc(count, TVX_SEL_RECORD_SIZE));
    if (!records) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return nullptr;
    }
    if (LIBIPMI_HL_GetAllSELEntries(session, reinterpret_cast<SelRecord *>(records), tvx::kPlatformTimeout) != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to get sel entries");
        std::free(records);
        return nullptr;
    }
    ListNode *list = nullptr;
    tvx::ListTail tail(&list);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t index = reverse ? count - 1 - i : i;
        addEntryToRawStringList(tail.end(), records + index * TVX_SEL_RECORD_SIZE);
        tail.skip();
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
    if (LIBIPMI_HL_GetNumOfSELEntries(session, &n, tvx::kPlatformTimeout) == 0) summary.entries = n;
    n = 0;
    if (LIBIPMI_HL_GetMaxPossibleSELEntries(session, &n, tvx::kPlatformTimeout) == 0) summary.maxEntries = n;
    SelInfo info;
    std::memset(&info, 0, sizeof info);
    if (IPMICMD_GetSELInfo(session, &info, tvx::kPlatformTimeout) == 0) {
        summary.lastAddTime = info.lastAddTime;
        summary.lastEraseTime = info.lastEraseTime;
    }
    return summary;
}

extern "C" TVX_API int16_t ipmiGetSelTimeUtcOffset(IpmiSession *session)
{
    // Bytes that do not arrive keep their 0xFF, so a cut answer reads as -1.
    uint8_t response[3] = {0xFF, 0xFF, 0xFF};
    uint32_t len = sizeof response;
    if (!ipmiSendCmd(session, TVX_NETFN_STORAGE, tvx::cmd::storage::kGetSelTimeUtcOffset, 0, nullptr, &len, response))
        return -1;
    if (tvx::completionCode(response) != tvx::cc::kOk) return -1;
    return static_cast<int16_t>(wire::View(response).get(kUtcOffset, uint16_t{0xFFFF}));
}

extern "C" TVX_API int ipmiClearEventLog(IpmiSession *session)
{
    if (!session) return 0;
    uint8_t response[8];
    std::memset(response, 0, sizeof response);
    uint32_t len = sizeof response;
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, TVX_NETFN_STORAGE, tvx::cmd::storage::kReserveSel,
                                                       nullptr, 0, response, &len, tvx::kPlatformTimeout);
    // Without a reservation the clear still goes out with ID 0; the controller decides.
    wire::View rsp = tvx::received(response, len);
    uint16_t reservation =
        status == 0 && rsp.get(tvx::kCompletionCode, uint8_t{0xFF}) == tvx::cc::kOk ? rsp.get(kReservationId, uint16_t{0})
                                                                                       : 0;
    uint8_t request[6];
    wire::Writer w(request);
    w.u16(reservation).bytes(tvx::clear_sel::kGuard).u8(tvx::clear_sel::kInitiate);
    std::memset(response, 0, sizeof response);
    len = sizeof response;
    status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, TVX_NETFN_STORAGE, tvx::cmd::storage::kClearSel, request,
                                              static_cast<uint32_t>(w.size()), response, &len, tvx::kPlatformTimeout);
    return status == 0 ? 1 : 0;
}

extern "C" TVX_API int ipmiWriteSelEntry(IpmiSession *session, uint8_t sensorType, uint8_t sensorNumber,
                                         uint8_t eventDirType, uint8_t eventData1, uint8_t eventData2,
                                         uint8_t eventData3)
{
    if (!session) return 0;
    SelRecord record;
    std::memset(&record, 0, sizeof record);
    // Record ID 0 and timestamp 0: the controller assigns both.
    wire::Writer(record.bytes)
        .put(sel::kRecordType, sel::kSystemEvent)
        .put(sel::kGeneratorAddress, uint8_t{0x20})
        .put(sel::kGeneratorChannelLun, uint8_t{0x00})
        .put(sel::kEvmRevision, uint8_t{0x01})
        .put(sel::kSensorType, sensorType)
        .put(sel::kSensorNumber, sensorNumber)
        .put(sel::kEventDirType, eventDirType)
        .put(sel::kEventData1, eventData1)
        .put(sel::kEventData2, eventData2)
        .put(sel::kEventData3, eventData3);
    SelAddResponse response;
    std::memset(&response, 0, sizeof response);
    uint16_t status = IPMICMD_AddSELEntry(session, &record, &response, tvx::kPlatformTimeout);
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send request with error 0x%x", tvx::swappedStatus(status));
        return 0;
    }
    return 1;
}
