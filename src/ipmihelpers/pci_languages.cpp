// The PCI slot table (OEM command 0xF1) and the languages of the controller's texts (OEM
// command 0xF5).
#include <cstdlib>

#include "common/diag.h"
#include "common/exchange.h"
#include "tvx/oem_hardware.h"
#include "tvx_toipmi.h"

namespace hw = tvx::oem::hw;
using tvx::diag::Unit;

namespace {

constexpr std::size_t kPciAnswerSize = 32;
// The table ends with a non-zero completion code. A controller that never ends it would be
// asked for entries until the 16-bit entry number wraps; the walk gives up after 256 entries,
// room for one entry per 8-bit slot number, far beyond any real slot table.
constexpr uint32_t kMaxPciEntries = 256;

// The language answer buffer holds 80 bytes: the IANA echo, the count and 37 identifiers.
constexpr std::size_t kLanguageAnswerSize = 80;
constexpr std::size_t kMaxLanguages = (kLanguageAnswerSize - hw::kFirstLanguage) / 2;
static_assert(kMaxLanguages == 37);
constexpr uint16_t kFallbackLanguage = TVX_LANG_GERMAN;

} // namespace

extern "C" {

TVX_API int ipmiGetPciInfo(IpmiSession *session, uint8_t slot)
{
    if (!session) return 0;
    // One buffer for the whole walk, zeroed once; the platform's length carries over from
    // one entry to the next.
    uint8_t response[kPciAnswerSize] = {};
    uint32_t length = sizeof response;
    const tvx::wire::View entry(response, sizeof response);
    for (uint32_t number = 1; number <= kMaxPciEntries; ++number) {
        auto request = hw::pciEntryRequest(static_cast<uint16_t>(number));
        if (!ipmiSendCmd(session, TVX_NETFN_OEM_GROUP, hw::kInventory, request.size(), request.data(), &length,
                         response))
            return 0;
        if (entry.get(tvx::kCompletionCode, uint8_t{0xFF}) != tvx::cc::kOk) return 0;
        if (!tvx::oem::echoesIana(entry)) return 0;
        // An entry cut short (a short answer shortens the length for every later one) would
        // show the bytes of an earlier entry: it ends the walk instead.
        tvx::wire::View arrived = entry.first(length);
        if (!arrived.has(hw::kPciSecondId)) return 0;
        if (arrived.get(hw::kPciSlot) == slot && arrived.get(hw::kPciFirstId) != hw::kNoDevice &&
            arrived.get(hw::kPciSecondId) != hw::kNoDevice)
            return 1;
    }
    return 0;
}

TVX_API int ipmiGetSupportedLanguage(IpmiSession *session, uint16_t **list)
{
    if (!list) return 0;
    auto allocate = [list](std::size_t count) {
        *list = static_cast<uint16_t *>(std::calloc(count, sizeof(uint16_t)));
        if (!*list) TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return *list != nullptr;
    };
    if (!session) {
        if (!*list && !allocate(1)) return 0;
        (*list)[0] = kFallbackLanguage;
        return 1;
    }
    tvx::Exchange<kLanguageAnswerSize> answer;
    uint16_t status = answer.sendDirect(session, hw::kVendorQuery, hw::plainRequest(hw::sub::kLanguages));
    std::size_t count = answer.filled().get(hw::kLanguageCount, uint8_t{0});
    if (count > kMaxLanguages) count = kMaxLanguages;
    if (!*list && !allocate(count > 0 ? count : 1)) return 0;
    if (status != 0 || answer.completionCode() != tvx::cc::kOk) {
        (*list)[0] = kFallbackLanguage;
        return 1;
    }
    for (std::size_t i = 0; i < count; ++i) (*list)[i] = answer.filled().get(hw::language(i), uint16_t{0});
    return static_cast<int>(count);
}

} // extern "C"
