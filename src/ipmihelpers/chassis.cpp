// Chassis power control, the controller's reset, and the identify and error LEDs.
#include <cstring>

#include "common/diag.h"
#include "common/raw.h"
#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx_toipmi.h"

using tvx::RawAnswer;
using tvx::diag::Unit;
namespace oem = tvx::oem;

namespace {

constexpr uint8_t kOemPowerSource = oem::cmd::kPowerSource;
constexpr uint8_t kOemVendor = oem::cmd::kVendor;
// The LED answers: the state after the IANA number (identify: bit 0).
constexpr tvx::wire::U8 kLedState{oem::kPayload};

int highLevel(IpmiSession *session, uint16_t (*operation)(IpmiSession *, int))
{
    if (!session) return 0;
    return operation(session, tvx::kPlatformTimeout) == 0 ? 1 : 0;
}

// The power-on and power-off source requests differ only in their selector byte.
int powerSource(IpmiSession *session, uint8_t selector, int source, const char *function)
{
    if (!session) return 0;
    auto request = oem::request(selector, 0x00, 0x00, 0x00, 0x01, source & 0xFF);
    RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_OEM_GROUP, kOemPowerSource, request.data(), request.size(), answer);
    if (answer.ok()) return 1;
    tvx::diag::located(Unit::Helpers, __LINE__, function, "Failed to send request with error 0x%x",
                       tvx::swappedStatus(tvx::deliveryStatus(answer.status)));
    // The request as sent, byte by byte.
    const auto &[i0, i1, i2, sub, b4, b5, b6, b7, b8] = request;
    tvx::diag::plainFormat("\n raw command:\n0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x 0x%x\n",
                           TVX_NETFN_OEM_GROUP, kOemPowerSource, i0, i1, i2, sub, b4, b5, b6, b7, b8);
    return 0;
}

// An OEM vendor-command request of this family; true when carried out with completion 0.
bool ledRequest(IpmiSession *session, uint8_t sub, RawAnswer &answer)
{
    auto request = oem::request(sub);
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
    if (LIBIPMI_HL_GetChassisStatus(session, tvx::kPlatformTimeout, &status) != 0) return 0;
    return status.currentPowerState != 0 ? 1 : 0;
}

TVX_API int ipmiReset(IpmiSession *session, int kind)
{
    if (!session) return 0;
    RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_APP, kind == 1 ? tvx::cmd::app::kWarmReset : tvx::cmd::app::kColdReset, nullptr, 0,
                 answer);
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
    tvx::sendRaw(session, TVX_NETFN_CHASSIS, tvx::cmd::chassis::kControl, request, sizeof request, answer, 3);
    if (tvx::deliveryStatus(answer.status) != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    return tvx::completionCode(answer.bytes) == tvx::cc::kOk ? 1 : 0;
}

TVX_API int ipmiSendGracefullControl(IpmiSession *session, int code)
{
    if (!session) return 0;
    auto request = oem::request(code & 0xFF);
    RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_OEM_GROUP, oem::cmd::kGracefulControl, request.data(), request.size(), answer, 4);
    if (tvx::deliveryStatus(answer.status) != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    return tvx::completionCode(answer.bytes) == tvx::cc::kOk ? 1 : 0;
}

TVX_API int ipmiPowerOnSource(IpmiSession *session, int source)
{
    return powerSource(session, oem::power_source::kPowerOn, source, __func__);
}

TVX_API int ipmiPowerOffSource(IpmiSession *session, int source)
{
    return powerSource(session, oem::power_source::kPowerOff, source, __func__);
}

TVX_API int ipmiSetIdenLed(IpmiSession *session, int state)
{
    if (!session) return 0;
    auto request = oem::request(oem::vendor::kSetIdentifyLed, state & 0xFF);
    RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_OEM_GROUP, kOemVendor, request.data(), request.size(), answer);
    return answer.status;
}

TVX_API int ipmiGetIdenLed(IpmiSession *session)
{
    if (!session) return 0;
    RawAnswer answer;
    return ledRequest(session, oem::vendor::kGetIdentifyLed, answer) ? answer.buffer().get(kLedState, uint8_t{0}) & 0x01
                                                                      : 0;
}

TVX_API int ipmiGetErrLed(IpmiSession *session)
{
    if (!session) return 0;
    RawAnswer answer;
    return ledRequest(session, oem::vendor::kGetErrorLed, answer) ? answer.buffer().get(kLedState, uint8_t{0}) : 0;
}

} // extern "C"
