// tvx-selnotifyd: the controller's SEL notification service. It owns the register and
// notify queues (System V, keys from "/tmp"), accepts watchers' registrations, polls the
// selected controller's SEL and sends every registered watcher one message per new entry.
//
// One loop, one thread: it waits on the register queue, and a periodic timer signal ends the
// wait for each poll. Signals are blocked while it talks to the controller, so no system call
// of the platform library is ever interrupted; SIGTERM, SIGINT and SIGHUP stop it, and the
// queues are removed on the way out.
#include <signal.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "libipmi_host.h"
#include "queues.h"
#include "sel_poller.h"

namespace {

volatile sig_atomic_t gStop = 0;
volatile sig_atomic_t gPollDue = 0;

void onStop(int) { gStop = 1; }
void onTimer(int) { gPollDue = 1; }

bool gSyslog = false;

void logLine(const std::string &text)
{
    if (gSyslog) syslog(LOG_INFO, "%s", text.c_str());
    else std::fprintf(stderr, "tvx-selnotifyd: %s\n", text.c_str());
}

constexpr const char *kUsage =
    "usage: tvx-selnotifyd [--machine FILE | --target SPEC] [--state DIR] [--interval MS] [--syslog]\n"
    "\n"
    "The SEL notification service: creates the register and notify queues (keys from /tmp),\n"
    "accepts watchers' registrations and sends each watcher one message per new SEL entry.\n"
    "\n"
    "  --machine FILE   watch the virtual controller of this machine profile\n"
    "  --target SPEC    watch this controller: default, machine:FILE, FILE.json or\n"
    "                   lan://USER@HOST[:PORT]?... (default: $TVX_IPMI_TARGET, else the\n"
    "                   built-in default machine)\n"
    "  --state DIR      where the virtual controller keeps its state ($TVX_IPMI_STATE_DIR)\n"
    "  --interval MS    how often to ask the controller for news (default 1000, 10 to 3600000)\n"
    "  --syslog         log to syslog (facility daemon) instead of the standard error stream\n"
    "\n"
    "Messages (type = the watcher ID): code 1 a new entry (value16 its record ID, value32 its\n"
    "timestamp), code 2 the log was cleared (value32 the erase time).\n";

struct Options {
    std::string target, machine, state;
    unsigned long intervalMs = 1000;
};

// Exit status 2 with a message for bad arguments.
[[noreturn]] void usageError(const std::string &what)
{
    std::fprintf(stderr, "tvx-selnotifyd: %s\n%s", what.c_str(), kUsage);
    std::exit(2);
}

Options parse(int argc, char **argv)
{
    Options o;
    std::vector<std::string> args(argv + 1, argv + argc);
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        auto value = [&](const char *name) -> const std::string * {
            std::string n(name);
            if (a == n) {
                if (i + 1 >= args.size()) usageError(n + " needs a value");
                return &args[++i];
            }
            if (a.rfind(n + "=", 0) == 0) {
                args[i] = a.substr(n.size() + 1);
                return &args[i];
            }
            return nullptr;
        };
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "--syslog") {
            gSyslog = true;
        } else if (const std::string *v = value("--target")) {
            o.target = *v;
        } else if (const std::string *v2 = value("--machine")) {
            o.machine = *v2;
        } else if (const std::string *v3 = value("--state")) {
            o.state = *v3;
        } else if (const std::string *v4 = value("--interval")) {
            char *end = nullptr;
            errno = 0;
            o.intervalMs = std::strtoul(v4->c_str(), &end, 10);
            if (v4->empty() || *end || errno || o.intervalMs < 10 || o.intervalMs > 3600000)
                usageError("--interval takes milliseconds from 10 to 3600000, got \"" + *v4 + "\"");
        } else {
            usageError("unknown argument \"" + a + "\"");
        }
    }
    if (!o.target.empty() && !o.machine.empty()) usageError("--machine and --target both name a controller; give one");
    return o;
}

void handle(int signal, void (*fn)(int))
{
    struct sigaction sa {};
    sa.sa_handler = fn;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no SA_RESTART: the wait on the queue must end
    sigaction(signal, &sa, nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    Options opt = parse(argc, argv);
    if (gSyslog) openlog("tvx-selnotifyd", LOG_PID, LOG_DAEMON);

    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGTERM, SIGINT, SIGHUP, SIGALRM}) sigaddset(&signals, s);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    handle(SIGTERM, onStop);
    handle(SIGINT, onStop);
    handle(SIGHUP, onStop);
    handle(SIGALRM, onTimer);

    std::string spec = !opt.machine.empty() ? "machine:" + opt.machine : opt.target;
    if (spec.empty()) {
        const char *env = std::getenv(IPMIHOST_TARGET_ENV);
        spec = env && *env ? env : "default";
    }
    if (opt.state.empty()) {
        const char *env = std::getenv(IPMIHOST_STATE_ENV);
        opt.state = env ? env : "";
    }
    if (ipmihost_select_target(spec.c_str(), opt.state.empty() ? nullptr : opt.state.c_str()) != 0) {
        logLine(ipmihost_last_error());
        return 1;
    }

    selnotifyd::Queues queues(logLine);
    selnotifyd::SelPoller poller(logLine);
    std::string error;
    if (!queues.claim(error)) {
        logLine(error);
        return 1;
    }
    // What the log holds now is not news; learn it before any watcher can register.
    poller.poll();
    if (!queues.create(error)) {
        logLine(error);
        return 1;
    }
    logLine("watching the SEL of " + std::string(ipmihost_describe_target()) + " every " +
            std::to_string(opt.intervalMs) + " ms (register queue " + selnotifyd::keyText(queues.registerKey()) +
            ", notify queue " + selnotifyd::keyText(queues.notifyKey()) + ")");

    itimerval timer{};
    timer.it_interval.tv_sec = static_cast<time_t>(opt.intervalMs / 1000);
    timer.it_interval.tv_usec = static_cast<suseconds_t>(opt.intervalMs % 1000 * 1000);
    timer.it_value = timer.it_interval;
    setitimer(ITIMER_REAL, &timer, nullptr);

    int status = 0;
    while (!gStop) {
        if (gPollDue) {
            gPollDue = 0;
            // Registrations first, so a watcher that registered before an entry was added hears of it.
            queues.serveWaiting();
            bool queueGone = false;
            for (const selnotifyd::SelEvent &e : poller.poll())
                if (!queues.notify(e)) queueGone = true;
            if (queueGone || queues.broken()) {
                status = 1;
                break;
            }
            continue;
        }
        // Signals are taken only here, while waiting: pending ones arrive at the unblock.
        sigprocmask(SIG_UNBLOCK, &signals, nullptr);
        if (!gStop && !gPollDue) queues.serveOne();
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        if (queues.broken()) {
            status = 1;
            break;
        }
    }
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    queues.remove();
    logLine("stopped; the queues are removed");
    if (gSyslog) closelog();
    return status;
}
