// BCD plus as ipmitool decodes it. Measured: ipmitool 1.8.19 `fru print` against ipmi_sim
// serving a board area with these fields shows "12345 " and "1-2.:9" (high nibble first; the
// trailing space pads the last byte and is dropped here). ipmitool prints SDR ID strings
// undecoded, so an SDR ID string of the same type is pinned to the same text.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tvx/text.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A FRU field: its type/length byte, then its bytes.
std::string fieldText(const Bytes &field)
{
    tvx::wire::Reader in{tvx::wire::View(field)};
    const uint8_t typeLength = in.u8();
    return std::string(tvx::fru::fieldText(typeLength, in.rest()).view());
}

// A FRU device locator (type 0x11) named by an ID string, cut to `slot` bytes as a cache
// slot of that size would hold it.
std::string locatorName(const Bytes &idString, std::size_t slot = 64)
{
    Bytes r = {0x01, 0x00, 0x51, 0x11, 0x00, 0x20, 0x01, 0x80, 0x00, 0x00, 0x10, 0x00, 0x07, 0x01, 0x00};
    r.insert(r.end(), idString.begin(), idString.end());
    r[4] = static_cast<uint8_t>(r.size() - 5);
    if (r.size() > slot) r.resize(slot);
    return std::string(tvx::sdr::idString(tvx::wire::View(r)).view());
}

TEST(TypeLengthText, BcdPlusReadsHighNibbleFirstAsIpmitoolDoes)
{
    EXPECT_EQ(fieldText({0x43, 0x12, 0x34, 0x5A}), "12345");
    EXPECT_EQ(fieldText({0x43, 0x1B, 0x2C, 0xD9}), "1-2.:9");
    EXPECT_EQ(locatorName({0x43, 0x1B, 0x2C, 0xD9}), "1-2.:9");
    // A slot that ends inside the string holds only what fits.
    EXPECT_EQ(locatorName({0x43, 0x1B, 0x2C, 0xD9}, 17), "1-");
}

} // namespace
