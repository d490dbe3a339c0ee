// ipmitool's verbs as aliases of tvxctl's commands. Verbs that have no counterpart of their
// own (mc selftest, chassis status, sel elist ...) are commands in cmd_ipmitool.cpp.
#include "cli.h"
#include "help.h"

namespace tvxctl {
namespace {

struct Alias {
    std::vector<std::string> from; // the leading words as ipmitool takes them
    std::vector<std::string> to;   // tvxctl's words; the remaining words follow
};

const Alias kAliases[] = {
    {{"mc", "info"}, {"devid"}},
    {{"chassis", "power"}, {"power"}},
    {{"fru", "print"}, {"fru"}},
    {{"fru", "list"}, {"fru"}},
    {{"sdr", "elist", "all"}, {"sdr"}},
    {{"sdr", "elist", "full"}, {"sdr"}},
    {{"sdr", "elist"}, {"sdr"}},
    {{"sdr", "list", "all"}, {"sdr"}},
    {{"sdr", "list", "full"}, {"sdr"}},
    {{"sdr", "list"}, {"sdr"}},
    {{"sensor", "list"}, {"sensor"}},
    {{"lan", "print"}, {"lan", "show"}},
};

// ipmitool's LAN parameter names: "lan set CHANNEL NAME VALUE".
const struct {
    std::vector<std::string> from;
    const char *to;
} kLanParameters[] = {
    {{"ipaddr"}, "ip"}, {{"netmask"}, "netmask"}, {{"macaddr"}, "mac"}, {{"defgw", "ipaddr"}, "gateway"}, {{"ipsrc"}, "source"},
};

bool startsWith(const std::vector<std::string> &words, size_t at, const std::vector<std::string> &prefix)
{
    if (words.size() < at + prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (words[at + i] != prefix[i]) return false;
    return true;
}

} // namespace

std::vector<std::string> canonicalWords(const std::vector<std::string> &words)
{
    for (const Alias &a : kAliases) {
        if (!startsWith(words, 0, a.from)) continue;
        std::vector<std::string> out = a.to;
        out.insert(out.end(), words.begin() + static_cast<long>(a.from.size()), words.end());
        return out;
    }
    // lan set CHANNEL NAME... VALUE: the channel is checked by lan itself ("--channel").
    unsigned long channel;
    if (words.size() >= 4 && words[0] == "lan" && words[1] == "set" && parseNumber(words[2], 0x0F, channel)) {
        for (const auto &p : kLanParameters) {
            if (!startsWith(words, 3, p.from) || words.size() != 3 + p.from.size() + 1) continue;
            std::string value = words.back();
            if (p.from[0] == "ipsrc" && value == "none") value = "unspecified";
            return {"lan", "set", p.to, value, "--channel", words[2]};
        }
    }
    return words;
}

} // namespace tvxctl
