// The virtual controller behind the platform library: injected faults.
#include <gtest/gtest.h>

#include "machine.h"
#include "scripted.h"

namespace {

// Get Device ID of the base profile: completion code and 15 bytes.
const Bytes kDeviceId = {0x00, 0x20, 0x01, 0x01, 0x07, 0x02, 0x00, 0xD9, 0x7E, 0x00, 0x34, 0x12, 1, 2, 3, 4};

TEST(Host, EachInjectedFaultKindBecomesItsStatus)
{
    tvxtest::ScratchMachine machine(tvxtest::baseProfile());
    tvx::PlatformSession platform;
    ASSERT_EQ(platform.status(), 0) << ipmihost_last_error();
    // Get Device ID through the platform: its status and what was stored, completion code first.
    auto deviceId = [&] {
        uint8_t res[64];
        uint32_t len = sizeof res;
        const uint16_t st =
            LIBIPMI_Send_RAW_IPMI2_0_Command(platform.get(), 0, 0x06 << 2, 0x01, nullptr, 0, res, &len, 5);
        EXPECT_LE(len, sizeof res);
        return std::tuple(st, Bytes(res, res + std::min<uint32_t>(len, sizeof res)));
    };
    auto inject = [](int kind, uint8_t value, uint32_t count) {
        ipmihost_fault f{};
        f.netFn = 0x06, f.command = 0x01, f.kind = kind, f.value = value, f.count = count;
        return ipmihost_inject_fault(&f);
    };
    const auto answered = std::tuple(uint16_t(LIBIPMI_STATUS_OK), kDeviceId);
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
    EXPECT_EQ(deviceId(), answered);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.kind);
        ASSERT_EQ(inject(c.kind, c.value, 1), 0) << ipmihost_last_error();
        EXPECT_EQ(deviceId(), std::tuple(c.status, c.stored));
        EXPECT_EQ(deviceId(), answered) << "once only";
    }
    // A lost request counts as sent (a profile's faults are not carried out either); cleared
    // faults hit no more.
    ASSERT_EQ(inject(IPMIHOST_FAULT_NO_ANSWER, 0, 0), 0);
    ipmihost_reset_request_count();
    EXPECT_EQ(std::get<0>(deviceId()), LIBIPMI_STATUS_TIMEOUT);
    EXPECT_EQ(ipmihost_request_count(), 1u);
    ipmihost_clear_faults();
    EXPECT_EQ(deviceId(), answered);
}

} // namespace
