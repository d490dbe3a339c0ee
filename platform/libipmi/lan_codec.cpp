#include "lan_codec.h"

#include <freeipmi/api/ipmi-api.h>

#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace libipmi::lan {

uint16_t statusForError(int errnum)
{
    switch (errnum) {
    case IPMI_ERR_USERNAME_INVALID:
    case IPMI_ERR_PASSWORD_INVALID:
    case IPMI_ERR_K_G_INVALID:
    case IPMI_ERR_PRIVILEGE_LEVEL_INSUFFICIENT:
    case IPMI_ERR_PRIVILEGE_LEVEL_CANNOT_BE_OBTAINED:
    case IPMI_ERR_AUTHENTICATION_TYPE_UNAVAILABLE:
    case IPMI_ERR_CIPHER_SUITE_ID_UNAVAILABLE:
    case IPMI_ERR_PASSWORD_VERIFICATION_TIMEOUT:
    case IPMI_ERR_IPMI_2_0_UNAVAILABLE:
    case IPMI_ERR_PERMISSION:
        return LIBIPMI_STATUS_AUTH_FAILED;
    case IPMI_ERR_SESSION_TIMEOUT:
    case IPMI_ERR_CONNECTION_TIMEOUT:
    case IPMI_ERR_MESSAGE_TIMEOUT:
        return LIBIPMI_STATUS_TIMEOUT;
    case IPMI_ERR_HOSTNAME_INVALID:
    case IPMI_ERR_PARAMETERS:
        return LIBIPMI_STATUS_CONFIG_ERROR;
    case IPMI_ERR_OUT_OF_MEMORY:
        return LIBIPMI_STATUS_NO_MEMORY;
    default:
        return LIBIPMI_STATUS_TRANSPORT;
    }
}

bool connectionLost(int errnum)
{
    // A parameter the library itself got wrong says nothing about the link; anything else
    // after a request was sent leaves the session's sequence numbers in doubt.
    return errnum != IPMI_ERR_PARAMETERS;
}

Answer answerFromRaw(uint8_t command, std::span<const uint8_t> raw)
{
    tvx::wire::Reader in(raw);
    const uint8_t echoed = in.u8();
    const tvx::wire::View answer = in.rest(); // completion code first
    const std::optional<uint8_t> code = answer.get(tvx::kCompletionCode);
    if (!code || echoed != command) return Answer{LIBIPMI_STATUS_BAD_RESPONSE, std::nullopt};
    const tvx::wire::View kept = answer.first(LIBIPMI_MAX_RESPONSE_LEN);
    std::vector<uint8_t> bytes(kept.span().begin(), kept.span().end());
    uint16_t status = *code == tvx::cc::kOk ? LIBIPMI_STATUS_OK : LIBIPMI_STATUS_COMPLETION_CODE(*code);
    return Answer{status, std::move(bytes)};
}

} // namespace libipmi::lan
