// Opening and closing sessions and the raw request, against the scripted exchange.
#include <malloc.h>

#include <cstring>

#include "script_fixture.h"

namespace {

using SessionTest = ScriptTest;

int gAddr4 = 0, gAddr6 = 0, gServer = 0; // stand-ins for the caller's address records

struct OpenCase {
    const char *name;
    uint8_t priv;
    std::string user;
    void *ipAddr;
    uint32_t ipVersion;
    void *serverIp;
};

const OpenCase kOpenCases[] = {
    {"agent defaults", TVX_PRIV_ADMIN, "", nullptr, 0, nullptr},
    {"operator over IPv4", TVX_PRIV_OPERATOR, "operator", &gAddr4, 4, &gServer},
    {"OEM over IPv6, no server", TVX_PRIV_OEM, "admin", &gAddr6, 6, nullptr},
    {"user name of 1024 characters", TVX_PRIV_USER, std::string(1024, 'u'), nullptr, 0, &gServer},
};

TEST_F(SessionTest, OpenHandsEveryArgumentToThePlatform)
{
    for (bool helper : {false, true}) {
        for (const OpenCase &c : kOpenCases) {
            SCOPED_TRACE(std::string(c.name) + (helper ? " (helper)" : ""));
            ipmihost_script_reset();
            testing::internal::CaptureStderr();
            IpmiSession *s = (helper ? ipmiHelperOpenSession : ipmiOpenSession)(c.priv, c.user.c_str(), c.ipAddr,
                                                                                c.ipVersion, c.serverIp);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
            ASSERT_NE(s, nullptr);
            // A fresh, zero-filled block of the platform's session size.
            EXPECT_GE(malloc_usable_size(s), 36u);
            static const unsigned char kZero[36] = {};
            EXPECT_EQ(std::memcmp(s, kZero, sizeof kZero), 0);

            std::vector<ipmihost_call> log = calls();
            ASSERT_EQ(log.size(), 1u);
            const ipmihost_call &o = log[0];
            EXPECT_EQ(o.kind, IPMIHOST_CALL_OPEN);
            EXPECT_EQ(o.session, s);
            ASSERT_NE(o.userName, nullptr);
            EXPECT_EQ(std::string(o.userName), c.user);
            ASSERT_NE(o.password, nullptr);
            EXPECT_STREQ(o.password, "");
            ASSERT_NE(o.userName2, nullptr);
            EXPECT_EQ(std::string(o.userName2), c.user);
            EXPECT_EQ(o.privLevel, c.priv);
            EXPECT_EQ(o.ipAddr, c.ipAddr);
            EXPECT_EQ(o.ipVersion, c.ipVersion);
            EXPECT_EQ(o.serverIp, c.serverIp);
            EXPECT_EQ(o.arg9, 2);
            EXPECT_EQ(o.arg10, 5);
            ipmiHelperCloseSession(&s);
        }
    }
}

struct OpenFailure {
    const char *name;
    uint16_t status;
    int privAfter; // what the platform writes into the privilege byte (-1: nothing)
    OpenCase args;
    const char *statusHex;
    const char *privShown;
};

const OpenFailure kOpenFailures[] = {
    {"refused", 0x0009, -1, kOpenCases[0], "9", "4"},
    {"timed out, privilege lowered by the platform", 0x0003, 2, kOpenCases[1], "3", "2"},
    {"completion-code status", 0x01D4, -1, kOpenCases[2], "1d4", "5"},
    {"user name of 1024 characters", 0x0004, -1, kOpenCases[3], "4", "2"},
};

TEST_F(SessionTest, FailedOpenReportsAndReturnsNull)
{
    for (bool helper : {false, true}) {
        for (const OpenFailure &f : kOpenFailures) {
            SCOPED_TRACE(std::string(f.name) + (helper ? " (helper)" : ""));
            ipmihost_script_reset();
            ASSERT_EQ(ipmihost_script_open_result(f.status, f.privAfter), 0);
            const OpenCase &a = f.args;
            testing::internal::CaptureStderr();
            IpmiSession *s = (helper ? ipmiHelperOpenSession : ipmiOpenSession)(a.priv, a.user.c_str(), a.ipAddr,
                                                                                a.ipVersion, a.serverIp);
            std::string err = testing::internal::GetCapturedStderr();
            EXPECT_EQ(s, nullptr);
            std::string expected = "ERROR: {line} failed to create ipmi session with error 0x" +
                                   std::string(f.statusHex) + ", username = " + a.user +
                                   ", privLevel = " + f.privShown + ", ipAddr = " + pointerText(a.ipAddr) +
                                   ", IPVersion = " + std::to_string(a.ipVersion) +
                                   ", pServerIp = " + pointerText(a.serverIp) + "\n";
            if (helper) expected += "{line}, can't open ipmihelper session\n";
            EXPECT_DIAG(err, expected);
            // Nothing but the one attempt: a session that never opened is not closed.
            EXPECT_EQ(ipmihost_script_call_count(), 1u);
        }
    }
}

TEST_F(SessionTest, CloseClosesOnceAndClearsTheHandle)
{
    IpmiSession *s = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
    ASSERT_NE(s, nullptr);
    IpmiSession *opened = s;
    ipmiHelperCloseSession(&s);
    EXPECT_EQ(s, nullptr);
    ipmiHelperCloseSession(&s);
    ipmiHelperCloseSession(nullptr);

    std::vector<ipmihost_call> log = calls();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[1].kind, IPMIHOST_CALL_CLOSE);
    EXPECT_EQ(log[1].session, opened);
    EXPECT_EQ(log[1].status, LIBIPMI_STATUS_OK) << "the platform did not know the handle";
}

TEST_F(SessionTest, SendCmdWithoutSessionOrResponseBufferSendsNothing)
{
    IpmiSession *s = open();
    uint8_t req[] = {0x01};
    struct Case {
        const char *name;
        IpmiSession *session;
        bool haveRes, haveLen;
        uint32_t len;
    } cases[] = {
        {"no session", nullptr, true, true, 8},
        {"no response buffer", s, false, true, 8},
        {"no length", s, true, false, 8},
        {"capacity 0", s, true, true, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        uint8_t res[8];
        std::memset(res, 0x5A, sizeof res);
        uint32_t len = c.len;
        testing::internal::CaptureStderr();
        int rc = ipmiSendCmd(c.session, TVX_NETFN_APP, 0x01, sizeof req, req, c.haveLen ? &len : nullptr,
                             c.haveRes ? res : nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(len, c.len);
        EXPECT_EQ(res[0], 0x5A);
    }
    EXPECT_EQ(ipmihost_script_call_count(), 1u) << "only the opening may reach the platform";
}

struct SendCase {
    const char *name;
    uint8_t netFnLun, command;
    std::vector<uint8_t> request;
    uint16_t status;
    std::vector<uint8_t> response; // what the platform stores
    int rc;
    std::vector<uint8_t> resultHead; // resData after the call, from byte 0
    uint32_t resultLen;
};

const SendCase kSendCases[] = {
    {"success", 0x2C, 0x42, {0x01, 0x02, 0x03}, 0x0000, {0x00, 0xAA, 0xBB}, 1, {0x00, 0xAA, 0xBB}, 3},
    {"no request data", TVX_NETFN_APP, 0x01, {}, 0x0000, {0x00, 0x20}, 1, {0x00, 0x20}, 2},
    {"completion code with its byte", TVX_NETFN_SENSOR, 0x2D, {0x07}, 0x01C1, {0xC1}, 1, {0xC1}, 1},
    {"completion code put into byte 0", TVX_NETFN_STORAGE, 0x43, {0x00, 0x00}, 0x01CC, {0x00, 0x11}, 1,
     {0xCC, 0x11}, 2},
    {"completion code without bytes", TVX_NETFN_CHASSIS, 0x02, {0x01}, 0x01C1, {}, 1, {0xC1}, 0},
    {"invalid argument", TVX_NETFN_APP, 0x01, {}, 0x0001, {}, 0, {0x5A}, 0},
    {"timeout", TVX_NETFN_OEM_GROUP, 0x10, {0x9D, 0x7E}, 0x0003, {}, 0, {0x5A}, 0},
    {"status 0x0200 with bytes left alone", TVX_NETFN_APP, 0x01, {}, 0x0200, {0x77, 0x88}, 0, {0x77, 0x88}, 2},
    {"status 0x11C1 is no completion code", TVX_NETFN_APP, 0x01, {}, 0x11C1, {0x66}, 0, {0x66}, 1},
};

TEST_F(SessionTest, SendCmdForwardsTheRequestAndMapsTheStatus)
{
    IpmiSession *s = open();
    for (const SendCase &c : kSendCases) {
        SCOPED_TRACE(c.name);
        ipmihost_script_reset();
        ASSERT_EQ(ipmihost_script_expect(c.netFnLun, c.command, c.request.data(), c.request.size(), c.status,
                                         c.response.data(), c.response.size()),
                  0);
        std::vector<uint8_t> req = c.request;
        uint8_t res[16];
        std::memset(res, 0x5A, sizeof res);
        uint32_t len = sizeof res;
        uint8_t *reqPtr = req.empty() ? nullptr : req.data();
        testing::internal::CaptureStderr();
        int rc = ipmiSendCmd(s, c.netFnLun, c.command, req.size(), reqPtr, &len, res);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(len, c.resultLen);
        EXPECT_EQ(std::vector<uint8_t>(res, res + c.resultHead.size()), c.resultHead);

        std::vector<ipmihost_call> log = calls();
        ASSERT_EQ(log.size(), 1u);
        const ipmihost_call &r = log[0];
        EXPECT_EQ(r.kind, IPMIHOST_CALL_RAW);
        EXPECT_EQ(r.session, s);
        EXPECT_EQ(r.payloadType, 0);
        EXPECT_EQ(r.netFnLun, c.netFnLun);
        EXPECT_EQ(r.command, c.command);
        EXPECT_EQ(r.reqPtr, reqPtr);
        EXPECT_EQ(r.reqLen, c.request.size());
        EXPECT_EQ(r.resPtr, res);
        EXPECT_EQ(r.resLenPtrNull, 0);
        EXPECT_EQ(r.resLenIn, sizeof res);
        EXPECT_EQ(r.timeout, 60);
    }
}

} // namespace
