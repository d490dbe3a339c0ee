// The raw exchange: one request in, the status and the response bytes out.
#include <atomic>
#include <cstring>
#include <mutex>

#include "internal.h"
#include "libipmi_host.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace libipmi {
namespace {

std::atomic<uint64_t> gRequests{0};

} // namespace

void countRequest() { gRequests.fetch_add(1, std::memory_order_relaxed); }

Answer answerFromBytes(std::vector<uint8_t> bytes)
{
    Answer a;
    if (bytes.empty()) {
        // Something arrived, but not even a completion code.
        a.status = LIBIPMI_STATUS_BAD_RESPONSE;
        return a;
    }
    if (bytes.size() > LIBIPMI_MAX_RESPONSE_LEN) bytes.resize(LIBIPMI_MAX_RESPONSE_LEN);
    const uint8_t code = tvx::wire::View(bytes).get(tvx::kCompletionCode, uint8_t{0});
    a.status = code == tvx::cc::kOk ? LIBIPMI_STATUS_OK : LIBIPMI_STATUS_COMPLETION_CODE(code);
    a.bytes = std::move(bytes);
    return a;
}

// The controller itself, however it is named: address 0, or its own address on the primary IPMB.
Route normalised(Route r)
{
    if (r.address == tvx::ipmb::kBmcAddress && r.channel == tvx::ipmb::kPrimaryChannel) r.address = 0;
    if (r.direct()) r.channel = 0;
    return r;
}

struct Watcher {
    std::mutex lock;
    std::atomic<bool> set{false}; // whether fn is set: a request looks at the lock only then
    ipmihost_request_watcher fn = nullptr;
    void *context = nullptr;
};
Watcher &watcher()
{
    static Watcher w;
    return w;
}

void tellWatcher(const ipmihost_request_outcome &outcome, std::span<const uint8_t> request)
{
    Watcher &w = watcher();
    if (!w.set.load(std::memory_order_acquire)) return;
    ipmihost_request_watcher fn;
    void *context;
    {
        std::lock_guard<std::mutex> g(w.lock);
        fn = w.fn, context = w.context;
    }
    if (fn) fn(context, &outcome, request.data(), static_cast<uint32_t>(request.size()));
}

Answer send(const OpenSession &open, const RawCall &call)
{
    std::span<const uint8_t> request;
    if (call.reqLen > 0) request = std::span<const uint8_t>(call.reqData, call.reqLen);
    countRequest();
    RawCall routed = call;
    routed.route = normalised(call.route);
    const Route &route = routed.route;
    Answer a = route.direct() ? open.link->exchange(routed, request) : open.link->bridge(routed, request);
    const ipmihost_request_outcome outcome{static_cast<uint8_t>(call.netFnLun >> 2), static_cast<uint8_t>(call.netFnLun & 3),
                                           call.command, route.channel, route.address, a.status};
    open.data->last = outcome;
    tellWatcher(outcome, request);
    return a;
}

uint16_t exchange(IpmiSession *session, uint8_t netFn, uint8_t command, std::span<const uint8_t> request,
                  std::vector<uint8_t> &response, int timeout, const Route *route, uint8_t lun)
{
    response.clear();
    const OpenSession open = openSession(session);
    if (!open) return LIBIPMI_STATUS_NO_SESSION;
    // The answer's bytes become the response as they arrived, at most the platform's maximum.
    uint32_t len = LIBIPMI_MAX_RESPONSE_LEN;
    RawCall call{session,
                 0,
                 static_cast<uint8_t>(netFn << 2 | (lun & 3)),
                 command,
                 request.data(),
                 static_cast<uint32_t>(request.size()),
                 response.data(),
                 &len,
                 timeout,
                 route ? *route : open.data->route};
    Answer a = send(open, call);
    if (a.bytes && (a.status == LIBIPMI_STATUS_OK || LIBIPMI_STATUS_IS_COMPLETION_CODE(a.status))) {
        response = std::move(*a.bytes);
        if (response.size() > LIBIPMI_MAX_RESPONSE_LEN) response.resize(LIBIPMI_MAX_RESPONSE_LEN);
    }
    return a.status;
}

} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t LIBIPMI_Send_RAW_IPMI2_0_Command(IpmiSession *session, uint8_t payloadType, uint8_t netFnLun,
                                                     uint8_t command, uint8_t *reqData, uint32_t reqLen,
                                                     uint8_t *resData, uint32_t *resLen, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        const OpenSession open = openSession(session);
        RawCall call{session, payloadType, netFnLun, command, reqData, reqLen, resData, resLen, timeout,
                     open ? open.data->route : Route{}};
        if (!resData || !resLen || (reqLen > 0 && !reqData) || payloadType != 0) {
            if (open) open.link->reject(call, LIBIPMI_STATUS_INVALID_ARGUMENT);
            return session ? LIBIPMI_STATUS_INVALID_ARGUMENT : LIBIPMI_STATUS_NO_SESSION;
        }
        if (!open) return LIBIPMI_STATUS_NO_SESSION;
        const Answer a = send(open, call);
        if (a.bytes) {
            // Never more than the stated capacity; with none stated, the whole response (which
            // the platform keeps within LIBIPMI_MAX_RESPONSE_LEN).
            std::size_t n = a.bytes->size();
            if (n > LIBIPMI_MAX_RESPONSE_LEN) n = LIBIPMI_MAX_RESPONSE_LEN;
            if (*resLen != 0 && n > *resLen) n = *resLen;
            if (n > 0) std::memcpy(resData, a.bytes->data(), n);
            *resLen = static_cast<uint32_t>(n);
        } else {
            // Nothing arrived (not even a completion code): no response bytes.
            *resLen = 0;
        }
        return a.status;
    });
}

extern "C" uint64_t ipmihost_request_count(void)
{
    return boundary<uint64_t>(uint64_t{0}, [&]() -> uint64_t { return gRequests.load(std::memory_order_relaxed); });
}

extern "C" void ipmihost_reset_request_count(void)
{
    boundaryVoid([&] { gRequests.store(0, std::memory_order_relaxed); });
}

extern "C" int ipmihost_session_route(IpmiSession *session, uint8_t channel, uint8_t address)
{
    return boundary<int>(-1, [&]() -> int {
        SessionData *d = dataFor(session);
        if (!d) {
            setLastError("ipmihost_session_route: the session is not open");
            return -1;
        }
        if (address & 1) {
            setLastError("ipmihost_session_route: a slave address is even (its 8-bit form, such as 0x2c)");
            return -1;
        }
        d->route = normalised(Route{static_cast<uint8_t>(channel & 0x0F), address});
        return 0;
    });
}

extern "C" void ipmihost_watch_requests(ipmihost_request_watcher fn, void *context)
{
    boundary<int>(0, [&]() -> int {
        Watcher &w = watcher();
        std::lock_guard<std::mutex> g(w.lock);
        w.fn = fn, w.context = context;
        w.set.store(fn != nullptr, std::memory_order_release);
        return 0;
    });
}

extern "C" int ipmihost_last_request(IpmiSession *session, ipmihost_request_outcome *out)
{
    return boundary<int>(-1, [&]() -> int {
        SessionData *d = dataFor(session);
        if (!d || !d->last || !out) return -1;
        *out = *d->last;
        return 0;
    });
}
