// What the real-peer tests share: the simulator they run against, running tvxctl and
// ipmitool as processes, and capturing the library's diagnostics.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "peer.h"
#include "tvx_toipmi.h"

namespace realpeer {

// The default machine, as ipmi_sim, shared by the tests that do not change it.
tvxsim::ipmisim::Peer &defaultPeer();
std::string defaultProfile();

// A simulator of its own for a test that restarts it or needs another profile.
std::unique_ptr<tvxsim::ipmisim::Peer> startPeer(const std::string &name, const std::string &profilePath,
                                                 const std::vector<std::string> &extraCommands = {});

// A fresh directory under the build tree for one test's files.
std::string workDir(const std::string &name);
// Writes text into a file under workDir and returns its path.
std::string writeFile(const std::string &dir, const std::string &name, const std::string &text);

struct Outcome {
    int exitCode = -1;
    std::string out, err;
};
// Runs a program with a bounded wait (30 s, then it is killed) and its output captured.
// `env` entries ("NAME=VALUE") are added to the program's environment.
Outcome run(const std::vector<std::string> &argv, const std::vector<std::string> &env = {});
// tvxctl against the peer (over LAN) or, with target empty, with the arguments as given.
Outcome tvxctl(const tvxsim::ipmisim::Peer *peer, const std::vector<std::string> &args);
// ipmitool -I lanplus against the peer as its first user, cipher suite 3.
Outcome ipmitool(const tvxsim::ipmisim::Peer &peer, const std::vector<std::string> &args);

// A library session (ipmiOpenSession), closed at the end of the scope.
class LibSession {
public:
    LibSession() : s_(ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr)) {}
    ~LibSession() { ipmiHelperCloseSession(&s_); }
    LibSession(const LibSession &) = delete;
    LibSession &operator=(const LibSession &) = delete;
    IpmiSession *get() const { return s_; }

private:
    IpmiSession *s_;
};

// Sends one raw request on a session through the platform library; returns the status and
// stores the response bytes (completion code first).
uint16_t raw(IpmiSession *session, uint8_t netFn, uint8_t command, const std::vector<uint8_t> &request,
             std::vector<uint8_t> &response);

} // namespace realpeer
