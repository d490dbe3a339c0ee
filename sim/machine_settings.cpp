#include "machine_settings.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "profile.h"
#include "tvx/hex_string.h"
#include "tvx/wire.h"

namespace tvxsim {

bool parseIpv4(const std::string &text, std::array<uint8_t, 4> &out)
{
    struct in_addr a;
    if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
    std::memcpy(out.data(), &a.s_addr, 4);
    return true;
}

bool parseMac(const std::string &text, std::array<uint8_t, 6> &out)
{
    if (text.size() != 17) return false;
    for (std::size_t i = 0; i < 6; ++i) {
        if (i > 0 && text[i * 3 - 1] != ':') return false;
        unsigned v = 0;
        for (std::size_t k = 0; k < 2; ++k) {
            char c = text[i * 3 + k];
            unsigned d;
            if (c >= '0' && c <= '9') d = static_cast<unsigned>(c - '0');
            else if (c >= 'a' && c <= 'f') d = static_cast<unsigned>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F') d = static_cast<unsigned>(c - 'A' + 10);
            else return false;
            v = v * 16 + d;
        }
        out[i] = static_cast<uint8_t>(v);
    }
    return true;
}

std::string ipv4Text(std::span<const uint8_t> b)
{
    tvx::wire::Reader in{tvx::wire::View(b)};
    const unsigned a = in.u8(), c = in.u8(), d = in.u8(), e = in.u8();
    char buf[16];
    std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", a, c, d, e);
    return buf;
}

std::string macText(std::span<const uint8_t> b) { return tvx::hexBytes(b.first(std::min<std::size_t>(b.size(), 6)), ':'); }

bool contiguousMask(std::span<const uint8_t> b)
{
    // Ones followed by zeros, from the most significant bit of the first octet on.
    bool zeroSeen = false;
    for (uint8_t octet : b) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool one = tvx::wire::bits(octet, static_cast<unsigned>(bit), 1);
            if (one && zeroSeen) return false;
            zeroSeen = zeroSeen || !one;
        }
    }
    return true;
}

namespace {

// A name from a fixed list, or a number within [0, max].
template <std::size_t N>
uint8_t namedByte(const Node &n, const std::pair<const char *, uint8_t> (&names)[N], uint8_t max)
{
    if (n.json().is_string()) {
        std::string s = n.string();
        for (const auto &[name, value] : names)
            if (s == name) return value;
        // A string may still be a number ("0x04").
        if (s.empty() || !(s[0] >= '0' && s[0] <= '9')) {
            std::string list;
            for (const auto &[name, value] : names) list += (list.empty() ? "" : ", ") + std::string(name);
            n.fail("unknown name \"" + s + "\" (known: " + list + "; or a number)");
        }
    }
    return static_cast<uint8_t>(n.integer(0, max));
}

ChassisSettings parseChassis(const Node &n)
{
    n.allowOnly({"power_on", "power_restore_policy", "power_on_source", "power_off_source", "intrusion",
                 "front_panel_lockout", "drive_fault", "cooling_fault", "front_panel"});
    ChassisSettings c;
    if (auto v = n.find("power_on")) c.powerOn = v->boolean();
    if (auto v = n.find("power_restore_policy")) {
        static const std::pair<const char *, uint8_t> names[] = {
            {"always_off", 0}, {"previous", 1}, {"always_on", 2}, {"unknown", 3}};
        c.restorePolicy = static_cast<RestorePolicy>(namedByte(*v, names, 3));
    }
    if (auto v = n.find("power_on_source")) c.powerOnSource = v->byte();
    if (auto v = n.find("power_off_source")) c.powerOffSource = v->byte();
    if (auto v = n.find("intrusion")) c.intrusion = v->boolean();
    if (auto v = n.find("front_panel_lockout")) c.frontPanelLockout = v->boolean();
    if (auto v = n.find("drive_fault")) c.driveFault = v->boolean();
    if (auto v = n.find("cooling_fault")) c.coolingFault = v->boolean();
    if (auto v = n.find("front_panel")) c.frontPanel = v->byte();
    return c;
}

LedSettings parseLeds(const Node &n)
{
    n.allowOnly({"identify", "error"});
    LedSettings l;
    if (auto v = n.find("identify")) l.identify = v->boolean();
    if (auto v = n.find("error")) {
        static const std::pair<const char *, uint8_t> names[] = {
            {"ok", kErrorLedOk}, {"warning", kErrorLedWarning}, {"critical", kErrorLedCritical}};
        l.error = namedByte(*v, names, 0xFF);
    }
    return l;
}

// ---- configuration space --------------------------------------------------------------------

struct KindInfo {
    const char *key;
    VariableKind kind;
    std::size_t length; // fixed length, 0 for text and bytes
};

constexpr KindInfo kKinds[] = {{"text", VariableKind::Text, 0}, {"bytes", VariableKind::Bytes, 0},
                               {"u8", VariableKind::U8, 1},     {"u16", VariableKind::U16, 2},
                               {"u32", VariableKind::U32, 4},   {"ipv6", VariableKind::Ipv6, 16}};

std::vector<uint8_t> parseValue(const Node &n, const KindInfo &k)
{
    switch (k.kind) {
    case VariableKind::Text: {
        std::string s = n.string();
        return std::vector<uint8_t>(s.begin(), s.end());
    }
    case VariableKind::Bytes: return n.bytes();
    case VariableKind::Ipv6: {
        std::string s = n.string();
        uint8_t b[16];
        if (inet_pton(AF_INET6, s.c_str(), b) != 1) n.fail("expected an IPv6 address such as \"fd00::40\", got \"" + s + "\"");
        return std::vector<uint8_t>(b, b + 16);
    }
    default: {
        uint64_t max = k.length == 1 ? 0xFF : k.length == 2 ? 0xFFFF : 0xFFFFFFFF;
        uint64_t v = n.integer(0, max);
        std::vector<uint8_t> out;
        for (std::size_t i = 0; i < k.length; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
        return out;
    }
    }
}

// One value (index 0), a list (index = position; null leaves an index out) or an object
// {"INDEX": value}. For bytes, a list of numbers is one value.
std::map<uint8_t, std::vector<uint8_t>> parseValues(const Node &n, const KindInfo &k)
{
    std::map<uint8_t, std::vector<uint8_t>> out;
    const auto &j = n.json();
    bool oneBytesValue = k.kind == VariableKind::Bytes && j.is_array() && !j.empty() && j.front().is_number();
    if (j.is_array() && !oneBytesValue && !(k.kind == VariableKind::Bytes && j.empty())) {
        if (j.empty()) n.fail("expected at least one value");
        if (j.size() > 256) n.fail("at most 256 indices (0 to 255)");
        for (std::size_t i = 0; i < n.size(); ++i) {
            Node item = n.at(i);
            if (item.json().is_null()) continue;
            out[static_cast<uint8_t>(i)] = parseValue(item, k);
        }
        if (out.empty()) n.fail("expected at least one value that is not null");
    } else if (j.is_object()) {
        if (j.empty()) n.fail("expected at least one index");
        for (auto it = j.begin(); it != j.end(); ++it) {
            Node item = *n.find(it.key().c_str());
            nlohmann::json key = it.key();
            uint8_t index = Node(key, n.file(), item.path()).byte();
            if (out.count(index)) item.fail("index " + std::to_string(index) + " is given twice");
            out[index] = parseValue(item, k);
        }
    } else {
        out[0] = parseValue(n, k);
    }
    return out;
}

ConfigVariable parseVariable(const Node &n, uint16_t id)
{
    n.allowOnly({"name", "text", "bytes", "u8", "u16", "u32", "ipv6", "max_length"});
    ConfigVariable v;
    v.id = id;
    if (auto name = n.find("name")) v.name = name->string();
    const KindInfo *kind = nullptr;
    for (const auto &k : kKinds) {
        if (!n.has(k.key)) continue;
        if (kind) n.fail(std::string("give one of text, bytes, u8, u16, u32, ipv6; not both \"") + kind->key + "\" and \"" + k.key + "\"");
        kind = &k;
    }
    if (!kind) n.fail("missing the value: one of \"text\", \"bytes\", \"u8\", \"u16\", \"u32\", \"ipv6\"");
    v.kind = kind->kind;
    v.fixedLength = kind->length != 0;
    v.maxLength = v.fixedLength ? kind->length : kConfigValueMax;
    if (auto m = n.find("max_length")) {
        if (v.fixedLength) m->fail(std::string("a ") + kind->key + " variable has a fixed length");
        v.maxLength = static_cast<std::size_t>(m->integer(0, kConfigValueMax));
    }
    Node values = n.at(kind->key);
    v.defaults = parseValues(values, *kind);
    for (const auto &[index, value] : v.defaults) {
        if (value.size() > v.maxLength)
            values.fail("the value at index " + std::to_string(index) + " has " + std::to_string(value.size()) +
                        " bytes; at most " + std::to_string(v.maxLength) + " fit");
    }
    return v;
}

std::map<uint16_t, ConfigVariable> parseConfigSpace(const Node &n)
{
    if (!n.json().is_object()) n.fail("expected an object of variables keyed by ID, such as {\"0x0201\": {\"text\": \"...\"}}");
    std::map<uint16_t, ConfigVariable> out;
    for (auto it = n.json().begin(); it != n.json().end(); ++it) {
        Node item = *n.find(it.key().c_str());
        nlohmann::json key = it.key();
        uint16_t id = static_cast<uint16_t>(Node(key, n.file(), item.path()).integer(0, 0xFFFF));
        if (id == kVarConsoleLogging) item.fail("ConfConsLoggingEnable (0x1630) is set by /console/logging");
        if (out.count(id)) item.fail("variable " + it.key() + " is declared twice");
        out[id] = parseVariable(item, id);
    }
    return out;
}

std::vector<std::string> parseLines(const Node &n)
{
    std::vector<std::string> out;
    for (std::size_t i = 0; i < n.size(); ++i) out.push_back(n.at(i).string());
    return out;
}

ConsoleSettings parseConsole(const Node &n)
{
    n.allowOnly({"logging", "capacity", "log", "boot_lines"});
    ConsoleSettings c;
    if (auto v = n.find("logging")) c.logging = v->boolean();
    if (auto v = n.find("capacity")) c.capacity = static_cast<std::size_t>(v->integer(0, 1u << 20));
    if (auto v = n.find("log")) c.log = parseLines(*v);
    if (auto v = n.find("boot_lines")) c.bootLines = parseLines(*v);
    return c;
}

// ---- LAN ------------------------------------------------------------------------------------

template <std::size_t N>
std::array<uint8_t, N> parseAddress(const Node &n, bool (*parse)(const std::string &, std::array<uint8_t, N> &),
                                    const char *example)
{
    std::array<uint8_t, N> out{};
    std::string s = n.string();
    if (!parse(s, out)) n.fail("expected an address such as \"" + std::string(example) + "\", got \"" + s + "\"");
    return out;
}

AlertDestination parseDestination(const Node &n)
{
    n.allowOnly({"address", "mac_address", "port", "refuses_event"});
    AlertDestination d;
    if (auto v = n.find("address")) d.ip = parseAddress<4>(*v, parseIpv4, "10.20.30.5");
    if (auto v = n.find("mac_address")) d.mac = parseAddress<6>(*v, parseMac, "02:00:0a:14:1e:05");
    if (auto v = n.find("port")) d.port = static_cast<uint16_t>(v->integer(1, 65535));
    if (auto v = n.find("refuses_event")) d.refusesEvent = v->boolean();
    return d;
}

ChannelSettings parseChannel(const Node &n)
{
    n.allowOnly({"number", "medium", "protocol", "sessions", "aux_info", "ip_address", "subnet_mask", "default_gateway",
                 "gateway_mac", "mac_address", "address_source", "auth_type_support", "alert_destinations"});
    ChannelSettings c;
    Node number = n.at("number");
    c.number = static_cast<uint8_t>(number.integer(0, 15));
    if (c.number == 0x0E) number.fail("channel 14 (0x0E) stands for the channel a request arrives on; use another number");
    static const std::pair<const char *, uint8_t> media[] = {
        {"ipmb", 0x01},    {"icmb_1.0", 0x02},  {"icmb_0.9", 0x03}, {"802.3", 0x04}, {"serial", 0x05},
        {"other_lan", 0x06}, {"pci_smbus", 0x07}, {"smbus_1.0", 0x08}, {"smbus_2.0", 0x09}, {"usb_1", 0x0A},
        {"usb_2", 0x0B},   {"system_interface", 0x0C}};
    c.medium = namedByte(n.at("medium"), media, 0x7F);
    bool lan = c.medium == kMediumLan;
    c.protocol = c.medium == kMediumSystemInterface ? 0x05 : 0x01; // KCS, else IPMB-1.0
    if (auto v = n.find("protocol")) c.protocol = static_cast<uint8_t>(v->integer(0, 0x1F));
    c.sessionSupport = lan ? 0x80 : c.medium == kMediumSerial ? 0x40 : 0x00;
    if (auto v = n.find("sessions")) {
        static const std::pair<const char *, uint8_t> names[] = {{"less", 0}, {"single", 1}, {"multi", 2}, {"based", 3}};
        c.sessionSupport = static_cast<uint8_t>(namedByte(*v, names, 3) << 6);
    }
    if (auto v = n.find("aux_info")) {
        auto b = v->bytes();
        if (b.size() != 2) v->fail("expected exactly 2 bytes, got " + std::to_string(b.size()));
        c.auxInfo = {b[0], b[1]};
    }
    static const char *lanKeys[] = {"ip_address", "subnet_mask", "default_gateway", "gateway_mac", "mac_address",
                                    "address_source", "auth_type_support", "alert_destinations"};
    if (!lan) {
        for (const char *k : lanKeys)
            if (auto v = n.find(k)) v->fail("LAN settings belong to 802.3 channels (medium \"802.3\")");
        return c;
    }
    LanAddresses &a = c.lan;
    if (auto v = n.find("ip_address")) a.ip = parseAddress<4>(*v, parseIpv4, "10.20.30.40");
    if (auto v = n.find("subnet_mask")) {
        a.subnetMask = parseAddress<4>(*v, parseIpv4, "255.255.255.0");
        if (!contiguousMask(a.subnetMask)) v->fail("a subnet mask is ones followed by zeros, such as 255.255.255.0");
    }
    if (auto v = n.find("default_gateway")) a.gateway = parseAddress<4>(*v, parseIpv4, "10.20.30.1");
    if (auto v = n.find("gateway_mac")) a.gatewayMac = parseAddress<6>(*v, parseMac, "02:00:00:14:1e:01");
    if (auto v = n.find("mac_address")) {
        a.mac = parseAddress<6>(*v, parseMac, "02:00:00:14:1e:28");
        if (a.mac[0] & 0x01) v->fail("a multicast MAC address (first byte odd) cannot be the controller's own");
    }
    if (auto v = n.find("address_source")) {
        static const std::pair<const char *, uint8_t> names[] = {
            {"unspecified", 0}, {"static", 1}, {"dhcp", 2}, {"bios", 3}, {"other", 4}};
        a.addressSource = namedByte(*v, names, 4);
    }
    if (auto v = n.find("auth_type_support")) a.authTypeSupport = static_cast<uint8_t>(v->integer(0, 0x3F));
    if (auto list = n.find("alert_destinations")) {
        if (list->size() > tvx::lan::kMaxDestinations)
            list->fail("a channel has at most " + std::to_string(tvx::lan::kMaxDestinations) + " alert destinations");
        for (std::size_t i = 0; i < list->size(); ++i) c.alertDestinations.push_back(parseDestination(list->at(i)));
    }
    return c;
}

LanSettings parseLan(const Node &n)
{
    n.allowOnly({"channels", "current_channel"});
    LanSettings l;
    if (auto channels = n.find("channels")) {
        for (std::size_t i = 0; i < channels->size(); ++i) {
            Node item = channels->at(i);
            ChannelSettings c = parseChannel(item);
            if (l.channel(c.number)) item.at("number").fail("channel " + std::to_string(c.number) + " is declared twice");
            l.channels.push_back(c);
        }
    }
    for (const auto &c : l.channels)
        if (!l.currentChannel && c.medium == kMediumLan) l.currentChannel = c.number;
    if (!l.currentChannel && !l.channels.empty()) l.currentChannel = l.channels.front().number;
    if (auto v = n.find("current_channel")) {
        uint8_t ch = static_cast<uint8_t>(v->integer(0, 15));
        if (!l.channel(ch)) v->fail("channel " + std::to_string(ch) + " is not among /lan/channels");
        l.currentChannel = ch;
    }
    return l;
}

} // namespace

MachineSettings parseMachineSettings(const Node &root)
{
    MachineSettings m;
    if (auto n = root.find("chassis")) m.chassis = parseChassis(*n);
    if (auto n = root.find("leds")) m.leds = parseLeds(*n);
    if (auto n = root.find("config_space")) m.configSpace = parseConfigSpace(*n);
    if (auto n = root.find("console")) m.console = parseConsole(*n);
    if (auto n = root.find("lan")) m.lan = parseLan(*n);
    ConfigVariable logging;
    logging.id = kVarConsoleLogging;
    logging.name = "ConfConsLoggingEnable";
    logging.kind = VariableKind::U8;
    logging.fixedLength = true;
    logging.maxLength = 1;
    logging.defaults[0] = {static_cast<uint8_t>(m.console.logging ? 1 : 0)};
    m.configSpace[kVarConsoleLogging] = logging;
    return m;
}

} // namespace tvxsim
