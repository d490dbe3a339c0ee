// The agent's identity, and the status of components, classes and the whole system: the
// controller's signal state and presence per component (OEM command 0xF5), the texts that
// explain a component's state, and the rollup of component statuses to one value per class
// and one for the system.
#include <cstdio>
#include <cstring>

#include "common/exchange.h"
#include "common/session_guard.h"
#include "tvx/oem_hardware.h"
#include "tvx/records.h"
#include "tvx_toipmi.h"

namespace hw = tvx::oem::hw;
namespace component = tvx::oem::hw::component;
using tvx::Exchange;
using tvx::wire::View;

// For the library's users only.
TVX_API uint32_t gSystemCondition = 0;

namespace {

constexpr char kAgentId[] = "Halvex Tessorin 2 hardware monitoring agent";
constexpr char kAgentCompany[] = "Veltrane";
constexpr char kBuildUnknown[] = "Build: unknown";
constexpr uint8_t kBuildVersionIndex = 1, kBuildIndex = 0;
constexpr std::size_t kComponentAnswerSize = 64;
constexpr std::size_t kVariableBufferSize = 255;
constexpr std::size_t kVariableTextMax = TVX_CONFIG_VALUE_MAX;

// Sensor types (component classes) and the entities and sensors the texts consult.
constexpr uint8_t kTemperature = 0x01, kVoltage = 0x02, kFan = 0x04, kProcessor = 0x07, kPowerSupply = 0x08,
                  kMemory = 0x0C, kDriveSlot = 0x0D, kEntityPresence = 0x25, kMemoryModuleStatus = 0xDE,
                  kFanStatus = 0xE6, kPowerSupplyStatus = 0xE8;
constexpr uint8_t kSensorSpecific = 0x6F;
constexpr uint8_t kSystemFirmware = 0x22, kPciBus = 0x30, kPciExpressBus = 0x31;
constexpr uint8_t kBootKind = 0;

// State bits of the sensors the texts consult.
constexpr uint16_t kEntityPresent = 1u << 0;
constexpr uint16_t kFanNotInstalled = 1u << 5;
constexpr uint16_t kProcessorDisabled = 1u << 8;
constexpr uint16_t kPsuNotInstalled = 1u << 0;
constexpr uint16_t kMemoryEmptySlot = 1;
constexpr uint16_t kMemoryUnknown = 1u << 7;

// The component-status map: for each class, the rollup value of each status its getter gives
// (a status beyond a row, or a class without one, does not count).
struct ClassMap {
    uint8_t sensorType;
    uint8_t byStatus[11];
};
constexpr ClassMap kRollupMap[] = {
    {kTemperature, {0, 0, 0, 0, 0, 3, 2, 3, 1}},
    {kVoltage, {0, 0, 0, 1, 3, 3, 3, 2}},
    {kFan, {0, 0, 0, 1, 3, 2, 2}},
    {kProcessor, {0, 0, 1, 1, 1, 3, 3, 0, 2}},
    {kMemory, {0, 0, 1, 1, 1, 3, 3, 2, 1, 1, 1}},
    {kPowerSupplyStatus, {0, 0, 0, 1, 2, 2, 2, 2, 0, 2, 2}},
};

// The boot status by the system firmware's signal state 0-3.
constexpr uint32_t kBootByState[] = {1, 1, 2, 3};

template <std::size_t N> int copyText(char *buffer, unsigned length, const char (&text)[N])
{
    constexpr unsigned count = N - 1;
    if (!buffer || length < count) return -1;
    std::memcpy(buffer, text, count);
    return static_cast<int>(count);
}

// "Build: <variable>" into the caller's buffer; see snmpGetAgentVersion.
int buildText(char *buffer, unsigned length, uint8_t index)
{
    if (!buffer || length == 0) return -1;
    IpmiSession *session = ipmiHelperOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
    if (!session) {
        std::snprintf(buffer, length, "%s", kBuildUnknown);
        return static_cast<int>(std::strlen(buffer));
    }
    uint8_t value[kVariableBufferSize] = {};
    int read = ipmiReadConfigSpaceVariable(session, index, TVX_VAR_FIRMWARE_BUILD, value);
    ipmiHelperCloseSession(&session);
    if (read > 0) {
        std::size_t size = static_cast<std::size_t>(read) < kVariableTextMax ? static_cast<std::size_t>(read)
                                                                              : kVariableTextMax;
        std::size_t text = strnlen(reinterpret_cast<const char *>(value), size);
        if (text > 0)
            std::snprintf(buffer, length, "Build: %.*s", static_cast<int>(text), reinterpret_cast<const char *>(value));
    }
    return static_cast<int>(strnlen(buffer, length));
}

const uint8_t *sensorSpecificSdr(uint8_t entityId, uint8_t entityInstance, uint8_t sensorType, SDRInfo *info)
{
    const uint8_t *sdr = findCompactSdrByEntity(entityId, entityInstance, sensorType, info);
    if (!sdr || View(sdr, TVX_SDR_POS_EVENT_TYPE + 1).get(tvx::sdr::kEventReadingType) != kSensorSpecific)
        return nullptr;
    return sdr;
}

uint8_t sensorNumberOf(const uint8_t *sdr) { return View(sdr, TVX_SDR_POS_EVENT_TYPE + 1).get(tvx::sdr::kSensorNumber, uint8_t{0}); }

// A component request's answer, when it came with the IANA echo.
struct ComponentAnswer {
    Exchange<kComponentAnswerSize> answer{0xFF};
    bool usable = false;
    ComponentAnswer(IpmiSession *session, uint8_t sub, uint8_t kind, uint8_t entityId, uint8_t entityInstance)
    {
        usable = answer.sendCmd(session, hw::kVendorQuery, hw::componentRequest(sub, entityId, entityInstance, kind)) &&
                 answer.echoesIana();
    }
    uint8_t value() const { return answer.filled().get(hw::kValue, uint8_t{0xFF}); }
};

} // namespace

extern "C" {

TVX_API int snmpGetAgentId(char *buffer, unsigned length) { return copyText(buffer, length, kAgentId); }

TVX_API int snmpGetAgentCompany(char *buffer, unsigned length) { return copyText(buffer, length, kAgentCompany); }

TVX_API int snmpGetAgentVersion(char *buffer, unsigned length) { return buildText(buffer, length, kBuildVersionIndex); }

TVX_API int snmpGetAgentBuild(char *buffer, unsigned length) { return buildText(buffer, length, kBuildIndex); }

TVX_API int snmpGetAgentWriteAllowed(void) { return 2; }

TVX_API int snmpGetAgentShutdownAllowed(void) { return 2; }

TVX_API uint8_t componentStatusSignalRead(IpmiSession *session, uint8_t kind, uint8_t entityId, uint8_t entityInstance)
{
    ComponentAnswer a(session, hw::sub::kSignalRead, kind, entityId, entityInstance);
    if (!a.usable) return TVX_SIGNAL_NO_ANSWER;
    switch (a.answer.completionCode()) {
    case tvx::cc::kOk: return static_cast<uint8_t>(tvx::wire::bits(a.value(), 0, component::kSignalBits));
    case component::kCannotRead: return TVX_SIGNAL_CANNOT_READ;
    case component::kEmptySlot: return TVX_SIGNAL_EMPTY_SLOT;
    default: return TVX_SIGNAL_NO_ANSWER;
    }
}

TVX_API int getCompStatusPresent(IpmiSession *session, uint8_t kind, uint8_t entityId, uint8_t entityInstance)
{
    ComponentAnswer a(session, hw::sub::kPresence, kind, entityId, entityInstance);
    if (!a.usable || a.answer.completionCode() != tvx::cc::kOk) return -1;
    return a.value();
}

TVX_API uint32_t getComponentSensorStatus(uint8_t kind, uint8_t entityId, uint8_t entityInstance)
{
    tvx::AgentSession session;
    if (!session) return TVX_COMPONENT_NO_SESSION;
    int presence = getCompStatusPresent(session.get(), kind, entityId, entityInstance);
    if (presence == component::kAbsent || presence == component::kAbsentToo) return TVX_COMPONENT_NOT_PRESENT;
    uint8_t signal = componentStatusSignalRead(session.get(), kind, entityId, entityInstance);
    if (signal <= 3) return 2u + signal;
    if (signal == TVX_SIGNAL_CANNOT_READ || signal == TVX_SIGNAL_EMPTY_SLOT) return TVX_COMPONENT_NOT_PRESENT;
    return TVX_COMPONENT_UNKNOWN;
}

TVX_API int isSdrEntityPresent(uint8_t entityId, uint8_t entityInstance, SDRInfo *info)
{
    tvx::AgentSession session;
    if (!session) return 0;
    const uint8_t *sdr = sensorSpecificSdr(entityId, entityInstance, kEntityPresence, info);
    if (!sdr) return 1;
    uint16_t state = 0;
    if (ipmiGetSensorReading(session.get(), sensorNumberOf(sdr), nullptr, &state)) return (state & kEntityPresent) ? 1 : 0;
    // A presence sensor cannot be read while the server is off; that does not make it absent.
    return ipmiChassisPowerStatus(session.get()) == 0 ? 1 : 0;
}

TVX_API const char *ipmiGetSignalStatus(IpmiSession *session, uint8_t entityId, uint8_t entityInstance, uint8_t kind,
                                        uint8_t *status, SDRInfo *info)
{
    uint8_t scratch = 0;
    uint8_t &signal = status ? *status : scratch;
    const char *text = nullptr;
    bool powerMatters = false;
    uint16_t state = 0;
    auto read = [&](const uint8_t *sdr) { return ipmiGetSensorReading(session, sensorNumberOf(sdr), nullptr, &state) != 0; };

    switch (kind) {
    case kDriveSlot:
        signal = componentStatusSignalRead(session, kDriveSlot, entityId, entityInstance);
        if (signal == TVX_SIGNAL_EMPTY_SLOT) text = "Empty Slot";
        break;
    case kFan:
        if (!isSdrEntityPresent(entityId, entityInstance, info)) {
            signal = TVX_SIGNAL_CANNOT_READ;
            return nullptr;
        }
        if (const uint8_t *sdr = sensorSpecificSdr(entityId, entityInstance, kFanStatus, info)) {
            if (!read(sdr)) powerMatters = true;
            else if (state & kFanNotInstalled) text = "Fan not installed";
        }
        break;
    case kProcessor:
        if (const uint8_t *sdr = sensorSpecificSdr(entityId, entityInstance, kProcessor, info)) {
            if (!read(sdr)) powerMatters = true;
            else if (state == 0) text = "Processor not installed";
            else if (state & kProcessorDisabled) text = "Disabled";
        }
        break;
    case kPowerSupply:
        if (const uint8_t *sdr = sensorSpecificSdr(entityId, entityInstance, kPowerSupplyStatus, info)) {
            if (!read(sdr)) powerMatters = true;
            else if (state & kPsuNotInstalled) text = "PSU not installed";
        }
        break;
    case kMemory:
        // Under a memory policy the controller's module states say everything.
        if (ipmiGetMemoryPolicy(session) != 0) break;
        if (const uint8_t *sdr = sensorSpecificSdr(entityId, entityInstance, kMemoryModuleStatus, info)) {
            if (signal == 1) {
                powerMatters = true;
            } else if (!read(sdr)) {
                text = "N/A";
                powerMatters = true;
            } else if (state == 0) {
                text = "N/A";
            } else if (state == kMemoryEmptySlot) {
                text = "Empty Slot";
            } else if (state & kMemoryUnknown) {
                text = "Unknown";
            }
        }
        break;
    default: signal = componentStatusSignalRead(session, kind, entityId, entityInstance); break;
    }

    if (signal == TVX_SIGNAL_CANNOT_READ) return nullptr;
    if ((entityId == kPciBus || entityId == kPciExpressBus) &&
        ipmiGetPciInfo(session, static_cast<uint8_t>(entityInstance + 1)) == 0)
        text = "Empty PCI Slot";
    if (powerMatters && ipmiChassisPowerStatus(session) == 0) text = "Power Off";
    return text;
}

TVX_API uint8_t getUnitComponentStatus(uint8_t sensorType, uint8_t status)
{
    for (const ClassMap &row : kRollupMap)
        if (row.sensorType == sensorType) return status < sizeof row.byStatus ? row.byStatus[status] : 0;
    return 0;
}

TVX_API uint32_t getStatusBoot(void)
{
    tvx::AgentSession session;
    if (!session) return 0;
    uint8_t signal = componentStatusSignalRead(session.get(), kBootKind, kSystemFirmware, 0);
    return signal < sizeof kBootByState / sizeof kBootByState[0] ? kBootByState[signal] : TVX_ROLLUP_UNKNOWN;
}

TVX_API uint32_t getStatusOverall(SDRInfo *info, uint8_t sensorTypeFilter)
{
    tvx::AgentSession session;
    if (!session) return TVX_ROLLUP_UNKNOWN;
    uint32_t worst = 0;
    uint8_t memoryIndex = 0, processorIndex = 0;
    for (uint32_t index = 0; info && index < info->count; ++index) {
        const uint8_t *sdr = getSdrByIndex(index, info);
        if (!sdr) break;
        View record(sdr, info->recordSize);
        const uint8_t type = record.get(tvx::sdr::kRecordType, uint8_t{0});
        const uint8_t sensorType = record.get(tvx::sdr::kSensorType, uint8_t{0});
        const uint8_t eventType = record.get(tvx::sdr::kEventReadingType, uint8_t{0});
        const uint8_t number = record.get(tvx::sdr::kSensorNumber, uint8_t{0});
        if (type != tvx::sdr::kFullSensor && type != tvx::sdr::kCompactSensor) continue;
        if (sensorTypeFilter != 0 && sensorTypeFilter != sensorType) continue;
        uint32_t status = 0;
        if (type == tvx::sdr::kCompactSensor) {
            if (sensorType == kMemory) {
                status = getMemoryModuleStatus(memoryIndex++);
            } else if (sensorType == kPowerSupplyStatus && eventType == kSensorSpecific) {
                status = static_cast<uint32_t>(getSdrSensorStatus(session.get(), number, sensorType, eventType));
            } else if (sensorType == kProcessor && eventType == kSensorSpecific) {
                status = getCpuStatus(number, processorIndex++, 0);
            } else {
                continue;
            }
        } else if (sensorType == kTemperature || sensorType == kVoltage || sensorType == kFan) {
            status = static_cast<uint32_t>(getSdrSensorStatus(session.get(), number, sensorType, eventType));
        } else {
            continue;
        }
        if (status == 0) continue;
        uint32_t value = status <= 0xFF ? getUnitComponentStatus(sensorType, static_cast<uint8_t>(status)) : 0;
        if (value > worst) worst = value;
    }
    if (sensorTypeFilter == 0) {
        uint32_t boot = getStatusBoot();
        if (boot != TVX_ROLLUP_UNKNOWN && boot > worst) worst = boot;
    }
    return worst == 0 ? TVX_ROLLUP_UNKNOWN : worst;
}

TVX_API uint32_t getStatusPowerSupply(SDRInfo *info) { return getStatusOverall(info, kPowerSupplyStatus); }
TVX_API uint32_t getStatusTemperature(SDRInfo *info) { return getStatusOverall(info, kTemperature); }
TVX_API uint32_t getStatusFans(SDRInfo *info) { return getStatusOverall(info, kFan); }
TVX_API uint32_t getStatusVoltages(SDRInfo *info) { return getStatusOverall(info, kVoltage); }
TVX_API uint32_t getStatusCpu(SDRInfo *info) { return getStatusOverall(info, kProcessor); }
TVX_API uint32_t getStatusMemoryModule(SDRInfo *info) { return getStatusOverall(info, kMemory); }

} // extern "C"
