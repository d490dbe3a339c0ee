// tvxctl config and console-log: configuration-space variables.
#include <cctype>
#include <cstdio>
#include <iostream>

#include "cli.h"

namespace tvxctl {
namespace {

bool printable(const uint8_t *b, int n)
{
    for (int i = 0; i < n; ++i)
        if (!std::isprint(b[i]) && !(i == n - 1 && b[i] == 0)) return false;
    return n > 0;
}

std::string hex(const uint8_t *b, int n) { return tvx::hexBytes({b, static_cast<std::size_t>(n)}); }

uint16_t variableId(const std::string &text)
{
    unsigned long v;
    if (!parseNumber(text, 0xFFFF, v)) throw Failure{kExitUsage, "invalid variable ID \"" + text + "\" (0x0000 to 0xffff)"};
    return static_cast<uint16_t>(v);
}

uint8_t index(const std::string &text)
{
    uint8_t v;
    if (!parseByte(text, v)) throw Failure{kExitUsage, "invalid index \"" + text + "\" (0 to 255)"};
    return v;
}

} // namespace

int cmdConfig(const Options &opt, const std::vector<std::string> &words)
{
    Args args(words);
    bool asHex = args.flag("--hex");
    args.noMoreOptions("config");
    if (args.size() >= 2 && args.size() <= 3 && args[0] == "get") {
        uint16_t id = variableId(args[1]);
        uint8_t idx = args.size() == 3 ? index(args[2]) : 0;
        Session session;
        uint8_t value[256] = {0};
        int n = ipmiReadConfigSpaceVariable(session.get(), idx, id, value);
        if (n < 0) throw session.failed("cannot read variable " + tvx::hexNumber(id, 4) + " index " + std::to_string(idx));
        bool text = printable(value, n) && !asHex;
        std::string shown = text ? std::string(reinterpret_cast<char *>(value), static_cast<size_t>(n)) : hex(value, n);
        while (text && !shown.empty() && shown.back() == '\0') shown.pop_back();
        if (opt.json) {
            printJson({{"id", id},
                       {"index", idx},
                       {"length", n},
                       {"bytes", std::vector<int>(value, value + n)},
                       {"text", text ? Json(shown) : Json(nullptr)}});
        } else {
            std::cout << shown << "\n";
        }
        return kExitOk;
    }
    if (args.size() >= 4 && args[0] == "set") {
        uint16_t id = variableId(args[1]);
        uint8_t idx = index(args[2]);
        std::vector<uint8_t> value;
        if (asHex) {
            for (size_t i = 3; i < args.size(); ++i) {
                uint8_t b;
                std::string w = args[i].rfind("0x", 0) == 0 ? args[i] : "0x" + args[i];
                if (!parseByte(w, b)) throw Failure{kExitUsage, "invalid byte \"" + args[i] + "\" (hex, e.g. 01 ff)"};
                value.push_back(b);
            }
        } else {
            if (args.size() != 4) throw Failure{kExitUsage, "a text value is one word; quote it, or give bytes with --hex"};
            value.assign(args[3].begin(), args[3].end());
        }
        if (value.size() > TVX_CONFIG_VALUE_MAX)
            throw Failure{kExitUsage, "a value holds at most " + std::to_string(TVX_CONFIG_VALUE_MAX) + " bytes"};
        Session session;
        if (!ipmiWriteConfigSpaceVariable(session.get(), id, idx, value.data(), static_cast<uint8_t>(value.size())))
            throw session.failed("the controller did not store the variable");
        if (opt.json) printJson({{"id", id}, {"index", idx}, {"length", value.size()}, {"written", true}});
        else std::cout << "Written " << value.size() << " bytes.\n";
        return kExitOk;
    }
    if (args.size() == 1 && args[0] == "reset") {
        Session session;
        if (!ipmiResetConfigSpace(session.get())) throw session.failed("the controller did not reset the variables");
        if (opt.json) printJson({{"reset", true}});
        else std::cout << "Every variable is back at its default.\n";
        return kExitOk;
    }
    throw Failure{kExitUsage, "usage: tvxctl config get ID [INDEX] | set [--hex] ID INDEX VALUE... | reset"};
}

int cmdConsoleLog(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() != 1) throw Failure{kExitUsage, "usage: tvxctl console-log start|stop|clear|state"};
    Session session;
    const std::string &a = args[0];
    if (a == "start" || a == "stop") {
        a == "start" ? ipmiConsoleLogStart(session.get()) : ipmiConsoleLogStop(session.get());
        if (!session.whyFailed().empty()) throw session.failed("console logging did not " + a);
        uint32_t state = 2;
        ipmiConsoleLogGetState(session.get(), &state);
        if (state != (a == "start" ? 1u : 0u)) throw session.failed("console logging did not " + a);
    } else if (a == "clear") {
        int status = ipmiConsoleLogClear(session.get());
        if (status != 0) throw session.failed("cannot clear the console log");
    } else if (a != "state") {
        throw Failure{kExitUsage, "unknown console-log action \"" + a + "\" (start, stop, clear, state)"};
    }
    uint32_t state = 2;
    ipmiConsoleLogGetState(session.get(), &state);
    if (state > 1) throw session.failed("cannot read the console logging state");
    std::string text = state == 1 ? "on" : "off";
    if (opt.json) printJson({{"console_logging", text}});
    else std::cout << "Console logging " << text << "\n";
    return kExitOk;
}

} // namespace tvxctl
