// The controller's storage: what commands change (power, logs, settings, LEDs, variables),
// shared by every program that uses the machine.
//
// The state is an object whose top-level members are areas ("sel", "lan", "chassis", ...),
// each owned by one subsystem. An area is kept in one of two places, as a controller keeps it:
//
// - Non-volatile storage: STATE_DIR/NAME.state.json, a stream of JSON objects, one per line.
//   The first line holds the whole state as of some moment; each further line one change
//   (the areas it set or dropped and what it appended to a log), with a CRC-32 of its text.
//   A change is written and synced (fdatasync) before it is acknowledged, so it costs what
//   changed rather than the whole state; when the changes outgrow the state they are folded
//   into a new first line, written aside, synced and renamed over the file, its directory
//   synced. A change torn by a crash (never acknowledged) is dropped at the next load.
// - RAM: areas that a controller forgets when it restarts (reservations, LAN parameter
//   writes in progress) live in the lock file NAME.lock beside it, never synced: a
//   reservation writes nothing to non-volatile storage.
//
// Programs are serialized by an exclusive lock on NAME.lock for the length of one request;
// each request first takes in what other programs changed since its last one (a look at the
// file's size and link count, and at the RAM's sequence number). A change that cannot be
// stored leaves the state in memory and on file as it was and throws ProfileError naming the
// file and the cause.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "profile.h"

namespace tvxsim {

// How the subsystems keep their areas.
struct StateLayout {
    // Areas held in the controller's RAM.
    std::set<std::string> ram;
    // Lists (area, member) that only grow at their end, or are replaced whole (emptied, for
    // instance): storing a change costs the entries appended, not the whole list. An entry is
    // never changed in place.
    std::set<std::pair<std::string, std::string>> logs;
};

class StateStore {
public:
    // dir empty: the state lives in memory only (nothing persists).
    // initial: builds the state of a machine fresh from its profile.
    StateStore(std::string dir, const Profile &profile, std::function<nlohmann::json()> initial,
               StateLayout layout = {});
    ~StateStore();
    StateStore(const StateStore &) = delete;
    StateStore &operator=(const StateStore &) = delete;

    // Path of the state file ("" in memory).
    const std::string &path() const { return path_; }

    // Checks that the state can be read (creating the directory and the state if needed).
    // Throws ProfileError for a corrupt file or a directory that cannot be used.
    void open();

    // Runs fn on the current state under the lock; when fn returns true the state was changed
    // and the change is stored before the lock is released. When fn throws, or the change
    // cannot be stored, whatever fn changed is dropped. Throws ProfileError.
    void transact(const std::function<bool(nlohmann::json &)> &fn);

    // Starts afresh from the profile (and with an empty RAM, as a controller that restarts).
    void reset();

    // The default directory: $XDG_STATE_HOME/tvx, else $HOME/.local/state/tvx, else
    // /tmp/tvx-state-UID.
    static std::string defaultDir();

    // The non-volatile state kept in a state file, as the next program to start would find it.
    // Throws ProfileError.
    static nlohmann::json readStored(const std::string &path);

private:
    struct LogMark {
        std::size_t length = 0;
        nlohmann::json first, last; // the entries at both ends, to tell an append from a rewrite
    };
    struct Change; // what one request changed, as a line of the file

    void lock();
    void unlock();
    void sync();
    void loadFile();
    void readTail();
    void readRam();
    void createFromProfile();
    void commit();
    void rollback();
    void writeRam(const std::string &body);
    void appendLine(const std::string &line);
    std::string snapshot(const nlohmann::json &persistent) const;
    void rewrite(const nlohmann::json &persistent, bool mustSucceed);
    void rewriteText(const std::string &text, bool mustSucceed);
    void remember();
    void markLogs();
    nlohmann::json persistentPart() const;
    bool isRam(const std::string &area) const { return layout_.ram.count(area) != 0; }

    std::string dir_;
    std::string path_;
    std::string lockPath_;
    std::string profileFile_;
    std::function<nlohmann::json()> initial_;
    StateLayout layout_;

    nlohmann::json state_ = nlohmann::json::object();
    // As of the last stored change: every area but the logs' entries, and the logs' marks.
    nlohmann::json committed_ = nlohmann::json::object();
    std::map<std::pair<std::string, std::string>, LogMark> marks_;
    bool loaded_ = false;

    int lockFd_ = -1;
    int fileFd_ = -1;
    uint64_t end_ = 0;           // the valid bytes of the file read so far
    uint64_t seenSize_ = 0;      // the file's size when last looked at (a torn tail stays unread)
    uint64_t snapshotBytes_ = 0; // the first line
    bool legacy_ = false;        // a file a change cannot be appended to (see appendLine)
    uint64_t ramSeq_ = 0;
    bool ramKnown_ = false;
    std::string ramBody_; // the RAM as last read or written
    // A fresh machine's state and its state file (built at the first reset), and whether
    // neither this program nor another has changed the machine since the last reset, when a
    // reset has nothing to do.
    nlohmann::json fresh_;
    std::string freshText_;
    bool freshKnown_ = false;
    bool pristine_ = false;
};

} // namespace tvxsim
