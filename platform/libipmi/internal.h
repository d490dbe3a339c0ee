// Inside libipmi.so.2: sessions are mapped onto links to a target (the controller chosen by
// the host program), and every operation reaches the controller through one raw exchange.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "libipmi.h"
#include "libipmi_host.h"
#include "sdr_copy.h"

namespace libipmi {

// The lock of the session table and of the target selection, held only for a few pointer
// moves: every session's open and close and every request take one of them, and an
// uncontended mutex costs a library call each way where this costs one atomic exchange. A
// waiter gives the processor away instead of spinning on it (the holder may be the thread
// it is waiting for on a single core).
class ShortLock {
public:
    void lock() noexcept
    {
        while (held_.exchange(true, std::memory_order_acquire))
            while (held_.load(std::memory_order_relaxed)) yieldProcessor();
    }
    void unlock() noexcept { held_.store(false, std::memory_order_release); }

private:
    static void yieldProcessor() noexcept;
    std::atomic<bool> held_{false};
};

// The arguments of a session opening, as the caller passed them.
struct OpenCall {
    IpmiSession *session;
    const char *userName;
    const char *password;
    uint8_t *privLevel;
    const char *userName2;
    void *ipAddr;
    uint32_t ipVersion;
    void *serverIp;
    int arg9;
    int arg10;
};

// Where a request goes: the controller the session talks to (address 0), or another
// controller on one of its IPMB channels, reached through it.
struct Route {
    uint8_t channel = 0;
    uint8_t address = 0; // the responder's slave address; 0: the session's controller
    bool direct() const { return address == 0; }
};

// The arguments of one raw request, as the caller passed them.
struct RawCall {
    IpmiSession *session;
    uint8_t payloadType;
    uint8_t netFnLun;
    uint8_t command;
    const uint8_t *reqData;
    uint32_t reqLen;
    const uint8_t *resData;
    const uint32_t *resLen;
    int timeout;
    Route route{}; // the LUN is the one in netFnLun
};

// What came back: a status and, when something arrived, the response bytes (completion
// code first). A transport that talks to a controller derives the status from the
// completion code with statusFor(); the scripted exchange returns what the test scripted.
struct Answer {
    uint16_t status = LIBIPMI_STATUS_OK;
    std::optional<std::vector<uint8_t>> bytes;
};

// The status for a response that arrived.
Answer answerFromBytes(std::vector<uint8_t> bytes);

// One session's connection to the controller.
class Link {
public:
    virtual ~Link() = default;
    virtual Answer exchange(const RawCall &call, std::span<const uint8_t> request) = 0;
    // A request for another controller (call.route). By default it is bridged as through a
    // system interface: Send Message to the IPMB, then Get Message for the answer (bridge.cpp).
    virtual Answer bridge(const RawCall &call, std::span<const uint8_t> request);
    virtual void close() {}
    // Where the controller's SDR copy is kept between programs (sdr_copy.h); empty: nowhere.
    virtual std::string sdrCopyPath() const { return {}; }
    // A call refused before it reached the controller (bad arguments).
    virtual void reject(const RawCall &, uint16_t) {}
};

// A controller the host program selected.
class Target {
public:
    virtual ~Target() = default;
    // Opens a link for a new session, or returns a non-zero status. A link without state of
    // its own may serve several sessions.
    virtual uint16_t open(const OpenCall &call, std::shared_ptr<Link> &link) = 0;
    virtual std::string describe() const = 0;
    // A close of a handle that has no link.
    virtual void noteClose(IpmiSession *, uint16_t) {}
};

// The target sessions open on now: the host's selection, else the environment's.
// On failure returns null and sets the last error.
std::shared_ptr<Target> currentTarget(uint16_t &status);
// Makes a target from a target string ("default", "machine:PATH", "PATH.json", "script:").
std::shared_ptr<Target> makeTarget(const std::string &spec, const std::string &stateDir, bool reset = false);
// The one precedence of target and state directory: the caller's choice, else the
// environment's (TVX_IPMI_TARGET, TVX_IPMI_STATE_DIR), else the built-in default machine in
// the default state directory. `target` null or empty and `stateDir` null mean "not chosen".
std::shared_ptr<Target> resolveTarget(const char *target, const char *stateDir, bool reset = false);
std::string stateDirOrDefault(const char *stateDir);
std::shared_ptr<Target> makeMachineTarget(const std::string &profilePath, const std::string &stateDir,
                                          bool reset = false);
std::shared_ptr<Target> scriptTarget();
// A controller over IPMI-over-LAN from a "lan://" target string (transport_lan.cpp).
std::shared_ptr<Target> makeLanTarget(const std::string &spec);
void setSelectedTarget(std::shared_ptr<Target> target);

void setLastError(const std::string &message);
const char *lastError();

// The C boundary: no C++ exception leaves a function of this library. Each exported function
// runs its body through one of these; an exception becomes the function's failure value, with
// its reason in the last error. As a status: out of memory LIBIPMI_STATUS_NO_MEMORY, an
// unusable profile or machine state LIBIPMI_STATUS_CONFIG_ERROR, anything else
// LIBIPMI_STATUS_TRANSPORT.
uint16_t statusForCurrentException() noexcept;

template <typename F> uint16_t boundaryStatus(F &&body) noexcept
{
    try {
        return body();
    } catch (...) {
        return statusForCurrentException();
    }
}

template <typename R, typename F> R boundary(R failure, F &&body) noexcept
{
    try {
        return body();
    } catch (...) {
        (void)statusForCurrentException();
        return failure;
    }
}

template <typename F> void boundaryVoid(F &&body) noexcept
{
    try {
        body();
    } catch (...) {
        (void)statusForCurrentException();
    }
}

// The current target as a transport's own target type, or null with the last error saying
// what is selected instead (`kind`: "a LAN target", ...). The selection keeps it alive.
template <typename T> T *currentTargetAs(const char *kind)
{
    uint16_t status = 0;
    auto t = currentTarget(status);
    auto *typed = dynamic_cast<T *>(t.get());
    if (!typed && t) setLastError(std::string("the selected controller is not ") + kind + " (" + t->describe() + ")");
    return typed;
}

// The link of an open session, or null.
std::shared_ptr<Link> linkFor(IpmiSession *session);

// What the platform remembers per open session between operations.
struct SessionData {
    // The SEL record count last reported on this session: the capacity of the caller's
    // array in LIBIPMI_HL_GetAllSELEntries (absent until reported).
    std::optional<uint16_t> selCount;
    std::optional<SdrRepositoryAllocInfo> sdrAllocInfo;
    // Get SDR Repository Info as this session last asked it to check the on-disk SDR copy:
    // its time stamps date the copy the next walk stores, and the answer itself is handed to
    // the caller's next IPMICMD_GetSDRRepositoryInfo once instead of a second request.
    std::optional<SdrRepositoryInfo> sdrRepositoryInfo;
    bool sdrRepositoryInfoUnclaimed = false;
    bool sdrCopyChecked = false; // asked for the read under way (until its walk)
    // The on-disk copy that answer showed current: the next walk is served from it.
    std::shared_ptr<const sdrcopy::Copy> sdrCopy;
    // Where the session's requests go (ipmihost_session_route).
    Route route;
    // The last request sent on the session and its status (ipmihost_last_request).
    std::optional<ipmihost_request_outcome> last;
    // What LIBIPMI_HL_GetFRUData handed out (texts and custom-field arrays, from malloc):
    // callers may use them until the session closes, so every read adds to this list and
    // nothing is freed before the close.
    struct FreeBlock {
        void operator()(void *p) const { std::free(p); }
    };
    std::vector<std::unique_ptr<void, FreeBlock>> fruBlocks;
};
// The data of an open session (null when it is not open). A session is used by one caller
// at a time, so the pointer stays valid until that caller closes it.
SessionData *dataFor(IpmiSession *session);

// An open session's link and data, found with one lookup (both null when it is not open).
// Like dataFor's pointer, both stay valid until the session's one caller closes it.
struct OpenSession {
    Link *link = nullptr;
    SessionData *data = nullptr;
    explicit operator bool() const { return link != nullptr; }
};
OpenSession openSession(IpmiSession *session);

// Sends one request on an open session (call.route says where to): the one raw exchange
// every operation of this library is built on. Counts it, records it as the session's last
// request and tells the host's watcher.
Answer send(const OpenSession &open, const RawCall &call);

// The same for the library's own operations: request bytes in, status and response out.
// `route` null: the session's own route; `lun` goes into the NetFn/LUN byte.
uint16_t exchange(IpmiSession *session, uint8_t netFn, uint8_t command, std::span<const uint8_t> request,
                  std::vector<uint8_t> &response, int timeout, const Route *route = nullptr, uint8_t lun = 0);

void countRequest();

// The SDR allocation information last read on a session (the slot size of a repository
// walk), so that a walk right after it costs no second request.
void rememberSdrAllocInfo(IpmiSession *session, const SdrRepositoryAllocInfo &info);
void forgetSdrAllocInfo(IpmiSession *session);
std::optional<SdrRepositoryAllocInfo> cachedSdrAllocInfo(IpmiSession *session);

// The built-in default profile.
extern const unsigned char kDefaultProfile[];
extern const std::size_t kDefaultProfileSize;

} // namespace libipmi
