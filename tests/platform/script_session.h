// A session on the scripted exchange, and helpers to announce requests and read them back.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include "libipmi.h"
#include "libipmi_host.h"

namespace platform_test {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kNetFnLunSensor = 0x04 << 2;
constexpr uint8_t kNetFnLunStorage = 0x0A << 2;
constexpr int kTimeout = 60;

inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

inline Bytes le16(uint16_t v) { return {static_cast<uint8_t>(v & 0xFF), static_cast<uint8_t>(v >> 8)}; }

// Opens a session on the scripted exchange; at the end every announced request must have
// been sent and nothing else.
class ScriptSession : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(ipmihost_select_script(), 0) << ipmihost_last_error();
        ipmihost_script_reset();
        open();
    }

    void TearDown() override
    {
        if (opened_) LIBIPMI_CloseSession(session());
        EXPECT_EQ(ipmihost_script_mismatches(), 0u) << ipmihost_script_last_mismatch();
        EXPECT_EQ(ipmihost_script_pending(), 0u) << "announced requests were not sent";
        ipmihost_script_reset();
        ipmihost_select_default();
    }

    void open()
    {
        ASSERT_EQ(LIBIPMI_Create_IPMI_Local_Session_Ext(session(), nullptr, nullptr, nullptr, nullptr, nullptr, 0,
                                                        nullptr, 2, 5),
                  LIBIPMI_STATUS_OK);
        opened_ = true;
    }

    void close()
    {
        ASSERT_EQ(LIBIPMI_CloseSession(session()), LIBIPMI_STATUS_OK);
        opened_ = false;
    }

    IpmiSession *session() { return reinterpret_cast<IpmiSession *>(block_); }

    static void expect(uint8_t netFnLun, uint8_t cmd, const Bytes &req, const Bytes &res,
                       uint16_t status = LIBIPMI_STATUS_OK)
    {
        ASSERT_EQ(ipmihost_script_expect(netFnLun, cmd, req.data(), static_cast<uint32_t>(req.size()), status,
                                          res.data(), static_cast<uint32_t>(res.size())),
                  0);
    }

    // The raw requests that reached the platform, as "netFnLun/cmd: data" lines.
    static std::vector<std::string> sentRequests()
    {
        std::vector<std::string> out;
        for (size_t i = 0; i < ipmihost_script_call_count(); ++i) {
            ipmihost_call c{};
            if (ipmihost_script_call(i, &c) != 0 || c.kind != IPMIHOST_CALL_RAW) continue;
            char buf[16];
            std::snprintf(buf, sizeof buf, "%02x/%02x:", c.netFnLun, c.command);
            std::string line = buf;
            for (uint32_t k = 0; k < c.reqLen && c.reqData; ++k) {
                std::snprintf(buf, sizeof buf, " %02x", c.reqData[k]);
                line += buf;
            }
            out.push_back(line);
        }
        return out;
    }

    static size_t rawRequestCount() { return sentRequests().size(); }

private:
    alignas(8) uint8_t block_[LIBIPMI_SESSION_SIZE] = {};
    bool opened_ = false;
};

} // namespace platform_test
