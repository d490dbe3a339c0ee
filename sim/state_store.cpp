#include "state_store.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace tvxsim {
namespace {

constexpr int kFormat = 1;

std::string errnoText() { return std::strerror(errno); }

void makeDirs(const std::string &dir)
{
    std::string partial;
    std::size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        partial = dir.substr(0, pos);
        if (partial.empty()) continue;
        if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST)
            throw ProfileError(dir + ": cannot create the state directory: " + errnoText());
    }
    struct stat st{};
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw ProfileError(dir + ": the state directory is not a directory");
}

} // namespace

StateStore::StateStore(std::string dir, const Profile &profile, std::function<nlohmann::json()> initial)
    : dir_(std::move(dir)), profileFile_(profile.file), initial_(std::move(initial))
{
    if (!dir_.empty()) {
        while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
        path_ = dir_ + "/" + profile.name + ".state.json";
        lockPath_ = dir_ + "/" + profile.name + ".lock";
    }
}

StateStore::~StateStore()
{
    if (lockFd_ >= 0) close(lockFd_);
}

std::string StateStore::defaultDir()
{
    const char *xdg = std::getenv("XDG_STATE_HOME");
    if (xdg && *xdg == '/') return std::string(xdg) + "/tvx";
    const char *home = std::getenv("HOME");
    if (home && *home == '/') return std::string(home) + "/.local/state/tvx";
    return "/tmp/tvx-state-" + std::to_string(getuid());
}

void StateStore::lock()
{
    if (dir_.empty()) return;
    if (lockFd_ < 0) {
        makeDirs(dir_);
        lockFd_ = ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (lockFd_ < 0) throw ProfileError(lockPath_ + ": cannot open the lock file: " + errnoText());
    }
    while (flock(lockFd_, LOCK_EX) != 0) {
        if (errno != EINTR) throw ProfileError(lockPath_ + ": cannot lock: " + errnoText());
    }
}

void StateStore::unlock()
{
    if (lockFd_ >= 0) flock(lockFd_, LOCK_UN);
}

void StateStore::loadIfChanged()
{
    if (dir_.empty()) {
        if (!loaded_) {
            state_ = initial_();
            committed_ = state_;
            loaded_ = true;
        }
        return;
    }
    struct stat st{};
    if (stat(path_.c_str(), &st) != 0) {
        if (errno != ENOENT) throw ProfileError(path_ + ": cannot read the state file: " + errnoText());
        // No state yet: the machine starts from its profile.
        state_ = initial_();
        loaded_ = true;
        write();
        return;
    }
    long long mtimeNs = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    if (loaded_ && st.st_dev == dev_ && st.st_ino == ino_ && static_cast<unsigned long long>(st.st_size) == size_ &&
        mtimeNs == mtimeNs_)
        return;
    std::ifstream in(path_, std::ios::binary);
    if (!in) throw ProfileError(path_ + ": cannot read the state file: " + errnoText());
    std::ostringstream text;
    text << in.rdbuf();
    nlohmann::json doc;
    const std::string hint = " (run 'tvxctl reset' to start the machine afresh from its profile)";
    try {
        doc = nlohmann::json::parse(text.str());
    } catch (const nlohmann::json::parse_error &e) {
        throw ProfileError(path_ + ": the state file is corrupt: byte " + std::to_string(e.byte) + ": not valid JSON" + hint);
    }
    if (!doc.is_object() || !doc.contains("format") || doc["format"] != kFormat)
        throw ProfileError(path_ + ": /format: the state file is corrupt or of another version" + hint);
    if (!doc.contains("state") || !doc["state"].is_object())
        throw ProfileError(path_ + ": /state: the state file is corrupt: missing the machine state" + hint);
    state_ = std::move(doc["state"]);
    loaded_ = true;
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    size_ = static_cast<unsigned long long>(st.st_size);
    mtimeNs_ = mtimeNs;
}

void StateStore::write()
{
    if (dir_.empty()) {
        committed_ = state_;
        return;
    }
    nlohmann::json doc = {{"format", kFormat}, {"profile", profileFile_}, {"state", state_}};
    std::string text = doc.dump(1) + "\n";
    std::string tmp = path_ + ".tmp." + std::to_string(getpid());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw ProfileError(tmp + ": cannot write the state file: " + errnoText());
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            std::string err = errnoText();
            close(fd);
            unlink(tmp.c_str());
            throw ProfileError(tmp + ": cannot write the state file: " + err);
        }
        done += static_cast<std::size_t>(n);
    }
    if (close(fd) != 0 || rename(tmp.c_str(), path_.c_str()) != 0) {
        std::string err = errnoText();
        unlink(tmp.c_str());
        throw ProfileError(path_ + ": cannot replace the state file: " + err);
    }
    struct stat st{};
    if (stat(path_.c_str(), &st) == 0) {
        dev_ = st.st_dev;
        ino_ = st.st_ino;
        size_ = static_cast<unsigned long long>(st.st_size);
        mtimeNs_ = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    }
}

void StateStore::open()
{
    transact([](nlohmann::json &) { return false; });
}

void StateStore::transact(const std::function<bool(nlohmann::json &)> &fn)
{
    lock();
    struct Unlock {
        StateStore *s;
        ~Unlock() { s->unlock(); }
    } guard{this};
    loadIfChanged();
    // The handler works on the state in place: a copy for every request made a machine with a
    // large state (a log of a thousand records) slower with every record. A change counts once
    // the handler reports it, and is then written; a handler that fails half-way leaves
    // nothing behind, as the state is taken again from what was last written.
    bool changed = false;
    try {
        changed = fn(state_);
    } catch (...) {
        discard();
        throw;
    }
    if (changed) write();
}

void StateStore::discard()
{
    if (dir_.empty()) state_ = committed_;
    else loaded_ = false; // read again from the file
}

void StateStore::reset()
{
    lock();
    struct Unlock {
        StateStore *s;
        ~Unlock() { s->unlock(); }
    } guard{this};
    state_ = initial_();
    loaded_ = true;
    write();
}

} // namespace tvxsim
