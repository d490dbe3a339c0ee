// tvx-snmp-agent as an administrator runs it: a real snmpd master on a free loopback port with
// the AgentX socket in a scratch directory, snmptrapd as the trap sink, and the net-snmp tools
// as the manager. Every process the test starts it stops by its PID.

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "machine.h"
#include "process.h"

namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using tvxtest::Outcome;

const std::string kBase = ".1.3.6.1.4.1.32473.1";
const std::string kObjects = kBase + ".1";
const std::string kCommunity = "public", kWriteCommunity = "private";
const std::string kUser = "tvxv3", kAuth = "tvx-auth-secret", kPriv = "tvx-priv-secret";

// snmpd + snmptrapd + tvx-snmp-agent on one machine profile.
class Stack {
public:
    explicit Stack(const json &profile)
    {
        tvxtest::writeFile(dir_.file("machine.json"), profile.dump());
        port_ = tvxtest::freeUdpPort();
        trapPort_ = tvxtest::freeUdpPort();
        std::filesystem::create_directories(dir_.file("persist"));
        std::filesystem::create_directories(dir_.file("home"));
        tvxtest::writeFile(dir_.file("snmpd.conf"),
                           "agentaddress udp:127.0.0.1:" + std::to_string(port_) +
                               "\nmaster agentx\nagentXSocket " + agentx() + "\nagentXTimeout 5\n" +
                               "rocommunity " + kCommunity + " 127.0.0.1\n" + "rwcommunity " + kWriteCommunity +
                               " 127.0.0.1 " + kBase + "\n" + "createUser " + kUser + " SHA " + kAuth + " AES " +
                               kPriv + "\nrouser " + kUser + " priv\n" + "trap2sink 127.0.0.1:" +
                               std::to_string(trapPort_) + " " + kCommunity + "\n");
        tvxtest::writeFile(dir_.file("snmptrapd.conf"), "disableAuthorization yes\n");
        startMaster();
        traps_ = tvxtest::Daemon({SNMPTRAPD_PATH, "-f", "-C", "-c", dir_.file("snmptrapd.conf"), "-On", "-Lf",
                          dir_.file("traps.log"), "udp:127.0.0.1:" + std::to_string(trapPort_)},
                         env(), dir_.file("snmptrapd.out"));
        agent_ = tvxtest::Daemon({TVX_AGENT_PATH, "-f", "-Lf", dir_.file("agent.log"), "-x", agentx(), "-I", "1",
                                  "--port-function", "01:00:00", "--machine",
                          dir_.file("machine.json"), "--state", dir_.file("state")},
                         env(), dir_.file("agent.out"));
    }

    void startMaster()
    {
        master_ = tvxtest::Daemon({SNMPD_PATH, "-f", "-C", "-c", dir_.file("snmpd.conf"), "-Lf", dir_.file("snmpd.log"),
                           "-I", "-smux,mteTrigger,mteTriggerConf,hr_system,hr_storage,hr_disk,hr_filesys"},
                          env(), dir_.file("snmpd.out"));
    }
    tvxtest::Daemon &master() { return master_; }
    tvxtest::Daemon &agent() { return agent_; }

    // A net-snmp tool against the master, SNMPv2c unless told otherwise: its options, then
    // the master's address, then the operands (the words from the first that is not an option).
    Outcome tool(const std::string &name, const std::vector<std::string> &words, bool v3 = false)
    {
        std::vector<std::string> args = {"-v2c", "-c", name == "snmpset" ? kWriteCommunity : kCommunity};
        if (v3) args = {"-v3", "-l", "authPriv", "-u", kUser, "-a", "SHA", "-A", kAuth, "-x", "AES", "-X", kPriv};
        args.insert(args.end(), {"-r", "1", "-t", "3"});
        // Options that take a value ("-m X", "-M X", "-Cf X") keep it.
        std::size_t i = 0;
        for (; i < words.size() && words[i][0] == '-'; ++i) {
            args.push_back(words[i]);
            if ((words[i] == "-m" || words[i] == "-M" || words[i] == "-Cf") && i + 1 < words.size())
                args.push_back(words[++i]);
        }
        args.push_back("127.0.0.1:" + std::to_string(port_));
        args.insert(args.end(), words.begin() + static_cast<long>(i), words.end());
        return tvxtest::runAs(std::string(SNMP_BIN_DIR) + "/" + name, dir_.path(), args, env());
    }

    // The subtree as numeric OID -> value (strings without their quotes).
    std::map<std::string, std::string> walk(bool v3 = false)
    {
        std::map<std::string, std::string> out;
        Outcome r = tool("snmpbulkwalk", {"-On", "-Oq", "-Oe", "-Ot", kObjects}, v3);
        EXPECT_EQ(r.code, 0) << r;
        std::istringstream lines(r.out);
        for (std::string line; std::getline(lines, line);) {
            const auto space = line.find(' ');
            if (space == std::string::npos) continue;
            std::string value = line.substr(space + 1);
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
            out[line.substr(0, space)] = value;
        }
        return out;
    }

    // Waits until the master serves the subagent's objects (true), for at most 30 s.
    bool waitServed(const std::string &object = kObjects + ".3")
    {
        for (int i = 0; i < 300; ++i) {
            Outcome r = tool("snmpgetnext", {"-On", object});
            if (r.code == 0 && r.out.rfind(object + ".", 0) == 0) return true;
            std::this_thread::sleep_for(100ms);
        }
        return false;
    }

    // tvxctl --json on the same machine and state.
    json tvxctl(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--machine", dir_.file("machine.json"), "--state", dir_.file("state")});
        return tvxtest::tvxctlJson(dir_.path(), args);
    }

    std::string file(const std::string &name) const { return tvxtest::readFile(dir_.file(name)); }
    std::string logs() const
    {
        return "--- agent.log\n" + file("agent.log") + file("agent.out") + "--- snmpd.log\n" + file("snmpd.log");
    }

private:
    std::vector<std::string> env() const
    {
        return {"SNMP_PERSISTENT_DIR=" + dir_.file("persist"), "SNMPCONFPATH=" + dir_.file("conf"), "MIBS=",
                "HOME=" + dir_.file("home")};
    }
    std::string agentx() const { return "unix:" + dir_.file("agentx.sock"); }

    tvxtest::TempDir dir_;
    uint16_t port_ = 0, trapPort_ = 0;
    tvxtest::Daemon master_, traps_, agent_;
};

std::string column(const std::string &table, int column, long index)
{
    return kObjects + "." + table + ".1." + std::to_string(column) + "." + std::to_string(index);
}

// Rows of a table in the walk: the distinct indexes of its first accessible column.
size_t rows(const std::map<std::string, std::string> &walked, const std::string &table, int firstColumn)
{
    const std::string prefix = kObjects + "." + table + ".1." + std::to_string(firstColumn) + ".";
    size_t n = 0;
    for (const auto &[oid, value] : walked) n += oid.rfind(prefix, 0) == 0;
    return n;
}

} // namespace

// Every sensor table has one row per sensor that tvxctl's agent pass publishes, with the same
// name and getter results; processors and memory modules match tvxctl cpu and memory; SNMPv3
// authPriv reads what SNMPv2c reads; snmptable names the columns from the MIB. A fan below its
// lower critical speed shows as failed in its row, and as critical in the fan class and
// overall status.
TEST(Agent, ServesWhatTheLibraryReports)
{
    json profile = tvxtest::shippedProfile("default.json");
    for (json &s : profile.at("sensors"))
        if (s.value("name", "") == "FAN2") s["reading"] = 3; // 300 RPM: below lower critical (500)
    Stack stack(profile);
    ASSERT_TRUE(stack.waitServed()) << stack.logs();
    const auto walked = stack.walk();
    constexpr long kFan2 = 0x21;
    // FAN2 failed(4) at 300 RPM, FAN1 ok(3); tvxHwStatusFans and tvxHwStatusOverall critical(3).
    EXPECT_EQ((std::vector<std::string>{walked.at(column("4", 3, kFan2)), walked.at(column("4", 4, kFan2)),
                                        walked.at(column("4", 3, 0x20)), walked.at(kObjects + ".2.3.0"),
                                        walked.at(kObjects + ".2.1.0")}),
              (std::vector<std::string>{"4", "300", "3", "3", "3"}));

    struct Columns {
        const char *cls, *table;
        bool byOrdinal;
        std::vector<std::pair<int, const char *>> getters; // column, tvxctl's getter call
    };
    const Columns kSensorTables[] = {
        {"temperature", "3", false,
         {{3, "getTemperatureSensorStatus(n, info)"}, {4, "getTemperatureCurrentValue(n, info)"},
          {5, "getTemperatureThresholdLevel(n, info, 0)"}, {6, "getTemperatureThresholdLevel(n, info, 1)"}}},
        {"fan", "4", false,
         {{3, "getFanStatus(n, info)"}, {4, "getFanCurrentSpeed(n, info)"}, {5, "getFanQuality(n, info)"},
          {6, "getNormalMax(n, 0x04, info)"}}},
        {"voltage", "5", false,
         {{3, "getVoltStatus(n, info)"}, {4, "getVoltCurrentValue(n, info)"}, {5, "getVoltNominalValue(n, 0x02, info)"},
          {6, "getVoltThresholds(n, 0x02, info, 0)"}, {7, "getVoltThresholds(n, 0x02, info, 1)"}}},
        {"current", "6", false,
         {{3, "getCurrentSensorsStatus(n, 0x03, info)"}, {4, "getCurrentValue(n, 0x03, info)"},
          {5, "getNormalMax(n, 0x03, info)"}}},
        {"power supply", "7", true,
         {{4, "getPowerSupplyStatus(n, info)"}, {5, "getPowerSupplyLoad(k, info)"},
          {6, "getPowerSupplyNominal(n, k, info)"}}},
    };
    const json published = stack.tvxctl({"agent", "sensors"});
    for (const Columns &t : kSensorTables) {
        SCOPED_TRACE(t.cls);
        size_t expected = 0;
        for (const json &s : published) {
            if (s.at("class") != t.cls) continue;
            ++expected;
            const long index = t.byOrdinal ? s.at("power_supply").get<long>() : s.at("sensor_number").get<long>();
            EXPECT_EQ(walked.at(column(t.table, 2, index)), s.at("name").get<std::string>());
            for (const auto &[col, call] : t.getters)
                EXPECT_EQ(walked.at(column(t.table, col, index)), std::to_string(s.at("getters").at(call).get<long>()))
                    << call << " of " << s.at("name");
        }
        EXPECT_GT(expected, 0u);
        EXPECT_EQ(rows(walked, t.table, 2), expected);
    }

    // Processors and memory modules: a row per entry of tvxctl cpu / memory, indexed from 1; a
    // missing number reads -1, a missing text empty.
    const struct {
        std::vector<std::string> command;
        const char *list, *index, *table;
        std::vector<std::pair<int, const char *>> columns; // column, JSON pointer into the entry
    } kInventories[] = {
        {{"cpu"}, "", "/socket", "8",
         {{2, "/name"}, {3, "/sensor"}, {4, "/status"}, {5, "/manufacturer"}, {6, "/model"}, {7, "/stepping"},
          {8, "/family"}, {9, "/current_speed"}, {10, "/cache/l1"}, {13, "/cores"}, {15, "/logical_processors"},
          {16, "/multithreading"}}},
        {{"memory"}, "/modules", "/module", "9",
         {{2, "/name"}, {3, "/status"}, {4, "/capacity_mb"}, {5, "/frequency"}, {6, "/max_speed_mts"}, {7, "/approval"},
          {8, "/config"}, {9, "/form"}, {10, "/type"}, {11, "/voltage_interface"}}},
    };
    for (const auto &t : kInventories) {
        const json entries = stack.tvxctl(t.command).at(json::json_pointer(t.list));
        ASSERT_FALSE(entries.empty());
        EXPECT_EQ(rows(walked, t.table, t.columns[0].first), entries.size()) << t.table;
        for (const json &e : entries) {
            const long i = e.at(json::json_pointer(t.index)).get<long>() + 1;
            for (const auto &[col, key] : t.columns) {
                const json &v = e.at(json::json_pointer(key));
                const std::string text = v.is_string() ? v.get<std::string>() : v.is_null() ? "" : v.dump();
                const std::string &served = walked.at(column(t.table, col, i));
                EXPECT_TRUE(served == text || (v.is_null() && served == "-1")) << t.table << " column " << col;
            }
        }
    }

    // The node table: the controller, then the port function the agent was told of, with the
    // addresses tvxctl network reads for it.
    const json nodes = stack.tvxctl({"network", "01:00:00"});
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(rows(walked, "10.1", 2), 2u);
    EXPECT_EQ(walked.at(column("10.1", 2, 2)), "2"); // portFunction(2)
    for (const auto &[family, key] : {std::pair{2, "ipv4"}, {4, "ipv6"}}) {
        std::string listed;
        const std::string prefix = kObjects + ".10.2.1.3.2." + std::to_string(family) + ".";
        for (long i = 1; walked.count(prefix + std::to_string(i)); ++i)
            listed += (listed.empty() ? "" : " ") + walked.at(prefix + std::to_string(i));
        EXPECT_EQ(listed, nodes[1].at(key).get<std::string>()) << key;
        EXPECT_FALSE(listed.empty()) << key;
    }

    const auto secure = stack.walk(true);
    EXPECT_EQ(secure, walked);

    const Outcome table = stack.tool("snmptable", {"-m", "TVX-HARDWARE-MIB", "-M", std::string(TVX_MIB_DIR) + ":" + TVX_SMI_BASE,
                                                   "-Cf", "|", "tvxHwFanTable"});
    ASSERT_EQ(table.code, 0) << table;
    EXPECT_NE(table.out.find("tvxHwFanName|tvxHwFanStatus|tvxHwFanSpeed|tvxHwFanQuality|tvxHwFanMaxSpeed"),
              std::string::npos)
        << table.out;
    EXPECT_NE(table.out.find("FAN1|"), std::string::npos) << table.out;
}

// Setting the test-alert control makes the controller send its alert and the agent send
// tvxHwTestTrap (with the outcome) to snmptrapd; a wrong value is refused. The subagent
// registers again after the master restarts, and stops cleanly on SIGTERM.
TEST(Agent, TestTrapReachesTheTrapSinkAndTheAgentOutlivesItsMaster)
{
    Stack stack(tvxtest::shippedProfile("default.json"));
    ASSERT_TRUE(stack.waitServed()) << stack.logs();
    const std::string control = kObjects + ".11.1.0", result = kObjects + ".11.2.0";
    EXPECT_NE(stack.tool("snmpset", {control, "i", "7"}).code, 0);
    const Outcome set = stack.tool("snmpset", {control, "i", "2"});
    ASSERT_EQ(set.code, 0) << set << stack.logs();
    bool arrived = false;
    for (int i = 0; i < 100 && !arrived; ++i) {
        std::this_thread::sleep_for(100ms);
        arrived = stack.file("traps.log").find(kBase + ".0.1") != std::string::npos;
    }
    EXPECT_TRUE(arrived) << stack.file("traps.log") << stack.logs();
    const Outcome outcome = stack.tool("snmpget", {"-Oqv", result});
    EXPECT_TRUE(outcome.out == "2\n" || outcome.out == "3\n") << outcome;
    EXPECT_NE(stack.file("traps.log").find(result), std::string::npos);

    stack.master().stop();
    stack.startMaster();
    EXPECT_TRUE(stack.waitServed()) << stack.logs();
    EXPECT_TRUE(stack.agent().running());
    EXPECT_EQ(stack.agent().stop(), 0) << stack.logs();
}
