// The alert destinations of the 802.3 channels (LAN configuration parameters 17, 18, 19 and
// the controller's own parameter 0xC0, the UDP port), as the LAN handlers keep them and Alert
// Immediate reads them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "controller.h"

namespace tvxsim {

struct DestinationState {
    uint8_t type = tvx::lan::destination_type::kPetTrap; // bit 7 acknowledged, bits 2:0 the type
    uint8_t ackTimeout = 0;
    uint8_t retries = 0;
    uint8_t format = tvx::lan::destination_address::kFormatIpv4; // bits 7:4
    uint8_t gateway = 0;
    std::array<uint8_t, 4> ip{};
    std::array<uint8_t, 6> mac{};
    uint16_t port = tvx::lan::kTrapPort;
    bool refusesEvent = false; // from the profile only
};

// Destination `selector` (0, the volatile one, to the channel's count) of `channel` (0x0E:
// the current one) as it stands; nothing when the channel is not 802.3 or has no such
// destination.
std::optional<DestinationState> alertDestination(Context &ctx, uint8_t channel, uint8_t selector);

// The controller's IP address on an 802.3 channel (0x0E: the current one), as it stands.
std::array<uint8_t, 4> channelAddress(Context &ctx, uint8_t channel);

} // namespace tvxsim
