#include "lan_config_commit.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

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

void sleepMs(unsigned ms)
{
    struct timespec t{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

} // namespace

uint16_t setLanParameterCommitted(IpmiSession *session, std::span<const uint8_t> request,
                                  std::vector<uint8_t> &response, int timeout, const LanSetWait &wait)
{
    tvx::wire::Reader in(request);
    const uint8_t channel = in.u8();
    const uint8_t selector = in.u8();
    if (!in.ok() || selector == lan::kSetInProgress)
        return exchange(session, tvx::netfn::kTransport, tvx::cmd::transport::kSetLanConfig, request, response,
                        timeout);
    constexpr uint16_t kBusy = LIBIPMI_STATUS_COMPLETION_CODE(tvx::cc::lan::kSetInProgressElsewhere);
    constexpr uint16_t kNoTransaction = LIBIPMI_STATUS_COMPLETION_CODE(tvx::cc::lan::kParameterNotSupported);
    // 0x81: another client holds a transaction. A write joining it would take effect with its
    // commit, or be dropped by its "set complete" when it arrives after that commit: wait for
    // the transaction to end and run one of our own.
    uint16_t lock = writeSetInProgress(session, channel, lan::kInProgress, timeout);
    for (unsigned waited = 0, delay = wait.firstDelayMs; lock == kBusy && waited < wait.budgetMs;) {
        delay = std::min({delay, wait.maxDelayMs, wait.budgetMs - waited});
        sleepMs(delay);
        waited += delay;
        delay = std::max(1u, delay * 2);
        lock = writeSetInProgress(session, channel, lan::kInProgress, timeout);
    }
    const bool owned = lock == LIBIPMI_STATUS_OK;
    // 0x80: the controller has no transaction, a write takes effect at once.
    if (!owned && lock != kNoTransaction) {
        response.clear();
        return lock;
    }
    uint16_t status =
        exchange(session, tvx::netfn::kTransport, tvx::cmd::transport::kSetLanConfig, request, response, timeout);
    if (owned) {
        // Commit what was written (a controller without commit support answers 0x80 and has
        // applied it already), then end the transaction in any case, so that it never stays
        // locked: after a commit, "set complete" discards nothing.
        uint16_t commit = LIBIPMI_STATUS_OK;
        if (status == LIBIPMI_STATUS_OK) commit = writeSetInProgress(session, channel, lan::kCommitWrite, timeout);
        (void)writeSetInProgress(session, channel, lan::kSetComplete, timeout);
        // A commit that failed took nothing into effect.
        if (commit != LIBIPMI_STATUS_OK && commit != kNoTransaction) return commit;
    }
    return status;
}

} // namespace libipmi
