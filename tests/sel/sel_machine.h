// The virtual controller's event log: what a profile's log reads as, a small machine, a controller.
#pragma once

#include <algorithm>
#include <cctype>
#include <ctime>
#include <iomanip>
#include <memory>
#include <sstream>

#include <gtest/gtest.h>

#include "controller.h"
#include "scratch.h"
#include "tvx_toipmi.h"

namespace simsel {

using nlohmann::json;
using Bytes = std::vector<uint8_t>;
using tvxtest::TempDir;
using tvxtest::writeFile;

inline constexpr uint32_t kFixedNow = 1794865512; // 2026-11-16T21:45:12Z, the fixed clock of the tests

inline unsigned number(const json &v)
{
    return v.is_string() ? unsigned(std::stoul(v.get<std::string>(), nullptr, 0)) : v.get<unsigned>();
}
inline uint32_t timeOf(const json &v)
{
    if (v.is_number()) return v.get<uint32_t>();
    if (v.get<std::string>().find('-') == std::string::npos)
        return uint32_t(std::stoul(v.get<std::string>(), nullptr, 0));
    struct tm tm {};
    std::istringstream(v.get<std::string>()) >> std::get_time(&tm, "%Y-%m-%dT%H:%M:%SZ");
    return uint32_t(timegm(&tm));
}
// "16-Nov-2026 21:45:12", as the C locale writes it.
inline std::string timeText(uint32_t t)
{
    time_t v = t;
    struct tm tm {};
    gmtime_r(&v, &tm);
    char b[32];
    std::strftime(b, sizeof b, "%d-%b-%Y %H:%M:%S", &tm);
    return b;
}
// The name the controller gives sensor `sensor` on LUN 0: the profile's, else "sensor 0xNN".
inline std::string sensorName(const json &profile, unsigned sensor)
{
    for (const auto &s : profile.value("sensors", json::array()))
        if (number(s["number"]) == sensor && (!s.contains("lun") || number(s["lun"]) == 0)) return s["name"];
    char b[16];
    std::snprintf(b, sizeof b, "sensor 0x%02X", sensor);
    return b;
}
inline bool timestamped(const json &rec) { return rec["type"] == "system" || rec["type"] == "oem_timestamped"; }

// A profile record's message in a language (else English), parameters in place of %1..%8.
inline std::string message(const json &profile, const json &rec, const std::string &lcid)
{
    const json &texts = profile["event_texts"]["codes"][rec["error_code"].get<std::string>()]["texts"];
    std::string text = texts.value(lcid, texts["0x0409"].get<std::string>()), out;
    std::vector<std::string> params = rec.value("parameters", std::vector<std::string>{});
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::size_t p = i + 1 < text.size() ? std::size_t(text[i + 1] - '1') : 99;
        if (text[i] == '%' && p < 8 && p < params.size()) out += params[p], ++i;
        else out += text[i];
    }
    return out;
}
inline std::string severity(const json &profile, const json &rec)
{
    std::string s = rec.value(
        "severity", profile["event_texts"]["codes"][rec["error_code"].get<std::string>()].value("severity", "info"));
    for (auto &c : s) c = char(std::toupper(static_cast<unsigned char>(c)));
    return s;
}
// The line the library composes for a record: time, two blanks, message, severity suffix.
inline std::string textLine(const json &profile, const json &rec, uint32_t time, const std::string &lcid)
{
    return timeText(time) + "  " + message(profile, rec, lcid) + " (" + severity(profile, rec) + ")";
}

// A profile's record as the 16 bytes of the log (record ID id).
inline Bytes recordBytes(const json &rec, uint16_t id)
{
    Bytes r = {uint8_t(id), uint8_t(id >> 8)}, data;
    if (rec["data"].is_array()) {
        for (const auto &b : rec["data"]) data.push_back(uint8_t(number(b)));
    } else {
        std::istringstream in(rec["data"].get<std::string>());
        for (std::string w; in >> w;) data.push_back(uint8_t(std::stoul(w, nullptr, 16)));
    }
    auto byte = [&](const char *key, unsigned dflt) { return uint8_t(rec.contains(key) ? number(rec[key]) : dflt); };
    const std::string type = rec["type"];
    r.push_back(byte("record_type", type == "system" ? 0x02 : type == "oem" ? 0xE0 : 0xC0));
    if (type != "oem") {
        for (int i = 0; i < 4; ++i) r.push_back(uint8_t(timeOf(rec["time"]) >> (8 * i)));
    }
    if (type == "system") {
        r.insert(r.end(),
                 {byte("generator", 0x20), byte("channel_lun", 0), byte("revision", 4), byte("sensor_type", 0),
                  byte("sensor", 0),
                  uint8_t(number(rec["event_type"]) | (rec.value("direction", "") == "deassertion" ? 0x80 : 0))});
    } else if (type == "oem_timestamped") {
        unsigned mfr = rec.contains("manufacturer_id") ? number(rec["manufacturer_id"]) : 32473;
        r.insert(r.end(), {uint8_t(mfr), uint8_t(mfr >> 8), uint8_t(mfr >> 16)});
    }
    r.insert(r.end(), data.begin(), data.end());
    r.resize(16, 0);
    return r;
}
inline uint32_t bytes3to6(const Bytes &r) { return r[3] | r[4] << 8 | r[5] << 16 | uint32_t(r[6]) << 24; }

// The latest time among the profile's timestamped records.
inline uint32_t lastAddOf(const json &profile)
{
    uint32_t last = 0;
    for (const auto &rec : profile["sel"]["records"])
        if (timestamped(rec)) last = std::max(last, timeOf(rec["time"]));
    return last;
}

// A small machine: a fixed clock, three records and texts with a short chunk size.
inline json smallMachine()
{
    return json::parse(R"json({
      "description": "event log test machine",
      "controller": {"firmware_revision": "1.00", "manufacturer_id": 32473, "product_id": 1},
      "sel": {"capacity": 5, "utc_offset_minutes": -60, "clock": {"fixed": "2026-11-16T21:45:12Z"},
        "last_erase": "2026-01-02T03:04:05Z",
        "records": [
          {"type": "system", "time": "2026-03-01T10:00:00Z", "sensor_type": "0x04", "sensor": "0x20",
           "event_type": "0x01", "data": "52 03 05", "error_code": "00000001", "parameters": ["FAN1", "3"]},
          {"type": "oem_timestamped", "record_type": "0xC3", "time": 1772445600, "data": [1, 2, 3, 4, 5, 6],
           "error_code": "00000002", "severity": "critical"},
          {"type": "oem", "data": "0d 0c 0b 0a 09 08 07 06 05 04 03 02 01"}]},
      "event_texts": {"chunk_size": 8,
        "codes": {
          "00000001": {"severity": "major", "texts": {
            "0x0409": "Fan %1 failed (%2); %3 stays, %% too, and a final %", "0x0407": "Lüfter %1 ausgefallen (%2)"}},
          "00000002": {"texts": {"0x0409": "OEM event"}},
          "00000003": {"severity": "minor", "texts": {"0x0409": "Temperature %1 high: %2 over %3"}},
          "00000004": {"texts": {"0x0409": "Something from %1 (type %2, number %3, offset %4)"}}},
        "sensor_events": [
          {"sensor_type": "0x01", "event_type": "0x01", "offset": 7, "direction": "assertion",
           "error_code": "00000003", "parameters": ["{sensor}", "{data2}", "{data3}"]},
          {"sensor_type": "0x04", "sensor": "0x21", "error_code": "00000001", "severity": "critical",
           "parameters": ["{sensor}", "lun {lun}"]},
          {"error_code": "00000004", "parameters": ["{sensor}", "{type}", "{number}", "{offset}"]}]}})json");
}

inline constexpr uint8_t kStorage = 0x0A, kGetSelInfo = 0x40, kGetAllocInfo = 0x41, kReserve = 0x42, kGetEntry = 0x43,
                         kAdd = 0x44, kClear = 0x47, kGetTime = 0x48, kSetTime = 0x49, kGetUtc = 0x5C, kSetUtc = 0x5D;

inline uint16_t le16(const Bytes &b, std::size_t at) { return uint16_t(b.at(at) | b.at(at + 1) << 8); }
inline uint32_t le32(const Bytes &b, std::size_t at) { return le16(b, at) | uint32_t(le16(b, at + 2)) << 16; }

class Machine : public testing::Test {
protected:
    // Starts the controller for doc in the test's state directory; sensors: the SDR part, if given.
    void start(const json &doc = smallMachine(), const json &sensors = nullptr)
    {
        profile_ = doc;
        tvxsim::Profile p = tvxsim::parseProfile(doc.dump(), "selmachine.json");
        if (!sensors.is_null()) p.document["sensors"] = sensors;
        ctl_ = std::make_unique<tvxsim::Controller>(std::move(p), dir_.path());
    }
    Bytes storage(uint8_t cmd, const Bytes &data = {})
    {
        tvxsim::Reply r = ctl_->handle(kStorage, 0, cmd, data);
        EXPECT_TRUE(r.answered);
        return r.bytes;
    }
    // An event-text request: the answer without the IANA echo, which is checked here.
    Bytes text(uint8_t sub, const Bytes &data)
    {
        Bytes req = {0xD9, 0x7E, 0x00, sub};
        req.insert(req.end(), data.begin(), data.end());
        tvxsim::Reply r = ctl_->handle(0x2E, 0, 0xF5, req);
        EXPECT_TRUE(r.answered && r.bytes.size() >= 4 &&
                    Bytes(r.bytes.begin() + 1, r.bytes.begin() + 4) == Bytes(req.begin(), req.begin() + 3));
        if (r.bytes.size() >= 4) r.bytes.erase(r.bytes.begin() + 1, r.bytes.begin() + 4);
        return r.bytes;
    }
    uint16_t reserve()
    {
        Bytes r = storage(kReserve);
        EXPECT_EQ(r.size(), 3u);
        return r.size() == 3 ? le16(r, 1) : 0;
    }
    // Whole record: completion code, next ID, 16 bytes.
    Bytes entry(uint16_t id) { return storage(kGetEntry, {0, 0, uint8_t(id), uint8_t(id >> 8), 0, 0xFF}); }
    Bytes clear(uint16_t reservation, uint8_t action = 0xAA)
    {
        return storage(kClear, {uint8_t(reservation), uint8_t(reservation >> 8), 'C', 'L', 'R', action});
    }

    TempDir dir_;
    json profile_;
    std::unique_ptr<tvxsim::Controller> ctl_;
};

inline std::string rawLine(const Bytes &record)
{
    ListNode *list = nullptr;
    addEntryToRawStringList(&list, record.data());
    std::string line = list ? reinterpret_cast<const char *>(list->data) : "";
    freeList(&list);
    return line;
}

} // namespace simsel
