// The internal event log: summary and entries.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    ipmiGetiELInfo(s);
    iELEntry e = ipmiGetiELEntry(s, p.u16(), p.u16());
    std::free(e.body);
}

const Target &target()
{
    static const Target t{4, run, {{0, 0, 0, 0}, {1, 0, 0, 0}, {0xFF, 0xFF, 0, 0}}};
    return t;
}

} // namespace tvxfuzz
