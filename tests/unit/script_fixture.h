// Shared by the unit tests: every test talks to the scripted exchange, which must have
// consumed all announced requests and seen no unexpected one by the end of the test.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "libipmi.h"
#include "libipmi_host.h"
#include "tvx_toipmi.h"

// Every call that reached the platform since the last ipmihost_script_reset.
inline std::vector<ipmihost_call> calls()
{
    std::vector<ipmihost_call> out(ipmihost_script_call_count());
    for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(ipmihost_script_call(i, &out[i]), 0);
    return out;
}

// A pointer as printf's %p shows it.
inline std::string pointerText(const void *p)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
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

// Succeeds when text equals pattern, where each "{line}" in pattern stands for a source line
// number (one or more digits); everything else must match literally.
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
