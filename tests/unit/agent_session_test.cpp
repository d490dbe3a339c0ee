// The agent getters' session guard: opened with the agent's fixed arguments, closed on every
// path out of the getter.
#include "common/session_guard.h"
#include "script_fixture.h"

namespace {

using AgentSessionTest = ScriptTest;

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

TEST_F(AgentSessionTest, OpensWithAgentArgumentsAndClosesOnEveryPath)
{
    for (bool leaveEarly : {true, false}) {
        SCOPED_TRACE(leaveEarly ? "early return" : "runs to its end");
        ipmihost_script_reset();
        static const uint8_t kAnswer[] = {0x00, 0x20};
        if (!leaveEarly) {
            ASSERT_EQ(ipmihost_script_expect(0x18, 0x01, nullptr, 0, 0, kAnswer, sizeof kAnswer), 0);
        }
        bool opened = false;
        testing::internal::CaptureStderr();
        const IpmiSession *handle = getter(leaveEarly, opened);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_TRUE(opened);
        ASSERT_NE(handle, nullptr);

        std::vector<ipmihost_call> log = calls();
        ASSERT_EQ(log.size(), leaveEarly ? 2u : 3u);
        const ipmihost_call &o = log.front();
        EXPECT_EQ(o.kind, IPMIHOST_CALL_OPEN);
        EXPECT_EQ(o.privLevel, 4);
        EXPECT_STREQ(o.userName, "");
        EXPECT_STREQ(o.userName2, "");
        EXPECT_STREQ(o.password, "");
        EXPECT_EQ(o.ipAddr, nullptr);
        EXPECT_EQ(o.ipVersion, 0u);
        EXPECT_EQ(o.serverIp, nullptr);
        const ipmihost_call &c = log.back();
        EXPECT_EQ(c.kind, IPMIHOST_CALL_CLOSE);
        EXPECT_EQ(c.session, handle);
        EXPECT_EQ(c.status, LIBIPMI_STATUS_OK);
    }
}

TEST_F(AgentSessionTest, FailedOpenIsReportedAndNothingIsClosed)
{
    ASSERT_EQ(ipmihost_script_open_result(LIBIPMI_STATUS_AUTH_FAILED, -1), 0);
    bool opened = true;
    testing::internal::CaptureStderr();
    const IpmiSession *handle = getter(false, opened);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(opened);
    EXPECT_EQ(handle, nullptr);
    EXPECT_DIAG(err, "ERROR: {line} failed to create ipmi session with error 0x9, username = , privLevel = 4, "
                     "ipAddr = (nil), IPVersion = 0, pServerIp = (nil)\n"
                     "{line}, can't open ipmihelper session\n"
                     "failed to open session\n");
    EXPECT_EQ(ipmihost_script_call_count(), 1u) << "only the failed opening may reach the platform";
}

} // namespace
