// What the real-peer tests share: the simulator they run against, tvxctl and ipmitool as
// processes against it, and raw requests through the platform library.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "machine.h"
#include "peer.h"
#include "process.h"

namespace realpeer {

using tvxtest::Outcome;

// The default machine, as ipmi_sim, shared by the tests that do not change it.
tvxsim::ipmisim::Peer &defaultPeer();
std::string defaultProfile();

// A simulator of its own for a test that restarts it or needs another profile.
std::unique_ptr<tvxsim::ipmisim::Peer> startPeer(const std::string &name, const std::string &profilePath);

// A fresh directory under the build tree for one test's files.
std::string workDir(const std::string &name);

// tvxctl against the peer (over LAN) or, with no peer, with the arguments as given; `env`
// entries ("NAME=VALUE") are added to its environment.
Outcome tvxctl(const tvxsim::ipmisim::Peer *peer, const std::vector<std::string> &args,
               const std::vector<std::string> &env = {});
// ipmitool -I lanplus against the peer as its first user, cipher suite 3.
Outcome ipmitool(const tvxsim::ipmisim::Peer &peer, const std::vector<std::string> &args);

// Sends one raw request on a session through the platform library; returns the status and
// stores the response bytes (completion code first).
uint16_t raw(IpmiSession *session, uint8_t netFn, uint8_t command, const std::vector<uint8_t> &request,
             std::vector<uint8_t> &response);

} // namespace realpeer
