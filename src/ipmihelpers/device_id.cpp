// The controller's identity (Get Device ID).
#include <cstring>

#include "common/diag.h"
#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;

namespace {

constexpr uint32_t kDeviceIdResponseLen = 16; // completion code and the 15 bytes of the record
static_assert(sizeof(IpmiDeviceId) == kDeviceIdResponseLen - tvx::kAnswerData);

} // namespace

extern "C" TVX_API IpmiDeviceId ipmiGetDeviceId(IpmiSession *session)
{
    // The request states no capacity, so the platform writes the whole response: the
    // buffer is as large as any response it produces, and a longer answer than Get Device
    // ID's 16 bytes is refused below by its length.
    uint8_t response[LIBIPMI_MAX_RESPONSE_LEN];
    std::memset(response, 0, sizeof response);
    IpmiDeviceId id;
    std::memset(&id, 0, sizeof id);
    if (!session) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Session check failed.");
        return id;
    }
    uint32_t len = 0;
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, TVX_NETFN_APP, tvx::cmd::app::kGetDeviceId, nullptr,
                                                       0, response, &len, tvx::kPlatformTimeout);
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return id;
    }
    if (len != kDeviceIdResponseLen) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to read device id, wrong response size.");
        return id;
    }
    tvx::wire::View data = tvx::wire::View(response, len).from(tvx::kAnswerData);
    std::memcpy(&id, data.data(), sizeof id);
    return id;
}
