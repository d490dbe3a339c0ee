// Sessions, the raw request, the agent session guard and Get Device ID, scripted.
#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "common/session_guard.h"
#include "scripted.h"

namespace {

using SessionTest = ScriptTest;
using Open = IpmiSession *(*)(uint8_t, const char *, void *, uint32_t, void *);

int gAddr4 = 0, gAddr6 = 0, gServer = 0; // stand-ins for the caller's address records

struct OpenCase {
    uint8_t priv;
    std::string user;
    void *ipAddr;
    uint32_t ipVersion;
    void *serverIp;
    uint16_t failure; // status of a failed opening, 0: opens
    int privAfter;    // what the platform writes into the privilege byte on failure (-1: nothing)
    const char *statusHex, *privShown;
};

const OpenCase kOpens[] = {
    {TVX_PRIV_OPERATOR, "operator", &gAddr4, 4, &gServer, 0x0003, 2, "3", "2"},
    {TVX_PRIV_OEM, std::string(1024, 'u'), &gAddr6, 6, nullptr, 0x01D4, -1, "1d4", "5"}, // long lines stay whole
};

TEST_F(SessionTest, OpenHandsEveryArgumentToThePlatformAndReportsFailures)
{
    for (bool helper : {false, true}) {
        Open openFn = helper ? ipmiHelperOpenSession : ipmiOpenSession;
        for (const OpenCase &c : kOpens) {
            SCOPED_TRACE(c.user.substr(0, 10) + (helper ? " (helper)" : ""));
            ipmihost_script_reset();
            IpmiSession *s = nullptr;
            EXPECT_EQ(stderrOf([&] { s = openFn(c.priv, c.user.c_str(), c.ipAddr, c.ipVersion, c.serverIp); }), "");
            ASSERT_NE(s, nullptr);
            // A fresh, zero-filled block of the platform's session size.
            static const unsigned char kZero[36] = {};
            EXPECT_GE(malloc_usable_size(s), 36u);
            EXPECT_EQ(std::memcmp(s, kZero, sizeof kZero), 0);
            std::vector<ipmihost_call> log = calls();
            ASSERT_EQ(log.size(), 1u);
            const ipmihost_call &o = log[0];
            EXPECT_EQ(
                std::tuple(o.kind, o.session, std::string(o.userName), std::string(o.password),
                           std::string(o.userName2), o.privLevel, o.ipAddr, o.ipVersion, o.serverIp, o.arg9, o.arg10),
                std::tuple(IPMIHOST_CALL_OPEN, s, c.user, "", c.user, c.priv, c.ipAddr, c.ipVersion, c.serverIp, 2, 5));
            // Scribbled on before its close: the next open may get this block back, cleared.
            // Closed once, the handle cleared; closing it again or a null reaches nothing.
            std::memset(s, 0xA5, sizeof kZero);
            IpmiSession *const opened = s;
            ipmiHelperCloseSession(&s);
            EXPECT_EQ(s, nullptr);
            ipmiHelperCloseSession(&s);
            ipmiHelperCloseSession(nullptr);
            log = calls();
            ASSERT_EQ(log.size(), 2u);
            EXPECT_EQ(std::tuple(log[1].kind, log[1].session, log[1].status),
                      std::tuple(IPMIHOST_CALL_CLOSE, opened, LIBIPMI_STATUS_OK));

            // The same opening refused.
            ipmihost_script_reset();
            ASSERT_EQ(ipmihost_script_open_result(c.failure, c.privAfter), 0);
            std::string err = stderrOf([&] { s = openFn(c.priv, c.user.c_str(), c.ipAddr, c.ipVersion, c.serverIp); });
            EXPECT_EQ(s, nullptr);
            std::string want = "ERROR: {line} failed to create ipmi session with error 0x" + std::string(c.statusHex) +
                               ", username = " + c.user + ", privLevel = " + c.privShown +
                               ", ipAddr = " + pointerText(c.ipAddr) + ", IPVersion = " + std::to_string(c.ipVersion) +
                               ", pServerIp = " + pointerText(c.serverIp) + "\n";
            if (helper) want += "{line}, can't open ipmihelper session\n";
            EXPECT_DIAG(err, want);
            EXPECT_EQ(ipmihost_script_call_count(), 1u) << "a session that never opened is not closed";
        }
    }
}

TEST_F(SessionTest, SendCmdForwardsTheRequestAndMapsTheStatus)
{
    IpmiSession *s = open();
    const struct {
        uint8_t netFnLun, command;
        Bytes request;
        uint16_t status;
        Bytes response; // what the platform stores
        int rc;
        Bytes resultHead; // resData after the call, from byte 0
        uint32_t resultLen;
    } cases[] = {
        // clang-format off
        {0x2C, 0x42, {0x01, 0x02, 0x03}, 0x0000, {0x00, 0xAA, 0xBB}, 1, {0x00, 0xAA, 0xBB}, 3},
        {TVX_NETFN_STORAGE, 0x43, {0x00, 0x00}, 0x01CC, {0x00, 0x11}, 1, {0xCC, 0x11}, 2}, // code put into byte 0
        {TVX_NETFN_CHASSIS, 0x02, {0x01}, 0x01C1, {}, 1, {0xC1}, 0}, // an answer without bytes: length 0
        {TVX_NETFN_OEM_GROUP, 0x10, {0x9D, 0x7E}, 0x0003, {}, 0, {0x5A}, 0},
        {TVX_NETFN_APP, 0x01, {}, 0x11C1, {0x66}, 0, {0x66}, 1}, // no completion code
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.status);
        ipmihost_script_reset();
        expect(c.netFnLun, c.command, c.request, c.response, c.status);
        Bytes req = c.request;
        uint8_t res[16];
        std::memset(res, 0x5A, sizeof res);
        uint32_t len = sizeof res;
        uint8_t *reqPtr = req.empty() ? nullptr : req.data();
        int rc = -1;
        EXPECT_EQ(stderrOf([&] { rc = ipmiSendCmd(s, c.netFnLun, c.command, req.size(), reqPtr, &len, res); }), "");
        EXPECT_EQ(std::tuple(rc, len, Bytes(res, res + c.resultHead.size())),
                  std::tuple(c.rc, c.resultLen, c.resultHead));
        expectSent(s, 0, {{c.netFnLun, c.command, c.request}}, sizeof res); // exactly this one request
        EXPECT_EQ(std::tuple(rawSince().at(0).reqPtr, rawSince().at(0).resPtr), std::tuple(reqPtr, res));
    }
    // Without a response buffer or length, or with no capacity: nothing is sent.
    ipmihost_script_reset();
    uint8_t res[8] = {0x5A}, one = 0x01;
    uint32_t len = 8, zero = 0;
    EXPECT_EQ(ipmiSendCmd(s, TVX_NETFN_APP, 0x01, 1, &one, &len, nullptr), 0);
    EXPECT_EQ(ipmiSendCmd(s, TVX_NETFN_APP, 0x01, 1, &one, nullptr, res), 0);
    EXPECT_EQ(ipmiSendCmd(s, TVX_NETFN_APP, 0x01, 1, &one, &zero, res), 0);
    EXPECT_EQ(res[0], 0x5A);
    EXPECT_EQ(ipmihost_script_call_count(), 0u);
}

// A getter that leaves early or runs to its end; returns the handle it worked with.
const IpmiSession *getter(bool leaveEarly, bool &opened)
{
    tvx::AgentSession session;
    opened = static_cast<bool>(session);
    if (!session || leaveEarly) return session.get();
    uint8_t res[4];
    uint32_t len = sizeof res;
    (void)ipmiSendCmd(session.get(), TVX_NETFN_APP, 0x01, 0, nullptr, &len, res);
    return session.get();
}

TEST_F(SessionTest, AgentSessionOpensWithFixedArgumentsAndClosesOnEveryPath)
{
    for (bool leaveEarly : {true, false}) {
        SCOPED_TRACE(leaveEarly);
        ipmihost_script_reset();
        if (!leaveEarly) expect(0x18, 0x01, {}, {0x00, 0x20});
        bool opened = false;
        const IpmiSession *handle = nullptr;
        EXPECT_EQ(stderrOf([&] { handle = getter(leaveEarly, opened); }), "");
        EXPECT_TRUE(opened);
        std::vector<ipmihost_call> log = calls();
        ASSERT_EQ(log.size(), leaveEarly ? 2u : 3u);
        EXPECT_EQ(std::tuple(log.front().kind, log.back().kind, log.back().session),
                  std::tuple(IPMIHOST_CALL_OPEN, IPMIHOST_CALL_CLOSE, handle));
    }
    ipmihost_script_reset();
    ASSERT_EQ(ipmihost_script_open_result(LIBIPMI_STATUS_AUTH_FAILED, -1), 0);
    bool opened = true;
    std::string err = stderrOf([&] { EXPECT_EQ(getter(false, opened), nullptr); });
    EXPECT_FALSE(opened);
    EXPECT_DIAG(err, "ERROR: {line} failed to create ipmi session with error 0x9, username = , privLevel = 4, "
                     "ipAddr = (nil), IPVersion = 0, pServerIp = (nil)\n{line}, can't open ipmihelper session\n"
                     "failed to open session\n");
    EXPECT_EQ(ipmihost_script_call_count(), 1u);
}

// Completion code 0 and the 15 data bytes, each different from its neighbours.
const Bytes kDeviceId = {0x00, 0x20, 0x83, 0x03, 0x52, 0x02, 0xBF, 0xD9,
                         0x7E, 0x00, 0x4D, 0x0B, 0x00, 0x0A, 0x12, 0x03};

TEST_F(SessionTest, DeviceIdIsTheAnswerOrAZeroRecord)
{
    const std::string sendFailed = "\nipmihelpers.cpp:{line} (ipmiGetDeviceId) Failed to send ipmi raw command.\n";
    const std::string wrongSize =
        "\nipmihelpers.cpp:{line} (ipmiGetDeviceId) Failed to read device id, wrong response size.\n";
    const Bytes twelve(kDeviceId.begin(), kDeviceId.begin() + 12);
    for (const auto &[status, response, diag] : {std::tuple{uint16_t(0), kDeviceId, std::string()},
                                                 {cc(0xC1), cat({{0xC1}, twelve}), sendFailed},
                                                 {0, twelve, wrongSize}}) {
        SCOPED_TRACE(response.size());
        ipmihost_script_reset();
        IpmiSession *s = open();
        expect(0x18, 0x01, {}, response, status);
        IpmiDeviceId id;
        EXPECT_DIAG(stderrOf([&] { id = ipmiGetDeviceId(s); }), diag);
        Bytes want = diag.empty() ? Bytes(kDeviceId.begin() + 1, kDeviceId.end()) : Bytes(sizeof id, 0);
        EXPECT_EQ(Bytes(reinterpret_cast<uint8_t *>(&id), reinterpret_cast<uint8_t *>(&id) + sizeof id), want);
        // Exactly once, without data, stating no capacity; no close.
        expectSent(s, 0, {{0x18, 0x01, {}}}, 0);
        EXPECT_EQ(calls().size(), 2u);
        EXPECT_EQ(rawSince()[0].reqPtr, nullptr);
        ipmiHelperCloseSession(&session_);
    }
    ipmihost_script_reset();
    IpmiDeviceId none;
    EXPECT_DIAG(stderrOf([&] { none = ipmiGetDeviceId(nullptr); }),
                "\nipmihelpers.cpp:{line} (ipmiGetDeviceId) Session check failed.\n");
    EXPECT_EQ(Bytes(reinterpret_cast<uint8_t *>(&none), reinterpret_cast<uint8_t *>(&none) + sizeof none),
              Bytes(sizeof none, 0));
    EXPECT_EQ(ipmihost_script_call_count(), 0u);
}

// Every operation handed a null session returns its failure value and sends nothing.
TEST_F(SessionTest, NoSessionSendsNothing)
{
    auto zero = [](const auto &record) {
        const auto *p = reinterpret_cast<const uint8_t *>(&record);
        return std::all_of(p, p + sizeof record, [](uint8_t b) { return b == 0; });
    };
    const uint8_t record[16] = {1, 0, 2};
    uint8_t buffer[256] = {0xEE};
    uint32_t len = sizeof buffer, state = 7;
    uint8_t raw = 0xEE;
    uint16_t bits = 0xEEEE;
    SDRInfo info{};
    ErrorCodeRecord code{};
    const std::pair<const char *, std::function<bool()>> cases[] = {
        {"ipmiSendCmd", [&] { return ipmiSendCmd(nullptr, 0x18, 0x01, 0, nullptr, &len, buffer) == 0; }},
        {"getSDRInfo", [&] { return getSDRInfo(nullptr, &info) == 0; }},
        {"ipmiGetSensorReading", [&] { return ipmiGetSensorReading(nullptr, 1, &raw, &bits) == 0 && raw == 0xEE; }},
        {"oemGetComponentStatus", [&] { return oemGetComponentStatus(nullptr, buffer) == nullptr; }},
        {"ipmiGetSelRawStrings", [] { return ipmiGetSelRawStrings(nullptr, 0) == nullptr; }},
        {"ipmiGetSelInfo", [&] { return zero(ipmiGetSelInfo(nullptr)); }},
        {"ipmiGetSelTimeUtcOffset", [] { return ipmiGetSelTimeUtcOffset(nullptr) == -1; }},
        {"ipmiClearEventLog", [] { return ipmiClearEventLog(nullptr) == 0; }},
        {"ipmiWriteSelEntry", [] { return ipmiWriteSelEntry(nullptr, 1, 2, 3, 4, 5, 6) == 0; }},
        {"getErrorCode",
         [&] {
             ErrorCodeRecord *r = getErrorCode(nullptr, record, 0);
             bool empty = r && zero(*r);
             freeErrorCode(r);
             return empty;
         }},
        {"getSelTextByErrorCode", [&] { return getSelTextByErrorCode(nullptr, &code, nullptr, 0, 0, 0x0409) == nullptr; }},
        {"buildSelTextString", [&] { return buildSelTextString(nullptr, record, 0, 1, 1, 0x0409) == nullptr; }},
        {"ipmiGetSelText", [] { return ipmiGetSelText(nullptr, 0, 0) == nullptr; }},
        {"getSELEntryText", [&] { return zero(getSELEntryText(nullptr, 1)); }},
        {"ipmiInterpretSELEntryUsTextFollowUp", [] { return ipmiInterpretSELEntryUsTextFollowUp(nullptr, 1, 10) == nullptr; }},
        {"ipmiGetiESLSELEntryAsText", [&] { return zero(ipmiGetiESLSELEntryAsText(nullptr, 0, 1, 0, 0, 0, 0)); }},
        {"power", [] {
             return ipmiPowerOff(nullptr) + ipmiPowerOn(nullptr) + ipmiPowerCycle(nullptr) + ipmiHardReset(nullptr) +
                        ipmiSoftOff(nullptr) + ipmiChassisPowerStatus(nullptr) + ipmiReset(nullptr, 1) ==
                    0;
         }},
        {"controls", [] {
             return ipmiSendGracefullControl(nullptr, 1) + ipmiPowerOnSource(nullptr, 1) +
                        ipmiPowerOffSource(nullptr, 1) ==
                    0;
         }},
        {"LEDs", [] { return ipmiSetIdenLed(nullptr, 1) + ipmiGetIdenLed(nullptr) + ipmiGetErrLed(nullptr) == 0; }},
        {"ipmiReadConfigSpaceVariable", [&] { return ipmiReadConfigSpaceVariable(nullptr, 0, 0x2150, buffer) == 0; }},
        {"ipmiWriteConfigSpaceVariable", [&] { return ipmiWriteConfigSpaceVariable(nullptr, 0x2150, 0, buffer, 1) == 1; }},
        {"console log", [&] {
             return ipmiResetConfigSpace(nullptr) + ipmiConsoleLogGetState(nullptr, &state) +
                            ipmiConsoleLogStart(nullptr) + ipmiConsoleLogStop(nullptr) + ipmiConsoleLogClear(nullptr) ==
                        0 &&
                    state == 7;
         }},
        {"LAN reads", [] {
             return getChannel(nullptr) == 0 && !_ipmiGetLanParameter(nullptr, 3) && !ipmiGetIpAddress(nullptr) &&
                    !ipmiGetNetMask(nullptr) && !ipmiGetDefaultGateway(nullptr) && !ipmiGetMacAddress(nullptr) &&
                    ipmiGetAddressSource(nullptr) == -1;
         }},
        {"LAN writes", [&] {
             return _ipmiSetLanParameter(nullptr, 3, buffer) + ipmiSetIpAddress(nullptr, buffer) +
                        ipmiSetNetMask(nullptr, buffer) + ipmiSetDefaultGateway(nullptr, buffer) +
                        ipmiSetMacAddress(nullptr, buffer) + ipmiSetAddressSource(nullptr, 1) ==
                    0;
         }},
        {"partitions", [] {
             return ipmiGetSbNumber(nullptr) == 255 && ipmiIsKVSystem(nullptr) == 0 && ipmiGetSbSlaveAddr(nullptr) == 0x20;
         }},
    };
    for (const auto &[name, call] : cases) {
        SCOPED_TRACE(name);
        ipmihost_script_reset();
        bool failed = false;
        EXPECT_EQ(stderrOf([&] { failed = call(); }), "");
        EXPECT_TRUE(failed);
        EXPECT_EQ(ipmihost_script_call_count(), 0u);
    }
}

} // namespace
