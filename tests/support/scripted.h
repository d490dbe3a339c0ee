// The scripted platform exchange: requests announced with answers, and what reached the platform.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include "libipmi.h"
#include "libipmi_host.h"
#include "tvx_toipmi.h"

using Bytes = std::vector<uint8_t>;

inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
inline Bytes le16(uint16_t v) { return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)}; }
inline Bytes le32(uint32_t v) { return cat({le16(static_cast<uint16_t>(v)), le16(static_cast<uint16_t>(v >> 16))}); }
inline Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

// The vendor's IANA number as it opens every OEM/Group request and answer.
inline const Bytes kIana = {0xD9, 0x7E, 0x00};
inline Bytes oem(const Bytes &tail) { return cat({kIana, tail}); }
inline Bytes oemAnswer(const Bytes &payload, uint8_t cc = 0x00) { return cat({{cc}, kIana, payload}); }

inline void expectRequest(uint8_t netFnLun, uint8_t command, const Bytes &req, uint16_t status, const Bytes &res)
{
    ASSERT_EQ(ipmihost_script_expect(netFnLun, command, req.empty() ? nullptr : req.data(),
                                     static_cast<uint32_t>(req.size()), status, res.empty() ? nullptr : res.data(),
                                     static_cast<uint32_t>(res.size())),
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
        EXPECT_EQ(c.session, session);
        EXPECT_EQ(c.payloadType, 0);
        EXPECT_EQ(c.netFnLun, expected[i].netFnLun);
        EXPECT_EQ(c.command, expected[i].command);
        EXPECT_EQ(c.reqData ? Bytes(c.reqData, c.reqData + c.reqLen) : Bytes{}, expected[i].request);
        EXPECT_EQ(c.timeout, 60);
        EXPECT_EQ(c.resLenPtrNull, 0);
        if (capacity != kAnyCapacity) {
            EXPECT_EQ(c.resLenIn, static_cast<uint32_t>(capacity));
        }
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
    static const std::string kLine = "{line}";
    size_t t = 0, p = 0;
    bool ok = true;
    while (ok && p < pattern.size()) {
        if (pattern.compare(p, kLine.size(), kLine) == 0) {
            size_t start = t;
            while (t < text.size() && std::isdigit(static_cast<unsigned char>(text[t]))) ++t;
            ok = t > start;
            p += kLine.size();
        } else {
            ok = t < text.size() && text[t++] == pattern[p++];
        }
    }
    if (ok && t == text.size()) return ::testing::AssertionSuccess();
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
        EXPECT_EQ(ipmihost_script_mismatches(), 0u) << ipmihost_script_last_mismatch();
        EXPECT_EQ(ipmihost_script_pending(), 0u) << "announced requests were never sent";
        ipmihost_script_reset();
        ipmihost_select_default();
    }
    // Opens the session a test sends on; TearDown closes it.
    IpmiSession *open()
    {
        session_ = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        EXPECT_NE(session_, nullptr);
        return session_;
    }
    IpmiSession *session_ = nullptr;
};
