#include "profile.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "tvx/wire.h"

namespace tvxsim {
namespace {

std::string describe(const nlohmann::json &v)
{
    std::string s = v.dump();
    if (s.size() > 40) s = s.substr(0, 37) + "...";
    return s;
}

std::string childPath(const std::string &path, const std::string &key)
{
    // JSON pointer escaping of '~' and '/'.
    std::string out = path + "/";
    for (char c : key) {
        if (c == '~') out += "~0";
        else if (c == '/') out += "~1";
        else out += c;
    }
    return out;
}

std::string baseName(const std::string &path)
{
    std::string name = path;
    auto slash = name.find_last_of('/');
    if (slash != std::string::npos) name = name.substr(slash + 1);
    if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0)
        name.resize(name.size() - 5);
    return name;
}

bool parseUnsigned(const std::string &text, uint64_t &out)
{
    if (text.empty()) return false;
    std::size_t i = 0;
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        i = 2;
    }
    uint64_t v = 0;
    for (; i < text.size(); ++i) {
        int d;
        char c = text[i];
        if (c >= '0' && c <= '9') d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else return false;
        if (v > (UINT64_MAX - static_cast<uint64_t>(d)) / static_cast<uint64_t>(base)) return false;
        v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
    }
    out = v;
    return true;
}

} // namespace

void Node::fail(const std::string &what) const
{
    throw ProfileError(file_ + ": " + (path_.empty() ? std::string("/") : path_) + ": " + what);
}

void Node::requireObject() const
{
    if (!value_->is_object()) fail("expected an object, got " + describe(*value_));
}

bool Node::has(const char *key) const
{
    return value_->is_object() && value_->contains(key);
}

Node Node::at(const char *key) const
{
    requireObject();
    auto it = value_->find(key);
    if (it == value_->end()) fail(std::string("missing \"") + key + "\"");
    return Node(*it, file_, childPath(path_, key));
}

std::optional<Node> Node::find(const char *key) const
{
    requireObject();
    auto it = value_->find(key);
    if (it == value_->end()) return std::nullopt;
    return Node(*it, file_, childPath(path_, key));
}

Node Node::at(std::size_t index) const
{
    if (!value_->is_array()) fail("expected an array, got " + describe(*value_));
    if (index >= value_->size()) fail("index " + std::to_string(index) + " out of range");
    return Node((*value_)[index], file_, path_ + "/" + std::to_string(index));
}

std::size_t Node::size() const
{
    if (!value_->is_array()) fail("expected an array, got " + describe(*value_));
    return value_->size();
}

void Node::allowOnly(std::initializer_list<const char *> keys) const
{
    requireObject();
    for (auto it = value_->begin(); it != value_->end(); ++it) {
        bool known = false;
        for (const char *k : keys) known = known || it.key() == k;
        if (!known) {
            std::string list;
            for (const char *k : keys) list += (list.empty() ? "" : ", ") + std::string(k);
            Node(it.value(), file_, childPath(path_, it.key()))
                .fail("unknown key \"" + it.key() + "\" (known here: " + list + ")");
        }
    }
}

uint64_t Node::integer(uint64_t min, uint64_t max) const
{
    uint64_t v = 0;
    bool ok = false;
    if (value_->is_number_unsigned()) {
        v = value_->get<uint64_t>();
        ok = true;
    } else if (value_->is_string()) {
        ok = parseUnsigned(value_->get<std::string>(), v);
    }
    std::ostringstream range;
    range << "an integer from " << min << " to " << max << " (0x" << std::hex << std::uppercase
          << min << " to 0x" << max << ")";
    if (!ok) fail("expected " + range.str() + ", got " + describe(*value_));
    if (v < min || v > max) fail("expected " + range.str() + ", got " + describe(*value_));
    return v;
}

bool Node::boolean() const
{
    if (!value_->is_boolean()) fail("expected true or false, got " + describe(*value_));
    return value_->get<bool>();
}

std::string Node::string() const
{
    if (!value_->is_string()) fail("expected a string, got " + describe(*value_));
    return value_->get<std::string>();
}

std::vector<uint8_t> Node::bytes() const
{
    std::vector<uint8_t> out;
    if (value_->is_array()) {
        for (std::size_t i = 0; i < value_->size(); ++i) out.push_back(at(i).byte());
        return out;
    }
    if (!value_->is_string()) fail("expected bytes (an array or \"01 0a ff\"), got " + describe(*value_));
    std::istringstream in(value_->get<std::string>());
    std::string word;
    while (in >> word) {
        uint64_t v;
        std::string digits = word;
        if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
            digits = digits.substr(2);
        if (!parseUnsigned("0x" + digits, v) || v > 0xFF)
            fail("expected hex bytes such as \"01 0a ff\", got \"" + word + "\"");
        out.push_back(static_cast<uint8_t>(v));
    }
    return out;
}

std::vector<uint8_t> DeviceIdentity::responseData() const
{
    std::vector<uint8_t> d;
    tvx::wire::Appender(d)
        .u8(deviceId)
        .u8(deviceRevision)
        .u8(static_cast<uint8_t>((busy ? 0x80 : 0x00) | (firmwareMajor & 0x7F)))
        .u8(firmwareMinorBcd)
        .u8(ipmiVersionBcd)
        .u8(additionalSupport)
        .u24(manufacturerId & 0x0FFFFF) // 20 bits: the top four are reserved
        .u16(productId);
    if (auxFirmwareRevision) tvx::wire::Appender(d).bytes(*auxFirmwareRevision);
    return d;
}

namespace {

// "3.52" -> major 3, minor 0x52 (the minor revision is shown in BCD, two digits).
void parseFirmwareRevision(const Node &n, DeviceIdentity &d)
{
    std::string s = n.string();
    auto dot = s.find('.');
    uint64_t major, minor;
    const char *expect = "expected \"MAJOR.MINOR\" with MAJOR 0..127 and a two-digit MINOR, such as \"3.52\"";
    if (dot == std::string::npos || s.size() - dot - 1 != 2) n.fail(std::string(expect) + ", got \"" + s + "\"");
    std::string minorText = s.substr(dot + 1);
    if (!parseUnsigned(s.substr(0, dot), major) || major > 127 || !std::isdigit(static_cast<unsigned char>(minorText[0])) ||
        !std::isdigit(static_cast<unsigned char>(minorText[1])) || !parseUnsigned(minorText, minor))
        n.fail(std::string(expect) + ", got \"" + s + "\"");
    d.firmwareMajor = static_cast<uint8_t>(major);
    d.firmwareMinorBcd = static_cast<uint8_t>(((minorText[0] - '0') << 4) | (minorText[1] - '0'));
}

// "2.0" -> 0x02, "1.5" -> 0x51.
uint8_t parseIpmiVersion(const Node &n)
{
    std::string s = n.string();
    if (s.size() != 3 || !std::isdigit(static_cast<unsigned char>(s[0])) || s[1] != '.' ||
        !std::isdigit(static_cast<unsigned char>(s[2])))
        n.fail("expected an IPMI version such as \"2.0\" or \"1.5\", got \"" + s + "\"");
    return static_cast<uint8_t>(((s[2] - '0') << 4) | (s[0] - '0'));
}

// Additional device support: a byte, or a list of capability names.
uint8_t parseSupport(const Node &n)
{
    static constexpr const char *names[8] = {"sensor",          "sdr_repository", "sel",    "fru_inventory",
                                             "event_receiver",  "event_generator", "bridge", "chassis"};
    if (!n.json().is_array()) return n.byte();
    uint8_t bits = 0;
    for (std::size_t i = 0; i < n.size(); ++i) {
        Node item = n.at(i);
        std::string s = item.string();
        int found = -1;
        for (int b = 0; b < 8; ++b)
            if (s == names[b]) found = b;
        if (found < 0)
            item.fail("unknown capability \"" + s +
                      "\" (known: sensor, sdr_repository, sel, fru_inventory, event_receiver, "
                      "event_generator, bridge, chassis)");
        bits = static_cast<uint8_t>(bits | (1u << found));
    }
    return bits;
}

DeviceIdentity parseController(const Node &c)
{
    c.allowOnly({"device_id", "device_revision", "provides_device_sdrs", "firmware_revision", "device_busy",
                 "ipmi_version", "additional_device_support", "manufacturer_id", "product_id",
                 "aux_firmware_revision", "oem_iana", "max_response_length"});
    DeviceIdentity d;
    if (auto n = c.find("device_id")) d.deviceId = n->byte();
    uint8_t rev = 1;
    if (auto n = c.find("device_revision")) rev = static_cast<uint8_t>(n->integer(0, 15));
    bool sdrs = false;
    if (auto n = c.find("provides_device_sdrs")) sdrs = n->boolean();
    d.deviceRevision = static_cast<uint8_t>((sdrs ? 0x80 : 0x00) | rev);
    parseFirmwareRevision(c.at("firmware_revision"), d);
    if (auto n = c.find("device_busy")) d.busy = n->boolean();
    if (auto n = c.find("ipmi_version")) d.ipmiVersionBcd = parseIpmiVersion(*n);
    if (auto n = c.find("additional_device_support")) {
        d.additionalSupport = parseSupport(*n);
        d.chassisDevice = (d.additionalSupport & tvx::device_id::kChassisDevice) != 0;
    }
    d.manufacturerId = static_cast<uint32_t>(c.at("manufacturer_id").integer(0, 0x0FFFFF));
    d.productId = static_cast<uint16_t>(c.at("product_id").integer(0, 0xFFFF));
    if (auto n = c.find("aux_firmware_revision")) {
        if (!n->json().is_null()) {
            auto b = n->bytes();
            if (b.size() != 4) n->fail("expected exactly 4 bytes, got " + std::to_string(b.size()));
            d.auxFirmwareRevision = std::array<uint8_t, 4>{b[0], b[1], b[2], b[3]};
        }
    }
    return d;
}

} // namespace

DeviceIdentity parseDeviceIdentity(const Node &c) { return parseController(c); }

Fault parseFault(const Node &n)
{
    n.allowOnly({"netfn", "command", "match", "kind", "value", "count"});
    Fault f;
    f.netFn = static_cast<uint8_t>(n.at("netfn").integer(0, 0x3F));
    f.command = n.at("command").byte();
    if (auto m = n.find("match")) {
        f.match = m->bytes();
        if (f.match.size() > 16) m->fail("at most 16 bytes to match");
    }
    Node kind = n.at("kind");
    std::string k = kind.string();
    if (k == "completion_code") f.kind = Fault::Kind::CompletionCode;
    else if (k == "no_answer") f.kind = Fault::Kind::NoAnswer;
    else if (k == "short") f.kind = Fault::Kind::Short;
    else if (k == "long") f.kind = Fault::Kind::Long;
    else if (k == "garbled") f.kind = Fault::Kind::Garbled;
    else kind.fail("unknown fault kind \"" + k + "\" (known: completion_code, no_answer, short, long, garbled)");
    if (auto v = n.find("value")) f.value = v->byte();
    else if (f.kind == Fault::Kind::CompletionCode) n.fail("missing \"value\" (the completion code)");
    if (f.kind == Fault::Kind::CompletionCode && f.value == 0) n.at("value").fail("a completion-code fault needs a non-zero code");
    if (auto c = n.find("count")) f.count = static_cast<uint32_t>(c->integer(0, 0xFFFFFFFF));
    return f;
}

std::size_t nestedTooDeep(std::string_view text, std::size_t maxDepth)
{
    // Jumps from one character that matters to the next: a document is mostly names, numbers
    // and blanks.
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t i = 0; (i = text.find_first_of(inString ? "\\\"" : "\"[]{}", i)) != std::string_view::npos; ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') ++i;
            else inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxDepth) return i;
        } else if (depth > 0) {
            --depth;
        }
    }
    return std::string_view::npos;
}

Profile parseProfile(const std::string &text, const std::string &displayName)
{
    Profile p;
    p.file = displayName;
    p.name = baseName(displayName);
    // Turns a byte offset into line and column, which an editor can jump to.
    auto place = [&](std::size_t byte) {
        std::size_t line = 1, col = 1;
        for (std::size_t i = 0; i < byte && i < text.size(); ++i) {
            if (text[i] == '\n') {
                ++line;
                col = 1;
            } else {
                ++col;
            }
        }
        return displayName + ":" + std::to_string(line) + ":" + std::to_string(col) + ": ";
    };
    if (text.size() > kMaxProfileBytes)
        throw ProfileError(displayName + ": the machine profile is larger than " +
                           std::to_string(kMaxProfileBytes >> 20) + " MiB");
    // Values nested deeper than any profile needs would only cost stack further on.
    if (std::size_t at = nestedTooDeep(text, kMaxProfileDepth); at != std::string_view::npos)
        throw ProfileError(place(at) + "nested deeper than " + std::to_string(kMaxProfileDepth) + " levels");
    try {
        p.document = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error &e) {
        std::string detail = e.what();
        auto pos = detail.find("syntax error");
        if (pos != std::string::npos) detail = detail.substr(pos);
        throw ProfileError(place(e.byte ? e.byte - 1 : 0) + detail);
    }
    Node root = p.root();
    root.allowOnly({"description", "controller", "faults", "sdr", "sensors", "fru_locators", "mc_locators",
                    "components", "fan_speed_limits", "chassis", "leds", "config_space", "console", "lan", "sel", "event_texts", "fru",
                    "processors", "memory", "pci_slots", "languages", "iel", "host_agent", "eeprom_info",
                    "component_states", "port_functions", "satellites"});
    if (auto d = root.find("description")) p.description = d->string();
    Node controller = root.at("controller");
    p.device = parseController(controller);
    if (auto n = controller.find("oem_iana")) p.oemIana = static_cast<uint32_t>(n->integer(0, 0xFFFFFF));
    // Small enough for the smallest controllers, large enough to read an SDR header in one go.
    if (auto n = controller.find("max_response_length")) p.maxResponseLength = n->integer(12, 1024);
    if (auto faults = root.find("faults")) {
        for (std::size_t i = 0; i < faults->size(); ++i) p.faults.push_back(parseFault(faults->at(i)));
    }
    p.settings = parseMachineSettings(root);
    return p;
}

Profile loadProfile(const std::string &path)
{
    auto fail = [&](const std::string &why) { return ProfileError(path + ": cannot read the machine profile: " + why); };
    // Not blocking: a FIFO is refused below rather than waited on.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) throw fail(std::strerror(errno));
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{fd};
    struct stat st{};
    if (fstat(fd, &st) != 0) throw fail(std::strerror(errno));
    if (S_ISDIR(st.st_mode)) throw fail(std::strerror(EISDIR));
    if (!S_ISREG(st.st_mode)) throw fail("not a regular file");
    if (static_cast<uint64_t>(st.st_size) > kMaxProfileBytes)
        throw fail("larger than " + std::to_string(kMaxProfileBytes >> 20) + " MiB");
    // Never more than the limit, whatever the file does meanwhile.
    std::string text;
    text.reserve(static_cast<std::size_t>(st.st_size));
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw fail(std::strerror(errno));
        if (n == 0) break;
        text.append(buf, static_cast<std::size_t>(n));
        if (text.size() > kMaxProfileBytes) throw fail("larger than " + std::to_string(kMaxProfileBytes >> 20) + " MiB");
    }
    return parseProfile(text, path);
}

} // namespace tvxsim
