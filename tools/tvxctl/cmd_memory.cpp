// tvxctl memory: the memory policy and one row per module slot with every memory-module
// getter's value; tvxctl memory spd SLOT: one module's SPD image decoded as an administrator
// reads it, through the platform's decode-utility library.
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "decodeUtil.h"

namespace tvxctl {
namespace {

constexpr uint32_t kNone = 0xFFFFFFFF;
constexpr std::size_t kTextSize = 64;

// What the agent's memory status codes stand for, by how the overall status rates them.
const char *statusMeaning(uint32_t code)
{
    switch (code) {
    case 1: return "unknown";
    case 2: case 3: case 4: case 8: case 9: case 10: return "ok";
    case 5: case 6: return "critical";
    case 7: return "warning";
    default: return "not rated";
    }
}

const char *approvalMeaning(uint32_t code) { return code == 3 ? "approved" : code == 2 ? "not approved" : "unknown"; }

struct Row {
    unsigned module;
    uint32_t status, config, approval, frequency, capacity;
    std::string form, type, voltage; // empty: none
    int maxFrequency;
};

Row read(unsigned module)
{
    const uint8_t m = static_cast<uint8_t>(module);
    Row r{module, getMemoryModuleStatus(m), getMemoryModuleConfig(m), getMemoryModuleApprovedStatus(m),
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
            {"status", r.status},
            {"status_meaning", statusMeaning(r.status)},
            {"config", r.config},
            {"approval", r.approval},
            {"approval_meaning", approvalMeaning(r.approval)},
            {"frequency", valueOrNull(r.frequency)},
            {"capacity_mb", valueOrNull(r.capacity)},
            {"form", textOrNull(r.form)},
            {"type", textOrNull(r.type)},
            {"max_frequency_class", r.maxFrequency < 0 ? Json(nullptr) : Json(r.maxFrequency)},
            {"voltage_interface", textOrNull(r.voltage)}};
}

int listModules(const Options &opt)
{
    Session session;
    const unsigned policy = ipmiGetMemoryPolicy(session.get());
    const unsigned maxIndex = getMemoryMaxIndex(session.get());
    std::vector<Row> rows;
    for (unsigned m = 0; m <= maxIndex; ++m) rows.push_back(read(m));
    if (opt.json) {
        Json modules = Json::array();
        for (const Row &r : rows) modules.push_back(toJson(r));
        printJson({{"policy", policy == 0xFF ? Json(nullptr) : Json(policy)}, {"max_index", maxIndex}, {"modules", modules}});
        return kExitOk;
    }
    std::printf("Memory policy: %s   highest module index: %u\n\n",
                policy == 0xFF ? "unreadable" : std::to_string(policy).c_str(), maxIndex);
    std::printf("%-6s %-14s %-6s %-16s %-9s %-8s %-10s %-24s %-8s %s\n", "Module", "Status", "Config", "Approval",
                "Frequency", "Size MB", "Form", "Type", "Class", "Voltage");
    for (const Row &r : rows) {
        std::string status = std::to_string(r.status) + " (" + statusMeaning(r.status) + ")";
        std::string approval = std::to_string(r.approval) + " (" + approvalMeaning(r.approval) + ")";
        std::printf("%-6u %-14s %-6u %-16s %-9s %-8s %-10s %-24s %-8s %s\n", r.module, status.c_str(), r.config,
                    approval.c_str(), shown(r.frequency).c_str(), shown(r.capacity).c_str(), shown(r.form).c_str(),
                    shown(r.type).c_str(), r.maxFrequency < 0 ? "-" : std::to_string(r.maxFrequency).c_str(),
                    shown(r.voltage).c_str());
    }
    return kExitOk;
}

// The largest SPD image (DDR5); smaller ones end with the controller's refusal to read on.
constexpr std::size_t kSpdImageMax = 1024;

// What the decode-utility library says of an image.
struct SpdSummary {
    const char *deviceType, *moduleType, *voltage;
    int frequencyClass;
};

SpdSummary summarizeSpd(const uint8_t *image)
{
    return {spdUtilGetDeviceTypeString(image), spdUtilGetModuleTypeString(image), spdUtilGetVoltageInterface(image),
            spdUtilGetDDRFrequencyType(image)};
}

// The device type as the agent shows it: up to its first underscore.
std::string deviceTypeText(const char *text)
{
    if (!text) return "";
    std::string s = text;
    return s.substr(0, s.find('_'));
}

Json summaryJson(unsigned module, const SpdSummary &s)
{
    return {{"module", module},
            {"fundamental_type", textOrNull(deviceTypeText(s.deviceType))},
            {"module_type", s.moduleType ? Json(s.moduleType) : Json(nullptr)},
            {"voltage_interface", s.voltage ? Json(s.voltage) : Json(nullptr)},
            {"frequency_class", s.frequencyClass < 0 ? Json(nullptr) : Json(s.frequencyClass)}};
}

void printSummary(unsigned module, const SpdSummary &s)
{
    auto line = [](const char *label, const std::string &value) {
        std::printf("%-48s %s\n", label, value.empty() ? "(not decoded)" : value.c_str());
    };
    std::printf("---=== SPD EEPROM of module %u ===---\n", module);
    line("Fundamental Memory type", deviceTypeText(s.deviceType));
    line("Module Type", s.moduleType ? s.moduleType : "");
    line("Voltage Interface", s.voltage ? s.voltage : "");
    line("DDR Frequency class", s.frequencyClass < 0 ? "" : std::to_string(s.frequencyClass));
}

int showSpd(const Options &opt, const std::string &slotText)
{
    uint8_t module;
    if (!parseByte(slotText, module)) throw Failure{kExitUsage, "invalid module index \"" + slotText + "\" (0 to 255)"};
    Session session;
    uint8_t image[kSpdImageMax] = {};
    if (!getMemorySPDdata(session.get(), image, sizeof image, module))
        throw Failure{kExitFailed, "cannot read the SPD image of module " + std::to_string(module) +
                                       " (empty slot, or the controller refused)"};
    SpdSummary summary = summarizeSpd(image);
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

} // namespace tvxctl
