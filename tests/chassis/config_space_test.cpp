// Configuration-space variables (OEM command 0xE0), the reset of the whole space and the
// console log operations built on them.
#include <cstring>

#include "scripted.h"

namespace {

using ConfigSpaceTest = ScriptTest;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr uint16_t kTimeout = LIBIPMI_STATUS_TIMEOUT;

Bytes readAnswer(const Bytes &value) { return oemAnswer(cat({static_cast<uint8_t>(value.size())}, value)); }

Bytes pattern(size_t n, uint8_t seed)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + 7 * i);
    return b;
}

TEST_F(ConfigSpaceTest, ReadVariable)
{
    IpmiSession *s = open();
    const Bytes longest = pattern(250, 0x11);
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int result;
        Bytes value; // the bytes expected at the start of the buffer; the rest stays 0xEE
        const char *diag;
    } cases[] = {
        {"text", 0, readAnswer({'a', 'b', 'c'}), 3, {'a', 'b', 'c'}, ""},
        {"binary with zeros", 0, readAnswer({0x00, 0x01, 0x00}), 3, {0x00, 0x01, 0x00}, ""},
        {"empty", 0, readAnswer({}), 0, {}, ""},
        {"longest", 0, readAnswer(longest), 250, longest, ""},
        {"longer than the answer buffer", 0, cat(readAnswer(longest), pattern(45, 0x33)), 250, longest, ""},
        {"length byte beyond the bytes", 0, oemAnswer({0x05, 'a', 'b'}), -1, {}, ""},
        {"length byte beyond the buffer", 0, oemAnswer(cat({0xFF}, longest)), -1, {}, ""},
        {"not present", 0, oemAnswer({}, 0xCB), -1, {}, ""},
        {"other completion code", 0, oemAnswer({0x01, 'x'}, 0xD4), -1, {}, ""},
        {"no answer", kTimeout, {}, -1, {}, "ipmihelpers.cpp:{line}: error code = 3\n"},
        {"link failure", LIBIPMI_STATUS_TRANSPORT, {}, -1, {}, "ipmihelpers.cpp:{line}: error code = 4\n"},
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        const Bytes request = oem({0x01, 0x02, 0x25, 0x1A});
        expectRequest(0xB8, 0xE0, request, c.status, c.answer);
        uint8_t buffer[300];
        std::memset(buffer, 0xEE, sizeof buffer);
        CaptureStderr();
        EXPECT_EQ(ipmiReadConfigSpaceVariable(s, 0x02, 0x1A25, buffer), c.result) << c.what;
        EXPECT_DIAG(GetCapturedStderr(), c.diag) << c.what;
        Bytes expected = c.value;
        expected.resize(sizeof buffer, 0xEE);
        EXPECT_EQ(Bytes(buffer, buffer + sizeof buffer), expected) << c.what;
        expectSent(s, from, {{0xB8, 0xE0, request}}, kAnyCapacity, c.what);
    }

    // A completion code that the platform reports in its status is a failure too.
    expectRequest(0xB8, 0xE0, oem({0x01, 0x00, 0x30, 0x16}), 0x01CB, {0xCB});
    uint8_t buffer[255] = {};
    CaptureStderr();
    EXPECT_EQ(ipmiReadConfigSpaceVariable(s, 0x00, 0x1630, buffer), -1);
    GetCapturedStderr();

    // Without a buffer the length is still told.
    expectRequest(0xB8, 0xE0, oem({0x01, 0xFF, 0x50, 0x21}), 0, readAnswer({'1', '.', '2'}));
    EXPECT_EQ(ipmiReadConfigSpaceVariable(s, 0xFF, 0x2150, nullptr), 3);

    size_t before = ipmihost_script_call_count();
    std::memset(buffer, 0xEE, sizeof buffer);
    EXPECT_EQ(ipmiReadConfigSpaceVariable(nullptr, 0, 0x2150, buffer), 0);
    EXPECT_EQ(buffer[0], 0xEE);
    EXPECT_EQ(ipmihost_script_call_count(), before);
}

TEST_F(ConfigSpaceTest, WriteVariable)
{
    IpmiSession *s = open();
    const Bytes address = {0xC0, 0xA8, 0x01, 0x02};
    const struct {
        const char *what;
        uint8_t index;
        uint16_t variable;
        Bytes value;
        Bytes request;
        uint16_t status;
        Bytes answer;
        int result;
        const char *diag;
    } cases[] = {
        {"four bytes", 0x01, 0x1A3A, address, oem({0x02, 0x01, 0x3A, 0x1A, 0x04, 0xC0, 0xA8, 0x01, 0x02}), 0,
         oemAnswer({}), 1, ""},
        {"one byte", 0x00, 0x1630, {0x01}, oem({0x02, 0x00, 0x30, 0x16, 0x01, 0x01}), 0, oemAnswer({}), 1, ""},
        {"empty", 0x03, 0x0210, {}, oem({0x02, 0x03, 0x10, 0x02, 0x00}), 0, oemAnswer({}), 1, ""},
        {"completion code", 0x01, 0x1A3A, address, oem({0x02, 0x01, 0x3A, 0x1A, 0x04, 0xC0, 0xA8, 0x01, 0x02}), 0,
         oemAnswer({}, 0xC1), 0,
         "\nipmihelpers.cpp:{line} (ipmiWriteConfigSpaceVariable) Failed to read config space variable, "
         "completion code = 0xc1\n"},
        {"no answer", 0x00, 0x1630, {0x00}, oem({0x02, 0x00, 0x30, 0x16, 0x01, 0x00}), kTimeout, {}, 0,
         "\nipmihelpers.cpp:{line} (ipmiWriteConfigSpaceVariable) Failed to send request with error 0x300\n"},
        {"link failure", 0x00, 0x1630, {0x00}, oem({0x02, 0x00, 0x30, 0x16, 0x01, 0x00}), LIBIPMI_STATUS_TRANSPORT,
         {}, 0, "\nipmihelpers.cpp:{line} (ipmiWriteConfigSpaceVariable) Failed to send request with error 0x400\n"},
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        expectRequest(0xB8, 0xE0, c.request, c.status, c.answer);
        CaptureStderr();
        EXPECT_EQ(ipmiWriteConfigSpaceVariable(s, c.variable, c.index, c.value.data(),
                                               static_cast<uint8_t>(c.value.size())),
                  c.result)
            << c.what;
        EXPECT_DIAG(GetCapturedStderr(), c.diag) << c.what;
        expectSent(s, from, {{0xB8, 0xE0, c.request}}, kAnyCapacity, c.what);
    }
    size_t before = ipmihost_script_call_count();
    EXPECT_EQ(ipmiWriteConfigSpaceVariable(nullptr, 0x1A3A, 1, address.data(), 4), 1);
    EXPECT_EQ(ipmihost_script_call_count(), before);
}

TEST_F(ConfigSpaceTest, ReadInASessionOfItsOwn)
{
    const struct {
        const char *what;
        unsigned size;
        uint16_t status;
        Bytes answer;
        bool delivered;
        Bytes destination; // the whole 8-byte destination afterwards
    } cases[] = {
        {"exact fit", 4, 0, readAnswer({'a', 'b', 'c', 'd'}), true, {'a', 'b', 'c', 'd', 0xEE, 0xEE, 0xEE, 0xEE}},
        {"zero-filled after the value", 6, 0, readAnswer({'a', 'b'}), true, {'a', 'b', 0, 0, 0, 0, 0xEE, 0xEE}},
        {"one byte too long", 4, 0, readAnswer({'a', 'b', 'c', 'd', 'e'}), false, Bytes(8, 0xEE)},
        {"empty", 5, 0, readAnswer({}), true, {0, 0, 0, 0, 0, 0xEE, 0xEE, 0xEE}},
        {"empty into nothing", 0, 0, readAnswer({}), true, Bytes(8, 0xEE)},
        {"not present", 8, 0, oemAnswer({}, 0xCB), false, Bytes(8, 0xEE)},
    };
    for (const auto &c : cases) {
        ipmihost_script_reset();
        const Bytes request = oem({0x01, 0x01, 0x72, 0x00});
        expectRequest(0xB8, 0xE0, request, c.status, c.answer);
        uint8_t destination[8];
        std::memset(destination, 0xEE, sizeof destination);
        CaptureStderr();
        void *result = getConfigSpaceVariable(destination, c.size, 0x01, 0x0072);
        EXPECT_EQ(GetCapturedStderr(), "") << c.what;
        EXPECT_EQ(result, c.delivered ? static_cast<void *>(destination) : nullptr) << c.what;
        EXPECT_EQ(Bytes(destination, destination + sizeof destination), c.destination) << c.what;

        std::vector<ipmihost_call> log = calls();
        ASSERT_EQ(log.size(), 3u) << c.what;
        EXPECT_EQ(log[0].kind, IPMIHOST_CALL_OPEN) << c.what;
        EXPECT_EQ(log[0].privLevel, 4) << c.what;
        EXPECT_STREQ(log[0].userName, "") << c.what;
        EXPECT_EQ(log[0].ipAddr, nullptr) << c.what;
        EXPECT_EQ(log[0].ipVersion, 0u) << c.what;
        EXPECT_EQ(log[0].serverIp, nullptr) << c.what;
        EXPECT_EQ(log[1].kind, IPMIHOST_CALL_RAW) << c.what;
        EXPECT_EQ(log[1].session, log[0].session) << c.what;
        EXPECT_EQ(requestOf(log[1]), request) << c.what;
        EXPECT_EQ(log[2].kind, IPMIHOST_CALL_CLOSE) << c.what;
        EXPECT_EQ(log[2].session, log[0].session) << c.what;
        EXPECT_EQ(ipmihost_script_mismatches(), 0u) << c.what;
    }

    // A session that cannot be opened.
    ipmihost_script_reset();
    ipmihost_script_open_result(LIBIPMI_STATUS_AUTH_FAILED, -1);
    uint8_t destination[8];
    std::memset(destination, 0xEE, sizeof destination);
    CaptureStderr();
    EXPECT_EQ(getConfigSpaceVariable(destination, sizeof destination, 0, 0x2150), nullptr);
    std::string err = GetCapturedStderr();
    const std::string tail = "failed to open session\n";
    EXPECT_TRUE(err.size() >= tail.size() && err.compare(err.size() - tail.size(), tail.size(), tail) == 0) << err;
    EXPECT_EQ(destination[0], 0xEE);
    std::vector<ipmihost_call> log = calls();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].kind, IPMIHOST_CALL_OPEN);
}

TEST_F(ConfigSpaceTest, ResetConfigSpace)
{
    IpmiSession *s = open();
    const Bytes request = oem({0xE0, 'C', 'L', 'R', 0xAA});
    const std::string failed = "\nipmihelpers.cpp:{line} (ipmiResetConfigSpace) Failed to send ipmi raw command.\n";
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int result;
        std::string diag;
    } cases[] = {
        {"accepted", 0, oemAnswer({}), 1, ""},
        {"completion code", 0, oemAnswer({}, 0xC1), 0, failed},
        {"no answer", kTimeout, {}, 0, failed},
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        expectRequest(0xB8, 0xF5, request, c.status, c.answer);
        CaptureStderr();
        EXPECT_EQ(ipmiResetConfigSpace(s), c.result) << c.what;
        EXPECT_DIAG(GetCapturedStderr(), c.diag) << c.what;
        expectSent(s, from, {{0xB8, 0xF5, request}}, kAnyCapacity, c.what);
    }
    size_t before = ipmihost_script_call_count();
    EXPECT_EQ(ipmiResetConfigSpace(nullptr), 0);
    EXPECT_EQ(ipmihost_script_call_count(), before);
}

TEST_F(ConfigSpaceTest, ConsoleLogState)
{
    IpmiSession *s = open();
    const Bytes request = oem({0x01, 0x00, 0x30, 0x16});
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        uint32_t state; // starting from 7
    } cases[] = {
        {"on", 0, readAnswer({0x01}), 1},
        {"off", 0, readAnswer({0x00}), 0},
        {"other value", 0, readAnswer({0x02}), 2},
        {"two bytes", 0, readAnswer({0x01, 0x01}), 7},
        {"empty", 0, readAnswer({}), 7},
        {"not present", 0, oemAnswer({}, 0xCB), 7},
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        expectRequest(0xB8, 0xE0, request, c.status, c.answer);
        uint32_t state = 7;
        EXPECT_EQ(ipmiConsoleLogGetState(s, &state), 0) << c.what;
        EXPECT_EQ(state, c.state) << c.what;
        expectSent(s, from, {{0xB8, 0xE0, request}}, kAnyCapacity, c.what);
    }
    uint32_t state = 7;
    EXPECT_EQ(ipmiConsoleLogGetState(nullptr, &state), 0);
    EXPECT_EQ(state, 7u);
}

TEST_F(ConfigSpaceTest, ConsoleLogStartStopClear)
{
    IpmiSession *s = open();
    const struct {
        const char *name;
        int (*op)(IpmiSession *);
        uint8_t value;
    } ops[] = {{"ipmiConsoleLogStart", ipmiConsoleLogStart, 0x01}, {"ipmiConsoleLogStop", ipmiConsoleLogStop, 0x00}};
    for (const auto &op : ops) {
        const Bytes request = oem({0x02, 0x00, 0x30, 0x16, 0x01, op.value});
        size_t from = ipmihost_script_call_count();
        expectRequest(0xB8, 0xE0, request, 0, oemAnswer({}));
        expectRequest(0xB8, 0xE0, request, 0, oemAnswer({}, 0xD5));
        CaptureStderr();
        EXPECT_EQ(op.op(s), 0) << op.name;
        EXPECT_EQ(GetCapturedStderr(), "") << op.name;
        CaptureStderr();
        EXPECT_EQ(op.op(s), 0) << op.name;
        EXPECT_DIAG(GetCapturedStderr(), "\nipmihelpers.cpp:{line} (ipmiWriteConfigSpaceVariable) Failed to read "
                                         "config space variable, completion code = 0xd5\n"
                                         "\nipmihelpers.cpp:{line} (" +
                                             std::string(op.name) +
                                             ") Failed to set ConfConsLoggingEnable variable\n")
            << op.name;
        expectSent(s, from, {{0xB8, 0xE0, request}, {0xB8, 0xE0, request}}, kAnyCapacity, op.name);
        size_t before = ipmihost_script_call_count();
        CaptureStderr();
        EXPECT_EQ(op.op(nullptr), 0) << op.name;
        EXPECT_EQ(GetCapturedStderr(), "") << op.name;
        EXPECT_EQ(ipmihost_script_call_count(), before) << op.name;
    }

    // Clearing returns the platform status and does not look at the answer.
    const Bytes clear = oem({0x09, 0x07});
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int result;
    } clears[] = {
        {"cleared", 0, oemAnswer({}), 0},
        {"completion code in the answer", 0, oemAnswer({}, 0xC1), 0},
        {"no answer", kTimeout, {}, kTimeout},
    };
    for (const auto &c : clears) {
        size_t from = ipmihost_script_call_count();
        expectRequest(0xB8, 0xF5, clear, c.status, c.answer);
        EXPECT_EQ(ipmiConsoleLogClear(s), c.result) << c.what;
        expectSent(s, from, {{0xB8, 0xF5, clear}}, kAnyCapacity, c.what);
    }
    size_t before = ipmihost_script_call_count();
    EXPECT_EQ(ipmiConsoleLogClear(nullptr), 0);
    EXPECT_EQ(ipmihost_script_call_count(), before);
}

} // namespace
