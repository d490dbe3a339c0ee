// Turning what libfreeipmi reports into this library's statuses and answers.
#pragma once

#include <cstdint>
#include <span>

#include "internal.h"

namespace libipmi::lan {

// The status for a libfreeipmi error number (ipmi_ctx_errnum) after a failed session opening
// or request: refused credentials or privilege -> AUTH_FAILED, no answer in time -> TIMEOUT,
// a bad host name or parameters -> CONFIG_ERROR, everything else on the link -> TRANSPORT.
uint16_t statusForError(int errnum);

// Whether a failure with this error number leaves the connection unusable (it is then
// dropped; other failures, like a refused request, leave it open).
bool connectionLost(int errnum);

// The answer to a request from the bytes ipmi_cmd_raw stored: byte 0 repeats the command,
// byte 1 is the completion code, the data follows. The command byte is taken off, so the
// answer begins with the completion code; an answer for another command, or one without a
// completion code, is a BAD_RESPONSE.
Answer answerFromRaw(uint8_t command, std::span<const uint8_t> raw);

} // namespace libipmi::lan
