// The virtual controller behind the platform library: injected faults.
#include <gtest/gtest.h>

#include "machine.h"
#include "scripted.h"

using nlohmann::json;

namespace {

struct Result {
    uint16_t status;
    Bytes bytes; // what was stored, completion code first
};

class Host : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(platform_.open(), 0) << ipmihost_last_error(); }
    Result raw(uint8_t netFn, uint8_t cmd, Bytes req = {})
    {
        uint8_t res[64];
        uint32_t len = sizeof res;
        uint16_t st = LIBIPMI_Send_RAW_IPMI2_0_Command(platform_.get(), 0, static_cast<uint8_t>(netFn << 2), cmd,
                                                       req.empty() ? nullptr : req.data(),
                                                       static_cast<uint32_t>(req.size()), res, &len, 5);
        EXPECT_LE(len, sizeof res);
        return {st, Bytes(res, res + std::min<uint32_t>(len, sizeof res))};
    }
    static ipmihost_fault fault(uint8_t netFn, uint8_t cmd, int kind, uint8_t value, uint32_t count)
    {
        ipmihost_fault f{};
        f.netFn = netFn, f.command = cmd, f.kind = kind, f.value = value, f.count = count;
        return f;
    }

    tvxtest::ScratchMachine machine_{tvxtest::baseProfile()};
    tvx::PlatformSession platform_{tvx::deferred};
};

// Get Device ID of the base profile: completion code and 15 bytes.
const Bytes kDeviceId = {0x00, 0x20, 0x01, 0x01, 0x07, 0x02, 0x00, 0xD9, 0x7E, 0x00, 0x34, 0x12, 1, 2, 3, 4};

TEST_F(Host, EachInjectedFaultKindBecomesItsStatus)
{
    Bytes garbled = kDeviceId;
    for (std::size_t i = 1; i < garbled.size(); ++i) garbled[i] ^= 0xA5;
    const struct {
        int kind;
        uint8_t value;
        uint16_t status;
        Bytes stored;
    } cases[] = {
        {IPMIHOST_FAULT_COMPLETION_CODE, 0xC0, cc(0xC0), {0xC0}},
        {IPMIHOST_FAULT_NO_ANSWER, 0, LIBIPMI_STATUS_TIMEOUT, {}},
        {IPMIHOST_FAULT_SHORT, 0, LIBIPMI_STATUS_BAD_RESPONSE, {}},
        {IPMIHOST_FAULT_LONG, 3, LIBIPMI_STATUS_OK, cat({kDeviceId, {0xEE, 0xEE, 0xEE}})},
        {IPMIHOST_FAULT_GARBLED, 0, LIBIPMI_STATUS_OK, garbled}, // the default pattern
    };
    EXPECT_EQ(raw(0x06, 0x01).bytes, kDeviceId);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.kind);
        ipmihost_fault f = fault(0x06, 0x01, c.kind, c.value, 1);
        ASSERT_EQ(ipmihost_inject_fault(&f), 0) << ipmihost_last_error();
        Result hit = raw(0x06, 0x01);
        EXPECT_EQ(hit.status, c.status);
        EXPECT_EQ(hit.bytes, c.stored);
        EXPECT_EQ(raw(0x06, 0x01).bytes, kDeviceId) << "once only";
    }
    // A lost request counts as sent (a profile's faults are not carried out either); cleared
    // faults hit no more.
    ipmihost_fault lost = fault(0x06, 0x01, IPMIHOST_FAULT_NO_ANSWER, 0, 0);
    ASSERT_EQ(ipmihost_inject_fault(&lost), 0);
    ipmihost_reset_request_count();
    EXPECT_EQ(raw(0x06, 0x01).status, LIBIPMI_STATUS_TIMEOUT);
    EXPECT_EQ(ipmihost_request_count(), 1u);
    ipmihost_clear_faults();
    EXPECT_EQ(raw(0x06, 0x01).bytes, kDeviceId);
}

} // namespace
