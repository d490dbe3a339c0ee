#include "config_gen.h"

#include <cstdio>

#include "fru.h"

namespace tvxsim::ipmisim {
namespace {

std::string hex(unsigned v, int width = 2)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%0*x", width, v);
    return buf;
}

// Text that goes between double quotes in lan.conf.
std::string quoted(const std::string &text, const char *what)
{
    for (char c : text)
        if (c == '"' || c == '\\' || c == '\n' || c == '\r')
            throw ProfileError(std::string("ipmi_sim configuration: ") + what + " cannot contain quotes, backslashes or line ends");
    return "\"" + text + "\"";
}

// The command file, one line per command; every number written in C notation with a 0x
// prefix, since a leading 0 would be read as octal.
class Commands {
public:
    void line(const std::string &text) { text_ += text + "\n"; }
    // A comment stays on its line whatever the text holds.
    void comment(std::string text)
    {
        for (char &c : text)
            if (c == '\n' || c == '\r') c = ' ';
        line("# " + text);
    }
    std::string take() { return std::move(text_); }

private:
    std::string text_;
};

// The controller's identity: what mc_add carries. The rest of Get Device ID (auxiliary
// revision, IPMI version other than 2.0, device busy) is set by the module from the profile.
void emitController(const Profile &p, Commands &out)
{
    const DeviceIdentity &d = p.device;
    out.comment("The controller: " + (p.description.empty() ? p.name : p.description));
    out.line("mc_setbmc " + hex(kBmcAddress));
    out.line("mc_add " + hex(kBmcAddress) + " " + hex(d.deviceId) + " " +
             ((d.deviceRevision & 0x80) ? "has-device-sdrs" : "no-device-sdrs") + " " + hex(d.deviceRevision & 0x0F) +
             " " + hex(d.firmwareMajor & 0x7F) + " " + hex(d.firmwareMinorBcd) + " " + hex(d.additionalSupport) + " " +
             hex(d.manufacturerId & 0xFFFFF, 6) + " " + hex(d.productId, 4));
}

// The system event log: enabled when the controller says it is a SEL device. ipmi_sim
// supports reservations and deleting entries (operation support 0x0A).
void emitSel(const Profile &p, Commands &out)
{
    constexpr uint8_t kSelDevice = 0x04;
    if (!(p.device.additionalSupport & kSelDevice)) return;
    out.comment("System event log");
    out.line("sel_enable " + hex(kBmcAddress) + " 1000 0x0a");
}

// FRU devices (mc_add_fru_data): the bytes the virtual controller serves, from the one
// encoder. ipmi_sim reads FRU data by bytes only, so a device accessed by words is refused.
void emitFru(const Profile &p, Commands &out)
{
    for (const FruDevice &d : parseFruModel(p).devices) {
        if (d.wordAccess)
            throw ProfileError(p.file + ": " + d.pointer + "/word_access: ipmi_sim serves FRU data by bytes only");
        out.comment("FRU device " + std::to_string(d.id));
        std::string line = "mc_add_fru_data " + hex(kBmcAddress) + " " + hex(d.id) + " " +
                           hex(static_cast<unsigned>(d.image.size()), 4) + " data";
        for (uint8_t b : d.image) line += " " + hex(b);
        out.line(line);
    }
}

// One part of the machine. Sections run in order; the SDR repository must come before the
// sensors (ipmi_sim takes a sensor's thresholds from its SDR), mc_enable comes after all.
struct Section {
    const char *name;
    void (*emit)(const Profile &, Commands &);
};

constexpr Section kSections[] = {
    {"controller", emitController},
    // The SDR repository (main_sdr_add), sensors (sensor_add, sensor_set_value,
    // sensor_set_threshold), SEL entries (sel_add) and FRU data (mc_add_fru_data) are
    // emitted here from their profile sections as those are added.
    {"sel", emitSel},
    {"fru", emitFru},
};

} // namespace

std::string lanConf(const LanOptions &o)
{
    std::string s;
    s += "# Generated for one test run: a LAN channel on " + o.address + " port " + std::to_string(o.port) + "\n";
    s += "name " + quoted(o.name, "the name") + "\n";
    s += "set_working_mc " + hex(kBmcAddress) + "\n";
    s += "startlan 1\n";
    s += "  addr " + o.address + " " + std::to_string(o.port) + "\n";
    s += "  priv_limit " + o.privilegeLimit + "\n";
    for (const char *level : {"callback", "user", "operator", "admin"})
        s += std::string("  allowed_auths_") + level + " md5 straight\n";
    s += "  guid a123456789abcdefa123456789abcdef\n";
    s += "endlan\n";
    for (const User &u : o.users) {
        if (u.number < 2 || u.number > 63) throw ProfileError("ipmi_sim configuration: user numbers go from 2 to 63");
        s += "user " + std::to_string(u.number) + " true " + quoted(u.name, "a user name") + " " +
             quoted(u.password, "a password") + " " + u.privilege + " 10 md5 straight\n";
    }
    if (o.profilePath.find(' ') != std::string::npos)
        throw ProfileError("ipmi_sim configuration: the module's profile path cannot contain spaces");
    if (!o.modulePath.empty())
        s += "loadlib " + quoted(o.modulePath, "the module path") + " " +
             quoted("profile=" + o.profilePath, "the profile path") + "\n";
    return s;
}

std::string commandFile(const Profile &profile, const std::vector<std::string> &extra)
{
    Commands out;
    out.comment("Generated from " + profile.file);
    for (const Section &s : kSections) s.emit(profile, out);
    if (!extra.empty()) out.comment("Added by the caller");
    for (const std::string &line : extra) out.line(line);
    out.line("mc_enable " + hex(kBmcAddress));
    return out.take();
}

} // namespace tvxsim::ipmisim
