// Texts of IPMI codes: threshold status words, discrete-state descriptions, sensor type,
// OEM sensor type and unit names. Constant tables compiled into the library.
#include <cstdio>
#include <cstring>
#include <span>

#include "tvx/event_states.h"
#include "tvx/ipmi.h"
#include "tvx_toipmi.h"

namespace {

using tvx::events::EventRow;
using tvx::events::kGenericEvents;
using tvx::events::kSensorSpecificEvents;

// Standard sensor type names, 0x00 to 0x2C.
constexpr const char *kSensorTypeNames[0x2D] = {
    "reserved", // 0x00
    "Temperature", // 0x01
    "Voltage", // 0x02
    "Current", // 0x03
    "Fan", // 0x04
    "Physical Security", // 0x05
    "Platform Security", // 0x06
    "Processor", // 0x07
    "Power Supply", // 0x08
    "Power Unit", // 0x09
    "Cooling Device", // 0x0A
    "Other", // 0x0B
    "Memory", // 0x0C
    "Drive Slot / Bay", // 0x0D
    "POST Memory Resize", // 0x0E
    "System Firmwares", // 0x0F
    "Event Logging Disabled", // 0x10
    "Watchdog", // 0x11
    "System Event", // 0x12
    "Critical Interrupt", // 0x13
    "Button", // 0x14
    "Module / Board", // 0x15
    "Microcontroller", // 0x16
    "Add-in Card", // 0x17
    "Chassis", // 0x18
    "Chip Set", // 0x19
    "Other FRU", // 0x1A
    "Cable / Interconnect", // 0x1B
    "Terminator", // 0x1C
    "System Boot Initiated", // 0x1D
    "Boot Error", // 0x1E
    "OS Boot", // 0x1F
    "OS Critical Stop", // 0x20
    "Slot / Connector", // 0x21
    "System ACPI Power State", // 0x22
    "Watchdog", // 0x23
    "Platform Alert", // 0x24
    "Entity Presence", // 0x25
    "Monitor ASIC", // 0x26
    "LAN", // 0x27
    "Management Subsystem Health", // 0x28
    "Battery", // 0x29
    "Session Audit", // 0x2A
    "Version Change", // 0x2B
    "FRU State", // 0x2C
};

// IPMI base-unit names by unit type code, 0 to 90.
constexpr const char *kUnitNames[91] = {
    "unspecified", // 0
    "C", // 1
    "degrees F", // 2
    "degrees K", // 3
    "Volt", // 4
    "Amps", // 5
    "Watts", // 6
    "Joules", // 7
    "Coulombs", // 8
    "VA", // 9
    "Nits", // 10
    "lumen", // 11
    "lux", // 12
    "Candela", // 13
    "kPa", // 14
    "PSI", // 15
    "Newton", // 16
    "CFM", // 17
    "RPM", // 18
    "Hz", // 19
    "microsecond", // 20
    "millisecond", // 21
    "second", // 22
    "minute", // 23
    "hour", // 24
    "day", // 25
    "week", // 26
    "mil", // 27
    "inches", // 28
    "feet", // 29
    "cu in", // 30
    "cu feet", // 31
    "mm", // 32
    "cm", // 33
    "m", // 34
    "cu cm", // 35
    "cu m", // 36
    "liters", // 37
    "fluid ounce", // 38
    "radians", // 39
    "steradians", // 40
    "revolutions", // 41
    "cycles", // 42
    "gravities", // 43
    "ounce", // 44
    "pound", // 45
    "ft-lb", // 46
    "oz-in", // 47
    "gauss", // 48
    "gilberts", // 49
    "henry", // 50
    "millihenry", // 51
    "farad", // 52
    "microfarad", // 53
    "ohms", // 54
    "siemens", // 55
    "mole", // 56
    "becquerel", // 57
    "PPM", // 58
    "reserved", // 59
    "Decibels", // 60
    "DbA", // 61
    "DbC", // 62
    "gray", // 63
    "sievert", // 64
    "color temp deg K", // 65
    "bit", // 66
    "kilobit", // 67
    "megabit", // 68
    "gigabit", // 69
    "byte", // 70
    "kilobyte", // 71
    "megabyte", // 72
    "gigabyte", // 73
    "word", // 74
    "dword", // 75
    "qword", // 76
    "line", // 77
    "hit", // 78
    "miss", // 79
    "retry", // 80
    "reset", // 81
    "overflow", // 82
    "underrun", // 83
    "collision", // 84
    "packets", // 85
    "messages", // 86
    "characters", // 87
    "error", // 88
    "correctable error", // 89
    "uncorrectable error", // 90
};

constexpr uint16_t kPicmgVendor = 12634; // rows of this vendor match any vendor asked for
constexpr uint16_t kOwnVendor = tvx::oem::kVendorIana & 0xFFFF;

// Each text lives in a static 32-byte buffer that the next call of the same operation
// overwrites: the callers print it at once.
char gOemText[32];
char gTypeText[32];

void copyText(char (&buffer)[32], const char *text)
{
    std::memset(buffer, 0, sizeof buffer);
    std::strncpy(buffer, text, sizeof buffer - 1);
}

} // namespace

extern "C" {

const OemValueString ipmi_oem_sdr_type_vals[] = {
    {15000, 0xC0, "OEM Firmware Info"},
    {15000, 0xC2, "OEM Init Agent"},
    {15000, 0xC3, "OEM IPMBL Link State"},
    {15000, 0xC4, "OEM Board Reset"},
    {15000, 0xC5, "OEM FRU Information Agent"},
    {15000, 0xC6, "OEM POST Value Sensor"},
    {15000, 0xC7, "OEM FWUM Status"},
    {15000, 0xC8, "OEM Switch Mngt Software Status"},
    {kPicmgVendor, 0xF0, "PICMG FRU Hotswap"},
    {kPicmgVendor, 0xF1, "PICMG IPMB0 Link State"},
    {kOwnVendor, 0xC0, "I2C Bus"},
    {kOwnVendor, 0xEE, "Comm. Sensor"},
    {kOwnVendor, 0xE8, "Power Supply Status"},
    {kOwnVendor, 0xE6, "Fan Status"},
    {kOwnVendor, 0xEA, "BMC Communication"},
    {kOwnVendor, 0xDE, "Memory Module Status"},
    {kOwnVendor, 0xDF, "Memory Module Configuration Status"},
    {0xFFFF, 0, nullptr},
};

TVX_API const char *ipmiSdrGetStatus(uint32_t thresholdBits)
{
    // Non-recoverable before critical before warning; lower before upper.
    static constexpr struct {
        uint32_t bit;
        const char *text;
    } order[] = {{0x04, "LowNRecov"}, {0x20, "UpNRecov"}, {0x02, "LowCrit"},
                 {0x10, "UpCrit"},    {0x01, "LowWarn"},  {0x08, "UpWarn"}};
    for (const auto &o : order)
        if (thresholdBits & o.bit) return o.text;
    return "OK";
}

TVX_API const char *ipmiGetDiscreteState(uint8_t sensorType, uint8_t eventReadingType, uint8_t stateLow,
                                         uint8_t stateHigh, int32_t *offset)
{
    if (stateLow == 0) return nullptr;
    std::span<const EventRow> table = eventReadingType == 0x6F ? std::span<const EventRow>(kSensorSpecificEvents)
                                                               : std::span<const EventRow>(kGenericEvents);
    uint8_t key = eventReadingType == 0x6F ? sensorType : eventReadingType;
    for (const EventRow &row : table) {
        if (row.key != key) continue;
        bool asserted = row.offset < 8 ? (stateLow >> row.offset) & 1 : (stateHigh >> (row.offset - 8)) & 1;
        if (!asserted) continue;
        if (row.text) {
            if (offset) *offset = row.offset;
            return row.text;
        }
        if (offset) *offset = -1;
        return "[no description]";
    }
    if (offset) *offset = -1;
    return nullptr;
}

TVX_API char *oemval2str(uint32_t vendor, uint32_t value, const OemValueString *table)
{
    std::memset(gOemText, 0, sizeof gOemText);
    std::snprintf(gOemText, sizeof gOemText, "OEM reserved #%02x", value);
    if (!table) return gOemText;
    // Rows hold the low 16 bits of a vendor's IANA number, so that is what is compared.
    for (const OemValueString *row = table; row->vendor != 0 && row->text; ++row) {
        if ((row->vendor == (vendor & 0xFFFF) || row->vendor == kPicmgVendor) && row->value == value) {
            copyText(gOemText, row->text);
            break;
        }
    }
    return gOemText;
}

TVX_API char *ipmiSdrGetSensorTypeDesc(uint32_t sensorType)
{
    if (sensorType <= 0x2C) copyText(gTypeText, kSensorTypeNames[sensorType]);
    else copyText(gTypeText, oemval2str(tvx::oem::kVendorIana, sensorType, ipmi_oem_sdr_type_vals));
    return gTypeText;
}

TVX_API const char *getUnitDesc(uint32_t unit)
{
    if (unit < sizeof kUnitNames / sizeof kUnitNames[0]) return kUnitNames[unit];
    // Codes the table does not hold: the two that IPMI 2.0 added after it, then "unknown",
    // so that any byte an SDR carries gives a text.
    if (unit == 91) return "fatal error";
    if (unit == 92) return "grams";
    return "unknown";
}

} // extern "C"
