// Device identity, raw requests, configuration space, console logging, chassis and LEDs.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    IpmiDeviceId id = ipmiGetDeviceId(s);
    (void)id;
    uint8_t req[32] = {};
    for (uint8_t &b : req) b = p.u8();
    uint8_t res[64];
    uint32_t resLen = 1 + p.below(sizeof res);
    ipmiSendCmd(s, req[0], req[1], p.below(sizeof req), req, &resLen, res);
    uint8_t value[256];
    uint16_t variable = p.u16();
    ipmiReadConfigSpaceVariable(s, p.u8(), variable, value);
    ipmiWriteConfigSpaceVariable(s, variable, p.u8(), req, static_cast<uint8_t>(p.below(sizeof req)));
    uint8_t small[16];
    getConfigSpaceVariable(small, 1 + p.below(sizeof small), p.u8(), p.u16());
    uint32_t state = 0;
    ipmiConsoleLogGetState(s, &state);
    ipmiOemAgetConnected(s);
    ipmiGetEEPROMInfo(s, p.below(4));
    ipmiChassisPowerStatus(s);
    ipmiGetIdenLed(s);
    ipmiGetErrLed(s);
}

const Target &target()
{
    static const Target t{48, run,
                          {{0x18, 0x01},
                           {0x18, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                            40, 2, 0x01, 0x02, 0, 0, 0x00, 0x21, 4, 16, 0, 0x05, 0x02}}};
    return t;
}

} // namespace tvxfuzz
