// The SDR cache built from the virtual controller: the default machine, and a generated
// repository of 1,000 records read with one Get SDR request per record.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "generated_machine.h"
#include "libipmi_host.h"
#include "tvx_toipmi.h"

namespace {

using nlohmann::json;

std::string tempDir()
{
    char pattern[] = "/tmp/tvx-sdrcache-XXXXXX";
    const char *dir = mkdtemp(pattern);
    return dir ? dir : "";
}

json loadDefault()
{
    std::ifstream in(std::string(TVX_MACHINES_DIR) + "/default.json");
    return json::parse(in);
}

class Machine {
public:
    explicit Machine(const std::string &profile)
    {
        dir_ = tempDir();
        if (ipmihost_select_machine(profile.c_str(), dir_.c_str()) != 0) ADD_FAILURE() << ipmihost_last_error();
        session_ = ipmiOpenSession(4, "", nullptr, 0, nullptr);
    }
    ~Machine()
    {
        freeSDRInfo(&info);
        ipmiHelperCloseSession(&session_);
        ipmihost_select_default();
        std::system(("rm -rf " + dir_).c_str());
    }
    IpmiSession *session() const { return session_; }
    const std::string &dir() const { return dir_; }
    SDRInfo info{};

private:
    std::string dir_;
    IpmiSession *session_ = nullptr;
};

int countSensors(const json &sensors, const char *record, int type)
{
    int n = 0;
    for (const auto &s : sensors) {
        std::string t = s["type"].is_string() ? s["type"].get<std::string>() : std::to_string(s["type"].get<int>());
        if (s["record"] == record && std::stoi(t, nullptr, 0) == type) ++n;
    }
    return n;
}

TEST(SdrCacheOnTheDefaultMachine, HoldsEveryRecordAndAnswersLookups)
{
    json profile = loadDefault();
    Machine m(std::string(TVX_MACHINES_DIR) + "/default.json");
    ASSERT_NE(m.session(), nullptr);
    ASSERT_EQ(getSDRInfo(m.session(), &m.info), 1);
    size_t records = profile["sensors"].size() + profile.value("fru_locators", json::array()).size() +
                     profile.value("mc_locators", json::array()).size();
    EXPECT_EQ(m.info.count, records);
    EXPECT_EQ(m.info.recordSize, profile["sdr"]["allocation_unit_size"].get<uint32_t>() *
                                     profile["sdr"]["max_record_units"].get<uint32_t>());

    // Records in repository order with consecutive IDs, each starting with its header.
    for (uint32_t i = 0; i < m.info.count; ++i) {
        uint8_t *r = getSdrByIndex(i, &m.info);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r[0] | r[1] << 8, static_cast<int>(i + 1));
        EXPECT_EQ(r[2], 0x51);
    }

    // Every sensor of the profile is found where it should be.
    for (const auto &s : profile["sensors"]) {
        auto number = [](const json &v) {
            return v.is_string() ? std::stoi(v.get<std::string>(), nullptr, 0) : v.get<int>();
        };
        if (s["record"] != "compact") continue;
        uint8_t *r = findCompactSdrByEntity(static_cast<uint8_t>(number(s["entity"])),
                                            static_cast<uint8_t>(number(s["instance"])),
                                            static_cast<uint8_t>(number(s["type"])), &m.info);
        ASSERT_NE(r, nullptr) << s["name"];
        EXPECT_EQ(r[7], number(s["number"])) << s["name"];
    }

    for (int type : {0x01, 0x02, 0x04, 0xE6}) {
        for (const char *kind : {"full", "compact"}) {
            ListNode *list = nullptr;
            uint32_t n = ipmiFindSensorByType(&list, std::strcmp(kind, "full") == 0 ? 1 : 2, static_cast<uint8_t>(type),
                                              &m.info);
            EXPECT_EQ(static_cast<int>(n), countSensors(profile["sensors"], kind, type)) << kind << " " << type;
            freeList(&list);
        }
    }
}

TEST(SdrCacheOfAThousandRecords, CostsOneGetSdrPerRecordPlusReservationAndInfo)
{
    std::string dir = tempDir();
    std::string path = dir + "/thousand.json";
    std::ofstream(path) << tvxtest::generatedRepository(TVX_MACHINES_DIR, 1000).dump();
    Machine m(path);
    ASSERT_NE(m.session(), nullptr);
    ipmihost_reset_request_count();
    ASSERT_EQ(getSDRInfo(m.session(), &m.info), 1);
    EXPECT_EQ(m.info.count, 1000u);
    // Allocation info, repository info, one reservation and one Get SDR per record.
    EXPECT_LE(ipmihost_request_count(), 1000u + 3u);
    for (uint32_t i = 0; i < 1000; ++i) {
        uint8_t *r = getSdrByIndex(i, &m.info);
        ASSERT_EQ(r[0] | r[1] << 8, static_cast<int>(i + 1));
        ASSERT_EQ(r[3], i % 2 == 0 ? 0x01 : 0x02) << i;
    }
    ListNode *fans = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&fans, 2, 0x04, &m.info), 500u);
    freeList(&fans);
    std::system(("rm -rf " + dir).c_str());
}

} // namespace
