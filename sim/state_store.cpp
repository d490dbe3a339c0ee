#include "state_store.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tvxsim {
namespace {

using nlohmann::json;

constexpr int kFormat = 2;
constexpr int kFirstFormat = 1; // one JSON document, rewritten whole for every change
// A machine's state with a full log is a few megabytes; a larger file is not a state file.
constexpr uint64_t kMaxStateBytes = 64ull << 20;
constexpr uint64_t kMaxRamBytes = 1ull << 20;
// Changes are folded into a new first line once they outgrow both this and the first line, so
// that folding costs about as much as the changes it folds, and loading stays proportional to
// the state.
constexpr uint64_t kFoldAfter = 64ull << 10;
constexpr char kHint[] = " (run 'tvxctl reset' to start the machine afresh from its profile)";

// A change line: {"crc":"1a2b3c4d", then the change object's members.
constexpr std::string_view kCrcPrefix = "{\"crc\":\"";
constexpr std::size_t kCrcLineStart = kCrcPrefix.size() + 8 + 2; // the prefix, 8 digits, ",

// The RAM in the lock file: a header line, then the JSON object of the RAM areas.
constexpr std::string_view kRamMagic = "tvx-ram ";
constexpr std::size_t kRamHeader = kRamMagic.size() + 16 + 1 + 8 + 1 + 8 + 1; // seq len crc\n

std::string errnoText(int e) { return std::strerror(e); }

constexpr std::array<uint32_t, 256> makeCrcTable()
{
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        t[i] = c;
    }
    return t;
}

// CRC-32 as zlib computes it.
uint32_t crc32(std::string_view s)
{
    static constexpr std::array<uint32_t, 256> table = makeCrcTable();
    uint32_t c = 0xFFFFFFFFu;
    for (unsigned char b : s) c = table[(c ^ b) & 0xFF] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

bool parseHexField(std::string_view text, uint64_t &out)
{
    if (text.empty()) return false;
    out = 0;
    for (char ch : text) {
        int d = ch >= '0' && ch <= '9' ? ch - '0' : ch >= 'a' && ch <= 'f' ? ch - 'a' + 10 : -1;
        if (d < 0) return false;
        out = out << 4 | static_cast<uint64_t>(d);
    }
    return true;
}

std::string dumpLine(const json &j) { return j.dump(-1, ' ', false, json::error_handler_t::replace); }

void makeDirs(const std::string &dir)
{
    std::string partial;
    std::size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        partial = dir.substr(0, pos);
        if (partial.empty()) continue;
        if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST)
            throw ProfileError(dir + ": cannot create the state directory: " + errnoText(errno));
    }
    struct stat st{};
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw ProfileError(dir + ": the state directory is not a directory");
}

// Writes all of text at offset; false with errno set when that fails.
bool writeAt(int fd, std::string_view text, uint64_t offset)
{
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Reads [offset, offset + size); false with errno set when that fails or the file is shorter.
bool readAt(int fd, std::string &out, uint64_t offset, uint64_t size)
{
    out.resize(size);
    std::size_t done = 0;
    while (done < size) {
        ssize_t n = pread(fd, out.data() + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Opens a state file for reading, writing where the file system allows it: -1 and errno.
int openState(const std::string &path, bool &writable)
{
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    writable = fd >= 0;
    if (fd < 0 && (errno == EROFS || errno == EACCES || errno == EPERM))
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    return fd;
}

// The whole file, checked to be a regular file of a sensible size.
std::string readStateFile(int fd, const std::string &path)
{
    struct stat st{};
    if (fstat(fd, &st) != 0) throw ProfileError(path + ": cannot read the state file: " + errnoText(errno));
    if (!S_ISREG(st.st_mode)) throw ProfileError(path + ": not a regular file: cannot be a state file");
    if (static_cast<uint64_t>(st.st_size) > kMaxStateBytes)
        throw ProfileError(path + ": the state file is larger than " + std::to_string(kMaxStateBytes >> 20) +
                           " MiB: not a state file" + kHint);
    std::string text;
    if (!readAt(fd, text, 0, static_cast<uint64_t>(st.st_size)))
        throw ProfileError(path + ": cannot read the state file: " + errnoText(errno));
    return text;
}

[[noreturn]] void corrupt(const std::string &path, const std::string &what)
{
    throw ProfileError(path + ": " + what + kHint);
}

using LogKey = std::pair<std::string, std::string>;

bool hasLogs(const StateLayout &layout, const std::string &area)
{
    for (const auto &key : layout.logs)
        if (key.first == area) return true;
    return false;
}

bool isLog(const StateLayout &layout, const std::string &area, const std::string &member)
{
    return layout.logs.count({area, member}) != 0;
}

// An area as it is stored in a change or kept as committed: without its logs' entries.
json withoutLogs(const StateLayout &layout, const std::string &area, const json &value)
{
    if (!value.is_object() || !hasLogs(layout, area)) return value;
    json out = json::object();
    for (auto it = value.begin(); it != value.end(); ++it)
        if (!isLog(layout, area, it.key())) out[it.key()] = *it;
    return out;
}

bool sameWithoutLogs(const StateLayout &layout, const std::string &area, const json &now, const json &committed)
{
    if (!now.is_object() || !hasLogs(layout, area)) return now == committed;
    if (!committed.is_object()) return false;
    std::size_t members = 0;
    for (auto it = now.begin(); it != now.end(); ++it) {
        if (isLog(layout, area, it.key())) continue;
        ++members;
        auto old = committed.find(it.key());
        if (old == committed.end() || *old != *it) return false;
    }
    return members == committed.size();
}

const json *logIn(const json &state, const LogKey &key)
{
    auto area = state.find(key.first);
    if (area == state.end() || !area->is_object()) return nullptr;
    auto list = area->find(key.second);
    return list != area->end() && list->is_array() ? &*list : nullptr;
}

// Applies one change to a state; the areas it touched are added to touched. False when the
// change does not fit the state it is applied to.
bool applyChange(const StateLayout &layout, const json &change, json &state, std::set<std::string> &touched)
{
    if (!change.is_object()) return false;
    if (auto set = change.find("set"); set != change.end()) {
        if (!set->is_object()) return false;
        for (auto it = set->begin(); it != set->end(); ++it) {
            if (layout.ram.count(it.key())) continue;
            json &area = state[it.key()];
            json kept = json::object();
            if (area.is_object())
                for (const auto &key : layout.logs)
                    if (key.first == it.key() && area.contains(key.second)) kept[key.second] = std::move(area[key.second]);
            area = *it;
            if (area.is_object())
                for (auto k = kept.begin(); k != kept.end(); ++k) area[k.key()] = std::move(*k);
            touched.insert(it.key());
        }
    }
    if (auto drop = change.find("drop"); drop != change.end()) {
        if (!drop->is_array()) return false;
        for (const json &area : *drop) {
            if (!area.is_string()) return false;
            state.erase(area.get<std::string>());
            touched.insert(area.get<std::string>());
        }
    }
    if (auto logs = change.find("logs"); logs != change.end()) {
        if (!logs->is_object()) return false;
        for (auto it = logs->begin(); it != logs->end(); ++it) {
            // "/area/member"
            const std::string &ptr = it.key();
            auto slash = ptr.find('/', 1);
            if (ptr.empty() || ptr[0] != '/' || slash == std::string::npos) return false;
            std::string area = ptr.substr(1, slash - 1), member = ptr.substr(slash + 1);
            auto at = it->find("at");
            auto add = it->find("add");
            if (at == it->end() || !at->is_number_unsigned() || add == it->end() || !add->is_array()) return false;
            const uint64_t from = at->get<uint64_t>();
            auto a = state.find(area);
            if (a == state.end() || !a->is_object()) {
                if (from != 0) return false;
                continue; // the area itself was dropped or replaced in this change
            }
            json &list = (*a)[member];
            if (!list.is_array()) {
                if (from != 0) return false;
                list = json::array();
            }
            if (from > list.size()) return false;
            list.erase(list.begin() + static_cast<std::ptrdiff_t>(from), list.end());
            for (const json &e : *add) list.push_back(e);
            touched.insert(area);
        }
    }
    return true;
}

// Applies the change lines in text[from, text.size()) to state. Returns the end of the last
// whole, intact line; a broken line is forgiven only as the file's last (a write that a
// crash cut short, never acknowledged). offset is where text starts in the file.
std::size_t applyLines(const std::string &path, const StateLayout &layout, const std::string &text, std::size_t from,
                       uint64_t offset, json &state, std::set<std::string> &touched)
{
    std::size_t pos = from;
    while (pos < text.size()) {
        std::size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) break; // cut short
        std::string_view line(text.data() + pos, nl - pos);
        bool ok = line.size() > kCrcLineStart && line.substr(0, kCrcPrefix.size()) == kCrcPrefix &&
                  line.substr(kCrcLineStart - 2, 2) == "\",";
        uint64_t crc = 0;
        std::string body;
        if (ok) {
            ok = parseHexField(line.substr(kCrcPrefix.size(), 8), crc);
            body = "{" + std::string(line.substr(kCrcLineStart));
            ok = ok && crc32(body) == crc;
        }
        json change;
        if (ok) {
            ok = nestedTooDeep(body, kMaxProfileDepth) == std::string_view::npos;
            if (ok) change = json::parse(body, nullptr, false);
            ok = ok && !change.is_discarded();
        }
        if (!ok) {
            if (nl + 1 == text.size()) break; // the last line: torn
            corrupt(path, "byte " + std::to_string(offset + pos) +
                              ": the state file is corrupt: a change that does not check out is followed by others");
        }
        if (!applyChange(layout, change, state, touched))
            corrupt(path, "byte " + std::to_string(offset + pos) +
                              ": the state file is corrupt: a change that does not fit the state before it");
        pos = nl + 1;
    }
    return pos;
}

struct Parsed {
    json state;
    std::size_t end = 0;           // of the valid lines
    std::size_t snapshotBytes = 0; // the first line
    bool wholeOnly = false;        // no change can be appended: the first format, or no line feed
};

Parsed parseStateText(const std::string &path, const StateLayout &layout, const std::string &text)
{
    Parsed p;
    // Our own states nest a few levels; deeper is no state of ours and would only cost stack.
    if (std::size_t at = nestedTooDeep(text, kMaxProfileDepth); at != std::string_view::npos)
        corrupt(path, "byte " + std::to_string(at) + ": the state file is corrupt: nested deeper than " +
                          std::to_string(kMaxProfileDepth) + " levels");
    // The first line; a file edited by hand may lack its line feed.
    std::size_t nl = text.find('\n');
    json doc = json::parse(std::string_view(text).substr(0, nl), nullptr, false);
    if (!doc.is_discarded() && doc.is_object() && doc.contains("format") && doc["format"] == kFormat) {
        p.snapshotBytes = nl == std::string::npos ? text.size() : nl + 1;
        p.wholeOnly = nl == std::string::npos;
    } else {
        // A state file of the first format is one JSON document.
        try {
            doc = json::parse(text);
        } catch (const json::parse_error &e) {
            corrupt(path, "the state file is corrupt: byte " + std::to_string(e.byte) + ": not valid JSON");
        }
        if (!doc.is_object() || !doc.contains("format") || doc["format"] != kFirstFormat)
            corrupt(path, "/format: the state file is corrupt or of another version");
        p.snapshotBytes = text.size();
        p.wholeOnly = true;
    }
    auto state = doc.find("state");
    if (state == doc.end() || !state->is_object())
        corrupt(path, "/state: the state file is corrupt: missing the machine state");
    p.state = std::move(*state);
    std::set<std::string> touched;
    p.end = applyLines(path, layout, text, p.snapshotBytes, 0, p.state, touched);
    for (const auto &area : layout.ram) p.state.erase(area);
    return p;
}

bool syncDir(const std::string &dir)
{
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = fsync(fd) == 0;
    int e = errno;
    close(fd);
    errno = e;
    return ok;
}

} // namespace

struct StateStore::Change {
    json set = json::object();
    json drop = json::array();
    json logs = json::object();
    bool ram = false;

    bool persistent() const { return !set.empty() || !drop.empty() || !logs.empty(); }
    std::string line() const
    {
        json body = json::object();
        if (!set.empty()) body["set"] = set;
        if (!drop.empty()) body["drop"] = drop;
        if (!logs.empty()) body["logs"] = logs;
        std::string text = dumpLine(body);
        char crc[9];
        std::snprintf(crc, sizeof crc, "%08" PRIx32, crc32(text));
        return std::string(kCrcPrefix) + crc + "\"," + text.substr(1) + "\n";
    }
};

StateStore::StateStore(std::string dir, const Profile &profile, std::function<json()> initial, StateLayout layout)
    : dir_(std::move(dir)), profileFile_(profile.file), initial_(std::move(initial)), layout_(std::move(layout))
{
    if (!dir_.empty()) {
        while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
        path_ = dir_ + "/" + profile.name + ".state.json";
        lockPath_ = dir_ + "/" + profile.name + ".lock";
    }
}

StateStore::~StateStore()
{
    if (fileFd_ >= 0) close(fileFd_);
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

json StateStore::readStored(const std::string &path)
{
    bool writable = false;
    int fd = openState(path, writable);
    if (fd < 0) throw ProfileError(path + ": cannot read the state file: " + errnoText(errno));
    std::string text;
    try {
        text = readStateFile(fd, path);
    } catch (...) {
        close(fd);
        throw;
    }
    close(fd);
    return parseStateText(path, StateLayout{}, text).state;
}

void StateStore::lock()
{
    if (dir_.empty()) return;
    for (;;) {
        if (lockFd_ < 0) {
            makeDirs(dir_);
            lockFd_ = ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644);
            if (lockFd_ < 0 && (errno == EROFS || errno == EACCES || errno == EPERM))
                lockFd_ = ::open(lockPath_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
            if (lockFd_ < 0) throw ProfileError(lockPath_ + ": cannot open the lock file: " + errnoText(errno));
            struct stat st{};
            if (fstat(lockFd_, &st) != 0 || !S_ISREG(st.st_mode)) {
                close(lockFd_);
                lockFd_ = -1;
                throw ProfileError(lockPath_ + ": not a regular file: cannot be the lock file");
            }
            ramKnown_ = false;
        }
        while (flock(lockFd_, LOCK_EX) != 0) {
            if (errno != EINTR) throw ProfileError(lockPath_ + ": cannot lock: " + errnoText(errno));
        }
        // A lock file removed meanwhile locks nothing that others see: take the new one.
        struct stat st{};
        if (fstat(lockFd_, &st) == 0 && st.st_nlink > 0) return;
        close(lockFd_);
        lockFd_ = -1;
    }
}

void StateStore::unlock()
{
    if (lockFd_ >= 0) flock(lockFd_, LOCK_UN);
}

void StateStore::remember()
{
    committed_ = json::object();
    for (auto it = state_.begin(); it != state_.end(); ++it) committed_[it.key()] = withoutLogs(layout_, it.key(), *it);
    markLogs();
}

void StateStore::markLogs()
{
    marks_.clear();
    for (const auto &key : layout_.logs) {
        LogMark &m = marks_[key];
        if (const json *list = logIn(state_, key); list && !list->empty()) {
            m.length = list->size();
            m.first = list->front();
            m.last = list->back();
        }
    }
}

json StateStore::persistentPart() const
{
    json out = json::object();
    for (auto it = state_.begin(); it != state_.end(); ++it)
        if (!isRam(it.key())) out[it.key()] = *it;
    return out;
}

void StateStore::createFromProfile()
{
    state_ = initial_();
    if (!state_.is_object()) state_ = json::object();
    for (const auto &area : layout_.ram) state_.erase(area);
    rewrite(state_, true);
    remember();
    loaded_ = true;
}

void StateStore::loadFile()
{
    if (fileFd_ >= 0) close(fileFd_);
    fileFd_ = -1;
    loaded_ = false;
    ramKnown_ = false;
    pristine_ = false;
    bool writable = false;
    int fd = openState(path_, writable);
    if (fd < 0) {
        // No state yet: the machine starts from its profile.
        if (errno == ENOENT) return createFromProfile();
        throw ProfileError(path_ + ": cannot read the state file: " + errnoText(errno));
    }
    std::string text;
    Parsed p;
    try {
        text = readStateFile(fd, path_);
        p = parseStateText(path_, layout_, text);
    } catch (...) {
        close(fd);
        throw;
    }
    fileFd_ = fd;
    state_ = std::move(p.state);
    end_ = p.end;
    seenSize_ = text.size();
    snapshotBytes_ = p.snapshotBytes;
    legacy_ = p.wholeOnly;
    remember();
    loaded_ = true;
}

void StateStore::readTail()
{
    struct stat st{};
    if (fstat(fileFd_, &st) != 0) throw ProfileError(path_ + ": cannot read the state file: " + errnoText(errno));
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    if (st.st_nlink == 0 || size < end_) return loadFile(); // replaced (folded, reset) or cut
    if (size == seenSize_) return;
    if (legacy_ || size > kMaxStateBytes) return loadFile(); // which says what is wrong
    pristine_ = false;
    std::string chunk;
    if (!readAt(fileFd_, chunk, end_, size - end_))
        throw ProfileError(path_ + ": cannot read the state file: " + errnoText(errno));
    std::set<std::string> touched;
    std::size_t used = 0;
    try {
        used = applyLines(path_, layout_, chunk, 0, end_, state_, touched);
    } catch (...) {
        loaded_ = false; // half applied: read again from the start next time
        throw;
    }
    end_ += used;
    seenSize_ = size;
    for (const auto &area : touched) {
        auto it = state_.find(area);
        if (it == state_.end()) committed_.erase(area);
        else committed_[area] = withoutLogs(layout_, area, *it);
    }
    if (!touched.empty()) markLogs();
}

void StateStore::readRam()
{
    if (layout_.ram.empty()) return;
    std::string header;
    uint64_t seq = 0, length = 0, crc = 0;
    bool valid = readAt(lockFd_, header, 0, kRamHeader) && header.compare(0, kRamMagic.size(), kRamMagic) == 0 &&
                 header.back() == '\n' && parseHexField(std::string_view(header).substr(kRamMagic.size(), 16), seq) &&
                 parseHexField(std::string_view(header).substr(kRamMagic.size() + 17, 8), length) &&
                 parseHexField(std::string_view(header).substr(kRamMagic.size() + 26, 8), crc) &&
                 length <= kMaxRamBytes;
    if (!valid) seq = 0; // no RAM yet: a controller just started
    if (ramKnown_ && seq == ramSeq_) return;
    pristine_ = false;
    std::string body;
    json ram;
    if (valid && readAt(lockFd_, body, kRamHeader, length) && crc32(body) == crc) ram = json::parse(body, nullptr, false);
    if (!ram.is_object()) {
        ram = json::object();
        body = "{}";
    }
    for (const auto &area : layout_.ram) {
        state_.erase(area);
        committed_.erase(area);
        if (auto it = ram.find(area); it != ram.end()) {
            state_[area] = *it;
            committed_[area] = std::move(*it);
        }
    }
    ramSeq_ = seq;
    ramKnown_ = true;
    ramBody_ = std::move(body);
}

void StateStore::writeRam(const std::string &body)
{
    if (body.size() > kMaxRamBytes)
        throw ProfileError(lockPath_ + ": the controller's RAM would exceed " + std::to_string(kMaxRamBytes >> 10) + " KiB");
    // After a RAM that could not be read, a number no program can have seen.
    uint64_t seq = ramSeq_ + 1;
    if (ramSeq_ == 0) {
        struct timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        seq = static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
    }
    char header[kRamHeader + 1];
    std::snprintf(header, sizeof header, "%.*s%016" PRIx64 " %08" PRIx32 " %08" PRIx32 "\n",
                  static_cast<int>(kRamMagic.size()), kRamMagic.data(), seq, static_cast<uint32_t>(body.size()),
                  crc32(body));
    // One write: a program killed meanwhile leaves the old RAM or the new one.
    if (!writeAt(lockFd_, std::string(header, kRamHeader) + body, 0))
        throw ProfileError(lockPath_ + ": cannot keep the change in the controller's RAM: " + errnoText(errno));
    ramSeq_ = seq;
    ramBody_ = body;
}

void StateStore::appendLine(const std::string &line)
{
    if (legacy_) {
        // A file of the first format, or a first line edited without its line feed: the whole
        // state is written anew, once.
        rewrite(persistentPart(), true);
        return;
    }
    if (fileFd_ < 0) throw ProfileError(path_ + ": the change was not stored: the state file is not open");
    // Whatever follows the valid lines is a change a crash cut short: it goes first.
    if (seenSize_ > end_ && ftruncate(fileFd_, static_cast<off_t>(end_)) != 0)
        throw ProfileError(path_ + ": the change was not stored: " + errnoText(errno));
    seenSize_ = end_;
    if (!writeAt(fileFd_, line, end_) || fdatasync(fileFd_) != 0) {
        int e = errno;
        (void)!ftruncate(fileFd_, static_cast<off_t>(end_));
        throw ProfileError(path_ + ": the change was not stored: " + errnoText(e));
    }
    end_ += line.size();
    seenSize_ = end_;
}

std::string StateStore::snapshot(const json &persistent) const
{
    return dumpLine(json{{"format", kFormat}, {"profile", profileFile_}, {"state", persistent}}) + "\n";
}

void StateStore::rewrite(const json &persistent, bool mustSucceed)
{
    rewriteText(snapshot(persistent), mustSucceed);
}

void StateStore::rewriteText(const std::string &text, bool mustSucceed)
{
    const std::string tmp = path_ + ".tmp";
    int fd = ::open(tmp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, 0644);
    bool ok = fd >= 0 && writeAt(fd, text, 0) && fsync(fd) == 0 && rename(tmp.c_str(), path_.c_str()) == 0;
    int e = errno;
    if (!ok) {
        if (fd >= 0) close(fd);
        unlink(tmp.c_str());
        if (!mustSucceed) return;
        throw ProfileError(path_ + ": the state was not stored: " + errnoText(e));
    }
    if (fileFd_ >= 0) close(fileFd_);
    fileFd_ = fd;
    end_ = seenSize_ = snapshotBytes_ = text.size();
    legacy_ = false;
    if (!syncDir(dir_) && mustSucceed)
        throw ProfileError(dir_ + ": the state was not stored durably: " + errnoText(errno));
}

void StateStore::sync()
{
    if (dir_.empty()) {
        if (!loaded_) {
            state_ = initial_();
            if (!state_.is_object()) state_ = json::object();
            remember();
            loaded_ = true;
        }
        return;
    }
    if (!loaded_ || fileFd_ < 0) loadFile();
    else readTail();
    readRam();
}

void StateStore::open()
{
    transact([](json &) { return false; });
}

void StateStore::rollback()
{
    pristine_ = false;
    if (!dir_.empty()) {
        // Read again from the file and the RAM, which hold the state as it was.
        loaded_ = false;
        ramKnown_ = false;
        return;
    }
    for (auto it = state_.begin(); it != state_.end();) {
        if (!committed_.contains(it.key())) it = state_.erase(it);
        else ++it;
    }
    for (auto it = committed_.begin(); it != committed_.end(); ++it) {
        json &area = state_[it.key()];
        if (sameWithoutLogs(layout_, it.key(), area, *it)) continue;
        // Entries appended to a log are taken back; a log emptied in memory stays so.
        json kept = json::object();
        if (area.is_object())
            for (const auto &[key, mark] : marks_)
                if (key.first == it.key() && area.contains(key.second)) {
                    json &list = area[key.second];
                    if (list.is_array() && list.size() > mark.length)
                        list.erase(list.begin() + static_cast<std::ptrdiff_t>(mark.length), list.end());
                    kept[key.second] = std::move(list);
                }
        area = *it;
        if (area.is_object())
            for (auto k = kept.begin(); k != kept.end(); ++k) area[k.key()] = std::move(*k);
    }
}

void StateStore::commit()
{
    pristine_ = false;
    if (!state_.is_object()) {
        rollback();
        throw ProfileError("the machine state was replaced by something other than an object");
    }
    Change c;
    for (auto it = state_.begin(); it != state_.end(); ++it) {
        auto old = committed_.find(it.key());
        if (isRam(it.key())) {
            if (old == committed_.end() || *old != *it) c.ram = true;
        } else if (old == committed_.end() || !sameWithoutLogs(layout_, it.key(), *it, *old)) {
            c.set[it.key()] = withoutLogs(layout_, it.key(), *it);
        }
    }
    for (auto it = committed_.begin(); it != committed_.end(); ++it) {
        if (state_.contains(it.key())) continue;
        if (isRam(it.key())) c.ram = true;
        else c.drop.push_back(it.key());
    }
    for (const auto &[key, mark] : marks_) {
        auto area = state_.find(key.first);
        if (area == state_.end() || !area->is_object()) continue; // the area's own change says it all
        const json *list = logIn(state_, key);
        const std::size_t n = list ? list->size() : 0;
        const bool appended = n >= mark.length && (mark.length == 0 || ((*list)[0] == mark.first &&
                                                                        (*list)[mark.length - 1] == mark.last));
        if (appended && n == mark.length) continue;
        const std::size_t from = appended ? mark.length : 0;
        json add = json::array();
        for (std::size_t i = from; i < n; ++i) add.push_back((*list)[i]);
        c.logs["/" + key.first + "/" + key.second] = {{"at", from}, {"add", std::move(add)}};
    }
    if (!c.persistent() && !c.ram) return;

    if (!dir_.empty()) {
        const std::string oldRam = ramBody_;
        bool ramWritten = false;
        try {
            if (c.ram) {
                json ram = json::object();
                for (const auto &area : layout_.ram)
                    if (auto it = state_.find(area); it != state_.end()) ram[area] = *it;
                writeRam(dumpLine(ram));
                ramWritten = true;
            }
            if (c.persistent()) appendLine(c.line());
        } catch (...) {
            if (ramWritten) {
                try {
                    writeRam(oldRam);
                } catch (const ProfileError &) {
                    // The RAM is volatile: a controller that loses it starts without it.
                }
            }
            rollback();
            throw;
        }
    }
    for (auto it = c.set.begin(); it != c.set.end(); ++it) committed_[it.key()] = std::move(*it);
    for (const json &area : c.drop) committed_.erase(area.get<std::string>());
    if (c.ram)
        for (const auto &area : layout_.ram) {
            if (auto it = state_.find(area); it != state_.end()) committed_[area] = *it;
            else committed_.erase(area);
        }
    if (!c.logs.empty()) markLogs();
    if (!dir_.empty() && end_ - snapshotBytes_ > std::max(kFoldAfter, snapshotBytes_)) rewrite(persistentPart(), false);
}

void StateStore::transact(const std::function<bool(json &)> &fn)
{
    lock();
    struct Unlock {
        StateStore *s;
        ~Unlock() { s->unlock(); }
    } guard{this};
    sync();
    // The handler works on the state in place; what it changed is found by comparing the
    // areas with their committed copies (the logs by their ends), and only that is stored.
    bool changed = false;
    try {
        changed = fn(state_);
    } catch (...) {
        rollback();
        throw;
    }
    if (changed) commit();
}

void StateStore::reset()
{
    lock();
    struct Unlock {
        StateStore *s;
        ~Unlock() { s->unlock(); }
    } guard{this};
    // A machine that nobody changed since its last reset is left as it is: the file and the
    // RAM still hold the fresh state (a change by any program, ours included, shows as new
    // lines, a replaced file or a new RAM sequence when the state is brought up to date, and
    // a change made in memory without being stored shows as a difference from the fresh state).
    if (pristine_) {
        try {
            sync();
        } catch (const ProfileError &) {
            pristine_ = false;
        }
        if (pristine_ && state_ == fresh_) return;
        pristine_ = false;
    }
    // The fresh state follows from the profile alone: built and written out once.
    if (!freshKnown_) {
        fresh_ = initial_();
        if (!fresh_.is_object()) fresh_ = json::object();
        if (!dir_.empty()) {
            for (const auto &area : layout_.ram) fresh_.erase(area);
            freshText_ = snapshot(fresh_);
        }
        freshKnown_ = true;
    }
    state_ = fresh_;
    if (dir_.empty()) {
        remember();
        loaded_ = true;
        pristine_ = true;
        return;
    }
    try {
        // The old RAM first: unless both go, a restarted controller's RAM would outlive its reset.
        if (!layout_.ram.empty()) {
            if (!ramKnown_) ramSeq_ = 0;
            writeRam("{}");
        }
        rewriteText(freshText_, true);
    } catch (...) {
        rollback();
        throw;
    }
    remember();
    loaded_ = true;
    ramKnown_ = true;
    pristine_ = true;
}

} // namespace tvxsim
