// tvxctl fru [ID]: the FRU inventory as the platform decodes it: chassis, board and product
// areas with their custom fields. Without an ID, every FRU device a user expects, as ipmitool
// lists them: the controller's own FRU device 0 when Get Device ID says it has FRU inventory
// (with or without a locator record), every logical FRU device a FRU Device Locator names,
// and FRU device 0 of every other management controller whose locator says it has FRU
// inventory, each read from its own controller (bridged through this one). With an ID, that
// device of this controller alone, without reading the SDR repository.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "cli.h"
#include "libipmi.h"
#include "libipmi_host.h"
#include "tvx/ipmi.h"
#include "tvx/records.h"

namespace tvxctl {
namespace {

namespace locator = tvx::sdr::fru_locator;
namespace mc = tvx::sdr::mc_locator;
namespace wire = tvx::wire;
constexpr long kEpoch1996 = 820454400; // 1996-01-01 00:00 UTC in Unix time
constexpr uint8_t kFruInventoryDevice = tvx::device_id::kFruInventoryDevice; // also an MC locator's capability bit

// Whether Get Device ID says the controller is a FRU inventory device. Asked directly: a
// controller may answer without the auxiliary revision, which the library's identity reader
// takes for a broken answer.
bool hasFruInventory(IpmiSession *session)
{
    uint8_t answer[LIBIPMI_MAX_RESPONSE_LEN];
    uint32_t len = 0;
    if (LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, tvx::netfn::lun0(tvx::netfn::kApp), tvx::cmd::app::kGetDeviceId,
                                         nullptr, 0, answer, &len, 60) != 0)
        return false;
    const wire::View view(answer, std::min<std::size_t>(len, sizeof answer));
    return view.get(tvx::device_id::kAdditionalSupport, uint8_t{0}) & kFruInventoryDevice;
}

struct Device {
    Device(uint8_t fruId, std::string text, uint8_t at = 0, uint8_t on = 0)
        : id(fruId), name(std::move(text)), address(at), channel(on)
    {
    }
    uint8_t id;
    std::string name;
    uint8_t address; // the controller that holds it (0: this one)
    uint8_t channel;
    std::string skipped; // why it is listed but not read
};

// Every FRU device of the machine, in ipmitool's order: this controller's device 0, then the
// repository's locators in repository order.
std::vector<Device> allDevices(const Session &session)
{
    std::vector<Device> out;
    const bool builtin = hasFruInventory(session.get());
    if (builtin) out.emplace_back(0, "Builtin FRU Device");
    SDRInfo info;
    std::memset(&info, 0, sizeof info);
    if (!getSDRInfo(session.get(), &info)) throw session.failed("cannot read the SDR repository");
    const uint8_t self = tvx::ipmb::kBmcAddress;
    for (uint32_t i = 0; i < info.count; ++i) {
        const wire::View rec(getSdrByIndex(i, &info), info.recordSize);
        const uint8_t type = rec.get(tvx::sdr::kRecordType, uint8_t{0});
        if (type == tvx::sdr::kFruDeviceLocator) {
            const uint8_t address = rec.get(locator::kAccessAddress, uint8_t{0}) & 0xFE;
            const uint8_t channel = static_cast<uint8_t>(wire::bits(rec.get(locator::kChannel, uint8_t{0}), 4, 4));
            const uint8_t access = rec.get(locator::kAccessLunBus, uint8_t{0});
            const uint8_t fruId = rec.get(locator::kFruDeviceId, uint8_t{0});
            const bool here = address == self && channel == 0;
            if (builtin && here && fruId == 0 && wire::bits(access, 7, 1)) continue; // listed first already
            Device d{fruId, sdrIdString(rec), here ? uint8_t{0} : address, channel};
            if (!wire::bits(access, 7, 1))
                d.skipped = "a device on private bus " + std::to_string(wire::bits(access, 0, 3)) + " of controller " +
                            hexByte(address) + " at " + hexByte(fruId) + ", which is not read";
            out.push_back(d);
        } else if (type == tvx::sdr::kMcDeviceLocator) {
            const uint8_t address = rec.get(mc::kSlaveAddress, uint8_t{0}) & 0xFE;
            const uint8_t channel = static_cast<uint8_t>(wire::bits(rec.get(mc::kChannel, uint8_t{0}), 0, 4));
            const bool hasFru = rec.get(mc::kCapabilities, uint8_t{0}) & kFruInventoryDevice;
            if (hasFru && !(address == self && channel == 0)) out.emplace_back(0, sdrIdString(rec), address, channel);
        }
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
        devices.emplace_back(id, "");
    } else {
        devices = allDevices(session);
    }
    Json out = Json::array();
    bool failed = false;
    for (const Device &d : devices) {
        Json j = {{"fru_id", d.id}, {"name", d.name}};
        if (d.address) j["controller"] = {{"address", d.address}, {"channel", d.channel}};
        if (!d.skipped.empty()) {
            j["skipped"] = d.skipped;
            out.push_back(j);
            continue;
        }
        FruData rec;
        std::memset(&rec, 0, sizeof rec);
        uint32_t size = 0;
        ipmihost_session_route(session.get(), d.channel, d.address);
        uint16_t status = LIBIPMI_HL_GetFRUData(session.get(), d.id, &size, &rec, 60);
        if (status != 0) {
            failed = true;
            j["error"] = session.whyFailed().empty() ? statusText(status) : session.whyFailed();
        } else {
            j.update(describe(rec, size));
        }
        ipmihost_session_route(session.get(), 0, 0);
        out.push_back(j);
    }
    if (opt.json) {
        printJson(out);
        return failed ? kExitFailed : kExitOk;
    }
    for (const Json &j : out) {
        std::printf("FRU %u%s%s", j["fru_id"].get<unsigned>(), j["name"].get<std::string>().empty() ? "" : " ",
                    j["name"].get<std::string>().c_str());
        if (j.contains("controller"))
            std::printf(" on controller %s", hexByte(j["controller"]["address"].get<unsigned>()).c_str());
        for (const char *why : {"error", "skipped"})
            if (j.contains(why)) std::printf(": %s\n\n", j[why].get<std::string>().c_str());
        if (j.contains("error") || j.contains("skipped")) continue;
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
