// The virtual controller's event log: a small machine and its controller, driven directly.
#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "bytes.h"
#include "controller.h"
#include "machine.h"

namespace simsel {

using nlohmann::json;
using tvxtest::TempDir;

inline constexpr uint32_t kFixedNow = 1794865512; // 16-Nov-2026 21:45:12 UTC, the machine's fixed clock

// Three records (a system event, a timestamped and a plain OEM record) and texts in 8-byte chunks.
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

// The controller of a profile in the test's state directory, driven request by request.
class Machine : public testing::Test {
protected:
    // sensors: the SDR part of the profile, if given.
    void start(const json &doc = smallMachine(), const json &sensors = nullptr)
    {
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
        const Bytes req = oem(cat({{sub}, data}));
        tvxsim::Reply r = ctl_->handle(0x2E, 0, 0xF5, req);
        EXPECT_TRUE(r.answered && r.bytes.size() >= 4 &&
                    Bytes(r.bytes.begin() + 1, r.bytes.begin() + 4) == Bytes(req.begin(), req.begin() + 3));
        if (r.bytes.size() >= 4) r.bytes.erase(r.bytes.begin() + 1, r.bytes.begin() + 4);
        return r.bytes;
    }
    // Reserve SEL: the reservation's two bytes.
    Bytes reserve()
    {
        Bytes r = storage(kReserve);
        EXPECT_EQ(r.size(), 3u);
        return r.size() == 3 ? Bytes{r[1], r[2]} : Bytes{0, 0};
    }
    // Whole record: completion code, next ID, 16 bytes.
    Bytes entry(uint16_t id) { return storage(kGetEntry, cat({{0, 0}, le16(id), {0, 0xFF}})); }
    Bytes clear(const Bytes &reservation, uint8_t action = 0xAA)
    {
        return storage(kClear, {reservation[0], reservation[1], 'C', 'L', 'R', action});
    }

    TempDir dir_;
    std::unique_ptr<tvxsim::Controller> ctl_;
};

} // namespace simsel
