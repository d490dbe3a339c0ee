// The session of one agent getter: opened when the getter starts (administrator privilege,
// empty user name, no addresses) and closed on every path out of it.
#pragma once

#include "common/diag.h"
#include "tvx_toipmi.h"

namespace tvx {

class AgentSession {
public:
    AgentSession() : session_(ipmiHelperOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr))
    {
        if (!session_) diag::plain("failed to open session\n");
    }
    ~AgentSession() { ipmiHelperCloseSession(&session_); }
    AgentSession(const AgentSession &) = delete;
    AgentSession &operator=(const AgentSession &) = delete;

    explicit operator bool() const { return session_ != nullptr; }
    IpmiSession *get() const { return session_; }

private:
    IpmiSession *session_;
};

} // namespace tvx
