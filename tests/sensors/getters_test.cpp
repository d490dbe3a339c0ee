// The agent's sensor getters through the scripted exchange: the status code of every kind of
// reading, and for each getter the exact requests it sends, the sessions it opens (one per
// call, closed on every path) and what it returns, the voltage scale's rounding included.
#include <functional>

#include "sdr_records.h"

namespace {

using SensorGetters = ScriptTest;
constexpr int kOn = -1, kOff = -2; // the reading is refused while the server is on, off

TEST_F(SensorGetters, StatusCodesFollowTheTablesOfEachKind)
{
    IpmiSession *s = open();
    const struct {
        uint8_t type, eventType;
        std::vector<int> bits, codes; // threshold comparisons or states, and the status of each
    } cases[] = {
        // clang-format off
        // Thresholds: the highest bit decides (temperature, a fan's own, any other type).
        {0x01, 0x01, {0, 0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x0C, kOn, kOff}, {8, 8, 8, 5, 6, 7, 5, 6, 2, 1}},
        {0xE6, 0x01, {0, 0x01, 0x02, 0x04, 0x08, 0x20, kOn, kOff}, {3, 5, 4, 4, 3, 3, 8, 1}},
        {0x02, 0x01, {0, 0x01, 0x02, 0x04, 0x08, 0x10, 0x20, kOn}, {3, 7, 4, 4, 5, 5, 5, 2}},
        {0x0B, 0x01, {0x10}, {5}},
        // Temperature severity; fan status as digital or performance states.
        {0x01, 0x07, {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x41, 0x80}, {8, 6, 7, 5, 6, 7, 5, 1}},
        {0xE6, 0x03, {0x01, 0x04, 0}, {3, 1, 3}},
        {0x01, 0x6F, {0x01}, {1}}, {0xE6, 0x06, {0x02}, {4}}, {0xE6, 0x6F, {0x20}, {1}},
        // Power supply states: the lowest of bits 0-11.
        {0xE8, 0x6F, {0x0006, 0x0001, 0x0800, 0x1000, 0, kOn}, {3, 2, 13, 1, 1, 1}},
        // Power unit; voltage digital states, performance, anything else; another type.
        {0x09, 0x6F, {0x01, 0x02, 0x10, 0x20, 0x40, 0x80, 0x100, 0}, {3, 4, 2, 5, 4, 5, 2, 2}},
        {0x02, 0x03, {0x01, 0x02, 0x04}, {3, 6, 2}},
        {0x02, 0x06, {0}, {4}}, {0x02, 0x6F, {0x01}, {1}}, {0x07, 0x6F, {0x01}, {1}},
        // clang-format on
    };
    for (const auto &c : cases) {
        for (size_t i = 0; i < c.bits.size(); ++i) {
            const int bits = c.bits[i];
            SCOPED_TRACE(testing::Message() << std::hex << int(c.type) << " " << int(c.eventType) << " " << bits);
            if (bits < 0) {
                expectNoReading(0x42);
                expectPower(bits == kOn);
            } else {
                expectReading(0x42, c.eventType == 0x01 ? thresholdAnswer(0x10, static_cast<uint8_t>(bits))
                                                        : discreteAnswer(static_cast<uint16_t>(bits)));
            }
            EXPECT_EQ(getSdrSensorStatus(s, 0x42, c.type, c.eventType), c.codes[i]);
        }
    }
    EXPECT_EQ(getSdrSensorStatus(nullptr, 0x42, 0x01, 0x01), 1);
}

// A step of a getter's exchange: the request and its answer.
struct Step {
    Sent request;
    uint16_t status;
    Bytes answer;
};
Step reading(uint8_t number, const Bytes &answer) { return {{0x10, 0x2D, {number}}, 0, answer}; }
Step variable(uint8_t index, uint16_t id, const Bytes &value)
{
    Bytes request = oem({0x01, index, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8)});
    return {{0xB8, 0xE0, request}, 0, oemAnswer(cat({{static_cast<uint8_t>(value.size())}, value}))};
}
Step limits(const Bytes &payload) { return {{0xB8, 0xF5, oem({0x33, 0x20})}, 0, oemAnswer(payload)}; }
const Step kRefused = {{0x10, 0x2D, {0x21}}, 0x01CB, {0xCB}},
           kPowerOn = {{0x00, 0x01, {}}, 0, {0x00, 0x01, 0x00, 0x00}};

#define CALL(getter) [&] { return getter; }

TEST_F(SensorGetters, EachCallSendsItsRequestsInSessionsOfItsOwn)
{
    using namespace sdr::full;
    const uint8_t kMask = sdr::kReadingMask.at;
    Cache cache({full(0x01, 0x01, "Inlet",
                      {{kMask, 0x18}, {kUpperCritical.at, 42}, {kUpperNonCritical.at, 37}, {kNormalMaximum.at, 35}}),
                 full(0x03, 0x01, "CPU1", {{kM.at, 2}, {kMask, 0x10}, {kUpperCritical.at, 90}}, 0x03),
                 full(0x20, 0x04, "FAN1", {{kM.at, 100}}, 0x1D, 1),
                 compact(0x28, 0xE6, 0x6F, 0x1D, 1, "FAN1 Status", {{sdr::kAssertionMask.at, 0x04}}),
                 full(0x21, 0x04, "FAN2", {{kM.at, 100}}, 0x1D, 2),
                 full(0x10, 0x02, "12V",
                      {{kM.at, 6},
                       {kExponents.at, 0xE0},
                       {kNominalReading.at, 200},
                       {kMask, 0x12},
                       {kLowerCritical.at, 180},
                       {kUpperCritical.at, 220}}),
                 full(0x34, 0x0B, "PSU1 Load", {{kNormalMaximum.at, 80}}, 0x0A),
                 // Readings B x 10^K1 + raw, times 10^K2, for the voltage scale's rounding.
                 full(0x11, 0x02, "12.064 V", {{kB.at, 12}, {kExponents.at, 0xD3}}),
                 full(0x12, 0x02, "3.3049 V", {{kB.at, 33}, {kExponents.at, 0xC3}}),
                 full(0x13, 0x02, "1.005 V", {{kB.at, 10}, {kExponents.at, 0xC3}}),
                 compact(0x30, 0xE8, 0x6F, 0x0A, 1, "PSU1 Status")});
    SDRInfo *c = cache.get();
    const struct {
        std::function<int()> call;
        std::vector<Step> steps;
        int result;
        size_t sessions = 1;
    } cases[] = {
        // clang-format off
        {CALL(getTemperatureSensorStatus(0x01, c)), {reading(0x01, thresholdAnswer(40, 0x08))}, 6},
        {CALL(getTemperatureCurrentValue(0x03, c)), {reading(0x03, thresholdAnswer(0x41))}, 65}, // raw
        {CALL(getTemperatureThresholdLevel(0x01, c, 0)), {}, 37}, {CALL(getNormalMax(0x01, 0x01, c)), {}, 35},
        {CALL(getTemperatureThresholdLevel(0x01, c, 7)), {}, 42},
        {CALL(getTemperatureThresholdLevel(0x03, c, 1)), {}, 90},
        {CALL(getTemperatureThresholdLevel(0x03, c, 0)), {}, 0}, // not readable
        {CALL(getCriticalReaction(0x03, 0x01, c)), {variable(1, 0x0073, {0x05})}, 3},
        {CALL(getCriticalReaction(0x01, 0x01, c)), {variable(0, 0x0073, {0x01, 0x00})}, 1},
        {CALL(getCriticalReaction(0x10, 0x02, c)), {variable(0, 0x0000, {0x00})}, 2},
        {CALL(getFanStatus(0x20, c)), {reading(0x28, discreteAnswer(0x0020))}, 8}, // not installed
        {CALL(getFanStatus(0x20, c)), {reading(0x28, discreteAnswer(1)), reading(0x20, thresholdAnswer(7, 1))}, 5},
        {CALL(getFanStatus(0x21, c)), {kRefused, kPowerOn}, 8},
        {CALL(getFanCurrentSpeed(0x20, c)), {reading(0x20, thresholdAnswer(52))}, 5200},
        {CALL(getFanQuality(0x20, c)), {limits({0x18, 0x15, 0x70, 0x17})}, 89}, // 5400 of 6000
        {CALL(getFanQuality(0x20, c)), {limits({0x18, 0x15, 0, 0})}, 0},
        {CALL(getFanFailShutdownDelay(0x21, c)), {variable(1, 0x0072, {0x2C, 0x01})}, 300},
        {CALL(getFanFailShutdownDelay(0x20, c)), {variable(0, 0x0072, {0x2C})}, -1},
        {CALL(getPowerSupplyStatus(0x30, c)), {reading(0x30, discreteAnswer(0x0006))}, 3},
        {CALL(getPowerSupplyLoad(1, c)), {reading(0x34, thresholdAnswer(21))}, 21, 2},
        {CALL(getPowerSupplyLoad(2, c)), {}, 0}, {CALL(getFanQuality(0x21, c)), {}, 0},
        {CALL(getPowerSupplyNominal(0x30, 1, c)), {reading(0x30, discreteAnswer(0x0002))}, 80, 2},
        {CALL(getPowerSupplyNominal(0x30, 1, c)), {reading(0x30, discreteAnswer(0x0001))}, 0, 2}, // absent
        {CALL(getVoltCurrentValue(0x10, c)), {reading(0x10, thresholdAnswer(200))}, 12000},
        {CALL(getVoltCurrentValue(0x10, c)), {reading(0x10, kUnavailable)}, 0},
        {CALL(getVoltNominalValue(0x10, 0x02, c)), {}, 12000}, {CALL(getVoltThresholds(0x10, 0x02, c, 0)), {}, 10800},
        {CALL(getVoltThresholds(0x10, 0x02, c, 1)), {}, 13200}, {CALL(getVoltThresholds(0x10, 0x02, c, 2)), {}, 0},
        {CALL(getVoltCurrentValue(0x11, c)), {reading(0x11, thresholdAnswer(64))}, 12060},
        {CALL(getVoltCurrentValue(0x12, c)), {reading(0x12, thresholdAnswer(49))}, 3300},
        {CALL(getVoltCurrentValue(0x12, c)), {reading(0x12, thresholdAnswer(50))}, 3310}, // 3.305 V
        {CALL(getVoltCurrentValue(0x13, c)), {reading(0x13, thresholdAnswer(50))}, 1010}, // 100.5 in float
        // Sensors the cache does not hold; a type it holds none of.
        {CALL(getCurrentSensorsStatus(0x99, 0x01, c)), {}, 1}, {CALL(getCurrentValue(0x99, 0x04, c)), {}, 0},
        {CALL(getCriticalReaction(0x99, 0x01, c)), {}, 1}, {CALL(getCriticalReaction(0x01, 0x05, c)), {}, 0},
        {CALL(getFanFailShutdownDelay(0x99, c)), {}, -1}, {CALL(getVoltThresholds(0x99, 0x02, c, 0)), {}, -1},
        // clang-format on
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        ipmihost_script_reset();
        for (const Step &st : cases[i].steps)
            expect(st.request.netFnLun, st.request.command, st.request.request, st.answer, st.status);
        EXPECT_EQ(cases[i].call(), cases[i].result);
        // Every session opened was closed, every request went out inside one.
        std::vector<const void *> open;
        size_t opened = 0;
        for (const ipmihost_call &call : calls()) {
            if (call.kind == IPMIHOST_CALL_OPEN) open.push_back(call.session), ++opened;
            if (call.kind == IPMIHOST_CALL_CLOSE) std::erase(open, call.session);
            EXPECT_TRUE(call.kind != IPMIHOST_CALL_RAW || std::count(open.begin(), open.end(), call.session));
        }
        EXPECT_EQ(opened, cases[i].sessions);
        EXPECT_TRUE(open.empty());
        EXPECT_EQ(ipmihost_script_pending(), 0u);
    }
    // A session that cannot be opened: the message, the getter's failure value, nothing sent.
    ipmihost_script_reset();
    ipmihost_script_open_result(LIBIPMI_STATUS_AUTH_FAILED, -1);
    std::string err = stderrOf([&] { EXPECT_EQ(getVoltThresholds(0x10, 0x02, c, 0), -1); });
    EXPECT_EQ(err.substr(err.size() - 23), "failed to open session\n");
    EXPECT_EQ(ipmihost_script_call_count(), 1u);
}

} // namespace
