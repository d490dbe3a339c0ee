// tvxctl lan: the controller's LAN settings.
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "cli.h"

namespace tvxctl {
namespace {

const char *kSources[] = {"unspecified", "static", "dhcp", "bios", "other"};

// The four octets of a block the library handed out.
std::string dotted(const uint8_t *b)
{
    if (!b) return "";
    tvx::wire::Reader in(b, 4);
    const unsigned o1 = in.u8(), o2 = in.u8(), o3 = in.u8(), o4 = in.u8();
    char buf[20];
    std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", o1, o2, o3, o4);
    return buf;
}

// The six octets of a block the library handed out.
std::string colons(const uint8_t *b) { return b ? tvx::hexBytes({b, 6}, ':') : ""; }

void parseIpv4(const std::string &text, uint8_t out[4])
{
    struct in_addr a;
    if (inet_pton(AF_INET, text.c_str(), &a) != 1)
        throw Failure{kExitUsage, "invalid IPv4 address \"" + text + "\" (expected dotted notation such as 192.168.1.20)"};
    std::memcpy(out, &a.s_addr, 4); // network order: the octets as written
}

void parseMac(const std::string &text, uint8_t out[6])
{
    unsigned v[6];
    char tail;
    if (text.size() != 17 ||
        std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &tail) != 6)
        throw Failure{kExitUsage, "invalid MAC address \"" + text + "\" (expected colon notation such as 00:1b:21:3c:4d:5e)"};
    for (int i = 0; i < 6; ++i) out[i] = static_cast<uint8_t>(v[i]);
}

struct Freed {
    uint8_t *p;
    ~Freed() { std::free(p); }
};

} // namespace

int cmdLan(const Options &opt, const std::vector<std::string> &args)
{
    Session session;
    IpmiSession *s = session.get();
    if (args.empty() || (args.size() == 1 && args[0] == "show")) {
        unsigned channel = getChannel(s);
        if (channel == 0 && !session.whyFailed().empty()) throw session.failed("cannot find the LAN channel");
        if (channel == 0) throw Failure{kExitFailed, "the controller has no 802.3 LAN channel"};
        Freed ip{ipmiGetIpAddress(s)}, mask{ipmiGetNetMask(s)}, gw{ipmiGetDefaultGateway(s)}, mac{ipmiGetMacAddress(s)};
        int source = ipmiGetAddressSource(s);
        std::string sourceText = source >= 0 && source <= 4 ? kSources[source] : "unknown (" + std::to_string(source) + ")";
        if (opt.json) {
            auto orNull = [](const uint8_t *p, const std::string &t) { return p ? Json(t) : Json(nullptr); };
            printJson({{"channel", channel},
                       {"ip_address", orNull(ip.p, dotted(ip.p))},
                       {"address_source", sourceText},
                       {"mac_address", orNull(mac.p, colons(mac.p))},
                       {"subnet_mask", orNull(mask.p, dotted(mask.p))},
                       {"default_gateway", orNull(gw.p, dotted(gw.p))}});
            return kExitOk;
        }
        std::printf("Channel            : %u\n", channel);
        std::printf("IP Address Source  : %s\n", sourceText.c_str());
        std::printf("IP Address         : %s\n", ip.p ? dotted(ip.p).c_str() : "(unreadable)");
        std::printf("Subnet Mask        : %s\n", mask.p ? dotted(mask.p).c_str() : "(unreadable)");
        std::printf("MAC Address        : %s\n", mac.p ? colons(mac.p).c_str() : "(unreadable)");
        std::printf("Default Gateway IP : %s\n", gw.p ? dotted(gw.p).c_str() : "(unreadable)");
        return kExitOk;
    }
    if (args.size() == 3 && args[0] == "set") {
        const std::string &what = args[1], &value = args[2];
        uint8_t bytes[6];
        int ok;
        if (what == "ip") parseIpv4(value, bytes), ok = ipmiSetIpAddress(s, bytes);
        else if (what == "netmask") parseIpv4(value, bytes), ok = ipmiSetNetMask(s, bytes);
        else if (what == "gateway") parseIpv4(value, bytes), ok = ipmiSetDefaultGateway(s, bytes);
        else if (what == "mac") parseMac(value, bytes), ok = ipmiSetMacAddress(s, bytes);
        else if (what == "source") {
            int source = -1;
            for (int i = 0; i < 5; ++i)
                if (value == kSources[i]) source = i;
            if (source < 0)
                throw Failure{kExitUsage, "invalid address source \"" + value + "\" (unspecified, static, dhcp, bios, other)"};
            ok = ipmiSetAddressSource(s, source);
        } else {
            throw Failure{kExitUsage, "unknown LAN setting \"" + what + "\" (ip, netmask, gateway, mac, source)"};
        }
        if (!ok) throw session.failed("the " + what + " setting was not stored");
        if (opt.json) printJson({{"set", what}, {"value", value}});
        else std::cout << "Set " << what << " to " << value << "\n";
        return kExitOk;
    }
    throw Failure{kExitUsage, "usage: tvxctl lan [show] | lan set ip|netmask|gateway|mac|source VALUE"};
}

} // namespace tvxctl
