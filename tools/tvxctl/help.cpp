// tvxctl help [COMMAND] and COMMAND --help: one page per command word, with its forms, what
// they do, and examples. ipmitool's verbs (mc, chassis, ...) have pages of their own.
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "help.h"

namespace tvxctl {
namespace {

struct Page {
    const char *command;
    const char *usage;    // one form per line
    const char *text;     // what it does
    const char *examples; // one example per line
};

const Page kPages[] = {
    {"devid", "devid",
     "The controller's identity: device ID and revision, firmware and IPMI versions, manufacturer,\n"
     "product, the additional device support and the auxiliary firmware revision.\n",
     "tvxctl devid\ntvxctl --json devid\n"},
    {"mc", "mc info\nmc selftest\nmc reset warm|cold",
     "ipmitool's management-controller verbs. info is devid; selftest shows the controller's\n"
     "self-test results (Get Self Test Results); reset warm|cold asks the controller to restart.\n",
     "tvxctl mc info\ntvxctl mc selftest\n"},
    {"raw", "raw NETFN CMD [BYTE...]",
     "Sends one request and prints the response data bytes as ipmitool raw prints them. Numbers\n"
     "are C-style: 0x2e hexadecimal, 46 decimal, 056 octal. A completion code other than 0x00 is\n"
     "named and gives exit status 1.\n",
     "tvxctl raw 0x06 0x01\ntvxctl raw 0x0a 0x48\n"},
    {"sdr", "sdr [list|elist [all|full]]\nsdr type [TYPE]\nsdr get NAME...",
     "Every sensor of the SDR repository: number, entity, type, reading and status. type lists\n"
     "the sensors of one sensor type (number or name) or, without TYPE, the types; get shows\n"
     "named sensors in detail: reading, status, nominal reading and thresholds. list and elist\n"
     "are ipmitool's words for the table.\n",
     "tvxctl sdr\ntvxctl sdr type Fan\ntvxctl sdr get \"CPU Temp\"\ntvxctl --csv sdr\n"},
    {"sensor", "sensor [list] [--type KIND]",
     "The sensor table as ipmitool sensor prints it: name, value, unit, status and the six\n"
     "thresholds (\"na\" where there is none). KIND: temperature, fan, voltage, current,\n"
     "discrete, all (the default).\n",
     "tvxctl sensor\ntvxctl sensor --type fan\ntvxctl --csv sensor\n"},
    {"status", "status",
     "The machine's health as the hardware-monitoring agent reports it: the overall, class and\n"
     "boot statuses, then every component that counts towards them with its status and the text\n"
     "that explains it.\n",
     "tvxctl status\ntvxctl --json status\n"},
    {"agent", "agent sensors\nagent identity",
     "What the hardware-monitoring agent publishes. sensors: for each sensor, every sensor\n"
     "getter's result and status code with its meaning (--json: each result under its call).\n"
     "identity: the agent's name, company, version and build.\n",
     "tvxctl agent sensors\ntvxctl agent identity\n"},
    {"network", "network",
     "The network identity of the controller and of the server's port functions: addresses,\n"
     "masks, MAC addresses and whether DHCP assigns them.\n",
     "tvxctl network\ntvxctl --csv network\n"},
    {"trap", "trap test",
     "Has the controller send a test trap to every alert destination it has configured.\n",
     "tvxctl trap test\n"},
    {"sel",
     "sel [list] [--reverse]\nsel --text [--lang LCID]\nsel elist\nsel get ID...\nsel info\nsel clear\n"
     "sel add TYPE SENSOR EVTYPE D1 D2 D3\nsel watch [--text [--lang LCID]]",
     "The system event log. Without a subcommand: one raw line per record (--reverse: newest\n"
     "first). --text: the controller's localized messages with time and severity. elist: every\n"
     "record decoded with the standard IPMI tables as ipmitool sel elist prints it (sensor type\n"
     "and name from the SDR, event, asserted or deasserted). get: the records with those IDs in\n"
     "detail. info: entries, capacity, last addition and erase, UTC offset. clear erases the log;\n"
     "add adds a system event record. watch prints each new entry as it comes, until Ctrl-C; it\n"
     "needs tvx-selnotifyd.\n",
     "tvxctl sel elist\ntvxctl sel --text --lang 0x0407\ntvxctl sel get 0x0003\n"
     "tvxctl sel add 0x01 0x30 0x01 0x09 0xff 0xff\n"},
    {"fru", "fru [ID]\nfru print [ID]\nfru summary",
     "FRU inventory of every FRU device the SDR locates (or of one): chassis, board and product\n"
     "areas; without an ID it ends with the chassis and board summary the agent reports. print\n"
     "is ipmitool's word for it.\n",
     "tvxctl fru\ntvxctl fru print 0\ntvxctl fru summary\n"},
    {"iel", "iel [list] | iel show ID\niel add [--severity S] TEXT [BODY]\niel clear [ID]",
     "The controller's internal event log (ID 0: the first entry, 0xffff: the last). add adds an\n"
     "entry whose BODY is its record, up to 16 bytes in hex; clear clears one entry or all.\n",
     "tvxctl iel\ntvxctl iel show 0xffff\n"},
    {"cpu", "cpu",
     "Every processor socket: presence, status, maker, model, stepping, family, speed, cores,\n"
     "threads and caches.\n",
     "tvxctl cpu\n"},
    {"memory", "memory\nmemory spd SLOT",
     "Memory policy and every module slot: status, configuration, approval, frequency, size,\n"
     "form, type, speed class and voltage from its SPD image; spd decodes one module's image.\n",
     "tvxctl memory\ntvxctl memory spd 0\n"},
    {"pci", "pci", "The controller's PCI slot table and which slots hold a device.\n", "tvxctl pci\n"},
    {"languages", "languages", "The languages of the controller's texts.\n", "tvxctl languages\n"},
    {"banner", "banner",
     "The console's login banner, byte for byte as the library writes it (--json: the same\n"
     "text as one string).\n",
     "tvxctl banner\n"},
    {"power", "power [status|on|off|cycle|reset|soft]", "Chassis power state and control.\n",
     "tvxctl power\ntvxctl power cycle\n"},
    {"chassis",
     "chassis status\nchassis power status|on|off|cycle|reset|soft\nchassis identify [SECONDS|force]",
     "ipmitool's chassis verbs. status: power, power restore policy, last power event, intrusion,\n"
     "front panel lockout, drive and cooling faults, as ipmitool prints them. power is the power\n"
     "command. identify lights the identify LED for SECONDS (15 without a number; 0 turns it\n"
     "off) or, with force, until it is turned off.\n",
     "tvxctl chassis status\ntvxctl chassis power status\ntvxctl chassis identify 60\n"},
    {"led", "led [status]\nled identify on|off", "Identify LED and system status (error LED).\n",
     "tvxctl led\ntvxctl led identify on\n"},
    {"lan",
     "lan [show]\nlan set ip|netmask|gateway|mac|source VALUE\nlan print [CHANNEL]\n"
     "lan set CHANNEL ipaddr|netmask|macaddr VALUE\nlan set CHANNEL defgw ipaddr VALUE\n"
     "lan set CHANNEL ipsrc static|dhcp|bios|none",
     "The controller's LAN settings: address source, IP address, subnet mask, MAC address and\n"
     "default gateway. print and set CHANNEL are ipmitool's forms; the channel must be the\n"
     "controller's LAN channel (lan show names it).\n",
     "tvxctl lan\ntvxctl lan print 1\ntvxctl lan set ip 192.168.1.20\ntvxctl lan set 1 ipsrc dhcp\n"},
    {"config", "config get ID [INDEX]\nconfig set [--hex] ID INDEX VALUE...\nconfig reset",
     "Configuration-space variables: read one, write one (text, or bytes with --hex), reset every\n"
     "variable to its default.\n",
     "tvxctl config get 0x1a10\n"},
    {"console-log", "console-log start|stop|clear|state", "The controller's console logging.\n",
     "tvxctl console-log state\n"},
    {"reset", "reset", "Starts the virtual machine afresh from its profile.\n", "tvxctl --machine big.json reset\n"},
    {"target", "target", "Shows which controller the commands talk to.\n", "tvxctl --target lan://admin@bmc1 target\n"},
    {"help", "help [COMMAND]", "The list of commands, or one command's forms and examples.\n", "tvxctl help sel\n"},
};

const Page *find(const std::string &command)
{
    for (const auto &p : kPages)
        if (command == p.command) return &p;
    return nullptr;
}

// Prints each line of a block with an indent.
void indented(std::FILE *out, const char *block, const char *prefix)
{
    const char *p = block;
    while (*p) {
        const char *end = std::strchr(p, '\n');
        size_t n = end ? static_cast<size_t>(end - p) : std::strlen(p);
        std::fprintf(out, "%s%.*s\n", prefix, static_cast<int>(n), p);
        p += n + (end ? 1 : 0);
    }
}

} // namespace

bool hasHelpPage(const std::string &command) { return find(command) != nullptr; }

void printCommandHelp(std::FILE *out, const std::string &command)
{
    const Page *page = find(command);
    if (!page) throw Failure{kExitUsage, "no help for \"" + command + "\": unknown command (see tvxctl help)"};
    std::fprintf(out, "usage:\n");
    indented(out, page->usage, "  tvxctl [OPTIONS] ");
    std::fprintf(out, "\n");
    indented(out, page->text, "");
    std::fprintf(out, "\nExamples:\n");
    indented(out, page->examples, "  ");
    std::fprintf(out, "\nOptions for every command: see tvxctl help; the manual page is tvxctl(1).\n");
}

} // namespace tvxctl
