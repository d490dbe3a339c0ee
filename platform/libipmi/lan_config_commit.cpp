#include "lan_config_commit.h"

#include "internal.h"

namespace libipmi {
namespace {

constexpr uint8_t kNetFnTransport = 0x0C;
constexpr uint8_t kSetLanConfig = 0x01;
constexpr uint8_t kSetInProgress = 0x00; // parameter 0
constexpr uint8_t kSetComplete = 0x00, kInProgress = 0x01, kCommitWrite = 0x02;
constexpr uint8_t kCcParameterNotSupported = 0x80;
constexpr uint8_t kCcSetInProgressElsewhere = 0x81;

uint16_t writeSetInProgress(IpmiSession *session, uint8_t channel, uint8_t value, int timeout)
{
    const uint8_t rq[] = {channel, kSetInProgress, value};
    std::vector<uint8_t> rs;
    return exchange(session, kNetFnTransport, kSetLanConfig, rq, rs, timeout);
}

} // namespace

uint16_t setLanParameterCommitted(IpmiSession *session, std::span<const uint8_t> request,
                                  std::vector<uint8_t> &response, int timeout)
{
    if (request.size() < 2 || request[1] == kSetInProgress)
        return exchange(session, kNetFnTransport, kSetLanConfig, request, response, timeout);
    uint8_t channel = request[0];
    uint16_t lock = writeSetInProgress(session, channel, kInProgress, timeout);
    bool owned = lock == LIBIPMI_STATUS_OK;
    // 0x80: the controller has no transaction, a write takes effect at once. 0x81: another
    // client holds one; the write joins it and takes effect with its commit (or at once).
    bool plain = lock == LIBIPMI_STATUS_COMPLETION_CODE(kCcParameterNotSupported) ||
                 lock == LIBIPMI_STATUS_COMPLETION_CODE(kCcSetInProgressElsewhere);
    if (!owned && !plain) {
        response.clear();
        return lock;
    }
    uint16_t status = exchange(session, kNetFnTransport, kSetLanConfig, request, response, timeout);
    if (owned) {
        // Commit what was written (a controller without commit support answers 0x80 and has
        // applied it already), then end the transaction in any case, so that it never stays
        // locked: after a commit, "set complete" discards nothing.
        if (status == LIBIPMI_STATUS_OK) (void)writeSetInProgress(session, channel, kCommitWrite, timeout);
        (void)writeSetInProgress(session, channel, kSetComplete, timeout);
    }
    return status;
}

} // namespace libipmi
