// SEL raw lines, the log's summary and time offset, and timestamps as text.
#include "harness.h"

#include <ctime>

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    drop(ipmiGetSelRawStrings(s, p.u8() & 1));
    ipmiGetSelInfo(s);
    ipmiGetSelTimeUtcOffset(s);
    uint8_t record[16];
    for (uint8_t &b : record) b = p.u8();
    ListNode *list = nullptr;
    addEntryToRawStringList(&list, record);
    drop(list);
    time_t when = static_cast<time_t>(static_cast<int64_t>(p.u32()) << (p.u8() % 32));
    if (p.u8() & 1) when = -when;
    char text[32];
    convertTime(&when, text, p.below(sizeof text));
}

const Target &target()
{
    static const Target t{32, run, {{0}, {1}}, true};
    return t;
}

} // namespace tvxfuzz
