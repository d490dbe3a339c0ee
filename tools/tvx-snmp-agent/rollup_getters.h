// The agent identity, status rollup, management network and test alert part of a collection.
#pragma once

#include <cstdint>

#include "snapshot.h"
#include "tvx_toipmi.h"

namespace tvxagent {

// Fills the identity and status scalars, the network tables and the LAN channel scalars from
// the getters the library offers.
void collectRollup(Snapshot &out, SDRInfo *info);
bool rollupTestAlertAvailable();
bool rollupSendTestAlert();

} // namespace tvxagent
