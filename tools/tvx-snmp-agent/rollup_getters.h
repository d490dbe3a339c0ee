// The agent identity, status rollup, management network and test alert part of a collection.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "snapshot.h"
#include "tvx_toipmi.h"

namespace tvxagent {

// A server network port function: the three identity bytes the platform reads its area by.
using PortFunction = std::array<uint8_t, 3>;

// Fills the identity and status scalars, the network tables (the controller, then the given
// port functions) and the LAN channel scalars from the getters the library offers.
void collectRollup(Snapshot &out, SDRInfo *info, const std::vector<PortFunction> &ports);
bool rollupTestAlertAvailable();
bool rollupSendTestAlert();

} // namespace tvxagent
