// The virtual controller's processors, memory, PCI slots and languages: its answers and
// refusals, and tvxctl showing the default machine.
#include <gtest/gtest.h>

#include <sstream>

#include "bytes.h"
#include "controller.h"
#include "machine.h"
#include "process.h"

namespace {

using nlohmann::json;

TEST(HardwareController, AnswersAndRefusals)
{
    json p = tvxtest::baseProfile();
    p["sensors"] = json::parse(R"([
      {"record": "compact", "number": "0x38", "name": "CPU1", "entity": 3, "instance": 1, "type": 7,
       "event_reading_type": "0x6F", "state": "0x0080"},
      {"record": "compact", "number": "0x39", "name": "CPU2", "entity": 3, "instance": 2, "type": 7,
       "event_reading_type": "0x6F", "state": "0x0000"}])");
    p["processors"] = json::parse(R"([
      {"socket": "CPU1", "sensor": "0x38", "manufacturer": "AMD", "model": "EPYC 9124", "signature": "0x00A10F11",
       "family": "0x6B", "speed_mhz": {"current": 3000}, "cache_kb": {"l3": 32768}, "cores": 16},
      {"socket": "CPU2", "sensor": "0x39", "present": false}])");
    p["memory"] = json::parse(R"({"policy": 1, "modules": [
      {"slot": "A1", "frequency": 4800, "capacity_mb": 65536, "spd": "12 00 0a"}, {"slot": "A2", "empty": true}]})");
    tvxsim::Controller c(tvxsim::parseProfile(p.dump(), "hw.json"), "");
    const struct {
        uint8_t command;
        Bytes data;
        Bytes answer; // after the IANA echo; a lone byte is the completion code
    } cases[] = {
        {0xF5, {0x4B, 2}, {0xC9}},
        {0xF1, {0x15, 1}, {0xCB}},
        {0xF1, {0x18, 1}, {0xCB}},
        {0xF1, {0x31, 0x81, 0, 1, 0, 64, 0}, {0x00, 0x00, 0x0A}},
        {0xF1, {0x31, 0x81, 0, 3, 0, 64, 0}, {0xC9}},
        {0xF1, {0x1A, 1, 0}, {0xC1}}, // no PCI table in this machine
        {0xF1, {0x13}, {0xC7}},
    };
    for (const auto &x : cases)
        EXPECT_EQ(c.handle(0x2E, 0, x.command, oem(x.data)).bytes,
                  oemAnswer(Bytes(x.answer.begin() + 1, x.answer.end()), x.answer[0]))
            << testing::PrintToString(x.data);
}

class HardwareCli : public testing::Test {
protected:
    json run(const std::vector<std::string> &args) { return tvxtest::tvxctlJson(scratch_.path(), args); }
    tvxtest::TempDir scratch_;
};

TEST_F(HardwareCli, DefaultMachine)
{
    json cpus = run({"cpu"}), memory = run({"memory"}), spd = run({"memory", "spd", "0"}), pci = run({"pci"});
    json languages = run({"languages"});
    ASSERT_EQ(std::vector<size_t>({cpus.size(), memory["modules"].size(), pci["entries"].size(), languages.size()}),
              std::vector<size_t>({2, 16, 6, 2}));
    const json &c = cpus[1], &m = memory["modules"];
    EXPECT_EQ((std::vector<json>{c["sensor"], c["model"], c["stepping"], c["logical_processors"], c["cache"]["l3"],
                                 memory["max_index"], m[0]["status_meaning"], m[15]["name"], m[2]["frequency"],
                                 m[3]["capacity_mb"], m[14]["approval_meaning"], m[2]["type"],
                                 m[2]["voltage_interface"], spd["size_mb"], spd["part_number"], pci["slots"][0],
                                 pci["slots"][1], languages[0]["lcid"], languages[1]["name"]}),
              (std::vector<json>{0x39, "Intel(R) Xeon(R) Gold 6426Y", 8, 32, 38400, 15, "prefailure warning", "DIMM-2H",
                                 4800, nullptr, "not approved", "DDR5 SDRAM / RDIMM", "1.1 V", 32768,
                                 "M321R4GA0BB0-CQK", {{"slot", 1}, {"occupied", true}},
                                 {{"slot", 2}, {"occupied", false}}, "0x0409", "German (Germany)"}));
    EXPECT_EQ(spd["crc"]["result"].get<std::string>().rfind("OK", 0), 0u);
}

#ifdef TVX_SPD_DATA
// Real modules' images, served by a machine and read through the library in chunks, show the
// size, maker and part number that decode-dimms (or the JEDEC layout read by hand) reads.
TEST_F(HardwareCli, RealSpdImagesThroughTheWholePath)
{
    std::istringstream tsv(tvxtest::readFile(TVX_SPD_DATA "/expected.tsv"));
    std::vector<std::vector<std::string>> rows; // file, type, module type, speed, -, MB, -, maker, part
    json p = tvxtest::baseProfile();
    for (std::string line; std::getline(tsv, line);) {
        std::istringstream fields(line);
        std::vector<std::string> &c = rows.emplace_back();
        for (std::string cell; std::getline(fields, cell, '\t');) c.push_back(cell);
        if (c.size() < 9 || c[0] == "file") rows.pop_back();
        else
            p["memory"]["modules"].push_back({{"slot", "S"},
                                              {"frequency", 1},
                                              {"capacity_mb", std::stoi(c[5])},
                                              {"spd", {{"file", TVX_SPD_DATA "/" + c[0]}}}});
    }
    tvxtest::writeFile(scratch_.file("real.json"), p.dump());
    auto firstWord = [](const std::string &t) { return t.substr(0, t.find(' ')); };
    for (size_t i = 0; i < rows.size(); ++i) {
        json spd = run({"--machine", scratch_.file("real.json"), "memory", "spd", std::to_string(i)});
        EXPECT_EQ(std::tuple(spd["module_type"], spd["size_mb"], firstWord(spd["manufacturer"]), spd["part_number"]),
                  std::tuple(json(rows[i][2]), json(std::stoi(rows[i][5])), firstWord(rows[i][7]), json(rows[i][8])))
            << rows[i][0];
    }
    EXPECT_EQ(rows.size(), 11u);
}
#endif

} // namespace
