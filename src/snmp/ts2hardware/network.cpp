// The network identity of the server's network nodes for the agent: the management
// controller's own LAN interface (IPv4 from its LAN configuration, IPv6 from configuration-
// space variables) and the server's network port functions (their specific area, read by the
// platform's decode-utility library); the controller model's name; the controller's LAN
// channels, of which the count and the default channel are found once per process.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/exchange.h"
#include "common/session_guard.h"
#include "decodeUtil.h"
#include "tvx/oem_hardware.h"
#include "tvx_toipmi.h"

namespace area = tvx::oem::hw::port_area;
using tvx::wire::View;

namespace {

constexpr uint8_t kOtherUnits = 0x0B; // power consumption sensors
constexpr std::size_t kIpv4 = 4, kIpv6 = 16;
constexpr std::size_t kVariableBufferSize = 255;
constexpr std::size_t kChannelAnswerSize = 10;
constexpr uint8_t kFirstChannel = 1, kLastChannel = 7;
constexpr uint8_t kNoChannel = 255;
constexpr uint8_t kNotKnownYet = 0xFF;

// Address sources as IPMI numbers them.
constexpr int kSourceStatic = 1, kSourceDhcp = 2, kSourceBios = 3, kSourceOther = 4;
constexpr int kDhcpUsed = 3, kDhcpNotUsed = 2, kDhcpUnknown = 1;

constexpr const char *kModelNames[] = {"Pellora", "Zenth S1", "Zenth S2", "Zenth S3", "Zenth S4"};

// The channel caches: process-wide, kNotKnownYet until found.
uint8_t gLanChannelCount = kNotKnownYet;
uint8_t gDefaultLanChannel = kNotKnownYet;

void formatIPv4Address(char *buffer, unsigned length, const uint8_t *address)
{
    if (!buffer || !address) return;
    in_addr a;
    std::memcpy(&a, address, kIpv4);
    std::snprintf(buffer, length, "%s", inet_ntoa(a));
}

// The text form of an IPv4 or IPv6 address, unless it is all zero.
void formatAddress(char *buffer, unsigned length, const uint8_t *address, uint8_t addressType)
{
    if (isEmptyIPAddress(address, addressType)) return;
    inet_ntop(addressType == TVX_ADDRESS_IPV4 ? AF_INET : AF_INET6, address, buffer, length);
}

// One of the controller's IPv4 address blocks (from the LAN configuration), formatted.
void formatBlock(char *buffer, unsigned length, uint8_t *block)
{
    formatIPv4Address(buffer, length, block);
    std::free(block);
}

// A 16-byte configuration-space variable (an IPv6 address), formatted unless all zero.
void formatIpv6Variable(char *buffer, unsigned length, uint16_t variableId, uint8_t index)
{
    uint8_t address[kIpv6] = {};
    if (getConfigSpaceVariable(address, sizeof address, index, variableId))
        formatAddress(buffer, length, address, TVX_ADDRESS_IPV6);
}

struct PortArea {
    uint8_t bytes[area::kBufferSize] = {};
    bool ok;
    PortArea(uint8_t id0, uint8_t id1, uint8_t id2)
        : ok(pniReadPortFnSpecificArea(id0, id1, id2, area::kSize, bytes) == 0)
    {
    }
    View view() const { return View(bytes, sizeof bytes); }
};

// The node text getters' frame: nothing when no session can be opened; else the buffer is
// cleared and filled by `fill`.
template <typename Fill> char *nodeText(char *buffer, unsigned length, Fill fill)
{
    if (!buffer) return buffer;
    tvx::AgentSession session;
    if (!session) return buffer;
    std::memset(buffer, 0, length);
    fill(session.get());
    return buffer;
}

int dhcpUse(int source)
{
    switch (source) {
    case kSourceDhcp: return kDhcpUsed;
    case kSourceStatic:
    case kSourceBios:
    case kSourceOther: return kDhcpNotUsed;
    default: return kDhcpUnknown;
    }
}

// Get Channel Info of one channel: its medium type, or nothing.
bool channelHasMedium(IpmiSession *session, uint8_t channel, uint8_t medium)
{
    tvx::Exchange<kChannelAnswerSize> answer(0xFF);
    uint8_t request[] = {channel};
    answer.length = kChannelAnswerSize;
    if (!ipmiSendCmd(session, tvx::netfn::lun0(tvx::netfn::kApp), tvx::cmd::app::kGetChannelInfo, sizeof request,
                     request, &answer.length, answer.bytes))
        return false;
    return answer.completionCode() == tvx::cc::kOk &&
           tvx::wire::bits(answer.filled().get(tvx::channel_info::kMedium, uint8_t{0xFF}), 0, 7) == medium;
}

} // namespace

extern "C" {

TVX_API int getPowerConsumptionCurrentValue(uint8_t sensorNumber, SDRInfo *info)
{
    return getCurrentValue(sensorNumber, kOtherUnits, info);
}

TVX_API int isEmptyIPAddress(const uint8_t *address, uint8_t addressType)
{
    std::size_t size = addressType == TVX_ADDRESS_IPV4 ? kIpv4 : addressType == TVX_ADDRESS_IPV6 ? kIpv6 : 0;
    if (size == 0 || !address) return 1;
    for (std::size_t i = 0; i < size; ++i)
        if (address[i] != 0) return 0;
    return 1;
}

TVX_API const char *getControllerModelName(unsigned model)
{
    return model < sizeof kModelNames / sizeof kModelNames[0] ? kModelNames[model] : "";
}

TVX_API char *getNodeIpNetMaskAddress(char *buffer, unsigned length, uint8_t addressType, uint8_t nodeType)
{
    return nodeText(buffer, length, [&](IpmiSession *session) {
        if (nodeType == TVX_NODE_CONTROLLER && addressType == TVX_ADDRESS_IPV4)
            formatBlock(buffer, length, ipmiGetNetMask(session));
    });
}

TVX_API char *getNodeGatewayAddress(char *buffer, unsigned length, uint8_t addressType, uint8_t nodeType)
{
    return nodeText(buffer, length, [&](IpmiSession *session) {
        if (nodeType != TVX_NODE_CONTROLLER) return;
        if (addressType == TVX_ADDRESS_IPV4) formatBlock(buffer, length, ipmiGetDefaultGateway(session));
        else if (addressType == TVX_ADDRESS_IPV6) formatIpv6Variable(buffer, length, TVX_VAR_IPV6_GATEWAY, 0);
    });
}

TVX_API char *getUnitNodeIpAddress(char *buffer, unsigned length, uint8_t nodeType, uint8_t addressType,
                                   uint8_t port0, uint8_t port1, uint8_t port2, uint8_t addressIndex)
{
    return nodeText(buffer, length, [&](IpmiSession *session) {
        if (nodeType == TVX_NODE_CONTROLLER) {
            if (addressType == TVX_ADDRESS_IPV4) formatBlock(buffer, length, ipmiGetIpAddress(session));
            else if (addressType == TVX_ADDRESS_IPV6)
                formatIpv6Variable(buffer, length, TVX_VAR_IPV6_ADDRESS, addressIndex);
            return;
        }
        if (nodeType != TVX_NODE_PORT_FUNCTION) return;
        PortArea port(port0, port1, port2);
        if (!port.ok) return;
        const uint8_t counts = port.view().get(area::kCounts, uint8_t{0});
        const unsigned ipv4s = area::ipv4Count(counts), ipv6s = area::ipv6Count(counts);
        View address;
        if (addressType == TVX_ADDRESS_IPV4 && addressIndex < ipv4s)
            address = port.view().get(area::ipv4(addressIndex));
        else if (addressType == TVX_ADDRESS_IPV6 && addressIndex < ipv6s)
            address = port.view().get(area::ipv6(ipv4s, addressIndex));
        if (!address.empty()) formatAddress(buffer, length, address.data(), addressType);
    });
}

TVX_API char *getUnitNodeName(char *buffer, unsigned length, uint8_t nodeType, uint8_t addressType, uint8_t port0,
                              uint8_t port1, uint8_t port2, uint8_t addressIndex)
{
    return getUnitNodeIpAddress(buffer, length, nodeType, addressType, port0, port1, port2, addressIndex);
}

TVX_API uint8_t *getUnitNodeMacAddress(uint8_t *buffer, unsigned length, uint8_t nodeType, uint8_t port0,
                                       uint8_t port1, uint8_t port2)
{
    (void)length; // the caller provides the six bytes of a MAC address
    if (!buffer) return buffer;
    if (nodeType == TVX_NODE_CONTROLLER) {
        tvx::AgentSession session;
        if (!session) return buffer;
        if (uint8_t *mac = ipmiGetMacAddress(session.get())) {
            std::memcpy(buffer, mac, area::kMac.size);
            std::free(mac);
        }
    } else if (nodeType == TVX_NODE_PORT_FUNCTION) {
        PortArea port(port0, port1, port2);
        View mac = port.view().get(area::kMac);
        if (port.ok && !mac.empty()) std::memcpy(buffer, mac.data(), mac.size());
    }
    return buffer;
}

TVX_API int getUnitNodeUseDHCP(uint8_t addressType, uint8_t nodeType)
{
    tvx::AgentSession session;
    if (!session) return kDhcpUnknown;
    if (nodeType != TVX_NODE_CONTROLLER) return kDhcpUnknown;
    if (addressType == TVX_ADDRESS_IPV4) return dhcpUse(ipmiGetAddressSource(session.get()));
    if (addressType != TVX_ADDRESS_IPV6) return kDhcpUnknown;
    uint8_t value[kVariableBufferSize] = {};
    if (ipmiReadConfigSpaceVariable(session.get(), 0, TVX_VAR_IPV6_ADDRESS_SOURCE, value) <= 0) return kDhcpUnknown;
    return dhcpUse(value[0]);
}

TVX_API uint8_t getChannelNumber(IpmiSession *session, uint8_t mediumType, uint8_t instance)
{
    unsigned matches = 0;
    for (uint8_t channel = kFirstChannel; channel <= kLastChannel; ++channel) {
        if (!channelHasMedium(session, channel, mediumType)) continue;
        if (++matches == instance) return channel;
    }
    return kNoChannel;
}

TVX_API uint8_t getChannelInstanceCount(IpmiSession *session, uint8_t mediumType)
{
    uint8_t count = 0;
    for (uint8_t channel = kFirstChannel; channel <= kLastChannel; ++channel)
        count += channelHasMedium(session, channel, mediumType) ? 1 : 0;
    return count;
}

TVX_API uint8_t getLanChannelCount(IpmiSession *session)
{
    if (gLanChannelCount != kNotKnownYet) return gLanChannelCount;
    gLanChannelCount = getChannelInstanceCount(session, TVX_MEDIUM_LAN_8023);
    return gLanChannelCount;
}

TVX_API uint8_t getDefaultLanChannelNumber(IpmiSession *session)
{
    if (gDefaultLanChannel != kNotKnownYet) return gDefaultLanChannel;
    if (getLanChannelCount(session) == 0) return kNoChannel;
    gDefaultLanChannel = getChannelNumber(session, TVX_MEDIUM_LAN_8023, 1);
    return gDefaultLanChannel;
}

} // extern "C"
