// tvxctl pci: the controller's PCI slot table, entry by entry, with the library's verdict on
// each slot; tvxctl languages: the languages of the controller's texts.
#include <cstdio>
#include <cstdlib>
#include <map>

#include "cli.h"
#include "tvx/oem_hardware.h"

namespace tvxctl {
namespace {

namespace hw = tvx::oem::hw;

// The walk ends as the library's does: at the first refusal, or after 256 entries.
constexpr uint32_t kMaxEntries = 256;

struct Entry {
    unsigned number, slot, first, second;
};

std::vector<Entry> readTable(IpmiSession *session, std::string &end)
{
    std::vector<Entry> out;
    for (uint32_t number = 1; number <= kMaxEntries; ++number) {
        auto request = hw::pciEntryRequest(static_cast<uint16_t>(number));
        uint8_t response[32] = {};
        uint32_t length = sizeof response;
        if (!ipmiSendCmd(session, TVX_NETFN_OEM_GROUP, hw::kInventory, request.size(), request.data(), &length,
                         response)) {
            end = "no answer to entry " + std::to_string(number);
            return out;
        }
        tvx::wire::View answer(response, length < sizeof response ? length : sizeof response);
        uint8_t code = answer.get(tvx::kCompletionCode, uint8_t{0xFF});
        if (code != tvx::cc::kOk) {
            if (code != tvx::cc::kParameterOutOfRange)
                end = "entry " + std::to_string(number) + ": completion code " + hexByte(code) + " (" +
                      tvx::cc::text(code) + ")";
            return out;
        }
        if (!answer.has(hw::kPciSecondId) || !tvx::oem::echoesIana(answer)) {
            end = "entry " + std::to_string(number) + ": malformed answer";
            return out;
        }
        out.push_back({number, *answer.get(hw::kPciSlot), *answer.get(hw::kPciFirstId), *answer.get(hw::kPciSecondId)});
    }
    end = "the table did not end within " + std::to_string(kMaxEntries) + " entries";
    return out;
}

struct LanguageName {
    uint16_t lcid;
    const char *tag, *name;
};
constexpr LanguageName kLanguages[] = {
    {0x0407, "de-DE", "German (Germany)"},        {0x0409, "en-US", "English (United States)"},
    {0x0809, "en-GB", "English (United Kingdom)"}, {0x040A, "es-ES", "Spanish (Spain, traditional)"},
    {0x0C0A, "es-ES", "Spanish (Spain)"},          {0x040C, "fr-FR", "French (France)"},
    {0x0410, "it-IT", "Italian (Italy)"},          {0x0411, "ja-JP", "Japanese (Japan)"},
    {0x0412, "ko-KR", "Korean (Korea)"},           {0x0413, "nl-NL", "Dutch (Netherlands)"},
    {0x0415, "pl-PL", "Polish (Poland)"},          {0x0416, "pt-BR", "Portuguese (Brazil)"},
    {0x0419, "ru-RU", "Russian (Russia)"},         {0x041D, "sv-SE", "Swedish (Sweden)"},
    {0x0804, "zh-CN", "Chinese (Simplified, PRC)"}, {0x0404, "zh-TW", "Chinese (Traditional, Taiwan)"},
};

const LanguageName *languageName(uint16_t lcid)
{
    for (const LanguageName &l : kLanguages)
        if (l.lcid == lcid) return &l;
    return nullptr;
}

std::string hex4(unsigned v)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%04x", v & 0xFFFF);
    return buf;
}

} // namespace

int cmdPci(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) throw Failure{kExitUsage, "pci takes no arguments"};
    Session session;
    std::string end;
    std::vector<Entry> table = readTable(session.get(), end);
    std::map<unsigned, bool> occupied; // the library's verdict per slot
    for (const Entry &e : table)
        if (!occupied.count(e.slot)) occupied[e.slot] = ipmiGetPciInfo(session.get(), static_cast<uint8_t>(e.slot)) == 1;
    auto holds = [](const Entry &e) { return e.first != hw::kNoDevice && e.second != hw::kNoDevice; };
    if (opt.json) {
        Json entries = Json::array();
        for (const Entry &e : table)
            entries.push_back({{"entry", e.number},
                               {"slot", e.slot},
                               {"vendor_id", holds(e) ? Json(hex4(e.first)) : Json(nullptr)},
                               {"device_id", holds(e) ? Json(hex4(e.second)) : Json(nullptr)},
                               {"device", holds(e)}});
        Json slots = Json::array();
        for (auto [slot, yes] : occupied) slots.push_back({{"slot", slot}, {"occupied", yes}});
        printJson({{"entries", entries}, {"slots", slots}, {"table_end", end.empty() ? Json(nullptr) : Json(end)}});
        return kExitOk;
    }
    if (table.empty()) std::printf("The controller's PCI slot table is empty.\n");
    else std::printf("%-6s %-5s %-10s %-10s %s\n", "Entry", "Slot", "Vendor", "Device", "Slot occupied");
    for (const Entry &e : table)
        std::printf("%-6u %-5u %-10s %-10s %s\n", e.number, e.slot, holds(e) ? hex4(e.first).c_str() : "-",
                    holds(e) ? hex4(e.second).c_str() : "-", occupied[e.slot] ? "yes" : "no (empty)");
    if (!end.empty()) std::printf("(%s)\n", end.c_str());
    return kExitOk;
}

int cmdLanguages(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) throw Failure{kExitUsage, "languages takes no arguments"};
    Session session;
    uint16_t *list = nullptr;
    int count = ipmiGetSupportedLanguage(session.get(), &list);
    std::vector<uint16_t> ids(list, list + (count > 0 ? count : 0));
    std::free(list);
    if (opt.json) {
        Json out = Json::array();
        for (uint16_t id : ids) {
            const LanguageName *l = languageName(id);
            out.push_back({{"lcid", hex4(id)}, {"tag", l ? Json(l->tag) : Json(nullptr)},
                           {"name", l ? Json(l->name) : Json(nullptr)}});
        }
        printJson(out);
        return kExitOk;
    }
    for (uint16_t id : ids) {
        const LanguageName *l = languageName(id);
        std::printf("%s  %-6s %s\n", hex4(id).c_str(), l ? l->tag : "", l ? l->name : "(unknown language)");
    }
    return kExitOk;
}

} // namespace tvxctl
