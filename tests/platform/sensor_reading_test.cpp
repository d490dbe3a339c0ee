// Get Sensor Reading through the scripted exchange: the request, and which bytes of the
// caller's record the answer may overwrite.
#include <algorithm>

#include "script_session.h"

namespace platform_test {
namespace {

constexpr uint8_t kGetSensorReading = 0x2D;
constexpr uint8_t kUnset = 0x5A; // what the caller put in the record beforehand
constexpr size_t kRecordSize = sizeof(SensorReadingResponse);
constexpr size_t kGuardSize = 16;

using SensorReading = ScriptSession;

TEST_F(SensorReading, CopiesExactlyTheBytesThatArrived)
{
    struct Case {
        const char *name;
        Bytes answer;
        uint16_t scriptedStatus;
        uint16_t status;
        size_t stored; // leading bytes taken from the answer; the rest stays kUnset
    };
    const Case cases[] = {
        {"reading and flags only", {0x00, 0x42, 0xC0}, 0, LIBIPMI_STATUS_OK, 3},
        {"with states 0-7", {0x00, 0x42, 0xC0, 0x81}, 0, LIBIPMI_STATUS_OK, 4},
        {"with states 0-14", {0x00, 0x42, 0xC0, 0x81, 0x7F}, 0, LIBIPMI_STATUS_OK, 5},
        {"longer answer is cut to the record", {0x00, 0x42, 0xC0, 0x81, 0x7F, 0x99, 0x98}, 0, LIBIPMI_STATUS_OK, 5},
        {"without flags", {0x00, 0x42}, 0, LIBIPMI_STATUS_BAD_RESPONSE, 0},
        {"absent sensor", {0xCB}, LIBIPMI_STATUS_COMPLETION_CODE(0xCB), LIBIPMI_STATUS_COMPLETION_CODE(0xCB), 1},
        {"completion code in the answer decides", {0xCC}, 0, LIBIPMI_STATUS_COMPLETION_CODE(0xCC), 1},
        {"no answer", {}, LIBIPMI_STATUS_TIMEOUT, LIBIPMI_STATUS_TIMEOUT, 0},
        {"transport failure", {}, LIBIPMI_STATUS_TRANSPORT, LIBIPMI_STATUS_TRANSPORT, 0},
    };
    uint8_t sensor = 0x30;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ++sensor;
        expect(kNetFnLunSensor, kGetSensorReading, {sensor}, c.answer, c.scriptedStatus);
        Bytes record(kRecordSize + kGuardSize, kUnset);
        SensorReadingRequest req{sensor};
        EXPECT_EQ(IPMICMD_GetSensorReading(session(), &req, reinterpret_cast<SensorReadingResponse *>(record.data()),
                                           kTimeout),
                  c.status);
        Bytes want(kRecordSize + kGuardSize, kUnset);
        std::copy_n(c.answer.begin(), c.stored, want.begin());
        EXPECT_EQ(record, want);
    }
}

TEST_F(SensorReading, BadArgumentsSendNothing)
{
    alignas(8) uint8_t notOpen[LIBIPMI_SESSION_SIZE] = {};
    SensorReadingRequest req{1};
    SensorReadingResponse res{};
    EXPECT_EQ(IPMICMD_GetSensorReading(session(), nullptr, &res, kTimeout), LIBIPMI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(IPMICMD_GetSensorReading(session(), &req, nullptr, kTimeout), LIBIPMI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(IPMICMD_GetSensorReading(nullptr, &req, &res, kTimeout), LIBIPMI_STATUS_NO_SESSION);
    EXPECT_EQ(IPMICMD_GetSensorReading(reinterpret_cast<IpmiSession *>(notOpen), &req, &res, kTimeout),
              LIBIPMI_STATUS_NO_SESSION);
    EXPECT_EQ(rawRequestCount(), 0u);
}

} // namespace
} // namespace platform_test
