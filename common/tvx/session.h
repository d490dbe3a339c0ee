// Sessions for the length of a scope, on the selected target: opened when the object is made
// (or later, by open(), when made with `deferred`), closed when it goes. Shared by the tools,
// the tests and the benchmarks.
#pragma once

#include <cstdint>

#include "libipmi.h"
#include "tvx_toipmi.h"

namespace tvx {

// Asks for a session object that opens only when its open() is called.
struct Deferred {
    explicit Deferred() = default;
};
inline constexpr Deferred deferred{};

// A session of the library, at administrator level.
class Session {
public:
    Session() { open(); }
    explicit Session(Deferred) {}
    ~Session() { close(); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Opens a new session (closing the one held); whether it opened.
    bool open()
    {
        close();
        s_ = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        return s_ != nullptr;
    }
    void close() { ipmiHelperCloseSession(&s_); }
    // The handle: NULL when no session is open.
    IpmiSession *get() const { return s_; }
    explicit operator bool() const { return s_ != nullptr; }

private:
    IpmiSession *s_ = nullptr;
};

// A local session of the platform library, its block held in the object (no library session
// in between).
class PlatformSession {
public:
    PlatformSession() { open(); }
    explicit PlatformSession(Deferred) {}
    ~PlatformSession() { close(); }
    PlatformSession(const PlatformSession &) = delete;
    PlatformSession &operator=(const PlatformSession &) = delete;

    // Opens a new session (closing the one held); the platform's status of the opening.
    uint16_t open()
    {
        close();
        status_ = LIBIPMI_Create_IPMI_Local_Session_Ext(get(), nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr,
                                                        kArg9, kArg10);
        return status_;
    }
    void close()
    {
        if (status_ == LIBIPMI_STATUS_OK) LIBIPMI_CloseSession(get());
        status_ = LIBIPMI_STATUS_NO_SESSION;
    }
    // The status its last opening ended with (LIBIPMI_STATUS_NO_SESSION once closed).
    uint16_t status() const { return status_; }
    IpmiSession *get() { return reinterpret_cast<IpmiSession *>(block_); }
    explicit operator bool() const { return status_ == LIBIPMI_STATUS_OK; }

private:
    // The two trailing arguments every local opening passes.
    static constexpr int kArg9 = 2, kArg10 = 5;
    alignas(8) uint8_t block_[LIBIPMI_SESSION_SIZE] = {};
    uint16_t status_ = LIBIPMI_STATUS_NO_SESSION;
};

} // namespace tvx
