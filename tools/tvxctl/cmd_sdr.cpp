// tvxctl sdr: the SDR repository as an administrator reads it: record ID, sensor name,
// number, entity, sensor type, converted reading with its unit, and the threshold status or
// the first asserted state.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "cli.h"
#include "libipmi.h"

namespace tvxctl {
namespace {

constexpr uint8_t kFullSensor = 0x01;
constexpr uint8_t kCompactSensor = 0x02;
constexpr uint8_t kFruLocator = 0x11;
constexpr uint8_t kMcLocator = 0x12;

// Where each record type keeps its ID string's type/length byte (the string follows it).
size_t idStringOffset(uint8_t type)
{
    switch (type) {
    case kFullSensor: return 47;
    case kCompactSensor: return 31;
    case kFruLocator:
    case kMcLocator: return 15;
    default: return 0;
    }
}

std::string unitText(const uint8_t *rec)
{
    uint8_t units1 = rec[20];
    // A bare percentage has no base unit to name.
    std::string unit = rec[21] == 0 && (units1 & 1) ? "" : getUnitDesc(rec[21]);
    if ((units1 >> 1 & 3) == 1) unit += std::string("/") + getUnitDesc(rec[22]);
    if ((units1 >> 1 & 3) == 2) unit += std::string("*") + getUnitDesc(rec[22]);
    static const char *kRate[8] = {"", "/us", "/ms", "/s", "/min", "/h", "/d", ""};
    unit += kRate[units1 >> 3 & 7];
    if (units1 & 1) unit = unit.empty() ? "%" : "% " + unit;
    return unit;
}

struct Row {
    unsigned recordId = 0;
    uint8_t type = 0;
    std::string name;
    int number = -1;
    unsigned entity = 0, instance = 0;
    int sensorType = -1, eventType = -1;
    std::string typeName;
    std::string reading; // shown
    Json value = nullptr;
    std::string unit;
    std::string status;
    int raw = -1;
    int stateBits = -1;
};

Row describe(IpmiSession *session, const uint8_t *rec, size_t slot)
{
    Row r;
    r.recordId = rec[0] | rec[1] << 8;
    r.type = rec[3];
    r.name = sdrIdString(rec, slot);
    if (r.type == kFruLocator || r.type == kMcLocator) {
        r.entity = rec[12];
        r.instance = rec[13];
        r.typeName = r.type == kFruLocator ? "FRU Device Locator" : "MC Device Locator";
        r.status = r.type == kFruLocator ? "FRU " + std::to_string(rec[6]) : "address " + hexByte(rec[5]);
        return r;
    }
    if (r.type != kFullSensor && r.type != kCompactSensor) {
        r.typeName = "record type " + hexByte(r.type);
        return r;
    }
    r.number = rec[7];
    r.entity = rec[8];
    r.instance = rec[9];
    r.sensorType = rec[12];
    r.eventType = rec[13];
    r.typeName = ipmiSdrGetSensorTypeDesc(rec[12]);
    SensorReadingRequest req = {rec[7]};
    SensorReadingResponse rsp;
    std::memset(&rsp, 0, sizeof rsp);
    uint16_t status = IPMICMD_GetSensorReading(session, &req, &rsp, 60);
    if (status != 0) {
        r.reading = "no reading";
        r.status = statusText(status);
        return r;
    }
    if (!(rsp.flags & 0x40)) {
        r.reading = "disabled";
        r.status = "scanning disabled";
        return r;
    }
    if (rsp.flags & 0x20) {
        r.reading = "no reading";
        r.status = "unavailable";
        return r;
    }
    r.raw = rsp.reading;
    r.stateBits = (rsp.state0_7 | rsp.state8_14 << 8) & 0x7FFF;
    if (r.eventType == 0x01) {
        if (r.type == kFullSensor) {
            float value = 0;
            if (ipmi_convert_reading(const_cast<uint8_t *>(rec), rsp.reading, &value) == 0) {
                int8_t k2 = static_cast<int8_t>(rec[29]) >> 4;
                int decimals = k2 < 0 ? -k2 : 0;
                char buf[48];
                std::snprintf(buf, sizeof buf, "%.*f", decimals, static_cast<double>(value));
                r.reading = buf;
                r.value = static_cast<double>(value);
                r.unit = unitText(rec);
            } else {
                r.reading = "raw " + hexByte(rsp.reading);
            }
        }
        r.status = ipmiSdrGetStatus(rsp.state0_7 & 0x3F);
    } else {
        int32_t offset = -1;
        const char *state = ipmiGetDiscreteState(rec[12], rec[13], rsp.state0_7, rsp.state8_14, &offset);
        char bits[16];
        std::snprintf(bits, sizeof bits, "0x%04x", r.stateBits);
        r.reading = bits;
        r.status = state ? state : "-";
    }
    return r;
}

} // namespace

// Decodes an ID string: 8-bit ASCII, 6-bit packed ASCII or BCD plus, never past the record.
std::string sdrIdString(const uint8_t *rec, size_t recordBytes)
{
    size_t at = idStringOffset(rec[3]);
    if (at == 0 || at >= recordBytes) return "";
    uint8_t typeLength = rec[at];
    size_t n = typeLength & 0x1F;
    if (at + 1 + n > recordBytes) n = recordBytes - at - 1;
    const uint8_t *s = rec + at + 1;
    std::string out;
    switch (typeLength >> 6) {
    case 3: // 8-bit
        for (size_t i = 0; i < n && s[i]; ++i) out += static_cast<char>(s[i]);
        break;
    case 2: // 6-bit packed: four characters in three bytes, from ' ' (0x20)
        for (size_t bit = 0; bit + 6 <= n * 8; bit += 6) {
            unsigned v = 0;
            for (int b = 0; b < 6; ++b) v |= ((s[(bit + b) / 8] >> ((bit + b) % 8)) & 1u) << b;
            out += static_cast<char>(0x20 + v);
        }
        while (!out.empty() && out.back() == ' ') out.pop_back();
        break;
    case 1: { // BCD plus
        static const char digits[] = "0123456789 -.:,_";
        for (size_t i = 0; i < n; ++i) {
            out += digits[s[i] & 0x0F];
            out += digits[s[i] >> 4];
        }
        break;
    }
    default:
        break;
    }
    return out;
}

int cmdSdr(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) return cmdSdrQuery(opt, args);
    Session session;
    SDRInfo info;
    std::memset(&info, 0, sizeof info);
    if (!getSDRInfo(session.get(), &info)) throw Failure{kExitFailed, "cannot read the SDR repository"};
    std::vector<Row> rows;
    for (uint32_t i = 0; i < info.count; ++i) rows.push_back(describe(session.get(), getSdrByIndex(i, &info), info.recordSize));
    freeSDRInfo(&info);

    if (opt.json) {
        Json out = Json::array();
        for (const Row &r : rows) {
            Json j = {{"record_id", r.recordId}, {"record_type", r.type}, {"name", r.name}};
            if (r.number >= 0) {
                j["sensor_number"] = r.number;
                j["sensor_type"] = r.sensorType;
                j["event_reading_type"] = r.eventType;
            }
            j["entity"] = std::to_string(r.entity) + "." + std::to_string(r.instance);
            j["type"] = r.typeName;
            j["raw"] = r.raw >= 0 ? Json(r.raw) : Json(nullptr);
            j["value"] = r.value;
            j["unit"] = r.unit.empty() ? Json(nullptr) : Json(r.unit);
            j["state_bits"] = r.stateBits >= 0 ? Json(r.stateBits) : Json(nullptr);
            j["reading"] = r.reading;
            j["status"] = r.status;
            out.push_back(j);
        }
        printJson(out);
        return kExitOk;
    }
    std::printf("%-5s %-16s %-4s %-7s %-22s %-18s %s\n", "ID", "Name", "Num", "Entity", "Type", "Reading", "Status");
    for (const Row &r : rows) {
        char num[8] = "";
        if (r.number >= 0) std::snprintf(num, sizeof num, "%02Xh", r.number);
        char entity[12];
        std::snprintf(entity, sizeof entity, "%u.%u", r.entity, r.instance);
        std::string reading = r.reading + (r.unit.empty() ? "" : " " + r.unit);
        std::printf("%04X  %-16s %-4s %-7s %-22.22s %-18s %s\n", r.recordId, r.name.c_str(), num, entity,
                    r.typeName.c_str(), reading.c_str(), r.status.c_str());
    }
    return kExitOk;
}

} // namespace tvxctl
