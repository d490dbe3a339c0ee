// LAN parameters, the login banner and the partition helpers.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    switch (p.below(4)) {
    case 0: {
        getChannel(s);
        std::free(_ipmiGetLanParameter(s, p.u8()));
        std::free(ipmiGetIpAddress(s));
        std::free(ipmiGetNetMask(s));
        std::free(ipmiGetDefaultGateway(s));
        std::free(ipmiGetMacAddress(s));
        ipmiGetAddressSource(s);
        break;
    }
    case 1: {
        uint8_t data[6];
        for (uint8_t &b : data) b = p.u8();
        _ipmiSetLanParameter(s, p.u8(), data);
        break;
    }
    case 2: ipmiPrintLoginHeader(s); break;
    default: KV_rmMenu(s), ipmiGetSbNumber(s), ipmiIsKVSystem(s), ipmiGetSbSlaveAddr(s); break;
    }
}

const Target &target()
{
    static const Target t{8, run, {{0, 3}, {1, 10, 0, 0, 5, 255, 255, 3}, {2}, {3}}};
    return t;
}

} // namespace tvxfuzz
