// Helpers for the library's own operations on top of the one raw exchange: one request with
// its answer normalised, and the storing of an answer into a fixed-size response record.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "internal.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace libipmi {

namespace wire = tvx::wire;
namespace netfn = tvx::netfn;
namespace cc = tvx::cc;

// The data bytes of a response (completion code first), walked field by field.
inline wire::Reader readData(std::span<const uint8_t> response)
{
    wire::Reader in(response);
    in.skip(tvx::kAnswerData);
    return in;
}

// An answer as the operations see it. When `status` is 0 or 0x0100|cc, `bytes` holds the
// response with the completion code first (never empty); otherwise `bytes` is empty.
struct Reply {
    uint16_t status = LIBIPMI_STATUS_OK;
    std::vector<uint8_t> bytes;

    bool ok() const { return status == LIBIPMI_STATUS_OK; }
    bool completionCode(uint8_t code) const { return status == LIBIPMI_STATUS_COMPLETION_CODE(code); }
    // The response data after the completion code, walked field by field.
    wire::Reader read() const { return readData(bytes); }
};

// One request. The completion code that arrived decides between 0 and 0x0100|cc; an answer
// without one is LIBIPMI_STATUS_BAD_RESPONSE, except that a transport reporting a completion
// code without bytes has that code stored as the response, so callers always find it.
// `route` null: where the session's requests go; `lun`: the responder's LUN.
inline Reply command(IpmiSession *session, uint8_t netFn, uint8_t cmd, std::span<const uint8_t> request,
                     int timeout, const Route *route = nullptr, uint8_t lun = 0)
{
    Reply r;
    r.status = exchange(session, netFn, cmd, request, r.bytes, timeout, route, lun);
    if (r.status == LIBIPMI_STATUS_OK || LIBIPMI_STATUS_IS_COMPLETION_CODE(r.status)) {
        if (std::optional<uint8_t> code = wire::View(r.bytes).get(tvx::kCompletionCode)) {
            r.status = *code == cc::kOk ? LIBIPMI_STATUS_OK : LIBIPMI_STATUS_COMPLETION_CODE(*code);
        } else if (r.status == LIBIPMI_STATUS_OK) {
            r.status = LIBIPMI_STATUS_BAD_RESPONSE;
        } else {
            r.bytes.push_back(static_cast<uint8_t>(r.status & 0xFF));
        }
    }
    if (r.status != LIBIPMI_STATUS_OK && !LIBIPMI_STATUS_IS_COMPLETION_CODE(r.status)) r.bytes.clear();
    return r;
}

// Stores an answer into a response record of `size` bytes (completion code first):
//  - completion code 0: the answer must carry at least `minimum` bytes, completion code
//    included; then the bytes that arrived are copied, at most `size`, and the rest of the
//    record keeps what the caller put there. A shorter answer is LIBIPMI_STATUS_BAD_RESPONSE
//    and the record is left entirely untouched, so no half-filled record looks valid.
//  - a non-zero completion code: the bytes that arrived, at most `size` (at least the code).
//  - no answer: the record is untouched.
inline uint16_t storeReply(const Reply &r, void *record, std::size_t size, std::size_t minimum)
{
    if (r.ok() && r.bytes.size() < minimum) return LIBIPMI_STATUS_BAD_RESPONSE;
    if (r.ok() || LIBIPMI_STATUS_IS_COMPLETION_CODE(r.status))
        std::memcpy(record, r.bytes.data(), std::min(r.bytes.size(), size));
    return r.status;
}

} // namespace libipmi

namespace libipmi {

// One request whose answer is a fixed record: storeReply's rules, for a record type.
template <typename Record>
uint16_t recordCommand(IpmiSession *session, uint8_t netFn, uint8_t cmd, std::span<const uint8_t> request,
                       Record *out, std::size_t minimum, int timeout)
{
    if (!out) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    return storeReply(command(session, netFn, cmd, request, timeout), out, sizeof(Record), minimum);
}

} // namespace libipmi
