// Runs tvxctl as a user does: a separate process with a home and state directory of its own
// inside a scratch directory (never the user's), its output and exit status captured.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "emulator.h"

extern char **environ;

namespace tvxtest {

struct Outcome {
    int code;
    std::string out, err;
};

inline std::ostream &operator<<(std::ostream &os, const Outcome &r)
{
    return os << "exit " << r.code << "\n--- stdout\n" << r.out << "--- stderr\n" << r.err;
}

// A command (program and arguments, the program found on PATH) with HOME=scratch/home and
// TVX_IPMI_STATE_DIR=scratch/state; extra "NAME=VALUE" entries are added to (or replace those
// in) the environment.
inline Outcome runCommand(std::vector<std::string> args, const std::string &scratch,
                          const std::vector<std::string> &extraEnv = {})
{
    std::vector<std::string> env = {"HOME=" + scratch + "/home", "TVX_IPMI_STATE_DIR=" + scratch + "/state"};
    for (char **e = environ; *e; ++e) {
        std::string v = *e;
        if (v.rfind("TVX_IPMI_", 0) != 0 && v.rfind("HOME=", 0) != 0 && v.rfind("XDG_STATE_HOME=", 0) != 0)
            env.push_back(v);
    }
    for (const auto &x : extraEnv) {
        std::string name = x.substr(0, x.find('=') + 1);
        std::erase_if(env, [&](const std::string &v) { return v.rfind(name, 0) == 0; });
        env.push_back(x);
    }
    std::vector<char *> argv, envp;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto &e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    const std::string outPath = scratch + "/stdout", errPath = scratch + "/stderr";
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid;
    int rc = posix_spawnp(&pid, args[0].c_str(), &fa, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        ADD_FAILURE() << "cannot start " << args[0] << ": " << std::strerror(rc);
        return {-1, "", ""};
    }
    int status = 0;
    waitpid(pid, &status, 0);
    auto slurp = [](const std::string &path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    };
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(outPath), slurp(errPath)};
}

// tvxctl (through the emulator in a cross build) as runCommand runs a command.
inline Outcome runTvxctl(const std::string &tvxctl, const std::string &scratch, std::vector<std::string> args,
                         const std::vector<std::string> &extraEnv = {})
{
    args.insert(args.begin(), tvxctl);
    args.insert(args.begin(), kEmulator.begin(), kEmulator.end());
    return runCommand(std::move(args), scratch, extraEnv);
}

} // namespace tvxtest
