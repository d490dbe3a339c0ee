// Chassis power control, the controller's reset, and the identify and error LEDs.
#include <cstring>

#include "common/diag.h"
#include "common/oem.h"
#include "common/raw.h"
#include "libipmi.h"
#include "tvx_toipmi.h"

using tvx::RawAnswer;
using tvx::diag::Unit;

namespace {

constexpr int kTimeout = 60;
constexpr uint8_t kChassisControl = 0x02;
constexpr uint8_t kColdReset = 0x02;
constexpr uint8_t kWarmReset = 0x03;
constexpr uint8_t kOemPowerSource = 0x01;
constexpr uint8_t kOemGraceful = 0x02;
constexpr uint8_t kOemVendor = 0xF5;
constexpr uint8_t kSetIdentifyLed = 0xB0;
constexpr uint8_t kGetIdentifyLed = 0xB1;
constexpr uint8_t kGetErrorLed = 0xB3;

int highLevel(IpmiSession *session, uint16_t (*operation)(IpmiSession *, int))
{
    if (!session) return 0;
    return operation(session, kTimeout) == 0 ? 1 : 0;
}

// The power-on and power-off source requests differ only in their selector byte.
int powerSource(IpmiSession *session, uint8_t selector, int source, const char *function)
{
    if (!session) return 0;
    auto request = tvx::oem::oemRequest(selector, 0x00, 0x00, 0x00, 0x01, source & 0xFF);
    RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_OEM_GROUP, kOemPowerSource, request.data(), request.size(), answer);
    if (answer.ok()) return 1;
    tvx::diag::located(Unit::Helpers, __LINE__, function, "Failed to send request with error 0x%x",
                       tvx::swappedStatus(answer.status));
    const uint8_t *r = request.data();
    tvx::diag::plainFormat("\n raw command:\n0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x\n",
                           TVX_NETFN_OEM_GROUP, kOemPowerSource, r[0], r[1], r[2], r[3], r[4], r[5], r[6], r[7], r[8]);
    return 0;
}

// An OEM vendor-command request of this family; true when carried out with completion 0.
bool ledRequest(IpmiSession *session, uint8_t sub, RawAnswer &answer)
{
    auto request = tvx::oem::oemRequest(sub);
    tvx::sendRaw(session, TVX_NETFN_OEM_GROUP, kOemVendor, request.data(), request.size(), answer);
    return answer.ok();
}

} // namespace

extern "C" {

TVX_API int ipmiPowerOff(IpmiSession *session) { return highLevel(session, LIBIPMI_HL_PowerOff); }
TVX_API int ipmiPowerOn(IpmiSession *session) { return highLevel(session, LIBIPMI_HL_PowerUp); }
TVX_API int ipmiPowerCycle(IpmiSession *session) { return highLevel(session, LIBIPMI_HL_PowerCycle); }
TVX_API int ipmiHardReset(IpmiSession *session) { return highLevel(session, LIBIPMI_HL_HardReset); }
TVX_API int ipmiSoftOff(IpmiSession *session) { return highLevel(session, LIBIPMI_HL_SoftOff); }

TVX_API int ipmiChassisPowerStatus(IpmiSession *session)
{
    if (!session) return 0;
    ChassisStatus status;
    std::memset(&status, 0, sizeof status);
    if (LIBIPMI_HL_GetChassisStatus(session, kTimeout, &status) != 0) return 0;
    return status.currentPowerState != 0 ? 1 : 0;
}

TVX_API int ipmiReset(IpmiSession *session, int kind)
{
    if (!session) return 0;
    RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_APP, kind == 1 ? kWarmReset : kColdReset, nullptr, 0, answer);
    return answer.status == 0 ? 1 : 0;
}

TVX_API int ipmiSendChassisControl(IpmiSession *session, int control)
{
    if (!session) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    uint8_t request[1] = {static_cast<uint8_t>(control)};
    RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_CHASSIS, kChassisControl, request, sizeof request, answer, 3);
    if (answer.status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    return answer.bytes[0] == 0x00 ? 1 : 0;
}

TVX_API int ipmiSendGracefullControl(IpmiSession *session, int code)
{
    if (!session) return 0;
    auto request = tvx::oem::oemRequest(code & 0xFF);
    RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_OEM_GROUP, kOemGraceful, request.data(), request.size(), answer, 4);
    if (answer.status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    return answer.bytes[0] == 0x00 ? 1 : 0;
}

TVX_API int ipmiPowerOnSource(IpmiSession *session, int source)
{
    return powerSource(session, 0x1B, source, __func__);
}

TVX_API int ipmiPowerOffSource(IpmiSession *session, int source)
{
    return powerSource(session, 0x17, source, __func__);
}

TVX_API int ipmiSetIdenLed(IpmiSession *session, int state)
{
    if (!session) return 0;
    auto request = tvx::oem::oemRequest(kSetIdentifyLed, state & 0xFF);
    RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_OEM_GROUP, kOemVendor, request.data(), request.size(), answer);
    return answer.status;
}

TVX_API int ipmiGetIdenLed(IpmiSession *session)
{
    if (!session) return 0;
    RawAnswer answer;
    return ledRequest(session, kGetIdentifyLed, answer) ? answer.bytes[4] & 0x01 : 0;
}

TVX_API int ipmiGetErrLed(IpmiSession *session)
{
    if (!session) return 0;
    RawAnswer answer;
    return ledRequest(session, kGetErrorLed, answer) ? answer.bytes[4] : 0;
}

} // extern "C"
