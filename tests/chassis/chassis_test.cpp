// Power, controller reset, chassis and graceful control, power sources, LEDs, configuration
// space variables and the console log: the request each sends and what each answer becomes.
#include <cstring>
#include <functional>

#include "scripted.h"

namespace {

using ChassisTest = ScriptTest;
constexpr uint16_t kLink = LIBIPMI_STATUS_TRANSPORT;

// Announces one request, runs call, checks its result, its stderr and that only that request went out.
void once(IpmiSession *s, const Sent &req, uint16_t status, const Bytes &answer, const std::function<int()> &call,
          int result, const std::string &diag = "", int64_t capacity = kAnyCapacity)
{
    size_t from = ipmihost_script_call_count();
    expect(req.netFnLun, req.command, req.request, answer, status);
    int r = -99;
    EXPECT_DIAG(stderrOf([&] { r = call(); }), diag);
    EXPECT_EQ(r, result);
    expectSent(s, from, {req}, capacity);
}

std::string failedRaw(const std::string &fn)
{
    return "\nipmihelpers.cpp:{line} (" + fn + ") Failed to send ipmi raw command.\n";
}

Bytes readAnswer(const Bytes &value) { return oemAnswer(cat({{static_cast<uint8_t>(value.size())}, value})); }

// An operation with its argument.
template <class F> std::function<int(IpmiSession *)> with(F f, int arg)
{
    return [f, arg](IpmiSession *s) { return int(f(s, arg)); };
}

// Every one-request operation: the request, and what the answer and diagnostics become.
TEST_F(ChassisTest, OperationsSendTheirRequestAndMapTheAnswer)
{
    IpmiSession *s = open();
    using Op = std::function<int(IpmiSession *)>;
    uint32_t logState = 7;
    const Op consoleState = [&](IpmiSession *x) {
        return logState = 7, ipmiConsoleLogGetState(x, &logState) * 100 + int(logState);
    };
    const std::string writeFn = "\nipmihelpers.cpp:{line} (ipmiWriteConfigSpaceVariable) Failed to ";
    const struct {
        Sent request;
        uint16_t status;
        Bytes answer;
        Op call;
        int result;
        std::string diag = "";
        int64_t capacity = 0;
    } cases[] = {
        // clang-format off
        // Power: the action byte; only a completion code 0 succeeds; the status is any power bit.
        {{0x00, 0x02, {0x00}}, 0, {0x00}, ipmiPowerOff, 1, "", kAnyCapacity},
        {{0x00, 0x02, {0x01}}, 0x01C0, {0xC0}, ipmiPowerOn, 0, "", kAnyCapacity},
        {{0x00, 0x01, {}}, 0, {0x00, 0x80, 0, 0}, ipmiChassisPowerStatus, 1, "", kAnyCapacity},
        // Controller reset: 1 is warm, anything else cold; only the platform status counts.
        {{0x18, 0x03, {}}, 0, {0xC0}, with(ipmiReset, 1), 1},
        {{0x18, 0x02, {}}, 0, {0x00}, with(ipmiReset, 257), 1},
        // Chassis and graceful control: the low byte of the code.
        {{0x00, 0x02, {0xA5}}, 0, {0x00}, with(ipmiSendChassisControl, 0x1A5), 1},
        {{0x00, 0x02, {0x05}}, kTimeout, {}, with(ipmiSendChassisControl, 5), 0, failedRaw("ipmiSendChassisControl")},
        // A refusal is an answer, whichever way the platform reports its completion code: no message.
        {{0x00, 0x02, {0x01}}, 0x01C1, {0xC1}, with(ipmiSendChassisControl, 1), 0},
        {{0xB8, 0x02, oem({0x00})}, 0x01C1, oemAnswer({}, 0xC1), with(ipmiSendGracefullControl, 0), 0},
        {{0xB8, 0x02, oem({0x05})}, kLink, {}, with(ipmiSendGracefullControl, 5), 0,
         failedRaw("ipmiSendGracefullControl")},
        // Power sources: the low byte; a failure shows the request.
        {{0xB8, 0x01, oem({0x1B, 0, 0, 0, 0x01, 0x5A})}, 0, oemAnswer({}, 0xCC), with(ipmiPowerOnSource, 0x5A), 0,
         "\nipmihelpers.cpp:{line} (ipmiPowerOnSource) Failed to send request with error 0x0\n"
         "\n raw command:\n0xb8 0x1 0xd9 0x7e 0x0 0x1b 0x0 0x0 0x0 0x1 0x5a\n"},
        {{0xB8, 0x01, oem({0x17, 0, 0, 0, 0x01, 0x02})}, 0x01CC, oemAnswer({}, 0xCC), with(ipmiPowerOffSource, 2), 0,
         "\nipmihelpers.cpp:{line} (ipmiPowerOffSource) Failed to send request with error 0x0\n"
         "\n raw command:\n0xb8 0x1 0xd9 0x7e 0x0 0x17 0x0 0x0 0x0 0x1 0x2\n"},
        // LEDs: setting returns the platform status itself; the completion code is not looked at.
        {{0xB8, 0xF5, oem({0xB0, 0x01})}, 0, oemAnswer({}, 0xC1), with(ipmiSetIdenLed, 0x101), 0},
        {{0xB8, 0xF5, oem({0xB1})}, 0, oemAnswer({0x03}), ipmiGetIdenLed, 1},
        {{0xB8, 0xF5, oem({0xB1})}, 0x01C1, oemAnswer({0x03}, 0xC1), ipmiGetIdenLed, 0},
        {{0xB8, 0xF5, oem({0xB3})}, 0, oemAnswer({0xFE}), ipmiGetErrLed, 0xFE},
        // The reset of the whole configuration space.
        {{0xB8, 0xF5, oem({0xE0, 'C', 'L', 'R', 0xAA})}, 0, oemAnswer({}, 0xC1), ipmiResetConfigSpace, 0,
         failedRaw("ipmiResetConfigSpace"), 255},
        // The console log state (kept when the answer is not one byte), logging off, clearing.
        {{0xB8, 0xE0, oem({0x01, 0x00, 0x30, 0x16})}, 0, readAnswer({0x02}), consoleState, 2, "", kAnyCapacity},
        {{0xB8, 0xE0, oem({0x01, 0x00, 0x30, 0x16})}, 0, readAnswer({0x01, 0x01}), consoleState, 7, "", kAnyCapacity},
        {{0xB8, 0xE0, oem({0x02, 0x00, 0x30, 0x16, 0x01, 0x00})}, 0, oemAnswer({}, 0xD5), ipmiConsoleLogStop, 0,
         writeFn + "read config space variable, completion code = 0xd5\n\nipmihelpers.cpp:{line} (ipmiConsoleLogStop) "
                   "Failed to set ConfConsLoggingEnable variable\n", kAnyCapacity},
        {{0xB8, 0xF5, oem({0x09, 0x07})}, 0, oemAnswer({}, 0xC1), ipmiConsoleLogClear, 0, "", kAnyCapacity},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << int(c.request.netFnLun) << " " << int(c.request.command) << " "
                                        << testing::PrintToString(c.request.request) << " status " << c.status);
        once(
            s, c.request, c.status, c.answer, [&] { return c.call(s); }, c.result, c.diag, c.capacity);
    }
}

// Without a session chassis control alone says so (nothing is sent; every operation's null
// session is checked in the session tests).
TEST_F(ChassisTest, ChassisControlReportsAMissingSession)
{
    EXPECT_DIAG(stderrOf([] { EXPECT_EQ(ipmiSendChassisControl(nullptr, 1), 0); }),
                failedRaw("ipmiSendChassisControl"));
    EXPECT_EQ(ipmihost_script_call_count(), 0u);
}

TEST_F(ChassisTest, ConfigSpaceVariables)
{
    IpmiSession *s = open();
    Bytes longest(250);
    for (size_t i = 0; i < longest.size(); ++i) longest[i] = static_cast<uint8_t>(0x11 + 7 * i);
    const struct {
        uint16_t status;
        Bytes answer;
        int result;
        Bytes value; // at the start of the buffer; the rest stays 0xEE
        const char *diag;
    } reads[] = {
        {0, readAnswer(longest), 250, longest, ""},
        {0, oemAnswer(cat({{0xFF}, longest})), -1, {}, ""}, // length byte beyond the buffer
        {0x01CB, {0xCB}, -1, {}, "ipmihelpers.cpp:{line}: error code = 1cb\n"},
    };
    for (const auto &c : reads) {
        uint8_t buffer[300];
        std::memset(buffer, 0xEE, sizeof buffer);
        once(
            s, {0xB8, 0xE0, oem({0x01, 0x02, 0x25, 0x1A})}, c.status, c.answer,
            [&] { return ipmiReadConfigSpaceVariable(s, 0x02, 0x1A25, buffer); }, c.result, c.diag);
        Bytes want = c.value;
        want.resize(sizeof buffer, 0xEE);
        EXPECT_EQ(Bytes(buffer, buffer + sizeof buffer), want);
    }
    // Without a buffer the length is still told.
    once(
        s, {0xB8, 0xE0, oem({0x01, 0xFF, 0x50, 0x21})}, 0, readAnswer({'1', '.', '2'}),
        [&] { return ipmiReadConfigSpaceVariable(s, 0xFF, 0x2150, nullptr); }, 3);
}

TEST_F(ChassisTest, ConfigSpaceReadInASessionOfItsOwn)
{
    for (auto [size, answer, delivered, destination] :
         {std::tuple{4u, readAnswer({'a', 'b', 'c', 'd'}), true, Bytes{'a', 'b', 'c', 'd', 0xEE, 0xEE, 0xEE, 0xEE}},
          {6u, readAnswer({'a', 'b'}), true, Bytes{'a', 'b', 0, 0, 0, 0, 0xEE, 0xEE}},
          {4u, readAnswer({'a', 'b', 'c', 'd', 'e'}), false, Bytes(8, 0xEE)}, // one byte too long
          {8u, oemAnswer({}, 0xCB), false, Bytes(8, 0xEE)}}) {
        ipmihost_script_reset();
        expect(0xB8, 0xE0, oem({0x01, 0x01, 0x72, 0x00}), answer);
        uint8_t dest[8];
        std::memset(dest, 0xEE, sizeof dest);
        void *result = nullptr;
        EXPECT_EQ(stderrOf([&] { result = getConfigSpaceVariable(dest, size, 0x01, 0x0072); }), "");
        EXPECT_EQ(result, delivered ? static_cast<void *>(dest) : nullptr);
        EXPECT_EQ(Bytes(dest, dest + 8), destination);
        std::vector<ipmihost_call> log = calls();
        ASSERT_EQ(log.size(), 3u);
        EXPECT_EQ(std::tuple(log[0].kind, log[0].privLevel, log[2].kind),
                  std::tuple(IPMIHOST_CALL_OPEN, 4, IPMIHOST_CALL_CLOSE));
        EXPECT_TRUE(log[1].session == log[0].session && log[2].session == log[0].session);
    }
    ipmihost_script_reset();
    ipmihost_script_open_result(LIBIPMI_STATUS_AUTH_FAILED, -1);
    uint8_t dest[8] = {0xEE};
    std::string err = stderrOf([&] { EXPECT_EQ(getConfigSpaceVariable(dest, sizeof dest, 0, 0x2150), nullptr); });
    EXPECT_TRUE(err.ends_with("failed to open session\n")) << err;
    EXPECT_EQ(dest[0], 0xEE);
    EXPECT_EQ(calls().size(), 1u);
}

} // namespace
