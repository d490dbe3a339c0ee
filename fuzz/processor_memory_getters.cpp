// The agent's processor and memory-module getters (each opens its own sessions).
#include "harness.h"

namespace tvxfuzz {

static void run(IpmiSession *s, Params &p)
{
    uint32_t sensor = p.u8(), socket = p.u8();
    uint8_t module = p.u8();
    char text[64] = {};
    uint32_t length = p.below(sizeof text);
    switch (p.below(8)) {
    case 0: {
        uint8_t record[TVX_CPU_RECORD_SIZE];
        getCpuPresenceStatus(s, sensor), getCpuInfo(s, record, sensor, socket);
        break;
    }
    case 1: getCpuManufacturerName(sensor, socket), getCpuModelName(text, length, sensor, socket); break;
    case 2: getCpuStep(text, length, sensor, socket), getCpuStatus(sensor, socket, p.u8() & 1); break;
    case 3:
        getCpuCurrentSpeed(sensor, socket), getCpuNumberLogicals(sensor, socket),
            getCpuCacheSize(sensor, socket, p.below(4));
        break;
    case 4:
        getCpuNumberCores(sensor, socket), getCpuFamily(sensor, socket), getCpuEnabledCores(sensor, socket),
            getCpuMultithreadingEnabled(sensor, socket);
        break;
    case 5: {
        MemoryModuleInfo info{};
        getMemoryMaxIndex(s), getMemoryModuleInfo(module, &info), getMemoryModuleCapacity(module);
        getMemoryModuleStatus(module), getMemoryModuleApprovedStatus(module), getMemoryModuleConfig(module);
        break;
    }
    case 6: getMemoryModuleForm(text, length, module), getMemoryModuleType(text, length, module); break;
    default: getMemoryModuleMaxFrequency(module), getMemoryModuleVoltInterface(text, length, module); break;
    }
}

const Target &target()
{
    static const Target t{8, run,
                          {{0x38, 0, 0, 63, 0},
                           {0x38, 0, 0, 63, 1},
                           {0x38, 0, 0, 63, 2, 0},
                           {0x38, 0, 0, 63, 3, 2},
                           {0x38, 1, 0, 63, 4},
                           {0, 0, 0, 63, 5},
                           {0, 0, 0, 63, 6},
                           {0, 0, 1, 63, 7}}};
    return t;
}

} // namespace tvxfuzz
