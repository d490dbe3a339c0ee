// The records as a client reads them: every field at the byte the IPMI SDR tables give it.
// Positions below are the tables' byte numbers (1-based), as a reader of the tables finds
// them; the expected values are worked out by hand from the profile.
#include "simsdr_util.h"

namespace simsdr {
namespace {

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

TEST_F(RecordLayout, CompactSensorRecordWithSixteenCharacterName)
{
    const Bytes &r = records.at(1).record;
    expectFields(r, {
        {1, 0x02, "record ID LS"}, {4, 0x02, "compact sensor record"},
        {6, 0x20, "owner: the controller"}, {7, 0x00, "channel 0, LUN 0"}, {8, 0x07, "sensor number"},
        {9, 0x1D, "entity ID"}, {10, 0x02, "instance 2"},
        {11, 0x41, "init scanning, scanning enabled, no events"}, {12, 0x40, "auto re-arm only"},
        {13, 0xE6, "sensor type"}, {14, 0x6F, "sensor-specific"},
        {15, 0x03, "assertion mask LS"}, {16, 0x00, "assertion mask MS"},
        {17, 0x01, "deassertion mask LS"}, {18, 0x00, "deassertion mask MS"},
        {19, 0xFF, "reading mask LS"}, {20, 0x00, "reading mask MS"},
        {21, 0xC0, "no analog reading"}, {22, 0x00, "base unit"}, {23, 0x00, "modifier unit"},
        {24, 0x81, "direction output, one sensor"}, {25, 0x00, "instance sharing"},
        {26, 0x00, "positive hysteresis"}, {27, 0x00, "negative hysteresis"},
        {28, 0x00, "reserved"}, {29, 0x00, "reserved"}, {30, 0x00, "reserved"}, {31, 0x00, "OEM"},
    });
    expectIdString(r, 32, "FAN2 Status Long");
    EXPECT_EQ(r.size(), 48u) << "the largest compact record";
}

} // namespace
} // namespace simsdr
