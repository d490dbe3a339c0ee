// Daemons a test starts (snmpd, snmptrapd, ...) on loopback, and stops by their PID.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char **environ;

namespace tvxtest {

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

// A daemon of the test, stopped by its PID (SIGTERM, then SIGKILL after 10 s).
class Process {
public:
    Process() = default;
    Process(std::vector<std::string> args, const std::vector<std::string> &env, const std::string &log)
    {
        std::vector<char *> argv, envp;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        std::vector<std::string> e(env);
        for (char **p = environ; *p; ++p) e.push_back(*p);
        for (auto &x : e) envp.push_back(x.data());
        envp.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
        if (posix_spawn(&pid_, args[0].c_str(), &fa, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Process() { stop(); }
    Process(Process &&o) noexcept : pid_(std::exchange(o.pid_, -1)) {}
    Process &operator=(Process &&o) noexcept
    {
        stop();
        pid_ = std::exchange(o.pid_, -1);
        return *this;
    }
    bool running() const { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }
    // The exit status after SIGTERM (128 + signal when killed).
    int stop()
    {
        if (pid_ <= 0) return -1;
        kill(pid_, SIGTERM);
        int status = 0;
        for (int i = 0; i < 100 && waitpid(pid_, &status, WNOHANG) == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (i == 99) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
            }
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
};

} // namespace tvxtest
