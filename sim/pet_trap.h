// Platform Event Traps: the SNMPv1 trap a controller sends to an alert destination, carrying
// one platform event in the PET format (enterprise 1.3.6.1.4.1.3183.1.1, one OCTET STRING
// variable binding 1.3.6.1.4.1.3183.1.1.1 with the event's data, most significant byte first).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tvxsim {

struct PlatformEvent {
    uint8_t generator = 0x20; // the sensor device (slave address)
    uint8_t revision = 0x04;
    uint8_t sensorType = 0;
    uint8_t sensorNumber = 0;
    uint8_t eventType = 0; // bit 7 deassertion, bits 6:0 event/reading type
    std::array<uint8_t, 3> data{0xFF, 0xFF, 0xFF};
};

struct PetTrap {
    std::array<uint8_t, 4> agent{};       // the controller's address on the channel
    std::array<uint8_t, 4> destination{}; // where the trap goes
    uint16_t port = 162;
    std::string community = "public";
    std::optional<PlatformEvent> event; // none: an alert without event parameters
    uint32_t manufacturerId = 0;
    uint16_t systemId = 0;
    uint16_t sequence = 0;
};

// The trap's specific-trap number: sensor type, event type, direction and offset.
uint32_t petSpecificTrap(const std::optional<PlatformEvent> &event);
// The variable binding's bytes (47: no OEM custom fields).
std::vector<uint8_t> petVariableBinding(const PetTrap &trap);

// Builds the trap with net-snmp and sends it over UDP. On failure, why.
bool sendPetTrap(const PetTrap &trap, std::string &error);

} // namespace tvxsim
