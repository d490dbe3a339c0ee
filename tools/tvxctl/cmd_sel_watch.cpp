// tvxctl sel watch [--text [--lang LCID]]: registers with the SEL notification service
// (tvx-selnotifyd) through the library, prints each event as it arrives (the new entry's raw
// line, or its localized text) and unregisters on Ctrl-C or SIGTERM. The watcher ID is the
// process ID.
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "cli.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx/records.h"
#include "tvx/sel_notify.h"
#include "tvx/wire.h"

namespace tvxctl {
namespace {

volatile sig_atomic_t gStop = 0;
void onStop(int) { gStop = 1; }
void onTick(int) {}

using Record = std::array<uint8_t, tvx::sel::kRecordSize>;

// Get SEL Entry's answer: the next record ID, then the record.
constexpr tvx::wire::Run kEntryRecord{3, tvx::sel::kRecordSize};

// The record of that ID: one Get SEL Entry, or (for controllers that answer only partial
// reads) the whole log read by the platform.
std::optional<Record> readRecord(IpmiSession *s, uint16_t id)
{
    uint8_t request[6];
    tvx::wire::Writer w(request, sizeof request);
    w.u16(0).u16(id).u8(0).u8(0xFF);
    uint8_t answer[64] = {};
    uint32_t len = sizeof answer;
    Record r{};
    if (ipmiSendCmd(s, TVX_NETFN_STORAGE, tvx::cmd::storage::kGetSelEntry, static_cast<uint32_t>(w.size()), request,
                    &len, answer) &&
        answer[0] == tvx::cc::kOk) {
        tvx::wire::View record = tvx::wire::View(answer, len < sizeof answer ? len : sizeof answer).get(kEntryRecord);
        if (record.empty()) return std::nullopt;
        std::memcpy(r.data(), record.data(), r.size());
        return r;
    }
    if (answer[0] == tvx::cc::kNotPresent) return std::nullopt;
    uint16_t count = 0;
    if (LIBIPMI_HL_GetNumOfSELEntries(s, &count, 60) != 0 || count == 0) return std::nullopt;
    std::vector<Record> all(count);
    if (LIBIPMI_HL_GetAllSELEntries(s, reinterpret_cast<SelRecord *>(all.data()), 60) != 0) return std::nullopt;
    for (const Record &each : all)
        if (tvx::wire::View(each).get(tvx::sel::kRecordId) == id) return each;
    return std::nullopt;
}

std::string timeText(uint32_t t)
{
    char buf[25] = {0};
    time_t value = static_cast<time_t>(t);
    convertTime(&value, buf, sizeof buf);
    std::string s(buf);
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

// The line that shows a new entry: its raw line, or its text in that language.
std::string entryLine(uint16_t id, bool asText, uint16_t language)
{
    Session session;
    std::optional<Record> r = readRecord(session.get(), id);
    if (!r) return "SEL entry " + std::to_string(id) + " added (it can no longer be read)";
    std::string line;
    if (asText) {
        char *text = buildSelTextString(session.get(), r->data(), 0, 1, 1, language);
        if (text) line = text;
        std::free(text);
    } else {
        ListNode *list = nullptr;
        addEntryToRawStringList(&list, r->data());
        if (list) line = reinterpret_cast<const char *>(list->data);
        freeList(&list);
    }
    return line.empty() ? "SEL entry " + std::to_string(id) + " added" : line;
}

void show(const Options &opt, uint8_t code, uint16_t value16, uint32_t value32, bool asText, uint16_t language)
{
    Json j;
    std::string line;
    if (code == tvx::selnotify::kEntryAdded) {
        try {
            line = entryLine(value16, asText, language);
        } catch (const Failure &f) {
            line = "SEL entry " + std::to_string(value16) + " added (" + f.message + ")";
        }
        j = {{"event", "added"}, {"record_id", value16}, {"timestamp", value32}, {"line", line}};
    } else if (code == tvx::selnotify::kLogCleared) {
        line = "SEL cleared" + (value32 ? " at " + timeText(value32) : std::string());
        j = {{"event", "cleared"}, {"timestamp", value32}};
    } else {
        line = "event code " + hexByte(code) + " (value16 " + std::to_string(value16) + ", value32 " +
               std::to_string(value32) + ")";
        j = {{"event", code}, {"value16", value16}, {"value32", value32}};
    }
    // One line per event, written at once: the reader may be another program.
    if (opt.json) std::printf("%s\n", j.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    else std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void onSignal(int signal, void (*fn)(int))
{
    struct sigaction sa {};
    sa.sa_handler = fn;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no SA_RESTART: the wait for a message must end
    sigaction(signal, &sa, nullptr);
}

} // namespace

int cmdSelWatch(const Options &opt, const std::vector<std::string> &words, bool asText)
{
    Args args(words);
    std::string lang = args.option("--lang");
    args.noMoreOptions("sel watch");
    if (args.size() != 0) throw Failure{kExitUsage, "usage: tvxctl sel watch [--text [--lang LCID]]"};
    unsigned long language = TVX_LANG_ENGLISH;
    if (!lang.empty() && !parseNumber(lang, 0xFFFF, language))
        throw Failure{kExitUsage, "invalid --lang \"" + lang + "\" (a language identifier such as 0x0409 or 0x0407)"};

    const int watcher = static_cast<int>(getpid());
    // Signals are taken only while waiting for a message, so no request to the controller
    // is ever interrupted.
    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGINT, SIGTERM, SIGALRM}) sigaddset(&signals, s);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    onSignal(SIGINT, onStop);
    onSignal(SIGTERM, onStop);
    // A stop that comes just before the wait begins is seen at the next tick.
    onSignal(SIGALRM, onTick);
    itimerval tick{};
    tick.it_interval.tv_usec = 200000;
    tick.it_value = tick.it_interval;
    setitimer(ITIMER_REAL, &tick, nullptr);
    if (selNotifyRegisterRemote(watcher) != 0)
        throw Failure{kExitFailed, "cannot register with the SEL notification service (is tvx-selnotifyd running?)"};
    std::fprintf(stderr, "Watching the SEL as watcher %d; Ctrl-C stops.\n", watcher);

    int status = kExitOk;
    while (!gStop) {
        uint8_t code = 0;
        uint16_t value16 = 0;
        uint32_t value32 = 0;
        sigprocmask(SIG_UNBLOCK, &signals, nullptr);
        errno = 0;
        int received = gStop ? 0 : selNotifyRecvRemote(0, &code, &value32, &value16, watcher);
        int error = gStop ? EINTR : errno;
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        if (received) {
            show(opt, code, value16, value32, asText, static_cast<uint16_t>(language));
            continue;
        }
        if (error == EINTR) continue;
        std::fprintf(stderr, "tvxctl: the SEL notification service stopped (%s)\n", std::strerror(error));
        status = kExitFailed;
        break;
    }
    tick = {};
    setitimer(ITIMER_REAL, &tick, nullptr);
    if (status == kExitOk && selNotifyUnregisterRemote(watcher) != 0) status = kExitFailed;
    return status;
}

} // namespace tvxctl
