// The machine's chassis, LEDs, configuration space, console log and LAN channels as the
// profile describes them ("chassis", "leds", "config_space", "console", "lan"). Every
// section is optional; what is absent takes the defaults below.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tvx/ipmi.h"

namespace tvxsim {

class Node;

// Power restore policy as Get Chassis Status reports it in bits 6:5 of the power state.
enum class RestorePolicy : uint8_t { AlwaysOff = 0, Previous = 1, AlwaysOn = 2, Unknown = 3 };

struct ChassisSettings {
    bool powerOn = true;
    RestorePolicy restorePolicy = RestorePolicy::AlwaysOff;
    uint8_t powerOnSource = 0;
    uint8_t powerOffSource = 0;
    bool intrusion = false;
    bool frontPanelLockout = false;
    bool driveFault = false;
    bool coolingFault = false;
    std::optional<uint8_t> frontPanel; // the optional fourth byte of Get Chassis Status
};

// System status shown by the error LED.
inline constexpr uint8_t kErrorLedOk = 0, kErrorLedWarning = 1, kErrorLedCritical = 2;

struct LedSettings {
    bool identify = false;
    uint8_t error = kErrorLedOk;
};

// How a configuration-space variable's value is written in the profile, and what a write must
// look like: fixed-size numbers (little-endian), an IPv6 address (16 bytes), or text and bytes
// of up to maxLength.
enum class VariableKind { Text, Bytes, U8, U16, U32, Ipv6 };

inline constexpr std::size_t kConfigValueMax = 250;

struct ConfigVariable {
    uint16_t id = 0;
    std::string name;
    VariableKind kind = VariableKind::Bytes;
    std::size_t maxLength = kConfigValueMax; // the fixed length for numbers and IPv6
    bool fixedLength = false;
    std::map<uint8_t, std::vector<uint8_t>> defaults; // by index: the instances that exist
};

// ConfConsLoggingEnable: 1 console logging on, 0 off. Declared by the "console" section.
inline constexpr uint16_t kVarConsoleLogging = 0x1630;

struct ConsoleSettings {
    bool logging = false;
    std::size_t capacity = 65536;         // bytes kept; the oldest lines go first
    std::vector<std::string> log;         // what the buffer holds on a fresh machine
    std::vector<std::string> bootLines;   // written while logging, each time the host starts
};

// IPMI channel medium types.
inline constexpr uint8_t kMediumIpmb = 0x01, kMediumLan = tvx::lan::kMedium8023, kMediumSerial = 0x05,
                         kMediumSystemInterface = 0x0C;

struct LanAddresses {
    std::array<uint8_t, 4> ip{};
    std::array<uint8_t, 4> subnetMask{};
    std::array<uint8_t, 4> gateway{};
    std::array<uint8_t, 6> gatewayMac{};
    std::array<uint8_t, 6> mac{};
    uint8_t addressSource = 0; // 0 unspecified, 1 static, 2 DHCP, 3 BIOS/system software, 4 other
    uint8_t authTypeSupport = 0x15; // none, MD5, straight password
};

// An alert destination of an 802.3 channel as the profile declares it: where its traps go
// (an address of 0.0.0.0 is a destination not set up), and whether the controller refuses
// the platform event parameters of Alert Immediate for it.
struct AlertDestination {
    std::array<uint8_t, 4> ip{};
    std::array<uint8_t, 6> mac{};
    uint16_t port = tvx::lan::kTrapPort;
    bool refusesEvent = false;
};

struct ChannelSettings {
    uint8_t number = 0;
    uint8_t medium = 0;
    uint8_t protocol = 0x01;       // IPMB-1.0 (also used for LAN and serial basic mode)
    uint8_t sessionSupport = 0x00; // bits 7:6: 0 session-less, 1 single, 2 multi, 3 session-based
    std::array<uint8_t, 2> auxInfo{};
    LanAddresses lan; // 802.3 channels only
    std::vector<AlertDestination> alertDestinations; // selectors 1 to N
};

struct LanSettings {
    std::vector<ChannelSettings> channels;
    uint8_t currentChannel = 0; // what channel 0x0E means; 0 when there is no channel

    const ChannelSettings *channel(uint8_t number) const
    {
        for (const auto &c : channels)
            if (c.number == number) return &c;
        return nullptr;
    }
};

struct MachineSettings {
    ChassisSettings chassis;
    LedSettings leds;
    std::map<uint16_t, ConfigVariable> configSpace;
    ConsoleSettings console;
    LanSettings lan;
};

// Reads the five sections from the profile's root object. Throws ProfileError naming the
// file, the JSON pointer and what is wrong.
MachineSettings parseMachineSettings(const Node &root);

// Text forms shared by the profile and the state file.
bool parseIpv4(const std::string &text, std::array<uint8_t, 4> &out);
bool parseMac(const std::string &text, std::array<uint8_t, 6> &out);
std::string ipv4Text(std::span<const uint8_t> b);
std::string macText(std::span<const uint8_t> b);
// A subnet mask: ones followed by zeros.
bool contiguousMask(std::span<const uint8_t> b);

} // namespace tvxsim
