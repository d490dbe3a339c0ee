// Bytes as tests write them: requests, answers and records spelled out as data.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
inline Bytes le16(uint16_t v) { return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)}; }
inline Bytes le32(uint32_t v) { return cat({le16(static_cast<uint16_t>(v)), le16(static_cast<uint16_t>(v >> 16))}); }
inline Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

// The vendor's IANA number as it opens every OEM/Group request and answer.
inline const Bytes kIana = {0xD9, 0x7E, 0x00};
inline Bytes oem(const Bytes &tail) { return cat({kIana, tail}); }
inline Bytes oemAnswer(const Bytes &payload, uint8_t code = 0x00) { return cat({{code}, kIana, payload}); }
