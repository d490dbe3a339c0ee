// tvx-snmp-agent: the hardware-monitoring AgentX subagent. It serves TVX-HARDWARE-MIB from the
// selected controller (the default virtual machine, a machine profile, or a controller over
// LAN) to a master agent such as snmpd.
//
// Two threads. The collector thread is the only one that calls the library: it reads every
// value into a snapshot, then waits for the refresh interval or a test-alert request. The
// agent thread runs net-snmp's loop and answers requests from the newest snapshot only, so a
// slow controller never holds up the master; a pipe wakes it when a snapshot or a test-alert
// outcome is ready, and when SIGTERM or SIGINT asks it to stop.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "collector.h"
#include "libipmi_host.h"
#include "mib.h"

namespace {

using tvxagent::Snapshot;

constexpr const char *kName = "tvx-snmp-agent";
constexpr const char *kUsage =
    "usage: tvx-snmp-agent [-x ADDRESS] [-f] [-L[efos...]] [-I SECONDS] [--machine FILE | --target SPEC]\n"
    "                      [--state DIR] [--port-function ID...]\n"
    "\n"
    "Serves TVX-HARDWARE-MIB (enterprises.32473.1) from the selected controller as an AgentX\n"
    "subagent of a master agent (snmpd with \"master agentx\").\n"
    "\n"
    "  -x ADDRESS       the master's AgentX socket, as snmpd takes it: unix:/path/to/socket or\n"
    "                   tcp:HOST:PORT (default: net-snmp's, /var/agentx/master)\n"
    "  -f               stay in the foreground (default: run as a daemon)\n"
    "  -L...            where to log, as snmpd takes it: -Le standard error, -Lo standard\n"
    "                   output, -Lf FILE, -Ls FACILITY syslog (default: -Ls daemon; -Lo with -f)\n"
    "  -I SECONDS       how often to read the controller anew (default 10, 1 to 3600); a walk\n"
    "                   always answers from the last complete reading\n"
    "  --machine FILE   serve the virtual controller of this machine profile\n"
    "  --target SPEC    serve this controller: default, machine:FILE, FILE.json or\n"
    "                   lan://USER@HOST[:PORT]?... (default: $TVX_IPMI_TARGET, else the\n"
    "                   built-in default machine)\n"
    "  --state DIR      where the virtual controller keeps its state ($TVX_IPMI_STATE_DIR)\n"
    "  --port-function ID\n"
    "                   also publish this server network port function (three identity bytes\n"
    "                   in hex, 01:00:00) in the node table; may be given several times\n"
    "\n"
    "Reconnects by itself when the master restarts; SIGTERM or SIGINT stop it.\n";

int gWake[2] = {-1, -1};
volatile sig_atomic_t gStop = 0;

void onStop(int)
{
    gStop = 1;
    const int saved = errno;
    const char byte = 's';
    (void)!write(gWake[1], &byte, 1);
    errno = saved;
}

[[noreturn]] void usageError(const std::string &what)
{
    std::fprintf(stderr, "%s: %s\n%s", kName, what.c_str(), kUsage);
    std::exit(2);
}

struct Options {
    std::string agentx, target, machine, state;
    bool foreground = false, logChosen = false;
    unsigned intervalSeconds = 10;
    std::vector<tvxagent::PortFunction> ports;
};

// "01:00:00": the three identity bytes of a port function.
std::optional<tvxagent::PortFunction> portFunction(const std::string &text)
{
    unsigned b[3];
    char end;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &end) != 3) return std::nullopt;
    return tvxagent::PortFunction{static_cast<uint8_t>(b[0]), static_cast<uint8_t>(b[1]), static_cast<uint8_t>(b[2])};
}

Options parse(int argc, char **argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const std::string &name) -> std::optional<std::string> {
            if (a == name) {
                if (i + 1 >= argc) usageError(name + " needs a value");
                return std::string(argv[++i]);
            }
            // Short options take their value joined too (-xunix:/s), long ones after "=".
            const std::string joined = name.size() == 2 ? name : name + "=";
            if (a.size() > joined.size() && a.rfind(joined, 0) == 0) return a.substr(joined.size());
            return std::nullopt;
        };
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "-f") {
            o.foreground = true;
        } else if (a.rfind("-L", 0) == 0) {
            // net-snmp parses its own logging options, with the following word for -Lf/-Ls.
            std::string spec = a.substr(2);
            if (spec.empty()) usageError("-L needs a kind: e, o, f FILE, s FACILITY");
            optind = i + 1;
            if (snmp_log_options(&spec[0], argc, argv) < 0) usageError("bad logging option \"" + a + "\"");
            if ((spec[0] == 'f' || spec[0] == 's' || spec[0] == 'F' || spec[0] == 'S') && spec.size() == 1) ++i;
            o.logChosen = true;
        } else if (auto x = value("-x")) {
            o.agentx = *x;
        } else if (auto interval = value("-I")) {
            char *end = nullptr;
            errno = 0;
            const unsigned long v = std::strtoul(interval->c_str(), &end, 10);
            if (interval->empty() || *end || errno || v < 1 || v > 3600)
                usageError("-I takes seconds from 1 to 3600, got \"" + *interval + "\"");
            o.intervalSeconds = static_cast<unsigned>(v);
        } else if (auto t = value("--target")) {
            o.target = *t;
        } else if (auto m = value("--machine")) {
            o.machine = *m;
        } else if (auto s = value("--state")) {
            o.state = *s;
        } else if (auto p = value("--port-function")) {
            const auto id = portFunction(*p);
            if (!id) usageError("--port-function takes three bytes in hex, 01:00:00; got \"" + *p + "\"");
            o.ports.push_back(*id);
        } else {
            usageError("unknown argument \"" + a + "\"");
        }
    }
    if (!o.target.empty() && !o.machine.empty()) usageError("--machine and --target both name a controller; give one");
    return o;
}

// The controller is chosen as tvxctl chooses it: --machine, --target, $TVX_IPMI_TARGET, the
// built-in default; the state directory from --state or $TVX_IPMI_STATE_DIR.
bool selectTarget(const Options &opt)
{
    std::string spec = !opt.machine.empty() ? "machine:" + opt.machine : opt.target;
    if (spec.empty()) {
        const char *env = std::getenv(IPMIHOST_TARGET_ENV);
        spec = env && *env ? env : "default";
    }
    std::string state = opt.state;
    if (state.empty()) {
        const char *env = std::getenv(IPMIHOST_STATE_ENV);
        state = env ? env : "";
    }
    if (ipmihost_select_target(spec.c_str(), state.empty() ? nullptr : state.c_str()) != 0) {
        snmp_log(LOG_ERR, "%s\n", ipmihost_last_error());
        return false;
    }
    return true;
}

// What the collector thread hands the agent thread.
class Exchange {
public:
    explicit Exchange(unsigned intervalSeconds) : interval_(intervalSeconds) {}

    // Collector side: waits for the next collection (or a test alert), false to stop.
    enum class Next { Collect, TestAlert, Stop };
    Next wait()
    {
        std::unique_lock lock(mutex_);
        const bool woken = cv_.wait_for(lock, interval_, [&] { return stop_ || testAlertWanted_; });
        if (stop_) return Next::Stop;
        if (woken && testAlertWanted_) {
            testAlertWanted_ = false;
            return Next::TestAlert;
        }
        return Next::Collect;
    }
    void publish(Snapshot s)
    {
        {
            std::lock_guard lock(mutex_);
            snapshot_ = std::make_shared<const Snapshot>(std::move(s));
        }
        wake();
    }
    void testAlertDone(bool accepted)
    {
        {
            std::lock_guard lock(mutex_);
            testAlertOutcome_ = accepted;
        }
        wake();
    }

    // Agent side.
    void requestTestAlert()
    {
        std::lock_guard lock(mutex_);
        testAlertWanted_ = true;
        cv_.notify_one();
    }
    void stop()
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
        cv_.notify_one();
    }
    std::shared_ptr<const Snapshot> takeSnapshot()
    {
        std::lock_guard lock(mutex_);
        return std::move(snapshot_);
    }
    std::optional<bool> takeTestAlertOutcome()
    {
        std::lock_guard lock(mutex_);
        return std::exchange(testAlertOutcome_, std::nullopt);
    }

private:
    static void wake()
    {
        const char byte = 'n';
        (void)!write(gWake[1], &byte, 1);
    }

    std::mutex mutex_;
    std::condition_variable cv_;
    std::chrono::seconds interval_;
    bool stop_ = false, testAlertWanted_ = false;
    std::shared_ptr<const Snapshot> snapshot_;
    std::optional<bool> testAlertOutcome_;
};

struct Agent {
    Exchange *exchange;
    tvxagent::Mib *mib;
};

// The wake pipe is readable: take what the collector left, in the agent's thread.
void onWake(int fd, void *data)
{
    char buffer[64];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
    auto *agent = static_cast<Agent *>(data);
    if (auto snapshot = agent->exchange->takeSnapshot()) agent->mib->install(std::move(snapshot));
    if (auto accepted = agent->exchange->takeTestAlertOutcome()) agent->mib->testAlertDone(*accepted);
}

void logProblem(const tvxagent::Collector &collector, std::string &last)
{
    if (collector.problem() == last) return;
    last = collector.problem();
    if (last.empty()) snmp_log(LOG_NOTICE, "the controller answers again\n");
    else snmp_log(LOG_WARNING, "%s\n", last.c_str());
}

} // namespace

int main(int argc, char **argv)
{
    using namespace tvxagent;
    Options opt = parse(argc, argv);
    if (!opt.logChosen) {
        if (opt.foreground) snmp_enable_stderrlog();
        else snmp_enable_syslog_ident(kName, LOG_DAEMON);
    }
    if (!selectTarget(opt)) return 1;

    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
    if (!opt.agentx.empty()) netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, opt.agentx.c_str());
    // Ping the master every few seconds: a lost master is noticed and reconnected to, and the
    // registrations are made again.
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, 5);
    if (!opt.foreground && netsnmp_daemonize(1, snmp_stderrlog_status()) != 0) return 1;

    if (pipe2(gWake, O_CLOEXEC | O_NONBLOCK) != 0) {
        snmp_log(LOG_ERR, "cannot create a pipe: %s\n", std::strerror(errno));
        return 1;
    }
    struct sigaction sa {};
    sa.sa_handler = onStop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    // The first reading comes before the registration, so the master never sees an empty tree.
    Collector collector(opt.ports);
    std::string lastProblem;
    Snapshot first = collector.collect();
    logProblem(collector, lastProblem);

    Exchange exchange(opt.intervalSeconds);
    Mib mib([&exchange] { exchange.requestTestAlert(); }, Collector::testAlertAvailable());
    Agent agent{&exchange, &mib};

    init_agent(kName);
    mib.registerObjects(first);
    mib.install(std::make_shared<const Snapshot>(std::move(first)));
    init_snmp(kName);
    register_readfd(gWake[0], onWake, &agent);
    snmp_log(LOG_INFO, "serving %s\n", ipmihost_describe_target());

    // Signals are taken by the agent's thread only.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::thread worker([&] {
        for (;;) {
            switch (exchange.wait()) {
            case Exchange::Next::Stop:
                return;
            case Exchange::Next::TestAlert:
                exchange.testAlertDone(collector.sendTestAlert());
                break;
            case Exchange::Next::Collect:
                exchange.publish(collector.collect());
                logProblem(collector, lastProblem);
                break;
            }
        }
    });
    pthread_sigmask(SIG_UNBLOCK, &stopSignals, nullptr);

    while (!gStop) agent_check_and_process(1);

    snmp_log(LOG_INFO, "stopping\n");
    exchange.stop();
    worker.join();
    unregister_readfd(gWake[0]);
    snmp_shutdown(kName);
    close(gWake[0]);
    close(gWake[1]);
    return 0;
}
