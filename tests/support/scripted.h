// The scripted platform exchange: requests announced with answers, and what reached the platform.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "bytes.h"
#include "libipmi.h"
#include "libipmi_host.h"
#include "tvx/session.h"
#include "tvx_toipmi.h"

constexpr uint16_t cc(uint8_t code) { return LIBIPMI_STATUS_COMPLETION_CODE(code); }
constexpr uint16_t kTimeout = LIBIPMI_STATUS_TIMEOUT;

// Announces a request and the answer (completion code first) the platform gives it, with the
// platform status of the exchange.
inline void expect(uint8_t netFnLun, uint8_t command, const Bytes &request, const Bytes &answer, uint16_t status = 0)
{
    ASSERT_EQ(ipmihost_script_expect(netFnLun, command, request.empty() ? nullptr : request.data(),
                                     static_cast<uint32_t>(request.size()), status,
                                     answer.empty() ? nullptr : answer.data(), static_cast<uint32_t>(answer.size())),
              0);
}

// Every call that reached the platform since the last ipmihost_script_reset.
inline std::vector<ipmihost_call> calls()
{
    std::vector<ipmihost_call> out(ipmihost_script_call_count());
    for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(ipmihost_script_call(i, &out[i]), 0);
    return out;
}

// The raw requests logged after the first `from` entries of the call log.
inline std::vector<ipmihost_call> rawSince(size_t from = 0)
{
    std::vector<ipmihost_call> out, log = calls();
    for (size_t i = from; i < log.size(); ++i)
        if (log[i].kind == IPMIHOST_CALL_RAW) out.push_back(log[i]);
    return out;
}

struct Sent {
    uint8_t netFnLun, command;
    Bytes request;
};
constexpr int64_t kAnyCapacity = -1;

// Every raw request after `from`: session, NetFn/LUN, command, bytes, time-out 60 and capacity.
inline void expectSent(const IpmiSession *session, size_t from, const std::vector<Sent> &expected,
                       int64_t capacity = kAnyCapacity)
{
    std::vector<ipmihost_call> raw = rawSince(from);
    ASSERT_EQ(raw.size(), expected.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        const ipmihost_call &c = raw[i];
        SCOPED_TRACE("request " + std::to_string(i));
        const int64_t resLenIn = capacity == kAnyCapacity ? kAnyCapacity : c.resLenIn;
        EXPECT_EQ(
            std::tuple(c.session, +c.payloadType, +c.netFnLun, +c.command,
                       c.reqData ? Bytes(c.reqData, c.reqData + c.reqLen) : Bytes{}, +c.timeout, +c.resLenPtrNull,
                       resLenIn),
            std::tuple(session, 0, +expected[i].netFnLun, +expected[i].command, expected[i].request, 60, 0, capacity));
    }
}

// A pointer as printf's %p shows it.
inline std::string pointerText(const void *p)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

// text equals pattern, where each "{line}" stands for a line number.
inline ::testing::AssertionResult matchesWithLines(const std::string &text, const std::string &pattern)
{
    std::string re;
    for (char c : pattern) re += std::string(std::strchr("\\^$.|?*+()[]{}", c) && c ? "\\" : "") + c;
    re = std::regex_replace(re, std::regex(R"(\\\{line\\\})"), "[0-9]+");
    if (std::regex_match(text, std::regex(re))) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "stderr was:\n[" << text << "]\nexpected:\n[" << pattern << "]";
}
#define EXPECT_DIAG(text, pattern) EXPECT_TRUE(matchesWithLines((text), (pattern)))

// What f wrote to stderr.
template <class F> std::string stderrOf(F &&f)
{
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

// The scripted exchange selected for one test, which must send exactly what it announced and
// leave no session open (a reset of the call log forgets the openings before it).
class ScriptTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(ipmihost_select_script(), 0);
        ipmihost_script_reset();
    }
    void TearDown() override
    {
        ipmiHelperCloseSession(&session_);
        platform_.close();
        size_t opened = 0, closed = 0;
        for (const ipmihost_call &c : calls()) {
            opened += c.kind == IPMIHOST_CALL_OPEN && c.status == 0;
            closed += c.kind == IPMIHOST_CALL_CLOSE;
        }
        EXPECT_GE(closed, opened) << "sessions left open";
        EXPECT_EQ(ipmihost_script_mismatches(), 0u) << ipmihost_script_last_mismatch();
        EXPECT_EQ(ipmihost_script_pending(), 0u) << "announced requests were never sent";
        ipmihost_script_reset();
        ipmihost_select_default();
    }
    // Opens the library session a test sends on; TearDown closes it.
    IpmiSession *open()
    {
        session_ = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        EXPECT_NE(session_, nullptr);
        return session_;
    }
    // Opens a session of the platform's own, for its operations below the library.
    IpmiSession *openPlatform()
    {
        EXPECT_EQ(platform_.open(), LIBIPMI_STATUS_OK);
        return platform_.get();
    }
    IpmiSession *session_ = nullptr;
    tvx::PlatformSession platform_{tvx::deferred};
};
