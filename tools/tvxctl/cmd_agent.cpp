// tvxctl agent sensors: what the hardware-monitoring agent publishes for every sensor of the
// machine: each sensor getter of the library called as the agent calls it, one row per sensor
// with the status code and its meaning, the value and the rest (thresholds, nominal values,
// reactions), and with --json every getter's result under the call that produced it.
#include <cstdio>
#include <cstring>

#include "agent_pass.h"
#include "cli.h"

namespace tvxctl {
namespace {

struct Row {
    AgentSensor sensor;
    std::vector<int> results; // one per getter of its class, in order
};

std::vector<Row> publish()
{
    SDRInfo info;
    std::memset(&info, 0, sizeof info);
    {
        Session session;
        if (!getSDRInfo(session.get(), &info)) throw Failure{kExitFailed, "cannot read the SDR repository"};
    }
    std::vector<Row> rows;
    for (AgentSensor &s : agentSensors(&info)) {
        Row r{s, {}};
        for (const AgentGetter &g : agentGetters(s.kind)) r.results.push_back(g.run(s, &info));
        rows.push_back(std::move(r));
    }
    freeSDRInfo(&info);
    return rows;
}

std::string number(uint8_t n)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "%02Xh", n);
    return buf;
}

} // namespace

int cmdAgent(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() == 1 && args[0] == "identity") return cmdAgentIdentity(opt);
    if (args.size() != 1 || args[0] != "sensors") throw Failure{kExitUsage, "usage: agent sensors|identity"};
    std::vector<Row> rows = publish();
    if (opt.json) {
        Json out = Json::array();
        for (const Row &r : rows) {
            auto getters = agentGetters(r.sensor.kind);
            Json values = Json::object();
            for (std::size_t i = 0; i < getters.size(); ++i) values[getters[i].call] = r.results[i];
            Json j = {{"name", r.sensor.name},
                      {"sensor_number", r.sensor.number},
                      {"sensor_type", r.sensor.sensorType},
                      {"class", className(r.sensor.kind)}};
            if (r.sensor.kind == SensorClass::PowerSupply) j["power_supply"] = r.sensor.ordinal;
            j["status"] = r.results[0];
            j["status_meaning"] = statusMeaning(r.sensor, r.results[0]);
            j["value"] = r.results[1];
            j["unit"] = r.sensor.unit;
            j["getters"] = values;
            out.push_back(j);
        }
        printJson(out);
        return kExitOk;
    }
    std::printf("%-16s %-4s %-12s %-26s %-12s %s\n", "Sensor", "Num", "Class", "Status", "Value", "Other values");
    for (const Row &r : rows) {
        auto getters = agentGetters(r.sensor.kind);
        std::string status = std::to_string(r.results[0]);
        std::string meaning = statusMeaning(r.sensor, r.results[0]);
        if (!meaning.empty()) status += " " + meaning;
        std::string value = std::to_string(r.results[1]) + (r.sensor.unit.empty() ? "" : " " + r.sensor.unit);
        std::string others;
        for (std::size_t i = 2; i < getters.size(); ++i)
            others += (i > 2 ? ", " : "") + std::string(getters[i].label) + " " + std::to_string(r.results[i]);
        std::printf("%-16s %-4s %-12s %-26.26s %-12s %s\n", r.sensor.name.c_str(), number(r.sensor.number).c_str(),
                    className(r.sensor.kind), status.c_str(), value.c_str(), others.c_str());
    }
    return kExitOk;
}

} // namespace tvxctl
