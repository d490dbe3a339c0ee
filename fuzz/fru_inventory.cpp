// FRU decoding through the chassis and board inventory over a fuzzed SDR repository.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    SDRInfo info{};
    getSDRInfo(s, &info);
    if (p.u8() & 1) {
        ChassisInfo c{};
        ipmiGetChassisInfo(s, &c, &info);
        ipmiFreeChassisInfo(&c);
    } else {
        BoardInfo b{};
        ipmiGetBoardInfo(s, &b, &info);
        ipmiFreeBoardInfo(&b);
    }
    freeSDRInfo(&info);
}

const Target &target()
{
    static const Target t{1, run, {{0}, {1}}, true};
    return t;
}

} // namespace tvxfuzz
