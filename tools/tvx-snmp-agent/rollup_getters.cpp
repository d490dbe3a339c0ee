#include "rollup_getters.h"

#include <array>
#include <string>

#include "tvx/session.h"

namespace tvxagent {
namespace {

constexpr uint8_t kController = 7;
constexpr uint8_t kPortFunction = 2;
constexpr uint8_t kIpv4 = 2;
constexpr uint8_t kIpv6 = 4;
constexpr uint8_t kLanMedium = 4;
constexpr unsigned kTextSize = 128;
constexpr uint8_t kIpv6Addresses = 16;

// A text getter's answer: the identity getters return a count (-1: did not fit) and write no
// terminator, so the buffer starts zeroed and one byte is kept back.
template <typename Getter> std::optional<Value> identity(Getter *getter)
{
    char buffer[kTextSize + 1] = {};
    const int n = getter(buffer, kTextSize);
    return Value::text(n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string());
}

template <typename Getter> std::optional<Value> status(Getter *getter, SDRInfo *info)
{
    return Value::number(static_cast<long>(getter(info)));
}

std::string nodeText(char *(*getter)(char *, unsigned, uint8_t, uint8_t), uint8_t addressType)
{
    char buffer[kTextSize + 1] = {};
    return getter(buffer, kTextSize, addressType, kController) ? buffer : "";
}

std::string address(uint8_t node, const PortFunction &id, uint8_t family, uint8_t index)
{
    char buffer[kTextSize + 1] = {};
    return getUnitNodeIpAddress(buffer, kTextSize, node, family, id[0], id[1], id[2], index) ? buffer : "";
}

// One node's row and its address rows: node 1 is the controller's own LAN interface, the
// port functions follow in the order given. Net mask and gateways are the controller's only.
void nodeRows(Snapshot &out, long index, uint8_t node, const PortFunction &id)
{
    const bool controller = node == kController;
    std::string name;
    {
        char buffer[kTextSize + 1] = {};
        if (getUnitNodeName(buffer, kTextSize, node, kIpv4, id[0], id[1], id[2], 0)) name = buffer;
    }
    std::array<uint8_t, 6> mac{};
    getUnitNodeMacAddress(mac.data(), mac.size(), node, id[0], id[1], id[2]);
    const auto source = [node](uint8_t family) { return Value::number(getUnitNodeUseDHCP(family, node)); };
    const auto controllerText = [controller](char *(*getter)(char *, unsigned, uint8_t, uint8_t), uint8_t family) {
        return Value::text(controller ? nodeText(getter, family) : std::string());
    };
    out.table(Table::Node).push_back(
        {{index},
         {Value::number(node), Value::text(controller ? std::string() : std::string(id.begin(), id.end())),
          Value::text(name), Value::text(std::string(reinterpret_cast<const char *>(mac.data()), mac.size())),
          controllerText(getNodeIpNetMaskAddress, kIpv4), controllerText(getNodeGatewayAddress, kIpv4), source(kIpv4),
          controllerText(getNodeGatewayAddress, kIpv6), source(kIpv6)}});
    // The controller has one IPv4 address, a port function as many as its area lists; the
    // addresses are listed from index 0 on, up to the first that is not set.
    for (uint8_t i = 0; i < (controller ? 1 : kIpv6Addresses); ++i) {
        const std::string v4 = address(node, id, kIpv4, i);
        if (v4.empty()) break;
        out.table(Table::NodeAddress).push_back({{index, kIpv4, i + 1L}, {Value::text(v4)}});
    }
    for (uint8_t i = 0; i < kIpv6Addresses; ++i) {
        const std::string v6 = address(node, id, kIpv6, i);
        if (v6.empty()) break;
        out.table(Table::NodeAddress).push_back({{index, kIpv6, i + 1L}, {Value::text(v6)}});
    }
}

void networkRows(Snapshot &out, const std::vector<PortFunction> &ports)
{
    nodeRows(out, 1, kController, PortFunction{});
    long index = 2;
    for (const PortFunction &p : ports) nodeRows(out, index++, kPortFunction, p);
}

void channelRows(Snapshot &out)
{
    tvx::Session session;
    if (!session) return;
    const int count = getLanChannelCount(session.get());
    const int defaultChannel = getDefaultLanChannelNumber(session.get());
    out.scalar(Scalar::LanChannelCount) = Value::number(count);
    out.scalar(Scalar::LanDefaultChannel) = Value::number(defaultChannel);
    for (int instance = 1; instance <= count && instance <= 7; ++instance) {
        const int channel = getChannelNumber(session.get(), kLanMedium, static_cast<uint8_t>(instance));
        if (channel < 1 || channel > 7) continue;
        constexpr long kTrue = 1, kFalse = 2;
        out.table(Table::LanChannel)
            .push_back({{instance}, {Value::number(channel), Value::number(channel == defaultChannel ? kTrue : kFalse)}});
    }
}

} // namespace

void collectRollup(Snapshot &out, SDRInfo *info, const std::vector<PortFunction> &ports)
{
    out.scalar(Scalar::AgentId) = identity(snmpGetAgentId);
    out.scalar(Scalar::AgentCompany) = identity(snmpGetAgentCompany);
    out.scalar(Scalar::AgentVersion) = identity(snmpGetAgentVersion);
    out.scalar(Scalar::AgentBuild) = identity(snmpGetAgentBuild);
    out.scalar(Scalar::StatusOverall) = Value::number(getStatusOverall(info, 0));
    out.scalar(Scalar::StatusTemperatures) = status(getStatusTemperature, info);
    out.scalar(Scalar::StatusFans) = status(getStatusFans, info);
    out.scalar(Scalar::StatusVoltages) = status(getStatusVoltages, info);
    out.scalar(Scalar::StatusPowerSupplies) = status(getStatusPowerSupply, info);
    out.scalar(Scalar::StatusProcessors) = status(getStatusCpu, info);
    out.scalar(Scalar::StatusMemoryModules) = status(getStatusMemoryModule, info);
    out.scalar(Scalar::StatusBoot) = Value::number(getStatusBoot());
    networkRows(out, ports);
    channelRows(out);
}

bool rollupTestAlertAvailable() { return true; }

bool rollupSendTestAlert() { return sendTestTrap() == 1; }

} // namespace tvxagent
