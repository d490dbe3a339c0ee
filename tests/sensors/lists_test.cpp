// The sensor lists through the scripted exchange: each entry as the caller's record layout
// holds it, the requests behind it, and the fan speed-limit query's answers.
#include <cstring>
#include <sstream>
#include <tuple>

#include "sdr_records.h"

namespace {

using namespace std::string_literals;

// The threshold and discrete lists ask once per process whether the controller is a system
// board of a partitioned server: here a standard server (LAN address 10.0.0.1).
class SensorLists : public ScriptTest {
protected:
    void SetUp() override
    {
        ScriptTest::SetUp();
        IpmiSession *s = open();
        expect(0x18, 0x42, {0x01}, {0x00, 0x01, 0x04, 0x01, 0x80, 0xD9, 0x7E, 0x00, 0x00, 0x00});
        expect(0x30, 0x02, {0x01, 0x03, 0x00, 0x00}, {0x00, 0x11, 10, 0, 0, 1});
        EXPECT_EQ(ipmiGetSbNumber(s), 255u);
        ipmihost_script_reset(); // whether or not this process had asked before
    }
};

// A text field as the text before its zero padding ("<unpadded>" when something follows it).
template <size_t N> std::string text(const char (&f)[N])
{
    std::string s(f, strnlen(f, N));
    return std::string(f + s.size(), N - s.size()).find_first_not_of('\0') == std::string::npos ? s : "<unpadded>";
}
// Each kind of entry as one line of its fields.
void put(std::ostream &o, const ThresholdSensorEntry &e)
{
    o << text(e.name) << "|" << e.reading << "|" << text(e.status) << "|" << e.lowerNonCritical << ","
      << e.lowerCritical << "," << e.upperNonCritical << "," << e.upperCritical << "|" << std::string(e.unit, 4);
}
void put(std::ostream &o, const FanSensorEntry &e)
{
    o << int(e.sensorNumber) << "|" << int(e.index) << "|" << e.eventMask << "|" << text(e.name) << "|" << e.reading
      << "|" << text(e.status);
}
void put(std::ostream &o, const DiscreteSensorEntry &e)
{
    o << text(e.name) << "|" << text(e.state) << "|" << text(e.relatedState) << "|" << std::hex << int(e.sensorType)
      << "|" << int(e.eventReadingType) << "|" << int(e.state0_7) << "|" << int(e.state8_14) << "|" << e.stateOffset
      << "|" << e.sensorNumber;
}
void put(std::ostream &o, const CommonSensorEntry &e)
{
    o << text(e.name) << "|" << std::hex << int(e.sensorNumber) << "|" << int(e.sensorType) << "|"
      << int(e.eventReadingType) << "|" << int(e.entityId) << "." << int(e.entityInstance);
}
// The entries of a list, checking the zero byte after each.
template <typename Entry> std::vector<std::string> shown(ListNode *list)
{
    std::vector<std::string> out;
    for (; list; list = list->next) {
        Entry e;
        std::memcpy(&e, list->data, sizeof e);
        EXPECT_EQ(list->data[sizeof e], 0);
        std::ostringstream line;
        put(line, e);
        out.push_back(line.str());
    }
    return out;
}

TEST_F(SensorLists, ThresholdEntriesHoldReadingStatusThresholdsAndUnit)
{
    using namespace sdr::full;
    const Set thresholds = {{sdr::kReadingMask.at, 0x1B}, {kLowerNonCritical.at, 5}, {kLowerCritical.at, 2},
                            {kUpperNonCritical.at, 37},   {kUpperCritical.at, 42},   {sdr::kBaseUnit.at, 1}};
    Cache cache({full(0x01, 0x01, "Inlet Temp 16 ch", thresholds), full(0x03, 0x01, "CPU1 Temp", thresholds, 0x03),
                 full(0x10, 0x02, "12V"), full(0x05, 0x01, "Off Temp")});
    // Each entry asks for the power state, then reads its sensor.
    expectPower(true), expectReading(0x01, thresholdAnswer(38, 0x08));
    expectPower(true), expectReading(0x03, thresholdAnswer(0x41));
    expectPower(false), expectReading(0x05, kUnavailable);
    ListNode *list = nullptr;
    ASSERT_EQ(ipmiGetTemperatureSensors(session_, &list, cache.get()), 3);
    // A processor's reading and upper thresholds are its raw bytes; its lower ones are left out.
    EXPECT_EQ(shown<ThresholdSensorEntry>(list),
              (std::vector<std::string>{"Inlet Temp 16 ch|38|UpWarn|5,2,37,42|C\0\0\0"s,
                                        "CPU1 Temp|65|OK|0,0,37,42|C\0\0\0"s, "Off Temp|0|Power Off|0,0,0,0|unsp"}));
    // Other types list nothing and leave the list alone; no session, nothing.
    EXPECT_EQ(ipmiGetTVCSensors(session_, &list, 0x04, cache.get()), 0);
    EXPECT_EQ(ipmiGetVoltageSensors(nullptr, &list, cache.get()), -1);
    EXPECT_EQ(shown<ThresholdSensorEntry>(list).size(), 3u);
    freeList(&list);
}

TEST_F(SensorLists, FanAndDiscreteEntries)
{
    Cache cache({full(0x20, 0x04, "FAN1", {{sdr::full::kM.at, 100}}, 0x1D, 1),
                 compact(0x28, 0xE6, 0x6F, 0x1D, 1, "FAN1 Status", {{sdr::kAssertionMask.at, 0xFF}}),
                 full(0x21, 0x04, "FAN2", {{sdr::full::kM.at, 100}}, 0x1D, 2),
                 compact(0x30, 0xE8, 0x6F, 0x0A, 1, "PSU1 Status"), compact(0x50, 0x25, 0x6F, 0x0A, 1, "PSU1 Presence"),
                 compact(0x31, 0xE8, 0x6F, 0x0A, 2, "PSU2 Status"), full(0x32, 0xE8, "not compact")});
    // A fan takes its status sensor's state and event mask; without one, the power text.
    expectPower(false), expectReading(0x20, thresholdAnswer(52)), expectReading(0x28, discreteAnswer(0x0004));
    expectPower(true), expectReading(0x21, thresholdAnswer(50));
    ListNode *list = nullptr;
    ASSERT_EQ(ipmiGetFanSensors(session_, &list, cache.get()), 2);
    EXPECT_EQ(shown<FanSensorEntry>(list),
              (std::vector<std::string>{"32|0|255|FAN1|5200|Fan prefailure", "33|1|0|FAN2|5000|N/A"}));
    EXPECT_EQ(ipmiGetFanSensors(nullptr, &list, cache.get()), 0);

    // Discrete entries with a related state, after what the list held; none at all empties it.
    expectReading(0x30, discreteAnswer(0x0006)), expectReading(0x50, discreteAnswer(0x0001));
    expectNoReading(0x31), expectPower(false);
    ASSERT_EQ(ipmiGetDiscreteSensors(session_, &list, 0xE8, 0x6F, 0x25, 0xDEADBEEF, 1, cache.get()), 2);
    EXPECT_EQ(shown<DiscreteSensorEntry>(list->next->next),
              (std::vector<std::string>{"PSU1 Status|Power supply - OK|Present|e8|6f|6|80|1|30",
                                        "PSU2 Status|Power Off|N/A|e8|6f|0|0|0|31"}));
    EXPECT_EQ(ipmiGetDiscreteSensors(session_, &list, 0x07, 0x6F, 0, 0, 0, cache.get()), 0);
    EXPECT_EQ(list, nullptr);
}

// Full records first; names from the slots themselves, never beyond them (40-byte slots).
TEST_F(SensorLists, CommonEntriesListFullRecordsFirstWithNamesInsideTheirSlots)
{
    Cache cache({compact(0x41, 0x0C, 0x6F, 0x20, 1, "C1"), full(0x01, 0x01, "F1"),
                 compact(0x42, 0x0C, 0x6F, 0x20, 2, "C2 compact 16 ch")},
                40);
    ListNode *list = nullptr;
    ASSERT_EQ(ipmiGetCommonSensors(&list, cache.get()), 3u);
    EXPECT_EQ(shown<CommonSensorEntry>(list),
              (std::vector<std::string>{"|1|1|1|7.1", "C1|41|c|6f|20.1", "C2 compa|42|c|6f|20.2"}));
    freeList(&list);
}

TEST_F(SensorLists, FanSpeedLimitsAreTwoNumbersOfHalfThePayload)
{
    const struct {
        uint16_t status;
        Bytes answer;
        std::tuple<int, uint32_t, uint32_t> result;
    } cases[] = {
        {0, oemAnswer({0x10, 0x27, 0xE8, 0x03}), {1, 10000, 1000}},
        {0, oemAnswer({0x10, 0x27, 0xE8, 0x03, 0x55}), {1, 10000, 1000}},                     // a byte left over
        {0, oemAnswer({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), {1, 0x04030201, 0x0A090807}}, // six bytes each
        {0, oemAnswer({}), {1, 0, 0}},
        {0, {0x00, 0xD9}, {0, 0, 0}}, // the rest of the buffer, 0xFF, is no IANA echo
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        expect(0xB8, 0xF5, oem({0x33, 0x21}), c.answer, c.status);
        uint32_t first = 7, second = 7;
        int r = ipmiGetFanMaximumSpeed(session_, 0x21, &first, &second);
        EXPECT_EQ(std::make_tuple(r, first, second), c.result) << c.answer.size();
        expectSent(session_, from, {{0xB8, 0xF5, oem({0x33, 0x21})}}, 16);
    }
}

} // namespace
