#include "lan_config_commit.h"

#include "internal.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace libipmi {
namespace {

namespace lan = tvx::lan;

uint16_t writeSetInProgress(IpmiSession *session, uint8_t channel, uint8_t value, int timeout)
{
    const uint8_t rq[] = {channel, lan::kSetInProgress, value};
    std::vector<uint8_t> rs;
    return exchange(session, tvx::netfn::kTransport, tvx::cmd::transport::kSetLanConfig, rq, rs, timeout);
}

} // namespace

uint16_t setLanParameterCommitted(IpmiSession *session, std::span<const uint8_t> request,
                                  std::vector<uint8_t> &response, int timeout)
{
    tvx::wire::Reader in(request);
    const uint8_t channel = in.u8();
    const uint8_t selector = in.u8();
    if (!in.ok() || selector == lan::kSetInProgress)
        return exchange(session, tvx::netfn::kTransport, tvx::cmd::transport::kSetLanConfig, request, response,
                        timeout);
    uint16_t lock = writeSetInProgress(session, channel, lan::kInProgress, timeout);
    bool owned = lock == LIBIPMI_STATUS_OK;
    // 0x80: the controller has no transaction, a write takes effect at once. 0x81: another
    // client holds one; the write joins it and takes effect with its commit (or at once).
    bool plain = lock == LIBIPMI_STATUS_COMPLETION_CODE(tvx::cc::lan::kParameterNotSupported) ||
                 lock == LIBIPMI_STATUS_COMPLETION_CODE(tvx::cc::lan::kSetInProgressElsewhere);
    if (!owned && !plain) {
        response.clear();
        return lock;
    }
    uint16_t status =
        exchange(session, tvx::netfn::kTransport, tvx::cmd::transport::kSetLanConfig, request, response, timeout);
    if (owned) {
        // Commit what was written (a controller without commit support answers 0x80 and has
        // applied it already), then end the transaction in any case, so that it never stays
        // locked: after a commit, "set complete" discards nothing.
        if (status == LIBIPMI_STATUS_OK) (void)writeSetInProgress(session, channel, lan::kCommitWrite, timeout);
        (void)writeSetInProgress(session, channel, lan::kSetComplete, timeout);
    }
    return status;
}

} // namespace libipmi
