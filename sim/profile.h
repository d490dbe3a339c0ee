// Machine profiles: the JSON description of one machine that the virtual controller models.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "machine_settings.h"
#include "tvx/ipmi.h"

namespace tvxsim {

// A profile or state file that cannot be used. what() names the file, the place in it and
// what is wrong, e.g. "machines/x.json: /controller/product_id: expected ...".
class ProfileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Read-only view of one JSON value with its place in the file, for checked reading:
// every failure throws ProfileError naming file and JSON pointer.
class Node {
public:
    Node(const nlohmann::json &value, std::string file, std::string path)
        : value_(&value), file_(std::move(file)), path_(std::move(path)) {}

    const nlohmann::json &json() const { return *value_; }
    const std::string &path() const { return path_; }
    const std::string &file() const { return file_; }

    bool has(const char *key) const;
    Node at(const char *key) const;                  // required member
    std::optional<Node> find(const char *key) const; // optional member
    Node at(std::size_t index) const;                // array element
    std::size_t size() const;                        // array length
    // Refuses members other than these (catches misspelt keys).
    void allowOnly(std::initializer_list<const char *> keys) const;

    // An integer given as a JSON number or as a string "0x1F" / "31", within [min, max].
    uint64_t integer(uint64_t min, uint64_t max) const;
    uint8_t byte() const { return static_cast<uint8_t>(integer(0, 0xFF)); }
    bool boolean() const;
    std::string string() const;
    // Bytes as an array of integers or a string of hex bytes "01 0a ff".
    std::vector<uint8_t> bytes() const;

    [[noreturn]] void fail(const std::string &what) const;

private:
    void requireObject() const;
    const nlohmann::json *value_;
    std::string file_;
    std::string path_;
};

// A fault applied to requests that match (network function, command, request prefix).
struct Fault {
    enum class Kind { CompletionCode = 1, NoAnswer, Short, Long, Garbled };
    uint8_t netFn = 0;
    uint8_t command = 0;
    std::vector<uint8_t> match;
    Kind kind = Kind::CompletionCode;
    uint8_t value = 0;
    uint32_t count = 0; // requests it still hits; 0 = every one
};

struct DeviceIdentity {
    uint8_t deviceId = 0x20;
    uint8_t deviceRevision = 0x01; // bit 7 set when the device provides SDRs
    uint8_t firmwareMajor = 1;     // 0..127
    uint8_t firmwareMinorBcd = 0x00;
    bool busy = false;
    uint8_t ipmiVersionBcd = 0x02; // bits 3..0 major, 7..4 minor
    uint8_t additionalSupport = 0;
    // Whether the controller is a chassis device and answers the Chassis commands: a profile
    // that lists its device support and leaves "chassis" out has none (a blade whose
    // enclosure switches power); one that does not list it has one.
    bool chassisDevice = true;
    uint32_t manufacturerId = tvx::oem::kVendorIana;
    uint16_t productId = 0;
    std::optional<std::array<uint8_t, 4>> auxFirmwareRevision;

    // The 15 (or 11 without the auxiliary revision) data bytes of Get Device ID.
    std::vector<uint8_t> responseData() const;
};

struct Profile {
    std::string file;        // as given (used in messages)
    std::string name;        // the file's base name without ".json": names the state file
    std::string description;
    uint32_t oemIana = tvx::oem::kVendorIana; // the number OEM/Group requests are answered for
    DeviceIdentity device;
    // The longest answer the controller sends, completion code included (0: no limit beyond
    // what each command carries); reads asking for more are refused with 0xCA.
    std::size_t maxResponseLength = 0;
    std::vector<Fault> faults;
    MachineSettings settings; // chassis, LEDs, configuration space, console log, LAN channels
    nlohmann::json document; // the whole profile, for the subsystems that read more of it

    Node root() const { return Node(document, file, ""); }
};

// A profile is a regular file of at most this many bytes, its values nested at most this deep
// (the shipped profiles: 40 KB and 5 levels).
inline constexpr std::size_t kMaxProfileBytes = 16u << 20;
inline constexpr std::size_t kMaxProfileDepth = 64;

// Loads and checks a profile. Throws ProfileError.
Profile loadProfile(const std::string &path);
// The same from text already in memory; displayName is used in messages and for the name.
Profile parseProfile(const std::string &text, const std::string &displayName);

// The byte offset of the first bracket of JSON text nested deeper than maxDepth, or npos.
std::size_t nestedTooDeep(std::string_view text, std::size_t maxDepth);

// Parses a controller's identity (the keys of the profile's "controller").
DeviceIdentity parseDeviceIdentity(const Node &node);

// Parses one fault description (shared by profiles and the control API's checks).
Fault parseFault(const Node &node);

} // namespace tvxsim
