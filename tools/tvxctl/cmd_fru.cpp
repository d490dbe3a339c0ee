// tvxctl fru [ID]: the FRU inventory as the platform decodes it, for every logical FRU device
// the SDR repository's FRU Device Locators name (or for the one device asked for): chassis,
// board and product areas with their custom fields.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "cli.h"
#include "libipmi.h"
#include "tvx/records.h"

namespace tvxctl {
namespace {

namespace locator = tvx::sdr::fru_locator;
namespace wire = tvx::wire;
constexpr long kEpoch1996 = 820454400; // 1996-01-01 00:00 UTC in Unix time

struct Device {
    uint8_t id;
    std::string name;
};

// The logical FRU devices of the repository, in repository order.
std::vector<Device> locatedDevices(IpmiSession *session)
{
    SDRInfo info;
    std::memset(&info, 0, sizeof info);
    if (!getSDRInfo(session, &info)) throw Failure{kExitFailed, "cannot read the SDR repository"};
    std::vector<Device> out;
    for (uint32_t i = 0; i < info.count; ++i) {
        const wire::View rec(getSdrByIndex(i, &info), info.recordSize);
        const std::optional<uint8_t> access = rec.get(locator::kAccessLunBus); // bit 7: a logical device
        if (rec.get(tvx::sdr::kRecordType) == tvx::sdr::kFruDeviceLocator && access && wire::bits(*access, 7, 1))
            out.push_back({rec.get(locator::kFruDeviceId, uint8_t{0}), sdrIdString(rec)});
    }
    freeSDRInfo(&info);
    return out;
}

// The field's text (copied out of the packed record before use), or null when absent.
Json text(const FruField &f)
{
    const char *t = f.text;
    return t ? Json(t) : Json(nullptr);
}

Json customs(char **fields, uint8_t count)
{
    Json a = Json::array();
    for (uint8_t i = 0; i < count && fields; ++i) a.push_back(fields[i] ? Json(fields[i]) : Json(nullptr));
    return a;
}

// "2024-02-27T14:32:00Z" from minutes since 1996; null for 0 (unspecified).
Json mfgDate(const uint8_t (&bytes)[3])
{
    long minutes = wire::Reader(bytes, sizeof bytes).u24();
    if (minutes == 0) return nullptr;
    std::time_t t = kEpoch1996 + minutes * 60;
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

Json describe(const FruData &r, uint32_t size)
{
    Json j = {{"size", size}, {"format_version", r.formatVersion}};
    j["chassis"] = nullptr;
    if (r.chassisOffset)
        j["chassis"] = {{"type", r.chassisType},
                        {"part_number", text(r.chassisPartNumber)},
                        {"serial_number", text(r.chassisSerialNumber)},
                        {"custom", customs(r.chassisCustomFields, r.chassisCustomCount)}};
    j["board"] = nullptr;
    if (r.boardOffset)
        j["board"] = {{"language", r.boardLanguage},
                      {"mfg_date", mfgDate(r.boardMfgDateTime)},
                      {"manufacturer", text(r.boardManufacturer)},
                      {"product_name", text(r.boardProductName)},
                      {"serial_number", text(r.boardSerialNumber)},
                      {"part_number", text(r.boardPartNumber)},
                      {"fru_file_id", text(r.boardFruFileId)},
                      {"custom", customs(r.boardCustomFields, r.boardCustomCount)}};
    j["product"] = nullptr;
    if (r.productOffset)
        j["product"] = {{"language", r.productLanguage},
                        {"manufacturer", text(r.productManufacturer)},
                        {"name", text(r.productName)},
                        {"part_number", text(r.productPartNumber)},
                        {"version", text(r.productVersion)},
                        {"serial_number", text(r.productSerialNumber)},
                        {"asset_tag", text(r.productAssetTag)},
                        {"fru_file_id", text(r.productFruFileId)},
                        {"custom", customs(r.productCustomFields, r.productCustomCount)}};
    return j;
}

// The human form of one area: "Label : value" lines, custom fields last.
void printArea(const Json &area, const char *prefix,
               std::initializer_list<std::pair<const char *, const char *>> labels)
{
    if (area.is_null()) return;
    for (const auto &[key, label] : labels) {
        const Json &v = area[key];
        std::string shown = v.is_null() ? "" : v.is_string() ? v.get<std::string>() : v.dump();
        if (v.is_null() && std::strcmp(key, "mfg_date") == 0) shown = "unspecified";
        std::printf("  %-22s: %s\n", (std::string(prefix) + " " + label).c_str(), shown.c_str());
    }
    for (const Json &c : area["custom"])
        std::printf("  %-22s: %s\n", (std::string(prefix) + " Extra").c_str(),
                    c.is_null() ? "" : c.get<std::string>().c_str());
}

} // namespace

int cmdFru(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() > 1) throw Failure{kExitUsage, "fru takes at most one FRU device ID"};
    Session session;
    if (args.size() == 1 && args[0] == "summary") return cmdFruSummary(opt, session.get());
    std::vector<Device> devices;
    if (args.size() == 1) {
        uint8_t id;
        if (!parseByte(args[0], id))
            throw Failure{kExitUsage, "expected a FRU device ID (0-255), got \"" + args[0] + "\""};
        devices.push_back({id, ""});
        for (const Device &d : locatedDevices(session.get()))
            if (d.id == id) devices[0].name = d.name;
    } else {
        devices = locatedDevices(session.get());
    }
    Json out = Json::array();
    bool failed = false;
    for (const Device &d : devices) {
        FruData rec;
        std::memset(&rec, 0, sizeof rec);
        uint32_t size = 0;
        uint16_t status = LIBIPMI_HL_GetFRUData(session.get(), d.id, &size, &rec, 60);
        Json j = {{"fru_id", d.id}, {"name", d.name}};
        if (status != 0) {
            failed = true;
            j["error"] = statusText(status);
        } else {
            j.update(describe(rec, size));
        }
        out.push_back(j);
    }
    if (opt.json) {
        printJson(out);
        return failed ? kExitFailed : kExitOk;
    }
    for (const Json &j : out) {
        std::printf("FRU %u%s%s", j["fru_id"].get<unsigned>(), j["name"].get<std::string>().empty() ? "" : " ",
                    j["name"].get<std::string>().c_str());
        if (j.contains("error")) {
            std::printf(": %s\n\n", j["error"].get<std::string>().c_str());
            continue;
        }
        std::printf(" (%u bytes)\n", j["size"].get<unsigned>());
        if (!j["chassis"].is_null())
            std::printf("  %-22s: 0x%02X\n", "Chassis Type", j["chassis"]["type"].get<unsigned>());
        printArea(j["chassis"], "Chassis", {{"part_number", "Part Number"}, {"serial_number", "Serial"}});
        printArea(j["board"], "Board",
                  {{"mfg_date", "Mfg Date"},
                   {"manufacturer", "Mfg"},
                   {"product_name", "Product"},
                   {"serial_number", "Serial"},
                   {"part_number", "Part Number"},
                   {"fru_file_id", "FRU File ID"}});
        printArea(j["product"], "Product",
                  {{"manufacturer", "Manufacturer"},
                   {"name", "Name"},
                   {"part_number", "Part Number"},
                   {"version", "Version"},
                   {"serial_number", "Serial"},
                   {"asset_tag", "Asset Tag"},
                   {"fru_file_id", "FRU File ID"}});
        std::printf("\n");
    }
    if (args.empty()) cmdFruSummary(opt, session.get());
    return failed ? kExitFailed : kExitOk;
}

} // namespace tvxctl
