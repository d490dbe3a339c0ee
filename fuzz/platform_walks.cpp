// The platform's SDR and SEL walks with hostile Get SDR and Get SEL Entry answers, and the
// reading conversion over the records they return.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    if (p.u8() & 1) {
        uint32_t size = 1 + p.u16() % 8192;
        std::vector<uint8_t> buffer(size);
        // The conversion takes a whole record and trusts its caller for that: only a first
        // slot that holds its header and the length the header gives is converted.
        if (LIBIPMI_HL_GetAllSDRs(s, buffer.data(), size, 5) == LIBIPMI_STATUS_OK && size >= 5 &&
            5u + buffer[4] <= size) {
            float value = 0;
            ipmi_convert_reading(buffer.data(), p.u8(), &value);
        }
        return;
    }
    uint16_t count = 0;
    LIBIPMI_HL_GetNumOfSELEntries(s, &count, 5);
    // Exactly the reported count: anything written past it is a finding.
    std::vector<SelRecord> records(count);
    LIBIPMI_HL_GetAllSELEntries(s, count ? records.data() : nullptr, 5);
}

const Target &target()
{
    static const Target t{4, run, {{1, 0x00, 0x10}, {1, 0x00, 0x04, 0x80}, {0}}};
    return t;
}

} // namespace tvxfuzz
