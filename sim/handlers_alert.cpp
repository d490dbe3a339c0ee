// Alert Immediate (NetFn 0x04, command 0x16): an alert sent at once to one alert destination
// of an 802.3 channel, as a Platform Event Trap (SNMPv1) to the destination's address and UDP
// port, carrying the request's platform event when it has one.
//
// Completion codes: a channel that is not 802.3, reserved bits set or a destination type that
// is not a PET trap 0xCC; a destination selector beyond the channel's count 0xC9; event
// parameters for a destination that the profile says refuses them 0x83; a destination with
// no address (0.0.0.0), or a trap that cannot be sent, 0xD3. The status of the last alert
// (get status: one byte, 0x01 when the trap was sent) lives in RAM, as does the PET sequence
// number: state["alert_status"]["CHANNEL"] = {"status": S}, state["alert_status"]["sequence"].
#include "controller.h"
#include "lan_alerts.h"
#include "machine_state.h"
#include "pet_trap.h"

namespace tvxsim {
namespace {

namespace alert = tvx::alert_immediate;
namespace dtype = tvx::lan::destination_type;
constexpr const char *kStatusArea = "alert_status";

PlatformEvent eventOf(wire::View request)
{
    PlatformEvent e;
    e.generator = request.get(alert::kGeneratorId, uint8_t{0});
    e.revision = request.get(alert::kEventRevision, uint8_t{0});
    e.sensorType = request.get(alert::kSensorType, uint8_t{0});
    e.sensorNumber = request.get(alert::kSensorNumber, uint8_t{0});
    e.eventType = request.get(alert::kEventType, uint8_t{0});
    const wire::View data = request.get(alert::kEventData);
    std::copy(data.span().begin(), data.span().end(), e.data.begin());
    return e;
}

void alertImmediate(Context &ctx, const Request &req, Response &rsp)
{
    const wire::View request(req.data);
    if (request.size() != alert::kSizeWithoutEvent && request.size() != alert::kSizeWithEvent)
        return rsp.fail(cc::kRequestLengthInvalid);
    const uint8_t channelByte = request.get(alert::kChannel, uint8_t{0}), destByte = request.get(alert::kDestination, uint8_t{0});
    const uint8_t channel = channelByte & alert::kChannelMask, selector = destByte & alert::kDestinationMask;
    const unsigned operation = wire::bits(destByte, alert::kOperationShift, 2);
    if ((channelByte & ~alert::kChannelMask) || wire::bits(destByte, 4, 2) || operation > alert::kClearStatus)
        return rsp.fail(cc::kInvalidDataField);
    if (!alertDestination(ctx, channel, 0)) return rsp.fail(cc::kInvalidDataField); // not an 802.3 channel
    const std::string key = std::to_string(channel == tvx::lan::kCurrentChannel ? ctx.profile.settings.lan.currentChannel : channel);
    if (operation == alert::kGetStatus) { // a read: nothing is created
        uint64_t status = alert::kStatusNone;
        if (auto area = ctx.state.find(kStatusArea); area != ctx.state.end() && area->is_object())
            if (auto it = area->find(key); it != area->end()) status = machine::number(*it, "status", status, 0xFF);
        rsp.u8(static_cast<uint8_t>(status));
        return;
    }
    nlohmann::json &ram = machine::section(ctx.state, kStatusArea);
    if (operation == alert::kClearStatus) {
        ram.erase(key);
        ctx.changed();
        return;
    }
    const std::optional<DestinationState> d = alertDestination(ctx, channel, selector);
    if (!d) return rsp.fail(cc::kParameterOutOfRange);
    const bool withEvent = request.size() == alert::kSizeWithEvent;
    if (withEvent && d->refusesEvent) return rsp.fail(alert::kEventRefused);
    if ((d->type & dtype::kTypeMask) != dtype::kPetTrap) return rsp.fail(cc::kInvalidDataField);
    if (d->ip == std::array<uint8_t, 4>{}) return rsp.fail(cc::kDestinationUnavailable);

    PetTrap trap;
    trap.agent = channelAddress(ctx, channel);
    trap.destination = d->ip;
    trap.port = d->port;
    if (withEvent) trap.event = eventOf(request);
    trap.manufacturerId = ctx.profile.device.manufacturerId;
    trap.systemId = ctx.profile.device.productId;
    trap.sequence = static_cast<uint16_t>(machine::number(ram, "sequence", 0, 0xFFFF));
    std::string error;
    if (!sendPetTrap(trap, error)) return rsp.fail(cc::kDestinationUnavailable);
    ram["sequence"] = static_cast<uint16_t>(trap.sequence + 1);
    ram[key] = {{"status", alert::kStatusNormalEnd}};
    ctx.changed();
}

void install(Controller &c)
{
    c.on(tvx::netfn::kSensorEvent, tvx::cmd::sensor::kAlertImmediate, alertImmediate);
    c.keepInRam(kStatusArea);
}

} // namespace

const Subsystem kAlertSubsystem = {"alert", install, nullptr};

} // namespace tvxsim
