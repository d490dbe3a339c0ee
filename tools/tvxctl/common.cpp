#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "cli.h"
#include "libipmi.h"
#include "libipmi_host.h"
#include "tvx/ipmi.h"

namespace tvxctl {

Session::Session()
{
    if (!*this) {
        std::string why = ipmihost_last_error();
        throw Failure{kExitFailed, "cannot open a session with " + std::string(ipmihost_describe_target()) +
                                       (why.empty() ? "" : ": " + why)};
    }
}

std::string Session::whyFailed() const
{
    ipmihost_request_outcome last;
    if (ipmihost_last_request(get(), &last) != 0 || last.status == 0) return "";
    const std::string request = "NetFn " + hexByte(last.netFn) + " command " + hexByte(last.command) +
                                (last.address ? " for the controller at " + hexByte(last.address) : "");
    // Send Message's own code for a message no device on the bus took.
    if (last.address && last.status == LIBIPMI_STATUS_COMPLETION_CODE(tvx::send_message::kNakOnWrite))
        return request + ": no controller answers at that address (completion code 0x83, NAK on write)";
    if (LIBIPMI_STATUS_IS_COMPLETION_CODE(last.status))
        return "the controller refused the request (" + request + "): " + statusText(last.status);
    return request + ": " + statusText(last.status);
}

Failure Session::failed(const std::string &what) const
{
    const std::string why = whyFailed();
    return Failure{kExitFailed, why.empty() ? what : what + ": " + why};
}

bool parseNumber(const std::string &text, unsigned long max, unsigned long &out)
{
    if (text.empty() || text[0] == '-' || text[0] == '+' || std::isspace(static_cast<unsigned char>(text[0])))
        return false;
    errno = 0;
    char *end = nullptr;
    unsigned long v = std::strtoul(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return false;
    out = v;
    return true;
}

bool parseByte(const std::string &text, uint8_t &out)
{
    unsigned long v;
    if (!parseNumber(text, 0xFF, v)) return false;
    out = static_cast<uint8_t>(v);
    return true;
}

bool Args::flag(const char *name)
{
    for (auto it = words_.begin(); it != words_.end(); ++it) {
        if (*it == name) {
            words_.erase(it);
            return true;
        }
    }
    return false;
}

std::string Args::option(const char *name)
{
    std::string n(name);
    for (size_t i = 0; i < words_.size(); ++i) {
        if (words_[i] == n) {
            if (i + 1 >= words_.size()) throw Failure{kExitUsage, n + " needs a value"};
            std::string v = words_[i + 1];
            words_.erase(words_.begin() + static_cast<long>(i), words_.begin() + static_cast<long>(i) + 2);
            return v;
        }
        if (words_[i].rfind(n + "=", 0) == 0) {
            std::string v = words_[i].substr(n.size() + 1);
            words_.erase(words_.begin() + static_cast<long>(i));
            return v;
        }
    }
    return "";
}

void Args::noMoreOptions(const char *command) const
{
    for (const auto &w : words_)
        if (w.size() > 1 && w[0] == '-' && !std::isdigit(static_cast<unsigned char>(w[1])))
            throw Failure{kExitUsage, std::string(command) + ": unknown option \"" + w + "\""};
}

std::string statusText(uint16_t status)
{
    if (LIBIPMI_STATUS_IS_COMPLETION_CODE(status))
        return "completion code " + hexByte(status & 0xFF) + " (" + tvx::cc::text(status & 0xFF) + ")";
    switch (status) {
    case LIBIPMI_STATUS_OK: return "success";
    case LIBIPMI_STATUS_INVALID_ARGUMENT: return "invalid argument";
    case LIBIPMI_STATUS_NO_SESSION: return "no session";
    case LIBIPMI_STATUS_TIMEOUT: return "no answer from the controller (time-out)";
    case LIBIPMI_STATUS_TRANSPORT: return "the link to the controller failed";
    case LIBIPMI_STATUS_BAD_RESPONSE: return "the controller's answer was malformed";
    case LIBIPMI_STATUS_NO_MEMORY: return "out of memory";
    case LIBIPMI_STATUS_BUFFER_TOO_SMALL: return "the answer does not fit";
    case LIBIPMI_STATUS_NOT_AVAILABLE: return "not available with this controller";
    case LIBIPMI_STATUS_AUTH_FAILED: return "the controller refused the session";
    case LIBIPMI_STATUS_CONFIG_ERROR: {
        std::string why = ipmihost_last_error();
        return why.empty() ? "configuration error" : why;
    }
    default: return "platform status " + tvx::hexNumber(status, 4);
    }
}

// Texts from the controller may end inside a UTF-8 character (the library cuts long lines);
// such bytes are shown as U+FFFD rather than refused.
void printJson(const Json &j)
{
    if (csvOutputOn()) return printCsv(j);
    std::cout << j.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
}

} // namespace tvxctl
