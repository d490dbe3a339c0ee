// tvxctl: shared pieces of the subcommands.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tvx/hex_string.h"
#include "tvx/session.h"
#include "tvx/text.h"
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
    bool noSdrCache = false;
    bool stats = false;
};
extern bool showStats;

// A failure worth one line on stderr and an exit code.
struct Failure {
    int exitCode;
    std::string message;
};

// A session for the length of one subcommand; made only when one opens.
class Session : public tvx::Session {
public:
    Session();
    // Why the session's last request failed, as a message ends ("": it did not): the
    // completion code a controller refused it with, named, or what kept it from answering.
    std::string whyFailed() const;
    // A failure (exit 1) saying what could not be done, and why.
    Failure failed(const std::string &what) const;
};

// The SEL's records (16 bytes each), read once in one session, in log order or reversed.
using SelRecordBytes = std::array<uint8_t, 16>;
std::vector<SelRecordBytes> readSelRecords(IpmiSession *session, bool reverse);

// Parses a byte as ipmitool does ("0x2e", "46", "056" octal).
bool parseByte(const std::string &text, uint8_t &out);
// "0x2e".
inline std::string hexByte(unsigned v) { return tvx::hexNumber(v & 0xFF); }
// What a platform status means, for a message.
std::string statusText(uint16_t status);

using Json = nlohmann::ordered_json;
// Prints a command's data: JSON, or with --csv a table of its records.
void printJson(const Json &j);
void printCsv(const Json &j);
void setCsvOutput(bool on);
bool csvOutputOn();

// A subcommand's arguments: its words, and the flags it knows ("--reverse", "--lang X").
class Args {
public:
    explicit Args(std::vector<std::string> words) : words_(std::move(words)) {}
    // Removes a flag and tells whether it was there.
    bool flag(const char *name);
    // Removes "--name VALUE" (or "--name=VALUE") and returns VALUE, or "" when absent.
    std::string option(const char *name);
    // Fails on anything left that looks like an option.
    void noMoreOptions(const char *command) const;
    const std::vector<std::string> &words() const { return words_; }
    size_t size() const { return words_.size(); }
    const std::string &operator[](size_t i) const { return words_[i]; }

private:
    std::vector<std::string> words_;
};

// A number as C writes it (0x1f, 31, 037) within [0, max].
bool parseNumber(const std::string &text, unsigned long max, unsigned long &out);

// An SDR record's ID string, from the bytes of its slot (never read past them).
inline std::string sdrIdString(tvx::wire::View record) { return std::string(tvx::sdr::idString(record).view()); }
inline std::string sdrIdString(const uint8_t *rec, size_t recordBytes)
{
    return sdrIdString(tvx::wire::View(rec, recordBytes));
}

using Command = int (*)(const Options &, const std::vector<std::string> &args);
int cmdDevid(const Options &, const std::vector<std::string> &);
int cmdRaw(const Options &, const std::vector<std::string> &);
int cmdReset(const Options &, const std::vector<std::string> &);
int cmdTarget(const Options &, const std::vector<std::string> &);
int cmdSdr(const Options &, const std::vector<std::string> &);
int cmdSel(const Options &, const std::vector<std::string> &);
int cmdBanner(const Options &, const std::vector<std::string> &);
int cmdPower(const Options &, const std::vector<std::string> &);
int cmdLed(const Options &, const std::vector<std::string> &);
int cmdLan(const Options &, const std::vector<std::string> &);
int cmdConfig(const Options &, const std::vector<std::string> &);
int cmdConsoleLog(const Options &, const std::vector<std::string> &);
int cmdFru(const Options &, const std::vector<std::string> &);
int cmdCpu(const Options &, const std::vector<std::string> &);
int cmdMemory(const Options &, const std::vector<std::string> &);
int cmdPci(const Options &, const std::vector<std::string> &);
int cmdLanguages(const Options &, const std::vector<std::string> &);
int cmdSensor(const Options &, const std::vector<std::string> &);
int cmdSdrQuery(const Options &, const std::vector<std::string> &);
int cmdAgent(const Options &, const std::vector<std::string> &);
int cmdIel(const Options &, const std::vector<std::string> &);
int cmdStatus(const Options &, const std::vector<std::string> &);
int cmdNetwork(const Options &, const std::vector<std::string> &);
int cmdTrap(const Options &, const std::vector<std::string> &);
// agent identity: what the agent tells its managers about itself.
int cmdAgentIdentity(const Options &);
// What the processor and memory-module status codes stand for.
const char *cpuStatusMeaning(uint32_t code);
const char *memoryStatusMeaning(uint32_t code);
// sel watch: the words after "watch"; asText for --text (taken by sel itself).
int cmdSelWatch(const Options &, const std::vector<std::string> &args, bool asText);
// fru: the chassis and board summary (printed after the devices, or alone by "fru summary").
int cmdFruSummary(const Options &, IpmiSession *session);
// ipmitool's verbs: mc selftest|reset, chassis status|identify, sel elist|get (IDs, or all).
int cmdMc(const Options &, const std::vector<std::string> &);
int cmdChassis(const Options &, const std::vector<std::string> &);
int cmdSelDecoded(const Options &, const std::vector<std::string> &ids);

} // namespace tvxctl
