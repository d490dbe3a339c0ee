// A virtual machine for one benchmark: the profile written into a scratch directory that also
// holds its state, selected, with a library session open; all undone at the end.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <nlohmann/json.hpp>

#include "libipmi_host.h"
#include "tvx_toipmi.h"

class ScratchMachine {
public:
    explicit ScratchMachine(const nlohmann::json &profile)
    {
        char pattern[] = "/tmp/tvx-bench-XXXXXX";
        if (!mkdtemp(pattern)) std::abort();
        dir_ = pattern;
        const std::string path = dir_ + "/bench.json";
        std::ofstream(path) << profile.dump();
        if (ipmihost_select_machine(path.c_str(), dir_.c_str()) != 0) std::abort();
        session_ = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        if (!session_) std::abort();
    }
    ~ScratchMachine()
    {
        ipmiHelperCloseSession(&session_);
        ipmihost_select_default();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    ScratchMachine(const ScratchMachine &) = delete;
    ScratchMachine &operator=(const ScratchMachine &) = delete;
    IpmiSession *session() const { return session_; }

private:
    std::string dir_;
    IpmiSession *session_ = nullptr;
};
