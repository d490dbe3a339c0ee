// Texts for threshold states, discrete states, sensor types, OEM types and units.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tvx_toipmi.h"

namespace {

TEST(SensorTexts, ThresholdStatusTakesTheMostSevereLowerFirst)
{
    const struct {
        uint32_t bits;
        const char *text;
    } cases[] = {
        {0x00, "OK"},     {0x40, "OK"},        {0xC0, "OK"},       {0x01, "LowWarn"},  {0x08, "UpWarn"},
        {0x09, "LowWarn"}, {0x03, "LowCrit"},  {0x18, "UpCrit"},   {0x12, "LowCrit"},  {0x19, "UpCrit"},
        {0x24, "LowNRecov"}, {0x20, "UpNRecov"}, {0x3F, "LowNRecov"}, {0x38, "UpNRecov"}, {0x109, "LowWarn"},
    };
    for (const auto &c : cases) EXPECT_STREQ(ipmiSdrGetStatus(c.bits), c.text) << std::hex << c.bits;
}

TEST(SensorTexts, DiscreteStateLookup)
{
    const struct {
        uint8_t sensorType, eventType, low, high;
        const char *text; // nullptr: no text
        int32_t offset;
    } cases[] = {
        {0x08, 0x6F, 0x41, 0x00, "Presence detected", 0},
        {0x08, 0x6F, 0x08, 0x00, "Power Supply AC lost", 3},
        {0x01, 0x6F, 0x01, 0x00, "[no description]", -1},
        {0x21, 0x6F, 0x80, 0x02, "Interlock", 7},
        {0x21, 0x6F, 0x01, 0x02, "Fault Status", 0},
        {0x21, 0x6F, 0x40, 0x02, "Device Removal Request", 6},
        {0x21, 0x6F, 0x20, 0x00, "Slot Power is Off", 5},
        {0x0C, 0x6F, 0x10, 0x02, "Memory Device Disabled", 4},
        // Offsets above 7 come from the high byte, but only once the low byte is non-zero.
        {0xEA, 0x6F, 0x08, 0x01, "Config Space Change Notify", 8},
        {0x07, 0x6F, 0x80, 0x04, "Processor detected", 7},
        {0x07, 0x6F, 0x00 + 0x01, 0x04, "IERR", 0},
        {0x22, 0x6F, 0x02, 0x20, "S1: sleeping with system hw & processor context maintained", 1},
        {0xE6, 0x6F, 0x02, 0x00, "Fan failed", 1},
        {0xDF, 0x6F, 0x80, 0x00, "Unknown Configuration", 7},
        // Generic tables, by event/reading type.
        {0x01, 0x01, 0x04, 0x00, "Lower Critical going low ", 2},
        {0x02, 0x0B, 0x02, 0x00, "Redundancy Lost", 1},
        {0x04, 0x08, 0x03, 0x00, "Device Absent", 0},
        {0x05, 0x0C, 0x08, 0x00, "D3 Power State", 3},
        // Asserted states without a row, OEM reading types, unknown keys.
        {0x22, 0x6F, 0x00 + 0x01, 0x00, "S0/G0: working", 0},
        {0x05, 0x70, 0x01, 0x00, nullptr, -1},
        {0x30, 0x6F, 0xFF, 0xFF, nullptr, -1},
        {0x05, 0x6F, 0x80, 0x00, nullptr, -1},
    };
    for (const auto &c : cases) {
        int32_t offset = 99;
        const char *text = ipmiGetDiscreteState(c.sensorType, c.eventType, c.low, c.high, &offset);
        if (c.text) {
            ASSERT_NE(text, nullptr) << std::hex << int(c.sensorType) << " " << int(c.low);
            EXPECT_STREQ(text, c.text);
        } else {
            EXPECT_EQ(text, nullptr) << std::hex << int(c.sensorType) << " " << int(c.low);
        }
        EXPECT_EQ(offset, c.offset) << std::hex << int(c.sensorType) << " " << int(c.low);
        // The offset pointer is optional.
        EXPECT_EQ(ipmiGetDiscreteState(c.sensorType, c.eventType, c.low, c.high, nullptr), text);
    }
}

TEST(SensorTexts, DiscreteStateWithNoLowBitsLeavesTheOffsetAlone)
{
    int32_t offset = 42;
    EXPECT_EQ(ipmiGetDiscreteState(0x0C, 0x6F, 0x00, 0x02, &offset), nullptr);
    EXPECT_EQ(offset, 42);
}

TEST(SensorTexts, SensorTypeNames)
{
    char hex2d[32];
    std::snprintf(hex2d, sizeof hex2d, "OEM reserved #%02x", 0x2D);
    const struct {
        uint32_t type;
        std::string text;
    } cases[] = {
        {0x00, "reserved"},
        {0x01, "Temperature"},
        {0x2C, "FRU State"},
        {0x22, "System ACPI Power State"},
        {0x2D, hex2d},
        {0xF0, "PICMG FRU Hotswap"},
        {0xC0, "I2C Bus"}, // the vendor's own row, not vendor 15000's
        {0xE6, "Fan Status"},
        {0xDF, std::string("Memory Module Configuration Status").substr(0, 31)},
        {0xFF, "OEM reserved #ff"},
        {0x1234, "OEM reserved #1234"},
    };
    for (const auto &c : cases) EXPECT_EQ(ipmiSdrGetSensorTypeDesc(c.type), c.text) << std::hex << c.type;
}

TEST(SensorTexts, OemValueLookup)
{
    EXPECT_STREQ(oemval2str(15000, 0xC0, ipmi_oem_sdr_type_vals), "OEM Firmware Info");
    EXPECT_STREQ(oemval2str(32473, 0xC0, ipmi_oem_sdr_type_vals), "I2C Bus");
    EXPECT_STREQ(oemval2str(1, 0xF1, ipmi_oem_sdr_type_vals), "PICMG IPMB0 Link State");
    EXPECT_STREQ(oemval2str(1, 0xC0, ipmi_oem_sdr_type_vals), "OEM reserved #c0");
    // A caller's table ends at the first row with vendor 0 or no text.
    const OemValueString mine[] = {{7, 1, "one"}, {0, 2, "hidden"}, {7, 2, "two"}, {0xFFFF, 0, nullptr}};
    EXPECT_STREQ(oemval2str(7, 1, mine), "one");
    EXPECT_STREQ(oemval2str(7, 2, mine), "OEM reserved #02");
    // Texts are cut to the buffer.
    const OemValueString longText[] = {{7, 1, "0123456789012345678901234567890123456789"}, {0xFFFF, 0, nullptr}};
    EXPECT_EQ(std::string(oemval2str(7, 1, longText)), "0123456789012345678901234567890");
    // The table ends with the documented row.
    const OemValueString *row = ipmi_oem_sdr_type_vals;
    while (row->text) ++row;
    EXPECT_EQ(row - ipmi_oem_sdr_type_vals, 17);
    EXPECT_EQ(row->vendor, 0xFFFF);
}

} // namespace
