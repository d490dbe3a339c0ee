// Watching a controller's SEL: each poll asks Get SEL Info and, when the last-addition or
// last-erase time or the number of entries moved, finds what changed (the times count
// seconds, so two additions within one second show in the count). New entries are read from the last one seen
// along the next-record IDs (one Get SEL Entry each); a controller that cannot answer so
// (partial reads only, or the last entry seen was deleted) has its whole log read and
// compared with the record IDs already known.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "libipmi.h"

namespace selnotifyd {

struct SelEvent {
    uint8_t code;
    uint16_t value16;
    uint32_t value32;
};

class SelPoller {
public:
    // log: where the poller says what went wrong (one line, no newline).
    explicit SelPoller(std::function<void(const std::string &)> log) : log_(std::move(log)) {}

    // One poll. The first successful poll only learns the log as it stands.
    std::vector<SelEvent> poll();
    bool ready() const { return known_; }

private:
    bool baseline(IpmiSession *s, const SelInfo &info);
    // Entries after the last one seen; nothing when the walk cannot be made.
    std::optional<std::vector<SelEvent>> walk(IpmiSession *s, uint32_t addTime);
    std::optional<std::vector<SelEvent>> compareAll(IpmiSession *s, uint32_t addTime);
    void fail(const std::string &what);

    std::function<void(const std::string &)> log_;
    bool known_ = false;
    bool failing_ = false;
    uint32_t lastAdd_ = 0, lastErase_ = 0;
    uint16_t entries_ = 0;
    std::optional<uint16_t> lastId_; // the newest entry seen (none: the log was empty)
    std::set<uint16_t> ids_;         // every entry seen since the log was last erased
};

} // namespace selnotifyd
