// Sessions: the caller's 36-byte block is only a key. The platform writes nothing into it;
// what a session needs (its link to the controller) lives in this table.
#include <map>
#include <mutex>

#include "internal.h"

namespace libipmi {
namespace {

std::mutex &tableMutex()
{
    static std::mutex m;
    return m;
}

std::map<const IpmiSession *, std::shared_ptr<Link>> &table()
{
    static std::map<const IpmiSession *, std::shared_ptr<Link>> t;
    return t;
}

} // namespace

std::shared_ptr<Link> linkFor(IpmiSession *session)
{
    std::lock_guard<std::mutex> g(tableMutex());
    auto it = table().find(session);
    return it == table().end() ? nullptr : it->second;
}

} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t LIBIPMI_Create_IPMI_Local_Session_Ext(IpmiSession *session, char *userName, char *password,
                                                          uint8_t *privLevel, char *userName2, void *ipAddr,
                                                          uint32_t ipVersion, void *serverIp, int arg9, int arg10)
{
    if (!session) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    OpenCall call{session, userName, password, privLevel, userName2, ipAddr, ipVersion, serverIp, arg9, arg10};
    uint16_t status = LIBIPMI_STATUS_OK;
    std::shared_ptr<Target> target = currentTarget(status);
    if (!target) return status;
    std::unique_ptr<Link> link;
    status = target->open(call, link);
    if (status != LIBIPMI_STATUS_OK) return status;
    // A new session starts with nothing remembered, even on a block reused without a close.
    releaseSessionState(session);
    std::lock_guard<std::mutex> g(tableMutex());
    auto &slot = table()[session];
    if (slot) slot->close(); // the block was reused without a close: drop the old link
    slot = std::move(link);
    return LIBIPMI_STATUS_OK;
}

extern "C" uint16_t LIBIPMI_CloseSession(IpmiSession *session)
{
    releaseSessionState(session);
    std::shared_ptr<Link> link;
    {
        std::lock_guard<std::mutex> g(tableMutex());
        auto it = table().find(session);
        if (it != table().end()) {
            link = std::move(it->second);
            table().erase(it);
        }
    }
    if (!link) {
        // The scripted exchange records every close, even of a handle that is not open, so
        // that a test sees a double close.
        uint16_t status = LIBIPMI_STATUS_OK;
        if (auto target = currentTarget(status)) target->noteClose(session, LIBIPMI_STATUS_NO_SESSION);
        return LIBIPMI_STATUS_NO_SESSION;
    }
    link->close();
    return LIBIPMI_STATUS_OK;
}
