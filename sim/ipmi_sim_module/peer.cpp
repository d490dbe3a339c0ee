#include "peer.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <freeipmi/api/ipmi-api.h>

#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace tvxsim::ipmisim {
namespace {

// Every simulator this process started and has not stopped yet, killed at exit should a
// destructor never run (exit() inside a test, a fatal assertion).
std::mutex &liveMutex()
{
    static std::mutex m;
    return m;
}
std::set<pid_t> &live()
{
    static std::set<pid_t> s;
    return s;
}

void killLiveAtExit()
{
    std::lock_guard<std::mutex> g(liveMutex());
    for (pid_t pid : live()) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    live().clear();
}

void remember(pid_t pid)
{
    static bool registered = [] { return std::atexit(killLiveAtExit) == 0; }();
    (void)registered;
    std::lock_guard<std::mutex> g(liveMutex());
    live().insert(pid);
}

void forget(pid_t pid)
{
    std::lock_guard<std::mutex> g(liveMutex());
    live().erase(pid);
}

void writeFile(const std::string &path, const std::string &text)
{
    std::ofstream f(path, std::ios::trunc);
    f << text;
    if (!f) throw PeerError("cannot write " + path);
}

// A UDP port on loopback that nothing uses now.
uint16_t freePort()
{
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw PeerError(std::string("socket: ") + std::strerror(errno));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
        ::close(fd);
        throw PeerError(std::string("cannot find a free port: ") + std::strerror(errno));
    }
    ::close(fd);
    return ntohs(a.sin_port);
}

// An RMCP presence ping (ASF): true when a pong comes back within waitMs.
bool rmcpPing(uint16_t port, int waitMs)
{
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // RMCP header (version 6, sequence 0xFF: no ACK, class ASF), then the ASF message:
    // IANA 4542, type 0x80 (presence ping), tag, reserved, no data.
    const uint8_t ping[] = {0x06, 0x00, 0xFF, 0x06, 0x00, 0x00, 0x11, 0xBE, 0x80, 0x01, 0x00, 0x00};
    constexpr tvx::wire::U8 kAsfMessageType{8}; // after the RMCP header and the IANA number
    constexpr uint8_t kPresencePong = 0x40;
    bool pong = false;
    if (::sendto(fd, ping, sizeof ping, 0, reinterpret_cast<sockaddr *>(&a), sizeof a) == sizeof ping) {
        pollfd p{fd, POLLIN, 0};
        uint8_t buf[64];
        if (::poll(&p, 1, waitMs) == 1) {
            ssize_t n = ::recv(fd, buf, sizeof buf, 0);
            pong = n > 0 && tvx::wire::View(buf, static_cast<std::size_t>(n)).get(kAsfMessageType) == kPresencePong;
        }
    }
    ::close(fd);
    return pong;
}

// A session with the first user and one Get Device ID: the machine was set up completely.
bool answersDeviceId(uint16_t port, const User &user, std::string &why)
{
    ipmi_ctx_t ctx = ipmi_ctx_create();
    if (!ctx) {
        why = "cannot create an IPMI context";
        return false;
    }
    std::string host = "127.0.0.1:" + std::to_string(port);
    bool ok = false;
    if (ipmi_ctx_open_outofband_2_0(ctx, host.c_str(), user.name.c_str(), user.password.c_str(), nullptr, 0,
                                    0x02 /* user */, 3, 500, 100,
                                    IPMI_WORKAROUND_FLAGS_OUTOFBAND_2_0_OPEN_SESSION_PRIVILEGE, IPMI_FLAGS_DEFAULT) == 0) {
        // libfreeipmi answers the command byte first, then the completion code.
        constexpr tvx::wire::U8 kCompletionCode{1};
        uint8_t rq[1] = {tvx::cmd::app::kGetDeviceId}, rs[64];
        int n = ipmi_cmd_raw(ctx, 0, tvx::netfn::kApp, rq, 1, rs, sizeof rs);
        ok = n > 0 && tvx::wire::View(rs, static_cast<std::size_t>(n)).get(kCompletionCode) == tvx::cc::kOk;
        if (!ok) why = n < 0 ? ipmi_ctx_errormsg(ctx) : "Get Device ID was refused";
        ipmi_ctx_close(ctx);
    } else {
        why = ipmi_ctx_errormsg(ctx);
    }
    ipmi_ctx_destroy(ctx);
    return ok;
}

bool onPath(const std::string &program)
{
    if (program.find('/') != std::string::npos) return ::access(program.c_str(), X_OK) == 0;
    const char *path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':'))
        if (!dir.empty() && ::access((dir + "/" + program).c_str(), X_OK) == 0) return true;
    return false;
}

} // namespace

bool simulatorAvailable(const std::string &program) { return onPath(program); }

Peer::Peer(PeerOptions options) : options_(std::move(options))
{
    if (!onPath(options_.simulator))
        throw PeerError(options_.simulator + " is not installed (Debian package openipmi; scripts/deps.sh installs it)");
    if (!options_.modulePath.empty() && ::access(options_.modulePath.c_str(), R_OK) != 0)
        throw PeerError("the ipmi_sim module " + options_.modulePath + " is missing");
    if (options_.users.empty()) throw PeerError("the simulator needs at least one user");
    ::mkdir(options_.workDir.c_str(), 0700);
    lanConfPath_ = options_.workDir + "/lan.conf";
    commandsPath_ = options_.workDir + "/machine.emu";
    logPath_ = options_.workDir + "/ipmi_sim.log";
    Profile profile = loadProfile(options_.profilePath);
    writeFile(commandsPath_, commandFile(profile, options_.extraCommands));

    // A port that was free a moment ago may be taken by the time ipmi_sim binds it: try a
    // few.
    std::string why;
    for (int attempt = 0; attempt < 5; ++attempt) {
        port_ = options_.port ? options_.port : freePort();
        start();
        if (waitReady(why)) return;
        stop();
        if (options_.port) break;
    }
    throw PeerError("ipmi_sim did not come up on 127.0.0.1:" + std::to_string(port_) + ": " + why +
                    "\n(a failing line of the command file stops its setup silently: run `ipmi_sim -c " + lanConfPath_ +
                    " -f " + commandsPath_ + "` by hand to see its ** errors)\n--- log ---\n" + log());
}

Peer::~Peer() { stop(); }

void Peer::start()
{
    LanOptions lan;
    lan.port = port_;
    lan.users = options_.users;
    lan.modulePath = options_.modulePath;
    lan.profilePath = options_.profilePath;
    writeFile(lanConfPath_, lanConf(lan));

    std::vector<std::string> args = {options_.simulator, "-n", "-p", "-c", lanConfPath_, "-f", commandsPath_};
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int logFd = ::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (logFd < 0) throw PeerError("cannot open " + logPath_);
    pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) {
        ::close(logFd);
        throw PeerError(std::string("fork: ") + std::strerror(errno));
    }
    if (pid == 0) {
        // The kernel kills the simulator when the process that started it dies.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        int in = ::open("/dev/null", O_RDONLY);
        if (in >= 0) ::dup2(in, 0);
        ::dup2(logFd, 1);
        ::dup2(logFd, 2);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(logFd);
    pid_ = pid;
    remember(pid);
}

bool Peer::waitReady(std::string &why)
{
    // Bounded: at most 150 probes of 20 ms, about three seconds; ipmi_sim is usually up
    // within 10 ms.
    for (int probe = 0; probe < 150; ++probe) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            forget(pid_);
            pid_ = -1;
            why = WIFEXITED(status) ? "it exited with status " + std::to_string(WEXITSTATUS(status))
                                    : "it was killed by signal " + std::to_string(WTERMSIG(status));
            return false;
        }
        if (!rmcpPing(port_, 20)) continue;
        if (answersDeviceId(port_, options_.users.front(), why)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (why.empty()) why = "no answer to RMCP presence pings";
    return false;
}

void Peer::stop()
{
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    bool gone = false;
    for (int i = 0; i < 100 && !gone; ++i) { // up to a second of grace
        if (::waitpid(pid_, nullptr, WNOHANG) == pid_) gone = true;
        else std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!gone) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    forget(pid_);
    pid_ = -1;
}

void Peer::restart()
{
    stop();
    std::string why;
    // The old socket is gone with the process, so the same port can be bound again at once.
    start();
    if (!waitReady(why)) {
        stop();
        throw PeerError("ipmi_sim did not come back on port " + std::to_string(port_) + ": " + why + "\n" + log());
    }
}

std::string Peer::target(const std::string &extra) const
{
    const User &u = options_.users.front();
    return "lan://" + u.name + ":" + u.password + "@" + hostPort() + "?cipher=3&workaround=opensesspriv" + extra;
}

std::string Peer::log() const
{
    std::ifstream f(logPath_);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

} // namespace tvxsim::ipmisim
