// Chassis power and status, channel information and LAN configuration parameters.
#include <cstring>

#include "command.h"
#include "internal.h"
#include "lan_config_commit.h"

namespace libipmi {
namespace {

constexpr uint8_t kNetFnChassis = 0x00;
constexpr uint8_t kNetFnApp = 0x06;
constexpr uint8_t kNetFnTransport = 0x0C;
constexpr uint8_t kGetChassisStatus = 0x01;
constexpr uint8_t kChassisControl = 0x02;
constexpr uint8_t kGetChannelInfo = 0x42;
constexpr uint8_t kGetLanConfig = 0x02;

uint16_t chassisControl(IpmiSession *s, uint8_t action, int timeout)
{
    std::vector<uint8_t> rsp;
    const uint8_t req[1] = {action};
    return exchange(s, kNetFnChassis, kChassisControl, req, rsp, timeout);
}

} // namespace
} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t LIBIPMI_HL_PowerOff(IpmiSession *s, int timeout) { return chassisControl(s, 0x00, timeout); }
extern "C" uint16_t LIBIPMI_HL_PowerUp(IpmiSession *s, int timeout) { return chassisControl(s, 0x01, timeout); }
extern "C" uint16_t LIBIPMI_HL_PowerCycle(IpmiSession *s, int timeout) { return chassisControl(s, 0x02, timeout); }
extern "C" uint16_t LIBIPMI_HL_HardReset(IpmiSession *s, int timeout) { return chassisControl(s, 0x03, timeout); }
extern "C" uint16_t LIBIPMI_HL_SoftOff(IpmiSession *s, int timeout) { return chassisControl(s, 0x05, timeout); }

// The record holds the data bytes only; the optional front-panel byte stays 0 when absent.
extern "C" uint16_t LIBIPMI_HL_GetChassisStatus(IpmiSession *s, int timeout, ChassisStatus *status)
{
    if (!status) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    std::vector<uint8_t> rsp;
    uint16_t st = exchange(s, kNetFnChassis, kGetChassisStatus, {}, rsp, timeout);
    if (st != 0) return st;
    if (rsp.size() < 4) return LIBIPMI_STATUS_BAD_RESPONSE;
    std::memset(status, 0, sizeof *status);
    std::memcpy(status, rsp.data() + 1, rsp.size() - 1 < sizeof *status ? rsp.size() - 1 : sizeof *status);
    return LIBIPMI_STATUS_OK;
}

// At least the channel number and medium type must arrive; the rest is copied as it came.
extern "C" uint16_t IPMICMD_GetChannelInfo(IpmiSession *s, ChannelInfoRequest *req, ChannelInfoResponse *res,
                                           int timeout)
{
    if (!req) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    return recordCommand(s, kNetFnApp, kGetChannelInfo, std::span<const uint8_t>(&req->channelNumber, 1), res, 3,
                         timeout);
}

// Parameters differ in length: the data bytes that arrived are copied, the rest of the
// record is left as the caller set it.
extern "C" uint16_t IPMICMD_GetLANConfig(IpmiSession *s, LanConfigGetRequest *req, LanConfigGetResponse *res,
                                         int timeout)
{
    if (!req) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    return recordCommand(s, kNetFnTransport, kGetLanConfig,
                         std::span<const uint8_t>(reinterpret_cast<const uint8_t *>(req), sizeof *req), res, 2, timeout);
}

// Inside a set-in-progress / commit transaction where the controller has one (see the
// declaration), so that the write takes effect on every kind of controller.
extern "C" uint16_t IPMICMD_SetLANConfig(IpmiSession *s, LanConfigSetRequest *req, uint32_t reqLen, uint8_t *res,
                                         int timeout)
{
    if (!req || reqLen < 2 || reqLen > sizeof *req) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    std::vector<uint8_t> rsp;
    uint16_t status = setLanParameterCommitted(
        s, std::span<const uint8_t>(reinterpret_cast<const uint8_t *>(req), reqLen), rsp, timeout);
    if (res && !rsp.empty()) *res = rsp[0];
    return status;
}
