#include "config_gen.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "sdr.h"
#include "sel_model.h"

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
            throw ProfileError(std::string("ipmi_sim configuration: ") + what +
                               " cannot contain quotes, backslashes or line ends");
    return "\"" + text + "\"";
}

// The command file, one line per command; every number written in C notation with a 0x
// prefix, since a leading 0 would be read as octal.
class Commands {
public:
    void line(const std::string &text)
    {
        text_ += text;
        text_ += '\n';
    }
    // A command and its arguments, separated by spaces.
    template <typename... Words> void command(std::string_view name, const Words &...words)
    {
        text_ += name;
        ((text_ += ' ', text_ += std::string_view(words)), ...);
        text_ += '\n';
    }
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
void addController(uint8_t address, const DeviceIdentity &d, Commands &out)
{
    out.line("mc_add " + hex(address) + " " + hex(d.deviceId) + " " +
             ((d.deviceRevision & 0x80) ? "has-device-sdrs" : "no-device-sdrs") + " " + hex(d.deviceRevision & 0x0F) +
             " " + hex(d.firmwareMajor & 0x7F) + " " + hex(d.firmwareMinorBcd) + " " + hex(d.additionalSupport) + " " +
             hex(d.manufacturerId & 0xFFFFF, 6) + " " + hex(d.productId, 4));
}

void emitController(const Profile &p, Commands &out)
{
    out.comment("The controller: " + (p.description.empty() ? p.name : p.description));
    out.line("mc_setbmc " + hex(kBmcAddress));
    addController(kBmcAddress, p.device, out);
}

// Satellite controllers on the primary IPMB (channel 0), which ipmi_sim reaches through Send
// Message: their identities and FRU devices. Their sensors are added with the others, by
// owner.
std::vector<uint8_t> satelliteAddresses(const Profile &p)
{
    std::vector<uint8_t> out;
    auto list = p.root().find("satellites");
    for (std::size_t i = 0; list && i < list->size(); ++i) out.push_back(list->at(i).at("address").byte());
    return out;
}

void addFru(uint8_t address, const FruModel &model, const Profile &p, Commands &out);

void emitSatellites(const Profile &p, Commands &out)
{
    auto list = p.root().find("satellites");
    for (std::size_t i = 0; list && i < list->size(); ++i) {
        Node n = list->at(i);
        if (auto c = n.find("channel"); c && c->integer(0, 7) != 0)
            c->fail("ipmi_sim bridges to the primary IPMB (channel 0) only");
        const uint8_t address = n.at("address").byte();
        out.comment("Satellite controller " + hex(address));
        addController(address, parseDeviceIdentity(n.at("controller")), out);
        if (auto f = n.find("fru")) addFru(address, parseFruDevices(*f), p, out);
    }
}

// Bytes written one after the other, each in 0x notation.
std::string byteList(std::span<const uint8_t> bytes)
{
    std::string s;
    for (uint8_t b : bytes) {
        s += ' ';
        s += hex(b);
    }
    return s;
}

// The SDR repository, record by record in repository order. ipmi_sim numbers the records
// itself (1, 2, ... as they are added), which are the record IDs the profile gives them.
void emitSdrs(const Profile &p, Commands &out)
{
    const SdrModel model = parseSdrModel(p);
    if (model.records.empty()) return;
    out.comment("SDR repository: " + std::to_string(model.records.size()) + " records");
    for (const SdrRecord &r : model.records) out.command("main_sdr_add", hex(kBmcAddress) + byteList(r.bytes));
}

// The sensors with their values now. ipmi_sim takes a sensor's event masks from its SDR,
// added before, but not its thresholds and hysteresis, which are set here. What ipmi_sim
// cannot model stays as in a powered, healthy machine (the module corrects Get Sensor
// Reading for sensors powered by the host and signed comparisons).
void emitSensors(const Profile &p, Commands &out)
{
    const SdrModel model = parseSdrModel(p);
    if (model.sensors.empty()) return;
    out.comment("Sensors");
    const nlohmann::json noState = nlohmann::json::object();
    std::vector<uint8_t> controllers = satelliteAddresses(p);
    controllers.push_back(kBmcAddress);
    for (const SensorDef &s : model.sensors) {
        // A sensor whose owner is no controller here (system software, an absent controller)
        // keeps its record and is not added: asking for it gets what a real machine answers.
        if (std::find(controllers.begin(), controllers.end(), s.owner) == controllers.end()) continue;
        const std::string mc = hex(s.owner), lun = std::to_string(s.lun), number = hex(s.number);
        out.command("sensor_add", mc, lun, number, hex(s.sensorType), hex(s.eventType));
        const SensorNow now = sensorNow(s, noState);
        if (s.thresholdBased()) {
            // Thresholds as the SDR gives them, readable; the enable string runs from the upper
            // non-recoverable (bit 5) down to the lower non-critical (bit 0).
            std::string enabled, values;
            for (int i = 5; i >= 0; --i) {
                enabled += s.thresholds[i] ? '1' : '0';
                values += ' ';
                values += hex(s.thresholds[i].value_or(0));
            }
            out.command("sensor_set_threshold", mc, lun, number, "readable", enabled + values);
            out.command("sensor_set_hysteresis", mc, lun, number, "readable", hex(s.hysteresisPositive),
                        hex(s.hysteresisNegative));
        }
        if (s.format != AnalogFormat::None) out.command("sensor_set_value", mc, lun, number, hex(now.reading), "0");
        if (!s.thresholdBased())
            for (int bit = 0; bit < 15; ++bit)
                if (now.state & (1u << bit))
                    out.command("sensor_set_bit", mc, lun, number, std::to_string(bit), "1", "0");
        // Scanning or events off: the event masks go with them (ipmi_sim sets all in one
        // command, 15 bits each).
        if (!now.scanning || !now.events) {
            const std::string none(15, '0');
            out.command("sensor_set_event_support", mc, lun, number, now.events ? "enable" : "disable",
                        now.scanning ? "scanning" : "no-scanning", "none", none, none, none, none);
        }
    }
}

// The system event log: enabled when the controller says it is a SEL device, with the
// profile's entries. ipmi_sim supports reservations and deleting entries (operation support
// 0x0A), numbers the entries 1, 2, ... and stamps each with its own clock (its uptime, as
// nothing sets its SEL time before the entries are added).
void emitSel(const Profile &p, Commands &out)
{
    constexpr uint8_t kSelDevice = 0x04;
    if (!(p.device.additionalSupport & kSelDevice)) return;
    const sel::Model model = sel::parseModel(p);
    out.comment("System event log");
    out.command("sel_enable", hex(kBmcAddress), std::to_string(model.capacity), "0x0a");
    for (const sel::Entry &e : model.records)
        out.command("sel_add", hex(kBmcAddress) + byteList(std::span<const uint8_t>(e.record).subspan(2)));
}

// FRU devices (mc_add_fru_data): the bytes the virtual controller serves, from the one
// encoder. ipmi_sim reads FRU data by bytes only, so a device accessed by words is refused.
void addFru(uint8_t address, const FruModel &model, const Profile &p, Commands &out)
{
    for (const FruDevice &d : model.devices) {
        if (d.wordAccess)
            throw ProfileError(p.file + ": " + d.pointer + "/word_access: ipmi_sim serves FRU data by bytes only");
        out.comment("FRU device " + std::to_string(d.id));
        out.command("mc_add_fru_data", hex(address), hex(d.id), hex(static_cast<unsigned>(d.image.size()), 4),
                    "data" + byteList(d.image));
    }
}

void emitFru(const Profile &p, Commands &out) { addFru(kBmcAddress, parseFruModel(p), p, out); }

// One part of the machine. Sections run in order; the SDR repository must come before the
// sensors (ipmi_sim takes a sensor's thresholds from its SDR), mc_enable comes after all.
struct Section {
    const char *name;
    void (*emit)(const Profile &, Commands &);
};

constexpr Section kSections[] = {
    {"controller", emitController}, {"satellites", emitSatellites}, {"sdr", emitSdrs}, {"sensors", emitSensors}, {"sel", emitSel}, {"fru", emitFru},
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
    for (uint8_t address : satelliteAddresses(profile)) out.line("mc_enable " + hex(address));
    return out.take();
}

} // namespace tvxsim::ipmisim
