// IPMI over LAN as a transport: requests travel in IPMI 2.0 / RMCP+ sessions that
// libfreeipmi establishes and carries.
//
// The library opens a session for nearly every query, so library sessions are not RMCP+
// sessions. With a pool (the default), the target keeps up to `pool` authenticated
// connections open; a library session owns none of them but borrows one for each request
// and gives it back afterwards. Opening a library session costs nothing when a connection is
// idle in the pool, and establishes one (so bad credentials or a dead controller fail the
// opening, as they would on the controller itself) when none is. Borrowing per request
// keeps the controller's session slots, of which controllers have few, bounded by the number
// of requests in flight rather than by the number of library sessions open.
//
// With `pool=0` every library session gets a connection of its own, established when it is
// opened and closed (Close Session) when it is closed.
//
// A connection whose request failed on the link (time-out, transport error) is discarded at
// once, without a Close Session, never reused half-open. When that connection had served
// before (it was idle in the pool, or its session is older than this request), the other
// idle connections are discarded with it, as they are likely stale the same way (a
// restarted controller), and the request is repeated once on a freshly established
// connection. So a request costs at most two time-outs and one handshake, and a request
// that failed on a fresh connection is never repeated. Connections idle longer than `idle`
// milliseconds are closed instead of reused, before the controller's own inactivity timer
// can make them stale.
//
// Time-outs are the target's (timeout=, retransmit=): libfreeipmi fixes them per connection,
// and the library passes the same `timeout` argument (60) to every request anyway.
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <vector>

#include <freeipmi/api/ipmi-api.h>

#include "internal.h"
#include "lan_codec.h"
#include "lan_spec.h"
#include "libipmi_host.h"
#include "tvx/wire.h"

namespace libipmi {
namespace {

using Clock = std::chrono::steady_clock;
using lan::Config;

// The largest IPMI request and response over RMCP+ that libfreeipmi carries; the command
// byte comes on top.
constexpr uint32_t kMaxRequestData = 255;
constexpr std::size_t kMaxRawResponse = 1 + LIBIPMI_MAX_RESPONSE_LEN;

struct Counters {
    std::atomic<uint64_t> handshakes{0}, handshakeFailures{0}, requests{0}, reuses{0}, dropped{0}, retries{0},
        closed{0};
};

// One authenticated RMCP+ session with the controller.
class Connection {
public:
    Connection(ipmi_ctx_t ctx, Clock::time_point now) : ctx_(ctx), lastUsed_(now) {}
    ~Connection()
    {
        if (!ctx_) return;
        if (!abandoned_) ipmi_ctx_close(ctx_); // Close Session, so the controller frees the slot
        ipmi_ctx_destroy(ctx_);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // The link failed: free it without another exchange with the controller.
    void abandon() { abandoned_ = true; }

    // One request, to the controller or (route) bridged through it to another one, as
    // libfreeipmi bridges: Send Message, and the answer carried back on the session. On
    // failure of the exchange itself returns nothing and sets errnum.
    std::optional<Answer> request(uint8_t netFnLun, uint8_t command, std::span<const uint8_t> data, const Route &route,
                                  int &errnum, std::string &message)
    {
        // libfreeipmi takes the command byte before the request data.
        uint8_t rq[1 + kMaxRequestData];
        tvx::wire::Writer w(rq);
        w.u8(command).bytes(data);
        std::vector<uint8_t> rs(kMaxRawResponse);
        int n = route.direct() ? ipmi_cmd_raw(ctx_, netFnLun & 3, netFnLun >> 2, rq, static_cast<unsigned>(w.size()),
                                              rs.data(), static_cast<unsigned>(rs.size()))
                               : ipmi_cmd_raw_ipmb(ctx_, route.channel, route.address, netFnLun & 3, netFnLun >> 2, rq,
                                                   static_cast<unsigned>(w.size()), rs.data(),
                                                   static_cast<unsigned>(rs.size()));
        lastUsed_ = Clock::now();
        ++served_;
        if (n < 0) {
            errnum = ipmi_ctx_errnum(ctx_);
            const char *m = ipmi_ctx_errormsg(ctx_);
            message = m ? m : "unknown error";
            return std::nullopt;
        }
        rs.resize(static_cast<std::size_t>(n) > rs.size() ? rs.size() : static_cast<std::size_t>(n));
        return lan::answerFromRaw(command, rs);
    }

    Clock::time_point lastUsed() const { return lastUsed_; }
    uint64_t served() const { return served_; }

private:
    ipmi_ctx_t ctx_;
    Clock::time_point lastUsed_;
    uint64_t served_ = 0;
    bool abandoned_ = false;
};

class LanTarget : public Target, public std::enable_shared_from_this<LanTarget> {
public:
    explicit LanTarget(Config config) : config_(std::move(config)) {}
    ~LanTarget() override { dropIdle(false); }

    uint16_t open(const OpenCall &call, std::shared_ptr<Link> &link) override;
    std::string describe() const override { return config_.describe(); }

    // Establishes a new connection (an RMCP+ handshake), or returns null with the status.
    std::unique_ptr<Connection> establish(uint16_t &status)
    {
        ipmi_ctx_t ctx = ipmi_ctx_create();
        if (!ctx) {
            status = LIBIPMI_STATUS_NO_MEMORY;
            setLastError(where() + ": cannot create an IPMI context");
            return nullptr;
        }
        std::string endpoint = config_.endpoint();
        int rc = ipmi_ctx_open_outofband_2_0(ctx, endpoint.c_str(), config_.user.c_str(),
                                             config_.password.value().c_str(), nullptr, 0, config_.privilege,
                                             config_.cipherSuite, config_.timeoutMs, config_.retransmitMs,
                                             config_.workaroundFlags, IPMI_FLAGS_DEFAULT);
        if (rc < 0) {
            int errnum = ipmi_ctx_errnum(ctx);
            const char *m = ipmi_ctx_errormsg(ctx);
            status = lan::statusForError(errnum);
            counters_.handshakeFailures.fetch_add(1);
            std::string why = m ? m : "unknown error";
            if (status == LIBIPMI_STATUS_TIMEOUT)
                why += " (no answer within " + std::to_string(config_.timeoutMs) + " ms)";
            else if (status == LIBIPMI_STATUS_AUTH_FAILED)
                why = "the controller refused the session: " + why;
            setLastError(where() + ": cannot open an IPMI session: " + why);
            ipmi_ctx_destroy(ctx);
            return nullptr;
        }
        counters_.handshakes.fetch_add(1);
        return std::make_unique<Connection>(ctx, Clock::now());
    }

    // An idle connection from the pool that is not too old, or null.
    std::unique_ptr<Connection> takeIdle()
    {
        std::vector<std::unique_ptr<Connection>> expired;
        std::unique_ptr<Connection> found;
        {
            std::lock_guard<std::mutex> g(mutex_);
            auto limit = Clock::now() - std::chrono::milliseconds(config_.idleMs);
            while (!idle_.empty() && !found) {
                std::unique_ptr<Connection> c = std::move(idle_.back()); // the most recently used first
                idle_.pop_back();
                if (c->lastUsed() < limit) expired.push_back(std::move(c));
                else found = std::move(c);
            }
            // Whatever remains is older still than what was found.
            if (found) {
                while (!idle_.empty() && idle_.front()->lastUsed() < limit) {
                    expired.push_back(std::move(idle_.front()));
                    idle_.erase(idle_.begin());
                }
            }
        }
        counters_.closed.fetch_add(expired.size());
        if (found) counters_.reuses.fetch_add(1);
        return found; // expired ones are closed here, outside the lock
    }

    void giveBack(std::unique_ptr<Connection> c)
    {
        {
            std::lock_guard<std::mutex> g(mutex_);
            if (idle_.size() < config_.poolSize) {
                idle_.push_back(std::move(c));
                return;
            }
        }
        counters_.closed.fetch_add(1);
        c.reset();
    }

    bool hasIdle()
    {
        std::lock_guard<std::mutex> g(mutex_);
        auto limit = Clock::now() - std::chrono::milliseconds(config_.idleMs);
        for (const auto &c : idle_)
            if (c->lastUsed() >= limit) return true;
        return false;
    }

    // Discards the idle connections: closed politely, or (stale) abandoned.
    void dropIdle(bool stale)
    {
        std::vector<std::unique_ptr<Connection>> gone;
        {
            std::lock_guard<std::mutex> g(mutex_);
            gone.swap(idle_);
        }
        for (auto &c : gone) {
            if (stale) c->abandon();
        }
        (stale ? counters_.dropped : counters_.closed).fetch_add(gone.size());
    }

    // Sends one request. `conn` is the connection to use (a session's own one, or null to
    // borrow from the pool); on return it holds the connection that is still usable, or null.
    Answer send(std::unique_ptr<Connection> &conn, bool pooled, const RawCall &call, std::span<const uint8_t> request)
    {
        if (request.size() > kMaxRequestData) {
            setLastError(where() + ": a request of " + std::to_string(request.size()) + " data bytes exceeds the " +
                         std::to_string(kMaxRequestData) + " an IPMI message can carry");
            return Answer{LIBIPMI_STATUS_INVALID_ARGUMENT, std::nullopt};
        }
        for (int attempt = 0; attempt < 2; ++attempt) {
            bool fresh = false;
            if (!conn && pooled) conn = takeIdle();
            if (!conn) {
                uint16_t status = 0;
                conn = establish(status);
                if (!conn) return Answer{status, std::nullopt};
                fresh = true;
            }
            int errnum = 0;
            std::string message;
            counters_.requests.fetch_add(1);
            std::optional<Answer> a = conn->request(call.netFnLun, call.command, request, call.route, errnum, message);
            if (a) return *a;
            uint16_t status = lan::statusForError(errnum);
            if (lan::connectionLost(errnum)) {
                conn->abandon();
                conn.reset();
                counters_.dropped.fetch_add(1);
                if (!fresh && pooled) dropIdle(true);
            }
            char head[64];
            std::snprintf(head, sizeof head, "request netFn 0x%02x cmd 0x%02x: ", call.netFnLun >> 2, call.command);
            setLastError(where() + ": " + head + message);
            bool linkFailure = status == LIBIPMI_STATUS_TIMEOUT || status == LIBIPMI_STATUS_TRANSPORT;
            if (fresh || !linkFailure || attempt > 0) return Answer{status, std::nullopt};
            counters_.retries.fetch_add(1);
        }
        return Answer{LIBIPMI_STATUS_TRANSPORT, std::nullopt}; // not reached
    }

    const Config &config() const { return config_; }

    void stats(ipmihost_lan_statistics &out)
    {
        out.handshakes = counters_.handshakes.load();
        out.handshakeFailures = counters_.handshakeFailures.load();
        out.requests = counters_.requests.load();
        out.reuses = counters_.reuses.load();
        out.dropped = counters_.dropped.load();
        out.retries = counters_.retries.load();
        out.closed = counters_.closed.load();
        std::lock_guard<std::mutex> g(mutex_);
        out.idle = static_cast<uint32_t>(idle_.size());
    }

private:
    std::string where() const
    {
        return (config_.user.empty() ? std::string("(anonymous)") : config_.user) + "@" + config_.endpoint();
    }

    Config config_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Connection>> idle_; // least recently used first
    Counters counters_;
};

// A library session that borrows a pooled connection for each request.
class PooledLink : public Link {
public:
    explicit PooledLink(std::shared_ptr<LanTarget> target) : target_(std::move(target)) {}

    Answer exchange(const RawCall &call, std::span<const uint8_t> request) override
    {
        std::unique_ptr<Connection> conn;
        Answer a = target_->send(conn, true, call, request);
        if (conn) target_->giveBack(std::move(conn));
        return a;
    }
    Answer bridge(const RawCall &call, std::span<const uint8_t> request) override { return exchange(call, request); }

private:
    std::shared_ptr<LanTarget> target_;
};

// A library session with a connection of its own (no pool).
class DedicatedLink : public Link {
public:
    DedicatedLink(std::shared_ptr<LanTarget> target, std::unique_ptr<Connection> conn)
        : target_(std::move(target)), conn_(std::move(conn))
    {
    }

    Answer exchange(const RawCall &call, std::span<const uint8_t> request) override
    {
        std::lock_guard<std::mutex> g(mutex_);
        return target_->send(conn_, false, call, request);
    }
    Answer bridge(const RawCall &call, std::span<const uint8_t> request) override { return exchange(call, request); }

    void close() override
    {
        std::lock_guard<std::mutex> g(mutex_);
        conn_.reset();
    }

private:
    std::shared_ptr<LanTarget> target_;
    std::mutex mutex_;
    std::unique_ptr<Connection> conn_;
};

uint16_t LanTarget::open(const OpenCall &, std::shared_ptr<Link> &link)
{
    // The credentials and privilege are the target's: the library opens its sessions as a
    // local program would, with no password.
    if (config_.poolSize == 0) {
        uint16_t status = 0;
        std::unique_ptr<Connection> conn = establish(status);
        if (!conn) return status;
        link = std::make_shared<DedicatedLink>(shared_from_this(), std::move(conn));
        return LIBIPMI_STATUS_OK;
    }
    if (!hasIdle()) {
        uint16_t status = 0;
        std::unique_ptr<Connection> conn = establish(status);
        if (!conn) return status;
        giveBack(std::move(conn));
    }
    link = std::make_shared<PooledLink>(shared_from_this());
    return LIBIPMI_STATUS_OK;
}

LanTarget *currentLan() { return currentTargetAs<LanTarget>("a LAN target"); }

} // namespace

std::shared_ptr<Target> makeLanTarget(const std::string &spec)
{
    std::string error;
    std::optional<Config> config = lan::parseTarget(spec, error);
    if (!config) {
        setLastError("LAN target " + lan::redact(spec) + ": " + error);
        return nullptr;
    }
    return std::make_shared<LanTarget>(std::move(*config));
}

} // namespace libipmi

using namespace libipmi;

extern "C" int ipmihost_select_lan(const ipmihost_lan_params *params)
{
    return boundary<int>(-1, [&]() -> int {
        if (!params || !params->host) {
            setLastError("ipmihost_select_lan: no host given");
            return -1;
        }
        lan::Config c;
        std::string host = params->host;
        if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
        c.ipv6 = host.find(':') != std::string::npos;
        c.host = host;
        if (params->port) c.port = params->port;
        if (params->user) c.user = params->user;
        if (params->password) {
            c.password = lan::Secret(params->password);
            c.passwordSource = lan::PasswordSource::Inline;
        }
        if (params->passwordFile) c.passwordFile = params->passwordFile;
        if (params->password && params->passwordFile) {
            setLastError("ipmihost_select_lan: both a password and a password file; give one");
            return -1;
        }
        if (params->cipherSuite) c.cipherSuite = params->cipherSuite;
        if (params->privilege) c.privilege = params->privilege;
        if (params->timeoutMs) c.timeoutMs = params->timeoutMs;
        if (params->retransmitMs) c.retransmitMs = params->retransmitMs;
        else c.retransmitMs = lan::defaultRetransmit(c.timeoutMs);
        if (params->workarounds) {
            std::string error;
            auto flags = lan::parseWorkarounds(params->workarounds, error);
            if (!flags) {
                setLastError("ipmihost_select_lan: " + error);
                return -1;
            }
            c.workaroundFlags = *flags;
            c.workarounds = params->workarounds;
        }
        if (params->poolSize) c.poolSize = params->poolSize;
        if (params->disablePool) c.poolSize = 0;
        if (params->idleMs) c.idleMs = params->idleMs;
        std::string error;
        if (!lan::finish(c, error)) {
            setLastError("ipmihost_select_lan: " + error);
            return -1;
        }
        setSelectedTarget(std::make_shared<LanTarget>(std::move(c)));
        return 0;
    });
}

extern "C" int ipmihost_lan_stats(ipmihost_lan_statistics *out)
{
    return boundary<int>(-1, [&]() -> int {
        if (!out) {
            setLastError("ipmihost_lan_stats: no place for the statistics");
            return -1;
        }
        LanTarget *t = currentLan();
        if (!t) return -1;
        std::memset(out, 0, sizeof *out);
        t->stats(*out);
        return 0;
    });
}

extern "C" int ipmihost_lan_drop_connections(void)
{
    return boundary<int>(-1, [&]() -> int {
        LanTarget *t = currentLan();
        if (!t) return -1;
        t->dropIdle(false);
        return 0;
    });
}
