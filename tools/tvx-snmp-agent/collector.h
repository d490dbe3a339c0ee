// Reads everything the subagent serves from the selected controller, through the library's
// agent getters called as the agent calls them: one session per getter, against an SDR cache
// that is built once with getSDRInfo and rebuilt only when the repository changes (Get SDR
// Repository Info's addition or erase time stamp moved). Not thread-safe: one thread collects.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "rollup_getters.h"
#include "snapshot.h"
#include "tvx_toipmi.h"

namespace tvxagent {

class Collector {
public:
    // The port functions to publish beside the controller in the network node table.
    explicit Collector(std::vector<PortFunction> ports = {}) : ports_(std::move(ports)) {}
    ~Collector() { freeSDRInfo(&sdr_); }
    Collector(const Collector &) = delete;
    Collector &operator=(const Collector &) = delete;

    // One full collection. Never fails: what the controller does not answer shows as the
    // getters' "unknown" values, and a repository that cannot be read leaves the sensor tables
    // as the last cache had them (or empty before the first success).
    Snapshot collect();

    // Asks the controller to send its test alert; true when it was accepted. false also when
    // the library offers no test alert.
    bool sendTestAlert();
    static bool testAlertAvailable();

    // The cache's rebuilds so far (for the log and the benchmark).
    uint64_t sdrBuilds() const { return builds_; }
    // What went wrong in the last collection, or "" (for the log, once per change).
    const std::string &problem() const { return problem_; }

private:
    void refreshSdrCache();

    SDRInfo sdr_{};
    bool cached_ = false;
    uint32_t addStamp_ = 0, eraseStamp_ = 0;
    uint64_t builds_ = 0;
    std::string problem_;
    std::vector<PortFunction> ports_;
};

} // namespace tvxagent
