// Reading and changing the machine's state as the chassis, configuration-space, console and
// LAN handlers keep it. The state file may have been written by an older program or edited by
// hand: every reader falls back to the profile's value when a member is missing or of the
// wrong type, so no state makes a handler fail.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "controller.h"

namespace tvxsim::machine {

// state[key] as an object (replacing anything else there).
nlohmann::json &section(nlohmann::json &state, const char *key);
bool flag(const nlohmann::json &object, const char *key, bool fallback);
uint64_t number(const nlohmann::json &object, const char *key, uint64_t fallback, uint64_t max);

std::string hexText(std::span<const uint8_t> bytes);
bool parseHex(const std::string &text, std::vector<uint8_t> &out);

// The member of state["config_space"] that holds a variable's written values: "0x1630".
std::string variableKey(uint16_t id);

// The current value of a configuration-space variable: what was written, else the profile's
// default. Empty when the variable or that index does not exist.
std::optional<std::vector<uint8_t>> configValue(Context &ctx, uint16_t id, uint8_t index);

// Console log: logging enabled (ConfConsLoggingEnable = 1), and adding lines to the buffer,
// which drops its oldest lines beyond the profile's capacity.
bool consoleLogging(Context &ctx);
void appendConsole(Context &ctx, const std::vector<std::string> &lines);

// What the controller forgets when it restarts: LAN parameter writes in progress and the
// volatile alert destinations.
void forgetLanWritesInProgress(Context &ctx);

} // namespace tvxsim::machine
