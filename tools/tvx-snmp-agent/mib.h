// The hardware MIB's objects registered with net-snmp: the tables through the table-data
// helper (rows rebuilt from each new snapshot), the scalars through the scalar helper, the
// test-alert control as the one writable object, and the two notifications.
#pragma once

#include <functional>
#include <memory>

#include "snapshot.h"

namespace tvxagent {

class Mib {
public:
    // onTestAlert is called (on the agent's thread) when a manager sets the test-alert control
    // to send(2); it must not block.
    Mib(std::function<void()> onTestAlert, bool testAlertAvailable);
    ~Mib();
    Mib(const Mib &) = delete;
    Mib &operator=(const Mib &) = delete;

    // Registers every object whose value the snapshot holds (call once, with the first one).
    void registerObjects(const Snapshot &first);
    // Serves this snapshot from now on. Sends tvxHwOverallStatusChange when the overall
    // status differs from the one served before.
    void install(std::shared_ptr<const Snapshot> snapshot);
    // Records the outcome of a test alert and sends tvxHwTestTrap.
    void testAlertDone(bool accepted);

    // Called by the handlers.
    const Snapshot *current() const { return current_.get(); }
    long testTrapResult() const { return testTrapResult_; }
    void requestTestAlert() { onTestAlert_(); }

private:
    struct Tables;
    std::unique_ptr<Tables> tables_;
    std::shared_ptr<const Snapshot> current_;
    std::function<void()> onTestAlert_;
    bool testAlertAvailable_;
    long testTrapResult_ = 1; // none(1)
};

} // namespace tvxagent
