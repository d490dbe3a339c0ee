// Hex texts for the host programs (platform library, virtual controller, tools), which may use
// std::string: thin wrappers over the one hex formatter, wire::formatHex.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "tvx/wire.h"

namespace tvx {

// Bytes as hex digits, two per byte, separated by `separator` (0: none).
inline std::string hexBytes(std::span<const uint8_t> bytes, char separator = ' ', bool upper = false)
{
    std::string out(wire::formatHex(bytes, nullptr, 0, separator, upper), '\0');
    wire::formatHex(bytes, out.data(), out.size() + 1, separator, upper);
    return out;
}

// A number as "0x" and at least `digits` hex digits ("0x0a", "0x1234").
inline std::string hexNumber(uint32_t value, int digits = 2, bool upper = false)
{
    const std::array<uint8_t, 4> be = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                                       static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    const std::string all = hexBytes(be, 0, upper); // eight digits
    const std::size_t first = all.find_first_not_of('0');
    std::size_t keep = first == std::string::npos ? 1 : all.size() - first;
    const std::size_t wanted = digits < 1 ? 1 : digits > 8 ? 8 : static_cast<std::size_t>(digits);
    if (keep < wanted) keep = wanted;
    return "0x" + all.substr(all.size() - keep);
}

} // namespace tvx
