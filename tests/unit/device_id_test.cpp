// Reading the controller's identity with Get Device ID.
#include <cstring>

#include "script_fixture.h"

namespace {

using DeviceIdTest = ScriptTest;

bool allZero(const IpmiDeviceId &id)
{
    static const IpmiDeviceId kZero{};
    return std::memcmp(&id, &kZero, sizeof id) == 0;
}

// Get Device ID goes out exactly once, as NetFn App / cmd 0x01 without data, stating no capacity.
void expectOneDeviceIdRequest(const IpmiSession *session)
{
    std::vector<ipmihost_call> log = calls();
    ASSERT_EQ(log.size(), 2u) << "expected the opening and one request, and no close";
    const ipmihost_call &r = log[1];
    EXPECT_EQ(r.kind, IPMIHOST_CALL_RAW);
    EXPECT_EQ(r.session, session);
    EXPECT_EQ(r.payloadType, 0);
    EXPECT_EQ(r.netFnLun, 0x18);
    EXPECT_EQ(r.command, 0x01);
    EXPECT_EQ(r.reqPtr, nullptr);
    EXPECT_EQ(r.reqLen, 0u);
    EXPECT_NE(r.resPtr, nullptr);
    EXPECT_EQ(r.resLenPtrNull, 0);
    EXPECT_EQ(r.resLenIn, 0u);
    EXPECT_EQ(r.timeout, 60);
}

// Completion code 0 and the 15 data bytes, each different from its neighbours.
const std::vector<uint8_t> kFullResponse = {0x00, 0x20, 0x83, 0x03, 0x52, 0x02, 0xBF, 0xD9, 0x7E,
                                            0x00, 0x4D, 0x0B, 0x00, 0x0A, 0x12, 0x03};

TEST_F(DeviceIdTest, FullResponseBecomesTheRecord)
{
    IpmiSession *s = open();
    ASSERT_EQ(ipmihost_script_expect(0x18, 0x01, nullptr, 0, 0, kFullResponse.data(), kFullResponse.size()), 0);
    testing::internal::CaptureStderr();
    IpmiDeviceId id = ipmiGetDeviceId(s);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(std::memcmp(&id, kFullResponse.data() + 1, sizeof id), 0);
    EXPECT_EQ(id.deviceId, 0x20);
    EXPECT_EQ(id.firmwareRevision2, 0x52);
    EXPECT_EQ(id.auxFirmwareRevision[3], 0x03);
    expectOneDeviceIdRequest(s);
}

TEST_F(DeviceIdTest, NoSessionSendsNothing)
{
    testing::internal::CaptureStderr();
    IpmiDeviceId id = ipmiGetDeviceId(nullptr);
    EXPECT_DIAG(testing::internal::GetCapturedStderr(),
                "\nipmihelpers.cpp:{line} (ipmiGetDeviceId) Session check failed.\n");
    EXPECT_TRUE(allZero(id));
    EXPECT_EQ(ipmihost_script_call_count(), 0u);
}

std::vector<uint8_t> fullResponseOf(size_t n)
{
    std::vector<uint8_t> r(n, 0xE1);
    std::copy_n(kFullResponse.begin(), std::min(n, kFullResponse.size()), r.begin());
    return r;
}

TEST_F(DeviceIdTest, FailuresReportAndGiveAZeroRecord)
{
    const std::string kSendFailed = "\nipmihelpers.cpp:{line} (ipmiGetDeviceId) Failed to send ipmi raw command.\n";
    const std::string kWrongSize =
        "\nipmihelpers.cpp:{line} (ipmiGetDeviceId) Failed to read device id, wrong response size.\n";
    struct Case {
        const char *name;
        uint16_t status;
        std::vector<uint8_t> response;
        const std::string &diag;
    } cases[] = {
        {"timeout", 0x0003, {}, kSendFailed},
        {"completion code 0xC0", 0x01C0, {0xC0}, kSendFailed},
        {"completion code with a full-size answer", 0x01C1, fullResponseOf(16), kSendFailed},
        {"no auxiliary firmware revision (12 bytes)", 0, fullResponseOf(12), kWrongSize},
        {"one byte too many (17 bytes)", 0, fullResponseOf(17), kWrongSize},
        {"completion code only", 0, {0x00}, kWrongSize},
        {"nothing stored", 0, {}, kWrongSize},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ipmihost_script_reset();
        IpmiSession *s = open();
        ASSERT_EQ(ipmihost_script_expect(0x18, 0x01, nullptr, 0, c.status, c.response.data(), c.response.size()),
                  0);
        testing::internal::CaptureStderr();
        IpmiDeviceId id = ipmiGetDeviceId(s);
        EXPECT_DIAG(testing::internal::GetCapturedStderr(), c.diag);
        EXPECT_TRUE(allZero(id));
        expectOneDeviceIdRequest(s);
        ipmiHelperCloseSession(&session_);
    }
}

} // namespace
