// tvxctl status, agent identity, network and trap test: the agent's view of the machine's
// health (the overall, class and boot statuses, then every component that counts towards
// them with its status and the text that explains it), the agent's identity, the network
// identity of the controller and of the server's port functions, and the test trap.
#include <cstdio>
#include <cstring>

#include "agent_pass.h"
#include "cli.h"
#include "tvx/records.h"

namespace tvxctl {
namespace {

constexpr uint8_t kTemperature = 0x01, kVoltage = 0x02, kFan = 0x04, kProcessor = 0x07, kPowerSupply = 0x08,
                  kMemory = 0x0C, kPsuStatus = 0xE8, kSensorSpecific = 0x6F;

const char *rollupWord(uint32_t v)
{
    switch (v) {
    case TVX_ROLLUP_OK: return "ok";
    case TVX_ROLLUP_WARNING: return "warning";
    case TVX_ROLLUP_CRITICAL: return "critical";
    case 0: return "-"; // does not count
    default: return "unknown";
    }
}

struct Component {
    std::string name;
    const char *className;
    uint8_t sensorType; // the class
    uint8_t number, entity, instance;
    uint32_t status;    // from the class's getter
    std::string meaning;
    uint32_t rollup;    // what it adds to the overall status
    std::string explanation; // the controller's explaining text, if any
};

struct Status {
    uint32_t overall, boot;
    struct Class {
        const char *name;
        const char *key;
        uint32_t value;
    };
    std::vector<Class> classes;
    std::vector<Component> components;
};

std::string sensorMeaning(uint8_t type, uint8_t number, const std::string &name, int code)
{
    AgentSensor s{type == kTemperature ? SensorClass::Temperature
                  : type == kFan        ? SensorClass::Fan
                  : type == kPsuStatus  ? SensorClass::PowerSupply
                                        : SensorClass::Voltage,
                  name, number, type, 0, 0, ""};
    return statusMeaning(s, code);
}

// The components in SDR order, as the overall status walks them, with their processor and
// memory-module indices.
std::vector<Component> components(IpmiSession *session, SDRInfo *info)
{
    std::vector<Component> out;
    uint8_t memoryIndex = 0, processorIndex = 0;
    for (uint32_t i = 0; i < info->count; ++i) {
        const uint8_t *rec = getSdrByIndex(i, info);
        if (!rec) break;
        tvx::wire::View v(rec, info->recordSize);
        const uint8_t type = v.get(tvx::sdr::kRecordType, uint8_t{0}), sensorType = v.get(tvx::sdr::kSensorType, uint8_t{0});
        const uint8_t ert = v.get(tvx::sdr::kEventReadingType, uint8_t{0});
        Component c{sdrIdString(v), "", sensorType, v.get(tvx::sdr::kSensorNumber, uint8_t{0}),
                    v.get(tvx::sdr::kEntityId, uint8_t{0}), v.get(tvx::sdr::kEntityInstance, uint8_t{0}), 0, "", 0, ""};
        uint8_t kind = sensorType;
        if (type == tvx::sdr::kFullSensor && (sensorType == kTemperature || sensorType == kVoltage || sensorType == kFan)) {
            c.className = sensorType == kTemperature ? "temperature" : sensorType == kVoltage ? "voltage" : "fan";
            c.status = static_cast<uint32_t>(getSdrSensorStatus(session, c.number, sensorType, ert));
            c.meaning = sensorMeaning(sensorType, c.number, c.name, static_cast<int>(c.status));
        } else if (type == tvx::sdr::kCompactSensor && sensorType == kPsuStatus && ert == kSensorSpecific) {
            c.className = "power supply";
            kind = kPowerSupply;
            c.status = static_cast<uint32_t>(getSdrSensorStatus(session, c.number, sensorType, ert));
            c.meaning = sensorMeaning(sensorType, c.number, c.name, static_cast<int>(c.status));
        } else if (type == tvx::sdr::kCompactSensor && sensorType == kProcessor && ert == kSensorSpecific) {
            c.className = "processor";
            c.status = getCpuStatus(c.number, processorIndex++, 0);
            c.meaning = cpuStatusMeaning(c.status);
        } else if (type == tvx::sdr::kCompactSensor && sensorType == kMemory) {
            c.className = "memory module";
            c.status = getMemoryModuleStatus(memoryIndex++);
            c.meaning = memoryStatusMeaning(c.status);
        } else {
            continue;
        }
        c.rollup = c.status <= 0xFF ? getUnitComponentStatus(sensorType, static_cast<uint8_t>(c.status)) : 0;
        uint8_t signal = 0;
        if (const char *text = ipmiGetSignalStatus(session, c.entity, c.instance, kind, &signal, info))
            c.explanation = text;
        out.push_back(std::move(c));
    }
    return out;
}

Status collect()
{
    SDRInfo info;
    std::memset(&info, 0, sizeof info);
    Status s{};
    {
        Session session;
        if (!getSDRInfo(session.get(), &info)) throw Failure{kExitFailed, "cannot read the SDR repository"};
        s.components = components(session.get(), &info);
    }
    s.overall = getStatusOverall(&info, 0);
    s.boot = getStatusBoot();
    s.classes = {{"Temperatures", "temperature", getStatusTemperature(&info)},
                 {"Fans", "fans", getStatusFans(&info)},
                 {"Voltages", "voltages", getStatusVoltages(&info)},
                 {"Power supplies", "power_supplies", getStatusPowerSupply(&info)},
                 {"Processors", "processors", getStatusCpu(&info)},
                 {"Memory modules", "memory_modules", getStatusMemoryModule(&info)}};
    freeSDRInfo(&info);
    return s;
}

std::string upper(std::string s)
{
    for (char &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

} // namespace

int cmdStatus(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) throw Failure{kExitUsage, "usage: tvxctl status"};
    Status s = collect();
    if (opt.json) {
        Json classes = Json::object();
        for (const auto &c : s.classes) classes[c.key] = {{"code", c.value}, {"state", rollupWord(c.value)}};
        Json rows = Json::array();
        for (const Component &c : s.components)
            rows.push_back({{"name", c.name},
                            {"class", c.className},
                            {"sensor_number", c.number},
                            {"entity", c.entity},
                            {"instance", c.instance},
                            {"status", c.status},
                            {"status_meaning", c.meaning},
                            {"counts_as", rollupWord(c.rollup)},
                            {"explanation", c.explanation.empty() ? Json() : Json(c.explanation)}});
        printJson({{"overall", {{"code", s.overall}, {"state", rollupWord(s.overall)}}},
                   {"classes", classes},
                   {"boot", {{"code", s.boot}, {"state", rollupWord(s.boot)}}},
                   {"components", rows}});
        return kExitOk;
    }
    std::printf("Overall status: %s\n", upper(rollupWord(s.overall)).c_str());
    // The components that make the overall status what it is, by name.
    std::string worst;
    for (const Component &c : s.components)
        if (s.overall >= TVX_ROLLUP_WARNING && s.overall <= TVX_ROLLUP_CRITICAL && c.rollup == s.overall)
            worst += (worst.empty() ? "" : ", ") + c.name + " (" + c.meaning +
                     (c.explanation.empty() ? "" : ": " + c.explanation) + ")";
    if (!worst.empty()) std::printf("  because of: %s\n", worst.c_str());
    std::printf("\n");
    for (const auto &c : s.classes) std::printf("  %-16s %s\n", c.name, rollupWord(c.value));
    std::printf("  %-16s %s\n\n", "Boot", rollupWord(s.boot));
    std::printf("%-18s %-14s %-24s %-9s %s\n", "Component", "Class", "Status", "Counts as", "Details");
    for (const Component &c : s.components) {
        std::string status = std::to_string(c.status) + " " + c.meaning;
        std::printf("%-18s %-14s %-24s %-9s %s\n", c.name.c_str(), c.className, status.c_str(), rollupWord(c.rollup),
                    c.explanation.c_str());
    }
    return kExitOk;
}

int cmdAgentIdentity(const Options &opt)
{
    char id[64] = {}, company[32] = {}, version[256] = {}, build[256] = {};
    snmpGetAgentId(id, sizeof id - 1);
    snmpGetAgentCompany(company, sizeof company - 1);
    snmpGetAgentVersion(version, sizeof version);
    snmpGetAgentBuild(build, sizeof build);
    const int write = snmpGetAgentWriteAllowed(), shutdown = snmpGetAgentShutdownAllowed();
    if (opt.json) {
        printJson({{"id", id},
                   {"company", company},
                   {"version", version},
                   {"build", build},
                   {"write_allowed", write},
                   {"shutdown_allowed", shutdown}});
        return kExitOk;
    }
    std::printf("Agent:             %s\nCompany:           %s\nVersion:           %s\nBuild:             %s\n"
                "Write allowed:     %d\nShutdown allowed:  %d\n",
                id, company, version, build, write, shutdown);
    return kExitOk;
}

namespace {

struct Node {
    std::string name;
    std::string ipv4, netmask, gateway, ipv6, ipv6Gateway, mac;
    int dhcp4 = 1, dhcp6 = 1;
};

const char *dhcpWord(int v) { return v == 3 ? "dhcp" : v == 2 ? "static" : "unknown"; }

std::string macText(const uint8_t *m, bool found)
{
    if (!found) return "";
    char buf[24];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return buf;
}

// Every address of one kind that a node has, from index 0 until the first empty one.
std::string addresses(uint8_t node, uint8_t type, const uint8_t (&id)[3])
{
    std::string out;
    for (uint8_t i = 0; i < 16; ++i) {
        char buf[64];
        getUnitNodeIpAddress(buf, sizeof buf, node, type, id[0], id[1], id[2], i);
        if (!buf[0]) break;
        out += (out.empty() ? "" : " ") + std::string(buf);
        if (node == TVX_NODE_CONTROLLER && type == TVX_ADDRESS_IPV4) break; // one IPv4 address
    }
    return out;
}

} // namespace

int cmdNetwork(const Options &opt, const std::vector<std::string> &args)
{
    // Port functions to show: the three identity bytes of each, given as "01:00:00", else
    // those the tool knows to ask the virtual controller's default machine about.
    std::vector<std::array<uint8_t, 3>> ports;
    for (const std::string &a : args) {
        unsigned b0, b1, b2;
        char end;
        if (std::sscanf(a.c_str(), "%x:%x:%x%c", &b0, &b1, &b2, &end) != 3 || b0 > 255 || b1 > 255 || b2 > 255)
            throw Failure{kExitUsage, "usage: tvxctl network [PORT-FUNCTION...] (a port function: 01:00:00)"};
        ports.push_back({static_cast<uint8_t>(b0), static_cast<uint8_t>(b1), static_cast<uint8_t>(b2)});
    }
    std::vector<Node> nodes;
    {
        Node c;
        c.name = "controller";
        const uint8_t none[3] = {0, 0, 0};
        char buf[64];
        c.ipv4 = addresses(TVX_NODE_CONTROLLER, TVX_ADDRESS_IPV4, none);
        c.netmask = getNodeIpNetMaskAddress(buf, sizeof buf, TVX_ADDRESS_IPV4, TVX_NODE_CONTROLLER);
        c.gateway = getNodeGatewayAddress(buf, sizeof buf, TVX_ADDRESS_IPV4, TVX_NODE_CONTROLLER);
        c.ipv6 = addresses(TVX_NODE_CONTROLLER, TVX_ADDRESS_IPV6, none);
        c.ipv6Gateway = getNodeGatewayAddress(buf, sizeof buf, TVX_ADDRESS_IPV6, TVX_NODE_CONTROLLER);
        uint8_t mac[6] = {};
        bool found = getUnitNodeMacAddress(mac, sizeof mac, TVX_NODE_CONTROLLER, 0, 0, 0) &&
                     !isEmptyIPAddress(mac, TVX_ADDRESS_IPV4);
        c.mac = macText(mac, found || mac[4] || mac[5]);
        c.dhcp4 = getUnitNodeUseDHCP(TVX_ADDRESS_IPV4, TVX_NODE_CONTROLLER);
        c.dhcp6 = getUnitNodeUseDHCP(TVX_ADDRESS_IPV6, TVX_NODE_CONTROLLER);
        nodes.push_back(c);
    }
    for (const auto &p : ports) {
        Node n;
        char name[32];
        std::snprintf(name, sizeof name, "port %02x:%02x:%02x", p[0], p[1], p[2]);
        n.name = name;
        const uint8_t id[3] = {p[0], p[1], p[2]};
        n.ipv4 = addresses(TVX_NODE_PORT_FUNCTION, TVX_ADDRESS_IPV4, id);
        n.ipv6 = addresses(TVX_NODE_PORT_FUNCTION, TVX_ADDRESS_IPV6, id);
        uint8_t mac[6];
        std::memset(mac, 0, sizeof mac);
        getUnitNodeMacAddress(mac, sizeof mac, TVX_NODE_PORT_FUNCTION, p[0], p[1], p[2]);
        bool any = false;
        for (uint8_t b : mac) any = any || b;
        n.mac = macText(mac, any);
        if (!any && n.ipv4.empty() && n.ipv6.empty()) n.mac = "(area unavailable)";
        nodes.push_back(n);
    }
    if (opt.json) {
        Json out = Json::array();
        for (const Node &n : nodes)
            out.push_back({{"node", n.name},
                           {"ipv4", n.ipv4},
                           {"netmask", n.netmask},
                           {"gateway", n.gateway},
                           {"ipv4_source", dhcpWord(n.dhcp4)},
                           {"ipv6", n.ipv6},
                           {"ipv6_gateway", n.ipv6Gateway},
                           {"ipv6_source", dhcpWord(n.dhcp6)},
                           {"mac", n.mac}});
        printJson(out);
        return kExitOk;
    }
    for (const Node &n : nodes) {
        std::printf("%s\n", n.name.c_str());
        auto line = [](const char *label, const std::string &v) {
            if (!v.empty()) std::printf("  %-14s %s\n", label, v.c_str());
        };
        line("MAC address", n.mac);
        line("IPv4 address", n.ipv4);
        line("Net mask", n.netmask);
        line("Gateway", n.gateway);
        if (n.name == "controller") line("IPv4 source", dhcpWord(n.dhcp4));
        line("IPv6 address", n.ipv6);
        line("IPv6 gateway", n.ipv6Gateway);
        if (n.name == "controller") line("IPv6 source", dhcpWord(n.dhcp6));
    }
    return kExitOk;
}

int cmdTrap(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() != 1 || args[0] != "test") throw Failure{kExitUsage, "usage: tvxctl trap test"};
    uint8_t channel = 255, count = 0;
    std::vector<std::string> destinations;
    {
        Session session;
        channel = getDefaultLanChannelNumber(session.get());
        if (!getConfigSpaceVariable(&count, sizeof count, 0, TVX_VAR_ALERT_DESTINATIONS)) count = 0;
        for (uint8_t d = 1; d <= count; ++d) destinations.push_back("destination " + std::to_string(d));
    }
    int result = sendTestTrap();
    if (opt.json) {
        printJson({{"channel", channel}, {"destinations", destinations}, {"accepted", result == 1}});
        return result == 1 ? kExitOk : kExitFailed;
    }
    if (count == 0) std::printf("No alert destinations are configured; no trap was sent.\n");
    else std::printf("Test trap sent on LAN channel %u to %u destination%s:\n", channel, count, count == 1 ? "" : "s");
    for (const std::string &d : destinations) std::printf("  %s\n", d.c_str());
    std::printf("Result: %s\n", result == 1 ? "the last destination accepted the alert" : "not accepted");
    return result == 1 ? kExitOk : kExitFailed;
}

} // namespace tvxctl
