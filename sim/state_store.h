// The controller's non-volatile storage: what commands change (power, logs, settings, LEDs,
// variables) kept in one state file per machine, so that consecutive programs see each
// other's changes. Programs running at the same time are serialized by an exclusive lock on
// a lock file beside the state file; a state file is replaced atomically (write, rename).
#pragma once

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "profile.h"

namespace tvxsim {

class StateStore {
public:
    // dir empty: the state lives in memory only (nothing persists).
    // initial: builds the state of a machine fresh from its profile.
    StateStore(std::string dir, const Profile &profile, std::function<nlohmann::json()> initial);
    ~StateStore();
    StateStore(const StateStore &) = delete;
    StateStore &operator=(const StateStore &) = delete;

    // Path of the state file ("" in memory).
    const std::string &path() const { return path_; }

    // Checks that the state can be read (creating the directory if needed). Throws
    // ProfileError for a corrupt file or a directory that cannot be used.
    void open();

    // Runs fn on the current state under the lock; when fn returns true the state was changed
    // and is written back before the lock is released. When fn throws, whatever it changed is
    // dropped. Throws ProfileError.
    void transact(const std::function<bool(nlohmann::json &)> &fn);

    // Starts afresh from the profile.
    void reset();

    // The default directory: $XDG_STATE_HOME/tvx, else $HOME/.local/state/tvx, else
    // /tmp/tvx-state-UID.
    static std::string defaultDir();

private:
    void lock();
    void unlock();
    void loadIfChanged();
    void write();
    void discard();

    std::string dir_;
    std::string path_;
    std::string lockPath_;
    std::string profileFile_;
    std::function<nlohmann::json()> initial_;
    nlohmann::json state_;
    nlohmann::json committed_; // in memory only: the state as of the last change
    bool loaded_ = false;
    int lockFd_ = -1;
    // Identity of the file last read, to skip re-reading an unchanged state.
    unsigned long long dev_ = 0, ino_ = 0, size_ = 0;
    long long mtimeNs_ = 0;
};

} // namespace tvxsim
