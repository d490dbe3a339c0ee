// Channels (Get Channel Info, NetFn 0x06) and the LAN configuration parameters of the 802.3
// channels (NetFn 0x0C), kept per channel in state["lan"]["CHANNEL"].
//
// Channel 0x0E is the channel the request arrived on: the profile's current channel (by
// default its first 802.3 channel). A channel that does not exist, or is not 802.3 for the
// LAN parameters, answers 0xCC.
//
// Parameters: 0 set in progress, 1 authentication type support (read-only), 3 IP address,
// 4 address source, 5 MAC address, 6 subnet mask, 12 default gateway, 13 default gateway
// MAC, 17 number of alert destinations (read-only), 18 destination type, 19 destination
// address, and the controller's own 0xC0, a destination's UDP port. Others answer 0x80 (not
// supported), a write to a read-only one 0x82, data of the wrong length 0xC7. Writes made
// without a set in progress take effect at once.
//
// Alert destinations: the profile declares a channel's destinations (selectors 1 to N, N its
// count); destination 0 is the volatile one, kept in RAM (state["lan_volatile"]["CHANNEL"]),
// the others as state["lan"]["CHANNEL"]["alert_destination_S"]. A selector beyond the count
// answers 0xC9 (parameter out of range); a destination type other than a PET trap or OEM, or
// an address format other than IPv4, 0xCC.
//
// A set in progress lives in the controller's RAM, per channel: state["lan_set"]["CHANNEL"] =
// {"owner": {"pid": P, "start": T}, "pending": {...}}. Writes wait in "pending" until a commit
// write applies them; "set complete" ends the set and drops what was not committed. The owner
// is the program that set "set in progress" (its process ID and start time): while it runs,
// another program's "set in progress" answers 0x81; once it has ended, its set counts as
// ended, its uncommitted writes are dropped, and the next program may begin its own, as a
// controller's time-out releases a set whose client went away.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

#include "controller.h"
#include "lan_alerts.h"
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

// ---- alert destinations ----------------------------------------------------------------------

namespace dtype = lan::destination_type;
namespace daddr = lan::destination_address;
namespace dport = lan::destination_port;

constexpr const char *kVolatile = "lan_volatile"; // RAM: destination 0 of each channel

std::string destinationKey(uint8_t selector) { return "alert_destination_" + std::to_string(selector); }

// Stores a member of the channel's state; destination 0 goes to RAM.
void storeMember(Context &ctx, uint8_t number, const std::string &key, const nlohmann::json &value)
{
    if (key == destinationKey(0)) machine::section(ctx.state, kVolatile)[std::to_string(number)] = value;
    else channelState(ctx, number)[key] = value;
}

DestinationState profileDestination(const ChannelSettings &c, uint8_t selector)
{
    DestinationState d;
    if (selector == 0 || selector > c.alertDestinations.size()) return d;
    const AlertDestination &p = c.alertDestinations[selector - 1u];
    d.ip = p.ip, d.mac = p.mac, d.port = p.port, d.refusesEvent = p.refusesEvent;
    return d;
}

nlohmann::json destinationJson(const DestinationState &d)
{
    return {{"type", d.type},       {"ack_timeout", d.ackTimeout},   {"retries", d.retries},
            {"format", d.format},   {"gateway", d.gateway},          {"address", ipv4Text(d.ip)},
            {"mac_address", macText(d.mac)}, {"port", d.port}};
}

// The stored members over the profile's values (a member that cannot be read keeps the profile's).
DestinationState destinationFrom(const nlohmann::json &o, DestinationState d)
{
    if (!o.is_object()) return d;
    d.type = static_cast<uint8_t>(machine::number(o, "type", d.type, 0xFF));
    d.ackTimeout = static_cast<uint8_t>(machine::number(o, "ack_timeout", d.ackTimeout, 0xFF));
    d.retries = static_cast<uint8_t>(machine::number(o, "retries", d.retries, 0xFF));
    d.format = static_cast<uint8_t>(machine::number(o, "format", d.format, 0xFF));
    d.gateway = static_cast<uint8_t>(machine::number(o, "gateway", d.gateway, 0xFF));
    d.port = static_cast<uint16_t>(machine::number(o, "port", d.port, 0xFFFF));
    if (auto it = o.find("address"); it != o.end() && it->is_string()) parseIpv4(it->get<std::string>(), d.ip);
    if (auto it = o.find("mac_address"); it != o.end() && it->is_string()) parseMac(it->get<std::string>(), d.mac);
    return d;
}

const nlohmann::json *member(const nlohmann::json &state, const char *area, uint8_t number, const std::string *key)
{
    auto a = state.find(area);
    if (a == state.end() || !a->is_object()) return nullptr;
    auto ch = a->find(std::to_string(number));
    if (ch == a->end()) return nullptr;
    if (!key) return &*ch;
    if (!ch->is_object()) return nullptr;
    auto it = ch->find(*key);
    return it == ch->end() ? nullptr : &*it;
}

// The destination as stored (pending: as a set in progress would leave it).
DestinationState storedDestination(Context &ctx, const ChannelSettings &c, uint8_t selector, const nlohmann::json *pending)
{
    const std::string key = destinationKey(selector);
    DestinationState d = profileDestination(c, selector);
    const nlohmann::json *stored =
        selector == 0 ? member(ctx.state, kVolatile, c.number, nullptr) : member(ctx.state, "lan", c.number, &key);
    if (stored) d = destinationFrom(*stored, d);
    if (pending && pending->is_object())
        if (auto it = pending->find(key); it != pending->end()) d = destinationFrom(*it, d);
    return d;
}

// ---- the owner of a set in progress ---------------------------------------------------------

struct Client {
    uint64_t pid = 0;
    uint64_t start = 0; // clock ticks since boot (0: unknown)
};

// A process's start time from /proc (field 22 of its stat line, after the parenthesized name);
// nothing for a process that does not exist or has ended (a zombie). The line is read from the
// main thread's entry (/proc/PID/task/PID/stat, whose start time is the process's): a user-mode
// emulator (qemu-arm running the controller's build) answers a process's own /proc/PID/stat
// itself, with a start time of its own making that no other process would read, but passes the
// task entries through.
std::optional<uint64_t> processStart(uint64_t pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/stat";
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    char buf[1024];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) return std::nullopt;
    buf[n] = '\0';
    char *p = std::strrchr(buf, ')');
    if (!p) return std::nullopt;
    int field = 2;
    char *save = nullptr;
    for (char *tok = strtok_r(p + 1, " ", &save); tok; tok = strtok_r(nullptr, " ", &save)) {
        ++field;
        if (field == 3 && (tok[0] == 'Z' || tok[0] == 'X')) return std::nullopt;
        if (field == 22) return std::strtoull(tok, nullptr, 10);
    }
    return std::nullopt;
}

bool haveProc()
{
    static const bool have = access("/proc/self/stat", R_OK) == 0;
    return have;
}

Client thisClient()
{
    static Client me;
    const uint64_t pid = static_cast<uint64_t>(getpid());
    if (me.pid != pid) me = {pid, haveProc() ? processStart(pid).value_or(0) : 0}; // again after a fork
    return me;
}

bool alive(const nlohmann::json &owner)
{
    const uint64_t pid = machine::number(owner, "pid", 0, 0x7FFFFFFF), start = machine::number(owner, "start", 0, UINT64_MAX);
    if (pid == 0) return false;
    const Client me = thisClient();
    if (pid == me.pid) return start == me.start;
    if (haveProc()) return processStart(pid) == start;
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// The channel's set in progress, or null when there is none (or its owner has ended).
nlohmann::json *transaction(Context &ctx, uint8_t number, bool *stale = nullptr)
{
    auto ram = ctx.state.find("lan_set");
    if (ram == ctx.state.end() || !ram->is_object()) return nullptr;
    auto t = ram->find(std::to_string(number));
    if (t == ram->end()) return nullptr;
    if (t->is_object() && t->contains("owner") && alive((*t)["owner"])) return &*t;
    if (stale) *stale = true;
    return nullptr;
}

void endTransaction(Context &ctx, uint8_t number)
{
    auto ram = ctx.state.find("lan_set");
    if (ram == ctx.state.end()) return;
    if (ram->is_object()) ram->erase(std::to_string(number));
    if (!ram->is_object() || ram->empty()) ctx.state.erase(ram);
    ctx.changed();
}

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
    const uint8_t set = in.u8();
    in.skip(1); // block selector: no parameter here has blocks
    if (!rsp.complete(in)) return;
    const bool revisionOnly = channel & 0x80;
    if (channel & 0x70) return rsp.fail(cc::kInvalidDataField);
    const ChannelSettings *c = resolveChannel(ctx, channel & 0x0F);
    if (!c || c->medium != kMediumLan) return rsp.fail(cc::kInvalidDataField);
    rsp.u8(kParameterRevision);
    if (revisionOnly) return;
    if (selector == kSetInProgress) {
        rsp.u8(transaction(ctx, c->number) ? lan::kInProgress : lan::kSetComplete);
        return;
    }
    static const nlohmann::json kNone = nlohmann::json::object();
    const nlohmann::json *ch = &kNone;
    if (auto lan = ctx.state.find("lan"); lan != ctx.state.end() && lan->is_object())
        if (auto it = lan->find(std::to_string(c->number)); it != lan->end()) ch = &*it;
    if (selector == kAuthTypeSupport) {
        rsp.u8(c->lan.authTypeSupport);
        return;
    }
    if (selector == lan::kDestinationCount) {
        rsp.u8(static_cast<uint8_t>(c->alertDestinations.size() & lan::destination_count::kMask));
        return;
    }
    if (selector == lan::kDestinationType || selector == lan::kDestinationAddress || selector == lan::kDestinationPort) {
        if ((set & 0xF0) || set > c->alertDestinations.size()) return rsp.fail(cc::kParameterOutOfRange);
        const DestinationState d = storedDestination(ctx, *c, set, nullptr);
        rsp.u8(set);
        if (selector == lan::kDestinationType) rsp.u8(d.type).u8(d.ackTimeout).u8(d.retries);
        else if (selector == lan::kDestinationAddress) rsp.u8(d.format).u8(d.gateway).append(std::span<const uint8_t>(d.ip)).append(std::span<const uint8_t>(d.mac));
        else rsp.u16(d.port);
        return;
    }
    const Parameter *p = findParameter(selector);
    if (!p) return rsp.fail(kParameterNotSupported);
    rsp.append(fromJson(*p, *ch, profileValue(c->lan, selector)));
}

// Set in progress: 0 set complete, 1 set in progress, 2 commit write.
void setProgress(Context &ctx, uint8_t number, uint8_t value, Response &rsp)
{
    if (value > 2) return rsp.fail(cc::kInvalidDataField);
    bool stale = false;
    nlohmann::json *t = transaction(ctx, number, &stale);
    switch (value) {
    case 0:
        if (t || stale) endTransaction(ctx, number);
        break;
    case 1: {
        if (t) return rsp.fail(kSetInProgressBusy);
        const Client me = thisClient();
        machine::section(ctx.state, "lan_set")[std::to_string(number)] = {
            {"owner", {{"pid", me.pid}, {"start", me.start}}}, {"pending", nlohmann::json::object()}};
        ctx.changed();
        break;
    }
    case 2:
        if (t) {
            nlohmann::json &pending = (*t)["pending"];
            if (pending.is_object())
                for (auto it = pending.begin(); it != pending.end(); ++it) storeMember(ctx, number, it.key(), it.value());
            pending = nlohmann::json::object();
            ctx.changed();
        } else if (stale) {
            endTransaction(ctx, number); // nothing of an ended set is committed
        }
        break;
    }
}

// Parameters 18, 19 and 0xC0: one part of a destination, the rest as it stands.
void setDestination(Context &ctx, const ChannelSettings &c, uint8_t selector, wire::Reader &in, Response &rsp)
{
    const std::size_t size = selector == lan::kDestinationType      ? dtype::kSize
                             : selector == lan::kDestinationAddress ? daddr::kSize
                                                                    : dport::kSize;
    const wire::View data = in.bytes(size);
    if (!rsp.complete(in)) return;
    const uint8_t set = data.get(dtype::kSelector, uint8_t{0});
    if ((set & 0xF0) || set > c.alertDestinations.size()) return rsp.fail(cc::kParameterOutOfRange);
    bool stale = false;
    nlohmann::json *t = transaction(ctx, c.number, &stale);
    nlohmann::json *pending = t ? &(*t)["pending"] : nullptr;
    if (pending && !pending->is_object()) *pending = nlohmann::json::object();
    DestinationState d = storedDestination(ctx, c, set, pending);
    if (selector == lan::kDestinationType) {
        const uint8_t type = data.get(dtype::kType, uint8_t{0}), kind = type & dtype::kTypeMask;
        if ((type & 0x78) || (kind != dtype::kPetTrap && kind != dtype::kOem1 && kind != dtype::kOem2))
            return rsp.fail(cc::kInvalidDataField);
        d.type = type, d.ackTimeout = data.get(dtype::kAckTimeout, uint8_t{0}), d.retries = data.get(dtype::kRetries, uint8_t{0});
        if (d.retries > 7) return rsp.fail(cc::kInvalidDataField);
    } else if (selector == lan::kDestinationAddress) {
        d.format = data.get(daddr::kFormat, uint8_t{0});
        d.gateway = data.get(daddr::kGateway, uint8_t{0});
        if (d.format != daddr::kFormatIpv4 || d.gateway > 1) return rsp.fail(cc::kInvalidDataField);
        std::copy_n(data.get(daddr::kIpv4).data(), d.ip.size(), d.ip.begin());
        std::copy_n(data.get(daddr::kMac).data(), d.mac.size(), d.mac.begin());
    } else {
        d.port = data.get(dport::kPort, uint16_t{0});
        if (d.port == 0) return rsp.fail(cc::kInvalidDataField);
    }
    if (pending) {
        (*pending)[destinationKey(set)] = destinationJson(d);
    } else {
        if (stale) endTransaction(ctx, c.number);
        storeMember(ctx, c.number, destinationKey(set), destinationJson(d));
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
    if (selector == kSetInProgress) {
        const uint8_t value = in.u8();
        if (!rsp.complete(in)) return;
        return setProgress(ctx, c->number, value, rsp);
    }
    if (selector == kAuthTypeSupport || selector == lan::kDestinationCount) return rsp.fail(kReadOnlyParameter);
    if (selector == lan::kDestinationType || selector == lan::kDestinationAddress || selector == lan::kDestinationPort)
        return setDestination(ctx, *c, selector, in, rsp);
    const Parameter *p = findParameter(selector);
    if (!p) return rsp.fail(kParameterNotSupported);
    const wire::View data = in.bytes(p->length);
    if (!rsp.complete(in)) return;
    // The first byte of the data: the address source, or the MAC address's first octet.
    const uint8_t first = wire::Reader(data).u8();
    if (selector == lan::kAddressSource && first > 4) return rsp.fail(cc::kInvalidDataField);
    if (selector == lan::kMacAddress && (first & 0x01)) return rsp.fail(cc::kInvalidDataField); // multicast
    if (selector == lan::kSubnetMask && !contiguousMask(data.span())) return rsp.fail(cc::kInvalidDataField);
    bool stale = false;
    if (nlohmann::json *t = transaction(ctx, c->number, &stale)) {
        nlohmann::json &pending = (*t)["pending"];
        if (!pending.is_object()) pending = nlohmann::json::object();
        pending[p->key] = toJson(*p, data.span());
    } else {
        if (stale) endTransaction(ctx, c->number);
        channelState(ctx, c->number)[p->key] = toJson(*p, data.span());
    }
    ctx.changed();
}

void install(Controller &c)
{
    c.on(tvx::netfn::kApp, tvx::cmd::app::kGetChannelInfo, getChannelInfo);
    c.on(tvx::netfn::kTransport, tvx::cmd::transport::kSetLanConfig, setLanConfig);
    c.on(tvx::netfn::kTransport, tvx::cmd::transport::kGetLanConfig, getLanConfig);
    c.keepInRam("lan_set");
    c.keepInRam(kVolatile);
}

void initState(const Profile &p, nlohmann::json &state)
{
    nlohmann::json lan = nlohmann::json::object();
    for (const ChannelSettings &c : p.settings.lan.channels) {
        if (c.medium != kMediumLan) continue;
        nlohmann::json ch = nlohmann::json::object();
        for (const Parameter &param : kParameters) ch[param.key] = toJson(param, profileValue(c.lan, param.selector));
        for (std::size_t s = 1; s <= c.alertDestinations.size(); ++s)
            ch[destinationKey(static_cast<uint8_t>(s))] = destinationJson(profileDestination(c, static_cast<uint8_t>(s)));
        lan[std::to_string(c.number)] = ch;
    }
    state["lan"] = lan;
}

} // namespace

std::optional<DestinationState> alertDestination(Context &ctx, uint8_t channel, uint8_t selector)
{
    const ChannelSettings *c = resolveChannel(ctx, channel);
    if (!c || c->medium != kMediumLan || selector > c->alertDestinations.size()) return std::nullopt;
    return storedDestination(ctx, *c, selector, nullptr);
}

std::array<uint8_t, 4> channelAddress(Context &ctx, uint8_t channel)
{
    std::array<uint8_t, 4> ip{};
    const ChannelSettings *c = resolveChannel(ctx, channel);
    if (!c || c->medium != kMediumLan) return ip;
    const Parameter *p = findParameter(lan::kIpAddress);
    const nlohmann::json *stored = member(ctx.state, "lan", c->number, nullptr);
    const std::vector<uint8_t> v = fromJson(*p, stored ? *stored : nlohmann::json(), profileValue(c->lan, lan::kIpAddress));
    std::copy_n(v.begin(), std::min(v.size(), ip.size()), ip.begin());
    return ip;
}

const Subsystem kLanSubsystem = {"lan", install, initState};

} // namespace tvxsim
