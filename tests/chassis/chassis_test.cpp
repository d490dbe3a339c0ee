// Power, controller reset, chassis and graceful control, power sources, LEDs, configuration
// space variables and the console log: the request each sends and what each answer becomes.
#include <cstring>
#include <functional>

#include "scripted.h"

namespace {

using ChassisTest = ScriptTest;
constexpr uint16_t kTimeout = LIBIPMI_STATUS_TIMEOUT, kLink = LIBIPMI_STATUS_TRANSPORT;

// Announces one request with its answer, runs call, and checks its result, what it wrote to
// stderr ("{line}" for line numbers) and that exactly that request went out.
void once(IpmiSession *s, const Sent &req, uint16_t status, const Bytes &answer, const std::function<int()> &call,
          int result, const std::string &diag = "", int64_t capacity = kAnyCapacity)
{
    size_t from = ipmihost_script_call_count();
    expectRequest(req.netFnLun, req.command, req.request, status, answer);
    int r = -99;
    EXPECT_DIAG(stderrOf([&] { r = call(); }), diag);
    EXPECT_EQ(r, result);
    expectSent(s, from, {req}, capacity);
}

std::string failedRaw(const std::string &fn) { return "\nipmihelpers.cpp:{line} (" + fn + ") Failed to send ipmi raw command.\n"; }

TEST_F(ChassisTest, PowerResetAndControl)
{
    IpmiSession *s = open();
    const struct {
        int (*op)(IpmiSession *);
        uint8_t action;
    } ops[] = {{ipmiPowerOff, 0}, {ipmiPowerOn, 1}, {ipmiPowerCycle, 2}, {ipmiHardReset, 3}, {ipmiSoftOff, 5}};
    for (const auto &op : ops) {
        SCOPED_TRACE(int(op.action));
        for (auto [status, answer, result] : {std::tuple{uint16_t(0), Bytes{0x00}, 1},
                                              {uint16_t(0x01C0), Bytes{0xC0}, 0}, {kTimeout, Bytes{}, 0}})
            once(s, {0x00, 0x02, {op.action}}, status, answer, [&] { return op.op(s); }, result);
    }
    // Power status: any bit of the first byte.
    for (auto [status, answer, result] : {std::tuple{uint16_t(0), Bytes{0x00, 0x01, 0x10, 0x40}, 1},
                                          {0, {0x00, 0x20, 0, 0}, 1}, {0, {0x00, 0x80, 0, 0}, 1},
                                          {0, {0x00, 0x00, 0x10, 0x40}, 0}, {0x01D5, {0xD5}, 0}, {kTimeout, {}, 0}})
        once(s, {0x00, 0x01, {}}, status, answer, [&] { return ipmiChassisPowerStatus(s); }, result);
    // Controller reset: 1 is warm, anything else cold; only the platform status counts.
    for (auto [kind, cmd, status, answer, result] :
         {std::tuple{1, uint8_t(0x03), uint16_t(0), Bytes{0x00}, 1}, {0, 0x02, 0, {0x00}, 1}, {2, 0x02, 0, {0x00}, 1},
          {-1, 0x02, 0, {0x00}, 1}, {257, 0x02, 0, {0x00}, 1}, {1, 0x03, 0, {0xC0}, 1}, {0, 0x02, 0x01C0, {0xC0}, 0},
          {1, 0x03, kTimeout, {}, 0}})
        once(s, {0x18, cmd, {}}, status, answer, [&, k = kind] { return ipmiReset(s, k); }, result, "", 0);
    // Chassis control and the graceful control share their answers and messages.
    for (bool graceful : {false, true}) {
        const char *name = graceful ? "ipmiSendGracefullControl" : "ipmiSendChassisControl";
        for (auto [code, sent, status, answer, result, message] :
             {std::tuple{0x01, uint8_t(0x01), uint16_t(0), Bytes{0x00}, 1, false}, {0x1A5, 0xA5, 0, {0x00}, 1, false},
              {0x02, 0x02, 0, {0xC1}, 0, false}, {0x03, 0x03, 0, {}, 0, false}, {0x05, 0x05, kTimeout, {}, 0, true},
              {0x00, 0x00, kLink, {}, 0, true}}) {
            Bytes request = graceful ? oem({sent}) : Bytes{sent};
            Bytes reply = graceful && !answer.empty() ? cat({answer, kIana}) : answer;
            auto op = graceful ? ipmiSendGracefullControl : ipmiSendChassisControl;
            once(s, {uint8_t(graceful ? 0xB8 : 0x00), 0x02, request}, status, reply,
                 [&, c = code] { return op(s, c); }, result, message ? failedRaw(name) : "", 0);
        }
    }
}

TEST_F(ChassisTest, PowerSourcesAndLeds)
{
    IpmiSession *s = open();
    for (auto [op, name, selector, selText] : {std::tuple{&ipmiPowerOnSource, "ipmiPowerOnSource", uint8_t(0x1B), "0x1b"},
                                               {ipmiPowerOffSource, "ipmiPowerOffSource", 0x17, "0x17"}}) {
        for (auto [source, sent, sentText, status, answer, result, error] :
             {std::tuple{0x05, uint8_t(0x05), "0x5", uint16_t(0), oemAnswer({}), 1, ""},
              {0x3A0, 0xA0, "0xa0", 0, oemAnswer({}), 1, ""}, {0x5A, 0x5A, "0x5a", 0, oemAnswer({}, 0xCC), 0, "0x0"},
              {0x01, 0x01, "0x1", kTimeout, {}, 0, "0x300"}, {0xFF, 0xFF, "0xff", kLink, {}, 0, "0x400"}}) {
            std::string diag = *error ? "\nipmihelpers.cpp:{line} (" + std::string(name) +
                                            ") Failed to send request with error " + error +
                                            "\n\n raw command:\n0xb8 0x1 0xd9 0x7e 0x0 " + selText +
                                            " 0x0 0x0 0x0 0x1 " + sentText + "\n"
                                      : "";
            once(s, {0xB8, 0x01, oem({selector, 0, 0, 0, 0x01, sent})}, status, answer,
                 [&, o = op, src = source] { return o(s, src); }, result, diag, 0);
        }
    }
    // Setting returns the platform status itself; the completion code is not looked at.
    for (auto [state, sent, status, answer] :
         {std::tuple{1, uint8_t(0x01), uint16_t(0), oemAnswer({})}, {0x100, 0x00, 0, oemAnswer({})},
          {2, 0x02, 0, oemAnswer({}, 0xC1)}, {1, 0x01, 0x01C1, oemAnswer({}, 0xC1)}, {0, 0x00, kTimeout, {}}})
        once(s, {0xB8, 0xF5, oem({0xB0, sent})}, status, answer, [&, st = state] { return ipmiSetIdenLed(s, st); },
             status, "", 0);
    for (auto [status, answer, identify, error] :
         {std::tuple{uint16_t(0), oemAnswer({0x03}), 1, 3}, {0, oemAnswer({0x01}), 1, 1}, {0, oemAnswer({0x02}), 0, 2},
          {0, oemAnswer({0xFE}), 0, 0xFE}, {0, oemAnswer({0x03}, 0xC1), 0, 0}, {0x01C1, oemAnswer({0x03}, 0xC1), 0, 0},
          {kTimeout, {}, 0, 0}}) {
        once(s, {0xB8, 0xF5, oem({0xB1})}, status, answer, [&] { return ipmiGetIdenLed(s); }, identify, "", 0);
        once(s, {0xB8, 0xF5, oem({0xB3})}, status, answer, [&] { return ipmiGetErrLed(s); }, error, "", 0);
    }
}

TEST_F(ChassisTest, NoSessionSendsNothing)
{
    std::string err = stderrOf([] {
        for (auto op : {ipmiPowerOff, ipmiPowerOn, ipmiPowerCycle, ipmiHardReset, ipmiSoftOff, ipmiChassisPowerStatus,
                        ipmiGetIdenLed, ipmiGetErrLed, ipmiResetConfigSpace, ipmiConsoleLogClear})
            EXPECT_EQ(op(nullptr), 0);
        for (auto op : {ipmiReset, ipmiSendGracefullControl, ipmiPowerOnSource, ipmiPowerOffSource, ipmiSetIdenLed})
            EXPECT_EQ(op(nullptr, 1), 0);
        uint8_t buffer[4] = {0xEE};
        uint32_t state = 7;
        EXPECT_EQ(ipmiReadConfigSpaceVariable(nullptr, 0, 0x2150, buffer), 0);
        EXPECT_EQ(buffer[0], 0xEE);
        EXPECT_EQ(ipmiWriteConfigSpaceVariable(nullptr, 0x1A3A, 1, buffer, 4), 1);
        EXPECT_EQ(ipmiConsoleLogGetState(nullptr, &state), 0);
        EXPECT_EQ(state, 7u);
        EXPECT_EQ(ipmiConsoleLogStart(nullptr), 0);
    });
    EXPECT_EQ(err, "");
    // Chassis control alone reports the missing session.
    EXPECT_DIAG(stderrOf([] { EXPECT_EQ(ipmiSendChassisControl(nullptr, 1), 0); }), failedRaw("ipmiSendChassisControl"));
    EXPECT_EQ(ipmihost_script_call_count(), 0u);
}

Bytes readAnswer(const Bytes &value) { return oemAnswer(cat({{static_cast<uint8_t>(value.size())}, value})); }

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
        {0, readAnswer({0x00, 0x01, 0x00}), 3, {0x00, 0x01, 0x00}, ""}, {0, readAnswer({}), 0, {}, ""},
        {0, readAnswer(longest), 250, longest, ""},
        {0, cat({readAnswer(longest), Bytes(45, 0x33)}), 250, longest, ""}, // longer than the answer buffer
        {0, oemAnswer({0x05, 'a', 'b'}), -1, {}, ""},                         // length byte beyond the bytes
        {0, oemAnswer(cat({{0xFF}, longest})), -1, {}, ""},                   // ... beyond the buffer
        {0, oemAnswer({}, 0xCB), -1, {}, ""}, {0, oemAnswer({0x01, 'x'}, 0xD4), -1, {}, ""},
        {0x01CB, {0xCB}, -1, {}, "ipmihelpers.cpp:{line}: error code = 1cb\n"},
        {kTimeout, {}, -1, {}, "ipmihelpers.cpp:{line}: error code = 3\n"},
        {kLink, {}, -1, {}, "ipmihelpers.cpp:{line}: error code = 4\n"},
    };
    for (const auto &c : reads) {
        uint8_t buffer[300];
        std::memset(buffer, 0xEE, sizeof buffer);
        once(s, {0xB8, 0xE0, oem({0x01, 0x02, 0x25, 0x1A})}, c.status, c.answer,
             [&] { return ipmiReadConfigSpaceVariable(s, 0x02, 0x1A25, buffer); }, c.result, c.diag);
        Bytes want = c.value;
        want.resize(sizeof buffer, 0xEE);
        EXPECT_EQ(Bytes(buffer, buffer + sizeof buffer), want);
    }
    // Without a buffer the length is still told.
    once(s, {0xB8, 0xE0, oem({0x01, 0xFF, 0x50, 0x21})}, 0, readAnswer({'1', '.', '2'}),
         [&] { return ipmiReadConfigSpaceVariable(s, 0xFF, 0x2150, nullptr); }, 3);

    const Bytes addr = {0xC0, 0xA8, 0x01, 0x02};
    const std::string writeFn = "\nipmihelpers.cpp:{line} (ipmiWriteConfigSpaceVariable) Failed to ";
    for (auto [index, variable, value, status, answer, result, diag] :
         {std::tuple{uint8_t(1), uint16_t(0x1A3A), addr, uint16_t(0), oemAnswer({}), 1, std::string()},
          {0, 0x0210, Bytes{}, 0, oemAnswer({}), 1, ""},
          {1, 0x1A3A, addr, 0, oemAnswer({}, 0xC1), 0, writeFn + "read config space variable, completion code = 0xc1\n"},
          {0, 0x1630, Bytes{0}, kTimeout, {}, 0, writeFn + "send request with error 0x300\n"},
          {0, 0x1630, Bytes{0}, kLink, {}, 0, writeFn + "send request with error 0x400\n"}}) {
        Bytes request = oem(cat({{0x02, index}, le16(variable), {uint8_t(value.size())}, value}));
        once(s, {0xB8, 0xE0, request}, status, answer,
             [&, i = index, v = variable, d = value] { return ipmiWriteConfigSpaceVariable(s, v, i, d.data(), uint8_t(d.size())); },
             result, diag);
    }
    // Reset of the whole space.
    for (auto [status, answer, result] :
         {std::tuple{uint16_t(0), oemAnswer({}), 1}, {0, oemAnswer({}, 0xC1), 0}, {kTimeout, {}, 0}})
        once(s, {0xB8, 0xF5, oem({0xE0, 'C', 'L', 'R', 0xAA})}, status, answer, [&] { return ipmiResetConfigSpace(s); },
             result, result ? "" : failedRaw("ipmiResetConfigSpace"));
}

TEST_F(ChassisTest, ConfigSpaceReadInASessionOfItsOwn)
{
    for (auto [size, answer, delivered, destination] :
         {std::tuple{4u, readAnswer({'a', 'b', 'c', 'd'}), true, Bytes{'a', 'b', 'c', 'd', 0xEE, 0xEE, 0xEE, 0xEE}},
          {6u, readAnswer({'a', 'b'}), true, Bytes{'a', 'b', 0, 0, 0, 0, 0xEE, 0xEE}},
          {4u, readAnswer({'a', 'b', 'c', 'd', 'e'}), false, Bytes(8, 0xEE)}, // one byte too long
          {0u, readAnswer({}), true, Bytes(8, 0xEE)}, {8u, oemAnswer({}, 0xCB), false, Bytes(8, 0xEE)}}) {
        ipmihost_script_reset();
        expectRequest(0xB8, 0xE0, oem({0x01, 0x01, 0x72, 0x00}), 0, answer);
        uint8_t dest[8];
        std::memset(dest, 0xEE, sizeof dest);
        void *result = nullptr;
        EXPECT_EQ(stderrOf([&] { result = getConfigSpaceVariable(dest, size, 0x01, 0x0072); }), "");
        EXPECT_EQ(result, delivered ? static_cast<void *>(dest) : nullptr);
        EXPECT_EQ(Bytes(dest, dest + 8), destination);
        std::vector<ipmihost_call> log = calls();
        ASSERT_EQ(log.size(), 3u);
        EXPECT_EQ(log[0].kind, IPMIHOST_CALL_OPEN);
        EXPECT_EQ(log[0].privLevel, 4);
        EXPECT_EQ(log[1].session, log[0].session);
        EXPECT_EQ(log[2].kind, IPMIHOST_CALL_CLOSE);
        EXPECT_EQ(log[2].session, log[0].session);
    }
    ipmihost_script_reset();
    ipmihost_script_open_result(LIBIPMI_STATUS_AUTH_FAILED, -1);
    uint8_t dest[8] = {0xEE};
    std::string err = stderrOf([&] { EXPECT_EQ(getConfigSpaceVariable(dest, sizeof dest, 0, 0x2150), nullptr); });
    EXPECT_TRUE(err.ends_with("failed to open session\n")) << err;
    EXPECT_EQ(dest[0], 0xEE);
    EXPECT_EQ(calls().size(), 1u);
}

TEST_F(ChassisTest, ConsoleLog)
{
    IpmiSession *s = open();
    for (auto [answer, state] : {std::pair{readAnswer({0x01}), 1u}, {readAnswer({0x00}), 0u}, {readAnswer({0x02}), 2u},
                                 {readAnswer({0x01, 0x01}), 7u}, {readAnswer({}), 7u}, {oemAnswer({}, 0xCB), 7u}}) {
        uint32_t got = 7;
        once(s, {0xB8, 0xE0, oem({0x01, 0x00, 0x30, 0x16})}, 0, answer, [&] { return ipmiConsoleLogGetState(s, &got); }, 0);
        EXPECT_EQ(got, state);
    }
    for (auto [op, name, value] : {std::tuple{&ipmiConsoleLogStart, "ipmiConsoleLogStart", uint8_t(1)},
                                   {ipmiConsoleLogStop, "ipmiConsoleLogStop", 0}}) {
        Sent req{0xB8, 0xE0, oem({0x02, 0x00, 0x30, 0x16, 0x01, value})};
        once(s, req, 0, oemAnswer({}), [&, o = op] { return o(s); }, 0);
        once(s, req, 0, oemAnswer({}, 0xD5), [&, o = op] { return o(s); }, 0,
             "\nipmihelpers.cpp:{line} (ipmiWriteConfigSpaceVariable) Failed to read config space variable, "
             "completion code = 0xd5\n\nipmihelpers.cpp:{line} (" +
                 std::string(name) + ") Failed to set ConfConsLoggingEnable variable\n");
    }
    // Clearing returns the platform status and does not look at the answer.
    for (auto [status, answer] : {std::pair{uint16_t(0), oemAnswer({})}, {0, oemAnswer({}, 0xC1)}, {kTimeout, Bytes{}}})
        once(s, {0xB8, 0xF5, oem({0x09, 0x07})}, status, answer, [&] { return ipmiConsoleLogClear(s); }, status);
}

} // namespace
