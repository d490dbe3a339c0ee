// One request and the answer buffer it fills, for the OEM queries that read a few bytes of a
// buffer prepared beforehand (zeroed, or filled with 0xFF so that a byte the controller did
// not send reads as "none"): the buffer is read as filled, the length tells what arrived.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"
#include "tvx_toipmi.h"

namespace tvx {

template <std::size_t N> struct Exchange {
    static_assert(N > 0 && N <= LIBIPMI_MAX_RESPONSE_LEN);
    uint8_t bytes[N];
    uint32_t length = 0;

    explicit Exchange(uint8_t fill = 0x00) { std::memset(bytes, fill, N); }

    // The whole buffer as the request left it.
    wire::View filled() const { return wire::View(bytes, N); }
    // What the controller sent (a length beyond the buffer is cut to it).
    wire::View received() const { return wire::View(bytes, length < N ? length : N); }
    uint8_t completionCode() const { return filled().get(kCompletionCode, cc::kUnspecified); }
    bool echoesIana() const { return oem::echoesIana(filled()); }

    // Sends with the platform's raw request, stating the buffer's size; the platform status.
    uint16_t sendDirect(IpmiSession *session, uint8_t command, std::span<const uint8_t> request)
    {
        length = N;
        return LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, netfn::lun0(netfn::kOem), command,
                                                const_cast<uint8_t *>(request.data()),
                                                static_cast<uint32_t>(request.size()), bytes, &length,
                                                kPlatformTimeout);
    }
    // Sends through ipmiSendCmd with the buffer's size: whether an answer arrived (a non-zero
    // completion code is then in its first byte).
    bool sendCmd(IpmiSession *session, uint8_t command, std::span<const uint8_t> request)
    {
        length = N;
        return ipmiSendCmd(session, netfn::lun0(netfn::kOem), command, static_cast<uint32_t>(request.size()),
                           const_cast<uint8_t *>(request.data()), &length, bytes) != 0;
    }
};

} // namespace tvx
