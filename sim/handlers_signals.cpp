// Component signal states and presence (OEM command 0xF5, sub-functions 0x42 and 0x54), the
// boot status, and the specific areas of the server's network port functions (OEM command
// 0xF1, sub-function 0x1C), as the profile describes them:
//
//   "component_states": {
//     "boot": 0,                       the system firmware's signal state (entity 0x22, kind 0)
//     "components": [ {"name": "FAN2", "kind": "0x04", "entity": "0x1D", "instance": 2,
//                      "signal": 3 | "empty" | "unreadable", "presence": 0} ]
//   }
//   "port_functions": [ {"id": "01 00 00", "name": "LOM port 1", "mac": "02:00:..",
//                        "ipv4": ["10.0.0.5"], "ipv6": ["fe80::1"]} ]
//
// Signal read answers the state in bits 1:0 of its value byte; a component whose state cannot
// be read answers 0x01, an empty slot 0x02. The presence query answers the presence code
// (0 present, 1 absent; "empty" components default to 1). A component the profile does not
// list answers 0xCB; requests of another length 0xC7. A port-function area request names the
// function, an offset and a length (at most 64); a range beyond the area answers 0xC9, an
// unknown function 0xCB.
#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <map>

#include "controller.h"
#include "tvx/oem_hardware.h"

namespace tvxsim {
namespace {

namespace hw = tvx::oem::hw;
namespace area = tvx::oem::hw::port_area;

constexpr uint8_t kSystemFirmware = 0x22, kBootKind = 0x00;

using Key = std::array<uint8_t, 3>; // entity ID, instance, kind

struct Signal {
    uint8_t completionCode = cc::kOk;
    uint8_t state = 0;
    uint8_t presence = 0;
};

struct Model {
    std::map<Key, Signal> components;
    std::map<Key, std::array<uint8_t, area::kSize>> ports; // by identity bytes
};

std::vector<uint8_t> address(const Node &n, int family)
{
    std::string text = n.string();
    uint8_t out[16];
    if (inet_pton(family, text.c_str(), out) != 1)
        n.fail("\"" + text + "\" is not an " + (family == AF_INET ? "IPv4" : "IPv6") + " address");
    return std::vector<uint8_t>(out, out + (family == AF_INET ? 4 : 16));
}

Signal parseSignal(const Node &n)
{
    Signal s;
    const Node signal = n.at("signal");
    if (signal.json().is_string()) {
        const std::string word = signal.string();
        if (word == "empty") s.completionCode = hw::component::kEmptySlot, s.presence = hw::component::kAbsent;
        else if (word == "unreadable") s.completionCode = hw::component::kCannotRead;
        else signal.fail("expected 0-3, \"empty\" or \"unreadable\", got \"" + word + "\"");
    } else {
        s.state = static_cast<uint8_t>(signal.integer(0, 3));
    }
    if (auto p = n.find("presence")) s.presence = p->byte();
    return s;
}

std::array<uint8_t, area::kSize> parsePort(const Node &n)
{
    std::array<uint8_t, area::kSize> a{};
    const Node macNode = n.at("mac");
    const std::string macText = macNode.string();
    uint8_t mac[6];
    int used = 0;
    if (std::sscanf(macText.c_str(), "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx%n", &mac[0], &mac[1], &mac[2], &mac[3],
                    &mac[4], &mac[5], &used) != 6 ||
        static_cast<std::size_t>(used) != macText.size())
        macNode.fail("a MAC address is six hex bytes, aa:bb:cc:dd:ee:ff");
    std::vector<std::vector<uint8_t>> v4, v6;
    if (auto l = n.find("ipv4"))
        for (std::size_t i = 0; i < l->size(); ++i) v4.push_back(address(l->at(i), AF_INET));
    if (auto l = n.find("ipv6"))
        for (std::size_t i = 0; i < l->size(); ++i) v6.push_back(address(l->at(i), AF_INET6));
    if (v4.size() > 15 || v6.size() > 15) n.fail("at most 15 addresses of each kind fit the area");
    wire::Writer w(a.data(), a.size());
    w.put(area::kMac, std::span<const uint8_t>(mac, sizeof mac));
    w.put(area::kCounts, static_cast<uint8_t>(v4.size() | v6.size() << 4));
    for (std::size_t i = 0; i < v4.size(); ++i) w.put(area::ipv4(static_cast<unsigned>(i)), std::span<const uint8_t>(v4[i]));
    for (std::size_t i = 0; i < v6.size(); ++i)
        w.put(area::ipv6(static_cast<unsigned>(v4.size()), static_cast<unsigned>(i)), std::span<const uint8_t>(v6[i]));
    return a;
}

Model parse(const Profile &profile)
{
    Model m;
    if (auto states = profile.root().find("component_states")) {
        states->allowOnly({"boot", "components"});
        if (auto boot = states->find("boot"))
            m.components[{kSystemFirmware, 0, kBootKind}] = Signal{cc::kOk, static_cast<uint8_t>(boot->integer(0, 3)), 0};
        if (auto list = states->find("components")) {
            for (std::size_t i = 0; i < list->size(); ++i) {
                Node n = list->at(i);
                n.allowOnly({"name", "kind", "entity", "instance", "signal", "presence"});
                Key k{n.at("entity").byte(), n.at("instance").byte(), n.at("kind").byte()};
                if (m.components.count(k)) n.fail("the entity, instance and kind are listed twice");
                m.components[k] = parseSignal(n);
            }
        }
    }
    if (auto ports = profile.root().find("port_functions")) {
        for (std::size_t i = 0; i < ports->size(); ++i) {
            Node n = ports->at(i);
            n.allowOnly({"id", "name", "mac", "ipv4", "ipv6"});
            std::vector<uint8_t> id = n.at("id").bytes();
            if (id.size() != 3) n.at("id").fail("a port function is named by exactly 3 bytes");
            Key k{id[0], id[1], id[2]};
            if (m.ports.count(k)) n.at("id").fail("the port function is listed twice");
            m.ports[k] = parsePort(n);
        }
    }
    return m;
}

// The component a request names, or null with the refusal in rsp.
const Signal *componentOf(const Model &m, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t entity = in.u8(), instance = in.u8(), kind = in.u8();
    (void)in.u8(); // reserved
    if (!rsp.complete(in)) return nullptr;
    auto it = m.components.find({entity, instance, kind});
    if (it == m.components.end()) return rsp.fail(cc::kNotPresent), nullptr;
    return &it->second;
}

void install(Controller &c)
{
    auto model = std::make_shared<const Model>(parse(c.profile()));
    c.onOemSub(hw::kVendorQuery, hw::sub::kSignalRead, [model](Context &, const Request &req, Response &rsp) {
        const Signal *s = componentOf(*model, req, rsp);
        if (!s) return;
        rsp.fail(s->completionCode);
        if (s->completionCode == cc::kOk) rsp.u8(s->state);
    });
    c.onOemSub(hw::kVendorQuery, hw::sub::kPresence, [model](Context &, const Request &req, Response &rsp) {
        if (const Signal *s = componentOf(*model, req, rsp)) rsp.u8(s->presence);
    });
    c.onOemSub(hw::kInventory, hw::sub::kPortFunctionArea, [model](Context &, const Request &req, Response &rsp) {
        wire::Reader in = req.reader();
        Key k{in.u8(), in.u8(), in.u8()};
        const uint16_t offset = in.u16();
        const uint8_t length = in.u8();
        if (!rsp.complete(in)) return;
        auto it = model->ports.find(k);
        if (it == model->ports.end()) return rsp.fail(cc::kNotPresent);
        if (length > area::kMaxChunk || offset + length > area::kSize) return rsp.fail(cc::kParameterOutOfRange);
        rsp.append(std::span<const uint8_t>(it->second.data() + offset, length));
    });
}

} // namespace

const Subsystem kSignalSubsystem = {"component signals", install, nullptr};

} // namespace tvxsim
