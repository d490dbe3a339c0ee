// The platform's FRU decoder: fuzzed inventory areas read through Read FRU Data.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    FruData record;
    std::memset(&record, 0, sizeof record);
    uint32_t length = 0;
    LIBIPMI_HL_GetFRUData(s, p.u8(), &length, &record, 5);
}

const Target &target()
{
    static const Target t{1, run, {{0}, {1}, {2}}};
    return t;
}

} // namespace tvxfuzz
