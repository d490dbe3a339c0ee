// tvxctl sensor: the sensor table as `ipmitool sensor` prints it (name, value, unit, status and
// the six thresholds, "na" where there is none), built on the library's sensor lists; and
// `tvxctl sdr type` / `sdr get`, the same sensors selected by sensor type or by name.
//
// The lists give temperatures, voltages and currents with their non-critical and critical
// thresholds, fans with their status sensor's state, and discrete sensors with their first
// asserted state. The non-recoverable thresholds, which the lists leave out, and sensors of
// other types (a power supply's load, for example) are read from the SDR records themselves.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <set>
#include <strings.h>

#include "cli.h"
#include "libipmi.h"
#include "tvx/records.h"
#include "tvx/wire.h"

namespace tvxctl {
namespace {

namespace sdr = tvx::sdr;
using tvx::wire::View;

// Thresholds in ipmitool's column order; the bit of each in the readable-threshold mask.
enum Threshold { kLnr, kLcr, kLnc, kUnc, kUcr, kUnr };
constexpr const char *kThresholdKeys[6] = {"lnr", "lcr", "lnc", "unc", "ucr", "unr"};
constexpr unsigned kReadableBit[6] = {2, 1, 0, 3, 4, 5};
constexpr tvx::wire::U8 kThresholdField[6] = {sdr::full::kLowerNonRecoverable, sdr::full::kLowerCritical,
                                              sdr::full::kLowerNonCritical,    sdr::full::kUpperNonCritical,
                                              sdr::full::kUpperCritical,       sdr::full::kUpperNonRecoverable};
constexpr uint8_t kProcessorEntity = 0x03;
constexpr uint8_t kThresholdBased = 0x01;

enum Kind { kTemperature, kFan, kVoltage, kCurrent, kDiscrete, kOther };
constexpr const char *kKindNames[] = {"temperature", "fan", "voltage", "current", "discrete", "other"};

struct Line {
    uint32_t index = 0; // position in the SDR cache
    View record;
    std::string name;
    uint8_t recordType = 0, number = 0, sensorType = 0, eventType = 0, entity = 0, instance = 0;
    Kind kind = kOther;
    std::optional<double> value;
    std::optional<uint16_t> stateBits;
    std::string unit, status;
    std::array<std::optional<double>, 6> thresholds;
};

std::string field(const char *text, size_t size) { return std::string(text, strnlen(text, size)); }
bool noReading(const std::string &status) { return status == "N/A" || status == "Power Off"; }

// A raw byte of a full record in its unit: the record's conversion, the plain byte for a
// processor's sensors (as the library reports them).
std::optional<double> convert(View record, uint8_t raw)
{
    if (record.get(sdr::kEntityId, uint8_t{0}) == kProcessorEntity) return raw;
    uint8_t copy[sdr::full::kMaxSize + 1] = {};
    std::memcpy(copy, record.data(), std::min(record.size(), sdr::full::kMaxSize));
    float v = 0;
    if (ipmi_convert_reading(copy, raw, &v) != 0) return std::nullopt;
    return v;
}

bool readable(View record, Threshold t) { return record.get(sdr::kReadingMask, uint16_t{0}) >> kReadableBit[t] & 1u; }

std::optional<double> recordThreshold(View record, Threshold t)
{
    if (!readable(record, t)) return std::nullopt;
    return convert(record, record.get(kThresholdField[t], uint8_t{0}));
}

std::string unitText(View record)
{
    constexpr uint8_t kPercentage = 0x01;
    if (record.get(sdr::kUnits1, uint8_t{0}) & kPercentage) return "percent";
    return getUnitDesc(record.get(sdr::kBaseUnit, uint8_t{0}));
}

class Table {
public:
    Table(IpmiSession *session, SDRInfo &info) : session_(session), info_(info)
    {
        for (uint32_t i = 0; i < info.count; ++i) {
            View r(getSdrByIndex(i, &info), info.recordSize);
            Line l;
            l.index = i;
            l.record = r;
            l.recordType = r.get(sdr::kRecordType, uint8_t{0});
            if (!sdr::isSensorRecord(l.recordType)) continue;
            l.name = sdrIdString(r.data(), r.size());
            l.number = r.get(sdr::kSensorNumber, uint8_t{0});
            l.sensorType = r.get(sdr::kSensorType, uint8_t{0});
            l.eventType = r.get(sdr::kEventReadingType, uint8_t{0});
            l.entity = r.get(sdr::kEntityId, uint8_t{0});
            l.instance = r.get(sdr::kEntityInstance, uint8_t{0});
            if (l.recordType == sdr::kCompactSensor) l.kind = kDiscrete;
            else if (l.sensorType == TVX_SENSOR_TEMPERATURE) l.kind = kTemperature;
            else if (l.sensorType == TVX_SENSOR_FAN) l.kind = kFan;
            else if (l.sensorType == TVX_SENSOR_VOLTAGE) l.kind = kVoltage;
            else if (l.sensorType == TVX_SENSOR_CURRENT) l.kind = kCurrent;
            records_.push_back(std::move(l));
        }
    }

    // The rows of these kinds, in SDR order.
    std::vector<Line> rows(const std::set<Kind> &kinds)
    {
        std::vector<Line> out;
        if (kinds.count(kTemperature)) thresholdList(TVX_SENSOR_TEMPERATURE, out);
        if (kinds.count(kVoltage)) thresholdList(TVX_SENSOR_VOLTAGE, out);
        if (kinds.count(kCurrent)) thresholdList(TVX_SENSOR_CURRENT, out);
        if (kinds.count(kFan)) fanList(out);
        if (kinds.count(kDiscrete)) discreteLists(out);
        others(kinds, out);
        std::sort(out.begin(), out.end(), [](const Line &a, const Line &b) { return a.index < b.index; });
        return out;
    }

private:
    // The full records of a sensor type in the order the lists walk them (on a partitioned
    // system only this board's, as the threshold lists list them).
    std::vector<const Line *> fullRecords(uint8_t sensorType, bool partitionFilter)
    {
        std::vector<const Line *> out;
        const bool partitioned = partitionFilter && ipmiIsKVSystem(session_);
        const int owner = partitioned ? ipmiGetSbSlaveAddr(session_) : 0;
        for (const Line &l : records_)
            if (l.recordType == sdr::kFullSensor && l.sensorType == sensorType &&
                (!partitioned || l.record.get(sdr::kOwnerId, uint8_t{0}) == owner))
                out.push_back(&l);
        return out;
    }

    void thresholdList(uint8_t sensorType, std::vector<Line> &out)
    {
        ListNode *list = nullptr;
        ipmiGetTVCSensors(session_, &list, sensorType, &info_);
        std::vector<const Line *> recs = fullRecords(sensorType, true);
        size_t i = 0;
        for (ListNode *n = list; n && i < recs.size(); n = n->next, ++i) {
            // A full record of the type with discrete states is shown with its states instead.
            if (recs[i]->eventType != kThresholdBased) continue;
            ThresholdSensorEntry e;
            std::memcpy(&e, n->data, sizeof e);
            Line l = *recs[i];
            l.status = field(e.status, sizeof e.status);
            if (!noReading(l.status)) l.value = e.reading;
            l.unit = field(e.unit, sizeof e.unit);
            const float listed[6] = {0, e.lowerCritical, e.lowerNonCritical, e.upperNonCritical, e.upperCritical, 0};
            for (Threshold t : {kLnr, kUnr}) l.thresholds[t] = recordThreshold(l.record, t);
            for (Threshold t : {kLcr, kLnc, kUnc, kUcr})
                if (readable(l.record, t)) l.thresholds[t] = listed[t];
            out.push_back(std::move(l));
        }
        freeList(&list);
    }

    void fanList(std::vector<Line> &out)
    {
        ListNode *list = nullptr;
        ipmiGetFanSensors(session_, &list, &info_);
        std::vector<const Line *> recs = fullRecords(TVX_SENSOR_FAN, false);
        size_t i = 0;
        for (ListNode *n = list; n && i < recs.size(); n = n->next, ++i) {
            FanSensorEntry e;
            std::memcpy(&e, n->data, sizeof e);
            Line l = *recs[i];
            l.status = field(e.status, sizeof e.status);
            if (!noReading(l.status)) l.value = e.reading;
            l.unit = unitText(l.record);
            for (int t = 0; t < 6; ++t) l.thresholds[t] = recordThreshold(l.record, static_cast<Threshold>(t));
            out.push_back(std::move(l));
        }
        freeList(&list);
    }

    // One list per sensor type and event/reading type of the compact records.
    void discreteLists(std::vector<Line> &out)
    {
        std::vector<std::pair<uint8_t, uint8_t>> kinds;
        for (const Line &l : records_)
            if (l.kind == kDiscrete &&
                std::find(kinds.begin(), kinds.end(), std::make_pair(l.sensorType, l.eventType)) == kinds.end())
                kinds.emplace_back(l.sensorType, l.eventType);
        for (auto [type, eventType] : kinds) {
            ListNode *list = nullptr;
            ipmiGetDiscreteSensors(session_, &list, type, eventType, 0, 0, 0, &info_);
            std::set<uint32_t> used;
            for (ListNode *n = list; n; n = n->next) {
                DiscreteSensorEntry e;
                std::memcpy(&e, n->data, sizeof e);
                for (const Line &rec : records_) {
                    if (rec.kind != kDiscrete || rec.sensorType != type || rec.eventType != eventType ||
                        rec.number != e.sensorNumber || used.count(rec.index))
                        continue;
                    used.insert(rec.index);
                    Line l = rec;
                    l.status = field(e.state, sizeof e.state);
                    // States without a text of their own leave the status as "N/A": the bits
                    // still tell them. A sensor that is off has no states, whatever bits came.
                    const uint16_t bits = static_cast<uint16_t>(e.state0_7 | (e.state8_14 & 0x7F) << 8);
                    if (!noReading(l.status) || (bits && l.status != "Power Off")) l.stateBits = bits;
                    // No state asserted and none named: whether the sensor was read at all
                    // only a reading tells (an empty slot's sensor reads, with no bits set).
                    uint8_t raw = 0;
                    uint16_t state = 0;
                    if (!l.stateBits && bits == 0 && ipmiGetSensorReading(session_, e.sensorNumber, &raw, &state) == 1)
                        l.stateBits = static_cast<uint16_t>(state & 0x7FFF);
                    l.unit = "discrete";
                    out.push_back(std::move(l));
                    break;
                }
            }
            freeList(&list);
        }
    }

    // Full records of other sensor types, and temperature, voltage and current records with
    // discrete states, read here the way the lists read theirs.
    void others(const std::set<Kind> &kinds, std::vector<Line> &out)
    {
        for (const Line &rec : records_) {
            if (rec.recordType != sdr::kFullSensor || !kinds.count(rec.kind)) continue;
            if (rec.kind != kOther && (rec.kind == kFan || rec.eventType == kThresholdBased)) continue;
            Line l = rec;
            l.unit = unitText(l.record);
            SensorReadingRequest req = {l.number};
            SensorReadingResponse rsp;
            std::memset(&rsp, 0, sizeof rsp);
            constexpr uint8_t kUnavailable = 0x20;
            const bool read = IPMICMD_GetSensorReading(session_, &req, &rsp, 60) == 0 && !(rsp.flags & kUnavailable);
            if (!read) {
                l.status = ipmiChassisPowerStatus(session_) ? "N/A" : "Power Off";
            } else if (l.eventType == kThresholdBased) {
                l.value = convert(l.record, rsp.reading);
                l.status = ipmiSdrGetStatus(rsp.state0_7);
            } else {
                const char *state =
                    ipmiGetDiscreteState(l.sensorType, l.eventType, rsp.state0_7, rsp.state8_14, nullptr);
                l.stateBits = static_cast<uint16_t>(rsp.state0_7 | (rsp.state8_14 & 0x7F) << 8);
                l.status = state ? state : "N/A";
                l.unit = "discrete";
            }
            if (l.eventType == kThresholdBased)
                for (int t = 0; t < 6; ++t) l.thresholds[t] = recordThreshold(l.record, static_cast<Threshold>(t));
            out.push_back(std::move(l));
        }
    }

    IpmiSession *session_;
    SDRInfo &info_;
    std::vector<Line> records_;
};

std::string number3(const std::optional<double> &v)
{
    if (!v) return "na";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", *v);
    return buf;
}

std::string valueText(const Line &l)
{
    if (l.stateBits) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "0x%x", *l.stateBits);
        return buf;
    }
    return number3(l.value);
}

std::string entityText(const Line &l) { return std::to_string(l.entity) + "." + std::to_string(l.instance & 0x7F); }

Json toJson(const Line &l)
{
    Json thresholds = Json::object();
    for (int t = 0; t < 6; ++t)
        thresholds[kThresholdKeys[t]] = l.thresholds[t] ? Json(*l.thresholds[t]) : Json(nullptr);
    return Json{{"name", l.name},
                {"sensor_number", l.number},
                {"entity", entityText(l)},
                {"class", kKindNames[l.kind]},
                {"sensor_type", l.sensorType},
                {"event_reading_type", l.eventType},
                {"value", l.value ? Json(*l.value) : Json(nullptr)},
                {"state_bits", l.stateBits ? Json(*l.stateBits) : Json(nullptr)},
                {"unit", l.unit.empty() ? Json(nullptr) : Json(l.unit)},
                {"status", l.status},
                {"thresholds", thresholds}};
}

void printJsonRows(const std::vector<Line> &rows)
{
    Json out = Json::array();
    for (const Line &l : rows) out.push_back(toJson(l));
    printJson(out);
}

// The sensors, with the SDR cache they come from.
struct Sensors {
    Session session;
    SDRInfo info{};
    std::vector<Line> rows;

    explicit Sensors(const std::set<Kind> &kinds)
    {
        if (!getSDRInfo(session.get(), &info)) throw Failure{kExitFailed, "cannot read the SDR repository"};
        rows = Table(session.get(), info).rows(kinds);
    }
    ~Sensors() { freeSDRInfo(&info); }
    Sensors(const Sensors &) = delete;
    Sensors &operator=(const Sensors &) = delete;
};

const std::set<Kind> kAllKinds = {kTemperature, kFan, kVoltage, kCurrent, kDiscrete, kOther};

// A sensor type by number or by name ("Temperature", "fan status").
bool parseSensorType(const std::string &text, uint8_t &out)
{
    if (parseByte(text, out)) return true;
    for (unsigned t = 0; t <= 0xFF; ++t) {
        if (strcasecmp(ipmiSdrGetSensorTypeDesc(t), text.c_str()) == 0) {
            out = static_cast<uint8_t>(t);
            return true;
        }
    }
    return false;
}

int sdrType(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() == 1) {
        std::printf("Sensor Types:\n");
        for (unsigned t = TVX_SENSOR_TEMPERATURE; t <= 0x2C; ++t) {
            char name[32];
            std::snprintf(name, sizeof name, "%s", ipmiSdrGetSensorTypeDesc(t));
            std::printf("%s%-25s (0x%02x)%s", t % 2 ? "\t" : "   ", name, t, t % 2 ? "" : "\n");
        }
        std::printf("\n");
        return kExitOk;
    }
    uint8_t type = 0;
    if (args.size() != 2 || !parseSensorType(args[1], type))
        throw Failure{kExitUsage, "sdr type: expected one sensor type, a number or a name such as Temperature"};
    Sensors sensors(kAllKinds);
    std::vector<Line> rows;
    for (const Line &l : sensors.rows)
        if (l.sensorType == type) rows.push_back(l);
    if (opt.json) {
        printJsonRows(rows);
        return kExitOk;
    }
    for (const Line &l : rows) {
        std::string reading = valueText(l);
        if (l.value && !l.unit.empty()) reading += " " + l.unit;
        if (!l.value && !l.stateBits) reading = "no reading";
        std::printf("%-16s | %02Xh | %-9s | %5s | %s\n", l.name.c_str(), l.number, l.status.c_str(),
                    entityText(l).c_str(), reading.c_str());
    }
    return kExitOk;
}

int sdrGet(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() < 2) throw Failure{kExitUsage, "sdr get: name the sensors (sdr get NAME...)"};
    Sensors sensors(kAllKinds);
    std::vector<Line> found;
    int rc = kExitOk;
    for (size_t i = 1; i < args.size(); ++i) {
        auto it =
            std::find_if(sensors.rows.begin(), sensors.rows.end(), [&](const Line &l) { return l.name == args[i]; });
        if (it == sensors.rows.end()) {
            std::fprintf(stderr, "tvxctl: no sensor named \"%s\"\n", args[i].c_str());
            rc = kExitFailed;
            continue;
        }
        found.push_back(*it);
    }
    if (opt.json) {
        printJsonRows(found);
        return rc;
    }
    static const char *kThresholdNames[6] = {"Lower non-recoverable", "Lower critical", "Lower non-critical",
                                             "Upper non-critical",    "Upper critical", "Upper non-recoverable"};
    for (const Line &l : found) {
        const bool threshold = l.eventType == kThresholdBased;
        std::printf("Sensor ID              : %s (0x%x)\n", l.name.c_str(), l.number);
        std::printf(" Entity ID             : %s\n", entityText(l).c_str());
        std::printf(" Sensor Type (%s : %s (0x%02x)\n", threshold ? "Threshold)" : "Discrete) ",
                    ipmiSdrGetSensorTypeDesc(l.sensorType), l.sensorType);
        std::string reading = valueText(l);
        if (l.value && !l.unit.empty()) reading += " " + l.unit;
        std::printf(" Sensor Reading        : %s\n", reading.c_str());
        std::printf(" Status                : %s\n", l.status.c_str());
        if (l.recordType == sdr::kFullSensor && threshold) {
            // Nominal reading, normal maximum and minimum where the record says they are given.
            const uint8_t flags = l.record.get(sdr::full::kAnalogFlags, uint8_t{0});
            const struct {
                uint8_t bit;
                tvx::wire::U8 field;
                const char *label;
            } analog[] = {{0x01, sdr::full::kNominalReading, "Nominal Reading"},
                          {0x04, sdr::full::kNormalMinimum, "Normal Minimum"},
                          {0x02, sdr::full::kNormalMaximum, "Normal Maximum"}};
            for (const auto &a : analog)
                if (flags & a.bit)
                    std::printf(" %-22s: %s\n", a.label,
                                number3(convert(l.record, l.record.get(a.field, uint8_t{0}))).c_str());
            for (int t = 0; t < 6; ++t)
                if (l.thresholds[t]) std::printf(" %-22s: %s\n", kThresholdNames[t], number3(l.thresholds[t]).c_str());
        }
        std::printf("\n");
    }
    return rc;
}

} // namespace

int cmdSensor(const Options &opt, const std::vector<std::string> &words)
{
    Args args(words);
    std::string type = args.option("--type");
    args.noMoreOptions("sensor");
    if (args.size() != 0) throw Failure{kExitUsage, "sensor takes no arguments besides --type"};
    std::set<Kind> kinds = kAllKinds;
    if (!type.empty() && type != "all") {
        auto it = std::find(std::begin(kKindNames), std::end(kKindNames) - 1, type);
        if (it == std::end(kKindNames) - 1)
            throw Failure{kExitUsage, "sensor --type: one of temperature, fan, voltage, current, discrete, all"};
        kinds = {static_cast<Kind>(it - std::begin(kKindNames))};
    }
    Sensors sensors(kinds);
    if (opt.json) {
        printJsonRows(sensors.rows);
        return kExitOk;
    }
    for (const Line &l : sensors.rows) {
        std::printf("%-16s | %-10s | %-10s | %-6s", l.name.c_str(), valueText(l).c_str(),
                    (l.unit.empty() ? "unspecified" : l.unit).c_str(), l.status.c_str());
        for (int t = 0; t < 6; ++t) std::printf(" | %-9s", number3(l.thresholds[t]).c_str());
        std::printf("\n");
    }
    return kExitOk;
}

int cmdSdrQuery(const Options &opt, const std::vector<std::string> &args)
{
    if (args[0] == "type") return sdrType(opt, args);
    if (args[0] == "get") return sdrGet(opt, args);
    throw Failure{kExitUsage, "sdr: expected no arguments, \"type [TYPE]\" or \"get NAME...\""};
}

} // namespace tvxctl
