// Channels (Get Channel Info, NetFn 0x06) and the LAN configuration parameters of the 802.3
// channels (NetFn 0x0C), kept per channel in state["lan"]["CHANNEL"].
//
// Channel 0x0E is the channel the request arrived on: the profile's current channel (by
// default its first 802.3 channel). A channel that does not exist, or is not 802.3 for the
// LAN parameters, answers 0xCC.
//
// Parameters: 0 set in progress, 1 authentication type support (read-only), 3 IP address,
// 4 address source, 5 MAC address, 6 subnet mask, 12 default gateway, 13 default gateway
// MAC. Others answer 0x80 (not supported), a write to a read-only one 0x82, data of the wrong
// length 0xC7. While a set is in progress, writes wait in state["lan"][CH]["pending"] until a
// commit write applies them; "set complete" ends the set and drops what was not committed.
// Writes made without a set in progress take effect at once.
#include <cstring>

#include "controller.h"
#include "machine_state.h"

namespace tvxsim {
namespace {

namespace lan = tvx::lan;
constexpr uint8_t kCurrentChannel = lan::kCurrentChannel;
constexpr uint8_t kParameterRevision = 0x11;

// LAN configuration completion codes.
constexpr uint8_t kParameterNotSupported = cc::lan::kParameterNotSupported;
constexpr uint8_t kSetInProgressBusy = cc::lan::kSetInProgressElsewhere;
constexpr uint8_t kReadOnlyParameter = cc::lan::kReadOnlyParameter;

constexpr uint32_t kIpmiIana = 7154; // the IPMI forum

constexpr uint8_t kSetInProgress = lan::kSetInProgress, kAuthTypeSupport = lan::kAuthTypeSupport;

enum class Form { Ipv4, Mac, Byte };

struct Parameter {
    uint8_t selector;
    const char *key; // member of the channel's state
    Form form;
    uint8_t length;
};

constexpr Parameter kParameters[] = {
    {lan::kIpAddress, "ip_address", Form::Ipv4, 4},           {lan::kAddressSource, "address_source", Form::Byte, 1},
    {lan::kMacAddress, "mac_address", Form::Mac, 6},          {lan::kSubnetMask, "subnet_mask", Form::Ipv4, 4},
    {lan::kDefaultGateway, "default_gateway", Form::Ipv4, 4}, {lan::kDefaultGatewayMac, "gateway_mac", Form::Mac, 6},
};

const Parameter *findParameter(uint8_t selector)
{
    for (const auto &p : kParameters)
        if (p.selector == selector) return &p;
    return nullptr;
}

std::vector<uint8_t> profileValue(const LanAddresses &a, uint8_t selector)
{
    switch (selector) {
    case lan::kIpAddress: return {a.ip.begin(), a.ip.end()};
    case lan::kAddressSource: return {a.addressSource};
    case lan::kMacAddress: return {a.mac.begin(), a.mac.end()};
    case lan::kSubnetMask: return {a.subnetMask.begin(), a.subnetMask.end()};
    case lan::kDefaultGateway: return {a.gateway.begin(), a.gateway.end()};
    case lan::kDefaultGatewayMac: return {a.gatewayMac.begin(), a.gatewayMac.end()};
    default: return {};
    }
}

nlohmann::json toJson(const Parameter &p, std::span<const uint8_t> v)
{
    switch (p.form) {
    case Form::Ipv4: return ipv4Text(v);
    case Form::Mac: return macText(v);
    case Form::Byte: return wire::Reader(v).u8();
    }
    return nullptr;
}

// The stored value, or the profile's when the state has none that can be read.
std::vector<uint8_t> fromJson(const Parameter &p, const nlohmann::json &object, const std::vector<uint8_t> &fallback)
{
    if (!object.is_object()) return fallback;
    auto it = object.find(p.key);
    if (it == object.end()) return fallback;
    if (p.form == Form::Byte) {
        if (!it->is_number_unsigned() || it->get<uint64_t>() > 0xFF) return fallback;
        return {static_cast<uint8_t>(it->get<uint64_t>())};
    }
    if (!it->is_string()) return fallback;
    if (p.form == Form::Ipv4) {
        std::array<uint8_t, 4> b;
        return parseIpv4(it->get<std::string>(), b) ? std::vector<uint8_t>(b.begin(), b.end()) : fallback;
    }
    std::array<uint8_t, 6> b;
    return parseMac(it->get<std::string>(), b) ? std::vector<uint8_t>(b.begin(), b.end()) : fallback;
}

// The channel a request names: 0x0E is the current one. Null when there is no such channel.
const ChannelSettings *resolveChannel(const Context &ctx, uint8_t number)
{
    const LanSettings &lan = ctx.profile.settings.lan;
    if (number == kCurrentChannel) number = lan.currentChannel;
    return lan.channel(number);
}

nlohmann::json &channelState(Context &ctx, uint8_t number)
{
    nlohmann::json &lan = machine::section(ctx.state, "lan");
    nlohmann::json &ch = lan[std::to_string(number)];
    if (!ch.is_object()) ch = nlohmann::json::object();
    return ch;
}

bool setInProgress(const nlohmann::json &ch) { return machine::flag(ch, "set_in_progress", false); }

void getChannelInfo(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t channel = in.u8();
    if (!rsp.complete(in)) return;
    if (channel & 0xF0) return rsp.fail(cc::kInvalidDataField);
    const ChannelSettings *c = resolveChannel(ctx, channel);
    if (!c) return rsp.fail(cc::kInvalidDataField);
    rsp.u8(c->number).u8(c->medium).u8(c->protocol).u8(c->sessionSupport).u24(kIpmiIana).append(c->auxInfo);
}

void getLanConfig(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t channel = in.u8(), selector = in.u8();
    in.skip(2); // set and block selectors: no parameter here has sets or blocks
    if (!rsp.complete(in)) return;
    const bool revisionOnly = channel & 0x80;
    if (channel & 0x70) return rsp.fail(cc::kInvalidDataField);
    const ChannelSettings *c = resolveChannel(ctx, channel & 0x0F);
    if (!c || c->medium != kMediumLan) return rsp.fail(cc::kInvalidDataField);
    rsp.u8(kParameterRevision);
    if (revisionOnly) return;
    const nlohmann::json &ch = channelState(ctx, c->number);
    if (selector == kSetInProgress) {
        rsp.u8(setInProgress(ch) ? lan::kInProgress : lan::kSetComplete);
        return;
    }
    if (selector == kAuthTypeSupport) {
        rsp.u8(c->lan.authTypeSupport);
        return;
    }
    const Parameter *p = findParameter(selector);
    if (!p) return rsp.fail(kParameterNotSupported);
    rsp.append(fromJson(*p, ch, profileValue(c->lan, selector)));
}

// Set in progress: 0 set complete, 1 set in progress, 2 commit write.
void setProgress(Context &ctx, nlohmann::json &ch, uint8_t value, Response &rsp)
{
    if (value > 2) return rsp.fail(cc::kInvalidDataField);
    bool inProgress = setInProgress(ch);
    switch (value) {
    case 0:
        ch.erase("pending");
        ch["set_in_progress"] = false;
        break;
    case 1:
        if (inProgress) return rsp.fail(kSetInProgressBusy);
        ch["set_in_progress"] = true;
        break;
    case 2: {
        auto pending = ch.find("pending");
        if (pending != ch.end() && pending->is_object())
            for (auto it = pending->begin(); it != pending->end(); ++it) ch[it.key()] = it.value();
        ch.erase("pending");
        break;
    }
    }
    ctx.changed();
}

void setLanConfig(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t channel = in.u8(), selector = in.u8();
    if (!in.ok()) return rsp.fail(cc::kRequestLengthInvalid);
    if (channel & 0xF0) return rsp.fail(cc::kInvalidDataField);
    const ChannelSettings *c = resolveChannel(ctx, channel & 0x0F);
    if (!c || c->medium != kMediumLan) return rsp.fail(cc::kInvalidDataField);
    nlohmann::json &ch = channelState(ctx, c->number);
    if (selector == kSetInProgress) {
        const uint8_t value = in.u8();
        if (!rsp.complete(in)) return;
        return setProgress(ctx, ch, value, rsp);
    }
    if (selector == kAuthTypeSupport) return rsp.fail(kReadOnlyParameter);
    const Parameter *p = findParameter(selector);
    if (!p) return rsp.fail(kParameterNotSupported);
    const wire::View data = in.bytes(p->length);
    if (!rsp.complete(in)) return;
    // The first byte of the data: the address source, or the MAC address's first octet.
    const uint8_t first = wire::Reader(data).u8();
    if (selector == lan::kAddressSource && first > 4) return rsp.fail(cc::kInvalidDataField);
    if (selector == lan::kMacAddress && (first & 0x01)) return rsp.fail(cc::kInvalidDataField); // multicast
    if (selector == lan::kSubnetMask && !contiguousMask(data.span())) return rsp.fail(cc::kInvalidDataField);
    if (setInProgress(ch)) {
        nlohmann::json &pending = ch["pending"];
        if (!pending.is_object()) pending = nlohmann::json::object();
        pending[p->key] = toJson(*p, data.span());
    } else {
        ch[p->key] = toJson(*p, data.span());
    }
    ctx.changed();
}

void install(Controller &c)
{
    c.on(tvx::netfn::kApp, tvx::cmd::app::kGetChannelInfo, getChannelInfo);
    c.on(tvx::netfn::kTransport, tvx::cmd::transport::kSetLanConfig, setLanConfig);
    c.on(tvx::netfn::kTransport, tvx::cmd::transport::kGetLanConfig, getLanConfig);
}

void initState(const Profile &p, nlohmann::json &state)
{
    nlohmann::json lan = nlohmann::json::object();
    for (const ChannelSettings &c : p.settings.lan.channels) {
        if (c.medium != kMediumLan) continue;
        nlohmann::json ch = nlohmann::json::object();
        for (const Parameter &param : kParameters) ch[param.key] = toJson(param, profileValue(c.lan, param.selector));
        lan[std::to_string(c.number)] = ch;
    }
    state["lan"] = lan;
}

} // namespace

const Subsystem kLanSubsystem = {"lan", install, initState};

} // namespace tvxsim
