// The virtual controller's request handling: hostile request bytes through the platform's raw
// exchange, against the default machine (started afresh for every input).
//
// Input: requests one after the other, each [NetFn/LUN] [command] [N] [N data bytes].
//
// Every request is answered (the default machine injects no faults): a completion code and
// at most 255 bytes in all; an OEM/Group answer repeats the IANA number after the completion
// code once the request holds one. Anything else aborts, as a crash would.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "libipmi.h"
#include "libipmi_host.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // The machine's state file lives in memory where it can.
    static std::string dir = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") + "/tvx-fuzz-sim-" +
                             std::to_string(static_cast<long>(getpid()));
    if (ipmihost_reset_target("default", dir.c_str()) != 0) {
        std::fprintf(stderr, "cannot start the default machine: %s\n", ipmihost_last_error());
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (ipmihost_reset_machine() != 0) std::abort();
    alignas(8) uint8_t block[LIBIPMI_SESSION_SIZE] = {};
    IpmiSession *session = reinterpret_cast<IpmiSession *>(block);
    uint8_t priv = 4;
    if (LIBIPMI_Create_IPMI_Local_Session_Ext(session, const_cast<char *>(""), const_cast<char *>(""), &priv,
                                              nullptr, nullptr, 0, nullptr, 0, 0) != LIBIPMI_STATUS_OK)
        std::abort();
    std::size_t at = 0;
    for (int n = 0; n < 16 && at + 3 <= size; ++n) {
        uint8_t netFnLun = data[at], command = data[at + 1];
        std::size_t length = data[at + 2];
        at += 3;
        if (length > size - at) length = size - at;
        uint8_t request[256];
        for (std::size_t i = 0; i < length; ++i) request[i] = data[at + i];
        at += length;
        uint8_t response[1024];
        uint32_t responseLength = sizeof response;
        const uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(
            session, 0, netFnLun, command, request, static_cast<uint32_t>(length), response, &responseLength, 5);
        const bool oem = (netFnLun >> 2 & 0x3E) == 0x2E;
        if ((status != LIBIPMI_STATUS_OK && !LIBIPMI_STATUS_IS_COMPLETION_CODE(status)) || responseLength < 1 ||
            responseLength > 255 || (oem && length >= 3 && responseLength < 4)) {
            std::fprintf(stderr, "request %02x %02x of %zu bytes: status 0x%04x, %u answer bytes\n", netFnLun,
                         command, length, status, responseLength);
            std::abort();
        }
    }
    LIBIPMI_CloseSession(session);
    return 0;
}
