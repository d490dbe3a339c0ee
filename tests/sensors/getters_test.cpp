// The agent's sensor getters through the scripted exchange: the status code of every kind of
// reading, the voltage scale's rounding, and for each getter the exact requests it sends, the
// sessions it opens (one per call, closed on every path) and what it returns.
#include <functional>

#include "sdr_records.h"

namespace {

using SensorGetters = ScriptTest;
constexpr int kFail = -1; // the reading is refused

TEST_F(SensorGetters, StatusCodesFollowTheTablesOfEachKind)
{
    IpmiSession *s = open();
    const struct {
        uint8_t type, eventType;
        int bits; // threshold comparisons or states; kFail: no reading
        bool on;
        int code;
    } cases[] = {
        // clang-format off
        // Temperature thresholds: the highest bit decides; lower thresholds are harmless.
        {0x01, 0x01, 0x00, 1, 8}, {0x01, 0x01, 0x01, 1, 8}, {0x01, 0x01, 0x02, 1, 8}, {0x01, 0x01, 0x04, 1, 5},
        {0x01, 0x01, 0x08, 1, 6}, {0x01, 0x01, 0x10, 1, 7}, {0x01, 0x01, 0x20, 1, 5}, {0x01, 0x01, 0x0C, 1, 6},
        {0x01, 0x01, kFail, 1, 2}, {0x01, 0x01, kFail, 0, 1},
        // A fan's thresholds on the fan status scale.
        {0xE6, 0x01, 0x00, 1, 3}, {0xE6, 0x01, 0x01, 1, 5}, {0xE6, 0x01, 0x02, 1, 4}, {0xE6, 0x01, 0x04, 1, 4},
        {0xE6, 0x01, 0x08, 1, 3}, {0xE6, 0x01, 0x20, 1, 3}, {0xE6, 0x01, kFail, 1, 8}, {0xE6, 0x01, kFail, 0, 1},
        // Other threshold sensors.
        {0x02, 0x01, 0x00, 1, 3}, {0x02, 0x01, 0x01, 1, 7}, {0x02, 0x01, 0x02, 1, 4}, {0x02, 0x01, 0x04, 1, 4},
        {0x02, 0x01, 0x08, 1, 5}, {0x03, 0x01, 0x10, 1, 5}, {0x0B, 0x01, 0x20, 1, 5}, {0x02, 0x01, kFail, 1, 2},
        // Temperature severity states.
        {0x01, 0x07, 0x0001, 1, 8}, {0x01, 0x07, 0x0002, 1, 6}, {0x01, 0x07, 0x0004, 1, 7}, {0x01, 0x07, 0x0008, 1, 5},
        {0x01, 0x07, 0x0010, 1, 6}, {0x01, 0x07, 0x0020, 1, 7}, {0x01, 0x07, 0x0041, 1, 5}, {0x01, 0x07, 0x0080, 1, 1},
        {0x01, 0x6F, 0x0001, 1, 1},
        // Fan status as digital or performance states.
        {0xE6, 0x03, 0x0001, 1, 3}, {0xE6, 0x06, 0x0002, 1, 4}, {0xE6, 0x03, 0x0004, 1, 1}, {0xE6, 0x03, 0x0000, 1, 3},
        {0xE6, 0x6F, 0x0020, 1, 1},
        // Power supply states: the lowest of bits 0-11.
        {0xE8, 0x6F, 0x0006, 1, 3}, {0xE8, 0x6F, 0x0001, 1, 2}, {0xE8, 0x6F, 0x0800, 1, 13}, {0xE8, 0x6F, 0x1000, 1, 1},
        {0xE8, 0x6F, 0x0000, 1, 1}, {0xE8, 0x6F, kFail, 1, 1},
        // Power unit states.
        {0x09, 0x6F, 0x0001, 1, 3}, {0x09, 0x6F, 0x0002, 1, 4}, {0x09, 0x6F, 0x0010, 1, 2}, {0x09, 0x6F, 0x0020, 1, 5},
        {0x09, 0x6F, 0x0040, 1, 4}, {0x09, 0x6F, 0x0080, 1, 5}, {0x09, 0x6F, 0x0100, 1, 2}, {0x09, 0x6F, 0x0000, 1, 2},
        // Voltage: digital states, performance, anything else.
        {0x02, 0x03, 0x0001, 1, 3}, {0x02, 0x03, 0x0002, 1, 6}, {0x02, 0x03, 0x0004, 1, 2}, {0x02, 0x06, 0x0000, 1, 4},
        {0x02, 0x6F, 0x0001, 1, 1},
        // Any other sensor type.
        {0x07, 0x6F, 0x0001, 1, 1},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << "type " << int(c.type) << " event type " << int(c.eventType)
                                        << " bits " << c.bits);
        if (c.bits == kFail) {
            expectNoReading(0x42);
            expectPower(c.on);
        } else {
            expectReading(0x42, c.eventType == 0x01 ? thresholdAnswer(0x10, static_cast<uint8_t>(c.bits))
                                                    : discreteAnswer(static_cast<uint16_t>(c.bits)));
        }
        EXPECT_EQ(getSdrSensorStatus(s, 0x42, c.type, c.eventType), c.code);
    }
    EXPECT_EQ(getSdrSensorStatus(nullptr, 0x42, 0x01, 0x01), 1);
}

TEST_F(SensorGetters, VoltagesAreRoundedToTensOfMillivolts)
{
    // Readings of 12.064, 3.3049, 3.305 and 1.005 V (B x 10^K1 + raw, times 10^K2). The last is
    // 100.5 once multiplied by 100 in single precision, so it rounds up.
    const struct {
        uint8_t b, exponents, raw;
        int millivolts;
    } cases[] = {{12, 0xD3, 64, 12060}, {33, 0xC3, 49, 3300}, {33, 0xC3, 50, 3310}, {10, 0xC3, 50, 1010}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.millivolts);
        Cache cache({full(0x10, 0x02, "V", {{sdr::full::kB.at, c.b}, {sdr::full::kExponents.at, c.exponents}})});
        expectReading(0x10, thresholdAnswer(c.raw));
        EXPECT_EQ(getVoltCurrentValue(0x10, cache.get()), c.millivolts);
    }
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
    return {{0xB8, 0xE0, oem({0x01, index, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8)})},
            0,
            oemAnswer(cat({{static_cast<uint8_t>(value.size())}, value}))};
}
Step speedLimits(uint8_t fan, const Bytes &payload) { return {{0xB8, 0xF5, oem({0x33, fan})}, 0, oemAnswer(payload)}; }

TEST_F(SensorGetters, EachCallSendsItsRequestsInSessionsOfItsOwn)
{
    using namespace sdr::full;
    Cache cache({
        full(0x01, 0x01, "Inlet", {{sdr::kReadingMask.at, 0x18}, {kUpperCritical.at, 42}, {kUpperNonCritical.at, 37},
                                   {kNormalMaximum.at, 35}}),
        full(0x03, 0x01, "CPU1", {{kM.at, 2}, {sdr::kReadingMask.at, 0x10}, {kUpperCritical.at, 90}, {kUpperNonCritical.at, 85}}, 0x03),
        full(0x20, 0x04, "FAN1", {{kM.at, 100}}, 0x1D, 1),
        compact(0x28, 0xE6, 0x6F, 0x1D, 1, "FAN1 Status", {{sdr::kAssertionMask.at, 0x04}}),
        full(0x21, 0x04, "FAN2", {{kM.at, 100}}, 0x1D, 2),
        full(0x10, 0x02, "12V", {{kM.at, 6}, {kExponents.at, 0xE0}, {kNominalReading.at, 200},
                                 {sdr::kReadingMask.at, 0x12}, {kLowerCritical.at, 180}, {kUpperCritical.at, 220}}),
        full(0x18, 0x03, "12V Current"),
        full(0x34, 0x0B, "PSU1 Load", {{kNormalMaximum.at, 80}}, 0x0A),
        compact(0x30, 0xE8, 0x6F, 0x0A, 1, "PSU1 Status"),
    });
    SDRInfo *c = cache.get();
    const struct {
        const char *what;
        std::function<int()> call;
        std::vector<Step> steps;
        int result;
        size_t sessions = 1;
    } cases[] = {
        // clang-format off
        {"temperature status", [&] { return getTemperatureSensorStatus(0x01, c); }, {reading(0x01, thresholdAnswer(40, 0x08))}, 6},
        {"processor temperature, raw", [&] { return getTemperatureCurrentValue(0x03, c); }, {reading(0x03, thresholdAnswer(0x41))}, 65},
        {"warning level", [&] { return getTemperatureThresholdLevel(0x01, c, 0); }, {}, 37},
        {"critical level", [&] { return getTemperatureThresholdLevel(0x01, c, 7); }, {}, 42},
        {"processor critical level, raw", [&] { return getTemperatureThresholdLevel(0x03, c, 1); }, {}, 90},
        {"processor warning level, not readable", [&] { return getTemperatureThresholdLevel(0x03, c, 0); }, {}, 0},
        {"reaction set (second temperature)", [&] { return getCriticalReaction(0x03, 0x01, c); }, {variable(1, 0x0073, {0x05})}, 3},
        {"reaction unknown", [&] { return getCriticalReaction(0x01, 0x01, c); }, {variable(0, 0x0073, {0x01, 0x00})}, 1},
        {"voltage reaction not set", [&] { return getCriticalReaction(0x10, 0x02, c); }, {variable(0, 0x0000, {0x00})}, 2},
        {"fan reaction", [&] { return getCriticalReaction(0x21, 0x04, c); }, {variable(1, 0x0071, {0x01})}, 3},
        {"fan not installed", [&] { return getFanStatus(0x20, c); }, {reading(0x28, discreteAnswer(0x0020))}, 8},
        {"fan low", [&] { return getFanStatus(0x20, c); }, {reading(0x28, discreteAnswer(0x0001)), reading(0x20, thresholdAnswer(7, 0x01))}, 5},
        {"fan without status sensor, unreadable",  [&] { return getFanStatus(0x21, c); },
         {{{0x10, 0x2D, {0x21}}, 0x01CB, {0xCB}}, {{0x00, 0x01, {}}, 0, {0x00, 0x01, 0x00, 0x00}}}, 8},
        {"fan speed", [&] { return getFanCurrentSpeed(0x20, c); }, {reading(0x20, thresholdAnswer(52))}, 5200},
        {"fan quality 4500/6000", [&] { return getFanQuality(0x20, c); }, {speedLimits(0x20, {0x94, 0x11, 0x70, 0x17})}, 75},
        {"fan quality 5400/6000", [&] { return getFanQuality(0x20, c); }, {speedLimits(0x20, {0x18, 0x15, 0x70, 0x17})}, 89},
        {"fan quality, no rated speed", [&] { return getFanQuality(0x20, c); }, {speedLimits(0x20, {0x18, 0x15, 0, 0})}, 0},
        {"fan quality without status sensor", [&] { return getFanQuality(0x21, c); }, {}, 0},
        {"fail-shutdown delay", [&] { return getFanFailShutdownDelay(0x21, c); }, {variable(1, 0x0072, {0x2C, 0x01})}, 300},
        {"fail-shutdown delay of one byte", [&] { return getFanFailShutdownDelay(0x20, c); }, {variable(0, 0x0072, {0x2C})}, -1},
        {"power supply status", [&] { return getPowerSupplyStatus(0x30, c); }, {reading(0x30, discreteAnswer(0x0006))}, 3},
        {"power supply load", [&] { return getPowerSupplyLoad(1, c); }, {reading(0x34, thresholdAnswer(21))}, 21, 2},
        {"second power supply load", [&] { return getPowerSupplyLoad(2, c); }, {}, 0},
        {"power supply nominal", [&] { return getPowerSupplyNominal(0x30, 1, c); }, {reading(0x30, discreteAnswer(0x0002))}, 80, 2},
        {"absent power supply's nominal", [&] { return getPowerSupplyNominal(0x30, 1, c); }, {reading(0x30, discreteAnswer(0x0001))}, 0, 2},
        {"normal maximum", [&] { return getNormalMax(0x01, 0x01, c); }, {}, 35},
        {"voltage status", [&] { return getVoltStatus(0x10, c); }, {reading(0x10, thresholdAnswer(200))}, 3},
        {"voltage", [&] { return getVoltCurrentValue(0x10, c); }, {reading(0x10, thresholdAnswer(200))}, 12000},
        {"voltage unavailable", [&] { return getVoltCurrentValue(0x10, c); }, {reading(0x10, kUnavailable)}, 0},
        {"nominal voltage", [&] { return getVoltNominalValue(0x10, 0x02, c); }, {}, 12000},
        {"lower critical voltage", [&] { return getVoltThresholds(0x10, 0x02, c, 0); }, {}, 10800},
        {"upper critical voltage", [&] { return getVoltThresholds(0x10, 0x02, c, 1); }, {}, 13200},
        {"no third voltage threshold", [&] { return getVoltThresholds(0x10, 0x02, c, 2); }, {}, 0},
        {"current status", [&] { return getCurrentSensorsStatus(0x18, 0x03, c); }, {reading(0x18, thresholdAnswer(30, 0x10))}, 5},
        // Sensors the cache does not hold.
        {"unknown status", [&] { return getCurrentSensorsStatus(0x99, 0x01, c); }, {}, 1},
        {"unknown value", [&] { return getCurrentValue(0x99, 0x04, c); }, {}, 0},
        {"unknown reaction", [&] { return getCriticalReaction(0x99, 0x01, c); }, {}, 1},
        {"reaction of a type without records", [&] { return getCriticalReaction(0x01, 0x05, c); }, {}, 0},
        {"unknown fan's delay", [&] { return getFanFailShutdownDelay(0x99, c); }, {}, -1},
        {"unknown voltage threshold", [&] { return getVoltThresholds(0x99, 0x02, c, 0); }, {}, -1},
        {"unknown normal maximum", [&] { return getNormalMax(0x99, 0x02, c); }, {}, 0},
        // clang-format on
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(t.what);
        ipmihost_script_reset();
        for (const Step &st : t.steps) expectRequest(st.request.netFnLun, st.request.command, st.request.request, st.status, st.answer);
        EXPECT_EQ(t.call(), t.result);
        // Every session opened was closed, every request went out inside one.
        std::vector<const void *> open;
        size_t opened = 0;
        for (const ipmihost_call &call : calls()) {
            if (call.kind == IPMIHOST_CALL_OPEN) open.push_back(call.session), ++opened;
            if (call.kind == IPMIHOST_CALL_CLOSE) std::erase(open, call.session);
            if (call.kind == IPMIHOST_CALL_RAW) {
                EXPECT_NE(std::find(open.begin(), open.end(), call.session), open.end());
            }
        }
        EXPECT_EQ(opened, t.sessions);
        EXPECT_TRUE(open.empty());
        EXPECT_EQ(ipmihost_script_pending(), 0u);
    }
}

TEST_F(SensorGetters, WithoutASessionEachGetterGivesItsFailureValue)
{
    Cache cache({full(0x01, 0x01, "T"), full(0x20, 0x04, "F"), full(0x10, 0x02, "V")});
    SDRInfo *c = cache.get();
    const struct {
        std::function<int()> call;
        int result;
    } cases[] = {
        {[&] { return getTemperatureSensorStatus(0x01, c); }, 1}, {[&] { return getPowerSupplyStatus(0x30, c); }, 1},
        {[&] { return getVoltThresholds(0x10, 0x02, c, 0); }, -1}, {[&] { return getFanFailShutdownDelay(0x20, c); }, 0},
        {[&] { return getCriticalReaction(0x01, 0x01, c); }, 0},   {[&] { return getPowerSupplyNominal(0x30, 1, c); }, 0},
        {[&] { return getFanQuality(0x20, c); }, 0},               {[&] { return getVoltNominalValue(0x10, 0x02, c); }, 0},
    };
    for (const auto &t : cases) {
        ipmihost_script_reset();
        ASSERT_EQ(ipmihost_script_open_result(LIBIPMI_STATUS_AUTH_FAILED, -1), 0);
        int r = 0;
        std::string err = stderrOf([&] { r = t.call(); });
        EXPECT_EQ(r, t.result);
        EXPECT_EQ(err.substr(err.size() - 23), "failed to open session\n");
        EXPECT_EQ(ipmihost_script_call_count(), 1u) << "the failed opening only";
    }
}

} // namespace
