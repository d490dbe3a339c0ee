#include "sel_poller.h"

#include <array>
#include <cstring>

#include "libipmi.h"
#include "libipmi_host.h"
#include "tvx/ipmi.h"
#include "tvx/records.h"
#include "tvx/sel_notify.h"
#include "tvx/session.h"
#include "tvx/wire.h"

namespace selnotifyd {
namespace {

constexpr int kTimeout = 60;
constexpr uint16_t kFirstEntry = 0x0000;
constexpr uint16_t kEndOfLog = 0xFFFF;

// Get SEL Entry's answer: the next record ID, then the record.
namespace get_entry {
constexpr tvx::wire::U8 kCompletionCode{0};
constexpr tvx::wire::U16 kNextId{1};
constexpr tvx::wire::Run kRecord{3, tvx::sel::kRecordSize};
} // namespace get_entry

using Record = std::array<uint8_t, tvx::sel::kRecordSize>;

// The event for a new record: its ID and its own time, or the log's last-addition time for
// records that carry none.
SelEvent added(const Record &r, uint32_t addTime)
{
    tvx::wire::View v(r);
    uint8_t type = v.get(tvx::sel::kRecordType, uint8_t{0});
    uint32_t time = tvx::sel::hasTimestamp(type) ? v.get(tvx::sel::kTimestamp, addTime) : addTime;
    return {tvx::selnotify::kEntryAdded, v.get(tvx::sel::kRecordId, uint16_t{0}), time};
}

struct Entry {
    uint16_t status;
    uint8_t completionCode = 0;
    uint16_t next = 0;
    Record record{};
};

// One whole record, without a reservation.
Entry readEntry(IpmiSession *s, uint16_t id)
{
    uint8_t request[6];
    tvx::wire::Writer w(request, sizeof request);
    w.u16(0).u16(id).u8(0).u8(0xFF); // no reservation, offset 0, the whole record
    uint8_t answer[LIBIPMI_MAX_RESPONSE_LEN] = {};
    uint32_t length = sizeof answer;
    Entry e;
    e.status =
        LIBIPMI_Send_RAW_IPMI2_0_Command(s, 0, tvx::netfn::lun0(tvx::netfn::kStorage), tvx::cmd::storage::kGetSelEntry,
                                         request, w.size(), answer, &length, kTimeout);
    tvx::wire::View v(answer, length < sizeof answer ? length : sizeof answer);
    e.completionCode = v.get(get_entry::kCompletionCode, uint8_t{0xFF});
    tvx::wire::View record = v.get(get_entry::kRecord);
    if (e.status == 0 && record.empty()) e.status = LIBIPMI_STATUS_BAD_RESPONSE;
    if (e.status != 0) return e;
    e.next = v.get(get_entry::kNextId, kEndOfLog);
    std::memcpy(e.record.data(), record.data(), record.size());
    return e;
}

std::string statusText(uint16_t status)
{
    if (LIBIPMI_STATUS_IS_COMPLETION_CODE(status)) return tvx::cc::text(static_cast<uint8_t>(status));
    std::string why = ipmihost_last_error();
    return why.empty() ? "status " + std::to_string(status) : why;
}

// The whole log, as the platform reads it (partial reads included).
std::optional<std::vector<Record>> readAll(IpmiSession *s, std::string &why)
{
    uint16_t count = 0;
    uint16_t status = LIBIPMI_HL_GetNumOfSELEntries(s, &count, kTimeout);
    std::vector<Record> records(count);
    if (status == 0 && count > 0)
        status = LIBIPMI_HL_GetAllSELEntries(s, reinterpret_cast<SelRecord *>(records.data()), kTimeout);
    if (status != 0) {
        why = statusText(status);
        return std::nullopt;
    }
    return records;
}

} // namespace

void SelPoller::fail(const std::string &what)
{
    // Said once, until a poll succeeds again.
    if (!failing_) log_(what);
    failing_ = true;
}

std::vector<SelEvent> SelPoller::poll()
{
    tvx::PlatformSession session; // for the length of one poll
    if (!session) {
        fail("cannot open a session with " + std::string(ipmihost_describe_target()) + ": " + ipmihost_last_error());
        return {};
    }
    SelInfo info;
    std::memset(&info, 0, sizeof info);
    uint16_t status = IPMICMD_GetSELInfo(session.get(), &info, kTimeout);
    if (status != 0) {
        fail("cannot read the SEL information: " + statusText(status));
        return {};
    }
    if (!known_) {
        if (baseline(session.get(), info) && failing_) log_("the SEL can be read again");
        return {};
    }
    std::vector<SelEvent> events;
    bool erased = info.lastEraseTime != lastErase_;
    if (erased) {
        events.push_back({tvx::selnotify::kLogCleared, 0, info.lastEraseTime});
        lastId_.reset();
        ids_.clear();
    }
    if (erased || info.lastAddTime != lastAdd_ || info.entries != entries_) {
        auto fresh = walk(session.get(), info.lastAddTime);
        if (!fresh) fresh = compareAll(session.get(), info.lastAddTime);
        if (!fresh) {
            // Tried again at the next poll; the erase is not announced twice.
            lastErase_ = info.lastEraseTime;
            return events;
        }
        events.insert(events.end(), fresh->begin(), fresh->end());
    }
    if (failing_) log_("the SEL can be read again");
    failing_ = false;
    lastAdd_ = info.lastAddTime;
    lastErase_ = info.lastEraseTime;
    entries_ = info.entries;
    return events;
}

bool SelPoller::baseline(IpmiSession *s, const SelInfo &info)
{
    std::string why;
    auto all = readAll(s, why);
    if (!all) {
        fail("cannot read the SEL: " + why);
        return false;
    }
    ids_.clear();
    lastId_.reset();
    for (const Record &r : *all) {
        uint16_t id = tvx::wire::View(r).get(tvx::sel::kRecordId, uint16_t{0});
        ids_.insert(id);
        lastId_ = id;
    }
    lastAdd_ = info.lastAddTime;
    lastErase_ = info.lastEraseTime;
    entries_ = info.entries;
    known_ = true;
    failing_ = false;
    return true;
}

std::optional<std::vector<SelEvent>> SelPoller::walk(IpmiSession *s, uint32_t addTime)
{
    std::vector<SelEvent> events;
    uint16_t id = kFirstEntry;
    if (lastId_) {
        Entry last = readEntry(s, *lastId_);
        if (last.status != 0) return std::nullopt; // deleted, or not readable whole
        id = last.next;
    }
    std::optional<uint16_t> newest = lastId_;
    // At most one step per possible record ID, whatever the controller answers.
    for (unsigned steps = 0; id != kEndOfLog && steps < 0xFFFF; ++steps) {
        Entry e = readEntry(s, id);
        if (e.status != 0) {
            // An empty log answers "not present" for its first entry.
            if (id == kFirstEntry && e.completionCode == tvx::cc::kNotPresent) break;
            return std::nullopt;
        }
        SelEvent ev = added(e.record, addTime);
        if (ids_.insert(ev.value16).second) events.push_back(ev);
        newest = ev.value16;
        id = e.next;
    }
    lastId_ = newest;
    return events;
}

std::optional<std::vector<SelEvent>> SelPoller::compareAll(IpmiSession *s, uint32_t addTime)
{
    std::string why;
    auto all = readAll(s, why);
    if (!all) {
        fail("cannot read the SEL: " + why);
        return std::nullopt;
    }
    std::vector<SelEvent> events;
    std::set<uint16_t> present;
    lastId_.reset();
    for (const Record &r : *all) {
        SelEvent ev = added(r, addTime);
        present.insert(ev.value16);
        if (!ids_.count(ev.value16)) events.push_back(ev);
        lastId_ = ev.value16;
    }
    ids_ = std::move(present);
    return events;
}

} // namespace selnotifyd
