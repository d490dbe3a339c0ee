// The event text service of the virtual controller (OEM command 0xF5): error codes of log
// entries, message texts in chunks and languages, entry texts with follow-up chunks, and the
// labels records added at run time get from the profile's sensor-event rules.
#include "machine_fixture.h"

namespace simsel {
namespace {

using EventTexts = Machine;

constexpr uint8_t kErrorCode = 0x72, kTextChunk = 0x73, kEntryText = 0x45, kFollowUp = 0x71, kEntryAsText = 0x89;

Bytes codeBytes(const std::string &hex)
{
    Bytes b;
    for (std::size_t i = 0; i < 8; i += 2) b.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return b;
}

// What a 0x72 answer says.
struct Label {
    std::string code;
    uint8_t flags;
    std::vector<std::string> params;
    bool operator==(const Label &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Label &l)
{
    os << l.code << " flags " << int(l.flags) << " [";
    for (const auto &p : l.params) os << '"' << p << "\" ";
    return os << "]";
}

Label parseLabel(const Bytes &r)
{
    Label l;
    char hex[9];
    std::snprintf(hex, sizeof hex, "%02X%02X%02X%02X", r.at(1), r.at(2), r.at(3), r.at(4));
    l.code = hex;
    l.flags = r.at(5);
    std::size_t pos = 7;
    for (unsigned i = 0; i < r.at(6); ++i) {
        std::size_t n = r.at(pos);
        l.params.emplace_back(r.begin() + static_cast<long>(pos) + 1, r.begin() + static_cast<long>(pos + 1 + n));
        pos += 1 + n;
    }
    EXPECT_EQ(pos, r.size()) << "bytes after the parameters";
    return l;
}

uint8_t flagsOf(const std::string &severity)
{
    const char *names[] = {"info", "minor", "major", "critical"};
    for (uint8_t i = 0; i < 4; ++i)
        if (severity == names[i]) return static_cast<uint8_t>(i << 4);
    return 0xFF;
}

TEST_F(EventTexts, EntryAsTextComesWholeWithItsFollowUps)
{
    start();
    const json &recs = profile_["sel"]["records"];
    const unsigned chunk = profile_["event_texts"]["chunk_size"];
    const struct {
        uint16_t id;
        uint8_t form;
        uint16_t lang;
        uint8_t first;
        const char *lcid; // the language the text is in
    } cases[] = {
        // ID 0 is the first entry; p8 0 is English, a language without a text gets English;
        // p10 sets the first chunk's length (0: the chunk size, at most what one answer holds).
        {1, 0x00, 0x0000, 0, "0x0409"},  {1, 0x03, 0x0407, 0, "0x0407"}, {1, 0x02, 0x040C, 20, "0x0409"},
        {1, 0x01, 0x0409, 250, "0x0409"}, {2, 0x03, 0x0407, 0, "0x0409"}, {0x0000, 0x00, 0x0409, 3, "0x0409"},
        // Chunks that end inside a character ("Lü...": the first chunk ends after half the ü).
        {1, 0x00, 0x0407, 2, "0x0407"},
    };
    for (const auto &c : cases) {
        uint16_t id = c.id ? c.id : 1;
        const json &rec = recs[id - 1];
        std::string want = message(profile_, rec, c.lcid);
        if (c.form & 1) want = timeText(timeOf(rec["time"])) + " " + want;
        if (c.form & 2) want += " (" + severity(profile_, rec) + ")";
        Bytes r = text(kEntryAsText, {0x00, uint8_t(c.id), uint8_t(c.id >> 8), c.form, uint8_t(c.lang), uint8_t(c.lang >> 8),
                                      c.first, 0x00, 0x00});
        ASSERT_EQ(r.at(0), 0x00);
        EXPECT_EQ(le16(r, 1), id);
        EXPECT_EQ(le16(r, 3), recordBytes(rec, id)[2]);
        EXPECT_EQ(le16(r, 5), std::stoul(c.lcid, nullptr, 16));
        EXPECT_EQ(Bytes(r.begin() + 7, r.begin() + 11), codeBytes(rec["error_code"]));
        EXPECT_EQ(le16(r, 13), id + 1);
        EXPECT_EQ(le16(r, 15), recs.size());
        std::size_t firstMax = c.first ? std::min<std::size_t>(c.first, 230) : chunk;
        std::string got(r.begin() + 21, r.end() - 1);
        EXPECT_EQ(r.back(), 0x00);
        EXPECT_EQ(r.at(19), got.size() + 1);
        EXPECT_EQ(got.size(), std::min(want.size(), firstMax));
        std::size_t size = got.size() + 1, declared = le16(r, 17);
        uint8_t handle = r.at(20);
        EXPECT_EQ(handle != 0, want.size() > firstMax);
        for (int guard = 0; handle && guard < 100; ++guard) {
            Bytes f = text(kFollowUp, {handle});
            ASSERT_EQ(f.at(0), 0x00);
            unsigned c2 = f.at(3);
            ASSERT_EQ(f.size(), 4u + c2);
            got.append(f.begin() + 4, f.end() - 1);
            size += c2;
            EXPECT_EQ(le16(f, 1), declared - size); // what remains, terminators counted
            if (le16(f, 1) == 0) break;
        }
        EXPECT_EQ(got, want) << int(c.form) << " " << c.lcid;
        EXPECT_EQ(declared, size);
        if (handle) {
            EXPECT_EQ(text(kFollowUp, {handle}), Bytes{0xCB}); // used up
        }
    }
    EXPECT_EQ(text(kEntryAsText, {0, 3, 0, 0, 0, 0, 0, 0, 0}), Bytes{0xCB});
    EXPECT_EQ(text(kEntryAsText, {0, 1, 0, 0, 0, 0, 0, 0}), Bytes{0xC7});
    EXPECT_EQ(text(kFollowUp, {0x42}), Bytes{0xCB});
    EXPECT_EQ(text(kFollowUp, {}), Bytes{0xC7});
}

TEST_F(EventTexts, RecordsAddedAtRunTimeAreLabelledBySensorEvent)
{
    json doc = smallMachine();
    doc["sel"]["capacity"] = 50;
    // A parameter cut to its 64 bytes loses a character split by the cut as a whole.
    json cut;
    cut["sensor_type"] = "0x2A";
    cut["error_code"] = "00000002";
    cut["parameters"] = json::array({std::string(63, 'x') + "\u00fc{sensor}"});
    json &rules = doc["event_texts"]["sensor_events"];
    rules.insert(rules.begin(), cut);
    // The SDR part of the profile names some sensors.
    start(doc, json::parse(R"([
      {"record": "compact", "number": "0x01", "name": "Inlet Temp", "entity": "0x37", "instance": 1,
       "type": "0x01", "event_reading_type": "0x6F"},
      {"record": "compact", "number": 5, "lun": 1, "name": "Other LUN", "entity": "0x07", "instance": 1,
       "type": "0x30", "event_reading_type": "0x6F"},
      {"record": "compact", "number": 9, "name": "Nine", "entity": "0x07", "instance": 2,
       "type": "0x2A", "event_reading_type": "0x6F"}])"));
    auto add = [&](uint8_t generator, uint8_t lunByte, uint8_t sensorType, uint8_t sensor, uint8_t dirType, Bytes data) {
        Bytes rec = {0, 0, 0x02, 0, 0, 0, 0, generator, lunByte, 0x04, sensorType, sensor, dirType, data[0], data[1], data[2]};
        Bytes r = storage(kAdd, rec);
        EXPECT_EQ(r.at(0), 0x00);
        return le16(r, 1);
    };
    const struct {
        uint8_t generator, lun, sensorType, sensor, dirType;
        Bytes data;
        Label label;
    } cases[] = {
        // A threshold event with its reading and threshold, from a named sensor.
        {0x20, 0, 0x01, 0x01, 0x01, {0x57, 0x2B, 0x2A}, {"00000003", 0x10, {"Inlet Temp", "43", "42"}}},
        // Its deassertion has no rule of its own: the catch-all.
        {0x20, 0, 0x01, 0x01, 0x81, {0x57, 0x29, 0x2A}, {"00000004", 0x00, {"Inlet Temp", "0x01", "0x01", "7"}}},
        // A rule for one sensor number, with the severity of its own, on LUN 0 and 1.
        {0x20, 0, 0x04, 0x21, 0x01, {0x52, 0, 0}, {"00000001", 0x30, {"sensor 0x21", "lun 0"}}},
        {0x20, 1, 0x04, 0x21, 0x01, {0x52, 0, 0}, {"00000001", 0x30, {"sensor 0x21", "lun 1"}}},
        {0x20, 0, 0x04, 0x20, 0x01, {0x52, 0, 0}, {"00000004", 0x00, {"sensor 0x20", "0x04", "0x20", "2"}}},
        // Names are looked up by LUN and number, for the controller's own sensors only.
        {0x20, 1, 0x30, 0x05, 0x6F, {0x03, 0, 0}, {"00000004", 0x00, {"Other LUN", "0x30", "0x05", "3"}}},
        {0x20, 0, 0x30, 0x05, 0x6F, {0x03, 0, 0}, {"00000004", 0x00, {"sensor 0x05", "0x30", "0x05", "3"}}},
        {0x41, 0, 0x01, 0x01, 0x01, {0x57, 0x2B, 0x2A}, {"00000003", 0x10, {"sensor 0x01", "43", "42"}}},
        {0x20, 0, 0x2A, 0x09, 0x6F, {0x00, 0, 0}, {"00000002", 0x00, {std::string(63, 'x')}}},
    };
    for (const auto &c : cases) {
        uint16_t id = add(c.generator, c.lun, c.sensorType, c.sensor, c.dirType, c.data);
        Bytes r = text(kErrorCode, {0, uint8_t(id), uint8_t(id >> 8)});
        ASSERT_EQ(r.at(0), 0x00);
        EXPECT_EQ(parseLabel(r), c.label) << std::hex << int(c.sensorType) << "/" << int(c.sensor);
    }
    // A record other than a system event gets no message.
    Bytes oem(16, 0);
    oem[2] = 0xC0;
    uint16_t id = le16(storage(kAdd, oem), 1);
    EXPECT_EQ(text(kErrorCode, {0, uint8_t(id), uint8_t(id >> 8)}), Bytes{0xCB});
}

// Requests of any length and content to every command of the log and its texts are answered
// with a completion code (AddressSanitizer watches the handlers read nothing beyond them).
TEST_F(EventTexts, ArbitraryRequestsAreAnsweredNeverCrashedOn)
{
    json doc = smallMachine();
    doc["sel"]["capacity"] = 300;
    start(doc);
    uint32_t seed = 12345;
    auto next = [&] {
        seed = seed * 1103515245u + 12345u;
        return static_cast<uint8_t>(seed >> 16);
    };
    const uint8_t storageCommands[] = {kGetSelInfo, kGetAllocInfo, kReserve, kGetEntry, kAdd, kClear,
                                       kGetTime,    kSetTime,      kGetUtc,  kSetUtc};
    const uint8_t subs[] = {kErrorCode, kTextChunk, kEntryText, kFollowUp, kEntryAsText};
    for (int round = 0; round < 20000; ++round) {
        // Mostly the lengths some command takes, so requests get past the length checks.
        const std::size_t lengths[] = {0, 1, 2, 3, 4, 6, 9, 10, 16, next() % 32u};
        Bytes data(lengths[next() % std::size(lengths)]);
        // Mostly zeros and small numbers, which name records, offsets and error codes there are.
        for (auto &b : data) {
            uint8_t kind = next() % 4;
            b = kind < 2 ? 0 : kind == 2 ? static_cast<uint8_t>(1 + next() % 4) : next();
        }
        if (round % 2 == 0) {
            uint8_t cmd = storageCommands[round / 2 % std::size(storageCommands)];
            Bytes r = storage(cmd, data);
            ASSERT_FALSE(r.empty());
        } else {
            Bytes r = text(subs[round / 2 % std::size(subs)], data);
            ASSERT_FALSE(r.empty());
        }
    }
    // The machine still answers sensibly.
    Bytes info = storage(kGetSelInfo);
    ASSERT_EQ(info.size(), 15u);
    EXPECT_EQ(info[0], 0x00);
}

} // namespace
} // namespace simsel
