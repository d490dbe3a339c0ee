// The SDR cache, record lookups, sensor readings and sensor texts.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    SDRInfo info{};
    getSDRInfo(s, &info);
    uint8_t number = p.u8();
    for (uint32_t i = 0; i < info.count; ++i) getSdrByIndex(i, &info);
    findCompactSdrByEntity(p.u8(), p.u8(), p.u8(), &info);
    ListNode *list = nullptr;
    ipmiFindSensorByType(&list, 1 + p.below(2), p.u8(), &info);
    drop(list);
    uint8_t reading = 0;
    uint16_t state = 0;
    ipmiGetSensorReading(s, number, &reading, &state);
    ipmiSdrGetStatus(p.u32());
    int32_t offset = 0;
    ipmiGetDiscreteState(p.u8(), p.u8(), p.u8(), p.u8(), &offset);
    ipmiSdrGetSensorTypeDesc(p.u32()); // static buffers, as are the OEM texts
    oemval2str(p.u32(), p.u32(), ipmi_oem_sdr_type_vals);
    getUnitDesc(p.u32());
    uint8_t key[2];
    for (uint8_t &b : key) b = p.u8();
    std::free(oemGetComponentStatus(s, key));
    freeSDRInfo(&info);
}

const Target &target()
{
    static const Target t{40, run, {{0x01, 0x07, 0x01, 0x01, 1, 0x01}, {0x38, 0x03, 0x01, 0x07, 2, 0x07}}, true};
    return t;
}

} // namespace tvxfuzz
