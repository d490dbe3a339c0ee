// Memory modules: status, configuration, the memory policy (OEM command 0xF5) and the SPD
// image, read in 64-byte chunks (OEM command 0xF1).
#include <cstring>

#include "common/exchange.h"
#include "tvx/oem_hardware.h"
#include "tvx_toipmi.h"

namespace hw = tvx::oem::hw;
using tvx::Exchange;

namespace {

// What the controller's status, configuration and policy queries answer when they cannot be
// asked.
constexpr unsigned kUnknownModuleValue = 7;
constexpr unsigned kUnknownPolicy = 0xFF;
// Answers to these queries are a few bytes; a larger buffer only catches what a controller
// may append.
constexpr std::size_t kQuerySize = 32;
constexpr std::size_t kSpdAnswerSize = 255;
// The chunk offset is a 16-bit request field: no image is longer than it can address.
constexpr uint32_t kSpdAddressable = 0x10000;

// Sends a vendor query: whether it was carried out with completion code 0.
bool vendorQuery(IpmiSession *session, std::span<const uint8_t> request, Exchange<kQuerySize> &answer)
{
    return answer.sendDirect(session, hw::kVendorQuery, request) == 0 && answer.completionCode() == tvx::cc::kOk;
}

} // namespace

extern "C" {

TVX_API unsigned ipmiGetMemoryModuleStatus(IpmiSession *session, uint8_t module)
{
    if (!session) return kUnknownModuleValue;
    Exchange<kQuerySize> answer;
    if (vendorQuery(session, hw::indexRequest(hw::sub::kMemoryModuleStatus, module), answer))
        return answer.filled().get(hw::kValue, uint8_t{0});
    // A module number the controller does not know counts as "no module".
    if (answer.completionCode() == tvx::cc::kParameterOutOfRange) return 0;
    return kUnknownModuleValue;
}

TVX_API unsigned ipmiGetMemoryModuleConfig(IpmiSession *session, uint8_t module)
{
    if (!session) return kUnknownModuleValue;
    Exchange<kQuerySize> answer;
    if (vendorQuery(session, hw::indexRequest(hw::sub::kMemoryModuleConfig, module), answer))
        return answer.filled().get(hw::kValue, uint8_t{0});
    return kUnknownModuleValue;
}

TVX_API unsigned ipmiGetMemoryPolicy(IpmiSession *session)
{
    if (!session) return kUnknownPolicy;
    Exchange<kQuerySize> answer;
    if (vendorQuery(session, hw::plainRequest(hw::sub::kMemoryPolicy), answer))
        return answer.filled().get(hw::kPolicy, uint8_t{0});
    return kUnknownPolicy;
}

TVX_API int getMemorySPDdata(IpmiSession *session, uint8_t *buffer, unsigned size, uint8_t module)
{
    if (!session || !buffer) return 0;
    std::memset(buffer, 0, size);
    // Chunks are asked for at 16-bit offsets; whatever lies beyond stays zero.
    const uint32_t wanted = size < kSpdAddressable ? size : kSpdAddressable;
    int stored = 0;
    uint32_t offset = 0;
    while (offset < wanted) {
        Exchange<kSpdAnswerSize> answer(0xFF);
        auto request = hw::spdChunkRequest(module, static_cast<uint16_t>(offset), hw::kSpdChunk);
        if (!answer.sendCmd(session, hw::kInventory, request)) break;
        if (answer.completionCode() != tvx::cc::kOk || !answer.echoesIana()) break;
        tvx::wire::View data = answer.received().upTo(tvx::oem::kPayload, wanted - offset);
        if (data.empty()) break;
        std::memcpy(buffer + offset, data.data(), data.size());
        offset += static_cast<uint32_t>(data.size());
        stored = 1;
    }
    return stored;
}

} // extern "C"
