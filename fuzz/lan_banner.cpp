// LAN parameters, the login banner and the partition helpers.
#include "harness.h"

namespace tvxfuzz {

// One call per input: every LAN getter looks the channel up again (up to 15 requests when no
// answer names it), so calling all of them per input made each input cost a hundred requests
// and a fifth of the executions for the same paths.
static void run(IpmiSession *s, Params &p)
{
    static uint8_t *(*const addresses[])(IpmiSession *) = {ipmiGetIpAddress, ipmiGetNetMask, ipmiGetDefaultGateway,
                                                           ipmiGetMacAddress};
    const uint32_t op = p.below(10);
    switch (op) {
    case 0: getChannel(s); break;
    case 1: std::free(_ipmiGetLanParameter(s, p.u8())); break;
    case 2:
    case 3:
    case 4:
    case 5: std::free(addresses[op - 2](s)); break;
    case 6: ipmiGetAddressSource(s); break;
    case 7: {
        const uint8_t selector = p.u8();
        uint8_t data[6];
        for (uint8_t &b : data) b = p.u8();
        _ipmiSetLanParameter(s, selector, data);
        break;
    }
    case 8: ipmiPrintLoginHeader(s); break;
    default: KV_rmMenu(s), ipmiGetSbNumber(s), ipmiIsKVSystem(s), ipmiGetSbSlaveAddr(s); break;
    }
}

const Target &target()
{
    static const Target t{8, run, {{0}, {1, 3}, {2}, {3}, {4}, {5}, {6}, {7, 3, 10, 0, 0, 5, 255, 255}, {8}, {9}}};
    return t;
}

} // namespace tvxfuzz
