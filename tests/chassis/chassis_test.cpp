// Power switching, power state, controller reset, chassis and graceful control, power-on and
// power-off sources and the LEDs: the request each sends and what each answer turns into.
#include "scripted.h"

namespace {

using ChassisTest = ScriptTest;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr uint16_t kTimeout = LIBIPMI_STATUS_TIMEOUT;

TEST_F(ChassisTest, HighLevelPowerOperations)
{
    IpmiSession *s = open();
    const struct {
        const char *name;
        int (*op)(IpmiSession *);
        uint8_t action;
    } ops[] = {{"ipmiPowerOff", ipmiPowerOff, 0x00},
               {"ipmiPowerOn", ipmiPowerOn, 0x01},
               {"ipmiPowerCycle", ipmiPowerCycle, 0x02},
               {"ipmiHardReset", ipmiHardReset, 0x03},
               {"ipmiSoftOff", ipmiSoftOff, 0x05}};
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int result;
    } answers[] = {
        {"carried out", 0, {0x00}, 1}, {"completion code", 0x01C0, {0xC0}, 0}, {"no answer", kTimeout, {}, 0}};
    for (const auto &op : ops) {
        for (const auto &a : answers) {
            std::string what = std::string(op.name) + ", " + a.what;
            size_t from = ipmihost_script_call_count();
            expectRequest(0x00, 0x02, {op.action}, a.status, a.answer);
            CaptureStderr();
            EXPECT_EQ(op.op(s), a.result) << what;
            EXPECT_EQ(GetCapturedStderr(), "") << what;
            expectSent(s, from, {{0x00, 0x02, {op.action}}}, kAnyCapacity, what);
        }
    }
}

TEST_F(ChassisTest, PowerStatusIsAnyNonzeroFirstByte)
{
    IpmiSession *s = open();
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int result;
    } cases[] = {
        {"power bit", 0, {0x00, 0x01, 0x10, 0x40}, 1},
        {"only bit 5", 0, {0x00, 0x20, 0x00, 0x00}, 1},
        {"only bit 7", 0, {0x00, 0x80, 0x00, 0x00}, 1},
        {"off", 0, {0x00, 0x00, 0x10, 0x40}, 0},
        {"completion code", 0x01D5, {0xD5}, 0},
        {"no answer", kTimeout, {}, 0},
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        expectRequest(0x00, 0x01, {}, c.status, c.answer);
        EXPECT_EQ(ipmiChassisPowerStatus(s), c.result) << c.what;
        expectSent(s, from, {{0x00, 0x01, {}}}, kAnyCapacity, c.what);
    }
}

TEST_F(ChassisTest, ResetKindChoosesWarmOrCold)
{
    IpmiSession *s = open();
    const struct {
        int kind;
        uint8_t command;
        uint16_t status;
        Bytes answer;
        int result;
    } cases[] = {
        {1, 0x03, 0, {0x00}, 1},
        {0, 0x02, 0, {0x00}, 1},
        {2, 0x02, 0, {0x00}, 1},
        {255, 0x02, 0, {0x00}, 1},
        {-1, 0x02, 0, {0x00}, 1},
        {257, 0x02, 0, {0x00}, 1},
        // Only the platform status counts.
        {1, 0x03, 0, {0xC0}, 1},
        {0, 0x02, 0x01C0, {0xC0}, 0},
        {1, 0x03, kTimeout, {}, 0},
    };
    for (const auto &c : cases) {
        std::string what = "kind " + std::to_string(c.kind) + ", status " + std::to_string(c.status);
        size_t from = ipmihost_script_call_count();
        expectRequest(0x18, c.command, {}, c.status, c.answer);
        CaptureStderr();
        EXPECT_EQ(ipmiReset(s, c.kind), c.result) << what;
        EXPECT_EQ(GetCapturedStderr(), "") << what;
        expectSent(s, from, {{0x18, c.command, {}}}, 0, what);
    }
}

// Chassis Control and the graceful control share their answers and messages.
TEST_F(ChassisTest, ChassisAndGracefulControl)
{
    IpmiSession *s = open();
    const struct {
        const char *what;
        int code;
        uint8_t sent;
        uint16_t status;
        Bytes answer;
        int result;
        bool message;
    } cases[] = {
        {"accepted", 0x01, 0x01, 0, {0x00}, 1, false},
        {"diagnostic interrupt", 0x04, 0x04, 0, {0x00}, 1, false},
        {"low byte only", 0x1A5, 0xA5, 0, {0x00}, 1, false},
        {"completion code", 0x02, 0x02, 0, {0xC1}, 0, false},
        {"no bytes written", 0x03, 0x03, 0, {}, 0, false},
        {"no answer", 0x05, 0x05, kTimeout, {}, 0, true},
        {"link failure", 0x00, 0x00, LIBIPMI_STATUS_TRANSPORT, {}, 0, true},
    };
    const struct {
        const char *name;
        int (*op)(IpmiSession *, int);
        uint8_t netFnLun, command;
        bool oemFrame;
    } ops[] = {{"ipmiSendChassisControl", ipmiSendChassisControl, 0x00, 0x02, false},
               {"ipmiSendGracefullControl", ipmiSendGracefullControl, 0xB8, 0x02, true}};
    for (const auto &op : ops) {
        for (const auto &c : cases) {
            std::string what = std::string(op.name) + ", " + c.what;
            Bytes request = op.oemFrame ? oem({c.sent}) : Bytes{c.sent};
            Bytes answer = op.oemFrame && !c.answer.empty() ? cat(c.answer, kIana) : c.answer;
            size_t from = ipmihost_script_call_count();
            expectRequest(op.netFnLun, op.command, request, c.status, answer);
            CaptureStderr();
            EXPECT_EQ(op.op(s, c.code), c.result) << what;
            std::string err = GetCapturedStderr();
            if (c.message)
                EXPECT_DIAG(err, "\nipmihelpers.cpp:{line} (" + std::string(op.name) +
                                     ") Failed to send ipmi raw command.\n")
                    << what;
            else
                EXPECT_EQ(err, "") << what;
            expectSent(s, from, {{op.netFnLun, op.command, request}}, 0, what);
        }
    }
}

TEST_F(ChassisTest, PowerOnAndOffSources)
{
    IpmiSession *s = open();
    const struct {
        const char *name;
        int (*op)(IpmiSession *, int);
        uint8_t selector;
        const char *selectorText;
    } ops[] = {{"ipmiPowerOnSource", ipmiPowerOnSource, 0x1B, "0x1b"},
               {"ipmiPowerOffSource", ipmiPowerOffSource, 0x17, "0x17"}};
    const struct {
        const char *what;
        int source;
        uint8_t sent;
        const char *sentText;
        uint16_t status;
        Bytes answer;
        int result;
        const char *error; // value shown in the first message; nullptr: no message
    } cases[] = {
        {"accepted", 0x05, 0x05, "0x5", 0, oemAnswer({}), 1, nullptr},
        {"low byte only", 0x3A0, 0xA0, "0xa0", 0, oemAnswer({}), 1, nullptr},
        {"completion code", 0x5A, 0x5A, "0x5a", 0, oemAnswer({}, 0xCC), 0, "0x0"},
        {"no answer", 0x01, 0x01, "0x1", kTimeout, {}, 0, "0x300"},
        {"link failure", 0xFF, 0xFF, "0xff", LIBIPMI_STATUS_TRANSPORT, {}, 0, "0x400"},
    };
    for (const auto &op : ops) {
        for (const auto &c : cases) {
            std::string what = std::string(op.name) + ", " + c.what;
            Bytes request = oem({op.selector, 0x00, 0x00, 0x00, 0x01, c.sent});
            size_t from = ipmihost_script_call_count();
            expectRequest(0xB8, 0x01, request, c.status, c.answer);
            CaptureStderr();
            EXPECT_EQ(op.op(s, c.source), c.result) << what;
            std::string err = GetCapturedStderr();
            if (c.error)
                EXPECT_DIAG(err, "\nipmihelpers.cpp:{line} (" + std::string(op.name) +
                                     ") Failed to send request with error " + c.error +
                                     "\n\n raw command:\n0xb8 0x1 0xd9 0x7e 0x0 " + op.selectorText +
                                     " 0x0 0x0 0x0 0x1 " + c.sentText + "\n")
                    << what;
            else
                EXPECT_EQ(err, "") << what;
            expectSent(s, from, {{0xB8, 0x01, request}}, 0, what);
        }
    }
}

TEST_F(ChassisTest, IdentifyAndErrorLeds)
{
    IpmiSession *s = open();
    // Setting returns the platform status itself; the completion code is not looked at.
    const struct {
        int state;
        uint8_t sent;
        uint16_t status;
        Bytes answer;
        int result;
    } sets[] = {
        {1, 0x01, 0, oemAnswer({}), 0},
        {0x100, 0x00, 0, oemAnswer({}), 0},
        {2, 0x02, 0, oemAnswer({}, 0xC1), 0},
        {1, 0x01, 0x01C1, oemAnswer({}, 0xC1), 0x01C1},
        {0, 0x00, kTimeout, {}, kTimeout},
    };
    for (const auto &c : sets) {
        std::string what = "set state " + std::to_string(c.state) + ", status " + std::to_string(c.status);
        size_t from = ipmihost_script_call_count();
        expectRequest(0xB8, 0xF5, oem({0xB0, c.sent}), c.status, c.answer);
        CaptureStderr();
        EXPECT_EQ(ipmiSetIdenLed(s, c.state), c.result) << what;
        EXPECT_EQ(GetCapturedStderr(), "") << what;
        expectSent(s, from, {{0xB8, 0xF5, oem({0xB0, c.sent})}}, 0, what);
    }

    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int identify, error;
    } reads[] = {
        {"0x03", 0, oemAnswer({0x03}), 1, 3},
        {"0x01", 0, oemAnswer({0x01}), 1, 1},
        {"0x02", 0, oemAnswer({0x02}), 0, 2},
        {"0x00", 0, oemAnswer({0x00}), 0, 0},
        {"0xFE", 0, oemAnswer({0xFE}), 0, 0xFE},
        {"completion code with payload", 0, oemAnswer({0x03}, 0xC1), 0, 0},
        {"completion code status", 0x01C1, oemAnswer({0x03}, 0xC1), 0, 0},
        {"no answer", kTimeout, {}, 0, 0},
    };
    for (const auto &c : reads) {
        size_t from = ipmihost_script_call_count();
        expectRequest(0xB8, 0xF5, oem({0xB1}), c.status, c.answer);
        expectRequest(0xB8, 0xF5, oem({0xB3}), c.status, c.answer);
        CaptureStderr();
        EXPECT_EQ(ipmiGetIdenLed(s), c.identify) << c.what;
        EXPECT_EQ(ipmiGetErrLed(s), c.error) << c.what;
        EXPECT_EQ(GetCapturedStderr(), "") << c.what;
        expectSent(s, from, {{0xB8, 0xF5, oem({0xB1})}, {0xB8, 0xF5, oem({0xB3})}}, 0, c.what);
    }
}

TEST_F(ChassisTest, NoSessionSendsNothing)
{
    CaptureStderr();
    const struct {
        const char *name;
        int result;
    } results[] = {
        {"ipmiPowerOff", ipmiPowerOff(nullptr)},
        {"ipmiPowerOn", ipmiPowerOn(nullptr)},
        {"ipmiPowerCycle", ipmiPowerCycle(nullptr)},
        {"ipmiHardReset", ipmiHardReset(nullptr)},
        {"ipmiSoftOff", ipmiSoftOff(nullptr)},
        {"ipmiChassisPowerStatus", ipmiChassisPowerStatus(nullptr)},
        {"ipmiReset", ipmiReset(nullptr, 1)},
        {"ipmiSendGracefullControl", ipmiSendGracefullControl(nullptr, 1)},
        {"ipmiPowerOnSource", ipmiPowerOnSource(nullptr, 1)},
        {"ipmiPowerOffSource", ipmiPowerOffSource(nullptr, 1)},
        {"ipmiSetIdenLed", ipmiSetIdenLed(nullptr, 1)},
        {"ipmiGetIdenLed", ipmiGetIdenLed(nullptr)},
        {"ipmiGetErrLed", ipmiGetErrLed(nullptr)},
    };
    EXPECT_EQ(GetCapturedStderr(), "");
    for (const auto &r : results) EXPECT_EQ(r.result, 0) << r.name;

    // Chassis control alone reports the missing session.
    CaptureStderr();
    EXPECT_EQ(ipmiSendChassisControl(nullptr, 1), 0);
    EXPECT_DIAG(GetCapturedStderr(),
                "\nipmihelpers.cpp:{line} (ipmiSendChassisControl) Failed to send ipmi raw command.\n");
    EXPECT_EQ(ipmihost_script_call_count(), 0u);
}

} // namespace
