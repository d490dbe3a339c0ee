// The controller's LAN settings through the LAN configuration parameters of its first
// 802.3 LAN channel, and the IPv4 address of a local interface.
#include <arpa/inet.h>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common/diag.h"
#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;
namespace wire = tvx::wire;

namespace {

constexpr size_t kParameterSize = sizeof(LanConfigGetResponse); // 27 bytes
// A parameter as _ipmiGetLanParameter hands it out (the platform's record, zero where the
// controller sent nothing): completion code, parameter revision, then the data.
constexpr size_t kParameterData = offsetof(LanConfigGetResponse, data);
constexpr wire::U8 kAddressSource{kParameterData};

// The data length of each parameter that can be written; 0 for the others.
uint32_t dataLength(int selector)
{
    switch (selector) {
    case TVX_LAN_IP_ADDRESS:
    case TVX_LAN_SUBNET_MASK:
    case TVX_LAN_DEFAULT_GATEWAY: return 4;
    case TVX_LAN_ADDRESS_SOURCE: return 1;
    case TVX_LAN_MAC_ADDRESS: return 6;
    default: return 0;
    }
}

// Reads a parameter and copies its first n data bytes into a new block.
uint8_t *addressBlock(IpmiSession *session, int selector, size_t n, const char *function)
{
    uint8_t *parameter = _ipmiGetLanParameter(session, selector);
    if (!parameter) return nullptr;
    uint8_t *block = static_cast<uint8_t *>(std::calloc(n, 1));
    if (!block) {
        tvx::diag::located(Unit::Helpers, __LINE__, function, "Filed to allocate memory.");
        std::free(parameter);
        return nullptr;
    }
    std::memcpy(block, wire::View(parameter, kParameterSize).upTo(kParameterData, n).data(), n);
    std::free(parameter);
    return block;
}

} // namespace

extern "C" {

TVX_API unsigned getChannel(IpmiSession *session)
{
    if (!session) return 0;
    for (uint8_t channel = 1; channel <= 15; ++channel) {
        ChannelInfoRequest request = {channel};
        ChannelInfoResponse response;
        std::memset(&response, 0, sizeof response);
        if (IPMICMD_GetChannelInfo(session, &request, &response, tvx::kPlatformTimeout) != 0) continue;
        if (response.mediumType == tvx::lan::kMedium8023 && response.channelNumber == channel) return channel;
    }
    return 0;
}

TVX_API uint8_t *_ipmiGetLanParameter(IpmiSession *session, int selector)
{
    if (!session) return nullptr;
    unsigned channel = getChannel(session);
    if (channel == 0) return nullptr;
    uint8_t *buffer = static_cast<uint8_t *>(std::calloc(kParameterSize, 1));
    if (!buffer) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return nullptr;
    }
    LanConfigGetRequest request = {static_cast<uint8_t>(channel), static_cast<uint8_t>(selector), 0x00, 0x00};
    if (IPMICMD_GetLANConfig(session, &request, reinterpret_cast<LanConfigGetResponse *>(buffer),
                             tvx::kPlatformTimeout) != 0) {
        std::free(buffer);
        return nullptr;
    }
    return buffer;
}

TVX_API uint8_t *ipmiGetIpAddress(IpmiSession *session)
{
    return addressBlock(session, TVX_LAN_IP_ADDRESS, 4, __func__);
}

TVX_API uint8_t *ipmiGetNetMask(IpmiSession *session) { return addressBlock(session, TVX_LAN_SUBNET_MASK, 4, __func__); }

TVX_API uint8_t *ipmiGetDefaultGateway(IpmiSession *session)
{
    return addressBlock(session, TVX_LAN_DEFAULT_GATEWAY, 4, __func__);
}

TVX_API uint8_t *ipmiGetMacAddress(IpmiSession *session)
{
    return addressBlock(session, TVX_LAN_MAC_ADDRESS, 6, __func__);
}

TVX_API int ipmiGetAddressSource(IpmiSession *session)
{
    uint8_t *parameter = _ipmiGetLanParameter(session, TVX_LAN_ADDRESS_SOURCE);
    if (!parameter) return -1;
    int source = static_cast<int8_t>(wire::View(parameter, kParameterSize).get(kAddressSource, uint8_t{0}));
    std::free(parameter);
    return source;
}

TVX_API int _ipmiSetLanParameter(IpmiSession *session, int selector, const uint8_t *data)
{
    if (!session || !data) return 0;
    uint32_t n = dataLength(selector);
    if (n == 0) return 0;
    // Without a LAN channel the request goes to channel 0, and the controller answers for it.
    unsigned channel = getChannel(session);
    LanConfigSetRequest request;
    std::memset(&request, 0, sizeof request);
    request.channelNumber = static_cast<uint8_t>(channel);
    request.parameterSelector = static_cast<uint8_t>(selector);
    std::memcpy(request.data, data, n);
    uint8_t completion = 0xFF;
    uint32_t length = static_cast<uint32_t>(offsetof(LanConfigSetRequest, data) + n);
    return IPMICMD_SetLANConfig(session, &request, length, &completion, tvx::kPlatformTimeout) == 0 ? 1 : 0;
}

TVX_API int ipmiSetIpAddress(IpmiSession *session, const uint8_t *data)
{
    return _ipmiSetLanParameter(session, TVX_LAN_IP_ADDRESS, data);
}

TVX_API int ipmiSetNetMask(IpmiSession *session, const uint8_t *data)
{
    return _ipmiSetLanParameter(session, TVX_LAN_SUBNET_MASK, data);
}

TVX_API int ipmiSetDefaultGateway(IpmiSession *session, const uint8_t *data)
{
    return _ipmiSetLanParameter(session, TVX_LAN_DEFAULT_GATEWAY, data);
}

TVX_API int ipmiSetMacAddress(IpmiSession *session, const uint8_t *data)
{
    return _ipmiSetLanParameter(session, TVX_LAN_MAC_ADDRESS, data);
}

TVX_API int ipmiSetAddressSource(IpmiSession *session, int source)
{
    uint8_t byte = static_cast<uint8_t>(source);
    return _ipmiSetLanParameter(session, TVX_LAN_ADDRESS_SOURCE, &byte);
}

TVX_API int getCurrentAddress(char *buffer, unsigned size, const char *name)
{
    if (!buffer || size == 0 || !name) return 0;
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return 0;
    int found = 0;
    size_t prefix = std::strlen(name);
    for (struct ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET || !entry->ifa_name) continue;
        if (std::strncmp(entry->ifa_name, name, prefix) != 0) continue;
        char text[INET_ADDRSTRLEN];
        const struct in_addr *address = &reinterpret_cast<const struct sockaddr_in *>(entry->ifa_addr)->sin_addr;
        if (!inet_ntop(AF_INET, address, text, sizeof text)) continue;
        size_t n = std::strlen(text);
        if (n > size - 1) n = size - 1;
        std::memcpy(buffer, text, n);
        buffer[n] = '\0';
        found = 1;
        break;
    }
    freeifaddrs(list);
    return found;
}

} // extern "C"
