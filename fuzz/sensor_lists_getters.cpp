// Sensor lists over a fuzzed SDR repository and the agent's sensor getters.
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    SDRInfo info{};
    getSDRInfo(s, &info);
    ListNode *list = nullptr;
    switch (p.below(6)) {
    case 0: ipmiGetFanSensors(s, &list, &info); break;
    case 1: ipmiGetTVCSensors(s, &list, 1 + p.below(3), &info); break;
    case 2: ipmiGetDiscreteSensors(s, &list, p.u8(), p.u8(), p.u8(), 0, p.u8() & 1, &info); break;
    case 3: ipmiGetCommonSensors(&list, &info); break;
    case 4: {
        uint32_t first = 0, second = 0;
        ipmiGetFanMaximumSpeed(s, p.u8(), &first, &second);
        break;
    }
    default: break;
    }
    drop(list);
    uint8_t number = p.u8(), type = p.u8();
    int32_t which = static_cast<int32_t>(p.u8()) - 2;
    switch (p.below(12)) {
    case 0: getSdrSensorStatus(s, number, type, p.u8()); break;
    case 1: getCurrentSensorsStatus(number, type, &info), getCurrentValue(number, type, &info); break;
    case 2: getCriticalReaction(number, type, &info); break;
    case 3:
        getTemperatureSensorStatus(number, &info), getTemperatureCurrentValue(number, &info),
            getTemperatureThresholdLevel(number, &info, which);
        break;
    case 4: getFanStatus(number, &info), getFanCurrentSpeed(number, &info), getFanQuality(number, &info); break;
    case 5: getFanFailShutdownDelay(number, &info); break;
    case 6: getPowerSupplyStatus(number, &info), getPowerSupplyLoad(number, &info); break;
    case 7: getPowerSupplyNominal(number, p.u8(), &info); break;
    case 8: getNormalMax(number, type, &info); break;
    case 9: getVoltStatus(number, &info), getVoltCurrentValue(number, &info); break;
    case 10: getVoltNominalValue(number, type, &info), getVoltThresholds(number, type, &info, which); break;
    default: break;
    }
    freeSDRInfo(&info);
}

const Target &target()
{
    static const Target t{16, run,
                          {{0, 0, 0, 0, 1, 0, 4},
                           {1, 1, 0, 0, 1, 1, 3},
                           {2, 0x07, 0x6F, 0x07, 1, 1, 0, 1},
                           {4, 1, 0, 0, 1, 4, 4},
                           {5, 0, 0, 0, 1, 2, 9},
                           {3, 0, 0, 0, 1, 0x0B, 6}}};
    return t;
}

} // namespace tvxfuzz
