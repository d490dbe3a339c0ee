// Standard commands whose answer is a fixed record (completion code first): the request goes
// through the one raw exchange and the answer is copied into the caller's record.
#pragma once

#include <cstring>
#include <span>
#include <vector>

#include "internal.h"

namespace libipmi {

// Sends the request and copies the answer into *out (at most sizeof(Record) bytes). A
// successful answer shorter than minLen bytes (completion code included) is refused as
// LIBIPMI_STATUS_BAD_RESPONSE, leaving *out untouched; with a completion code, the bytes
// that arrived are stored.
template <typename Record>
uint16_t recordCommand(IpmiSession *session, uint8_t netFn, uint8_t command, std::span<const uint8_t> request,
                       Record *out, size_t minLen, int timeout)
{
    if (!out) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    std::vector<uint8_t> response;
    uint16_t status = exchange(session, netFn, command, request, response, timeout);
    if (status == LIBIPMI_STATUS_OK && response.size() < minLen) return LIBIPMI_STATUS_BAD_RESPONSE;
    if (status == LIBIPMI_STATUS_OK || LIBIPMI_STATUS_IS_COMPLETION_CODE(status)) {
        size_t n = response.size() < sizeof(Record) ? response.size() : sizeof(Record);
        std::memcpy(reinterpret_cast<uint8_t *>(out), response.data(), n);
    }
    return status;
}

inline uint16_t le16(const std::vector<uint8_t> &b, size_t at) { return static_cast<uint16_t>(b[at] | b[at + 1] << 8); }

} // namespace libipmi
