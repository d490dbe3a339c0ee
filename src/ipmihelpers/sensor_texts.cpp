// Texts of IPMI codes: threshold status words, discrete-state descriptions, sensor type,
// OEM sensor type and unit names. Constant tables compiled into the library.
#include <cstdio>
#include <cstring>
#include <span>

#include "tvx/ipmi.h"
#include "tvx_toipmi.h"

namespace {

// One row of an event-state table: key (event/reading type code, or sensor type for
// sensor-specific states), state offset and description (absent for some rows).
struct EventRow {
    uint8_t key;
    uint8_t offset;
    const char *text;
};

// Generic states, keyed by event/reading type code. The six "going low" descriptions end
// with one blank, as the agent has always shown them.
constexpr EventRow kGenericEvents[] = {
    {0x01, 0x00, "Lower Non-critical going low "},
    {0x01, 0x01, "Lower Non-critical going high"},
    {0x01, 0x02, "Lower Critical going low "},
    {0x01, 0x03, "Lower Critical going high"},
    {0x01, 0x04, "Lower Non-recoverable going low "},
    {0x01, 0x05, "Lower Non-recoverable going high"},
    {0x01, 0x06, "Upper Non-critical going low "},
    {0x01, 0x07, "Upper Non-critical going high"},
    {0x01, 0x08, "Upper Critical going low "},
    {0x01, 0x09, "Upper Critical going high"},
    {0x01, 0x0A, "Upper Non-recoverable going low "},
    {0x01, 0x0B, "Upper Non-recoverable going high"},
    {0x02, 0x00, "Transition to Idle"},
    {0x02, 0x01, "Transition to Active"},
    {0x02, 0x02, "Transition to Busy"},
    {0x03, 0x00, "State Deasserted"},
    {0x03, 0x01, "State Asserted"},
    {0x04, 0x00, "Predictive Failure Deasserted"},
    {0x04, 0x01, "Predictive Failure Asserted"},
    {0x05, 0x00, "Limit Not Exceeded"},
    {0x05, 0x01, "Limit Exceeded"},
    {0x06, 0x00, "Performance Met"},
    {0x06, 0x01, "Performance Lags"},
    {0x07, 0x00, "Transition to OK"},
    {0x07, 0x01, "Transition to Non-critical from OK"},
    {0x07, 0x02, "Transition to Critical from less severe"},
    {0x07, 0x03, "Transition to Non-recoverable from less severe"},
    {0x07, 0x04, "Transition to Non-critical from more severe"},
    {0x07, 0x05, "Transition to Critical from Non-recoverable"},
    {0x07, 0x06, "Transition to Non-recoverable"},
    {0x07, 0x07, "Monitor"},
    {0x07, 0x08, "Informational"},
    {0x08, 0x00, "Device Absent"},
    {0x08, 0x01, "Device Present"},
    {0x09, 0x00, "Device Disabled"},
    {0x09, 0x01, "Device Enabled"},
    {0x0A, 0x00, "Transition to Running"},
    {0x0A, 0x01, "Transition to In Test"},
    {0x0A, 0x02, "Transition to Power Off"},
    {0x0A, 0x03, "Transition to On Line"},
    {0x0A, 0x04, "Transition to Off Line"},
    {0x0A, 0x05, "Transition to Off Duty"},
    {0x0A, 0x06, "Transition to Degraded"},
    {0x0A, 0x07, "Transition to Power Save"},
    {0x0A, 0x08, "Install Error"},
    {0x0B, 0x00, "Fully Redundant"},
    {0x0B, 0x01, "Redundancy Lost"},
    {0x0B, 0x02, "Redundancy Degraded"},
    {0x0B, 0x03, "Non-Redundant: Sufficient from Redundant"},
    {0x0B, 0x04, "Non-Redundant: Sufficient from Insufficient"},
    {0x0B, 0x05, "Non-Redundant: Insufficient Resources"},
    {0x0B, 0x06, "Redundancy Degraded from Fully Redundant"},
    {0x0B, 0x07, "Redundancy Degraded from Non-Redundant"},
    {0x0C, 0x00, "D0 Power State"},
    {0x0C, 0x01, "D1 Power State"},
    {0x0C, 0x02, "D2 Power State"},
    {0x0C, 0x03, "D3 Power State"},
};

// Sensor-specific states (event/reading type 0x6F), keyed by sensor type: the standard
// types in ascending order, then the OEM types.
constexpr EventRow kSensorSpecificEvents[] = {
    {0x00, 0x00, nullptr},
    {0x01, 0x00, nullptr},
    {0x02, 0x00, nullptr},
    {0x03, 0x00, nullptr},
    {0x04, 0x00, nullptr},
    {0x05, 0x00, "General Chassis intrusion"},
    {0x05, 0x01, "Drive Bay intrusion"},
    {0x05, 0x02, "I/O Card area intrusion"},
    {0x05, 0x03, "Processor area intrusion"},
    {0x05, 0x04, "System unplugged from LAN"},
    {0x05, 0x05, "Unauthorized dock"},
    {0x05, 0x06, "FAN area intrusion"},
    {0x06, 0x00, "Front Panel Lockout violation attempted"},
    {0x06, 0x01, "Pre-boot password violation - user password"},
    {0x06, 0x02, "Pre-boot password violation - setup password"},
    {0x06, 0x03, "Pre-boot password violation - network boot password"},
    {0x06, 0x04, "Other pre-boot password violation"},
    {0x06, 0x05, "Out-of-band access password violation"},
    {0x07, 0x00, "IERR"},
    {0x07, 0x01, "Thermal Trip"},
    {0x07, 0x02, "FRB1/BIST failure"},
    {0x07, 0x03, "FRB2/Hang in POST failure"},
    {0x07, 0x04, "FRB3/Processor startup/init failure"},
    {0x07, 0x05, "Configuration Error"},
    {0x07, 0x06, "SM BIOS Uncorrectable CPU-complex Error"},
    {0x07, 0x07, "Processor detected"},
    {0x07, 0x08, "Disabled"},
    {0x07, 0x09, "Terminator presence detected"},
    {0x07, 0x0A, "Throttled"},
    {0x08, 0x00, "Presence detected"},
    {0x08, 0x01, "Failure detected"},
    {0x08, 0x02, "Predictive failure"},
    {0x08, 0x03, "Power Supply AC lost"},
    {0x08, 0x04, "AC lost or out-of-range"},
    {0x08, 0x05, "AC out-of-range, but present"},
    {0x08, 0x06, "Config Error: Vendor Mismatch"},
    {0x09, 0x00, "Power off/down"},
    {0x09, 0x01, "Power cycle"},
    {0x09, 0x02, "240VA power down"},
    {0x09, 0x03, "Interlock power down"},
    {0x09, 0x04, "AC lost"},
    {0x09, 0x05, "Soft-power control failure"},
    {0x09, 0x06, "Failure detected"},
    {0x09, 0x07, "Predictive failure"},
    {0x0A, 0x00, nullptr},
    {0x0B, 0x00, nullptr},
    {0x0C, 0x00, "Correctable ECC"},
    {0x0C, 0x01, "Uncorrectable ECC"},
    {0x0C, 0x02, "Parity"},
    {0x0C, 0x03, "Memory Scrub Failed"},
    {0x0C, 0x04, "Memory Device Disabled"},
    {0x0C, 0x05, "Correctable ECC logging limit reached"},
    {0x0C, 0x06, "Presence Detected"},
    {0x0C, 0x07, "Configuration Error"},
    {0x0C, 0x08, "Spare"},
    {0x0C, 0x09, "Throttled"},
    {0x0D, 0x00, "Drive Present"},
    {0x0D, 0x01, "Drive Fault"},
    {0x0D, 0x02, "Predictive Failure"},
    {0x0D, 0x03, "Hot Spare"},
    {0x0D, 0x04, "Parity Check In Progress"},
    {0x0D, 0x05, "In Critical Array"},
    {0x0D, 0x06, "In Failed Array"},
    {0x0D, 0x07, "Rebuild In Progress"},
    {0x0D, 0x08, "Rebuild Aborted"},
    {0x0E, 0x00, nullptr},
    {0x0F, 0x00, "Unspecified"},
    {0x0F, 0x01, "Unspecified"},
    {0x0F, 0x02, "Unspecified"},
    {0x10, 0x00, "Correctable memory error logging disabled"},
    {0x10, 0x01, "Event logging disabled"},
    {0x10, 0x02, "Log area reset/cleared"},
    {0x10, 0x03, "All event logging disabled"},
    {0x10, 0x04, "Log full"},
    {0x10, 0x05, "Log almost full"},
    {0x11, 0x00, "BIOS Reset"},
    {0x11, 0x01, "OS Reset"},
    {0x11, 0x02, "OS Shut Down"},
    {0x11, 0x03, "OS Power Down"},
    {0x11, 0x04, "OS Power Cycle"},
    {0x11, 0x05, "OS NMI/Diag Interrupt"},
    {0x11, 0x06, "OS Expired"},
    {0x11, 0x07, "OS pre-timeout Interrupt"},
    {0x12, 0x00, "System Reconfigured"},
    {0x12, 0x01, "OEM System boot event"},
    {0x12, 0x02, "Undetermined system hardware failure"},
    {0x12, 0x03, "Entry added to auxiliary log"},
    {0x12, 0x04, "PEF Action"},
    {0x12, 0x05, "Timestamp Clock Sync"},
    {0x13, 0x00, "NMI/Diag Interrupt"},
    {0x13, 0x01, "Bus Timeout"},
    {0x13, 0x02, "I/O Channel check NMI"},
    {0x13, 0x03, "Software NMI"},
    {0x13, 0x04, "PCI PERR"},
    {0x13, 0x05, "PCI SERR"},
    {0x13, 0x06, "EISA failsafe timeout"},
    {0x13, 0x07, "Bus Correctable error"},
    {0x13, 0x08, "Bus Uncorrectable error"},
    {0x13, 0x09, "Fatal NMI"},
    {0x13, 0x0A, "Bus Fatal Error"},
    {0x14, 0x00, "Power Button pressed"},
    {0x14, 0x01, "Sleep Button pressed"},
    {0x14, 0x02, "Reset Button pressed"},
    {0x14, 0x03, "FRU Latch"},
    {0x14, 0x04, "FRU Service"},
    {0x15, 0x00, nullptr},
    {0x16, 0x00, nullptr},
    {0x17, 0x00, nullptr},
    {0x18, 0x00, nullptr},
    {0x19, 0x00, nullptr},
    {0x1A, 0x00, nullptr},
    {0x1B, 0x00, "Connected"},
    {0x1B, 0x01, "Config Error"},
    {0x1C, 0x00, nullptr},
    {0x1D, 0x00, "Initiated by power up"},
    {0x1D, 0x01, "Initiated by hard reset"},
    {0x1D, 0x02, "Initiated by warm reset"},
    {0x1D, 0x03, "User requested PXE boot"},
    {0x1D, 0x04, "Automatic boot to diagnostic"},
    {0x1D, 0x05, "OS initiated hard reset"},
    {0x1D, 0x06, "OS initiated warm reset"},
    {0x1D, 0x07, "System Restart"},
    {0x1E, 0x00, "No bootable media"},
    {0x1E, 0x01, "Non-bootable disk in drive"},
    {0x1E, 0x02, "PXE server not found"},
    {0x1E, 0x03, "Invalid boot sector"},
    {0x1E, 0x04, "Timeout waiting for selection"},
    {0x1F, 0x00, "A: boot completed"},
    {0x1F, 0x01, "C: boot completed"},
    {0x1F, 0x02, "PXE boot completed"},
    {0x1F, 0x03, "Diagnostic boot completed"},
    {0x1F, 0x04, "CD-ROM boot completed"},
    {0x1F, 0x05, "ROM boot completed"},
    {0x1F, 0x06, "boot completed - device not specified"},
    {0x20, 0x00, "Error during system startup"},
    {0x20, 0x01, "Run-time critical stop"},
    {0x20, 0x02, "OS graceful stop"},
    {0x20, 0x03, "OS graceful shutdown"},
    {0x20, 0x04, "PEF initiated soft shutdown"},
    {0x20, 0x05, "Agent not responding"},
    {0x21, 0x00, "Fault Status"},
    {0x21, 0x01, "Identify Status"},
    {0x21, 0x02, "Device Installed"},
    {0x21, 0x03, "Ready for Device Installation"},
    {0x21, 0x04, "Ready for Device Removal"},
    {0x21, 0x05, "Slot Power is Off"},
    {0x21, 0x06, "Device Removal Request"},
    {0x21, 0x07, "Interlock"},
    {0x21, 0x08, "Slot is Disabled"},
    {0x21, 0x09, "Spare Device"},
    {0x22, 0x00, "S0/G0: working"},
    {0x22, 0x01, "S1: sleeping with system hw & processor context maintained"},
    {0x22, 0x02, "S2: sleeping, processor context lost"},
    {0x22, 0x03, "S3: sleeping, processor & hw context lost, memory retained"},
    {0x22, 0x04, "S4: non-volatile sleep/suspend-to-disk"},
    {0x22, 0x05, "S5/G2: soft-off"},
    {0x22, 0x06, "S4/S5: soft-off"},
    {0x22, 0x07, "G3: mechanical off"},
    {0x22, 0x08, "Sleeping in S1/S2/S3 state"},
    {0x22, 0x09, "G1: sleeping"},
    {0x22, 0x0A, "S5: entered by override"},
    {0x22, 0x0B, "Legacy ON state"},
    {0x22, 0x0C, "Legacy OFF state"},
    {0x22, 0x0E, "Unknown"},
    {0x23, 0x00, "Timer expired"},
    {0x23, 0x01, "Hard reset"},
    {0x23, 0x02, "Power down"},
    {0x23, 0x03, "Power cycle"},
    {0x23, 0x04, "reserved"},
    {0x23, 0x05, "reserved"},
    {0x23, 0x06, "reserved"},
    {0x23, 0x07, "reserved"},
    {0x23, 0x08, "Timer interrupt"},
    {0x24, 0x00, "Platform generated page"},
    {0x24, 0x01, "Platform generated LAN alert"},
    {0x24, 0x02, "Platform Event Trap generated"},
    {0x24, 0x03, "Platform generated SNMP trap, OEM format"},
    {0x25, 0x00, "Present"},
    {0x25, 0x01, "Absent"},
    {0x25, 0x02, "Disabled"},
    {0x26, 0x00, nullptr},
    {0x27, 0x00, "Heartbeat Lost"},
    {0x27, 0x01, "Heartbeat"},
    {0x28, 0x00, "Sensor access degraded or unavailable"},
    {0x28, 0x01, "Controller access degraded or unavailable"},
    {0x28, 0x02, "Management controller off-line"},
    {0x28, 0x03, "Management controller unavailable"},
    {0x28, 0x04, "Sensor failure"},
    {0x28, 0x05, "FRU failure"},
    {0x29, 0x00, "Low"},
    {0x29, 0x01, "Failed"},
    {0x29, 0x02, "Presence Detected"},
    {0x2B, 0x00, "Hardware change detected"},
    {0x2B, 0x01, "Firmware or software change detected"},
    {0x2B, 0x02, "Hardware incompatibility detected"},
    {0x2B, 0x03, "Firmware or software incompatibility detected"},
    {0x2B, 0x04, "Invalid or unsupported hardware version"},
    {0x2B, 0x05, "Invalid or unsupported firmware or software version"},
    {0x2B, 0x06, "Hardware change success"},
    {0x2B, 0x07, "Firmware or software change success"},
    {0x2C, 0x00, "Not Installed"},
    {0x2C, 0x01, "Inactive"},
    {0x2C, 0x02, "Activation Requested"},
    {0x2C, 0x03, "Activation in Progress"},
    {0x2C, 0x04, "Active"},
    {0x2C, 0x05, "Deactivation Requested"},
    {0x2C, 0x06, "Deactivation in Progress"},
    {0x2C, 0x07, "Communication lost"},
    {0xF0, 0x00, "Transition to M0"},
    {0xF0, 0x01, "Transition to M1"},
    {0xF0, 0x02, "Transition to M2"},
    {0xF0, 0x03, "Transition to M3"},
    {0xF0, 0x04, "Transition to M4"},
    {0xF0, 0x05, "Transition to M5"},
    {0xF0, 0x06, "Transition to M6"},
    {0xF0, 0x07, "Transition to M7"},
    {0xF1, 0x00, "IPMB-A disabled, IPMB-B disabled"},
    {0xF1, 0x01, "IPMB-A enabled, IPMB-B disabled"},
    {0xF1, 0x02, "IPMB-A disabled, IPMB-B enabled"},
    {0xF1, 0x03, "IPMB-A enabled, IPMP-B enabled"},
    {0xF2, 0x00, "Module Handle Closed"},
    {0xF2, 0x01, "Module Handle Opened"},
    {0xF2, 0x02, "Quiesced"},
    {0xE8, 0x00, "Power supply - Not present"},
    {0xE8, 0x01, "Power supply - OK"},
    {0xE8, 0x02, "Power supply - Failed"},
    {0xE8, 0x03, "Redundant power supply - AC failed"},
    {0xE8, 0x04, "Redundant power supply - DC failed"},
    {0xE8, 0x05, "Power supply - Critical Temperature"},
    {0xE8, 0x06, "Power supply - Not manageable"},
    {0xE8, 0x07, "Power supply - Fan failure predicted"},
    {0xE8, 0x08, "Power supply - Fan failed"},
    {0xE8, 0x09, "Power supply - Power Save Mode"},
    {0xE8, 0x0A, "Power supply - DC Failed"},
    {0xE8, 0x0B, "Power supply - AC Failed"},
    {0xE9, 0x00, "Power Supply - redundancy present"},
    {0xE6, 0x00, "Fan ON, running"},
    {0xE6, 0x01, "Fan failed"},
    {0xE6, 0x02, "Fan prefailure"},
    {0xE6, 0x03, "redundant Fan failed"},
    {0xE6, 0x04, "Fan not manageable"},
    {0xE6, 0x05, "Fan not installed"},
    {0xE6, 0x06, "Removable FAN not installed"},
    {0xE6, 0x07, "Fan is in init phase"},
    {0xEA, 0x00, "Graceful System Shutdown Request"},
    {0xEA, 0x01, "Graceful System Reset Request"},
    {0xEA, 0x02, "Systemboard Config Change Notification"},
    {0xEA, 0x06, "Reset Pending"},
    {0xEA, 0x07, "LAN Parameter modified"},
    {0xEA, 0x08, "Config Space Change Notify"},
    {0xDE, 0x00, "Empty slot"},
    {0xDE, 0x01, "OK"},
    {0xDE, 0x02, "Reserved"},
    {0xDE, 0x03, "Error"},
    {0xDE, 0x04, "Fail"},
    {0xDE, 0x05, "Prefailure"},
    {0xDE, 0x06, "Configuration Error"},
    {0xDE, 0x07, "Unknown"},
    {0xDE, 0x08, "Reserved"},
    {0xDE, 0x09, "Hidden/Absent"},
    {0xDF, 0x00, "Normal"},
    {0xDF, 0x01, "Disabled"},
    {0xDF, 0x02, "Spare module"},
    {0xDF, 0x03, "Mirrored module"},
    {0xDF, 0x04, "RAID module"},
    {0xDF, 0x05, "Not Usable"},
    {0xDF, 0x06, "Unspecified state(6)"},
    {0xDF, 0x07, "Unknown Configuration"},
    {0xC0, 0x00, "OEM Specific"},
};

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
