#include "support.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "libipmi.h"

namespace realpeer {
namespace {

std::string readFile(const std::string &path)
{
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

} // namespace

std::string defaultProfile() { return std::string(TVX_MACHINES_DIR) + "/default.json"; }

std::string workDir(const std::string &name)
{
    std::string base = TVX_REALPEER_WORK;
    ::mkdir(base.c_str(), 0700);
    std::string dir = base + "/" + name + "-" + std::to_string(::getpid());
    std::string cmd = "rm -rf '" + dir + "'";
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("cannot clear " + dir);
    ::mkdir(dir.c_str(), 0700);
    return dir;
}

std::string writeFile(const std::string &dir, const std::string &name, const std::string &text)
{
    std::string path = dir + "/" + name;
    std::ofstream f(path, std::ios::trunc);
    f << text;
    return path;
}

std::unique_ptr<tvxsim::ipmisim::Peer> startPeer(const std::string &name, const std::string &profilePath,
                                                 const std::vector<std::string> &extraCommands)
{
    tvxsim::ipmisim::PeerOptions o;
    o.profilePath = profilePath;
    o.modulePath = TVX_IPMI_SIM_MODULE;
    o.workDir = workDir(name);
    o.extraCommands = extraCommands;
    return std::make_unique<tvxsim::ipmisim::Peer>(std::move(o));
}

tvxsim::ipmisim::Peer &defaultPeer()
{
    static std::unique_ptr<tvxsim::ipmisim::Peer> peer = startPeer("default", defaultProfile());
    return *peer;
}

Outcome run(const std::vector<std::string> &argv, const std::vector<std::string> &env)
{
    static int counter = 0;
    std::string dir = std::string(TVX_REALPEER_WORK);
    ::mkdir(dir.c_str(), 0700);
    std::string base = dir + "/run-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
    std::string outPath = base + ".out", errPath = base + ".err";
    std::vector<std::string> args = argv;
    std::vector<std::string> envCopy = env;
    std::vector<char *> cargv;
    for (auto &a : args) cargv.push_back(a.data());
    cargv.push_back(nullptr);
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        int in = ::open("/dev/null", O_RDONLY);
        int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (in < 0 || out < 0 || err < 0) ::_exit(126);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        for (auto &e : envCopy) ::putenv(e.data());
        ::execvp(cargv[0], cargv.data());
        ::_exit(127);
    }
    Outcome r;
    int status = 0;
    bool done = false;
    for (int i = 0; i < 3000 && !done; ++i) { // 30 s at most
        if (::waitpid(pid, &status, WNOHANG) == pid) done = true;
        else std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!done) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
    r.exitCode = done && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = readFile(outPath);
    r.err = readFile(errPath);
    ::unlink(outPath.c_str());
    ::unlink(errPath.c_str());
    if (r.exitCode == 127) throw std::runtime_error(argv[0] + std::string(" could not be run (is it installed?)"));
    return r;
}

Outcome tvxctl(const tvxsim::ipmisim::Peer *peer, const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {TVX_TVXCTL};
    if (peer) argv.insert(argv.end(), {"--target", peer->target("&timeout=2000")});
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
}

Outcome ipmitool(const tvxsim::ipmisim::Peer &peer, const std::vector<std::string> &args)
{
    const auto &u = peer.options().users.front();
    std::vector<std::string> argv = {
        "ipmitool", "-I",   "lanplus", "-H",       "127.0.0.1", "-p", std::to_string(peer.port()),
        "-U",       u.name, "-P",      u.password, "-C",        "3",  "-N",
        "1",        "-R",   "2"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
}

uint16_t raw(IpmiSession *session, uint8_t netFn, uint8_t command, const std::vector<uint8_t> &request,
             std::vector<uint8_t> &response)
{
    response.assign(LIBIPMI_MAX_RESPONSE_LEN, 0);
    uint32_t len = static_cast<uint32_t>(response.size());
    std::vector<uint8_t> rq = request;
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, static_cast<uint8_t>(netFn << 2), command,
                                                       rq.empty() ? nullptr : rq.data(),
                                                       static_cast<uint32_t>(rq.size()), response.data(), &len, 60);
    response.resize(status == 0 || LIBIPMI_STATUS_IS_COMPLETION_CODE(status) ? len : 0);
    return status;
}

} // namespace realpeer
