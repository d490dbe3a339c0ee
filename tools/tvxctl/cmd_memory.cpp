// tvxctl memory: the memory policy and one row per module slot with every memory-module
// getter's value; tvxctl memory spd SLOT: one module's SPD image decoded as an administrator
// reads it, through the platform's decode-utility library.
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "decodeUtil.h"
#include "tvx/records.h"
#include "tvx/spd.h"

namespace tvxctl {
namespace {

constexpr uint32_t kNone = 0xFFFFFFFF;
constexpr std::size_t kTextSize = 64;
constexpr uint8_t kMemorySensor = 0x0C;

// What the agent's memory status codes stand for (the hardware MIB's memory states).
const char *statusMeaning(uint32_t code)
{
    switch (code) {
    case 2: return "not present";
    case 3: return "ok";
    case 4: return "disabled";
    case 5: return "error";
    case 6: return "failed";
    case 7: return "prefailure warning";
    case 11: return "hidden";
    default: return "unknown";
    }
}

// The names of the memory sensors (compact SDRs of sensor type 0x0C), in repository order: the
// agent's numbering of the modules.
std::vector<std::string> moduleNames(IpmiSession *session)
{
    SDRInfo info;
    std::memset(&info, 0, sizeof info);
    std::vector<std::string> out;
    if (!getSDRInfo(session, &info)) return out;
    for (uint32_t i = 0; i < info.count; ++i) {
        tvx::wire::View rec(getSdrByIndex(i, &info), info.recordSize);
        if (rec.get(tvx::sdr::kRecordType) == tvx::sdr::kCompactSensor && rec.get(tvx::sdr::kSensorType) == kMemorySensor)
            out.push_back(sdrIdString(rec.data(), rec.size()));
    }
    freeSDRInfo(&info);
    return out;
}

const char *approvalMeaning(uint32_t code) { return code == 3 ? "approved" : code == 2 ? "not approved" : "unknown"; }

struct Row {
    unsigned module;
    std::string name; // of the slot's memory sensor
    uint32_t status, config, approval, frequency, capacity;
    std::string form, type, voltage; // empty: none
    int maxFrequency;
};

Row read(unsigned module)
{
    const uint8_t m = static_cast<uint8_t>(module);
    Row r{module, "", getMemoryModuleStatus(m), getMemoryModuleConfig(m), getMemoryModuleApprovedStatus(m),
          getMemoryModuleFrequency(m), getMemoryModuleCapacity(m), "", "", "", getMemoryModuleMaxFrequency(m)};
    char text[kTextSize] = {};
    if (getMemoryModuleForm(text, sizeof text - 1, m)) r.form = text;
    std::memset(text, 0, sizeof text);
    if (getMemoryModuleType(text, sizeof text, m)) r.type = text;
    std::memset(text, 0, sizeof text);
    if (getMemoryModuleVoltInterface(text, sizeof text - 1, m)) r.voltage = text;
    return r;
}

Json textOrNull(const std::string &s) { return s.empty() ? Json(nullptr) : Json(s); }
Json valueOrNull(uint32_t v) { return v == kNone ? Json(nullptr) : Json(v); }
std::string shown(uint32_t v) { return v == kNone ? "-" : std::to_string(v); }
std::string shown(const std::string &s) { return s.empty() ? "-" : s; }

Json toJson(const Row &r)
{
    return {{"module", r.module},
            {"name", textOrNull(r.name)},
            {"status", r.status},
            {"status_meaning", statusMeaning(r.status)},
            {"config", r.config},
            {"approval", r.approval},
            {"approval_meaning", approvalMeaning(r.approval)},
            {"frequency", valueOrNull(r.frequency)},
            {"capacity_mb", valueOrNull(r.capacity)},
            {"form", textOrNull(r.form)},
            {"type", textOrNull(r.type)},
            {"max_speed_mts", r.maxFrequency < 0 ? Json(nullptr) : Json(r.maxFrequency)},
            {"voltage_interface", textOrNull(r.voltage)}};
}

int listModules(const Options &opt)
{
    Session session;
    const unsigned policy = ipmiGetMemoryPolicy(session.get());
    const unsigned maxIndex = getMemoryMaxIndex(session.get());
    const std::vector<std::string> names = moduleNames(session.get());
    std::vector<Row> rows;
    for (unsigned m = 0; m <= maxIndex; ++m) {
        rows.push_back(read(m));
        if (m < names.size()) rows.back().name = names[m];
    }
    if (opt.json) {
        Json modules = Json::array();
        for (const Row &r : rows) modules.push_back(toJson(r));
        printJson({{"policy", policy == 0xFF ? Json(nullptr) : Json(policy)}, {"max_index", maxIndex}, {"modules", modules}});
        return kExitOk;
    }
    std::printf("Memory policy: %s   highest module index: %u\n\n",
                policy == 0xFF ? "unreadable" : std::to_string(policy).c_str(), maxIndex);
    std::printf("%-6s %-10s %-22s %-6s %-16s %-9s %-8s %-8s %-20s %-8s %s\n", "Module", "Name", "Status", "Config",
                "Approval", "Frequency", "Size MB", "Form", "Type", "Max MT/s", "Voltage");
    for (const Row &r : rows) {
        std::string status = std::to_string(r.status) + " (" + statusMeaning(r.status) + ")";
        std::string approval = std::to_string(r.approval) + " (" + approvalMeaning(r.approval) + ")";
        std::printf("%-6u %-10.10s %-22s %-6u %-16s %-9s %-8s %-8s %-20s %-8s %s\n", r.module, shown(r.name).c_str(),
                    status.c_str(), r.config,
                    approval.c_str(), shown(r.frequency).c_str(), shown(r.capacity).c_str(), shown(r.form).c_str(),
                    shown(r.type).c_str(), r.maxFrequency < 0 ? "-" : std::to_string(r.maxFrequency).c_str(),
                    shown(r.voltage).c_str());
    }
    return kExitOk;
}

// A module's SPD image as decode-dimms summarizes it: the texts and speed class of the
// decode-utility library, and what the JEDEC layout says of its CRC, size and maker.
struct SpdSummary {
    std::string deviceType, moduleType, voltage; // empty: not decoded
    int speed = -1;                             // MT/s
    uint8_t memoryType = 0;
    bool decodable = false;
    std::string crcRange, crc; // "0-509", "OK (0x1a2b)"
    std::string revision, manufacturer, partNumber;
    uint64_t sizeMb = 0;
};

// A few JEP106 makers of memory modules, as the SPD stores them (continuation count with odd
// parity, then the code).
struct Maker {
    uint8_t bank, code;
    const char *name;
};
constexpr Maker kMakers[] = {{0x80, 0x2C, "Micron Technology"}, {0x80, 0xCE, "Samsung"}, {0x80, 0xAD, "SK Hynix"},
                             {0x01, 0x98, "Kingston"},           {0x02, 0x9E, "Corsair"},
                             {0x83, 0x0B, "Nanya Technology"},  {0x04, 0x51, "Qimonda"}, {0x85, 0x02, "Patriot Memory"}};

std::string manufacturerText(uint16_t stored)
{
    const uint8_t bank = stored & 0xFF, code = stored >> 8;
    char id[48];
    std::snprintf(id, sizeof id, "JEP106 bank %u, 0x%02X", (bank & 0x7Fu) + 1, code);
    for (const Maker &m : kMakers)
        if (m.bank == bank && m.code == code) return std::string(m.name) + " (" + id + ")";
    return stored == 0 ? "" : id;
}

std::string printableRun(tvx::wire::View run)
{
    std::string s;
    for (uint8_t c : run.span()) s += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
    while (!s.empty() && (s.back() == ' ' || s.back() == '?')) s.pop_back();
    return s;
}

SpdSummary summarizeSpd(const uint8_t *image, std::size_t size)
{
    namespace spd = tvx::spd;
    const tvx::wire::View v(image, size);
    SpdSummary s;
    auto text = [](const char *t) { return std::string(t ? t : ""); };
    s.deviceType = text(spdUtilGetDeviceTypeString(image));
    s.deviceType = s.deviceType.substr(0, s.deviceType.find('_'));
    s.moduleType = text(spdUtilGetModuleTypeString(image));
    s.voltage = text(spdUtilGetVoltageInterface(image));
    s.speed = spdUtilGetDDRFrequencyType(image);
    s.memoryType = v.get(spd::kMemoryType, uint8_t{0});
    if (s.memoryType != spd::kDdr3 && s.memoryType != spd::kDdr4 && s.memoryType != spd::kDdr5) return s;
    const bool ddr5 = s.memoryType == spd::kDdr5;
    const std::size_t end = spd::baseCrcEnd(v, s.memoryType);
    const tvx::wire::U16 crcField = ddr5 ? spd::ddr5::kCrc : spd::ddr3::kCrc;
    char buf[64];
    std::snprintf(buf, sizeof buf, "0-%zu", end - 1);
    s.crcRange = buf;
    const uint16_t computed = spd::crc16(v.first(end).span());
    const uint16_t stored = v.get(crcField, uint16_t{0});
    if (spd::crcHolds(v, 0, end, crcField)) std::snprintf(buf, sizeof buf, "OK (0x%04X)", computed);
    else std::snprintf(buf, sizeof buf, "Bad (stored 0x%04X, computed 0x%04X)", stored, computed);
    s.crc = buf;
    const uint8_t revision = v.get(spd::ddr3::kRevision, uint8_t{0});
    std::snprintf(buf, sizeof buf, "%u.%u", revision >> 4, revision & 0x0F);
    s.revision = buf;
    s.decodable = spd::checkedType(v) != 0;
    if (!s.decodable) return s;
    s.sizeMb = spd::capacityMb(v);
    const tvx::wire::U16 maker = s.memoryType == spd::kDdr3   ? spd::ddr3::kModuleManufacturer
                                 : s.memoryType == spd::kDdr4 ? spd::ddr4::kModuleManufacturer
                                                              : spd::ddr5::kModuleManufacturer;
    const tvx::wire::Run part = s.memoryType == spd::kDdr3   ? spd::ddr3::kPartNumber
                                : s.memoryType == spd::kDdr4 ? spd::ddr4::kPartNumber
                                                             : spd::ddr5::kPartNumber;
    s.manufacturer = manufacturerText(v.get(maker, uint16_t{0}));
    s.partNumber = printableRun(v.get(part));
    return s;
}

std::string speedText(const SpdSummary &s)
{
    if (s.speed < 0) return "";
    std::string name = s.deviceType.substr(0, s.deviceType.find(' '));
    return std::to_string(s.speed) + " MT/s" + (name.empty() ? "" : " (" + name + "-" + std::to_string(s.speed) + ")");
}

Json summaryJson(unsigned module, const SpdSummary &s)
{
    return {{"module", module},
            {"memory_type_byte", s.memoryType},
            {"crc", s.crc.empty() ? Json(nullptr) : Json({{"bytes", s.crcRange}, {"result", s.crc}})},
            {"fundamental_type", textOrNull(s.deviceType)},
            {"spd_revision", textOrNull(s.revision)},
            {"module_type", textOrNull(s.moduleType)},
            {"max_speed_mts", s.speed < 0 ? Json(nullptr) : Json(s.speed)},
            {"size_mb", s.sizeMb ? Json(s.sizeMb) : Json(nullptr)},
            {"voltage_interface", textOrNull(s.voltage)},
            {"manufacturer", textOrNull(s.manufacturer)},
            {"part_number", textOrNull(s.partNumber)}};
}

void printSummary(unsigned module, const SpdSummary &s)
{
    auto line = [](const std::string &label, const std::string &value) {
        std::printf("%-48s %s\n", label.c_str(), value.empty() ? "(not decoded)" : value.c_str());
    };
    std::printf("---=== SPD EEPROM of module %u ===---\n", module);
    if (!s.crc.empty()) line("EEPROM CRC of bytes " + s.crcRange, s.crc);
    line("Fundamental Memory type", s.deviceType);
    if (!s.revision.empty()) line("SPD Revision", s.revision);
    line("Module Type", s.moduleType);
    std::printf("\n---=== Memory Characteristics ===---\n");
    line("Maximum module speed", speedText(s));
    line("Size", s.sizeMb ? std::to_string(s.sizeMb) + " MB" : "");
    line("Voltage Interface", s.voltage);
    std::printf("\n---=== Manufacturer Data ===---\n");
    line("Module Manufacturer", s.manufacturer);
    line("Part Number", s.partNumber);
}

int showSpd(const Options &opt, const std::string &slotText)
{
    uint8_t module;
    if (!parseByte(slotText, module)) throw Failure{kExitUsage, "invalid module index \"" + slotText + "\" (0 to 255)"};
    Session session;
    uint8_t image[tvx::spd::kMaxSize] = {}; // smaller images end with the controller's refusal
    if (!getMemorySPDdata(session.get(), image, sizeof image, module))
        throw Failure{kExitFailed, "cannot read the SPD image of module " + std::to_string(module) +
                                       " (empty slot, or the controller refused)"};
    SpdSummary summary = summarizeSpd(image, sizeof image);
    if (opt.json) {
        printJson(summaryJson(module, summary));
        return kExitOk;
    }
    printSummary(module, summary);
    return kExitOk;
}

} // namespace

int cmdMemory(const Options &opt, const std::vector<std::string> &args)
{
    if (args.empty()) return listModules(opt);
    if (args.size() == 2 && args[0] == "spd") return showSpd(opt, args[1]);
    throw Failure{kExitUsage, "usage: tvxctl memory [spd SLOT]"};
}

const char *memoryStatusMeaning(uint32_t code) { return statusMeaning(code); }

} // namespace tvxctl
