// Sessions: the caller's 36-byte block is only a key. The platform writes nothing into it;
// what a session needs (its link to the controller) lives in this table.
//
// A program holds few sessions at a time (an agent getter opens and closes one per call), so
// the table is a short list of slots searched from the front. A closed session's slot is
// reused and slots never move, so opening and closing a session allocates nothing once the
// table has as many slots as sessions were ever open at once, and a session's data stays
// where dataFor found it until the session is closed.
#include <atomic>
#include <mutex>
#include <sched.h>
#include <vector>

#include "internal.h"
#include "libipmi_host.h"

namespace libipmi {
namespace {

std::atomic<uint64_t> gOpened{0}; // sessions opened, for the host's counts

ShortLock &tableMutex()
{
    static ShortLock m;
    return m;
}

struct Entry {
    const IpmiSession *session = nullptr;
    std::shared_ptr<Link> link;
    SessionData data;
};

std::vector<std::unique_ptr<Entry>> &table()
{
    static std::vector<std::unique_ptr<Entry>> t;
    return t;
}

// The entry of a session, or of no session (a free slot), or nullptr. The caller holds the lock.
Entry *slotOf(const IpmiSession *session)
{
    for (const auto &e : table())
        if (e->session == session) return e.get();
    return nullptr;
}
Entry *find(const IpmiSession *session) { return session ? slotOf(session) : nullptr; }

} // namespace

void ShortLock::yieldProcessor() noexcept { sched_yield(); }

std::shared_ptr<Link> linkFor(IpmiSession *session)
{
    std::lock_guard<ShortLock> g(tableMutex());
    Entry *e = find(session);
    return e ? e->link : nullptr;
}

void rememberSdrAllocInfo(IpmiSession *session, const SdrRepositoryAllocInfo &info)
{
    std::lock_guard<ShortLock> g(tableMutex());
    if (Entry *e = find(session)) e->data.sdrAllocInfo = info;
}

void forgetSdrAllocInfo(IpmiSession *session)
{
    std::lock_guard<ShortLock> g(tableMutex());
    if (Entry *e = find(session)) e->data.sdrAllocInfo.reset();
}

std::optional<SdrRepositoryAllocInfo> cachedSdrAllocInfo(IpmiSession *session)
{
    std::lock_guard<ShortLock> g(tableMutex());
    Entry *e = find(session);
    return e ? e->data.sdrAllocInfo : std::nullopt;
}

SessionData *dataFor(IpmiSession *session)
{
    std::lock_guard<ShortLock> g(tableMutex());
    Entry *e = find(session);
    return e ? &e->data : nullptr;
}

OpenSession openSession(IpmiSession *session)
{
    std::lock_guard<ShortLock> g(tableMutex());
    Entry *e = find(session);
    return e ? OpenSession{e->link.get(), &e->data} : OpenSession{};
}

} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t LIBIPMI_Create_IPMI_Local_Session_Ext(IpmiSession *session, char *userName, char *password,
                                                          uint8_t *privLevel, char *userName2, void *ipAddr,
                                                          uint32_t ipVersion, void *serverIp, int arg9, int arg10)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!session) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        OpenCall call{session, userName, password, privLevel, userName2, ipAddr, ipVersion, serverIp, arg9, arg10};
        uint16_t status = LIBIPMI_STATUS_OK;
        std::shared_ptr<Target> target = currentTarget(status);
        if (!target) return status;
        std::shared_ptr<Link> link;
        status = target->open(call, link);
        if (status != LIBIPMI_STATUS_OK) return status;
        {
            std::lock_guard<ShortLock> g(tableMutex());
            Entry *slot = find(session);
            if (slot) {
                slot->data = SessionData{}; // the block was reused without a close
            } else if (!(slot = slotOf(nullptr))) {
                slot = table().emplace_back(std::make_unique<Entry>()).get();
            }
            slot->session = session;
            slot->link.swap(link);
        }
        if (link) link->close(); // the old link of a block reused without a close, outside the lock
        gOpened.fetch_add(1, std::memory_order_relaxed);
        return LIBIPMI_STATUS_OK;
    });
}

extern "C" uint64_t ipmihost_session_count(void)
{
    return boundary<uint64_t>(uint64_t{0}, [&]() -> uint64_t { return gOpened.load(std::memory_order_relaxed); });
}

extern "C" void ipmihost_reset_session_count(void)
{
    boundaryVoid([&] { gOpened.store(0, std::memory_order_relaxed); });
}

extern "C" uint16_t LIBIPMI_CloseSession(IpmiSession *session)
{
    return boundaryStatus([&]() -> uint16_t {
        std::shared_ptr<Link> link;
        {
            std::lock_guard<ShortLock> g(tableMutex());
            if (Entry *e = find(session)) {
                link = std::move(e->link);
                e->session = nullptr;
                e->data = SessionData{}; // what the session handed out is released with it
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
    });
}
