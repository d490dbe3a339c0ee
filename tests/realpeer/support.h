// What the real-peer tests share: the simulator they run against, tvxctl and ipmitool as
// processes against it, and raw requests through the platform library.
#pragma once

#include <map>
#include <memory>
#include <sstream>
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

// A simulator of its own for a test that restarts it or needs another profile; stock ipmi_sim
// (none of the vendor's commands) without the module.
std::unique_ptr<tvxsim::ipmisim::Peer> startPeer(const std::string &name, const std::string &profilePath,
                                                 bool withModule = true);

// A fresh directory under the build tree for one test's files.
std::string workDir(const std::string &name);

// tvxctl against the peer (over LAN) or, with no peer, with the arguments as given; `env`
// entries ("NAME=VALUE") are added to its environment.
Outcome tvxctl(const tvxsim::ipmisim::Peer *peer, const std::vector<std::string> &args,
               const std::vector<std::string> &env = {});
// ipmitool -I lanplus against the peer as its first user, cipher suite 3.
Outcome ipmitool(const tvxsim::ipmisim::Peer &peer, const std::vector<std::string> &args);

// Without the blanks around it.
inline std::string trim(const std::string &s)
{
    std::size_t start = s.find_first_not_of(" \t"), end = s.find_last_not_of(" \t\r");
    return start == std::string::npos ? "" : s.substr(start, end - start + 1);
}

// The cells of each line of a table that holds `sep`, trimmed; with `header`, the first line
// is the table's header and skipped.
inline std::vector<std::vector<std::string>> table(const std::string &text, char sep, bool header = false)
{
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(text);
    std::string line;
    if (header) std::getline(in, line);
    while (std::getline(in, line)) {
        if (line.find(sep) == std::string::npos) continue;
        rows.emplace_back();
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, sep);) rows.back().push_back(trim(cell));
    }
    return rows;
}

// What ipmitool prints as "Name : value" lines: the values of each name, those on the lines
// after it (which hold no " : ") included.
using Fields = std::map<std::string, std::vector<std::string>>;
inline Fields fields(const std::string &text)
{
    Fields f;
    std::istringstream in(text);
    std::string current;
    for (std::string line; std::getline(in, line);) {
        std::size_t colon = line.find(" : ");
        if (colon == std::string::npos && line.size() > 2 && line.ends_with(" :")) colon = line.size() - 2;
        std::string value = trim(colon == std::string::npos ? line : line.substr(std::min(colon + 3, line.size())));
        if (colon != std::string::npos) current = trim(line.substr(0, colon)), f[current];
        if (!value.empty() && !current.empty()) f[current].push_back(value);
    }
    return f;
}

// Sends one raw request on a session through the platform library; returns the status and
// stores the response bytes (completion code first).
uint16_t raw(IpmiSession *session, uint8_t netFn, uint8_t command, const std::vector<uint8_t> &request,
             std::vector<uint8_t> &response);

} // namespace realpeer
