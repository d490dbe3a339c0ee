#include "collector.h"

#include <cstring>

#include "agent_pass.h"
#include "libipmi.h"
#include "rollup_getters.h"
#include "tvx/records.h"
#include "tvx/session.h"
#include "tvx/text.h"
#include "tvx/wire.h"

namespace tvxagent {
namespace {

namespace sdr = tvx::sdr;
using tvxctl::AgentSensor;
using tvxctl::SensorClass;

constexpr int kRepositoryInfoTimeout = 60;
constexpr uint8_t kProcessorSensor = 0x07;
constexpr uint8_t kMemorySensor = 0x0C;
constexpr uint8_t kSensorSpecific = 0x6F;
constexpr uint32_t kNotRead = 0xFFFFFFFFu;

Value num(long v) { return Value::number(v); }
Value text(const char *s) { return Value::text(s ? s : ""); }
// The getters' "could not say" as all ones becomes the MIB's -1.
Value counted(uint32_t v) { return num(v == kNotRead ? -1 : static_cast<long>(v)); }

void sensorRows(Snapshot &out, SDRInfo *info)
{
    for (const AgentSensor &s : tvxctl::agentSensors(info)) {
        const uint8_t n = s.number;
        switch (s.kind) {
        case SensorClass::Temperature:
            out.table(Table::Temperature)
                .push_back({{n},
                            {Value::text(s.name), num(getTemperatureSensorStatus(n, info)),
                             num(getTemperatureCurrentValue(n, info)), num(getTemperatureThresholdLevel(n, info, 0)),
                             num(getTemperatureThresholdLevel(n, info, 1))}});
            break;
        case SensorClass::Fan:
            out.table(Table::Fan).push_back({{n},
                                             {Value::text(s.name), num(getFanStatus(n, info)),
                                              num(getFanCurrentSpeed(n, info)), num(getFanQuality(n, info)),
                                              num(getNormalMax(n, s.sensorType, info))}});
            break;
        case SensorClass::Voltage:
            out.table(Table::Voltage)
                .push_back({{n},
                            {Value::text(s.name), num(getVoltStatus(n, info)), num(getVoltCurrentValue(n, info)),
                             num(getVoltNominalValue(n, s.sensorType, info)),
                             num(getVoltThresholds(n, s.sensorType, info, 0)),
                             num(getVoltThresholds(n, s.sensorType, info, 1))}});
            break;
        case SensorClass::Current:
            out.table(Table::Current)
                .push_back({{n},
                            {Value::text(s.name), num(getCurrentSensorsStatus(n, s.sensorType, info)),
                             num(getCurrentValue(n, s.sensorType, info)), num(getNormalMax(n, s.sensorType, info))}});
            break;
        case SensorClass::PowerSupply:
            out.table(Table::PowerSupply)
                .push_back({{s.ordinal},
                            {Value::text(s.name), num(n), num(getPowerSupplyStatus(n, info)),
                             num(getPowerSupplyLoad(s.ordinal, info)), num(getPowerSupplyNominal(n, s.ordinal, info))}});
            break;
        default:
            break;
        }
    }
}

// The compact sensor records of one sensor type (and reading type, when given), in
// repository order: how the agent numbers sockets and module slots.
struct Slot {
    uint8_t number;
    std::string name;
};
std::vector<Slot> slotsOf(SDRInfo *info, uint8_t sensorType, int readingType)
{
    std::vector<Slot> out;
    for (uint32_t i = 0; i < info->count; ++i) {
        const uint8_t *record = getSdrByIndex(i, info);
        if (!record) break;
        tvx::wire::View r(record, info->recordSize);
        if (r.get(sdr::kRecordType, uint8_t{0}) != sdr::kCompactSensor ||
            r.get(sdr::kSensorType, uint8_t{0}) != sensorType)
            continue;
        if (readingType >= 0 && r.get(sdr::kEventReadingType, uint8_t{0}) != readingType) continue;
        out.push_back({r.get(sdr::kSensorNumber, uint8_t{0}), std::string(sdr::idString(r).view())});
    }
    return out;
}

void processorRows(Snapshot &out, SDRInfo *info)
{
    const std::vector<Slot> sockets = slotsOf(info, kProcessorSensor, kSensorSpecific);
    for (uint32_t socket = 0; socket < sockets.size(); ++socket) {
        const uint32_t n = sockets[socket].number;
        char model[TVX_CPU_RECORD_SIZE + 1] = {};
        const bool named = getCpuModelName(model, TVX_CPU_RECORD_SIZE, n, socket) != nullptr;
        char step[8] = {};
        const uint32_t stepping = getCpuStep(step, sizeof step - 1, n, socket);
        out.table(Table::Processor)
            .push_back({{static_cast<long>(socket) + 1},
                        {Value::text(sockets[socket].name), num(n), num(getCpuStatus(n, socket, 0)),
                         text(getCpuManufacturerName(n, socket)), Value::text(named ? model : ""),
                         num(stepping), num(getCpuFamily(n, socket)), counted(getCpuCurrentSpeed(n, socket)),
                         num(getCpuCacheSize(n, socket, 1)), num(getCpuCacheSize(n, socket, 2)),
                         num(getCpuCacheSize(n, socket, 3)), num(getCpuNumberCores(n, socket)),
                         num(getCpuEnabledCores(n, socket)), num(getCpuNumberLogicals(n, socket)),
                         num(getCpuMultithreadingEnabled(n, socket))}});
    }
}

void memoryRows(Snapshot &out, SDRInfo *info)
{
    unsigned maxIndex = 0;
    {
        tvx::Session session; // the getters open their own
        if (!session) return;
        maxIndex = getMemoryMaxIndex(session.get());
    }
    const std::vector<Slot> slots = slotsOf(info, kMemorySensor, -1);
    // Without a memory sensor and with the highest index 0 the controller reports no slots.
    if (maxIndex == 0 && slots.empty()) return;
    constexpr uint32_t kText = 64;
    for (unsigned m = 0; m <= maxIndex && m <= 0xFF; ++m) {
        const uint8_t module = static_cast<uint8_t>(m);
        auto spdText = [](auto getter, uint8_t mod) {
            char buffer[kText + 1] = {};
            return Value::text(getter(buffer, kText, mod) ? buffer : "");
        };
        out.table(Table::Memory)
            .push_back({{static_cast<long>(m) + 1},
                        {Value::text(m < slots.size() ? slots[m].name : ""), num(getMemoryModuleStatus(module)),
                         counted(getMemoryModuleCapacity(module)), counted(getMemoryModuleFrequency(module)),
                         num(getMemoryModuleMaxFrequency(module)), num(getMemoryModuleApprovedStatus(module)),
                         num(getMemoryModuleConfig(module)), spdText(getMemoryModuleForm, module),
                         spdText(getMemoryModuleType, module), spdText(getMemoryModuleVoltInterface, module)}});
    }
}

} // namespace

void Collector::refreshSdrCache()
{
    SdrRepositoryInfo repo;
    std::memset(&repo, 0, sizeof repo);
    {
        tvx::Session session;
        if (!session) {
            problem_ = "cannot open a session with the controller";
            return;
        }
        if (IPMICMD_GetSDRRepositoryInfo(session.get(), &repo, kRepositoryInfoTimeout) != 0) {
            problem_ = "cannot read the SDR repository's information";
            return;
        }
        if (cached_ && repo.addTimeStamp == addStamp_ && repo.eraseTimeStamp == eraseStamp_) return;
        // Built from the stamps read before the records: a change during the build shows as
        // moved stamps next time and the cache is built again.
        SDRInfo fresh{};
        if (getSDRInfo(session.get(), &fresh) != 1) {
            freeSDRInfo(&fresh);
            problem_ = "cannot read the SDR repository";
            return;
        }
        freeSDRInfo(&sdr_);
        sdr_ = fresh;
    }
    cached_ = true;
    addStamp_ = repo.addTimeStamp;
    eraseStamp_ = repo.eraseTimeStamp;
    ++builds_;
}

Snapshot Collector::collect()
{
    problem_.clear();
    refreshSdrCache();
    Snapshot out;
    out.sdrCacheValid = cached_;
    out.sdrRecords = sdr_.count;
    sensorRows(out, &sdr_);
    processorRows(out, &sdr_);
    memoryRows(out, &sdr_);
    collectRollup(out, &sdr_, ports_);
    return out;
}

bool Collector::testAlertAvailable() { return rollupTestAlertAvailable(); }

bool Collector::sendTestAlert() { return rollupSendTestAlert(); }

} // namespace tvxagent
