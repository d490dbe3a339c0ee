// Memory module getters: the controller's view of each module (status, configuration,
// approval, frequency and capacity) and what the module's SPD image says of it, decoded by
// the platform's decode-utility library.
#include <cstdio>
#include <cstring>

#include "common/exchange.h"
#include "common/session_guard.h"
#include "decodeUtil.h"
#include "tvx/oem_hardware.h"
#include "tvx_toipmi.h"

namespace hw = tvx::oem::hw;
using tvx::Exchange;

namespace {

constexpr std::size_t kPolicyAnswerSize = 16;
constexpr std::size_t kAnswerSize = 255;
constexpr uint32_t kNoValue = 0xFFFFFFFF;

// Memory status codes by the controller's value (the last entry for every larger value).
constexpr uint8_t kStatusByValue[] = {2, 3, 4, 5, 6, 7, 1, 1, 1, 11, 1};
constexpr uint32_t kCodeNoSession = 1;
constexpr unsigned kUnknownModuleValue = 7;
constexpr uint32_t kApprovalUnknown = 1, kNotApproved = 2, kApproved = 3;

// Device-type texts are cut at their first underscore, and at 32 characters.
constexpr std::size_t kDeviceTypeMax = 32;

// The module's SPD image, read anew (zero-filled first) in the getter's session.
struct Spd {
    uint8_t image[TVX_SPD_IMAGE_SIZE] = {};
    bool read = false;
    Spd(IpmiSession *session, uint8_t module) { read = getMemorySPDdata(session, image, sizeof image, module) == 1; }
};

// Copies a text into the caller's buffer: at most length bytes, the terminator included when
// it fits.
void copyText(char *buffer, uint32_t length, const char *text)
{
    if (buffer && length > 0) std::strncpy(buffer, text, length);
}

// An OEM request through ipmiSendCmd into a 0xFF-filled answer: carried out with completion
// code 0 and the vendor's IANA echo.
template <std::size_t N>
bool usableAnswer(IpmiSession *session, uint8_t command, std::span<const uint8_t> request, Exchange<N> &answer)
{
    return answer.sendCmd(session, command, request) && answer.completionCode() == tvx::cc::kOk &&
           answer.echoesIana();
}

} // namespace

extern "C" {

TVX_API unsigned getMemoryMaxIndex(IpmiSession *session)
{
    Exchange<kPolicyAnswerSize> answer(0xFF);
    if (!usableAnswer(session, hw::kVendorQuery, hw::plainRequest(hw::sub::kMemoryPolicy), answer)) return 0;
    return answer.filled().get(hw::kMaxModuleIndex, uint8_t{0xFF});
}

TVX_API int getMemoryModuleInfo(uint8_t module, MemoryModuleInfo *info)
{
    if (!info) return 0;
    tvx::AgentSession session;
    if (!session) return 0;
    Exchange<kAnswerSize> answer(0xFF);
    if (!usableAnswer(session.get(), hw::kInventory, hw::indexRequest(hw::sub::kMemoryModuleInfo, module), answer))
        return 0;
    info->frequency = answer.filled().get(hw::module::kFrequency, uint16_t{0xFFFF});
    info->capacity = answer.filled().get(hw::module::kCapacity, uint16_t{0xFFFF});
    return 1;
}

TVX_API uint32_t getMemoryModuleCapacity(uint8_t module)
{
    MemoryModuleInfo info = {0, 0};
    if (!getMemoryModuleInfo(module, &info)) return kNoValue;
    // Above 32768 the value counts gigabytes in its low 15 bits.
    if (info.capacity > hw::module::kInGigabytes) return (info.capacity & 0x7FFFu) * 1024u;
    return info.capacity;
}

TVX_API uint32_t getMemoryModuleFrequency(uint8_t module)
{
    MemoryModuleInfo info = {0, 0};
    if (!getMemoryModuleInfo(module, &info)) return kNoValue;
    return info.frequency;
}

TVX_API uint32_t getMemoryModuleStatus(uint8_t module)
{
    tvx::AgentSession session;
    if (!session) return kCodeNoSession;
    constexpr std::size_t last = sizeof kStatusByValue - 1;
    unsigned value = ipmiGetMemoryModuleStatus(session.get(), module);
    return kStatusByValue[value < last ? value : last];
}

TVX_API uint32_t getMemoryModuleApprovedStatus(uint8_t module)
{
    tvx::AgentSession session;
    if (!session) return kApprovalUnknown;
    Exchange<kAnswerSize> answer(0xFF);
    if (!usableAnswer(session.get(), hw::kModuleApproval, hw::indexRequest(hw::sub::kApproval, module), answer))
        return kApprovalUnknown;
    return answer.filled().get(hw::module::kApproved) == hw::module::kIsApproved ? kApproved : kNotApproved;
}

TVX_API uint32_t getMemoryModuleConfig(uint8_t module)
{
    tvx::AgentSession session;
    if (!session) return kCodeNoSession;
    unsigned value = ipmiGetMemoryModuleConfig(session.get(), module);
    if (value == kUnknownModuleValue) return kCodeNoSession;
    return (value + 2) & 0xFF;
}

TVX_API const char *getMemoryModuleForm(char *buffer, uint32_t length, uint8_t module)
{
    tvx::AgentSession session;
    if (!session) return nullptr;
    Spd spd(session.get(), module);
    if (!spd.read) return nullptr;
    const char *text = spdUtilGetModuleTypeString(spd.image);
    if (!text) return nullptr;
    copyText(buffer, length, text);
    return text;
}

TVX_API char *getMemoryModuleType(char *buffer, uint32_t length, uint8_t module)
{
    tvx::AgentSession session;
    if (!session) return nullptr;
    Spd spd(session.get(), module);
    if (!spd.read) return nullptr;
    const char *device = spdUtilGetDeviceTypeString(spd.image);
    const char *form = spdUtilGetModuleTypeString(spd.image);
    if (!device || !form) return nullptr;
    char work[kDeviceTypeMax + 1] = {};
    std::strncpy(work, device, kDeviceTypeMax);
    if (char *underscore = std::strchr(work, '_')) *underscore = '\0';
    if (buffer && length > 0) std::snprintf(buffer, length, "%s / %s", work, form);
    return buffer;
}

TVX_API int getMemoryModuleMaxFrequency(uint8_t module)
{
    tvx::AgentSession session;
    if (!session) return -1;
    Spd spd(session.get(), module);
    if (!spd.read) return -1;
    return spdUtilGetDDRFrequencyType(spd.image);
}

TVX_API char *getMemoryModuleVoltInterface(char *buffer, uint32_t length, uint8_t module)
{
    tvx::AgentSession session;
    if (!session) return nullptr;
    Spd spd(session.get(), module);
    if (!spd.read) return nullptr;
    const char *text = spdUtilGetVoltageInterface(spd.image);
    if (!text) return nullptr;
    copyText(buffer, length, text);
    return buffer;
}

} // extern "C"
