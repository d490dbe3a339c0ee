// A direct platform request whose answer buffer states no capacity: the platform then writes
// the whole answer, so the buffer is as large as any answer the platform produces.
#pragma once

#include <cstdint>
#include <cstring>

#include "common/bytes.h"
#include "libipmi.h"

namespace tvx {

struct RawAnswer {
    uint16_t status = 0;
    uint32_t length = 0;
    uint8_t bytes[LIBIPMI_MAX_RESPONSE_LEN];

    // What arrived; a length beyond the buffer (from a platform that broke its word) is cut.
    ByteView view() const { return ByteView(bytes, length < sizeof bytes ? length : sizeof bytes); }
    // The answer buffer as filled before and by the call, for reads of pre-set bytes.
    ByteView buffer() const { return ByteView(bytes, sizeof bytes); }
    bool ok() const { return status == 0 && bytes[0] == 0x00; }
};

// Sends the request with response length 0 ("not stated"), after filling the first
// `prefill` answer bytes with 0xFF so that an answer that does not reach them reads as a
// failure; the rest of the buffer is zero.
inline void sendRaw(IpmiSession *session, uint8_t netFnLun, uint8_t command, const uint8_t *request,
                    uint32_t requestLen, RawAnswer &answer, uint32_t prefill = 0)
{
    std::memset(answer.bytes, 0, sizeof answer.bytes);
    std::memset(answer.bytes, 0xFF, prefill < sizeof answer.bytes ? prefill : sizeof answer.bytes);
    answer.length = 0;
    answer.status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, netFnLun, command, const_cast<uint8_t *>(request),
                                                     requestLen, answer.bytes, &answer.length, 60);
}

// A request with a 255-byte answer buffer whose capacity is stated (the OEM services that
// answer variable-length data). The buffer is zeroed first; *len receives the length.
inline constexpr uint32_t kOemResponseSize = 255;
inline uint16_t sendStated(IpmiSession *session, uint8_t netFnLun, uint8_t command, const uint8_t *request,
                           uint32_t requestLen, uint8_t (&response)[kOemResponseSize], uint32_t *len)
{
    std::memset(response, 0, sizeof response);
    *len = kOemResponseSize;
    return LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, netFnLun, command, const_cast<uint8_t *>(request), requestLen,
                                            response, len, 60);
}

// What arrived of such an answer.
inline ByteView received(const uint8_t (&response)[kOemResponseSize], uint32_t len)
{
    return ByteView(response, len < kOemResponseSize ? len : kOemResponseSize);
}

// The platform's status with its two low bytes exchanged, as the messages show it.
constexpr unsigned swappedStatus(uint16_t e) { return ((e >> 8) & 0xFF) | (e & 0xFF) << 8; }

} // namespace tvx
