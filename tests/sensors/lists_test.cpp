// The sensor lists through the scripted exchange: each entry as the caller's record layout
// holds it, the requests behind it, and the fan speed-limit query's answers.
#include <cstring>

#include "sdr_records.h"

namespace {

// The threshold and discrete lists ask once per process whether the controller is a system
// board of a partitioned server: here a standard server (LAN address 10.0.0.1).
class SensorLists : public ScriptTest {
protected:
    void SetUp() override
    {
        ScriptTest::SetUp();
        IpmiSession *s = open();
        expectRequest(0x18, 0x42, {0x01}, 0, {0x00, 0x01, 0x04, 0x01, 0x80, 0xD9, 0x7E, 0x00, 0x00, 0x00});
        expectRequest(0x30, 0x02, {0x01, 0x03, 0x00, 0x00}, 0, {0x00, 0x11, 10, 0, 0, 1});
        EXPECT_EQ(ipmiGetSbNumber(s), 255u);
        ipmihost_script_reset(); // whether or not this process had asked before
    }
};

template <typename Entry> std::vector<Entry> entries(ListNode *list)
{
    std::vector<Entry> out;
    for (; list; list = list->next) {
        Entry e;
        std::memcpy(&e, list->data, sizeof e);
        EXPECT_EQ(list->data[sizeof e], 0) << "a zero byte follows each entry";
        out.push_back(e);
    }
    return out;
}
// A fixed text field as the bytes it holds.
template <size_t N> std::string bytesOf(const char (&field)[N]) { return std::string(field, N); }
std::string padded(const std::string &s, size_t n) { return s + std::string(n - s.size(), '\0'); }

TEST_F(SensorLists, ThresholdEntriesHoldReadingStatusThresholdsAndUnit)
{
    IpmiSession *s = session_;
    using namespace sdr::full;
    Cache cache({
        full(0x01, 0x01, "Inlet Temp 16 ch", {{sdr::kBaseUnit.at, 1}, {sdr::kReadingMask.at, 0x1B},
                                             {kLowerNonCritical.at, 5}, {kLowerCritical.at, 2},
                                             {kUpperNonCritical.at, 37}, {kUpperCritical.at, 42}}),
        full(0x03, 0x01, "CPU1 Temp", {{kM.at, 3}, {sdr::kReadingMask.at, 0x1B}, {kLowerCritical.at, 9},
                                       {kUpperNonCritical.at, 85}, {kUpperCritical.at, 90}}, 0x03),
        full(0x10, 0x02, "12V", {{kM.at, 6}, {kExponents.at, 0xE0}, {sdr::kBaseUnit.at, 4}}),
        full(0x05, 0x01, "Off Temp"),
    });
    // Each entry asks for the power state, then reads its sensor.
    expectPower(true), expectReading(0x01, thresholdAnswer(38, 0x08));
    expectPower(true), expectReading(0x03, thresholdAnswer(0x41));
    expectPower(false), expectReading(0x05, kUnavailable);
    ListNode *list = nullptr;
    ASSERT_EQ(ipmiGetTemperatureSensors(s, &list, cache.get()), 3);
    auto e = entries<ThresholdSensorEntry>(list);
    ASSERT_EQ(e.size(), 3u);
    EXPECT_EQ(bytesOf(e[0].name), padded("Inlet Temp 16 ch", 18));
    EXPECT_EQ(e[0].reading, 38.0f);
    EXPECT_EQ(bytesOf(e[0].status), padded("UpWarn", 40));
    EXPECT_EQ(e[0].lowerNonCritical, 5.0f);
    EXPECT_EQ(e[0].lowerCritical, 2.0f);
    EXPECT_EQ(e[0].upperNonCritical, 37.0f);
    EXPECT_EQ(e[0].upperCritical, 42.0f);
    EXPECT_EQ(bytesOf(e[0].unit), padded("C", 4));
    // A processor's reading and upper thresholds are its raw bytes; its lower ones are left out.
    EXPECT_EQ(e[1].reading, 65.0f);
    EXPECT_EQ(e[1].lowerCritical, 0.0f);
    EXPECT_EQ(e[1].upperNonCritical, 85.0f);
    EXPECT_EQ(e[1].upperCritical, 90.0f);
    EXPECT_EQ(bytesOf(e[2].status), padded("Power Off", 40));
    EXPECT_EQ(e[2].reading, 0.0f);

    // Types other than 1 to 3 list nothing and leave the list alone; no session, nothing.
    EXPECT_EQ(ipmiGetTVCSensors(s, &list, 0x04, cache.get()), 0);
    EXPECT_EQ(ipmiGetVoltageSensors(nullptr, &list, cache.get()), -1);
    EXPECT_EQ(entries<ThresholdSensorEntry>(list).size(), 3u);
    freeList(&list);
    expectPower(true), expectReading(0x10, thresholdAnswer(200));
    ASSERT_EQ(ipmiGetVoltageSensors(s, &list, cache.get()), 1);
    EXPECT_EQ(entries<ThresholdSensorEntry>(list)[0].reading, 12.0f);
    EXPECT_EQ(bytesOf(entries<ThresholdSensorEntry>(list)[0].unit), "Volt");
    freeList(&list);
}

TEST_F(SensorLists, FanEntriesTakeTheStateOfTheFansStatusSensor)
{
    IpmiSession *s = session_;
    Cache cache({
        full(0x20, 0x04, "FAN1", {{sdr::full::kM.at, 100}}, 0x1D, 1),
        compact(0x28, 0xE6, 0x6F, 0x1D, 1, "FAN1 Status", {{sdr::kAssertionMask.at, 0xFF}}),
        full(0x21, 0x04, "FAN2", {{sdr::full::kM.at, 100}}, 0x1D, 2),
    });
    expectPower(false), expectReading(0x20, thresholdAnswer(52)), expectReading(0x28, discreteAnswer(0x0004));
    expectPower(true), expectReading(0x21, thresholdAnswer(50));
    ListNode *list = nullptr;
    ASSERT_EQ(ipmiGetFanSensors(s, &list, cache.get()), 2);
    auto e = entries<FanSensorEntry>(list);
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0].sensorNumber, 0x20);
    EXPECT_EQ(e[0].index, 0);
    EXPECT_EQ(e[0].eventMask, 0x00FF);
    EXPECT_EQ(bytesOf(e[0].name), padded("FAN1", 18));
    EXPECT_EQ(e[0].reading, 5200.0f);
    EXPECT_EQ(bytesOf(e[0].status), padded("Fan prefailure", 40));
    // Without a status sensor: no event mask, the power text.
    EXPECT_EQ(e[1].index, 1);
    EXPECT_EQ(e[1].eventMask, 0);
    EXPECT_EQ(bytesOf(e[1].status), padded("N/A", 40));
    freeList(&list);
    EXPECT_EQ(ipmiGetFanSensors(nullptr, &list, cache.get()), 0);
    EXPECT_EQ(list, nullptr);
}

TEST_F(SensorLists, DiscreteEntriesWithRelatedStatesAndAnEmptyResult)
{
    IpmiSession *s = session_;
    Cache cache({
        compact(0x30, 0xE8, 0x6F, 0x0A, 1, "PSU1 Status"),
        compact(0x50, 0x25, 0x6F, 0x0A, 1, "PSU1 Presence"),
        compact(0x31, 0xE8, 0x6F, 0x0A, 2, "PSU2 Status"),
        full(0x32, 0xE8, "not compact"),
    });
    ListNode *list = nullptr;
    const char before[] = "earlier";
    ASSERT_EQ(addToList(&list, before, sizeof before), 1);
    expectReading(0x30, discreteAnswer(0x0006)), expectReading(0x50, discreteAnswer(0x0001));
    expectNoReading(0x31), expectPower(false);
    ASSERT_EQ(ipmiGetDiscreteSensors(s, &list, 0xE8, 0x6F, 0x25, 0xDEADBEEF, 1, cache.get()), 2);
    auto e = entries<DiscreteSensorEntry>(list->next);
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(bytesOf(e[0].name), padded("PSU1 Status", 18));
    EXPECT_EQ(bytesOf(e[0].state), padded("Power supply - OK", 40));
    EXPECT_EQ(bytesOf(e[0].relatedState), padded("Present", 40));
    EXPECT_EQ(e[0].sensorType, 0xE8);
    EXPECT_EQ(e[0].eventReadingType, 0x6F);
    EXPECT_EQ(e[0].state0_7, 0x06);
    EXPECT_EQ(e[0].state8_14, 0x80) << "as read";
    EXPECT_EQ(e[0].stateOffset, 1);
    EXPECT_EQ(e[0].sensorNumber, 0x30);
    EXPECT_EQ(bytesOf(e[1].state), padded("Power Off", 40));
    EXPECT_EQ(bytesOf(e[1].relatedState), padded("N/A", 40));
    EXPECT_EQ(e[1].state0_7 | e[1].state8_14 | e[1].stateOffset, 0);
    // Nothing of that kind: the caller's list is emptied.
    EXPECT_EQ(ipmiGetDiscreteSensors(s, &list, 0x07, 0x6F, 0, 0, 0, cache.get()), 0);
    EXPECT_EQ(list, nullptr);
}

TEST_F(SensorLists, CommonEntriesListFullRecordsFirstWithNamesInsideTheirSlots)
{
    const std::vector<Bytes> records = {compact(0x41, 0x0C, 0x6F, 0x20, 1, "C1"), full(0x01, 0x01, "F1 full 16 char"),
                                        compact(0x42, 0x0C, 0x6F, 0x20, 2, "C2 compact 16 ch")};
    const struct {
        uint32_t slot;
        std::vector<std::string> names;
    } cases[] = {{64, {"F1 full 16 char", "C1", "C2 compact 16 ch"}}, {40, {"", "C1", "C2 compa"}}};
    for (const auto &c : cases) {
        Cache cache(records, c.slot);
        ListNode *list = nullptr;
        ASSERT_EQ(ipmiGetCommonSensors(&list, cache.get()), 3u);
        auto e = entries<CommonSensorEntry>(list);
        for (size_t i = 0; i < 3; ++i) EXPECT_EQ(bytesOf(e[i].name), padded(c.names[i], 18)) << c.slot;
        EXPECT_EQ(e[0].sensorNumber, 0x01);
        EXPECT_EQ(e[1].sensorNumber, 0x41);
        EXPECT_EQ(e[2].entityInstance, 2);
        EXPECT_EQ(e[2].sensorType, 0x0C);
        EXPECT_EQ(e[2].eventReadingType, 0x6F);
        freeList(&list);
    }
}

TEST_F(SensorLists, FanSpeedLimitsAreTwoNumbersOfHalfThePayload)
{
    IpmiSession *s = session_;
    const struct {
        uint16_t status;
        Bytes answer;
        int result;
        uint32_t first, second;
    } cases[] = {
        {0, oemAnswer({0x10, 0x27, 0xE8, 0x03}), 1, 10000, 1000},
        {0, oemAnswer({0x10, 0x27, 0xE8, 0x03, 0x55}), 1, 10000, 1000},              // an odd byte left over
        {0, oemAnswer({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), 1, 0x04030201, 0x0A090807}, // six bytes each
        {0, oemAnswer({}), 1, 0, 0},
        {0x01C1, oemAnswer({0x10, 0x27, 0xE8, 0x03}, 0xC1), 0, 0, 0},
        {0, {0x00, 0xD9, 0x7E, 0x01, 0x10, 0x27, 0xE8, 0x03}, 0, 0, 0}, // another vendor
        {0, {0x00, 0xD9}, 0, 0, 0},                                       // short
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.answer.size());
        size_t from = ipmihost_script_call_count();
        expectRequest(0xB8, 0xF5, oem({0x33, 0x21}), c.status, c.answer);
        uint32_t first = 7, second = 7;
        EXPECT_EQ(ipmiGetFanMaximumSpeed(s, 0x21, &first, &second), c.result);
        EXPECT_EQ(first, c.first);
        EXPECT_EQ(second, c.second);
        expectSent(s, from, {{0xB8, 0xF5, oem({0x33, 0x21})}}, 16);
    }
    expectRequest(0xB8, 0xF5, oem({0x33, 0x01}), 0, oemAnswer({0x10, 0x27}));
    EXPECT_EQ(ipmiGetFanMaximumSpeed(s, 0x01, nullptr, nullptr), 1);
}

} // namespace
