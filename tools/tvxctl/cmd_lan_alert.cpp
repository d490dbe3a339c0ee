// tvxctl lan alert list [CHANNEL] | set N IP[:PORT] [CHANNEL]: the alert destinations of a LAN
// channel, through the platform's Get/Set LAN Configuration Parameters, so that they work on
// any controller. The UDP port is the virtual controller's own parameter (0xC0); a controller
// without it sends its traps to port 162.
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "lan_alert.h"
#include "libipmi.h"
#include "tvx/ipmi.h"

namespace tvxctl {
namespace {

namespace lan = tvx::lan;
namespace dtype = lan::destination_type;
namespace daddr = lan::destination_address;
namespace dport = lan::destination_port;
constexpr int kTimeout = 60;

// The parameter's data (after the revision byte), as the platform filled it; the status.
uint16_t getParameter(Session &session, uint8_t channel, uint8_t selector, uint8_t set, LanConfigGetResponse &res)
{
    LanConfigGetRequest req{channel, selector, set, 0};
    std::memset(&res, 0, sizeof res);
    return IPMICMD_GetLANConfig(session.get(), &req, &res, kTimeout);
}

uint16_t setParameter(Session &session, uint8_t channel, uint8_t selector, std::span<const uint8_t> data)
{
    LanConfigSetRequest req{};
    req.channelNumber = channel, req.parameterSelector = selector;
    std::memcpy(req.data, data.data(), std::min(data.size(), sizeof req.data));
    uint8_t code = 0;
    return IPMICMD_SetLANConfig(session.get(), &req, static_cast<uint32_t>(offsetof(LanConfigSetRequest, data) + data.size()),
                                &code, kTimeout);
}

bool unsupported(uint16_t status) { return status == LIBIPMI_STATUS_COMPLETION_CODE(tvx::cc::lan::kParameterNotSupported); }

uint8_t channelOf(Session &session, const std::vector<std::string> &args, std::size_t at)
{
    if (args.size() > at) {
        uint8_t c;
        if (!parseByte(args[at], c) || c > 15) throw Failure{kExitUsage, "invalid channel \"" + args[at] + "\" (0 to 15)"};
        return c;
    }
    const uint8_t c = getDefaultLanChannelNumber(session.get());
    if (c > 15) throw session.failed("the controller has no LAN channel");
    return c;
}

const char *typeText(uint8_t type)
{
    switch (type & dtype::kTypeMask) {
    case dtype::kPetTrap: return "PET trap";
    case dtype::kOem1: return "OEM 1";
    case dtype::kOem2: return "OEM 2";
    default: return "reserved";
    }
}

Json toJson(const AlertDestinationInfo &d)
{
    return {{"selector", d.selector},
            {"volatile", d.selector == 0},
            {"type", typeText(d.type)},
            {"acknowledged", (d.type & dtype::kAcknowledged) != 0},
            {"ack_timeout", d.ackTimeout},
            {"retries", d.retries},
            {"gateway", d.gateway ? "backup" : "default"},
            {"address", d.address},
            {"mac_address", d.mac},
            {"port", d.port.value_or(lan::kTrapPort)}};
}

int list(const Options &opt, Session &session, uint8_t channel)
{
    const uint8_t count = alertDestinationCount(session, channel);
    LanConfigGetResponse probe;
    if (count == 0 && unsupported(getParameter(session, channel, lan::kDestinationAddress, 0, probe))) {
        // No destination at all, not even the volatile one (ipmi_sim, for one).
        if (opt.json) printJson({{"channel", channel}, {"count", 0}, {"destinations", Json::array()}});
        else std::printf("LAN channel %u has no alert destinations.\n", channel);
        return kExitOk;
    }
    std::vector<AlertDestinationInfo> all;
    for (unsigned s = 0; s <= count; ++s) all.push_back(alertDestination(session, channel, static_cast<uint8_t>(s)));
    if (opt.json) {
        Json rows = Json::array();
        for (const auto &d : all) rows.push_back(toJson(d));
        printJson({{"channel", channel}, {"count", count}, {"destinations", rows}});
        return kExitOk;
    }
    std::printf("LAN channel %u: %u alert destination%s (and the volatile destination 0)\n\n", channel, count,
                count == 1 ? "" : "s");
    std::printf("%-4s %-9s %-21s %-17s %-8s %-14s %s\n", "Dest", "Type", "Address", "MAC", "Gateway", "Acknowledge",
                "Retries");
    for (const auto &d : all) {
        const std::string ack = d.type & dtype::kAcknowledged ? "yes, " + std::to_string(d.ackTimeout) + " s" : "no";
        std::printf("%-4u %-9s %-21s %-17s %-8s %-14s %u\n", d.selector, typeText(d.type), whereTo(d).c_str(),
                    d.mac.c_str(), d.gateway ? "backup" : "default", ack.c_str(), d.retries);
    }
    return kExitOk;
}

int set(const Options &opt, Session &session, const std::vector<std::string> &args)
{
    uint8_t selector;
    if (!parseByte(args[1], selector) || selector > lan::kMaxDestinations)
        throw Failure{kExitUsage, "invalid destination \"" + args[1] + "\" (0 to 15)"};
    const std::string &target = args[2];
    const std::size_t colon = target.find(':');
    const std::string host = target.substr(0, colon);
    unsigned long port = lan::kTrapPort;
    if (colon != std::string::npos && (!parseNumber(target.substr(colon + 1), 65535, port) || port == 0))
        throw Failure{kExitUsage, "invalid UDP port in \"" + target + "\" (1 to 65535)"};
    struct in_addr a;
    if (inet_pton(AF_INET, host.c_str(), &a) != 1)
        throw Failure{kExitUsage, "invalid IPv4 address \"" + host + "\" (expected dotted notation such as 10.20.30.5)"};
    const uint8_t channel = channelOf(session, args, 3);
    const uint8_t count = alertDestinationCount(session, channel);
    if (selector > count)
        throw Failure{kExitUsage, "LAN channel " + std::to_string(channel) + " has destinations 0 to " + std::to_string(count)};

    // The port first: a controller that cannot keep it is left unchanged.
    std::array<uint8_t, dport::kSize> portData{};
    tvx::wire::Writer(portData).put(dport::kSelector, selector).put(dport::kPort, static_cast<uint16_t>(port));
    const uint16_t portStatus = setParameter(session, channel, lan::kDestinationPort, portData);
    if (portStatus != 0 && !(unsupported(portStatus) && port == lan::kTrapPort)) {
        if (unsupported(portStatus))
            throw Failure{kExitFailed, "the controller keeps no UDP port per alert destination; its traps go to port 162"};
        throw session.failed("the UDP port of destination " + std::to_string(selector) + " was not stored");
    }
    // The address, keeping the destination's gateway and MAC address.
    LanConfigGetResponse res;
    const uint16_t got = getParameter(session, channel, lan::kDestinationAddress, selector, res);
    if (got != 0) throw session.failed("cannot read alert destination " + std::to_string(selector));
    const tvx::wire::View old(res.data, sizeof res.data);
    std::array<uint8_t, daddr::kSize> data{};
    tvx::wire::Writer(data)
        .put(daddr::kSelector, selector)
        .put(daddr::kFormat, daddr::kFormatIpv4)
        .put(daddr::kGateway, old.get(daddr::kGateway, uint8_t{0}))
        .put(daddr::kIpv4, std::span<const uint8_t>(reinterpret_cast<const uint8_t *>(&a.s_addr), 4))
        .put(daddr::kMac, old.get(daddr::kMac).span());
    if (setParameter(session, channel, lan::kDestinationAddress, data) != 0)
        throw session.failed("alert destination " + std::to_string(selector) + " was not stored");
    const AlertDestinationInfo d = alertDestination(session, channel, selector);
    if (opt.json) printJson({{"channel", channel}, {"destination", toJson(d)}});
    else std::printf("Alert destination %u of LAN channel %u: %s\n", selector, channel, whereTo(d).c_str());
    return kExitOk;
}

} // namespace

uint8_t alertDestinationCount(Session &session, uint8_t channel)
{
    LanConfigGetResponse res;
    if (getParameter(session, channel, lan::kDestinationCount, 0, res) != 0)
        throw session.failed("cannot read the number of alert destinations of LAN channel " + std::to_string(channel));
    return tvx::wire::View(res.data, sizeof res.data).get(lan::destination_count::kCount, uint8_t{0}) &
           lan::destination_count::kMask;
}

AlertDestinationInfo alertDestination(Session &session, uint8_t channel, uint8_t selector)
{
    AlertDestinationInfo d;
    d.selector = selector;
    LanConfigGetResponse res;
    const std::string which = "alert destination " + std::to_string(selector) + " of LAN channel " + std::to_string(channel);
    const uint16_t status = getParameter(session, channel, lan::kDestinationType, selector, res);
    if (unsupported(status)) throw Failure{kExitFailed, "the controller keeps no alert destinations on LAN channel " + std::to_string(channel)};
    if (status != 0) throw session.failed("cannot read " + which);
    tvx::wire::View v(res.data, sizeof res.data);
    d.type = v.get(dtype::kType, uint8_t{0}), d.ackTimeout = v.get(dtype::kAckTimeout, uint8_t{0});
    d.retries = v.get(dtype::kRetries, uint8_t{0});
    if (getParameter(session, channel, lan::kDestinationAddress, selector, res) != 0) throw session.failed("cannot read " + which);
    d.gateway = v.get(daddr::kGateway, uint8_t{0}) & 1;
    const tvx::wire::View ip = v.get(daddr::kIpv4);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, ip.data(), text, sizeof text);
    d.address = text;
    d.mac = tvx::hexBytes(v.get(daddr::kMac).span(), ':');
    if (getParameter(session, channel, lan::kDestinationPort, selector, res) == 0) d.port = v.get(dport::kPort, uint16_t{0});
    return d;
}

std::string whereTo(const AlertDestinationInfo &d) { return d.address + ":" + std::to_string(d.port.value_or(lan::kTrapPort)); }

int cmdLanAlert(const Options &opt, Session &session, const std::vector<std::string> &args)
{
    if (args.size() >= 1 && args.size() <= 2 && args[0] == "list") return list(opt, session, channelOf(session, args, 1));
    if (args.size() >= 3 && args.size() <= 4 && args[0] == "set") return set(opt, session, args);
    throw Failure{kExitUsage, "usage: tvxctl lan alert list [CHANNEL] | lan alert set N IP[:PORT] [CHANNEL]"};
}

} // namespace tvxctl
