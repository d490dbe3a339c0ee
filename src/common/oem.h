// The OEM/Group request frame: NetFn 0x2E (NetFn/LUN byte 0xB8); request bytes 0-2 the
// vendor's IANA enterprise number, least significant byte first, then the command's own
// bytes; the answer repeats the IANA number in bytes 1-3 after the completion code and
// carries its payload from byte 4.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "common/bytes.h"

namespace tvx::oem {

// The vendor's IANA enterprise number.
inline constexpr uint32_t kVendorIana = 32473;
inline constexpr uint8_t kIana0 = kVendorIana & 0xFF;
inline constexpr uint8_t kIana1 = (kVendorIana >> 8) & 0xFF;
inline constexpr uint8_t kIana2 = (kVendorIana >> 16) & 0xFF;
inline constexpr size_t kPayloadOffset = 4; // first payload byte of an answer

// A request: the IANA number followed by the given bytes, e.g. oemRequest(0x40, key0, key1).
template <typename... Bytes> constexpr std::array<uint8_t, 3 + sizeof...(Bytes)> oemRequest(Bytes... bytes)
{
    return {kIana0, kIana1, kIana2, static_cast<uint8_t>(bytes)...};
}

// Whether the answer repeats the vendor's IANA number in bytes 1-3.
constexpr bool echoesIana(ByteView response)
{
    return response.has(1, 3) && response.u8(1) == kIana0 && response.u8(2) == kIana1 && response.u8(3) == kIana2;
}

} // namespace tvx::oem
