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
    std::string path = (tvxtest::writeFile(dir.file("lab.json"), doc.dump(2)), dir.file("lab.json"));
    ASSERT_EQ(ipmihost_select_script(), 0);
    EXPECT_EQ(ipmihost_select_machine(path.c_str(), dir.path().c_str()), -1);
    EXPECT_EQ(std::string(ipmihost_last_error()).rfind(path + ": /sensors/1/number: expected an integer from 0 to 254", 0),
              0u)
        << ipmihost_last_error();
    EXPECT_STREQ(ipmihost_describe_target(), "script");
    ipmihost_select_default();
}

} // namespace
} // namespace simsdr
