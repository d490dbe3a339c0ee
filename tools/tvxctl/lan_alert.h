// tvxctl: the alert destinations of a LAN channel (IPMI LAN configuration parameters 17-19,
// and the UDP port where the controller keeps one), shared by "lan alert" and "trap test".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"

namespace tvxctl {

struct AlertDestinationInfo {
    uint8_t selector = 0;
    uint8_t type = 0; // bit 7 acknowledged, bits 2:0 the type
    uint8_t ackTimeout = 0, retries = 0, gateway = 0;
    std::string address, mac;
    std::optional<uint16_t> port; // none: the controller keeps no port (traps go to 162)
};

// The number of destinations (parameter 17); fails (Failure) when the controller refuses it.
uint8_t alertDestinationCount(Session &session, uint8_t channel);
// One destination; fails when the controller refuses its type or address.
AlertDestinationInfo alertDestination(Session &session, uint8_t channel, uint8_t selector);
// "10.0.0.5:162".
std::string whereTo(const AlertDestinationInfo &d);

int cmdLanAlert(const Options &, Session &session, const std::vector<std::string> &args);

} // namespace tvxctl
