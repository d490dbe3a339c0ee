// The SDR repository built from the profile: every record in the binary layout a controller
// stores (so that any IPMI client reads its fields by position), and the sensors' present
// values.
#include "sdr.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "controller.h"
#include "tvx/hex_string.h"
#include "tvx/records.h"

namespace tvxsim {
namespace {

namespace sdr = tvx::sdr;
namespace wire = tvx::wire;

constexpr uint8_t kSdrVersion = 0x51;
constexpr uint8_t kFullSensorRecord = sdr::kFullSensor;
constexpr uint8_t kCompactSensorRecord = sdr::kCompactSensor;
constexpr uint8_t kFruDeviceLocator = sdr::kFruDeviceLocator;
constexpr uint8_t kMcDeviceLocator = sdr::kMcDeviceLocator;
constexpr std::size_t kMaxIdString = sdr::full::kIdString.size;
constexpr uint16_t kMaxRecords = 0xFFFE; // 0xFFFF stands for "the last record" / "no more"

std::string hex(unsigned v, int digits = 2) { return tvx::hexNumber(v, digits); }

bool parseSigned(const std::string &text, int64_t &out)
{
    std::string t = text;
    bool negative = !t.empty() && t[0] == '-';
    if (negative) t = t.substr(1);
    int base = 10;
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
        base = 16;
        t = t.substr(2);
    }
    if (t.empty() || t.size() > 12) return false;
    int64_t v = 0;
    for (char c : t) {
        int d;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else return false;
        v = v * base + d;
    }
    out = negative ? -v : v;
    return true;
}

// An integer that may be negative: a JSON number or a string ("-2", "0x1f").
int64_t signedInteger(const Node &n, int64_t min, int64_t max, const std::string &what = "an integer")
{
    const nlohmann::json &j = n.json();
    int64_t v = 0;
    bool ok = false;
    if (j.is_number_unsigned()) {
        uint64_t u = j.get<uint64_t>();
        ok = u <= static_cast<uint64_t>(INT64_MAX);
        v = static_cast<int64_t>(u);
    } else if (j.is_number_integer()) {
        v = j.get<int64_t>();
        ok = true;
    } else if (j.is_string()) {
        ok = parseSigned(j.get<std::string>(), v);
    }
    if (!ok || v < min || v > max) {
        std::string got = j.dump();
        if (got.size() > 40) got = got.substr(0, 37) + "...";
        n.fail("expected " + what + " from " + std::to_string(min) + " to " + std::to_string(max) + ", got " + got);
    }
    return v;
}

// A raw reading byte. Signed formats also take a negative number, stored in that format.
uint8_t rawValue(const Node &n, AnalogFormat f)
{
    if (f == AnalogFormat::TwosComplement) {
        int64_t v = signedInteger(n, -128, 255, "a raw byte (0 to 255) or a negative two's complement value,");
        return static_cast<uint8_t>(v & 0xFF);
    }
    if (f == AnalogFormat::OnesComplement) {
        int64_t v = signedInteger(n, -127, 255, "a raw byte (0 to 255) or a negative ones' complement value,");
        return v >= 0 ? static_cast<uint8_t>(v) : static_cast<uint8_t>(~static_cast<uint8_t>(-v));
    }
    return static_cast<uint8_t>(signedInteger(n, 0, 255, "a raw byte"));
}

uint16_t u16(const Node &n, uint64_t max = 0xFFFF) { return static_cast<uint16_t>(n.integer(0, max)); }

bool flag(const Node &obj, const char *key, bool fallback)
{
    if (auto n = obj.find(key)) return n->boolean();
    return fallback;
}

uint8_t byteOr(const Node &obj, const char *key, uint8_t fallback)
{
    if (auto n = obj.find(key)) return n->byte();
    return fallback;
}

// The ID string: up to 16 printable ASCII characters, stored as 8-bit ASCII.
std::string idString(const Node &obj, const char *key, std::size_t maxLength = kMaxIdString)
{
    Node n = obj.at(key);
    std::string s = n.string();
    if (s.size() > maxLength)
        n.fail("\"" + s + "\" has " + std::to_string(s.size()) + " characters; at most " + std::to_string(maxLength) +
               " fit");
    for (char c : s)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E)
            n.fail("\"" + s + "\": only printable ASCII characters fit an ID string");
    return s;
}

void appendIdString(std::vector<uint8_t> &r, const std::string &s)
{
    // Type 11b: 8-bit ASCII + Latin 1.
    wire::Appender(r)
        .u8(static_cast<uint8_t>(0xC0 | s.size()))
        .bytes({reinterpret_cast<const uint8_t *>(s.data()), s.size()});
}

std::vector<uint8_t> header(uint16_t id, uint8_t type)
{
    std::vector<uint8_t> r;
    wire::Appender(r).u16(id).u8(kSdrVersion).u8(type).u8(0);
    return r;
}

// The header's length byte: what follows the header.
void finish(std::vector<uint8_t> &r)
{
    wire::Appender(r).put(sdr::kLength, static_cast<uint8_t>(r.size() - sdr::kHeaderSize));
}

void put16(std::vector<uint8_t> &r, uint16_t v) { wire::Appender(r).u16(v); }

AnalogFormat parseFormat(const Node &n)
{
    std::string s = n.string();
    if (s == "unsigned") return AnalogFormat::Unsigned;
    if (s == "ones_complement") return AnalogFormat::OnesComplement;
    if (s == "twos_complement") return AnalogFormat::TwosComplement;
    if (s == "none") return AnalogFormat::None;
    n.fail("unknown analog data format \"" + s + "\" (known: unsigned, ones_complement, twos_complement, none)");
}

// Sensor units 1 (without the format), 2 and 3.
std::array<uint8_t, 3> parseUnits(const Node &sensor)
{
    std::array<uint8_t, 3> u{0, 0, 0};
    auto n = sensor.find("units");
    if (!n) return u;
    n->allowOnly({"base", "modifier", "modifier_use", "rate", "percentage"});
    uint8_t use = 0;
    if (auto m = n->find("modifier_use")) {
        std::string s = m->string();
        if (s == "none") use = 0;
        else if (s == "divide") use = 1;
        else if (s == "multiply") use = 2;
        else m->fail("unknown modifier use \"" + s + "\" (known: none, divide, multiply)");
    }
    uint8_t rate = 0;
    if (auto r = n->find("rate")) rate = static_cast<uint8_t>(r->integer(0, 6));
    u[0] = static_cast<uint8_t>(rate << 3 | use << 1 | (flag(*n, "percentage", false) ? 1 : 0));
    u[1] = byteOr(*n, "base", 0);
    u[2] = byteOr(*n, "modifier", 0);
    return u;
}

uint8_t thresholdMask(const Node &n, const SensorDef &s, bool mustBePresent)
{
    uint8_t mask = 0;
    for (std::size_t i = 0; i < n.size(); ++i) {
        Node item = n.at(i);
        std::string name = item.string();
        int found = -1;
        for (int t = 0; t < 6; ++t)
            if (name == kThresholdNames[t]) found = t;
        if (found < 0) item.fail("unknown threshold \"" + name + "\" (known: lnc, lc, lnr, unc, uc, unr)");
        if (mustBePresent && !s.thresholds[static_cast<std::size_t>(found)])
            item.fail("threshold \"" + name + "\" is readable but has no value in \"thresholds\"");
        mask = static_cast<uint8_t>(mask | 1u << found);
    }
    return mask;
}

void parseThresholds(const Node &n, SensorDef &s)
{
    n.allowOnly({"lnc", "lc", "lnr", "unc", "uc", "unr"});
    for (int t = 0; t < 6; ++t)
        if (auto v = n.find(kThresholdNames[t])) s.thresholds[static_cast<std::size_t>(t)] = rawValue(*v, s.format);
    // A controller's thresholds stand in order: lnr <= lc <= lnc < unc <= uc <= unr.
    static constexpr int order[6] = {kLnr, kLc, kLnc, kUnc, kUc, kUnr};
    int prev = -1;
    for (int t : order) {
        if (!s.thresholds[static_cast<std::size_t>(t)]) continue;
        if (prev >= 0) {
            int a = numericValue(s.format, *s.thresholds[static_cast<std::size_t>(prev)]);
            int b = numericValue(s.format, *s.thresholds[static_cast<std::size_t>(t)]);
            bool upperAfterLower = t >= kUnc && prev < kUnc;
            if (b < a || (upperAfterLower && b == a))
                n.at(kThresholdNames[t])
                    .fail(std::string(kThresholdNames[t]) + " (" + std::to_string(b) + ") must lie " +
                          (upperAfterLower ? "above " : "at or above ") + kThresholdNames[prev] + " (" +
                          std::to_string(a) + ")");
        }
        prev = t;
    }
}

// One sensor record (full or compact) and the sensor's definition.
SensorDef parseSensor(const Node &n, uint16_t id, uint8_t defaultOwner, std::vector<uint8_t> &record)
{
    n.allowOnly({"record",        "number",         "lun",        "channel",          "owner",
                 "entity",        "instance",       "logical_entity", "type",         "event_reading_type",
                 "name",          "format",         "units",      "reading",          "state",
                 "reading_mask",  "scanning",       "unavailable", "events",          "powered_by_host",
                 "initialization", "capabilities",  "assertion_mask", "deassertion_mask", "thresholds",
                 "readable_thresholds", "settable_thresholds", "hysteresis", "direction", "oem",
                 "m",             "b",              "b_exp",      "r_exp",            "linearization",
                 "tolerance",     "accuracy",       "accuracy_exp", "nominal",        "normal_max",
                 "normal_min",    "sensor_max",     "sensor_min"});
    SensorDef s;
    s.pointer = n.path();
    Node kind = n.at("record");
    std::string k = kind.string();
    bool full = k == "full";
    if (!full && k != "compact") kind.fail("unknown record kind \"" + k + "\" (known: full, compact)");
    s.number = static_cast<uint8_t>(n.at("number").integer(0, 0xFE)); // 0xFF is reserved
    if (auto v = n.find("lun")) s.lun = static_cast<uint8_t>(v->integer(0, 3));
    uint8_t channel = 0;
    if (auto v = n.find("channel")) channel = static_cast<uint8_t>(v->integer(0, 15));
    uint8_t owner = byteOr(n, "owner", defaultOwner);
    s.owner = owner;
    uint8_t entity = n.at("entity").byte();
    uint8_t instance = static_cast<uint8_t>(n.at("instance").integer(0, 0x7F));
    if (flag(n, "logical_entity", false)) instance = static_cast<uint8_t>(instance | 0x80);
    s.sensorType = n.at("type").byte();
    Node et = n.at("event_reading_type");
    s.eventType = et.byte();
    if (s.eventType > 0x0C && s.eventType < 0x6F)
        et.fail("event/reading type " + hex(s.eventType) +
                " is reserved (0x01 threshold, 0x02-0x0C generic, 0x6F sensor-specific, 0x70-0x7F OEM)");
    s.name = idString(n, "name");
    bool threshold = s.thresholdBased();
    s.format = threshold ? AnalogFormat::Unsigned : AnalogFormat::None;
    if (auto v = n.find("format")) s.format = parseFormat(*v);
    std::array<uint8_t, 3> units = parseUnits(n);
    units[0] = static_cast<uint8_t>(units[0] | static_cast<uint8_t>(s.format) << 6);

    auto refuse = [&](const char *key, const std::string &why) {
        if (auto v = n.find(key)) v->fail(why);
    };
    if (!full)
        for (const char *key : {"m", "b", "b_exp", "r_exp", "linearization", "tolerance", "accuracy", "accuracy_exp",
                                "nominal", "normal_max", "normal_min", "sensor_max", "sensor_min"})
            refuse(key, std::string("\"") + key + "\" belongs to full sensor records only (this one is compact)");
    if (threshold) {
        refuse("state", "a threshold-based sensor's state follows from its reading and thresholds");
        refuse("reading_mask", "a threshold-based sensor reports the comparisons of the thresholds it has");
    } else {
        for (const char *key : {"thresholds", "readable_thresholds", "settable_thresholds", "hysteresis"})
            refuse(key, std::string("\"") + key + "\" applies to threshold-based sensors (event_reading_type 0x01)");
    }

    if (auto v = n.find("reading")) s.reading = rawValue(*v, s.format);
    s.scanning = flag(n, "scanning", true);
    s.unavailable = flag(n, "unavailable", false);
    s.events = flag(n, "events", true);
    s.poweredByHost = flag(n, "powered_by_host", false);

    uint16_t assertion = 0, deassertion = 0, readingMask = 0;
    uint8_t settable = 0;
    if (threshold) {
        if (auto v = n.find("thresholds")) parseThresholds(*v, s);
        uint8_t present = 0;
        for (int t = 0; t < 6; ++t)
            if (s.thresholds[static_cast<std::size_t>(t)]) present = static_cast<uint8_t>(present | 1u << t);
        s.readableMask = present;
        if (auto v = n.find("readable_thresholds")) s.readableMask = thresholdMask(*v, s, true);
        if (auto v = n.find("settable_thresholds")) settable = thresholdMask(*v, s, false);
        if (auto h = n.find("hysteresis")) {
            h->allowOnly({"positive", "negative"});
            s.hysteresisPositive = byteOr(*h, "positive", 0);
            s.hysteresisNegative = byteOr(*h, "negative", 0);
        }
        // Events: going low through the lower thresholds, going high through the upper ones.
        uint16_t events = 0;
        if (present & 1u << kLnc) events |= 1u << 0;
        if (present & 1u << kLc) events |= 1u << 2;
        if (present & 1u << kLnr) events |= 1u << 4;
        if (present & 1u << kUnc) events |= 1u << 7;
        if (present & 1u << kUc) events |= 1u << 9;
        if (present & 1u << kUnr) events |= 1u << 11;
        uint16_t assertEvents = events, deassertEvents = events;
        if (auto v = n.find("assertion_mask")) assertEvents = u16(*v, 0x0FFF);
        if (auto v = n.find("deassertion_mask")) deassertEvents = u16(*v, 0x0FFF);
        // Bits 14..12: which comparisons Get Sensor Reading returns (lower ones with the
        // assertion mask, upper ones with the deassertion mask).
        assertion = static_cast<uint16_t>(assertEvents | (present & 0x07) << 12);
        deassertion = static_cast<uint16_t>(deassertEvents | (present >> 3 & 0x07) << 12);
        readingMask = static_cast<uint16_t>(s.readableMask | settable << 8);
    } else {
        if (auto v = n.find("state")) s.state = u16(*v, 0x7FFF);
        readingMask = 0x7FFF;
        if (auto v = n.find("reading_mask")) {
            readingMask = u16(*v, 0x7FFF);
            if (s.state & ~readingMask)
                n.at("state").fail("state " + hex(s.state, 4) + " has bits outside reading_mask " +
                                   hex(readingMask, 4));
        }
        assertion = deassertion = readingMask;
        if (auto v = n.find("assertion_mask")) assertion = u16(*v, 0x7FFF);
        if (auto v = n.find("deassertion_mask")) deassertion = u16(*v, 0x7FFF);
    }

    uint8_t init = static_cast<uint8_t>(0x40 | (s.events ? 0x22 : 0x00) | (s.scanning ? 0x01 : 0x00));
    if (auto v = n.find("initialization")) init = v->byte();
    uint8_t caps = 0x40; // auto re-arm
    if (threshold) {
        uint8_t access = settable ? 2 : s.readableMask ? 1 : 0;
        caps = static_cast<uint8_t>(caps | 1 << 4 | access << 2); // hysteresis readable
    }
    if (auto v = n.find("capabilities")) caps = v->byte();
    uint8_t direction = 0;
    if (auto v = n.find("direction")) direction = static_cast<uint8_t>(v->integer(0, 3));

    record = header(id, full ? kFullSensorRecord : kCompactSensorRecord);
    record.insert(record.end(), {owner, static_cast<uint8_t>(channel << 4 | s.lun), s.number, entity, instance, init,
                                 caps, s.sensorType, s.eventType});
    put16(record, assertion);
    put16(record, deassertion);
    put16(record, readingMask);
    record.insert(record.end(), units.begin(), units.end());
    if (full) {
        uint8_t linearization = 0;
        if (auto v = n.find("linearization")) {
            linearization = static_cast<uint8_t>(v->integer(0, 0x7F));
            if (linearization > 0x0B && linearization < 0x70)
                v->fail("linearization " + hex(linearization) +
                        " is reserved (0x00-0x0B, or 0x70-0x7F non-linear OEM)");
        }
        int m = 1, b = 0, bExp = 0, rExp = 0;
        if (auto v = n.find("m")) m = static_cast<int>(signedInteger(*v, -512, 511));
        if (auto v = n.find("b")) b = static_cast<int>(signedInteger(*v, -512, 511));
        if (auto v = n.find("b_exp")) bExp = static_cast<int>(signedInteger(*v, -8, 7));
        if (auto v = n.find("r_exp")) rExp = static_cast<int>(signedInteger(*v, -8, 7));
        uint8_t tolerance = 0, accuracyExp = 0;
        uint16_t accuracy = 0;
        if (auto v = n.find("tolerance")) tolerance = static_cast<uint8_t>(v->integer(0, 63));
        if (auto v = n.find("accuracy")) accuracy = static_cast<uint16_t>(v->integer(0, 1023));
        if (auto v = n.find("accuracy_exp")) accuracyExp = static_cast<uint8_t>(v->integer(0, 3));
        unsigned mBits = static_cast<unsigned>(m) & 0x3FF, bBits = static_cast<unsigned>(b) & 0x3FF;
        record.push_back(linearization);
        record.push_back(static_cast<uint8_t>(mBits));
        record.push_back(static_cast<uint8_t>((mBits >> 8) << 6 | tolerance));
        record.push_back(static_cast<uint8_t>(bBits));
        record.push_back(static_cast<uint8_t>((bBits >> 8) << 6 | (accuracy & 0x3F)));
        record.push_back(static_cast<uint8_t>((accuracy >> 6) << 4 | accuracyExp << 2 | direction));
        record.push_back(
            static_cast<uint8_t>((static_cast<unsigned>(rExp) & 0x0F) << 4 | (static_cast<unsigned>(bExp) & 0x0F)));
        bool isSigned = s.format == AnalogFormat::OnesComplement || s.format == AnalogFormat::TwosComplement;
        uint8_t flags = 0;
        uint8_t nominal = 0, normalMax = 0, normalMin = 0;
        uint8_t sensorMax = isSigned ? 0x7F : 0xFF, sensorMin = isSigned ? 0x80 : 0x00;
        if (s.format == AnalogFormat::OnesComplement) sensorMin = 0x80; // -127
        if (auto v = n.find("nominal")) nominal = rawValue(*v, s.format), flags |= 0x01;
        if (auto v = n.find("normal_max")) normalMax = rawValue(*v, s.format), flags |= 0x02;
        if (auto v = n.find("normal_min")) normalMin = rawValue(*v, s.format), flags |= 0x04;
        if (auto v = n.find("sensor_max")) sensorMax = rawValue(*v, s.format);
        if (auto v = n.find("sensor_min")) sensorMin = rawValue(*v, s.format);
        record.insert(record.end(), {flags, nominal, normalMax, normalMin, sensorMax, sensorMin});
        for (int t : {kUnr, kUc, kUnc, kLnr, kLc, kLnc})
            record.push_back(s.thresholds[static_cast<std::size_t>(t)].value_or(0));
        record.push_back(s.hysteresisPositive);
        record.push_back(s.hysteresisNegative);
        record.insert(record.end(), {0, 0});
    } else {
        record.push_back(static_cast<uint8_t>(direction << 6 | 0x01)); // one sensor, numeric instance modifier
        record.push_back(0x00);
        record.push_back(s.hysteresisPositive);
        record.push_back(s.hysteresisNegative);
        record.insert(record.end(), {0, 0, 0});
    }
    record.push_back(byteOr(n, "oem", 0));
    appendIdString(record, s.name);
    finish(record);
    return s;
}

uint8_t ipmbAddress(const Node &obj, const char *key, uint8_t fallback)
{
    auto n = obj.find(key);
    if (!n) return fallback;
    uint8_t a = n->byte();
    if (a & 1) n->fail("expected an IPMB slave address in its 8-bit form (even, such as 0x20), got " + hex(a));
    return a;
}

std::vector<uint8_t> parseFruLocator(const Node &n, uint16_t id, uint8_t defaultAddress)
{
    n.allowOnly({"name", "address", "fru_id", "logical", "lun", "bus", "channel", "device_type",
                 "device_type_modifier", "entity", "instance", "logical_entity", "oem"});
    std::vector<uint8_t> r = header(id, kFruDeviceLocator);
    uint8_t address = ipmbAddress(n, "address", defaultAddress);
    bool logical = flag(n, "logical", true);
    uint8_t fruId = n.at("fru_id").byte();
    uint8_t lun = 0, bus = 0, channel = 0;
    if (auto v = n.find("lun")) lun = static_cast<uint8_t>(v->integer(0, 3));
    if (auto v = n.find("bus")) bus = static_cast<uint8_t>(v->integer(0, 7));
    if (auto v = n.find("channel")) channel = static_cast<uint8_t>(v->integer(0, 15));
    uint8_t instance = static_cast<uint8_t>(n.at("instance").integer(0, 0x7F));
    if (flag(n, "logical_entity", false)) instance = static_cast<uint8_t>(instance | 0x80);
    r.insert(r.end(), {address, fruId, static_cast<uint8_t>((logical ? 0x80 : 0x00) | lun << 3 | bus),
                       static_cast<uint8_t>(channel << 4), 0x00, byteOr(n, "device_type", 0x10),
                       byteOr(n, "device_type_modifier", 0x00), n.at("entity").byte(), instance, byteOr(n, "oem", 0)});
    appendIdString(r, idString(n, "name"));
    finish(r);
    return r;
}

std::vector<uint8_t> parseMcLocator(const Node &n, uint16_t id, uint8_t defaultAddress, uint8_t defaultCaps)
{
    n.allowOnly({"name", "address", "channel", "power_state_notification", "capabilities", "entity", "instance",
                 "logical_entity", "oem"});
    std::vector<uint8_t> r = header(id, kMcDeviceLocator);
    uint8_t channel = 0;
    if (auto v = n.find("channel")) channel = static_cast<uint8_t>(v->integer(0, 15));
    uint8_t instance = static_cast<uint8_t>(n.at("instance").integer(0, 0x7F));
    if (flag(n, "logical_entity", false)) instance = static_cast<uint8_t>(instance | 0x80);
    r.insert(r.end(), {ipmbAddress(n, "address", defaultAddress), channel, byteOr(n, "power_state_notification", 0),
                       byteOr(n, "capabilities", defaultCaps), 0, 0, 0, n.at("entity").byte(), instance,
                       byteOr(n, "oem", 0)});
    appendIdString(r, idString(n, "name"));
    finish(r);
    return r;
}

RepositoryOptions parseOptions(const Node &n)
{
    n.allowOnly({"allocation_unit_size", "allocation_units", "max_record_units", "max_read_bytes", "add_timestamp",
                 "erase_timestamp", "operation_support"});
    RepositoryOptions o;
    if (auto v = n.find("allocation_unit_size")) o.unitSize = static_cast<uint16_t>(v->integer(1, 1024));
    if (auto v = n.find("allocation_units")) o.units = static_cast<uint16_t>(v->integer(1, 0xFFFE));
    if (auto v = n.find("max_record_units")) o.maxRecordUnits = static_cast<uint8_t>(v->integer(1, 0xFF));
    if (auto v = n.find("max_read_bytes")) o.maxReadBytes = static_cast<uint8_t>(v->integer(1, 0xFF));
    if (auto v = n.find("add_timestamp")) o.addTimestamp = static_cast<uint32_t>(v->integer(0, 0xFFFFFFFF));
    if (auto v = n.find("erase_timestamp")) o.eraseTimestamp = static_cast<uint32_t>(v->integer(0, 0xFFFFFFFF));
    if (auto v = n.find("operation_support")) o.operationSupport = v->byte();
    return o;
}

const nlohmann::json *member(const nlohmann::json &obj, const char *key)
{
    if (!obj.is_object()) return nullptr;
    auto it = obj.find(key);
    return it == obj.end() ? nullptr : &*it;
}

// A value of the machine state, ignored unless it has the expected type and range (the
// state is ours, but a hand-edited file must not take the controller down).
std::optional<uint64_t> stateNumber(const nlohmann::json &obj, const char *key, uint64_t max)
{
    const nlohmann::json *v = member(obj, key);
    if (!v || !v->is_number_unsigned()) return std::nullopt;
    uint64_t n = v->get<uint64_t>();
    if (n > max) return std::nullopt;
    return n;
}

std::optional<bool> stateBool(const nlohmann::json &obj, const char *key)
{
    const nlohmann::json *v = member(obj, key);
    if (!v || !v->is_boolean()) return std::nullopt;
    return v->get<bool>();
}

// The machine state's entry for a sensor, created when missing.
nlohmann::json &stateEntry(nlohmann::json &state, const SensorDef &s)
{
    nlohmann::json &all = state["sensors"];
    if (!all.is_object()) all = nlohmann::json::object();
    nlohmann::json &entry = all[sensorStateKey(s)];
    if (!entry.is_object()) entry = nlohmann::json::object();
    return entry;
}

std::string sensorLabel(const SensorDef &s) { return "sensor " + hex(s.number) + " (" + s.name + ")"; }

} // namespace

const SensorDef *SdrModel::find(uint8_t owner, uint8_t lun, uint8_t number) const
{
    auto it = byAddress.find(static_cast<uint32_t>(owner << 16 | lun << 8 | number));
    return it == byAddress.end() ? nullptr : &sensors[it->second];
}

long SdrModel::indexOf(uint16_t recordId) const
{
    if (records.empty()) return -1;
    if (recordId == 0x0000) return 0;
    if (recordId == 0xFFFF) return static_cast<long>(records.size()) - 1;
    // Record IDs run 1, 2, ... in repository order.
    if (recordId > records.size()) return -1;
    return static_cast<long>(recordId) - 1;
}

SdrModel parseSdrModel(const Profile &profile)
{
    SdrModel model;
    Node root = profile.root();
    if (auto n = root.find("sdr")) model.options = parseOptions(*n);
    const uint8_t controllerAddress = kControllerAddress;
    const uint32_t slot = static_cast<uint32_t>(model.options.unitSize) * model.options.maxRecordUnits;
    auto add = [&](std::vector<uint8_t> bytes, const Node &where) {
        if (model.records.size() >= kMaxRecords)
            where.fail("the repository holds at most " + std::to_string(kMaxRecords) + " records");
        if (bytes.size() > slot)
            where.fail("the record takes " + std::to_string(bytes.size()) +
                       " bytes, more than the largest record the repository stores (/sdr/max_record_units " +
                       std::to_string(model.options.maxRecordUnits) + " x /sdr/allocation_unit_size " +
                       std::to_string(model.options.unitSize) + " bytes)");
        model.usedUnits += static_cast<uint32_t>((bytes.size() + model.options.unitSize - 1) / model.options.unitSize);
        model.records.push_back({static_cast<uint16_t>(model.records.size() + 1), std::move(bytes)});
    };
    if (auto list = root.find("sensors")) {
        for (std::size_t i = 0; i < list->size(); ++i) {
            Node n = list->at(i);
            std::vector<uint8_t> bytes;
            SensorDef s = parseSensor(n, static_cast<uint16_t>(model.records.size() + 1), controllerAddress, bytes);
            uint32_t address = static_cast<uint32_t>(s.owner << 16 | s.lun << 8 | s.number);
            if (auto other = model.byAddress.find(address); other != model.byAddress.end())
                n.at("number").fail("sensor number " + hex(s.number) + " on LUN " + std::to_string(s.lun) +
                                    " of owner " + hex(s.owner) + " is already used by " +
                                    model.sensors[other->second].pointer);
            add(std::move(bytes), n);
            model.byAddress[address] = model.sensors.size();
            model.sensors.push_back(std::move(s));
        }
    }
    if (auto list = root.find("fru_locators")) {
        std::map<std::pair<uint8_t, uint8_t>, std::string> seen;
        for (std::size_t i = 0; i < list->size(); ++i) {
            Node n = list->at(i);
            std::vector<uint8_t> bytes =
                parseFruLocator(n, static_cast<uint16_t>(model.records.size() + 1), controllerAddress);
            // Logical FRU devices are addressed by controller and FRU ID.
            const wire::View locator(bytes);
            if (wire::bits(locator.get(sdr::fru_locator::kAccessLunBus, uint8_t{0}), 7, 1)) {
                const std::pair<uint8_t, uint8_t> key{locator.get(sdr::fru_locator::kAccessAddress, uint8_t{0}),
                                                      locator.get(sdr::fru_locator::kFruDeviceId, uint8_t{0})};
                if (auto other = seen.find(key); other != seen.end())
                    n.at("fru_id").fail("FRU device " + hex(key.second) + " of controller " + hex(key.first) +
                                        " is already described by " + other->second);
                seen[key] = n.path();
            }
            add(std::move(bytes), n);
        }
    }
    if (auto list = root.find("mc_locators")) {
        for (std::size_t i = 0; i < list->size(); ++i) {
            Node n = list->at(i);
            add(parseMcLocator(n, static_cast<uint16_t>(model.records.size() + 1), controllerAddress,
                               profile.device.additionalSupport),
                n);
        }
    }
    // Without a stated size the repository has 4096 units, or as many as the records take.
    RepositoryOptions &o = model.options;
    bool sized = o.units != 0;
    if (!sized) o.units = static_cast<uint16_t>(std::min<uint32_t>(0xFFFE, std::max<uint32_t>(4096, model.usedUnits)));
    if (model.usedUnits > o.units) {
        std::string what = "the records take " + std::to_string(model.usedUnits) + " allocation units, more than the " +
                           std::to_string(o.units) + " the repository has";
        if (sized) root.at("sdr").at("allocation_units").fail(what);
        root.fail(what);
    }
    return model;
}

std::shared_ptr<const SdrModel> sdrModel(Controller &controller)
{
    return controller.attachedOrParsed<SdrModel>("sdr", parseSdrModel);
}

int numericValue(AnalogFormat format, uint8_t raw)
{
    switch (format) {
    case AnalogFormat::OnesComplement:
        return (raw & 0x80) ? -static_cast<int>(static_cast<uint8_t>(~raw)) : raw;
    case AnalogFormat::TwosComplement:
        return static_cast<int8_t>(raw);
    default:
        return raw;
    }
}

uint8_t thresholdStatus(const SensorDef &s, uint8_t raw)
{
    if (!s.thresholdBased() || s.format == AnalogFormat::None) return 0;
    int v = numericValue(s.format, raw);
    uint8_t bits = 0;
    for (int t = 0; t < 6; ++t) {
        const auto &th = s.thresholds[static_cast<std::size_t>(t)];
        if (!th) continue;
        int limit = numericValue(s.format, *th);
        bool hit = t <= kLnr ? v <= limit : v >= limit;
        if (hit) bits = static_cast<uint8_t>(bits | 1u << t);
    }
    return bits;
}

std::string sensorStateKey(const SensorDef &s)
{
    const std::string key = std::to_string(s.lun) + ":" + hex(s.number);
    return s.owner == kControllerAddress ? key : hex(s.owner) + "/" + key;
}

SensorNow sensorNow(const SensorDef &s, const nlohmann::json &state)
{
    SensorNow now{s.reading, s.state, s.scanning, s.unavailable, s.events};
    if (const nlohmann::json *all = member(state, "sensors")) {
        if (const nlohmann::json *e = member(*all, sensorStateKey(s).c_str())) {
            if (auto v = stateNumber(*e, "reading", 0xFF)) now.reading = static_cast<uint8_t>(*v);
            if (auto v = stateNumber(*e, "state", 0x7FFF)) now.state = static_cast<uint16_t>(*v);
            if (auto v = stateBool(*e, "scanning")) now.scanning = *v;
            if (auto v = stateBool(*e, "unavailable")) now.unavailable = *v;
        }
    }
    if (s.poweredByHost) {
        // The chassis power state, once the chassis is modelled; until then the host is on.
        const nlohmann::json *chassis = member(state, "chassis");
        std::optional<bool> on = chassis ? stateBool(*chassis, "power_on") : std::nullopt;
        if (on && !*on) now.unavailable = true;
    }
    return now;
}

std::string setSensorReading(Controller &c, uint8_t number, uint8_t raw)
{
    auto model = sdrModel(c);
    const SensorDef *s = model->find(kControllerAddress, 0, number);
    if (!s) return "no sensor " + hex(number) + " on LUN 0 in " + c.profile().file;
    c.control([&](Context &ctx) {
        stateEntry(ctx.state, *s)["reading"] = raw;
        ctx.changed();
    });
    return "";
}

std::string setSensorState(Controller &c, uint8_t number, uint16_t stateBits)
{
    auto model = sdrModel(c);
    const SensorDef *s = model->find(kControllerAddress, 0, number);
    if (!s) return "no sensor " + hex(number) + " on LUN 0 in " + c.profile().file;
    if (s->thresholdBased()) return sensorLabel(*s) + " is threshold-based: its state follows from its reading";
    if (stateBits > 0x7FFF) return "state bits run from 0 to 14 (at most 0x7fff), got " + hex(stateBits, 4);
    c.control([&](Context &ctx) {
        stateEntry(ctx.state, *s)["state"] = stateBits;
        ctx.changed();
    });
    return "";
}

std::string setSensorFlags(Controller &c, uint8_t number, int scanning, int unavailable)
{
    auto model = sdrModel(c);
    const SensorDef *s = model->find(kControllerAddress, 0, number);
    if (!s) return "no sensor " + hex(number) + " on LUN 0 in " + c.profile().file;
    if (scanning > 1 || unavailable > 1)
        return "flags are 0 (off), 1 (on) or negative (unchanged), got " + std::to_string(scanning) + " and " +
               std::to_string(unavailable);
    c.control([&](Context &ctx) {
        nlohmann::json &e = stateEntry(ctx.state, *s);
        if (scanning >= 0) e["scanning"] = scanning == 1;
        if (unavailable >= 0) e["unavailable"] = unavailable == 1;
        ctx.changed();
    });
    return "";
}

} // namespace tvxsim
