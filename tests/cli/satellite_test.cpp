// A controller with a satellite controller on its IPMB, as tvxctl sees it in-process: sensors
// read from their owner (another LUN, the satellite through Send Message and Get Message) or
// shown as not readable, FRU devices read from their own controller, and what a controller
// without optional commands or the vendor's texts still shows.
#include <map>

#include <gtest/gtest.h>

#include "machine.h"
#include "process.h"

using nlohmann::json;

namespace {

// The real-peer tests' satellite machine (a power supply whose controller at 0x2C owns a sensor
// 0x30), with a BMC sensor 0x30 and one on LUN 1, two sensors whose owners cannot be asked (no
// controller at 0x2E, system software 0x41), no chassis device, and an event of unknown time.
json satelliteMachine()
{
    json m = tvxtest::readJson(std::string(TVX_MACHINES_DIR) + "/../tests/realpeer/stock/satellite.json");
    m["controller"]["additional_device_support"] = {"sensor", "sdr_repository", "sel", "fru_inventory"};
    m["sel"]["records"][1]["time"] = 4294967295u;
    for (const char *sensor : {
             R"({"record": "full", "number": "0x30", "name": "BMC Temp", "entity": "0x07", "instance": 1,
                 "type": "0x01", "event_reading_type": "0x01", "units": {"base": 1}, "reading": 40})",
             R"({"record": "full", "number": "0x30", "lun": 1, "name": "LUN1 Temp", "entity": "0x07", "instance": 2,
                 "type": "0x01", "event_reading_type": "0x01", "units": {"base": 1}, "reading": 33})",
             R"({"record": "compact", "number": "0x32", "owner": "0x2E", "name": "Gone", "entity": "0x0A",
                 "instance": 2, "type": "0x08", "event_reading_type": "0x6F"})",
             R"({"record": "compact", "number": "0x33", "owner": "0x41", "name": "BIOS", "entity": "0x22",
                 "instance": 1, "type": "0x0F", "event_reading_type": "0x6F"})"})
        m["sensors"].push_back(json::parse(sensor));
    return m;
}
const json kMachine = satelliteMachine();

class Satellite : public testing::Test {
protected:
    // tvxctl's arguments for the machine with these faults, which is written for it.
    std::vector<std::string> on(std::vector<std::string> args, const json &faults)
    {
        json machine = kMachine;
        machine["faults"] = faults;
        tvxtest::writeFile(scratch_.file("machine.json"), machine.dump());
        args.insert(args.begin(), {"--machine", scratch_.file("machine.json")});
        return args;
    }
    // With --json, succeeding: the parsed output.
    json run(const std::vector<std::string> &args, const json &faults = json::array())
    {
        return tvxtest::tvxctlJson(scratch_.path(), on(args, faults));
    }
    static json refuse(const char *netFn, const char *command)
    {
        return {{"netfn", netFn}, {"command", command}, {"kind", "completion_code"}, {"value", "0xC1"}};
    }
    tvxtest::TempDir scratch_;
};

TEST_F(Satellite, SensorsAreReadFromTheirOwnerOrShownNotReadable)
{
    const json sdr = run({"sdr"});
    std::map<std::string, json> byName;
    for (const json &row : sdr) byName[row["name"]] = row;
    EXPECT_EQ((std::vector<json>{byName["BMC Temp"]["raw"], byName["PSU Temp"]["raw"], byName["LUN1 Temp"]["raw"],
                                 byName["PSU Status"]["state_bits"]}),
              (std::vector<json>{40, 47, 33, 1}));
    for (const char *name : {"Gone", "BIOS"}) {
        EXPECT_EQ(byName[name]["status"], "not readable") << name;
        EXPECT_EQ(byName[name]["raw"], nullptr) << name;
    }
    EXPECT_NE(byName["Gone"]["error"].get<std::string>().find("0x83"), std::string::npos) << byName["Gone"];
    // Without Get SDR Repository Allocation Info the same repository, slot size derived.
    EXPECT_EQ(run({"sdr"}, json::array({refuse("0x0A", "0x21")})), sdr);
}

TEST_F(Satellite, FruDevicesOfEveryControllerAndOneWithoutTheRepository)
{
    const json all = run({"fru"});
    ASSERT_EQ(all.size(), 2u) << all.dump(1);
    // The first has no locator: Get Device ID says it is there.
    EXPECT_EQ((std::vector<json>{all[0]["name"], all[0]["board"]["product_name"], all[1]["name"],
                                 all[1]["controller"]["address"], all[1]["board"]["serial_number"]}),
              (std::vector<json>{"Builtin FRU Device", "Mainboard", "PSU MC", 0x2C, "PS0001"}));
    // One device needs no repository, even where the repository cannot be read.
    const json one = run({"fru", "0"}, {refuse("0x0A", "0x22"), refuse("0x0A", "0x23")});
    EXPECT_EQ(one[0]["board"], all[0]["board"]);
}

TEST_F(Satellite, EventsWithoutVendorTextsAreDecodedTheStandardWay)
{
    const json texts = run({"sel", "--text"});
    ASSERT_EQ(texts.size(), 2u) << texts.dump(1);
    std::vector<json> got;
    for (const json &t : texts)
        for (const char *key : {"source", "time", "sensor_type_name", "event", "direction"}) got.push_back(t[key]);
    EXPECT_EQ(got, (std::vector<json>{"standard", "Pre-Init 0000000100", "Temperature", "Upper Critical going high",
                                      "Asserted", "standard", "Unspecified", "Power Supply", "Failure detected",
                                      "Deasserted"}));
    // The record tvxctl adds carries event message revision 0x04.
    const json added = run({"sel", "add", "0x01", "0x30", "0x01", "0x52", "0x10", "0x20"});
    const json raw = run({"sel"});
    ASSERT_EQ(raw.size(), 3u);
    EXPECT_EQ(raw[2]["record_id"], added["record_id"]);
    EXPECT_EQ(raw[2]["bytes"][9], 0x04);
}

TEST_F(Satellite, RefusedRequestsAreNamed)
{
    // The LEDs' vendor request refused; the power refused because this controller is no
    // chassis device (its device support leaves "chassis" out).
    const json refused = {refuse("0x2E", "0xF5")};
    for (const auto &args : std::vector<std::vector<std::string>>{{"led"}, {"power"}}) {
        tvxtest::Outcome r = tvxtest::tvxctl(scratch_.path(), on(args, refused));
        EXPECT_EQ(std::tuple(r.code, r.out), std::tuple(1, "")) << r;
        EXPECT_NE(r.err.find("completion code 0xc1 (Invalid command)"), std::string::npos) << r;
    }
}

} // namespace
