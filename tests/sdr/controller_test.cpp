// The virtual controller's SDR repository, sensors and component status: information,
// reservations and Get SDR with each completion code, every record field at its byte,
// threshold status in each data format, discrete states, the host API, OEM sub-functions,
// and bad profile sections.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "controller.h"
#include "libipmi_host.h"
#include "scratch.h"
#include "sdr.h"
#include "tvx_toipmi.h"

namespace simsdr {
using Bytes = std::vector<uint8_t>;

constexpr uint8_t kNetFnSensor = 0x04;
constexpr uint8_t kNetFnStorage = 0x0A;
constexpr uint8_t kNetFnOemGroup = 0x2E;

using tvxtest::TempDir;

// A profile with a controller and nothing else; tests add their sections.
inline nlohmann::json baseProfile()
{
    return {{"controller", {{"firmware_revision", "1.00"}, {"manufacturer_id", 32473}, {"product_id", 1}}}};
}

inline tvxsim::Profile profileOf(const nlohmann::json &doc, const std::string &name = "test.json")
{
    return tvxsim::parseProfile(doc.dump(), name);
}

// The controller's answer (completion code first); an empty vector when there is none.
inline Bytes send(tvxsim::Controller &c, uint8_t netFn, uint8_t command, const Bytes &data, uint8_t lun = 0)
{
    tvxsim::Reply r = c.handle(netFn, lun, command, data);
    return r.answered ? r.bytes : Bytes{};
}

inline Bytes getSdr(tvxsim::Controller &c, uint16_t reservation, uint16_t id, uint8_t offset, uint8_t count)
{
    return send(c, kNetFnStorage, 0x23,
                {static_cast<uint8_t>(reservation), static_cast<uint8_t>(reservation >> 8), static_cast<uint8_t>(id),
                 static_cast<uint8_t>(id >> 8), offset, count});
}

inline uint16_t le16(const Bytes &b, std::size_t at) { return static_cast<uint16_t>(b.at(at) | b.at(at + 1) << 8); }

// Every record of the repository, walked from record 0 along the next-record IDs.
struct Walked {
    uint16_t id;
    Bytes record;
};
inline std::vector<Walked> walk(tvxsim::Controller &c)
{
    std::vector<Walked> out;
    uint16_t id = 0;
    for (int guard = 0; guard < 70000; ++guard) {
        Bytes r = getSdr(c, 0, id, 0, 0xFF);
        if (r.size() < 3 || r[0] != 0) {
            ADD_FAILURE() << "Get SDR of record " << id << " failed";
            break;
        }
        Bytes record(r.begin() + 3, r.end());
        out.push_back({id, record});
        uint16_t next = le16(r, 1);
        if (next == 0xFFFF) break;
        id = next;
    }
    return out;
}

namespace {

// Three records: a 60-byte full sensor record, a 35-byte compact one and a 19-byte
// controller locator; one answer carries at most 40 record bytes.
nlohmann::json smallRepository()
{
    nlohmann::json doc = baseProfile();
    doc["sdr"] = {{"allocation_unit_size", 16}, {"allocation_units", 100}, {"max_record_units", 4},
                  {"max_read_bytes", 40},       {"add_timestamp", "0x11223344"}, {"erase_timestamp", 7},
                  {"operation_support", "0x23"}};
    doc["sensors"] = nlohmann::json::parse(R"([
      {"record": "full", "number": 1, "entity": 3, "instance": 1, "type": 1, "event_reading_type": 1,
       "name": "Exhaust Temp", "reading": 30, "thresholds": {"uc": 90}},
      {"record": "compact", "number": 2, "entity": 29, "instance": 1, "type": "0xE6",
       "event_reading_type": "0x6F", "name": "Fan", "state": 1}
    ])");
    doc["mc_locators"] = nlohmann::json::parse(R"([{"name": "BMC", "entity": 6, "instance": 1}])");
    return doc;
}

TEST(RepositoryInfo, AnswersCountsSpaceTimestampsAndAllocation)
{
    tvxsim::Controller c(profileOf(smallRepository()), "");
    // Units taken: 60 bytes -> 4, 35 -> 3, 19 -> 2; 91 of 100 free, 16 bytes each.
    EXPECT_EQ(send(c, kNetFnStorage, 0x20, {}),
              (Bytes{0x00, 0x51, 0x03, 0x00, 0xB0, 0x05, 0x44, 0x33, 0x22, 0x11, 0x07, 0x00, 0x00, 0x00, 0x23}));
    EXPECT_EQ(send(c, kNetFnStorage, 0x21, {}),
              (Bytes{0x00, 0x64, 0x00, 0x10, 0x00, 0x5B, 0x00, 0x5B, 0x00, 0x04}));
    EXPECT_EQ(send(c, kNetFnStorage, 0x20, {0x00}), Bytes{0xC7});
    EXPECT_EQ(send(c, kNetFnStorage, 0x21, {0x00}), Bytes{0xC7});
}

TEST(Reservation, EachReservationCancelsThePreviousOne)
{
    tvxsim::Controller c(profileOf(smallRepository()), "");
    EXPECT_EQ(send(c, kNetFnStorage, 0x22, {}), (Bytes{0x00, 0x01, 0x00}));
    EXPECT_EQ(getSdr(c, 1, 1, 5, 4)[0], 0x00);
    EXPECT_EQ(send(c, kNetFnStorage, 0x22, {}), (Bytes{0x00, 0x02, 0x00}));
    EXPECT_EQ(getSdr(c, 1, 1, 5, 4), Bytes{0xC5}) << "the first reservation was cancelled";
    EXPECT_EQ(getSdr(c, 2, 1, 5, 4)[0], 0x00);
    EXPECT_EQ(send(c, kNetFnStorage, 0x22, {0x00}), Bytes{0xC7});
}

TEST(GetSdr, OffsetsLengthsReservationsAndCompletionCodes)
{
    tvxsim::Controller c(profileOf(smallRepository()), "");
    send(c, kNetFnStorage, 0x22, {});                  // reservation 1, cancelled by
    ASSERT_EQ(send(c, kNetFnStorage, 0x22, {})[1], 2); // reservation 2
    // The records as stored, read from offset 0 in pieces no answer refuses.
    std::vector<Bytes> stored;
    for (uint16_t id = 1; id <= 3; ++id) {
        Bytes head = getSdr(c, 0, id, 0, 5);
        ASSERT_EQ(head.size(), 8u);
        uint8_t total = static_cast<uint8_t>(5 + head[3 + 4]);
        Bytes r(head.begin() + 3, head.end());
        for (uint8_t off = 5; off < total; off = static_cast<uint8_t>(off + 20)) {
            Bytes part = getSdr(c, 2, id, off, static_cast<uint8_t>(std::min(20, total - off)));
            ASSERT_EQ(part[0], 0x00);
            r.insert(r.end(), part.begin() + 3, part.end());
        }
        stored.push_back(r);
    }
    ASSERT_EQ(stored[0].size(), 60u);
    ASSERT_EQ(stored[1].size(), 35u);
    ASSERT_EQ(stored[2].size(), 19u);

    struct Case {
        const char *what;
        Bytes request;
        uint8_t cc;
        uint16_t next = 0;
        int record = 0; // 1-based record whose bytes [offset, offset + n) come back
        std::size_t offset = 0, n = 0;
    } cases[] = {
        {"request too short", {0, 0, 0, 0, 0}, 0xC7}, {"request too long", {0, 0, 0, 0, 0, 5, 0}, 0xC7},
        {"header of the first record (ID 0)", {0, 0, 0, 0, 0, 5}, 0x00, 2, 1, 0, 5},
        {"whole record within one answer", {0, 0, 2, 0, 0, 0xFF}, 0x00, 3, 2, 0, 35},
        {"whole record beyond one answer", {0, 0, 1, 0, 0, 0xFF}, 0xCA},
        {"rest of a record from an offset", {2, 0, 1, 0, 20, 0xFF}, 0x00, 2, 1, 20, 40},
        {"exactly one answer's worth", {0, 0, 1, 0, 0, 40}, 0x00, 2, 1, 0, 40},
        {"one byte more than an answer carries", {0, 0, 1, 0, 0, 41}, 0xCA},
        {"offset with a cancelled reservation", {1, 0, 1, 0, 20, 0xFF}, 0xC5},
        {"offset without a reservation", {0, 0, 1, 0, 20, 0xFF}, 0xC5},
        {"offset 0 needs no reservation", {1, 0, 1, 0, 0, 5}, 0x00, 2, 1, 0, 5},
        {"unknown record ID", {0, 0, 4, 0, 0, 5}, 0xCB}, {"unknown record ID, high byte", {0, 0, 1, 1, 0, 5}, 0xCB},
        {"last record (ID 0xFFFF)", {0, 0, 0xFF, 0xFF, 0, 0xFF}, 0x00, 0xFFFF, 3, 0, 19},
        {"offset at the end of the record", {2, 0, 2, 0, 35, 0xFF}, 0xC9},
        {"offset far beyond the record", {2, 0, 2, 0, 200, 1}, 0xC9},
        {"length past the end of the record", {2, 0, 2, 0, 30, 10}, 0xCA},
        {"the record's last bytes", {2, 0, 2, 0, 30, 5}, 0x00, 3, 2, 30, 5},
        {"no bytes, only the next ID", {0, 0, 3, 0, 0, 0}, 0x00, 0xFFFF, 3, 0, 0},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        Bytes r = send(c, kNetFnStorage, 0x23, k.request);
        ASSERT_FALSE(r.empty());
        EXPECT_EQ(r[0], k.cc);
        if (k.cc != 0) {
            EXPECT_EQ(r.size(), 1u) << "an error carries no data";
            continue;
        }
        ASSERT_GE(r.size(), 3u);
        EXPECT_EQ(le16(r, 1), k.next);
        const Bytes &rec = stored[static_cast<std::size_t>(k.record - 1)];
        EXPECT_EQ(Bytes(r.begin() + 3, r.end()),
                  Bytes(rec.begin() + static_cast<long>(k.offset), rec.begin() + static_cast<long>(k.offset + k.n)));
    }
}

struct Field {
    int byte; // 1-based, as in the record tables
    uint8_t value;
    const char *what;
};

void expectFields(const Bytes &record, std::initializer_list<Field> fields)
{
    for (const Field &f : fields) {
        ASSERT_LE(static_cast<std::size_t>(f.byte), record.size()) << f.what;
        EXPECT_EQ(record[static_cast<std::size_t>(f.byte - 1)], f.value)
            << "byte " << f.byte << " (" << f.what << ")";
    }
}

void expectIdString(const Bytes &record, int typeLengthByte, const std::string &name)
{
    ASSERT_EQ(record.size(), static_cast<std::size_t>(typeLengthByte) + name.size());
    EXPECT_EQ(record[static_cast<std::size_t>(typeLengthByte - 1)], 0xC0 | name.size()) << "8-bit ASCII, length";
    EXPECT_EQ(std::string(record.begin() + typeLengthByte, record.end()), name);
    EXPECT_EQ(record[4], record.size() - 5) << "record length counts the bytes after the header";
}

class RecordLayout : public ::testing::Test {
protected:
    void SetUp() override
    {
        nlohmann::json doc = baseProfile();
        doc["controller"]["additional_device_support"] = {"sensor", "sdr_repository", "chassis"};
        doc["sensors"] = nlohmann::json::parse(R"([
          {"record": "full", "number": "0x42", "lun": 1, "channel": 2, "owner": "0x22",
           "entity": "0x37", "instance": 5, "logical_entity": true, "type": "0x01",
           "event_reading_type": "0x01", "name": "Exhaust Temp", "format": "twos_complement",
           "units": {"base": 1, "modifier": 6, "modifier_use": "multiply", "rate": 3, "percentage": true},
           "m": -3, "b": -300, "b_exp": 3, "r_exp": -2, "linearization": 7, "tolerance": 45,
           "accuracy": 1000, "accuracy_exp": 2, "direction": 1,
           "nominal": 25, "normal_max": 40, "normal_min": -10, "sensor_max": 120, "sensor_min": -40,
           "thresholds": {"lnr": -20, "lc": -10, "lnc": 0, "unc": 50, "uc": 60, "unr": 70},
           "readable_thresholds": ["lc", "uc", "unr"], "settable_thresholds": ["uc", "unc"],
           "hysteresis": {"positive": 3, "negative": 4}, "oem": "0x5A", "reading": 20},
          {"record": "compact", "number": "0x07", "entity": "0x1D", "instance": 2, "type": "0xE6",
           "event_reading_type": "0x6F", "name": "FAN2 Status Long", "state": "0x0003",
           "reading_mask": "0x00FF", "assertion_mask": "0x0003", "deassertion_mask": "0x0001",
           "events": false, "direction": 2}
        ])");
        controller = std::make_unique<tvxsim::Controller>(profileOf(doc), "");
        records = walk(*controller);
    }

    std::unique_ptr<tvxsim::Controller> controller;
    std::vector<Walked> records;
};

TEST_F(RecordLayout, RecordsStandInProfileOrderWithIdsFromOne)
{
    ASSERT_EQ(records.size(), 2u);
    const uint8_t types[] = {0x01, 0x02};
    for (std::size_t i = 0; i < records.size(); ++i) {
        const Bytes &r = records[i].record;
        EXPECT_EQ(le16(r, 0), i + 1) << "record ID in the header";
        EXPECT_EQ(r[2], 0x51) << "SDR version";
        EXPECT_EQ(r[3], types[i]) << "record type";
    }
}

TEST_F(RecordLayout, FullSensorRecord)
{
    const Bytes &r = records.at(0).record;
    expectFields(r, {
        {1, 0x01, "record ID LS"}, {2, 0x00, "record ID MS"}, {4, 0x01, "full sensor record"},
        {6, 0x22, "owner ID"}, {7, 0x21, "channel 2, owner LUN 1"}, {8, 0x42, "sensor number"},
        {9, 0x37, "entity ID"}, {10, 0x85, "logical entity, instance 5"},
        {11, 0x63, "init scanning+events, events and scanning enabled"},
        {12, 0x58, "auto re-arm, hysteresis readable, thresholds readable and settable"},
        {13, 0x01, "sensor type"}, {14, 0x01, "event/reading type"},
        // Assertion: LNR/LC/LNC comparisons returned (bits 14..12), going-low events of
        // the lower thresholds and going-high events of the upper ones.
        {15, 0x95, "assertion mask LS"}, {16, 0x7A, "assertion mask MS"},
        {17, 0x95, "deassertion mask LS"}, {18, 0x7A, "deassertion mask MS"},
        {19, 0x32, "readable: LC, UC, UNR"}, {20, 0x18, "settable: UNC, UC"},
        {21, 0x9D, "two's complement, per minute, multiplied modifier, percentage"},
        {22, 0x01, "base unit"}, {23, 0x06, "modifier unit"}, {24, 0x07, "linearization"},
        {25, 0xFD, "M LS (-3)"}, {26, 0xED, "M MS bits, tolerance 45"},
        {27, 0xD4, "B LS (-300)"}, {28, 0xA8, "B MS bits, accuracy LS 6 bits"},
        {29, 0xF9, "accuracy MS 4 bits, accuracy exp 2, direction input"},
        {30, 0xE3, "R exp -2, B exp 3"}, {31, 0x07, "nominal, normal max, normal min given"},
        {32, 0x19, "nominal 25"}, {33, 0x28, "normal max 40"}, {34, 0xF6, "normal min -10"},
        {35, 0x78, "sensor max 120"}, {36, 0xD8, "sensor min -40"},
        {37, 0x46, "UNR 70"}, {38, 0x3C, "UC 60"}, {39, 0x32, "UNC 50"},
        {40, 0xEC, "LNR -20"}, {41, 0xF6, "LC -10"}, {42, 0x00, "LNC 0"},
        {43, 0x03, "positive hysteresis"}, {44, 0x04, "negative hysteresis"},
        {45, 0x00, "reserved"}, {46, 0x00, "reserved"}, {47, 0x5A, "OEM"},
    });
    expectIdString(r, 48, "Exhaust Temp");
}

nlohmann::json sensorProfile()
{
    nlohmann::json doc = baseProfile();
    doc["sensors"] = nlohmann::json::parse(R"([
      {"record": "full", "number": 1, "entity": 3, "instance": 1, "type": 1, "event_reading_type": 1,
       "name": "Unsigned", "reading": 50,
       "thresholds": {"lnr": 10, "lc": 20, "lnc": 30, "unc": 100, "uc": 110, "unr": 120},
       "readable_thresholds": ["lc", "unc", "unr"], "hysteresis": {"positive": 2, "negative": 3}},
      {"record": "full", "number": 2, "entity": 3, "instance": 2, "type": 1, "event_reading_type": 1,
       "name": "Twos", "format": "twos_complement",
       "thresholds": {"lnr": -40, "lc": -30, "lnc": -20, "unc": 10, "uc": 20, "unr": 30}},
      {"record": "full", "number": 3, "entity": 3, "instance": 3, "type": 1, "event_reading_type": 1,
       "name": "Ones", "format": "ones_complement",
       "thresholds": {"lnr": -40, "lc": -30, "lnc": -20, "unc": 10, "uc": 20, "unr": 30}},
      {"record": "compact", "number": 4, "entity": 3, "instance": 4, "type": 1, "event_reading_type": 1,
       "name": "Only UC", "thresholds": {"uc": 200}},
      {"record": "full", "number": 5, "entity": 3, "instance": 5, "type": 1, "event_reading_type": 1,
       "name": "No analog", "format": "none", "thresholds": {"uc": 10}},
      {"record": "compact", "number": 16, "entity": 3, "instance": 1, "type": 7, "event_reading_type": "0x6F",
       "name": "CPU Status", "state": "0x4081"},
      {"record": "compact", "number": 17, "entity": 3, "instance": 2, "type": 7, "event_reading_type": "0x6F",
       "name": "Quiet", "state": 1, "events": false, "scanning": false},
      {"record": "full", "number": 18, "entity": 3, "instance": 1, "type": 1, "event_reading_type": 1,
       "name": "Host Temp", "reading": 40, "powered_by_host": true, "thresholds": {"unc": 41}},
      {"record": "compact", "number": 1, "lun": 1, "entity": 3, "instance": 9, "type": 7,
       "event_reading_type": "0x6F", "name": "On LUN 1", "state": 2}
    ])");
    return doc;
}

Bytes reading(tvxsim::Controller &c, uint8_t number, uint8_t lun = 0) { return send(c, kNetFnSensor, 0x2D, {number}, lun); }

TEST(ThresholdStatus, ComputedAroundEachThresholdInEachFormat)
{
    tvxsim::Controller c(profileOf(sensorProfile()), "");
    const uint8_t LNC = 0x01, LC = 0x02, LNR = 0x04, UNC = 0x08, UC = 0x10, UNR = 0x20;
    struct Case {
        uint8_t sensor;
        uint8_t raw;
        uint8_t bits;
    } cases[] = {
        // unsigned: lnr 10, lc 20, lnc 30, unc 100, uc 110, unr 120
        {1, 0, LNC | LC | LNR}, {1, 10, LNC | LC | LNR}, {1, 11, LNC | LC}, {1, 20, LNC | LC},
        {1, 21, LNC}, {1, 30, LNC}, {1, 31, 0}, {1, 99, 0}, {1, 100, UNC}, {1, 109, UNC},
        {1, 110, UNC | UC}, {1, 119, UNC | UC}, {1, 120, UNC | UC | UNR}, {1, 255, UNC | UC | UNR},
        // two's complement: -40, -30, -20 | 10, 20, 30
        {2, 0x80, LNC | LC | LNR}, {2, 0xD7, LNC | LC | LNR}, {2, 0xD8, LNC | LC | LNR},
        {2, 0xD9, LNC | LC}, {2, 0xE2, LNC | LC}, {2, 0xE3, LNC}, {2, 0xEC, LNC}, {2, 0xED, 0},
        {2, 0xFF, 0}, {2, 0x00, 0}, {2, 0x09, 0}, {2, 0x0A, UNC}, {2, 0x14, UNC | UC},
        {2, 0x1D, UNC | UC}, {2, 0x1E, UNC | UC | UNR}, {2, 0x7F, UNC | UC | UNR},
        // ones' complement (-n is ~n): -40 = 0xD7, -30 = 0xE1, -20 = 0xEB
        {3, 0x80, LNC | LC | LNR}, {3, 0xD6, LNC | LC | LNR}, {3, 0xD7, LNC | LC | LNR},
        {3, 0xD8, LNC | LC}, {3, 0xE1, LNC | LC}, {3, 0xE2, LNC}, {3, 0xEB, LNC}, {3, 0xEC, 0},
        {3, 0xFF, 0}, {3, 0x00, 0}, {3, 0x0A, UNC}, {3, 0x14, UNC | UC}, {3, 0x1E, UNC | UC | UNR},
        // a threshold the sensor does not have never asserts
        {4, 0, 0}, {4, 199, 0}, {4, 200, UC}, {4, 255, UC},
        // without analog readings there is nothing to compare
        {5, 0, 0}, {5, 200, 0},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE("sensor " + std::to_string(k.sensor) + " raw " + std::to_string(k.raw));
        ASSERT_EQ(tvxsim::setSensorReading(c, k.sensor, k.raw), "");
        EXPECT_EQ(reading(c, k.sensor), (Bytes{0x00, k.raw, 0xC0, static_cast<uint8_t>(0xC0 | k.bits)}));
    }
}

TEST(SensorReading, DiscreteStatesFlagsAndAvailability)
{
    tvxsim::Controller c(profileOf(sensorProfile()), "");
    // States 0..7 in byte 3; 8..14 in byte 4, whose bit 7 reads as 1.
    EXPECT_EQ(reading(c, 16), (Bytes{0x00, 0x00, 0xC0, 0x81, 0xC0}));
    ASSERT_EQ(tvxsim::setSensorState(c, 16, 0x7FFF), "");
    EXPECT_EQ(reading(c, 16), (Bytes{0x00, 0x00, 0xC0, 0xFF, 0xFF}));
    ASSERT_EQ(tvxsim::setSensorState(c, 16, 0x0000), "");
    EXPECT_EQ(reading(c, 16), (Bytes{0x00, 0x00, 0xC0, 0x00, 0x80}));

    EXPECT_EQ(reading(c, 17), (Bytes{0x00, 0x00, 0x00, 0x01, 0x80})) << "events and scanning off in the profile";

    // Unavailable: no reading and no states, whatever the sensor holds.
    ASSERT_EQ(tvxsim::setSensorFlags(c, 1, -1, 1), "");
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 0x00, 0xE0, 0xC0}));
    ASSERT_EQ(tvxsim::setSensorFlags(c, 1, 0, -1), "");
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 0x00, 0xA0, 0xC0}));
    ASSERT_EQ(tvxsim::setSensorFlags(c, 1, 1, 0), "");
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 50, 0xC0, 0xC0}));

    // A sensor powered by the host reads as unavailable while the chassis is off.
    EXPECT_EQ(reading(c, 18), (Bytes{0x00, 40, 0xC0, 0xC0}));
    c.control([](tvxsim::Context &ctx) {
        ctx.state["chassis"]["power_on"] = false;
        ctx.changed();
    });
    EXPECT_EQ(reading(c, 18), (Bytes{0x00, 0x00, 0xE0, 0xC0}));
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 50, 0xC0, 0xC0})) << "other sensors read on";
    c.control([](tvxsim::Context &ctx) {
        ctx.state["chassis"]["power_on"] = true;
        ctx.changed();
    });
    EXPECT_EQ(reading(c, 18), (Bytes{0x00, 40, 0xC0, 0xC0}));

    // Sensors are found by LUN and number.
    EXPECT_EQ(reading(c, 1, 1), (Bytes{0x00, 0x00, 0xC0, 0x02, 0x80}));
    EXPECT_EQ(reading(c, 16, 1), Bytes{0xCB});
    EXPECT_EQ(reading(c, 0x99), Bytes{0xCB});
    EXPECT_EQ(send(c, kNetFnSensor, 0x2D, {}), Bytes{0xC7});
    EXPECT_EQ(send(c, kNetFnSensor, 0x2D, {1, 0}), Bytes{0xC7});
}

TEST(SensorReading, ThresholdsAndHysteresis)
{
    tvxsim::Controller c(profileOf(sensorProfile()), "");
    struct Case {
        const char *what;
        uint8_t command;
        Bytes request;
        Bytes answer;
    } cases[] = {
        {"readable thresholds only, in the order LNC LC LNR UNC UC UNR", 0x27, {1},
         {0x00, 0x2A, 0, 20, 0, 100, 0, 120}},
        {"all six, two's complement", 0x27, {2}, {0x00, 0x3F, 0xEC, 0xE2, 0xD8, 10, 20, 30}},
        {"one threshold of a compact record", 0x27, {4}, {0x00, 0x10, 0, 0, 0, 0, 200, 0}},
        {"a discrete sensor has no thresholds", 0x27, {16}, {0xCD}}, {"no such sensor", 0x27, {0x99}, {0xCB}},
        {"thresholds request too long", 0x27, {1, 0}, {0xC7}}, {"hysteresis", 0x25, {1, 0xFF}, {0x00, 2, 3}},
        {"no hysteresis given", 0x25, {2, 0xFF}, {0x00, 0, 0}},
        {"a discrete sensor has no hysteresis", 0x25, {16, 0xFF}, {0xCD}},
        {"hysteresis of no such sensor", 0x25, {0x99, 0xFF}, {0xCB}},
        {"hysteresis request without its second byte", 0x25, {1}, {0xC7}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        EXPECT_EQ(send(c, kNetFnSensor, k.command, k.request), k.answer);
    }
}

// Through the platform library's host API and libtvx_toipmi, as a test program or a tool
// drives the machine; the change outlives the program that made it.
TEST(HostApi, ChangesAreSeenByTheNextRequest)
{
    TempDir dir;
    std::string profile = (tvxtest::writeFile(dir.file("sensors.json"), sensorProfile().dump()), dir.file("sensors.json"));
    std::string state = dir.path() + "/state";
    ASSERT_EQ(ipmihost_select_machine(profile.c_str(), state.c_str()), 0) << ipmihost_last_error();
    IpmiSession *s = ipmiOpenSession(TVX_PRIV_ADMIN, "admin", nullptr, 0, nullptr);
    ASSERT_NE(s, nullptr);

    uint8_t raw = 0;
    uint16_t bits = 0;
    ASSERT_EQ(ipmihost_set_sensor_reading(1, 105), 0) << ipmihost_last_error();
    ASSERT_EQ(ipmiGetSensorReading(s, 1, &raw, &bits), 1);
    EXPECT_EQ(raw, 105);
    EXPECT_EQ(bits & 0x3F, 0x08) << "at or above the upper non-critical threshold";

    ASSERT_EQ(ipmihost_set_sensor_state(16, 0x0102), 0) << ipmihost_last_error();
    ASSERT_EQ(ipmiGetSensorReading(s, 16, &raw, &bits), 1);
    EXPECT_EQ(bits, 0x0102);

    ASSERT_EQ(ipmihost_set_sensor_flags(17, 1, 1), 0) << ipmihost_last_error();
    EXPECT_EQ(ipmiGetSensorReading(s, 17, &raw, &bits), 0) << "unavailable while scanning: not read";

    EXPECT_EQ(ipmihost_set_sensor_reading(0x99, 1), -1);
    EXPECT_NE(std::string(ipmihost_last_error()).find("no sensor 0x99"), std::string::npos);
    EXPECT_EQ(ipmihost_set_sensor_state(1, 1), -1);
    EXPECT_EQ(ipmihost_set_sensor_flags(1, 5, 0), -1);

    // Starting the machine afresh brings back the profile's values.
    ASSERT_EQ(ipmihost_reset_machine(), 0);
    ASSERT_EQ(ipmiGetSensorReading(s, 1, &raw, &bits), 1);
    EXPECT_EQ(raw, 50);

    ipmiHelperCloseSession(&s);

    // Without a virtual controller there is no sensor to set.
    ASSERT_EQ(ipmihost_select_script(), 0);
    EXPECT_EQ(ipmihost_set_sensor_reading(1, 1), -1);
    ipmihost_select_default();
}

const std::string kLongName = "Component name of 31 characters";

nlohmann::json componentProfile()
{
    nlohmann::json doc = baseProfile();
    doc["components"] = nlohmann::json::parse(R"([
      {"key": "01 01", "id": "00 01", "bytes": "03 01 00", "status": 2, "byte": 5, "name": "CPU1"},
      {"key": "05 02", "id": "00 41", "bytes": "0b 02 00", "status": 1, "name": "Riser",
       "completion_code": "0x02"},
      {"key": [6, 0], "id": [0, 6], "bytes": [1, 2, 3], "status": 3, "name": ""}
    ])");
    doc["components"][2]["name"] = kLongName;
    return doc;
}

Bytes oem(tvxsim::Controller &c, Bytes afterIana)
{
    Bytes data{0xD9, 0x7E, 0x00};
    data.insert(data.end(), afterIana.begin(), afterIana.end());
    return send(c, kNetFnOemGroup, 0xF5, data);
}

TEST(ComponentStatus, AnswersTheProfilesComponents)
{
    tvxsim::Controller c(profileOf(componentProfile()), "");
    Bytes longAnswer{0x00, 0xD9, 0x7E, 0x00, 0x00, 0x06, 1, 2, 3, 3, 0, 31};
    longAnswer.insert(longAnswer.end(), kLongName.begin(), kLongName.end());
    struct Case {
        const char *what;
        Bytes request;
        Bytes answer;
    } cases[] = {
        {"a component", {0x40, 0x01, 0x01, 0x01},
         {0x00, 0xD9, 0x7E, 0x00, 0x00, 0x01, 0x03, 0x01, 0x00, 0x02, 0x05, 0x04, 'C', 'P', 'U', '1'}},
        {"a component known but unreadable", {0x40, 0x05, 0x02, 0x01},
         {0x02, 0xD9, 0x7E, 0x00, 0x00, 0x41, 0x0B, 0x02, 0x00, 0x01, 0x00, 0x05, 'R', 'i', 's', 'e', 'r'}},
        {"the longest name", {0x40, 0x06, 0x00, 0x01}, longAnswer},
        {"an unknown key", {0x40, 0x01, 0x02, 0x01}, {0xCB, 0xD9, 0x7E, 0x00}},
        {"another selector", {0x40, 0x01, 0x01, 0x02}, {0xCC, 0xD9, 0x7E, 0x00}},
        {"a request too short", {0x40, 0x01, 0x01}, {0xC7, 0xD9, 0x7E, 0x00}},
        {"a request too long", {0x40, 0x01, 0x01, 0x01, 0x00}, {0xC7, 0xD9, 0x7E, 0x00}},
        {"no sub-function", {}, {0xC7, 0xD9, 0x7E, 0x00}},
        {"an unknown sub-function", {0x99, 0x01, 0x01, 0x01}, {0xC1, 0xD9, 0x7E, 0x00}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        EXPECT_EQ(oem(c, k.request), k.answer);
    }
}

nlohmann::json validProfile()
{
    nlohmann::json doc = baseProfile();
    doc["sdr"] = {{"allocation_unit_size", 16}};
    doc["sensors"] = nlohmann::json::parse(R"([
      {"record": "full", "number": 1, "entity": 3, "instance": 1, "type": 1, "event_reading_type": 1,
       "name": "CPU1 Temp", "reading": 40, "thresholds": {"lnc": 20, "unc": 80}},
      {"record": "compact", "number": 2, "entity": 3, "instance": 1, "type": 7, "event_reading_type": "0x6F",
       "name": "CPU1 Status", "state": 2}
    ])");
    doc["fru_locators"] = nlohmann::json::parse(R"([{"name": "System Board", "fru_id": 0, "entity": 7, "instance": 1}])");
    doc["mc_locators"] = nlohmann::json::parse(R"([{"name": "BMC", "entity": 6, "instance": 1}])");
    doc["components"] = nlohmann::json::parse(
        R"([{"key": "01 01", "id": "00 01", "bytes": "00 00 00", "status": 0, "name": "CPU1"}])");
    return doc;
}

std::string loadError(const nlohmann::json &doc)
{
    try {
        tvxsim::Controller c(profileOf(doc), "");
    } catch (const tvxsim::ProfileError &e) {
        return e.what();
    }
    return "(accepted)";
}

TEST(SdrProfile, BadValuesNameFilePointerAndProblem)
{
    struct Case {
        const char *pointer; // where to put the value
        nlohmann::json value;
        const char *message; // what the error must contain after "test.json: "
    } cases[] = {
        {"/sensors/0/number", 255, "/sensors/0/number: expected an integer from 0 to 254"},
        {"/sensors/0/name", "Temp\xc3\xa9rature", "/sensors/0/name: \"Temp\xc3\xa9rature\": only printable ASCII"},
        {"/sensors/0/thresholds/unc", 10, "/sensors/0/thresholds/unc: unc (10) must lie above lnc (20)"},
        {"/sensors/0/thresholds/lnr", 25, "/sensors/0/thresholds/lnc: lnc (20) must lie at or above lnr (25)"},
        {"/sensors/0/m", 600, "/sensors/0/m: expected an integer from -512 to 511"},
        {"/sensors/0/linearization", "0x20", "/sensors/0/linearization: linearization 0x20 is reserved"},
        {"/sensors/0/state", 1, "/sensors/0/state: a threshold-based sensor's state follows"},
        {"/sensors/0/readable_thresholds", {"unr"},
         "/sensors/0/readable_thresholds/0: threshold \"unr\" is readable but has no value"},
        {"/sensors/1/m", 2, "/sensors/1/m: \"m\" belongs to full sensor records only"},
        {"/sensors/1/reading_mask", 1, "/sensors/1/state: state 0x0002 has bits outside reading_mask 0x0001"},
        {"/sensors/1/number", 1, "/sensors/1/number: sensor number 0x01 on LUN 0 is already used by /sensors/0"},
        {"/sdr/max_record_units", 2, "/sensors/0: the record takes 57 bytes, more than the largest record"},
        {"/sdr/allocation_units", 5, "/sdr/allocation_units: the records take 11 allocation units, more than the 5"},
        {"/fru_locators/0/address", "0x21", "/fru_locators/0/address: expected an IPMB slave address in its 8-bit form"},
        {"/fru_locators/1", {{"name", "Again"}, {"fru_id", 0}, {"entity", 7}, {"instance", 2}},
         "/fru_locators/1/fru_id: FRU device 0x00 of controller 0x20 is already described by /fru_locators/0"},
        {"/components/1", {{"key", "01 01"}, {"id", "00 02"}, {"bytes", "00 00 00"}, {"status", 0}, {"name", "X"}},
         "/components/1/key: the key is already used by /components/0"},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.pointer);
        nlohmann::json doc = validProfile();
        doc[nlohmann::json::json_pointer(k.pointer)] = k.value;
        std::string error = loadError(doc);
        EXPECT_EQ(error.rfind("test.json: ", 0), 0u) << error;
        EXPECT_NE(error.find(k.message), std::string::npos) << error;
    }
}

// A bad profile given to the platform library stops everything: the selection fails with
// the message and the earlier selection stays.
TEST(SdrProfile, HostSelectionRefusesABadProfile)
{
    TempDir dir;
    nlohmann::json doc = validProfile();
    doc["sensors"][1]["number"] = "0x1FF";
    std::string path = (tvxtest::writeFile(dir.file("lab.json"), doc.dump(2)), dir.file("lab.json"));
    ASSERT_EQ(ipmihost_select_script(), 0);
    EXPECT_EQ(ipmihost_select_machine(path.c_str(), dir.path().c_str()), -1);
    EXPECT_EQ(std::string(ipmihost_last_error()).rfind(path + ": /sensors/1/number: expected an integer from 0 to 254", 0),
              0u)
        << ipmihost_last_error();
    EXPECT_STREQ(ipmihost_describe_target(), "script");
    ipmihost_select_default();
}

} // namespace
} // namespace simsdr
