#include "machine_state.h"

#include "tvx/hex_string.h"
#include "tvx/wire.h"

#include <cstdio>

namespace tvxsim::machine {

nlohmann::json &section(nlohmann::json &state, const char *key)
{
    if (!state.is_object()) state = nlohmann::json::object();
    nlohmann::json &s = state[key];
    if (!s.is_object()) s = nlohmann::json::object();
    return s;
}

bool flag(const nlohmann::json &object, const char *key, bool fallback)
{
    if (!object.is_object()) return fallback;
    auto it = object.find(key);
    return it != object.end() && it->is_boolean() ? it->get<bool>() : fallback;
}

uint64_t number(const nlohmann::json &object, const char *key, uint64_t fallback, uint64_t max)
{
    if (!object.is_object()) return fallback;
    auto it = object.find(key);
    if (it == object.end() || !it->is_number_unsigned()) return fallback;
    uint64_t v = it->get<uint64_t>();
    return v <= max ? v : fallback;
}

std::string hexText(std::span<const uint8_t> bytes) { return tvx::hexBytes(bytes, 0); }

bool parseHex(const std::string &text, std::vector<uint8_t> &out)
{
    if (text.size() % 2 != 0) return false;
    std::vector<uint8_t> bytes;
    auto digit = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    for (std::size_t i = 0; i < text.size(); i += 2) {
        int hi = digit(text[i]), lo = digit(text[i + 1]);
        if (hi < 0 || lo < 0) return false;
        bytes.push_back(static_cast<uint8_t>(hi << 4 | lo));
    }
    out = std::move(bytes);
    return true;
}

std::string variableKey(uint16_t id)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%04X", id);
    return buf;
}

std::optional<std::vector<uint8_t>> configValue(Context &ctx, uint16_t id, uint8_t index)
{
    const auto &vars = ctx.profile.settings.configSpace;
    auto var = vars.find(id);
    if (var == vars.end()) return std::nullopt;
    auto def = var->second.defaults.find(index);
    if (def == var->second.defaults.end()) return std::nullopt;
    const nlohmann::json &space = section(ctx.state, "config_space");
    auto written = space.find(variableKey(id));
    if (written != space.end() && written->is_object()) {
        auto it = written->find(std::to_string(index));
        std::vector<uint8_t> value;
        if (it != written->end() && it->is_string() && parseHex(it->get<std::string>(), value) &&
            value.size() <= var->second.maxLength && (!var->second.fixedLength || value.size() == var->second.maxLength))
            return value;
    }
    return def->second;
}

bool consoleLogging(Context &ctx)
{
    auto v = configValue(ctx, kVarConsoleLogging, 0);
    return v && v->size() == 1 && tvx::wire::Reader(tvx::wire::View(*v)).u8() == 1;
}

void appendConsole(Context &ctx, const std::vector<std::string> &lines)
{
    if (lines.empty()) return;
    nlohmann::json &console = section(ctx.state, "console");
    nlohmann::json &log = console["log"];
    if (!log.is_array()) log = nlohmann::json::array();
    for (const auto &l : lines) log.push_back(l);
    // Keep the newest lines within the capacity (each line with its line feed).
    std::size_t total = 0;
    for (const auto &l : log) total += (l.is_string() ? l.get<std::string>().size() : 0) + 1;
    std::size_t drop = 0;
    while (total > ctx.profile.settings.console.capacity && drop < log.size()) {
        total -= (log[drop].is_string() ? log[drop].get<std::string>().size() : 0) + 1;
        ++drop;
    }
    if (drop) log.erase(log.begin(), log.begin() + static_cast<long>(drop));
    ctx.changed();
}

void forgetLanWritesInProgress(Context &ctx)
{
    if (ctx.state.is_object() && ctx.state.erase("lan_set")) ctx.changed();
}

} // namespace tvxsim::machine
