// The 16-byte IPMI SEL record: record ID (0-1), type (2), timestamp (3-6) for system event
// records (0x02) and timestamped OEM records (0xC0-0xDF); OEM records 0xE0-0xFF carry 13
// bytes of data from byte 3 on.
#pragma once

#include <cstdint>

namespace tvx::sel {

inline constexpr uint8_t kSystemEvent = 0x02;

constexpr bool isOemTimed(uint8_t type) { return type >= 0xC0 && type <= 0xDF; }
constexpr bool isOemUntimed(uint8_t type) { return type >= 0xE0; }
constexpr bool hasTimestamp(uint8_t type) { return type == kSystemEvent || isOemTimed(type); }
constexpr uint32_t timestamp(const uint8_t *r)
{
    return static_cast<uint32_t>(r[3]) | static_cast<uint32_t>(r[4]) << 8 | static_cast<uint32_t>(r[5]) << 16 |
           static_cast<uint32_t>(r[6]) << 24;
}

} // namespace tvx::sel
