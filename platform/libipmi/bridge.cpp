// Requests for another controller, bridged through the session's controller as a system
// interface does it: the IPMB request goes out inside Send Message, addressed back to the
// controller's receive-message-queue LUN, and the responder's answer is fetched from that
// queue with Get Message. Transports that carry bridged answers themselves (LAN) override
// Link::bridge.
#include <array>
#include <atomic>
#include <chrono>
#include <thread>

#include "internal.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace libipmi {
namespace {

namespace ipmb = tvx::ipmb;
namespace wire = tvx::wire;

// Get Message is asked this often at most for one answer; between empty answers the bridge
// waits a little, as a responder on the IPMB takes milliseconds.
constexpr int kMaxPolls = 50;
constexpr auto kPollPause = std::chrono::milliseconds(2);

uint8_t nextSequence()
{
    static std::atomic<uint8_t> sequence{0};
    return static_cast<uint8_t>(sequence.fetch_add(1) & 0x3F);
}

// A request of the controller itself, for the bridge's own Send Message and Get Message.
RawCall appCall(const RawCall &call, uint8_t command, std::span<const uint8_t> request, uint32_t *len)
{
    RawCall c = call;
    c.netFnLun = tvx::netfn::lun0(tvx::netfn::kApp);
    c.command = command;
    c.reqData = request.empty() ? nullptr : request.data();
    c.reqLen = static_cast<uint32_t>(request.size());
    c.resLen = len;
    c.route = Route{};
    return c;
}

// Whether a message from the queue is the answer to this request: addressed to the
// controller's queue LUN, from the responder, with the request's sequence number, the
// response network function and the command.
bool answers(wire::View m, const RawCall &call, uint8_t sequence)
{
    const uint8_t netFnLun = m.get(ipmb::kNetFnLun, uint8_t{0});
    const uint8_t seqLun = m.get(ipmb::kSeqLun, uint8_t{0});
    return ipmb::intact(m) && m.get(ipmb::kDestination) == ipmb::kBmcAddress &&
           wire::bits(netFnLun, 2, 6) == ((call.netFnLun >> 2) | 1) && wire::bits(netFnLun, 0, 2) == ipmb::kSmsLun &&
           m.get(ipmb::kSource) == call.route.address && wire::bits(seqLun, 2, 6) == sequence &&
           wire::bits(seqLun, 0, 2) == (call.netFnLun & 3) && m.get(ipmb::kCommand) == call.command;
}

} // namespace

Answer Link::bridge(const RawCall &call, std::span<const uint8_t> request)
{
    if (request.size() + ipmb::kOverhead > ipmb::kMaxMessage) return Answer{LIBIPMI_STATUS_INVALID_ARGUMENT, std::nullopt};
    const uint8_t sequence = nextSequence();
    std::array<uint8_t, 1 + ipmb::kMaxMessage> out{};
    wire::Writer w(out);
    w.u8(static_cast<uint8_t>(tvx::send_message::kNoTracking | (call.route.channel & 0x0F)));
    ipmb::frame(w, call.route.address, static_cast<uint8_t>(call.netFnLun >> 2), call.netFnLun & 3, ipmb::kBmcAddress,
                sequence, ipmb::kSmsLun, call.command, request);
    uint32_t len = 0;
    Answer sent = exchange(appCall(call, tvx::cmd::app::kSendMessage, w.written(), &len), w.written());
    // The controller refused to forward it (0x83: nobody acknowledged it on the bus).
    if (sent.status != LIBIPMI_STATUS_OK) return sent;
    for (int poll = 0; poll < kMaxPolls; ++poll) {
        len = 0;
        Answer got = exchange(appCall(call, tvx::cmd::app::kGetMessage, {}, &len), {});
        if (got.status == LIBIPMI_STATUS_COMPLETION_CODE(tvx::get_message::kQueueEmpty)) {
            std::this_thread::sleep_for(kPollPause);
            continue;
        }
        if (got.status != LIBIPMI_STATUS_OK || !got.bytes) return got;
        const wire::View message = wire::View(*got.bytes).from(tvx::get_message::kMessage);
        // Another requester's answer, or a damaged one: not ours, keep waiting.
        if (!answers(message, call, sequence)) continue;
        // The answer: the completion code and data, without the header and checksum.
        const wire::View body = message.upTo(ipmb::kData, message.size() - ipmb::kOverhead);
        return answerFromBytes(std::vector<uint8_t>(body.span().begin(), body.span().end()));
    }
    return Answer{LIBIPMI_STATUS_TIMEOUT, std::nullopt};
}

} // namespace libipmi
