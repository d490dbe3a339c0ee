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

TEST_F(EventTexts, ErrorCodesOfTheProfilesEntries)
{
    start();
    const json &recs = profile_["sel"]["records"];
    auto labelOf = [&](const json &rec) {
        std::string sev = rec.contains("severity") ? rec["severity"].get<std::string>()
                                                   : profile_["event_texts"]["codes"][rec["error_code"].get<std::string>()].value("severity", "info");
        return Label{rec["error_code"], flagsOf(sev), rec.value("parameters", std::vector<std::string>{})};
    };
    const struct {
        uint16_t id;
        int record; // index in the profile, -1: none
    } cases[] = {{1, 0}, {0x0000, 0}, {2, 1}};
    for (const auto &c : cases) {
        for (uint8_t selector : {0x00, 0x01, 0xFF}) {
            Bytes r = text(kErrorCode, {selector, uint8_t(c.id), uint8_t(c.id >> 8)});
            ASSERT_EQ(r.at(0), 0x00) << c.id;
            EXPECT_EQ(parseLabel(r), labelOf(recs[c.record])) << c.id;
        }
    }
    EXPECT_EQ(text(kErrorCode, {0, 3, 0}), Bytes{0xCB});    // an OEM record without a code
    EXPECT_EQ(text(kErrorCode, {0, 0xFF, 0xFF}), Bytes{0xCB}); // the last one, the same
    EXPECT_EQ(text(kErrorCode, {0, 9, 0}), Bytes{0xCB});
    EXPECT_EQ(text(kErrorCode, {0, 1}), Bytes{0xC7});
    EXPECT_EQ(text(0x70, {0}), Bytes{0xC1}); // a sub-function nobody offers
}

TEST_F(EventTexts, TextChunksAddUpToTheTextInTheLanguageAskedFor)
{
    start();
    const unsigned chunk = profile_["event_texts"]["chunk_size"];
    for (const auto &[code, def] : profile_["event_texts"]["codes"].items()) {
        for (uint16_t lang : {0x0409, 0x0407, 0x040C}) {
            char key[8];
            std::snprintf(key, sizeof key, "0x%04X", lang);
            std::string want = def["texts"].contains(key) ? def["texts"][key] : def["texts"]["0x0409"];
            std::string got;
            unsigned requests = 0;
            for (uint16_t offset = 0;;) {
                Bytes req = codeBytes(code);
                req.insert(req.end(), {uint8_t(offset), uint8_t(offset >> 8), 0x00, uint8_t(lang), uint8_t(lang >> 8), 0x00});
                Bytes r = text(kTextChunk, req);
                ++requests;
                ASSERT_EQ(r.at(0), 0x00) << code;
                ASSERT_EQ(le16(r, 1), want.size()) << code;
                unsigned c = r.at(3);
                EXPECT_LE(c, chunk);
                ASSERT_EQ(r.size(), 4u + c + 1) << code;
                EXPECT_EQ(r.back(), 0x00);
                got.append(r.begin() + 4, r.begin() + 4 + c);
                offset = static_cast<uint16_t>(offset + c);
                if (offset >= want.size() || requests > 100) break;
            }
            EXPECT_EQ(got, want) << code << " " << key;
            EXPECT_EQ(requests, std::max<std::size_t>(1, (want.size() + chunk - 1) / chunk)) << code;
        }
    }
    Bytes past = codeBytes("00000002");
    std::string oemText = profile_["event_texts"]["codes"]["00000002"]["texts"]["0x0409"];
    uint16_t end = static_cast<uint16_t>(oemText.size());
    past.insert(past.end(), {uint8_t(end), uint8_t(end >> 8), 0, 0x09, 0x04, 0});
    EXPECT_EQ(text(kTextChunk, past), (Bytes{0x00, uint8_t(end), 0x00, 0x00, 0x00})); // nothing left
    past[4] = uint8_t(end + 1);
    EXPECT_EQ(text(kTextChunk, past), Bytes{0xC9});
    EXPECT_EQ(text(kTextChunk, {0xDE, 0xAD, 0xBE, 0xEF, 0, 0, 0, 0x09, 0x04, 0}), Bytes{0xCB});
    EXPECT_EQ(text(kTextChunk, {0, 0, 0, 1, 0, 0, 0, 0x09, 0x04}), Bytes{0xC7});
}

TEST_F(EventTexts, EntryTextCarriesWhatFitsSixtyFourBytes)
{
    start();
    const json &recs = profile_["sel"]["records"];
    for (uint16_t id : {1, 2}) {
        const json &rec = recs[id - 1];
        std::string full = message(profile_, rec, "0x0409");
        Bytes r = text(kEntryText, {uint8_t(id), 0});
        ASSERT_EQ(r.at(0), 0x00);
        EXPECT_LE(r.size() + 3, 64u); // with the IANA echo
        EXPECT_EQ(le16(r, 1), id);
        EXPECT_EQ(Bytes(r.begin() + 3, r.begin() + 7), codeBytes(rec["error_code"]));
        EXPECT_EQ(r.at(8), rec.value("parameters", json::array()).size());
        EXPECT_EQ(le16(r, 9), id == 1 ? 2 : 3); // the next record
        EXPECT_EQ(r.at(11), full.size());
        std::string shown(r.begin() + 12, r.end());
        EXPECT_EQ(shown, full.substr(0, std::min<std::size_t>(full.size(), 49)));
    }
    EXPECT_EQ(text(kEntryText, {3, 0}), Bytes{0xCB});
    EXPECT_EQ(text(kEntryText, {1}), Bytes{0xC7});
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

TEST_F(EventTexts, FollowUpsOfSeveralTextsInterleave)
{
    start();
    auto ask = [&](uint16_t lang) {
        Bytes r = text(kEntryAsText, {0, 1, 0, 0, uint8_t(lang), uint8_t(lang >> 8), 4, 0, 0});
        return std::make_pair(r.at(20), std::string(r.begin() + 21, r.end() - 1));
    };
    auto [h1, en] = ask(0x0409);
    auto [h2, de] = ask(0x0407);
    ASSERT_NE(h1, 0);
    ASSERT_NE(h2, 0);
    EXPECT_NE(h1, h2);
    for (int i = 0; i < 100; ++i) {
        bool more = false;
        for (auto [h, s] : {std::pair<uint8_t, std::string *>{h1, &en}, {h2, &de}}) {
            Bytes f = text(kFollowUp, {h});
            if (f.at(0) != 0x00) continue;
            s->append(f.begin() + 4, f.end() - 1);
            more = more || le16(f, 1) != 0;
        }
        if (!more) break;
    }
    EXPECT_EQ(en, message(profile_, profile_["sel"]["records"][0], "0x0409"));
    EXPECT_EQ(de, message(profile_, profile_["sel"]["records"][0], "0x0407"));
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

TEST_F(EventTexts, AMachineWithoutTextsHasNone)
{
    json doc = smallMachine();
    doc.erase("event_texts");
    for (auto &rec : doc["sel"]["records"]) {
        rec.erase("error_code");
        rec.erase("parameters");
        rec.erase("severity");
    }
    start(doc);
    EXPECT_EQ(text(kErrorCode, {0, 1, 0}), Bytes{0xCB});
    EXPECT_EQ(text(kEntryAsText, {0, 1, 0, 0, 0, 0, 0, 0, 0}), Bytes{0xCB});
    EXPECT_EQ(text(kTextChunk, {0, 0, 0, 1, 0, 0, 0, 0x09, 0x04, 0}), Bytes{0xCB});
    EXPECT_EQ(le16(storage(kGetSelInfo), 2), doc["sel"]["records"].size());
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
