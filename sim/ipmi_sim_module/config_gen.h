// Configuration for OpenIPMI's ipmi_sim from a machine profile: the LAN configuration
// (lan.conf: users, the LAN channel, this project's module) and the command file that builds
// the machine (ipmi_sim_cmd(5): mc_add, SDRs, sensors, SEL, FRU data, mc_enable).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "profile.h"

namespace tvxsim::ipmisim {

struct User {
    unsigned number;        // 2..63 (1 is the anonymous user)
    std::string name;
    std::string password;
    std::string privilege;  // callback, user, operator, admin
};

struct LanOptions {
    std::string name = "tvx";
    std::string address = "127.0.0.1";
    uint16_t port = 623;
    std::string privilegeLimit = "admin";
    std::vector<User> users = {{2, "admin", "secret", "admin"}};
    std::string modulePath;  // the module (empty: none)
    std::string profilePath; // the profile the module answers for
};

// Throws ProfileError for values that cannot be written into the file (quotes, bad users).
std::string lanConf(const LanOptions &options);

// The command file. `extra` lines are added before mc_enable (a test bed or benchmark may add
// sensors of its own). Throws ProfileError for a profile ipmi_sim cannot represent.
std::string commandFile(const Profile &profile, const std::vector<std::string> &extra = {});

// The BMC's IPMB address in the generated machine.
inline constexpr uint8_t kBmcAddress = 0x20;

} // namespace tvxsim::ipmisim
