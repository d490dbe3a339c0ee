// The vendor's OEM requests around the inventory: whether the host's agent is connected to
// the controller (OEM/Group command 0x02, sub-function 0x08) and the controller's EEPROM
// information blocks (command 0xF5, sub-function 0x12, one index byte). Shared by the
// library and the virtual controller; answer positions count from the first payload byte
// (oem::kPayload).
#pragma once

#include <cstddef>
#include <cstdint>

#include "tvx/wire.h"

namespace tvx::inventory {

inline constexpr uint8_t kAgentCommand = 0x02;
inline constexpr uint8_t kAgentConnected = 0x08;
// Answer: a reserved byte, then the agent's state.
inline constexpr wire::U8 kAgentState{1};
inline constexpr uint8_t kAgentNeverConnected = 0x00;
inline constexpr uint8_t kAgentIsConnected = 0x01;
inline constexpr uint8_t kAgentConnectionLost = 0x02;

inline constexpr uint8_t kEepromCommand = 0xF5;
inline constexpr uint8_t kEepromInfo = 0x12;
// Answer: exactly this many bytes of the block, so the whole answer is 20 bytes long.
inline constexpr wire::Run kEepromBlock{0, 16};

} // namespace tvx::inventory
