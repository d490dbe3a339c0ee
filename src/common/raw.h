// Direct platform requests and the views their answers are read through.
#pragma once

#include <cstdint>
#include <cstring>

#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace tvx {

// What arrived in an answer buffer of `capacity` bytes: a stated length beyond the buffer
// (from a platform that broke its word) is cut.
inline wire::View received(const uint8_t *buffer, std::size_t capacity, uint32_t length)
{
    return wire::View(buffer, length < capacity ? length : capacity);
}
template <std::size_t N> wire::View received(const uint8_t (&buffer)[N], uint32_t length)
{
    return received(buffer, N, length);
}

// The completion code in the first byte of an answer buffer as filled: ipmiSendCmd puts it
// there even when the controller sent nothing else.
template <std::size_t N> constexpr uint8_t completionCode(const uint8_t (&buffer)[N])
{
    return wire::View(buffer, N).get(kCompletionCode, uint8_t{0});
}

// A direct platform request whose answer buffer states no capacity: the platform then writes
// the whole answer, so the buffer is as large as any answer the platform produces.
struct RawAnswer {
    uint16_t status = 0;
    uint32_t length = 0;
    uint8_t bytes[LIBIPMI_MAX_RESPONSE_LEN];

    // What arrived.
    wire::View view() const { return received(bytes, length); }
    // The answer buffer as filled before and by the call, for reads of pre-set bytes.
    wire::View buffer() const { return wire::View(bytes, sizeof bytes); }
    bool ok() const { return status == 0 && completionCode(bytes) == cc::kOk; }
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
                                                     requestLen, answer.bytes, &answer.length, kPlatformTimeout);
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
                                            response, len, kPlatformTimeout);
}

// The platform's status as far as it says whether the request was carried to the controller
// and answered: a completion code reported in the status (0x0100 | cc, as this platform
// reports one) is an answer, whose code the caller reads from the response, so it counts as 0.
constexpr uint16_t deliveryStatus(uint16_t status) { return LIBIPMI_STATUS_IS_COMPLETION_CODE(status) ? 0 : status; }

// The platform's status with its two low bytes exchanged, as the messages show it.
constexpr unsigned swappedStatus(uint16_t e) { return ((e >> 8) & 0xFF) | (e & 0xFF) << 8; }

} // namespace tvx
