// Configuration-space variables (OEM command 0xE0) and the console log.
#include <cstdlib>
#include <cstring>

#include "common/diag.h"
#include "common/raw.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;
namespace wire = tvx::wire;
namespace oem = tvx::oem;

namespace {

constexpr uint8_t kConfigSpace = oem::cmd::kConfigSpace;
constexpr uint8_t kOemVendor = oem::cmd::kVendor;
constexpr uint32_t kResponseSize = tvx::kOemResponseSize;
constexpr size_t kRequestHead = oem::kIanaSize + 5; // operation, index, ID, length

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
    uint8_t request[oem::kIanaSize + 4];
    wire::Writer w(request);
    w.u24(oem::kVendorIana).u8(oem::config_space::kRead).u8(index).u16(variableId);
    uint32_t len = 0;
    uint16_t status = send(session, kConfigSpace, request, static_cast<uint32_t>(w.size()), response, &len);
    if (status != 0) {
        tvx::diag::plainFormat("%s:%d: error code = %x\n", tvx::diag::unitFile(Unit::Helpers), __LINE__, status);
        return -1;
    }
    if (len == 0 || tvx::completionCode(response) != tvx::cc::kOk) return -1;
    // The length byte is read from the zero-filled buffer: one that did not arrive reads 0.
    uint8_t length = wire::View(response).get(oem::config_space::kValueLength, uint8_t{0});
    if (length == 0) return 0;
    // A length byte that promises more than arrived would hand out bytes the controller
    // never sent: such an answer is refused.
    wire::View value = tvx::received(response, len).from(oem::config_space::kValue);
    if (value.size() < length) return -1;
    if (buffer) std::memcpy(buffer, value.data(), length);
    return length;
}

TVX_API int ipmiWriteConfigSpaceVariable(IpmiSession *session, uint16_t variableId, uint8_t index, const uint8_t *data,
                                         uint8_t length)
{
    if (!session) return 1;
    if (!data && length > 0) return 0;
    uint32_t requestLen = kRequestHead + length;
    uint8_t *request = static_cast<uint8_t *>(std::calloc(requestLen, 1));
    if (!request) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return 0;
    }
    wire::Writer w(request, requestLen);
    w.u24(oem::kVendorIana).u8(oem::config_space::kWrite).u8(index).u16(variableId).u8(length);
    if (length > 0) w.bytes({data, length});
    uint8_t response[kResponseSize];
    uint32_t len = 0;
    uint16_t status = send(session, kConfigSpace, request, requestLen, response, &len);
    std::free(request);
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send request with error 0x%x", tvx::swappedStatus(status));
        return 0;
    }
    if (len == 0) return 0;
    if (tvx::completionCode(response) != tvx::cc::kOk) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to read config space variable, completion code = 0x%x",
                         tvx::completionCode(response));
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
    uint8_t request[oem::kIanaSize + 1 + sizeof oem::vendor::kResetGuard];
    wire::Writer w(request);
    w.u24(oem::kVendorIana).u8(oem::vendor::kResetConfigSpace).bytes(oem::vendor::kResetGuard);
    uint8_t response[kResponseSize];
    uint32_t len = 0;
    uint16_t status = send(session, kOemVendor, request, static_cast<uint32_t>(w.size()), response, &len);
    if (status != 0 || tvx::completionCode(response) != tvx::cc::kOk) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    return 1;
}

TVX_API int ipmiConsoleLogGetState(IpmiSession *session, uint32_t *state)
{
    uint8_t value[kResponseSize];
    std::memset(value, 0, sizeof value);
    if (ipmiReadConfigSpaceVariable(session, 0, TVX_VAR_CONSOLE_LOGGING, value) == 1 && state)
        *state = wire::Reader(value, 1).u8();
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
    auto request = oem::request(oem::vendor::kConsoleLog, oem::vendor::kConsoleClear);
    uint8_t response[kResponseSize];
    uint32_t len = 0;
    return send(session, kOemVendor, request.data(), request.size(), response, &len);
}

} // extern "C"
