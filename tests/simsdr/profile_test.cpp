// The profile's SDR sections: every bad value is refused before the controller starts, with
// the file, the JSON pointer and what is wrong; and a large machine loads and answers.
#include "libipmi_host.h"
#include "simsdr_util.h"

namespace simsdr {
namespace {

nlohmann::json validProfile()
{
    nlohmann::json doc = baseProfile();
    doc["sdr"] = {{"allocation_unit_size", 16}};
    doc["sensors"] = nlohmann::json::parse(R"([
      {"record": "full", "number": 1, "entity": 3, "instance": 1, "type": 1, "event_reading_type": 1,
       "name": "CPU1 Temp", "reading": 40, "thresholds": {"lnc": 20, "unc": 80}},
      {"record": "compact", "number": 2, "entity": 3, "instance": 1, "type": 7, "event_reading_type": "0x6F",
       "name": "CPU1 Status", "state": 2}
    ])");
    doc["fru_locators"] = nlohmann::json::parse(R"([{"name": "System Board", "fru_id": 0, "entity": 7, "instance": 1}])");
    doc["mc_locators"] = nlohmann::json::parse(R"([{"name": "BMC", "entity": 6, "instance": 1}])");
    doc["components"] = nlohmann::json::parse(
        R"([{"key": "01 01", "id": "00 01", "bytes": "00 00 00", "status": 0, "name": "CPU1"}])");
    return doc;
}

std::string loadError(const nlohmann::json &doc)
{
    try {
        tvxsim::Controller c(profileOf(doc), "");
    } catch (const tvxsim::ProfileError &e) {
        return e.what();
    }
    return "(accepted)";
}

TEST(SdrProfile, TheValidProfileLoads) { EXPECT_EQ(loadError(validProfile()), "(accepted)"); }

TEST(SdrProfile, BadValuesNameFilePointerAndProblem)
{
    struct Case {
        const char *pointer; // where to put the value
        nlohmann::json value;
        const char *message; // what the error must contain after "test.json: "
    } cases[] = {
        {"/sensors/0/number", 255, "/sensors/0/number: expected an integer from 0 to 254"},
        {"/sensors/0/record", "big", "/sensors/0/record: unknown record kind \"big\""},
        {"/sensors/0/name", "Seventeen chars!!", "/sensors/0/name: \"Seventeen chars!!\" has 17 characters; at most 16"},
        {"/sensors/0/name", "Temp\xc3\xa9rature", "/sensors/0/name: \"Temp\xc3\xa9rature\": only printable ASCII"},
        {"/sensors/0/thresholds/unc", 10, "/sensors/0/thresholds/unc: unc (10) must lie above lnc (20)"},
        {"/sensors/0/thresholds/lnr", 25, "/sensors/0/thresholds/lnc: lnc (20) must lie at or above lnr (25)"},
        {"/sensors/0/thresholds/lc", -5, "/sensors/0/thresholds/lc: expected a raw byte from 0 to 255"},
        {"/sensors/0/thresholds/warm", 5, "/sensors/0/thresholds/warm: unknown key"},
        {"/sensors/0/m", 600, "/sensors/0/m: expected an integer from -512 to 511"},
        {"/sensors/0/r_exp", -9, "/sensors/0/r_exp: expected an integer from -8 to 7"},
        {"/sensors/0/linearization", "0x20", "/sensors/0/linearization: linearization 0x20 is reserved"},
        {"/sensors/0/format", "float", "/sensors/0/format: unknown analog data format \"float\""},
        {"/sensors/0/units/rate", 7, "/sensors/0/units/rate: expected an integer from 0 to 6"},
        {"/sensors/0/state", 1, "/sensors/0/state: a threshold-based sensor's state follows"},
        {"/sensors/0/readable_thresholds", {"unr"},
         "/sensors/0/readable_thresholds/0: threshold \"unr\" is readable but has no value"},
        {"/sensors/0/event_reading_type", "0x20", "/sensors/0/event_reading_type: event/reading type 0x20 is reserved"},
        {"/sensors/0/colour", "red", "/sensors/0/colour: unknown key \"colour\""},
        {"/sensors/0/lun", 4, "/sensors/0/lun: expected an integer from 0 to 3"},
        {"/sensors/1/m", 2, "/sensors/1/m: \"m\" belongs to full sensor records only"},
        {"/sensors/1/thresholds", {{"unc", 1}}, "/sensors/1/thresholds: \"thresholds\" applies to threshold-based sensors"},
        {"/sensors/1/state", 0x8000, "/sensors/1/state: expected an integer from 0 to 32767"},
        {"/sensors/1/reading_mask", 1, "/sensors/1/state: state 0x0002 has bits outside reading_mask 0x0001"},
        {"/sensors/1/number", 1, "/sensors/1/number: sensor number 0x01 on LUN 0 is already used by /sensors/0"},
        {"/sensors/1/name", nullptr, "/sensors/1/name: expected a string"},
        {"/sensors", {{"number", 1}}, "/sensors: expected an array"},
        {"/sdr/max_record_units", 2, "/sensors/0: the record takes 57 bytes, more than the largest record"},
        {"/sdr/allocation_units", 5, "/sdr/allocation_units: the records take 11 allocation units, more than the 5"},
        {"/sdr/max_read_bytes", 0, "/sdr/max_read_bytes: expected an integer from 1 to 255"},
        {"/sdr/size", 1, "/sdr/size: unknown key"},
        {"/fru_locators/0/address", "0x21", "/fru_locators/0/address: expected an IPMB slave address in its 8-bit form"},
        {"/fru_locators/0/bus", 8, "/fru_locators/0/bus: expected an integer from 0 to 7"},
        {"/fru_locators/1", {{"name", "Again"}, {"fru_id", 0}, {"entity", 7}, {"instance", 2}},
         "/fru_locators/1/fru_id: FRU device 0x00 of controller 0x20 is already described by /fru_locators/0"},
        {"/mc_locators/0/instance", 200, "/mc_locators/0/instance: expected an integer from 0 to 127"},
        {"/mc_locators/0/entity", nullptr, "/mc_locators/0/entity: expected an integer"},
        {"/components/0/key", "01", "/components/0/key: expected exactly 2 bytes, got 1"},
        {"/components/0/status", 4, "/components/0/status: expected an integer from 0 to 3"},
        {"/components/0/name", "A name longer than thirty-one ch.",
         "/components/0/name: a component name has at most 31 characters"},
        {"/components/1", {{"key", "01 01"}, {"id", "00 02"}, {"bytes", "00 00 00"}, {"status", 0}, {"name", "X"}},
         "/components/1/key: the key is already used by /components/0"},
        {"/sensor", nlohmann::json::array(), "/sensor: unknown key \"sensor\""},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.pointer);
        nlohmann::json doc = validProfile();
        doc[nlohmann::json::json_pointer(k.pointer)] = k.value;
        std::string error = loadError(doc);
        EXPECT_EQ(error.rfind("test.json: ", 0), 0u) << error;
        EXPECT_NE(error.find(k.message), std::string::npos) << error;
    }
}

TEST(SdrProfile, SignedFormatsTakeNegativeValues)
{
    nlohmann::json doc = validProfile();
    doc["sensors"][0]["format"] = "twos_complement";
    doc["sensors"][0]["reading"] = "-3";
    doc["sensors"][0]["thresholds"] = {{"lnc", -128}, {"unc", 127}};
    EXPECT_EQ(loadError(doc), "(accepted)");
    doc["sensors"][0]["thresholds"]["lnc"] = -129;
    EXPECT_NE(loadError(doc).find("/sensors/0/thresholds/lnc: expected a raw byte (0 to 255) or a negative two's"),
              std::string::npos);
    doc["sensors"][0]["format"] = "ones_complement";
    doc["sensors"][0]["thresholds"]["lnc"] = -128;
    EXPECT_NE(loadError(doc).find("/sensors/0/thresholds/lnc: expected a raw byte (0 to 255) or a negative ones'"),
              std::string::npos);
}

// A bad profile given to the platform library stops everything: the selection fails with
// the message and the earlier selection stays.
TEST(SdrProfile, HostSelectionRefusesABadProfile)
{
    TempDir dir;
    nlohmann::json doc = validProfile();
    doc["sensors"][1]["number"] = "0x1FF";
    std::string path = dir.file("lab.json", doc.dump(2));
    ASSERT_EQ(ipmihost_select_script(), 0);
    EXPECT_EQ(ipmihost_select_machine(path.c_str(), dir.path().c_str()), -1);
    EXPECT_EQ(std::string(ipmihost_last_error()).rfind(path + ": /sensors/1/number: expected an integer from 0 to 254", 0),
              0u)
        << ipmihost_last_error();
    EXPECT_STREQ(ipmihost_describe_target(), "script");
    ipmihost_select_default();
}

// 1,000 sensors over the four LUNs: the repository holds them all, a walk meets every
// record, and every sensor answers its own reading or state.
TEST(SdrProfile, AThousandSensorsLoadAndAnswer)
{
    nlohmann::json doc = baseProfile();
    nlohmann::json sensors = nlohmann::json::array();
    for (int i = 0; i < 1000; ++i) {
        char name[17];
        std::snprintf(name, sizeof name, "Sensor %04d", i);
        nlohmann::json s = {{"number", i % 250}, {"lun", i / 250}, {"entity", 3}, {"instance", i % 128},
                            {"name", name}};
        if (i % 2 == 0) {
            s.update({{"record", "full"}, {"type", 1}, {"event_reading_type", 1}, {"reading", i % 200},
                      {"thresholds", {{"unc", 199}}}});
        } else {
            s.update({{"record", "compact"}, {"type", 7}, {"event_reading_type", "0x6F"}, {"state", i}});
        }
        sensors.push_back(s);
    }
    doc["sensors"] = sensors;
    TempDir dir;
    tvxsim::Controller c(profileOf(doc, dir.file("big.json", doc.dump())), dir.path());

    Bytes info = send(c, kNetFnStorage, 0x20, {});
    ASSERT_EQ(info.size(), 15u);
    EXPECT_EQ(le16(info, 2), 1000);
    std::vector<Walked> records = walk(c);
    ASSERT_EQ(records.size(), 1000u);
    EXPECT_EQ(le16(records.back().record, 0), 1000);

    for (int i = 0; i < 1000; ++i) {
        uint8_t lun = static_cast<uint8_t>(i / 250), number = static_cast<uint8_t>(i % 250);
        Bytes r = send(c, kNetFnSensor, 0x2D, {number}, lun);
        Bytes expect = i % 2 == 0 ? Bytes{0x00, static_cast<uint8_t>(i % 200), 0xC0, 0xC0}
                                  : Bytes{0x00, 0x00, 0xC0, static_cast<uint8_t>(i & 0xFF),
                                          static_cast<uint8_t>(0x80 | (i >> 8))};
        ASSERT_EQ(r, expect) << "sensor " << i;
    }
}

} // namespace
} // namespace simsdr
