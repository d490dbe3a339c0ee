// The scripted exchange: a test announces each request it expects and the answer to give,
// and reads back every call that reached the platform with all its arguments.
#include <algorithm>
#include <array>
#include <cstdio>
#include <deque>
#include <mutex>

#include "internal.h"
#include "libipmi_host.h"
#include "tvx/hex_string.h"

namespace libipmi {
namespace {

struct Expectation {
    uint8_t netFnLun;
    uint8_t command;
    std::vector<uint8_t> request;
    bool prefixOnly;
    uint16_t status;
    std::optional<std::vector<uint8_t>> response;
};

// One recorded call, owning the copies its ipmihost_call points into.
struct Record {
    ipmihost_call call{};
    std::optional<std::string> userName, password, userName2;
    std::optional<std::vector<uint8_t>> request;
};

struct Script {
    std::mutex mutex;
    std::deque<Expectation> expected;
    std::deque<std::pair<uint16_t, int>> openResults;
    std::deque<Record> calls; // a deque keeps addresses stable as it grows
    std::size_t mismatches = 0;
    std::string lastMismatch;
    ipmihost_script_responder responder = nullptr;
    void *responderContext = nullptr;
};

// The largest answer a responder may give: more than any IPMI message carries.
constexpr uint32_t kResponderCapacity = 1024;

Script &script()
{
    static Script s;
    return s;
}

std::optional<std::string> copyText(const char *s) { return s ? std::optional<std::string>(s) : std::nullopt; }

std::string hex(std::span<const uint8_t> bytes) { return bytes.empty() ? "(none)" : tvx::hexBytes(bytes); }

Record &recordRaw(const RawCall &call, uint16_t status)
{
    Script &s = script();
    Record &r = s.calls.emplace_back();
    r.call.kind = IPMIHOST_CALL_RAW;
    r.call.session = call.session;
    r.call.status = status;
    r.call.payloadType = call.payloadType;
    r.call.netFnLun = call.netFnLun;
    r.call.command = call.command;
    r.call.reqPtr = call.reqData;
    if (call.reqData) r.request.emplace(call.reqData, call.reqData + call.reqLen);
    r.call.reqLen = call.reqLen;
    r.call.resPtr = call.resData;
    r.call.resLenPtrNull = call.resLen == nullptr;
    r.call.resLenIn = call.resLen ? *call.resLen : 0;
    r.call.timeout = call.timeout;
    return r;
}

class ScriptLink : public Link {
public:
    explicit ScriptLink(IpmiSession *session) : session_(session) {}

    Answer exchange(const RawCall &call, std::span<const uint8_t> request) override
    {
        Script &s = script();
        std::lock_guard<std::mutex> g(s.mutex);
        Answer a;
        bool matched = false;
        if (!s.expected.empty()) {
            const Expectation &e = s.expected.front();
            bool sameBytes = e.prefixOnly ? request.size() >= e.request.size() &&
                                                std::equal(e.request.begin(), e.request.end(), request.begin())
                                          : std::equal(e.request.begin(), e.request.end(), request.begin(), request.end());
            if (e.netFnLun == call.netFnLun && e.command == call.command && sameBytes) {
                a.status = e.status;
                a.bytes = e.response;
                matched = true;
                s.expected.pop_front();
            }
        }
        if (!matched && s.responder) {
            std::array<uint8_t, kResponderCapacity> buffer{};
            uint32_t length = kResponderCapacity;
            a.status = s.responder(s.responderContext, call.netFnLun, call.command, request.data(),
                                   static_cast<uint32_t>(request.size()), buffer.data(), &length);
            if (length) a.bytes.emplace(buffer.begin(), buffer.begin() + std::min(length, kResponderCapacity));
            matched = true;
        }
        if (!matched) {
            ++s.mismatches;
            char head[64];
            std::snprintf(head, sizeof head, "unexpected request netFnLun 0x%02x cmd 0x%02x data ", call.netFnLun,
                          call.command);
            s.lastMismatch = head + hex(request);
            if (s.expected.empty()) {
                s.lastMismatch += "; nothing more was expected";
            } else {
                const Expectation &e = s.expected.front();
                std::snprintf(head, sizeof head, "; expected netFnLun 0x%02x cmd 0x%02x data %s", e.netFnLun, e.command,
                              e.prefixOnly ? "beginning " : "");
                s.lastMismatch += head + hex(e.request);
            }
            a.status = LIBIPMI_STATUS_TRANSPORT;
        }
        recordRaw(call, a.status);
        return a;
    }

    void reject(const RawCall &call, uint16_t status) override
    {
        std::lock_guard<std::mutex> g(script().mutex);
        recordRaw(call, status);
    }

    void close() override
    {
        Script &s = script();
        std::lock_guard<std::mutex> g(s.mutex);
        Record &r = s.calls.emplace_back();
        r.call.kind = IPMIHOST_CALL_CLOSE;
        r.call.session = session_;
        r.call.status = LIBIPMI_STATUS_OK;
    }

private:
    IpmiSession *session_;
};

class ScriptTarget : public Target {
public:
    uint16_t open(const OpenCall &call, std::shared_ptr<Link> &link) override
    {
        Script &s = script();
        std::lock_guard<std::mutex> g(s.mutex);
        uint16_t status = LIBIPMI_STATUS_OK;
        int newPriv = -1;
        if (!s.openResults.empty()) {
            status = s.openResults.front().first;
            newPriv = s.openResults.front().second;
            s.openResults.pop_front();
        }
        Record &r = s.calls.emplace_back();
        r.call.kind = IPMIHOST_CALL_OPEN;
        r.call.session = call.session;
        r.call.status = status;
        r.userName = copyText(call.userName);
        r.password = copyText(call.password);
        r.userName2 = copyText(call.userName2);
        r.call.privLevel = call.privLevel ? *call.privLevel : -1;
        r.call.ipAddr = call.ipAddr;
        r.call.ipVersion = call.ipVersion;
        r.call.serverIp = call.serverIp;
        r.call.arg9 = call.arg9;
        r.call.arg10 = call.arg10;
        if (newPriv >= 0 && newPriv <= 255 && call.privLevel) *call.privLevel = static_cast<uint8_t>(newPriv);
        if (status == LIBIPMI_STATUS_OK) link = std::make_shared<ScriptLink>(call.session);
        return status;
    }

    void noteClose(IpmiSession *session, uint16_t status) override
    {
        Script &s = script();
        std::lock_guard<std::mutex> g(s.mutex);
        Record &r = s.calls.emplace_back();
        r.call.kind = IPMIHOST_CALL_CLOSE;
        r.call.session = session;
        r.call.status = status;
    }

    std::string describe() const override { return "script"; }
};

int expect(uint8_t netFnLun, uint8_t command, const uint8_t *req, uint32_t reqLen, bool prefixOnly, uint16_t status,
           const uint8_t *res, uint32_t resLen)
{
    if ((reqLen && !req) || (resLen && !res)) {
        setLastError("ipmihost_script_expect: a length without its bytes");
        return -1;
    }
    Expectation e{netFnLun, command, std::vector<uint8_t>(req, req + reqLen), prefixOnly, status, std::nullopt};
    if (resLen) e.response.emplace(res, res + resLen);
    std::lock_guard<std::mutex> g(script().mutex);
    script().expected.push_back(std::move(e));
    return 0;
}

} // namespace

std::shared_ptr<Target> scriptTarget()
{
    static std::shared_ptr<Target> t = std::make_shared<ScriptTarget>();
    return t;
}

} // namespace libipmi

using namespace libipmi;

extern "C" int ipmihost_script_expect(uint8_t netFnLun, uint8_t command, const uint8_t *req, uint32_t reqLen,
                                      uint16_t status, const uint8_t *res, uint32_t resLen)
{
    return boundary<int>(-1, [&]() -> int {
        return expect(netFnLun, command, req, reqLen, false, status, res, resLen);
    });
}

extern "C" int ipmihost_script_expect_prefix(uint8_t netFnLun, uint8_t command, const uint8_t *prefix,
                                             uint32_t prefixLen, uint16_t status, const uint8_t *res, uint32_t resLen)
{
    return boundary<int>(-1, [&]() -> int {
        return expect(netFnLun, command, prefix, prefixLen, true, status, res, resLen);
    });
}

extern "C" int ipmihost_script_open_result(uint16_t status, int newPrivLevel)
{
    return boundary<int>(-1, [&]() -> int {
        std::lock_guard<std::mutex> g(script().mutex);
        script().openResults.emplace_back(status, newPrivLevel);
        return 0;
    });
}

extern "C" int ipmihost_script_set_responder(ipmihost_script_responder answer, void *context)
{
    return boundary<int>(-1, [&]() -> int {
        std::lock_guard<std::mutex> g(script().mutex);
        script().responder = answer;
        script().responderContext = context;
        return 0;
    });
}

extern "C" size_t ipmihost_script_call_count(void)
{
    return boundary<size_t>(std::size_t{0}, [&]() -> size_t {
        std::lock_guard<std::mutex> g(script().mutex);
        return script().calls.size();
    });
}

extern "C" int ipmihost_script_call(size_t index, ipmihost_call *out)
{
    return boundary<int>(-1, [&]() -> int {
        std::lock_guard<std::mutex> g(script().mutex);
        if (!out || index >= script().calls.size()) return -1;
        Record &r = script().calls[index];
        *out = r.call;
        out->userName = r.userName ? r.userName->c_str() : nullptr;
        out->password = r.password ? r.password->c_str() : nullptr;
        out->userName2 = r.userName2 ? r.userName2->c_str() : nullptr;
        out->reqData = r.request ? r.request->data() : nullptr;
        return 0;
    });
}

extern "C" size_t ipmihost_script_pending(void)
{
    return boundary<size_t>(std::size_t{0}, [&]() -> size_t {
        std::lock_guard<std::mutex> g(script().mutex);
        return script().expected.size();
    });
}

extern "C" size_t ipmihost_script_mismatches(void)
{
    return boundary<size_t>(std::size_t{0}, [&]() -> size_t {
        std::lock_guard<std::mutex> g(script().mutex);
        return script().mismatches;
    });
}

extern "C" const char *ipmihost_script_last_mismatch(void)
{
    return boundary<const char *>("", [&]() -> const char * {
        static thread_local std::string copy;
        std::lock_guard<std::mutex> g(script().mutex);
        copy = script().lastMismatch;
        return copy.c_str();
    });
}

extern "C" void ipmihost_script_reset(void)
{
    boundaryVoid([&] {
        Script &s = script();
        std::lock_guard<std::mutex> g(s.mutex);
        s.expected.clear();
        s.openResults.clear();
        s.calls.clear();
        s.mismatches = 0;
        s.lastMismatch.clear();
    });
}
