// Memory module queries, SPD images, the PCI slot table and the language list.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    uint8_t module = p.u8();
    switch (p.below(4)) {
    case 0: ipmiGetMemoryModuleStatus(s, module), ipmiGetMemoryModuleConfig(s, module), ipmiGetMemoryPolicy(s); break;
    case 1: {
        uint8_t image[TVX_SPD_IMAGE_SIZE];
        getMemorySPDdata(s, image, 1 + p.below(sizeof image), module);
        break;
    }
    case 2: ipmiGetPciInfo(s, p.u8()); break;
    default: {
        uint16_t *list = nullptr;
        if (p.u8() & 1) {
            ipmiGetSupportedLanguage(s, &list);
            std::free(list);
        } else {
            uint16_t mine[37];
            list = mine;
            ipmiGetSupportedLanguage(s, &list);
        }
        break;
    }
    }
}

const Target &target()
{
    static const Target t{4, run, {{0, 0}, {0, 1, 255}, {1, 2, 3}, {0, 3, 1}, {0, 3, 0}}};
    return t;
}

} // namespace tvxfuzz
