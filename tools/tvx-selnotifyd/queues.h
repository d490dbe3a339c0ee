// The two System V message queues the service owns: the register queue (watchers' requests
// in) and the notify queue (events out), and the watchers registered on them.
//
// Ownership: one service at a time. A lock file beside the queues' key path says which
// process owns them; queues left behind by a service that died without removing them are
// taken over, queues of a live owner are not.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "sel_poller.h"

namespace selnotifyd {

// A queue key as ipcs shows it ("0x72012345").
std::string keyText(int key);

class Queues {
public:
    using Log = std::function<void(const std::string &)>;
    explicit Queues(Log log) : log_(std::move(log)) {}
    ~Queues() { remove(); }
    Queues(const Queues &) = delete;
    Queues &operator=(const Queues &) = delete;

    // Takes ownership of the queues: false (with the reason in error) when another instance
    // owns them. Queues left behind by a service that died are removed.
    bool claim(std::string &error);
    // Creates both queues (after claim); false with the reason in error.
    bool create(std::string &error);
    // Removes both queues and gives up ownership (also done by the destructor).
    void remove();

    // Waits for the next watcher request and applies it; false when the wait was interrupted
    // (a signal) or failed (the reason is logged when it is not an interruption).
    bool serveOne();
    // Applies every waiting request without waiting.
    void serveWaiting();
    // Sends the event to every registered watcher; false when the notify queue is gone.
    bool notify(const SelEvent &event);

    // The register queue can no longer be used (removed by someone else).
    bool broken() const { return broken_; }
    const std::set<long> &watchers() const { return watchers_; }
    int registerKey() const { return registerKey_; }
    int notifyKey() const { return notifyKey_; }

private:
    bool receive(int flags);
    void apply(long watcher, int32_t operation);

    Log log_;
    int lockFd_ = -1;
    int registerKey_ = -1, notifyKey_ = -1;
    int registerQueue_ = -1, notifyQueue_ = -1;
    std::set<long> watchers_;
    std::set<long> full_; // watchers whose last event did not fit the notify queue
    bool broken_ = false;
};

} // namespace selnotifyd
