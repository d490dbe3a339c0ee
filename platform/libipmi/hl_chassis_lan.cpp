// Chassis power and status, channel information and LAN configuration parameters.
#include <cstddef>
#include <cstring>

#include "command.h"
#include "internal.h"
#include "lan_config_commit.h"

namespace libipmi {
namespace {

namespace control = tvx::chassis_control;

uint16_t chassisControl(IpmiSession *s, uint8_t action, int timeout)
{
    std::vector<uint8_t> rsp;
    const uint8_t req[1] = {action};
    return exchange(s, netfn::kChassis, tvx::cmd::chassis::kControl, req, rsp, timeout);
}

// Get Chassis Status carries the current power state, the last power event and the
// miscellaneous chassis state; the front panel button byte is optional.
constexpr std::size_t kChassisStatusMinimum = offsetof(ChassisStatus, frontPanelButtons);

} // namespace
} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t LIBIPMI_HL_PowerOff(IpmiSession *s, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        return chassisControl(s, control::kPowerDown, timeout);
    });
}
extern "C" uint16_t LIBIPMI_HL_PowerUp(IpmiSession *s, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        return chassisControl(s, control::kPowerUp, timeout);
    });
}
extern "C" uint16_t LIBIPMI_HL_PowerCycle(IpmiSession *s, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        return chassisControl(s, control::kPowerCycle, timeout);
    });
}
extern "C" uint16_t LIBIPMI_HL_HardReset(IpmiSession *s, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        return chassisControl(s, control::kHardReset, timeout);
    });
}
extern "C" uint16_t LIBIPMI_HL_SoftOff(IpmiSession *s, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        return chassisControl(s, control::kSoftShutdown, timeout);
    });
}

// The record holds the data bytes only; the optional front-panel byte stays 0 when absent.
extern "C" uint16_t LIBIPMI_HL_GetChassisStatus(IpmiSession *s, int timeout, ChassisStatus *status)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!status) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        std::vector<uint8_t> rsp;
        uint16_t st = exchange(s, netfn::kChassis, tvx::cmd::chassis::kGetStatus, {}, rsp, timeout);
        if (st != 0) return st;
        const wire::View data = readData(rsp).rest();
        if (data.size() < kChassisStatusMinimum) return LIBIPMI_STATUS_BAD_RESPONSE;
        std::memset(status, 0, sizeof *status);
        std::memcpy(status, data.data(), std::min(data.size(), sizeof *status));
        return LIBIPMI_STATUS_OK;
    });
}

// At least the channel number and medium type must arrive; the rest is copied as it came.
extern "C" uint16_t IPMICMD_GetChannelInfo(IpmiSession *s, ChannelInfoRequest *req, ChannelInfoResponse *res,
                                           int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!req) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        return recordCommand(s, netfn::kApp, tvx::cmd::app::kGetChannelInfo,
                             std::span<const uint8_t>(&req->channelNumber, 1), res,
                             offsetof(ChannelInfoResponse, mediumType) + sizeof res->mediumType, timeout);
    });
}

// Parameters differ in length: the data bytes that arrived are copied, the rest of the
// record is left as the caller set it.
extern "C" uint16_t IPMICMD_GetLANConfig(IpmiSession *s, LanConfigGetRequest *req, LanConfigGetResponse *res,
                                         int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!req) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        return recordCommand(s, netfn::kTransport, tvx::cmd::transport::kGetLanConfig,
                             std::span<const uint8_t>(reinterpret_cast<const uint8_t *>(req), sizeof *req), res,
                             offsetof(LanConfigGetResponse, data), timeout);
    });
}

// Inside a set-in-progress / commit transaction where the controller has one (see the
// declaration), so that the write takes effect on every kind of controller.
extern "C" uint16_t IPMICMD_SetLANConfig(IpmiSession *s, LanConfigSetRequest *req, uint32_t reqLen, uint8_t *res,
                                         int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!req || reqLen < offsetof(LanConfigSetRequest, data) || reqLen > sizeof *req)
            return LIBIPMI_STATUS_INVALID_ARGUMENT;
        std::vector<uint8_t> rsp;
        uint16_t status = setLanParameterCommitted(
            s, std::span<const uint8_t>(reinterpret_cast<const uint8_t *>(req), reqLen), rsp, timeout);
        if (res)
            if (std::optional<uint8_t> code = wire::View(rsp).get(tvx::kCompletionCode)) *res = *code;
        return status;
    });
}
