// Configuration-space variables (OEM command 0xE0) and the console log.
#include <cstdlib>
#include <cstring>

#include "common/diag.h"
#include "common/oem.h"
#include "common/raw.h"
#include "libipmi.h"
#include "tvx_toipmi.h"

using tvx::ByteView;
using tvx::diag::Unit;

namespace {

constexpr uint8_t kConfigSpace = 0xE0;
constexpr uint8_t kOemVendor = 0xF5;
constexpr uint8_t kRead = 0x01;
constexpr uint8_t kWrite = 0x02;
constexpr uint32_t kResponseSize = tvx::kOemResponseSize;
constexpr size_t kValueOffset = 5;

uint16_t send(IpmiSession *session, uint8_t command, const uint8_t *request, uint32_t requestLen,
              uint8_t (&response)[kResponseSize], uint32_t *len)
{
    return tvx::sendStated(session, TVX_NETFN_OEM_GROUP, command, request, requestLen, response, len);
}

} // namespace

extern "C" {

TVX_API int ipmiReadConfigSpaceVariable(IpmiSession *session, uint8_t index, uint16_t variableId, uint8_t *buffer)
{
    uint8_t response[kResponseSize];
    std::memset(response, 0, sizeof response);
    if (!session) return 0;
    auto request = tvx::oem::oemRequest(kRead, index, variableId & 0xFF, variableId >> 8);
    uint32_t len = 0;
    uint16_t status = send(session, kConfigSpace, request.data(), request.size(), response, &len);
    if (status != 0) {
        tvx::diag::plainFormat("%s:%d: error code = %x\n", tvx::diag::unitFile(Unit::Helpers), __LINE__, status);
        return -1;
    }
    if (len == 0 || response[0] != 0) return -1;
    uint8_t length = response[4];
    if (length == 0) return 0;
    // A length byte that promises more than arrived would hand out bytes the controller
    // never sent: such an answer is refused.
    ByteView value = tvx::received(response, len).from(kValueOffset);
    if (value.size() < length) return -1;
    if (buffer) std::memcpy(buffer, value.data(), length);
    return length;
}

TVX_API int ipmiWriteConfigSpaceVariable(IpmiSession *session, uint16_t variableId, uint8_t index, const uint8_t *data,
                                         uint8_t length)
{
    if (!session) return 1;
    if (!data && length > 0) return 0;
    uint32_t requestLen = 8u + length;
    uint8_t *request = static_cast<uint8_t *>(std::calloc(requestLen, 1));
    if (!request) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return 0;
    }
    auto head = tvx::oem::oemRequest(kWrite, index, variableId & 0xFF, variableId >> 8, length);
    std::memcpy(request, head.data(), head.size());
    if (length > 0) std::memcpy(request + head.size(), data, length);
    uint8_t response[kResponseSize];
    uint32_t len = 0;
    uint16_t status = send(session, kConfigSpace, request, requestLen, response, &len);
    std::free(request);
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send request with error 0x%x", tvx::swappedStatus(status));
        return 0;
    }
    if (len == 0) return 0;
    if (response[0] != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to read config space variable, completion code = 0x%x", response[0]);
        return 0;
    }
    return 1;
}

TVX_API void *getConfigSpaceVariable(void *destination, unsigned destinationSize, uint8_t index, uint16_t variableId)
{
    IpmiSession *session = ipmiHelperOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
    if (!session) {
        tvx::diag::plain("failed to open session\n");
        return nullptr;
    }
    uint8_t value[kResponseSize];
    std::memset(value, 0, sizeof value);
    void *result = nullptr;
    int length = ipmiReadConfigSpaceVariable(session, index, variableId, value);
    if (length >= 0 && static_cast<unsigned>(length) <= destinationSize && destination) {
        std::memset(destination, 0, destinationSize);
        std::memcpy(destination, value, static_cast<size_t>(length));
        result = destination;
    }
    ipmiHelperCloseSession(&session);
    return result;
}

TVX_API int ipmiResetConfigSpace(IpmiSession *session)
{
    if (!session) return 0;
    auto request = tvx::oem::oemRequest(0xE0, 'C', 'L', 'R', 0xAA);
    uint8_t response[kResponseSize];
    uint32_t len = 0;
    uint16_t status = send(session, kOemVendor, request.data(), request.size(), response, &len);
    if (status != 0 || response[0] != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    return 1;
}

TVX_API int ipmiConsoleLogGetState(IpmiSession *session, uint32_t *state)
{
    uint8_t value[kResponseSize];
    std::memset(value, 0, sizeof value);
    if (ipmiReadConfigSpaceVariable(session, 0, TVX_VAR_CONSOLE_LOGGING, value) == 1 && state) *state = value[0];
    return 0;
}

TVX_API int ipmiConsoleLogStart(IpmiSession *session)
{
    if (!session) return 0;
    const uint8_t on = 1;
    if (!ipmiWriteConfigSpaceVariable(session, TVX_VAR_CONSOLE_LOGGING, 0, &on, 1))
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to set ConfConsLoggingEnable variable");
    return 0;
}

TVX_API int ipmiConsoleLogStop(IpmiSession *session)
{
    if (!session) return 0;
    const uint8_t off = 0;
    if (!ipmiWriteConfigSpaceVariable(session, TVX_VAR_CONSOLE_LOGGING, 0, &off, 1))
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to set ConfConsLoggingEnable variable");
    return 0;
}

TVX_API int ipmiConsoleLogClear(IpmiSession *session)
{
    if (!session) return 0;
    auto request = tvx::oem::oemRequest(0x09, 0x07);
    uint8_t response[kResponseSize];
    uint32_t len = 0;
    return send(session, kOemVendor, request.data(), request.size(), response, &len);
}

} // extern "C"
