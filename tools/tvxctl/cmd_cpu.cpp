// tvxctl cpu: one row per processor socket with every processor getter's value. Sockets are
// numbered as the agent numbers them: by the place of their processor sensor (a compact SDR of
// sensor type 0x07 with sensor-specific readings) in the SDR repository.
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "tvx/records.h"

namespace tvxctl {
namespace {

constexpr uint8_t kProcessorSensor = 0x07;
constexpr uint8_t kSensorSpecific = 0x6F;

struct Socket {
    uint8_t sensor;
    std::string name;
};

std::vector<Socket> processorSockets(IpmiSession *session)
{
    SDRInfo info;
    std::memset(&info, 0, sizeof info);
    if (!getSDRInfo(session, &info)) throw Failure{kExitFailed, "cannot read the SDR repository"};
    std::vector<Socket> out;
    for (uint32_t i = 0; i < info.count; ++i) {
        tvx::wire::View rec(getSdrByIndex(i, &info), info.recordSize);
        if (rec.get(tvx::sdr::kRecordType) == tvx::sdr::kCompactSensor &&
            rec.get(tvx::sdr::kSensorType) == kProcessorSensor &&
            rec.get(tvx::sdr::kEventReadingType) == kSensorSpecific)
            out.push_back({rec.get(tvx::sdr::kSensorNumber, uint8_t{0}), sdrIdString(rec.data(), rec.size())});
    }
    freeSDRInfo(&info);
    return out;
}

// What the agent's processor status codes stand for (the hardware MIB's processor states).
const char *statusMeaning(uint32_t code)
{
    switch (code) {
    case 2: return "not present";
    case 3: return "ok";
    case 4: return "disabled";
    case 5: return "error";
    case 6: return "failed";
    case 8: return "prefailure warning";
    default: return "unknown";
    }
}

const char *threadingText(uint32_t code)
{
    return code == 3 ? "enabled" : code == 2 ? "disabled" : "unknown";
}

// Every getter's value for one socket; all-ones and negative values mean "none".
struct Row {
    uint32_t socket;
    Socket sensor;
    bool present;
    uint32_t status, statusAlt;
    std::string manufacturer, model;
    bool named;
    uint32_t stepping, family, speed, cores, enabledCores;
    int logicals;
    uint32_t threading, cache[3];
};

Row read(IpmiSession *session, uint32_t index, const Socket &socket)
{
    const uint32_t n = socket.sensor;
    Row r{index, socket, getCpuPresenceStatus(session, n) == 1, getCpuStatus(n, index, 0), getCpuStatus(n, index, 1),
          getCpuManufacturerName(n, index), "", false, 0, getCpuFamily(n, index), getCpuCurrentSpeed(n, index),
          getCpuNumberCores(n, index), getCpuEnabledCores(n, index), getCpuNumberLogicals(n, index),
          getCpuMultithreadingEnabled(n, index), {}};
    char model[TVX_CPU_RECORD_SIZE + 1] = {};
    r.named = getCpuModelName(model, TVX_CPU_RECORD_SIZE, n, index) != nullptr;
    r.model = model;
    char step[8] = {};
    r.stepping = getCpuStep(step, sizeof step, n, index);
    for (uint32_t level = 1; level <= 3; ++level) r.cache[level - 1] = getCpuCacheSize(n, index, level);
    return r;
}

Json toJson(const Row &r)
{
    return {{"socket", r.socket},
            {"sensor", r.sensor.sensor},
            {"name", r.sensor.name},
            {"present", r.present},
            {"status", r.status},
            {"status_meaning", statusMeaning(r.status)},
            {"status_alt", r.statusAlt},
            {"manufacturer", r.manufacturer},
            {"model", r.named ? Json(r.model) : Json(nullptr)},
            {"stepping", r.stepping},
            {"family", r.family},
            {"current_speed", r.speed == 0xFFFFFFFF ? Json(nullptr) : Json(r.speed)},
            {"cores", r.cores},
            {"enabled_cores", r.enabledCores},
            {"logical_processors", r.logicals < 0 ? Json(nullptr) : Json(r.logicals)},
            {"multithreading", r.threading},
            {"multithreading_meaning", threadingText(r.threading)},
            {"cache", {{"l1", r.cache[0]}, {"l2", r.cache[1]}, {"l3", r.cache[2]}}}};
}

} // namespace

int cmdCpu(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) throw Failure{kExitUsage, "cpu takes no arguments"};
    Session session;
    std::vector<Socket> sockets = processorSockets(session.get());
    std::vector<Row> rows;
    for (uint32_t index = 0; index < sockets.size(); ++index) rows.push_back(read(session.get(), index, sockets[index]));
    if (opt.json) {
        Json out = Json::array();
        for (const Row &r : rows) out.push_back(toJson(r));
        printJson(out);
        return kExitOk;
    }
    if (rows.empty()) {
        std::printf("No processor sensors in the SDR repository.\n");
        return kExitOk;
    }
    std::printf("%-6s %-4s %-12s %-7s %-16s %-3s %-6s %-30s %-4s %-6s %-5s %-5s %-7s %-7s %-8s %-6s %-6s %s\n",
                "Socket", "Sens", "Name", "Present", "Status", "Alt", "Maker", "Model", "Step", "Family", "MHz",
                "Cores", "Enabled", "Logical", "SMT", "L1 KB", "L2 KB", "L3 KB");
    for (const Row &r : rows) {
        std::string status = std::to_string(r.status) + " (" + statusMeaning(r.status) + ")";
        std::string speed = r.speed == 0xFFFFFFFF ? "-" : std::to_string(r.speed);
        std::string logicals = r.logicals < 0 ? "-" : std::to_string(r.logicals);
        char family[8];
        std::snprintf(family, sizeof family, "0x%02x", r.family);
        std::printf("%-6u %02Xh  %-12.12s %-7s %-16s %-3u %-6s %-30.30s %-4u %-6s %-5s %-5u %-7u %-7s %-8s %-6u %-6u %u\n",
                    r.socket, r.sensor.sensor, r.sensor.name.c_str(), r.present ? "yes" : "no", status.c_str(),
                    r.statusAlt, r.manufacturer.empty() ? "-" : r.manufacturer.c_str(), r.named ? r.model.c_str() : "-",
                    r.stepping, family, speed.c_str(), r.cores, r.enabledCores, logicals.c_str(),
                    threadingText(r.threading), r.cache[0], r.cache[1], r.cache[2]);
    }
    return kExitOk;
}

const char *cpuStatusMeaning(uint32_t code) { return statusMeaning(code); }

} // namespace tvxctl
