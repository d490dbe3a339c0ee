// The virtual controller's event log in the tests: machines made from JSON on the fly, what a
// profile's log should read as (computed from the profile itself), and a controller driven
// request by request.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "controller.h"
#include "scratch.h"
#include "tvx_toipmi.h"

namespace simsel {

using nlohmann::json;
using Bytes = std::vector<uint8_t>;

// Scratch directories and files, as the other controller tests use them.
using tvxtest::TempDir;
using tvxtest::readFile;
using tvxtest::writeFile;

#ifdef TVX_MACHINES_DIR
inline json defaultProfile() { return json::parse(readFile(std::string(TVX_MACHINES_DIR) + "/default.json")); }
#endif

// The 2026-11-16T21:45:12Z of the examples, as a fixed clock for reproducible times.
inline constexpr uint32_t kFixedNow = 1794865512;

inline unsigned number(const json &v)
{
    return v.is_string() ? static_cast<unsigned>(std::stoul(v.get<std::string>(), nullptr, 0)) : v.get<unsigned>();
}

inline uint32_t timeOf(const json &v)
{
    if (v.is_number()) return v.get<uint32_t>();
    struct tm tm{};
    std::string s = v.get<std::string>();
    if (std::sscanf(s.c_str(), "%d-%d-%dT%d:%d:%dZ", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour, &tm.tm_min,
                    &tm.tm_sec) != 6)
        return static_cast<uint32_t>(std::stoul(s, nullptr, 0));
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    return static_cast<uint32_t>(timegm(&tm));
}

// "16-Nov-2026 21:45:12", as the C locale writes it.
inline std::string timeText(uint32_t t)
{
    time_t v = t;
    struct tm tm{};
    gmtime_r(&v, &tm);
    char b[32];
    std::strftime(b, sizeof b, "%d-%b-%Y %H:%M:%S", &tm);
    return b;
}

inline Bytes hexBytes(const json &v)
{
    Bytes out;
    if (v.is_array()) {
        for (const auto &b : v) out.push_back(static_cast<uint8_t>(number(b)));
        return out;
    }
    std::istringstream in(v.get<std::string>());
    for (std::string w; in >> w;) out.push_back(static_cast<uint8_t>(std::stoul(w, nullptr, 16)));
    return out;
}

// The name the controller gives sensor `sensor` on LUN 0: the one in the profile's "sensors"
// when it has them, else "sensor 0xNN".
inline std::string sensorName(const json &profile, unsigned sensor)
{
    for (const auto &s : profile.value("sensors", json::array()))
        if (s.contains("number") && s.contains("name") && number(s["number"]) == sensor &&
            (!s.contains("lun") || number(s["lun"]) == 0))
            return s["name"];
    char b[16];
    std::snprintf(b, sizeof b, "sensor 0x%02X", sensor);
    return b;
}

inline bool timestamped(const json &rec) { return rec["type"] == "system" || rec["type"] == "oem_timestamped"; }

// The message of a profile record in a language (English when the code has none in it), with
// its parameters in place of %1..%8.
inline std::string message(const json &profile, const json &rec, const std::string &lcid)
{
    const json &texts = profile["event_texts"]["codes"][rec["error_code"].get<std::string>()]["texts"];
    std::string text = texts.contains(lcid) ? texts[lcid].get<std::string>() : texts["0x0409"].get<std::string>();
    std::vector<std::string> params = rec.value("parameters", std::vector<std::string>{});
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 1 < text.size() && text[i + 1] >= '1' && text[i + 1] <= '8' &&
            static_cast<std::size_t>(text[i + 1] - '1') < params.size()) {
            out += params[static_cast<std::size_t>(text[i + 1] - '1')];
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

inline std::string severity(const json &profile, const json &rec)
{
    std::string s = rec.contains("severity")
                        ? rec["severity"].get<std::string>()
                        : profile["event_texts"]["codes"][rec["error_code"].get<std::string>()].value("severity", "info");
    for (auto &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// The line the library composes for a record: time, two blanks, message, severity suffix.
// Records without a timestamp show the time their bytes 3-6 make.
inline std::string textLine(const json &profile, const json &rec, uint32_t bytes3to6, const std::string &lcid)
{
    return timeText(bytes3to6) + "  " + message(profile, rec, lcid) + " (" + severity(profile, rec) + ")";
}

// A profile's record as the 16 bytes of the log (record ID id).
inline Bytes recordBytes(const json &rec, uint16_t id)
{
    Bytes r(16, 0);
    r[0] = static_cast<uint8_t>(id);
    r[1] = static_cast<uint8_t>(id >> 8);
    auto stamp = [&](uint32_t t) {
        for (int i = 0; i < 4; ++i) r[3 + i] = static_cast<uint8_t>(t >> (8 * i));
    };
    const std::string type = rec["type"];
    Bytes data = hexBytes(rec["data"]);
    if (type == "system") {
        r[2] = 0x02;
        stamp(timeOf(rec["time"]));
        r[7] = rec.contains("generator") ? static_cast<uint8_t>(number(rec["generator"])) : 0x20;
        r[8] = rec.contains("channel_lun") ? static_cast<uint8_t>(number(rec["channel_lun"])) : 0x00;
        r[9] = rec.contains("revision") ? static_cast<uint8_t>(number(rec["revision"])) : 0x04;
        r[10] = static_cast<uint8_t>(number(rec["sensor_type"]));
        r[11] = static_cast<uint8_t>(number(rec["sensor"]));
        r[12] = static_cast<uint8_t>(number(rec["event_type"]) | (rec.value("direction", "") == "deassertion" ? 0x80 : 0));
        std::copy(data.begin(), data.end(), r.begin() + 13);
    } else if (type == "oem_timestamped") {
        r[2] = rec.contains("record_type") ? static_cast<uint8_t>(number(rec["record_type"])) : 0xC0;
        stamp(timeOf(rec["time"]));
        unsigned mfr = rec.contains("manufacturer_id") ? number(rec["manufacturer_id"]) : 32473;
        r[7] = static_cast<uint8_t>(mfr);
        r[8] = static_cast<uint8_t>(mfr >> 8);
        r[9] = static_cast<uint8_t>(mfr >> 16);
        std::copy(data.begin(), data.end(), r.begin() + 10);
    } else {
        r[2] = rec.contains("record_type") ? static_cast<uint8_t>(number(rec["record_type"])) : 0xE0;
        std::copy(data.begin(), data.end(), r.begin() + 3);
    }
    return r;
}

inline uint32_t bytes3to6(const Bytes &r)
{
    return static_cast<uint32_t>(r[3]) | static_cast<uint32_t>(r[4]) << 8 | static_cast<uint32_t>(r[5]) << 16 |
           static_cast<uint32_t>(r[6]) << 24;
}

// The records of a profile's log, as the controller holds them (IDs 1, 2, ...).
inline std::vector<Bytes> profileRecords(const json &profile)
{
    std::vector<Bytes> out;
    uint16_t id = 1;
    for (const auto &rec : profile["sel"]["records"]) out.push_back(recordBytes(rec, id++));
    return out;
}

// The latest time among the profile's timestamped records.
inline uint32_t lastAddOf(const json &profile)
{
    uint32_t last = 0;
    for (const auto &rec : profile["sel"]["records"])
        if (timestamped(rec)) last = std::max(last, timeOf(rec["time"]));
    return last;
}

// A small machine for the command tests: a fixed clock, a log of three records and texts with
// a short chunk size.
inline json smallMachine()
{
    return json::parse(R"json({
      "description": "event log test machine",
      "controller": {"firmware_revision": "1.00", "manufacturer_id": 32473, "product_id": 1},
      "sel": {
        "capacity": 5,
        "utc_offset_minutes": -60,
        "clock": {"fixed": "2026-11-16T21:45:12Z"},
        "last_erase": "2026-01-02T03:04:05Z",
        "records": [
          {"type": "system", "time": "2026-03-01T10:00:00Z", "sensor_type": "0x04", "sensor": "0x20",
           "event_type": "0x01", "data": "52 03 05", "error_code": "00000001", "parameters": ["FAN1", "3"]},
          {"type": "oem_timestamped", "record_type": "0xC3", "time": 1772445600, "data": [1, 2, 3, 4, 5, 6],
           "error_code": "00000002", "severity": "critical"},
          {"type": "oem", "data": "0d 0c 0b 0a 09 08 07 06 05 04 03 02 01"}
        ]
      },
      "event_texts": {
        "chunk_size": 8,
        "codes": {
          "00000001": {"severity": "major", "texts": {
            "0x0409": "Fan %1 failed (%2); %3 stays, %% too, and a final %",
            "0x0407": "Lüfter %1 ausgefallen (%2)"}},
          "00000002": {"texts": {"0x0409": "OEM event"}},
          "00000003": {"severity": "minor", "texts": {"0x0409": "Temperature %1 high: %2 over %3"}},
          "00000004": {"texts": {"0x0409": "Something from %1 (type %2, number %3, offset %4)"}}
        },
        "sensor_events": [
          {"sensor_type": "0x01", "event_type": "0x01", "offset": 7, "direction": "assertion",
           "error_code": "00000003", "parameters": ["{sensor}", "{data2}", "{data3}"]},
          {"sensor_type": "0x04", "sensor": "0x21", "error_code": "00000001", "severity": "critical",
           "parameters": ["{sensor}", "lun {lun}"]},
          {"error_code": "00000004", "parameters": ["{sensor}", "{type}", "{number}", "{offset}"]}
        ]
      }
    })json");
}


inline constexpr uint8_t kStorage = 0x0A;
inline constexpr uint8_t kGetSelInfo = 0x40, kGetAllocInfo = 0x41, kReserve = 0x42, kGetEntry = 0x43, kAdd = 0x44,
                         kClear = 0x47, kGetTime = 0x48, kSetTime = 0x49, kGetUtc = 0x5C, kSetUtc = 0x5D;
inline constexpr uint8_t kIana[3] = {0xD9, 0x7E, 0x00};

inline uint16_t le16(const Bytes &b, std::size_t at) { return static_cast<uint16_t>(b.at(at) | b.at(at + 1) << 8); }
inline uint32_t le32(const Bytes &b, std::size_t at) { return le16(b, at) | static_cast<uint32_t>(le16(b, at + 2)) << 16; }

class Machine : public testing::Test {
protected:
    // Starts the controller for doc (the same state directory every time within a test).
    // sensors, when given, stands for the SDR part of the profile another section describes.
    void start(const json &doc = smallMachine(), const json &sensors = nullptr)
    {
        profile_ = doc;
        tvxsim::Profile p = tvxsim::parseProfile(doc.dump(), "selmachine.json");
        if (!sensors.is_null()) p.document["sensors"] = sensors;
        ctl_ = std::make_unique<tvxsim::Controller>(std::move(p), dir_.path());
    }

    Bytes send(uint8_t netFn, uint8_t cmd, const Bytes &data)
    {
        tvxsim::Reply r = ctl_->handle(netFn, 0, cmd, data);
        EXPECT_TRUE(r.answered);
        return r.bytes;
    }
    Bytes storage(uint8_t cmd, const Bytes &data = {}) { return send(kStorage, cmd, data); }
    // An event-text request: the answer without the IANA echo, which is checked here.
    Bytes text(uint8_t sub, const Bytes &data)
    {
        Bytes req(kIana, kIana + 3);
        req.push_back(sub);
        req.insert(req.end(), data.begin(), data.end());
        Bytes r = send(0x2E, 0xF5, req);
        EXPECT_GE(r.size(), 4u);
        if (r.size() < 4) return r;
        EXPECT_EQ(Bytes(r.begin() + 1, r.begin() + 4), Bytes(kIana, kIana + 3));
        r.erase(r.begin() + 1, r.begin() + 4);
        return r;
    }
    uint16_t reserve()
    {
        Bytes r = storage(kReserve);
        EXPECT_EQ(r.size(), 3u);
        return r.size() == 3 ? le16(r, 1) : 0;
    }
    // Whole record: completion code, next ID, 16 bytes.
    Bytes entry(uint16_t id)
    {
        return storage(kGetEntry, {0, 0, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8), 0, 0xFF});
    }
    Bytes clear(uint16_t reservation, uint8_t action = 0xAA)
    {
        return storage(kClear, {static_cast<uint8_t>(reservation), static_cast<uint8_t>(reservation >> 8), 'C', 'L', 'R', action});
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
