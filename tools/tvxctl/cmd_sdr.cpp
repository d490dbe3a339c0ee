// tvxctl sdr: the SDR repository as an administrator reads it: record ID, sensor name,
// number, entity, sensor type, converted reading with its unit, and the threshold status or
// the first asserted state.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "cli.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx/records.h"

namespace tvxctl {
namespace {

namespace sdr = tvx::sdr;
namespace wire = tvx::wire;

uint8_t field(wire::View rec, wire::U8 f) { return rec.get(f, uint8_t{0}); }

std::string unitText(wire::View rec)
{
    const uint8_t units1 = field(rec, sdr::kUnits1);
    const uint8_t base = field(rec, sdr::kBaseUnit), modifier = field(rec, sdr::kModifierUnit);
    const bool percentage = wire::bits(units1, 0, 1);
    const unsigned modifierUse = wire::bits(units1, 1, 2);
    // A bare percentage has no base unit to name.
    std::string unit = base == 0 && percentage ? "" : getUnitDesc(base);
    if (modifierUse == 1) unit += std::string("/") + getUnitDesc(modifier);
    if (modifierUse == 2) unit += std::string("*") + getUnitDesc(modifier);
    static const char *kRate[8] = {"", "/us", "/ms", "/s", "/min", "/h", "/d", ""};
    unit += kRate[wire::bits(units1, 3, 3)];
    if (percentage) unit = unit.empty() ? "%" : "% " + unit;
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
    std::string error; // why the sensor could not be read
};

// Reads a sensor from its owner, as ipmiGetSensorReading reads the controller's own: the
// reading and state bits; false when the reading is unavailable while the sensor scans, or
// the sensor could not be read (`error` says why then). The controller's own sensors on LUN
// 0 are read through the library; the others (another LUN, another controller) through the
// platform, which asks the owner the record names, bridged to another controller.
bool readSensor(const Session &session, wire::View rec, uint8_t &raw, uint16_t &state, std::string &error)
{
    const uint8_t number = field(rec, sdr::kSensorNumber);
    const uint8_t owner = field(rec, sdr::kOwnerId), ownerLun = field(rec, sdr::kOwnerLun);
    if (owner == tvx::ipmb::kBmcAddress && ownerLun == 0) {
        if (ipmiGetSensorReading(session.get(), number, &raw, &state)) return true;
        error = session.whyFailed();
        return false;
    }
    if (wire::bits(owner, 0, 1)) {
        error = "owned by system software (ID " + hexByte(owner) + "), not by a controller";
        return false;
    }
    SensorReadingRequest request{number, owner, ownerLun};
    SensorReadingResponse response{};
    if (IPMICMD_GetSensorReading(session.get(), &request, &response, 60) != 0) {
        error = session.whyFailed();
        return false;
    }
    if (response.flags & tvx::sensor_reading::kUnavailable) {
        raw = 0;
        state = 0;
        return !(response.flags & tvx::sensor_reading::kScanningEnabled);
    }
    raw = response.reading;
    state = static_cast<uint16_t>((response.state0_7 | response.state8_14 << 8) & 0x7FFF);
    return true;
}

// One record, from the bytes of its slot: every field is read within them.
Row describe(const Session &session, wire::View rec)
{
    Row r;
    r.recordId = rec.get(sdr::kRecordId, uint16_t{0});
    r.type = field(rec, sdr::kRecordType);
    r.name = sdrIdString(rec);
    if (r.type == sdr::kFruDeviceLocator) {
        r.entity = field(rec, sdr::fru_locator::kEntityId);
        r.instance = field(rec, sdr::fru_locator::kEntityInstance);
        r.typeName = "FRU Device Locator";
        r.status = "FRU " + std::to_string(field(rec, sdr::fru_locator::kFruDeviceId));
        return r;
    }
    if (r.type == sdr::kMcDeviceLocator) {
        r.entity = field(rec, sdr::mc_locator::kEntityId);
        r.instance = field(rec, sdr::mc_locator::kEntityInstance);
        r.typeName = "MC Device Locator";
        r.status = "address " + hexByte(field(rec, sdr::mc_locator::kSlaveAddress));
        return r;
    }
    if (!sdr::isSensorRecord(r.type)) {
        r.typeName = "record type " + hexByte(r.type);
        return r;
    }
    const uint8_t number = field(rec, sdr::kSensorNumber);
    r.number = number;
    r.entity = field(rec, sdr::kEntityId);
    r.instance = field(rec, sdr::kEntityInstance);
    r.sensorType = field(rec, sdr::kSensorType);
    r.eventType = field(rec, sdr::kEventReadingType);
    r.typeName = ipmiSdrGetSensorTypeDesc(static_cast<uint32_t>(r.sensorType));
    uint8_t raw = 0;
    uint16_t state = 0;
    if (!readSensor(session, rec, raw, state, r.error)) {
        // Not read: refused or unanswered (the reason goes with it), or reading unavailable.
        r.reading = "no reading";
        r.status = r.error.empty() ? "unavailable" : "not readable";
        return r;
    }
    r.raw = raw;
    r.stateBits = state;
    if (r.eventType == 0x01) {
        // The conversion reads the record as long as its header says: only when the slot
        // holds all of it.
        const bool whole = sdr::kHeaderSize + field(rec, sdr::kLength) <= rec.size();
        float value = 0;
        if (r.type == sdr::kFullSensor && whole &&
            ipmi_convert_reading(const_cast<uint8_t *>(rec.data()), raw, &value) == 0) {
            // As many decimals as the result exponent (bits 7:4, signed) asks for.
            int8_t k2 = static_cast<int8_t>(static_cast<int8_t>(field(rec, sdr::full::kExponents)) >> 4);
            int decimals = k2 < 0 ? -k2 : 0;
            char buf[48];
            std::snprintf(buf, sizeof buf, "%.*f", decimals, static_cast<double>(value));
            r.reading = buf;
            r.value = static_cast<double>(value);
            r.unit = unitText(rec);
        } else if (r.type == sdr::kFullSensor) {
            r.reading = "raw " + hexByte(raw);
        }
        r.status = ipmiSdrGetStatus(wire::bits(state, 0, 6));
    } else {
        int32_t offset = -1;
        const char *text = ipmiGetDiscreteState(static_cast<uint8_t>(r.sensorType), static_cast<uint8_t>(r.eventType),
                                                static_cast<uint8_t>(wire::bits(state, 0, 8)),
                                                static_cast<uint8_t>(wire::bits(state, 8, 8)), &offset);
        r.reading = tvx::hexNumber(state, 4);
        r.status = text ? text : "-";
    }
    return r;
}

} // namespace

int cmdSdr(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) return cmdSdrQuery(opt, args);
    Session session;
    SDRInfo info;
    std::memset(&info, 0, sizeof info);
    if (!getSDRInfo(session.get(), &info)) throw session.failed("cannot read the SDR repository");
    std::vector<Row> rows;
    for (uint32_t i = 0; i < info.count; ++i)
        rows.push_back(describe(session, wire::View(getSdrByIndex(i, &info), info.recordSize)));
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
            if (!r.error.empty()) j["error"] = r.error;
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
