// Sessions: the caller's 36-byte block is only a key. The platform writes nothing into it;
// what a session needs (its link to the controller) lives in this table.
#include <atomic>
#include <map>
#include <mutex>

#include "internal.h"
#include "libipmi_host.h"

namespace libipmi {
namespace {

std::atomic<uint64_t> gOpened{0}; // sessions opened, for the host's counts

std::mutex &tableMutex()
{
    static std::mutex m;
    return m;
}

struct Entry {
    std::shared_ptr<Link> link;
    SessionData data;
};

std::map<const IpmiSession *, Entry> &table()
{
    static std::map<const IpmiSession *, Entry> t;
    return t;
}

} // namespace

std::shared_ptr<Link> linkFor(IpmiSession *session)
{
    std::lock_guard<std::mutex> g(tableMutex());
    auto it = table().find(session);
    return it == table().end() ? nullptr : it->second.link;
}

void rememberSdrAllocInfo(IpmiSession *session, const SdrRepositoryAllocInfo &info)
{
    std::lock_guard<std::mutex> g(tableMutex());
    auto it = table().find(session);
    if (it != table().end()) it->second.data.sdrAllocInfo = info;
}

void forgetSdrAllocInfo(IpmiSession *session)
{
    std::lock_guard<std::mutex> g(tableMutex());
    auto it = table().find(session);
    if (it != table().end()) it->second.data.sdrAllocInfo.reset();
}

std::optional<SdrRepositoryAllocInfo> cachedSdrAllocInfo(IpmiSession *session)
{
    std::lock_guard<std::mutex> g(tableMutex());
    auto it = table().find(session);
    return it == table().end() ? std::nullopt : it->second.data.sdrAllocInfo;
}

SessionData *dataFor(IpmiSession *session)
{
    std::lock_guard<std::mutex> g(tableMutex());
    auto it = table().find(session);
    return it == table().end() ? nullptr : &it->second.data;
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
    std::lock_guard<std::mutex> g(tableMutex());
    Entry &slot = table()[session];
    if (slot.link) slot.link->close(); // the block was reused without a close: drop the old link
    slot = Entry{std::move(link), SessionData{}};
    gOpened.fetch_add(1, std::memory_order_relaxed);
    return LIBIPMI_STATUS_OK;
}

extern "C" uint64_t ipmihost_session_count(void) { return gOpened.load(std::memory_order_relaxed); }

extern "C" void ipmihost_reset_session_count(void) { gOpened.store(0, std::memory_order_relaxed); }

extern "C" uint16_t LIBIPMI_CloseSession(IpmiSession *session)
{
    std::shared_ptr<Link> link;
    {
        std::lock_guard<std::mutex> g(tableMutex());
        auto it = table().find(session);
        if (it != table().end()) {
            link = std::move(it->second.link);
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
