// Processor getters: presence from the processor's SDR sensor, the processor record and model
// name (OEM command 0xF1) and the processor status (OEM command 0xF5), per socket.
#include <cstdio>
#include <cstring>

#include "common/diag.h"
#include "common/exchange.h"
#include "common/session_guard.h"
#include "tvx/oem_hardware.h"
#include "tvx_toipmi.h"

namespace hw = tvx::oem::hw;
namespace cpu = tvx::oem::hw::cpu;
using tvx::diag::Unit;
using tvx::wire::View;

namespace {

constexpr uint32_t kRecordBufferSize = TVX_CPU_RECORD_SIZE;
static_assert(kRecordBufferSize >= cpu::kRecordSize);
constexpr std::size_t kStatusBufferSize = 8;
constexpr uint32_t kNoValue = 0xFFFFFFFF;

// Processor status codes by the controller's value (the last entry for every larger value),
// one table per status scale.
constexpr uint8_t kStatusByValue[] = {2, 3, 4, 5, 6, 8, 1, 2};
constexpr uint8_t kAltStatusByValue[] = {2, 3, 4, 5, 1, 7, 8, 1};
constexpr uint32_t kStatusNoSession = 1;
constexpr uint32_t kStatusNoAnswer = 2;

constexpr uint32_t kThreadingNoRecord = 1, kThreadingOff = 2, kThreadingOn = 3;

uint8_t socketByte(uint32_t socket) { return static_cast<uint8_t>(socket); }

// The processor record of one socket, read in the getter's session (zero-filled first).
struct Record {
    uint8_t bytes[kRecordBufferSize] = {};
    bool ok = false;

    Record(IpmiSession *session, uint32_t sensorNumber, uint32_t socket)
    {
        ok = getCpuInfo(session, bytes, sensorNumber, socket) == 1;
    }
    template <typename T, std::size_t W> T get(tvx::wire::Field<T, W> field) const
    {
        return View(bytes, sizeof bytes).get(field, T{0});
    }
};

} // namespace

extern "C" {

TVX_API int getCpuPresenceStatus(IpmiSession *session, uint32_t sensorNumber)
{
    uint16_t state = 0;
    // A sensor that cannot be read does not prove the socket empty.
    if (!ipmiGetSensorReading(session, static_cast<uint8_t>(sensorNumber), nullptr, &state)) return 1;
    return state != 0 ? 1 : 0;
}

TVX_API int getCpuInfo(IpmiSession *session, uint8_t *buffer, uint32_t sensorNumber, uint32_t socket)
{
    if (!session || !buffer) return 0;
    if (!getCpuPresenceStatus(session, sensorNumber)) return 0;
    auto request = hw::indexRequest(hw::sub::kCpuRecord, socketByte(socket));
    uint32_t length = kRecordBufferSize;
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, TVX_NETFN_OEM_GROUP, hw::kInventory,
                                                       request.data(), request.size(), buffer, &length,
                                                       tvx::kPlatformTimeout);
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Agent, "Failed to send ipmi raw command.");
        return 0;
    }
    return View(buffer, kRecordBufferSize).get(tvx::kCompletionCode) == tvx::cc::kOk ? 1 : 0;
}

TVX_API const char *getCpuManufacturerName(uint32_t sensorNumber, uint32_t socket)
{
    tvx::AgentSession session;
    if (!session) return "";
    Record record(session.get(), sensorNumber, socket);
    if (!record.ok) return "";
    switch (record.get(cpu::kManufacturer)) {
    case cpu::kIntel: return "Intel";
    case cpu::kAmd: return "AMD";
    default: return "unknown";
    }
}

TVX_API char *getCpuModelName(char *buffer, uint32_t length, uint32_t sensorNumber, uint32_t socket)
{
    tvx::AgentSession session;
    if (!session) return nullptr;
    if (!getCpuPresenceStatus(session.get(), sensorNumber)) return nullptr;
    tvx::Exchange<kRecordBufferSize> answer;
    uint16_t status = answer.sendDirect(session.get(), hw::kInventory,
                                        hw::indexRequest(hw::sub::kCpuModelName, socketByte(socket)));
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Agent, "Failed to send ipmi raw command.");
        return nullptr;
    }
    if (answer.completionCode() != tvx::cc::kOk) return nullptr;
    // The name is the rest of the answer, as it stands (no terminator is added). An answer
    // that does not even reach the payload has no name.
    if (answer.length < tvx::oem::kPayload) return nullptr;
    View name = answer.received().from(tvx::oem::kPayload);
    if (name.size() > length || (name.size() > 0 && !buffer)) return nullptr;
    if (name.size() > 0) std::memcpy(buffer, name.data(), name.size());
    return buffer;
}

TVX_API uint32_t getCpuStep(char *buffer, uint32_t length, uint32_t sensorNumber, uint32_t socket)
{
    tvx::AgentSession session;
    if (!session) return 0;
    Record record(session.get(), sensorNumber, socket);
    uint32_t stepping = record.ok ? tvx::wire::bits(record.get(cpu::kSignatureLow), 0, 4) : 0;
    if (buffer && length > 0) std::snprintf(buffer, length, "%u", stepping);
    return stepping;
}

TVX_API uint32_t getCpuStatus(uint32_t sensorNumber, uint32_t socket, uint32_t mode)
{
    (void)sensorNumber; // the controller is asked by socket; no presence test is made
    tvx::AgentSession session;
    if (!session) return kStatusNoSession;
    const bool alt = mode != 0;
    tvx::Exchange<kStatusBufferSize> answer;
    uint16_t status = answer.sendDirect(
        session.get(), hw::kVendorQuery,
        hw::indexRequest(alt ? hw::sub::kCpuStatusAlt : hw::sub::kCpuStatus, socketByte(socket)));
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Agent, "Failed to send ipmi raw command.");
        return kStatusNoAnswer;
    }
    if (answer.completionCode() != tvx::cc::kOk) return kStatusNoAnswer;
    const uint8_t *table = alt ? kAltStatusByValue : kStatusByValue;
    constexpr std::size_t last = sizeof kStatusByValue - 1;
    uint8_t value = answer.filled().get(hw::kValue, uint8_t{0});
    return table[value < last ? value : last];
}

TVX_API uint32_t getCpuCurrentSpeed(uint32_t sensorNumber, uint32_t socket)
{
    tvx::AgentSession session;
    if (!session) return kNoValue;
    if (!getCpuPresenceStatus(session.get(), sensorNumber)) return 0;
    Record record(session.get(), sensorNumber, socket);
    return record.ok ? record.get(cpu::kCurrentSpeed) : kNoValue;
}

TVX_API int getCpuNumberLogicals(uint32_t sensorNumber, uint32_t socket)
{
    tvx::AgentSession session;
    if (!session) return -1;
    Record record(session.get(), sensorNumber, socket);
    if (!record.ok) return -1;
    return record.get(cpu::kCores) * record.get(cpu::kThreadsPerCore);
}

TVX_API uint32_t getCpuCacheSize(uint32_t sensorNumber, uint32_t socket, uint32_t level)
{
    static constexpr tvx::wire::U16 kByLevel[] = {cpu::kL1Cache, cpu::kL2Cache, cpu::kL3Cache};
    if (level < 1 || level > 3) return 0;
    tvx::AgentSession session;
    if (!session) return 0;
    Record record(session.get(), sensorNumber, socket);
    return record.ok ? record.get(kByLevel[level - 1]) : 0;
}

TVX_API uint32_t getCpuNumberCores(uint32_t sensorNumber, uint32_t socket)
{
    tvx::AgentSession session;
    if (!session) return 0;
    Record record(session.get(), sensorNumber, socket);
    return record.ok ? record.get(cpu::kCores) : 0;
}

TVX_API uint32_t getCpuFamily(uint32_t sensorNumber, uint32_t socket)
{
    tvx::AgentSession session;
    if (!session) return 0;
    Record record(session.get(), sensorNumber, socket);
    return record.ok ? record.get(cpu::kFamily) : 0;
}

TVX_API uint32_t getCpuEnabledCores(uint32_t sensorNumber, uint32_t socket)
{
    tvx::AgentSession session;
    if (!session) return 0;
    Record record(session.get(), sensorNumber, socket);
    return record.ok ? record.get(cpu::kEnabledCores) : 0;
}

TVX_API uint32_t getCpuMultithreadingEnabled(uint32_t sensorNumber, uint32_t socket)
{
    tvx::AgentSession session;
    if (!session) return kThreadingNoRecord;
    if (!getCpuPresenceStatus(session.get(), sensorNumber)) return kThreadingOff;
    Record record(session.get(), sensorNumber, socket);
    if (!record.ok) return kThreadingNoRecord;
    uint8_t threads = record.get(cpu::kThreadsPerCore), enabled = record.get(cpu::kEnabledThreadsPerCore);
    return threads == enabled && threads >= 2 ? kThreadingOn : kThreadingOff;
}

} // extern "C"
