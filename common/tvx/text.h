// Texts in type/length-coded fields, decoded once for every layer: FRU area fields and SDR ID
// strings. A type/length byte gives the encoding in bits 7:6 and the length in bytes in its low
// bits (5:0 in the FRU, 4:0 in an SDR). The encodings:
//  - binary (FRU; Unicode in an SDR, which has no text here): lower-case hex digits;
//  - BCD plus: two characters per byte, high nibble first, from "0123456789 -.:,_";
//  - 6-bit packed ASCII: four characters in three bytes, the first in the low bits, each
//    character 0x20 plus its six bits;
//  - 8-bit ASCII/Latin-1: the bytes as they stand, up to a NUL.
// BCD plus and 6-bit texts lose the trailing spaces that pad their last byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tvx/records.h"
#include "tvx/wire.h"

namespace tvx::text {

// A decoded text: at most 126 characters (63 bytes as hex or BCD plus), zero-terminated.
struct Text {
    char chars[2 * 63 + 1] = {};
    std::size_t size = 0;
    constexpr std::string_view view() const { return {chars, size}; }
};

// The characters of `bytes` in an encoding (at most 63 bytes are decoded).
constexpr Text decode(fru::Encoding encoding, wire::View bytes)
{
    constexpr char kBcdPlus[] = "0123456789 -.:,_";
    Text t;
    const std::size_t n = bytes.size() < 63 ? bytes.size() : 63;
    const uint8_t *b = bytes.data();
    auto put = [&t](char c) { t.chars[t.size++] = c; };
    switch (encoding) {
    case fru::Encoding::Binary:
        t.size = wire::formatHex(bytes.first(n).span(), t.chars, sizeof t.chars, 0);
        return t;
    case fru::Encoding::BcdPlus:
        for (std::size_t i = 0; i < n; ++i) {
            put(kBcdPlus[wire::bits(b[i], 4, 4)]);
            put(kBcdPlus[wire::bits(b[i], 0, 4)]);
        }
        break;
    case fru::Encoding::Ascii6:
        for (std::size_t bit = 0; bit + 6 <= n * 8; bit += 6) {
            unsigned v = 0;
            for (unsigned k = 0; k < 6; ++k) v |= wire::bits(b[(bit + k) / 8], (bit + k) % 8, 1) << k;
            put(static_cast<char>(0x20 + v));
        }
        break;
    case fru::Encoding::Text8:
        for (std::size_t i = 0; i < n && b[i] != 0; ++i) put(static_cast<char>(b[i]));
        return t;
    }
    while (t.size > 0 && t.chars[t.size - 1] == ' ') t.chars[--t.size] = '\0';
    return t;
}

} // namespace tvx::text

namespace tvx::fru {

// A FRU field's text from its type/length byte and the bytes that follow it.
constexpr text::Text fieldText(uint8_t typeLength, wire::View bytes)
{
    return text::decode(encodingOf(typeLength), bytes.first(lengthOf(typeLength)));
}

} // namespace tvx::fru

namespace tvx::sdr {

// A record's ID string, never read past the bytes of the record that are there: empty for a
// record type without one and for the Unicode type.
constexpr text::Text idString(wire::View record)
{
    const U8 *typeLength = idStringType(record.get(kRecordType, uint8_t{0xFF}));
    if (!typeLength || !record.has(*typeLength)) return {};
    const uint8_t tl = record.get(*typeLength, uint8_t{0});
    const fru::Encoding encoding = fru::encodingOf(tl);
    if (encoding == fru::Encoding::Binary) return {};
    return text::decode(encoding, record.upTo(typeLength->end(), idStringLength(tl)));
}

} // namespace tvx::sdr
