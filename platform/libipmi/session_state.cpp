// What operations remember about a session between calls. The caller's 36-byte block is only
// a key: this side table lives beside the session table and is emptied for a block when its
// session closes or the block is opened again, so no state outlives its session.
#include <map>
#include <mutex>

#include "internal.h"

namespace libipmi {
namespace {

struct SessionState {
    std::optional<SdrRepositoryAllocInfo> sdrAllocInfo;
};

struct StateTable {
    std::mutex mutex;
    std::map<const IpmiSession *, SessionState> states;
};

StateTable &stateTable()
{
    static StateTable t;
    return t;
}

} // namespace

void rememberSdrAllocInfo(IpmiSession *session, const SdrRepositoryAllocInfo &info)
{
    StateTable &t = stateTable();
    std::lock_guard<std::mutex> g(t.mutex);
    t.states[session].sdrAllocInfo = info;
}

void forgetSdrAllocInfo(IpmiSession *session)
{
    StateTable &t = stateTable();
    std::lock_guard<std::mutex> g(t.mutex);
    auto it = t.states.find(session);
    if (it != t.states.end()) it->second.sdrAllocInfo.reset();
}

std::optional<SdrRepositoryAllocInfo> cachedSdrAllocInfo(IpmiSession *session)
{
    StateTable &t = stateTable();
    std::lock_guard<std::mutex> g(t.mutex);
    auto it = t.states.find(session);
    if (it == t.states.end()) return std::nullopt;
    return it->second.sdrAllocInfo;
}

void releaseSessionState(IpmiSession *session)
{
    StateTable &t = stateTable();
    std::lock_guard<std::mutex> g(t.mutex);
    t.states.erase(session);
}

} // namespace libipmi
