// SEL entries as texts: error codes, chunked message texts, follow-ups, entry texts.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    uint8_t selector = p.u8();
    uint16_t language = p.u8() & 1 ? TVX_LANG_GERMAN : TVX_LANG_ENGLISH;
    uint8_t record[16];
    for (uint8_t &b : record) b = p.u8();
    switch (p.below(6)) {
    case 0: drop(ipmiGetSelText(s, p.u8() & 1, selector)); break;
    case 1: {
        ErrorCodeRecord *code = getErrorCode(s, record, selector);
        if (code) std::free(getSelTextByErrorCode(s, code, nullptr, 0, selector, language));
        freeErrorCode(code);
        break;
    }
    case 2: std::free(buildSelTextString(s, record, selector, p.u8() & 1, p.u8() & 1, language)); break;
    case 3: getSELEntryText(s, p.u16()); break;
    case 4: std::free(ipmiInterpretSELEntryUsTextFollowUp(s, p.u8(), p.u16())); break;
    default: {
        iESLText t = ipmiGetiESLSELEntryAsText(s, selector, p.u16(), p.u8(), p.u16(), p.u8(), p.u8());
        std::free(t.text);
        break;
    }
    }
}

const Target &target()
{
    static const Target t{32, run,
                          {{0, 0, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x20, 0x00, 0x04, 0x10, 0x70, 0x6F, 0x02, 0xFF, 0xFF, 0},
                           {0, 0, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x20, 0x00, 0x04, 0x10, 0x70, 0x6F, 0x02, 0xFF, 0xFF, 1},
                           {0, 0, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x20, 0x00, 0x04, 0x10, 0x70, 0x6F, 0x02, 0xFF, 0xFF, 2, 1, 1},
                           {0, 1, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x20, 0x00, 0x04, 0x10, 0x70, 0x6F, 0x02, 0xFF, 0xFF, 3, 1, 0},
                           {0, 0, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x20, 0x00, 0x04, 0x10, 0x70, 0x6F, 0x02, 0xFF, 0xFF, 5, 1, 0}},
                          true};
    return t;
}

} // namespace tvxfuzz
