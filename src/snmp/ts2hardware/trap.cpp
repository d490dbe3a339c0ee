// The test trap: the controller is asked (IPMI Alert Immediate) to alert every configured
// alert destination of the default LAN channel at once, with a fixed test event; a controller
// that refuses the event parameters is asked again for a plain alert.
#include <array>
#include <cstring>

#include "common/exchange.h"
#include "common/session_guard.h"
#include "tvx_toipmi.h"

namespace alert = tvx::alert_immediate;

namespace {

constexpr std::size_t kAnswerSize = 2;

// The test event: a System Event (OEM codes in event data 2 and 3) from the controller.
constexpr uint8_t kGeneratorBmc = 0x20, kEventRevision = 0x04, kSystemEvent = 0x12, kAnySensor = 0xFF,
                  kAssertionSensorSpecific = 0x6F;
constexpr uint8_t kTestEventData[] = {0xE4, 0x01, 0x80};

std::array<uint8_t, alert::kSizeWithEvent> withEvent(uint8_t channel, uint8_t destination)
{
    std::array<uint8_t, alert::kSizeWithEvent> r{};
    tvx::wire::Writer(r)
        .put(alert::kChannel, channel)
        .put(alert::kDestination, destination)
        .put(alert::kStringSelector, uint8_t{0})
        .put(alert::kGeneratorId, kGeneratorBmc)
        .put(alert::kEventRevision, kEventRevision)
        .put(alert::kSensorType, kSystemEvent)
        .put(alert::kSensorNumber, kAnySensor)
        .put(alert::kEventType, kAssertionSensorSpecific)
        .put(alert::kEventData, kTestEventData);
    return r;
}

std::array<uint8_t, alert::kSizeWithoutEvent> withoutEvent(uint8_t channel, uint8_t destination)
{
    std::array<uint8_t, alert::kSizeWithoutEvent> r{};
    tvx::wire::Writer(r)
        .put(alert::kChannel, channel)
        .put(alert::kDestination, destination)
        .put(alert::kStringSelector, alert::kSendString);
    return r;
}

template <std::size_t N> bool send(IpmiSession *session, std::array<uint8_t, N> request, uint8_t *answer, uint32_t &length)
{
    length = kAnswerSize;
    return ipmiSendCmd(session, tvx::netfn::lun0(tvx::netfn::kSensorEvent), tvx::cmd::sensor::kAlertImmediate, N,
                       request.data(), &length, answer) != 0;
}

} // namespace

extern "C" TVX_API int sendTestTrap(void)
{
    tvx::AgentSession session;
    if (!session) return 0;
    const uint8_t channel = getDefaultLanChannelNumber(session.get());
    uint8_t count = 0;
    if (!getConfigSpaceVariable(&count, sizeof count, 0, TVX_VAR_ALERT_DESTINATIONS)) count = 0;

    int outcome = 0;
    uint8_t answer[kAnswerSize];
    uint32_t length = 0;
    for (unsigned destination = 1; destination <= count; ++destination) {
        const uint8_t selector = static_cast<uint8_t>(destination);
        std::memset(answer, 0xFF, sizeof answer);
        const tvx::wire::View reply(answer, sizeof answer);
        if (send(session.get(), withEvent(channel, selector), answer, length) &&
            reply.get(tvx::kCompletionCode) != alert::kEventRefused) {
            outcome = 1;
            continue;
        }
        // The plain alert; its answer byte is read as the buffer holds it.
        bool sent = send(session.get(), withoutEvent(channel, selector), answer, length);
        outcome = sent || reply.get(tvx::kCompletionCode) == tvx::cc::kOk ? 1 : 0;
    }
    return outcome;
}
