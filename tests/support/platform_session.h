// A session block of the platform's own, opened on the scripted exchange, for tests of the
// platform library's operations (no libtvx_toipmi session in between).
#pragma once

#include "scripted.h"

namespace platform_test {

constexpr uint8_t kNetFnLunSensor = 0x04 << 2, kNetFnLunStorage = 0x0A << 2;
constexpr int kTimeout = 60;

class ScriptSession : public ScriptTest {
protected:
    void SetUp() override
    {
        ScriptTest::SetUp();
        open();
    }
    void TearDown() override
    {
        if (opened_) LIBIPMI_CloseSession(session());
        ScriptTest::TearDown();
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
        expectRequest(netFnLun, cmd, req, status, res);
    }
    static size_t rawRequestCount() { return rawSince().size(); }

private:
    alignas(8) uint8_t block_[LIBIPMI_SESSION_SIZE] = {};
    bool opened_ = false;
};

} // namespace platform_test
