#include "hardware.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sys/stat.h>

#include "controller.h"
#include "sdr.h"
#include "tvx/spd.h"

namespace tvxsim {
namespace {

constexpr uint8_t kProcessorSensorType = 0x07;
constexpr uint16_t kProcessorPresent = 1u << 7; // sensor-specific offset 7: presence detected
constexpr std::size_t kMaxModelName = 60;        // what a 64-byte answer buffer holds after the frame
constexpr std::size_t kMaxSpdSize = tvx::spd::kMaxSize; // the largest JEDEC SPD EEPROM (DDR5)
constexpr uint32_t kGigabyteFlag = 0x8000;
constexpr std::size_t kMaxLanguages = 0xFF;

std::string textOf(const Node &n, std::size_t maxLength, const char *what)
{
    std::string s = n.string();
    if (s.size() > maxLength)
        n.fail(std::string("a ") + what + " has at most " + std::to_string(maxLength) + " characters, got " +
               std::to_string(s.size()));
    for (char c : s)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E)
            n.fail("\"" + s + "\": only printable ASCII characters fit a " + what);
    return s;
}

template <typename T> T number(const Node &obj, const char *key, uint64_t max, T fallback)
{
    auto n = obj.find(key);
    return n ? static_cast<T>(n->integer(0, max)) : fallback;
}

uint8_t manufacturerCode(const Node &n)
{
    if (!n.json().is_string()) return n.byte();
    std::string s = n.string();
    if (s == "Intel") return 1;
    if (s == "AMD") return 2;
    return n.byte(); // "0x05", "7": a code of its own
}

Processor parseProcessor(const Node &n, const SdrModel &sdr)
{
    n.allowOnly({"socket", "sensor", "present", "manufacturer", "model", "signature", "family", "speed_mhz",
                 "cache_kb", "cores", "enabled_cores", "threads_per_core", "enabled_threads_per_core", "status",
                 "alt_status"});
    Processor p;
    p.pointer = n.path();
    p.socket = textOf(n.at("socket"), 16, "socket label");
    Node sensorNode = n.at("sensor");
    p.sensor = sensorNode.byte();
    if (auto v = n.find("present")) p.present = v->boolean();
    const SensorDef *sensor = sdr.find(kControllerAddress, 0, p.sensor);
    if (!sensor || sensor->sensorType != kProcessorSensorType)
        sensorNode.fail("expected the number of a processor sensor (type 0x07) of \"sensors\", got " +
                        sensorNode.json().dump());
    if (((sensor->state & kProcessorPresent) != 0) != p.present)
        sensorNode.fail(std::string("the sensor's state ") + (p.present ? "lacks" : "has") +
                        " the presence bit (0x0080), but the processor is " + (p.present ? "present" : "absent"));
    p.status = number<uint8_t>(n, "status", 0xFF, p.present ? 1 : 0);
    p.altStatus = number<uint8_t>(n, "alt_status", 0xFF, p.status);
    if (!p.present) {
        for (const char *key : {"manufacturer", "model", "signature", "family", "speed_mhz", "cache_kb", "cores",
                                "enabled_cores", "threads_per_core", "enabled_threads_per_core"})
            if (n.has(key)) n.at(key).fail("an absent processor has no details");
        return p;
    }
    p.manufacturer = manufacturerCode(n.at("manufacturer"));
    p.model = textOf(n.at("model"), kMaxModelName, "model name");
    p.signature = static_cast<uint32_t>(n.at("signature").integer(0, 0xFFFFFFFF));
    p.family = static_cast<uint16_t>(n.at("family").integer(0, 0xFFFF));
    Node speed = n.at("speed_mhz");
    speed.allowOnly({"current", "max", "bus"});
    p.currentMhz = static_cast<uint16_t>(speed.at("current").integer(0, 0xFFFF));
    p.maxMhz = number<uint16_t>(speed, "max", 0xFFFF, p.currentMhz);
    p.busMhz = number<uint16_t>(speed, "bus", 0xFFFF, 100);
    Node cache = n.at("cache_kb");
    cache.allowOnly({"l1", "l2", "l3"});
    const char *levels[3] = {"l1", "l2", "l3"};
    for (int i = 0; i < 3; ++i) p.cacheKb[i] = number<uint16_t>(cache, levels[i], 0xFFFF, 0);
    Node cores = n.at("cores");
    p.cores = static_cast<uint8_t>(cores.integer(1, 0xFF));
    p.enabledCores = number<uint8_t>(n, "enabled_cores", p.cores, p.cores);
    p.threadsPerCore = number<uint8_t>(n, "threads_per_core", 0xFF, 1);
    p.enabledThreadsPerCore = number<uint8_t>(n, "enabled_threads_per_core", p.threadsPerCore, p.threadsPerCore);
    return p;
}

std::string directoryOf(const std::string &file)
{
    auto slash = file.find_last_of('/');
    return slash == std::string::npos ? "" : file.substr(0, slash + 1);
}

std::vector<uint8_t> readImageFile(const Node &n, const Profile &profile)
{
    std::string name = n.string();
    std::string path = !name.empty() && name[0] == '/' ? name : directoryOf(profile.file) + name;
    struct stat st{};
    if (stat(path.c_str(), &st) != 0) n.fail(path + ": cannot read the SPD image: " + std::strerror(errno));
    if (!S_ISREG(st.st_mode)) n.fail(path + ": the SPD image is not a regular file");
    if (st.st_size > static_cast<off_t>(kMaxSpdSize))
        n.fail(path + ": an SPD image has at most " + std::to_string(kMaxSpdSize) + " bytes, this one " +
               std::to_string(st.st_size));
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) n.fail(path + ": cannot read the SPD image");
    return image;
}

struct Generation {
    const char *name;
    uint8_t type;
};
constexpr Generation kGenerations[] = {{"DDR3", tvx::spd::kDdr3}, {"DDR4", tvx::spd::kDdr4}, {"DDR5", tvx::spd::kDdr5}};

// An image built by the JEDEC layouts from a few facts of the module and its capacity.
std::vector<uint8_t> generateSpd(const Node &n, uint32_t capacityMb)
{
    n.allowOnly({"type", "module", "speed", "ecc", "lowest_mv", "manufacturer", "part_number"});
    Node typeNode = n.at("type");
    std::string typeName = typeNode.string();
    tvx::spd::Module spec{};
    for (const Generation &g : kGenerations)
        if (typeName == g.name) spec.type = g.type;
    if (spec.type == 0) typeNode.fail("expected \"DDR3\", \"DDR4\" or \"DDR5\", got \"" + typeName + "\"");
    Node moduleNode = n.at("module");
    const char *const *names = tvx::spd::moduleTypeNames(spec.type);
    if (moduleNode.json().is_string()) {
        std::string name = moduleNode.string(), known;
        for (uint8_t code = 0; code < 16; ++code) {
            if (!names[code]) continue;
            if (name == names[code]) spec.moduleType = code;
            known += (known.empty() ? "" : ", ") + std::string(names[code]);
        }
        if (spec.moduleType == 0) moduleNode.fail("unknown " + typeName + " module type \"" + name + "\" (known: " + known + ")");
    } else {
        spec.moduleType = moduleNode.byte(); // a code of byte 3 as it stands
    }
    spec.mts = static_cast<uint16_t>(n.at("speed").integer(1, 0xFFFF));
    spec.capacityMb = capacityMb;
    if (auto v = n.find("ecc")) spec.ecc = v->boolean();
    if (auto v = n.find("lowest_mv")) spec.lowestMv = static_cast<uint16_t>(v->integer(0, 0xFFFF));
    if (auto v = n.find("manufacturer")) {
        std::vector<uint8_t> id = v->bytes();
        if (id.size() != 2) v->fail("expected the two JEP106 bytes as stored (continuation count, code), such as \"80 ce\"");
        spec.manufacturer = static_cast<uint16_t>(tvx::wire::loadLe(id.data(), 2));
    }
    std::string part;
    if (auto v = n.find("part_number")) part = textOf(*v, 30, "part number");
    spec.partNumber = part.c_str();
    std::vector<uint8_t> image(tvx::spd::kMaxSize, 0);
    std::size_t size = tvx::spd::encode(spec, image);
    if (size == 0)
        n.fail("no " + typeName + " module of " + std::to_string(capacityMb) + " MB at " + std::to_string(spec.mts) +
               " MT/s can be described: the speed must be one of the generation's speed bins, the capacity one that 1, "
               "2 or 4 ranks of x4, x8 or x16 devices give, and a DDR3 lowest_mv 1500, 1350 or 1250");
    image.resize(size);
    return image;
}

// The SPD image: generated from a description, a file (next to the profile unless the path is
// absolute), or its bytes.
std::vector<uint8_t> parseSpd(const Node &n, const Profile &profile, uint32_t capacityMb)
{
    std::vector<uint8_t> image;
    if (n.json().is_object() && n.has("file")) {
        n.allowOnly({"file"});
        image = readImageFile(n.at("file"), profile);
    } else if (n.json().is_object()) {
        image = generateSpd(n, capacityMb);
    } else {
        image = n.bytes();
    }
    if (image.empty()) n.fail("an SPD image has at least one byte");
    if (image.size() > kMaxSpdSize)
        n.fail("an SPD image has at most " + std::to_string(kMaxSpdSize) + " bytes, got " +
               std::to_string(image.size()));
    return image;
}

// Capacities below 32 GB go as MB, larger ones as whole GB with the flag bit.
uint16_t capacityField(const Node &n)
{
    uint64_t mb = n.integer(1, 0x7FFFull * 1024);
    if (mb < kGigabyteFlag) return static_cast<uint16_t>(mb);
    if (mb % 1024 != 0) n.fail("a capacity of 32768 MB or more is a whole number of GB (a multiple of 1024)");
    return static_cast<uint16_t>(kGigabyteFlag | mb / 1024);
}

MemoryModule parseModule(const Node &n, const Profile &profile)
{
    n.allowOnly({"slot", "empty", "status", "config", "approved", "frequency", "capacity_mb", "spd"});
    MemoryModule m;
    m.pointer = n.path();
    m.slot = textOf(n.at("slot"), 16, "slot label");
    if (auto v = n.find("empty")) m.present = !v->boolean();
    m.status = number<uint8_t>(n, "status", 0xFF, m.present ? 1 : 0);
    m.config = number<uint8_t>(n, "config", 0xFF, 0);
    if (!m.present) {
        for (const char *key : {"approved", "frequency", "capacity_mb", "spd"})
            if (n.has(key)) n.at(key).fail("an empty slot holds no module");
        return m;
    }
    if (auto v = n.find("approved")) m.approved = v->boolean();
    m.frequency = static_cast<uint16_t>(n.at("frequency").integer(0, 0xFFFF));
    Node capacity = n.at("capacity_mb");
    m.capacity = capacityField(capacity);
    if (auto v = n.find("spd")) m.spd = parseSpd(*v, profile, static_cast<uint32_t>(capacity.integer(1, 0x7FFFull * 1024)));
    return m;
}

HardwareModel::Memory parseMemory(const Node &n, const Profile &profile)
{
    n.allowOnly({"policy", "modules"});
    HardwareModel::Memory memory;
    memory.policy = number<uint8_t>(n, "policy", 0xFF, 0);
    Node modules = n.at("modules");
    if (modules.size() == 0 || modules.size() > 256) modules.fail("expected 1 to 256 memory slots");
    for (std::size_t i = 0; i < modules.size(); ++i) memory.modules.push_back(parseModule(modules.at(i), profile));
    return memory;
}

std::vector<PciSlotEntry> parsePci(const Node &n)
{
    std::vector<PciSlotEntry> out;
    if (n.size() > 0xFFFE) n.fail("a PCI slot table has at most 65534 entries");
    for (std::size_t i = 0; i < n.size(); ++i) {
        Node e = n.at(i);
        e.allowOnly({"slot", "vendor", "device", "name"});
        PciSlotEntry entry;
        entry.slot = e.at("slot").byte();
        if (auto name = e.find("name")) textOf(*name, 64, "device description");
        auto vendor = e.find("vendor"), device = e.find("device");
        if (vendor.has_value() != device.has_value())
            (vendor ? *vendor : *device).fail("a device in a slot has both \"vendor\" and \"device\" (an empty slot neither)");
        if (vendor) {
            entry.vendor = static_cast<uint16_t>(vendor->integer(0, 0xFFFE));
            entry.device = static_cast<uint16_t>(device->integer(0, 0xFFFE));
        }
        out.push_back(entry);
    }
    return out;
}

std::vector<uint16_t> parseLanguages(const Node &n)
{
    std::vector<uint16_t> out;
    if (n.size() > kMaxLanguages) n.fail("at most 255 languages");
    for (std::size_t i = 0; i < n.size(); ++i) out.push_back(static_cast<uint16_t>(n.at(i).integer(1, 0xFFFF)));
    return out;
}

} // namespace

HardwareModel parseHardwareModel(const Profile &profile, const SdrModel &sdr)
{
    HardwareModel model;
    Node root = profile.root();
    if (auto list = root.find("processors")) {
        std::vector<Processor> processors;
        std::map<uint8_t, std::string> sensors;
        if (list->size() > 256) list->fail("at most 256 processor sockets");
        for (std::size_t i = 0; i < list->size(); ++i) {
            Processor p = parseProcessor(list->at(i), sdr);
            if (auto other = sensors.find(p.sensor); other != sensors.end())
                list->at(i).at("sensor").fail("the sensor already belongs to " + other->second);
            sensors[p.sensor] = p.pointer;
            processors.push_back(std::move(p));
        }
        model.processors = std::move(processors);
    }
    if (auto memory = root.find("memory")) model.memory = parseMemory(*memory, profile);
    if (auto pci = root.find("pci_slots")) model.pciSlots = parsePci(*pci);
    if (auto languages = root.find("languages")) model.languages = parseLanguages(*languages);
    return model;
}

std::shared_ptr<const HardwareModel> hardwareModel(Controller &controller)
{
    std::shared_ptr<const SdrModel> sdr = sdrModel(controller);
    return controller.attachedOrParsed<HardwareModel>(
        "hardware", [&sdr](const Profile &profile) { return parseHardwareModel(profile, *sdr); });
}

} // namespace tvxsim
