// tvxctl: shared pieces of the subcommands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tvx_toipmi.h"

namespace tvxctl {

// Exit codes.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1; // the controller could not be reached or refused
inline constexpr int kExitUsage = 2;  // bad arguments

struct Options {
    bool json = false;
    std::string machine; // --machine FILE
    std::string state;   // --state DIR
    std::string target;  // --target SPEC
};

// A failure worth one line on stderr and an exit code.
struct Failure {
    int exitCode;
    std::string message;
};

// A session for the length of one subcommand.
class Session {
public:
    Session();
    ~Session() { ipmiHelperCloseSession(&session_); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    IpmiSession *get() const { return session_; }

private:
    IpmiSession *session_ = nullptr;
};

// Parses a byte as ipmitool does ("0x2e", "46", "056" octal).
bool parseByte(const std::string &text, uint8_t &out);
std::string hexByte(unsigned v);
// The IPMI name of a completion code, e.g. 0xC1 -> "Invalid command".
const char *completionCodeText(uint8_t cc);
// What a platform status means, for a message.
std::string statusText(uint16_t status);

using Json = nlohmann::ordered_json;
void printJson(const Json &j);

using Command = int (*)(const Options &, const std::vector<std::string> &args);
int cmdDevid(const Options &, const std::vector<std::string> &);
int cmdRaw(const Options &, const std::vector<std::string> &);
int cmdReset(const Options &, const std::vector<std::string> &);
int cmdTarget(const Options &, const std::vector<std::string> &);

} // namespace tvxctl
