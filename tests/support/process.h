// Programs run as a user runs them: a process of their own, output and exit status captured,
// a bounded wait (30 s, then killed). tvxctl gets a home and state directory of its own inside
// a scratch directory, never the user's. Daemons run beside the test until it stops them.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator.h"

extern char **environ;

namespace tvxtest {

// A UDP port on the loopback that is free now (for a daemon a test starts).
inline uint16_t freeUdpPort()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

struct Outcome {
    int code;
    std::string out, err;
};

inline std::ostream &operator<<(std::ostream &os, const Outcome &r)
{
    return os << "exit " << r.code << "\n--- stdout\n" << r.out << "--- stderr\n" << r.err;
}

// argv[0] is looked up in PATH. The environment is this process's without the variables that
// `env` sets ("NAME=VALUE") or whose names start with one of `drop`.
inline Outcome run(std::vector<std::string> argv, const std::vector<std::string> &env = {},
                   const std::vector<std::string> &drop = {})
{
    std::vector<std::string> vars = env;
    for (char **e = environ; *e; ++e) {
        std::string v = *e, name = v.substr(0, v.find('=') + 1);
        bool kept = true;
        for (const std::string &x : env) kept &= x.rfind(name, 0) != 0;
        for (const std::string &x : drop) kept &= v.rfind(x, 0) != 0;
        if (kept) vars.push_back(v);
    }
    std::vector<char *> args, envp;
    for (auto &a : argv) args.push_back(a.data());
    for (auto &v : vars) envp.push_back(v.data());
    args.push_back(nullptr);
    envp.push_back(nullptr);
    FILE *out = std::tmpfile(), *err = std::tmpfile();
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, fileno(out), 1);
    posix_spawn_file_actions_adddup2(&fa, fileno(err), 2);
    pid_t pid;
    int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    auto slurp = [](FILE *f) {
        std::string s;
        std::rewind(f);
        for (int c; (c = std::fgetc(f)) != EOF;) s += static_cast<char>(c);
        std::fclose(f);
        return s;
    };
    if (rc != 0) {
        slurp(out), slurp(err);
        throw std::runtime_error("cannot run " + argv[0] + ": " + std::strerror(rc));
    }
    int status = 0;
    bool done = false;
    for (int i = 0; i < 30000 && !done; ++i) done = waitpid(pid, &status, WNOHANG) == pid || (usleep(1000), false);
    if (!done) kill(pid, SIGKILL), waitpid(pid, &status, 0);
    int code = !done ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return {code, slurp(out), slurp(err)};
}

// A program (tvxctl, or another run the way tvxctl is) with HOME=scratch/home and
// TVX_IPMI_STATE_DIR=scratch/state, no target of the caller's.
inline Outcome runAs(const std::string &program, const std::string &scratch, std::vector<std::string> args,
                     std::vector<std::string> env = {})
{
    args.insert(args.begin(), program);
    env.insert(env.end(), {"HOME=" + scratch + "/home", "TVX_IPMI_STATE_DIR=" + scratch + "/state"});
    return run(args, env, {"TVX_IPMI_", "XDG_STATE_HOME="});
}
// tvxctl, through the emulator in a cross build.
inline Outcome tvxctl(const std::string &scratch, std::vector<std::string> args, std::vector<std::string> env = {})
{
    if (kEmulator.empty()) return runAs(TVXCTL_PATH, scratch, std::move(args), std::move(env));
    args.insert(args.begin(), TVXCTL_PATH);
    args.insert(args.begin(), kEmulator.begin() + 1, kEmulator.end());
    return runAs(kEmulator.front(), scratch, std::move(args), std::move(env));
}

// tvxctl --json ARGS, which must succeed: its output parsed (a failure throws, with the outcome).
inline nlohmann::json tvxctlJson(const std::string &scratch, std::vector<std::string> args)
{
    args.insert(args.begin(), "--json");
    Outcome r = tvxctl(scratch, args);
    if (r.code != 0 || !r.err.empty())
        throw std::runtime_error("exit " + std::to_string(r.code) + ": " + r.err);
    return nlohmann::json::parse(r.out);
}

// A daemon of the test (args[0] a path), stopped by its PID when the object goes or the test
// process dies: SIGTERM, then SIGKILL after 10 s. `env` ("NAME=VALUE") is added to this
// process's environment; stdout and stderr are appended to `out` and `err` (one file when
// `err` is empty).
class Daemon {
public:
    Daemon() = default;
    Daemon(std::vector<std::string> args, const std::vector<std::string> &env, const std::string &out,
           const std::string &err = "")
    {
        std::vector<char *> argv;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        const int e = err.empty() ? o : open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(o, 1);
        dup2(e, 2);
        for (const std::string &v : env) putenv(const_cast<char *>(v.c_str()));
        execv(argv[0], argv.data());
        _exit(127);
    }
    ~Daemon() { stop(); }
    Daemon(Daemon &&o) noexcept : pid_(std::exchange(o.pid_, -1)), status_(o.status_) {}
    Daemon &operator=(Daemon &&o) noexcept
    {
        stop();
        pid_ = std::exchange(o.pid_, -1);
        status_ = o.status_;
        return *this;
    }
    pid_t pid() const { return pid_; }
    bool running() { return pid_ > 0 && !reaped(WNOHANG); }
    // Its exit status once it ends by itself (128 + signal when killed).
    int wait()
    {
        if (pid_ > 0) reaped(0);
        return status_;
    }
    // Its exit status after SIGTERM.
    int stop()
    {
        if (pid_ <= 0) return status_;
        kill(pid_, SIGTERM);
        for (int i = 0; i < 1000 && !reaped(WNOHANG); ++i) usleep(10000);
        if (pid_ > 0) kill(pid_, SIGKILL), reaped(0);
        return status_;
    }

private:
    bool reaped(int flags)
    {
        int status = 0;
        if (waitpid(pid_, &status, flags) != pid_) return false;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        pid_ = -1;
        return true;
    }
    pid_t pid_ = -1;
    int status_ = -1;
};

} // namespace tvxtest
