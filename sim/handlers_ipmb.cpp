// Satellite management controllers on the controller's IPMB channels ("satellites" in the
// profile), and the bridging a system interface uses to reach them: Send Message puts an
// IPMB request on a channel; the satellite's answer, addressed to the controller's
// receive-message-queue LUN, waits in that queue until Get Message fetches it.
//
// A satellite answers Get Device ID (its "controller" identity), Get Sensor Reading for the
// sensors whose records name it as owner, and Get FRU Inventory Area Info and Read FRU Data
// for its own FRU devices ("fru"); anything else 0xC1. Its answers are IPMB messages, at most
// 32 bytes: a read that asks for more is refused with 0xCA.
//
// Send Message, checked in this order: 0xC7 without a whole IPMB message; 0xCC for tracking
// (a system interface formats the message itself); 0x83 (NAK on write) when no satellite sits
// at the address on that channel. A message with a bad checksum is sent, and ignored by the
// satellite as by a real one: no answer arrives. Get Message: 0x80 while the queue is empty;
// the queue keeps the newest kQueueSize answers. The queue is the controller's RAM, not its
// non-volatile state: it lives in this process only.
#include <deque>
#include <memory>

#include "controller.h"
#include "fru.h"
#include "sdr.h"

namespace tvxsim {
namespace {

namespace ipmb = tvx::ipmb;
namespace app = tvx::cmd::app;

constexpr std::size_t kQueueSize = 16;
constexpr uint8_t kAdministrator = 0x04; // the privilege Get Message reports (bits 7:4)

struct Satellite {
    uint8_t address = 0;
    uint8_t channel = 0;
    DeviceIdentity device;
    FruModel fru;
};

struct IpmbModel {
    std::vector<Satellite> satellites;
    const Satellite *find(uint8_t channel, uint8_t address) const
    {
        for (const Satellite &s : satellites)
            if (s.channel == channel && s.address == address) return &s;
        return nullptr;
    }
};

IpmbModel parseIpmbModel(const Profile &profile)
{
    IpmbModel model;
    auto list = profile.root().find("satellites");
    if (!list) return model;
    for (std::size_t i = 0; i < list->size(); ++i) {
        Node n = list->at(i);
        n.allowOnly({"address", "channel", "controller", "fru"});
        Satellite s;
        Node address = n.at("address");
        s.address = address.byte();
        if (s.address & 1 || s.address == kControllerAddress)
            address.fail("expected a satellite's IPMB slave address in its 8-bit form (even, not the controller's "
                         "own 0x20)");
        if (auto c = n.find("channel")) s.channel = static_cast<uint8_t>(c->integer(0, 7));
        Node identity = n.at("controller");
        for (const char *own : {"oem_iana", "max_response_length"})
            if (auto v = identity.find(own)) v->fail(std::string("\"") + own + "\" describes the main controller only");
        s.device = parseDeviceIdentity(identity);
        if (auto f = n.find("fru")) s.fru = parseFruDevices(*f);
        if (model.find(s.channel, s.address)) address.fail("another satellite sits at this address on this channel");
        model.satellites.push_back(std::move(s));
    }
    return model;
}

// Answers addressed to the controller's queue LUN, with the channel they came from.
struct MessageQueue {
    std::deque<std::pair<uint8_t, std::vector<uint8_t>>> messages;
};

// What a satellite answers to one request.
void satelliteAnswer(const Satellite &s, const SdrModel &sdr, Context &ctx, const Request &req, Response &rsp)
{
    const std::size_t limit = ipmb::kMaxMessage - ipmb::kOverhead; // completion code and data
    if (req.netFn == tvx::netfn::kApp && req.command == app::kGetDeviceId) {
        if (!rsp.complete(req.reader())) return;
        rsp.append(s.device.responseData());
    } else if (req.netFn == tvx::netfn::kSensorEvent && req.command == tvx::cmd::sensor::kGetSensorReading) {
        answerSensorReading(sdr, s.address, ctx, req, rsp);
    } else if (req.netFn == tvx::netfn::kStorage && req.command == tvx::cmd::storage::kGetFruInventoryAreaInfo) {
        answerFruAreaInfo(s.fru, req, rsp);
    } else if (req.netFn == tvx::netfn::kStorage && req.command == tvx::cmd::storage::kReadFruData) {
        answerReadFru(s.fru, limit, req, rsp);
    } else {
        rsp.fail(cc::kInvalidCommand);
    }
}

void sendMessage(const IpmbModel &m, const SdrModel &sdr, MessageQueue &queue, Context &ctx, const Request &req,
                 Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t channelByte = in.u8();
    const wire::View message = in.rest();
    if (!in.ok() || message.size() < ipmb::kOverhead || message.size() > ipmb::kMaxMessage)
        return rsp.fail(cc::kRequestLengthInvalid);
    if (wire::bits(channelByte, 6, 2) != tvx::send_message::kNoTracking) return rsp.fail(cc::kInvalidDataField);
    const uint8_t channel = static_cast<uint8_t>(wire::bits(channelByte, 0, 4));
    const Satellite *s = m.find(channel, message.get(ipmb::kDestination, uint8_t{0}));
    if (!s) return rsp.fail(tvx::send_message::kNakOnWrite);
    if (!ipmb::intact(message)) return; // sent; the satellite drops it
    const uint8_t netFnLun = message.get(ipmb::kNetFnLun, uint8_t{0});
    const uint8_t seqLun = message.get(ipmb::kSeqLun, uint8_t{0});
    const uint8_t source = message.get(ipmb::kSource, uint8_t{0});
    const uint8_t command = message.get(ipmb::kCommand, uint8_t{0});
    const uint8_t netFn = static_cast<uint8_t>(wire::bits(netFnLun, 2, 6));
    const uint8_t lun = static_cast<uint8_t>(wire::bits(netFnLun, 0, 2));
    const wire::View body = message.upTo(ipmb::kData, message.size() - ipmb::kOverhead);
    Response inner;
    satelliteAnswer(*s, sdr, ctx, Request{netFn, lun, command, body.span()}, inner);
    // The answer goes back to the requester; only what is addressed to this controller's
    // queue LUN lands in the queue.
    if (source != kControllerAddress || wire::bits(seqLun, 0, 2) != ipmb::kSmsLun) return;
    std::vector<uint8_t> answer(ipmb::kMaxMessage);
    wire::Writer w(answer);
    ipmb::frame(w, source, static_cast<uint8_t>(netFn | 1), ipmb::kSmsLun, s->address,
                static_cast<uint8_t>(wire::bits(seqLun, 2, 6)), lun, command, inner.bytes());
    if (!w.ok()) return; // a satellite's answer never outgrows a message (its reads are bounded)
    answer.resize(w.size());
    if (queue.messages.size() == kQueueSize) queue.messages.pop_front();
    queue.messages.emplace_back(channel, std::move(answer));
}

void getMessage(MessageQueue &queue, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    if (queue.messages.empty()) return rsp.fail(tvx::get_message::kQueueEmpty);
    auto [channel, message] = std::move(queue.messages.front());
    queue.messages.pop_front();
    rsp.u8(static_cast<uint8_t>(kAdministrator << 4 | channel));
    rsp.append(message);
}

void install(Controller &c)
{
    auto model = c.attachedOrParsed<IpmbModel>("ipmb", parseIpmbModel);
    std::shared_ptr<const SdrModel> sdr = sdrModel(c);
    auto queue = std::make_shared<MessageQueue>(); // handlers run one at a time
    c.on(tvx::netfn::kApp, app::kSendMessage, [model, sdr, queue](Context &ctx, const Request &req, Response &rsp) {
        sendMessage(*model, *sdr, *queue, ctx, req, rsp);
    });
    c.on(tvx::netfn::kApp, app::kGetMessage,
         [queue](Context &, const Request &req, Response &rsp) { getMessage(*queue, req, rsp); });
}

} // namespace

const Subsystem kIpmbSubsystem = {"ipmb", install, nullptr};

} // namespace tvxsim
