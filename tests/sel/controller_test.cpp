// The virtual controller's event log and event texts where the library never goes.
#include <filesystem>

#include "sel_machine.h"

namespace simsel {
namespace {

using SelCommands = Machine;
using EventTexts = Machine;

TEST_F(SelCommands, MalformedAndMisplacedRequestsGetTheirCompletionCodes)
{
    start();
    const uint16_t res = reserve();
    const uint8_t r0 = uint8_t(res), r1 = uint8_t(res >> 8);
    const struct {
        uint8_t cmd;
        Bytes data;
        uint8_t cc;
    } cases[] = {
        // clang-format off
        {kGetSelInfo, {0x00}, 0xC7},
        {kGetEntry, {0, 0, 1, 0, 4, 4}, 0xC5},          // a partial read needs a reservation
        {kGetEntry, {r0, r1, 1, 0, 16, 1}, 0xC9},       // offset beyond the record
        {kAdd, Bytes(17, 0), 0xC7},
        {kClear, {0x77, 0x77, 'C', 'L', 'R', 0xAA}, 0xC5}, {kClear, {r0, r1, 'C', 'L', 'R'}, 0xC7},
        {kClear, {r0, r1, 'C', 'L', 'R', 0x55}, 0xCC},
        {kSetUtc, {0xA1, 0x05}, 0xC9}, {0x46, {0, 0, 1, 0}, 0xC1}, // 1441 minutes; Delete SEL Entry is not offered
        // clang-format on
    };
    for (const auto &c : cases)
        EXPECT_EQ(storage(c.cmd, c.data), Bytes{c.cc})
            << std::hex << "command 0x" << int(c.cmd) << " " << c.data.size();
    // None of the refused clears erased anything.
    EXPECT_EQ(le16(storage(kGetSelInfo), 2), profile_["sel"]["records"].size());
}

TEST_F(SelCommands, AddAssignsIdsAndStampsTheTimeByRecordType)
{
    json doc = smallMachine();
    doc["sel"]["capacity"] = 20;
    start(doc);
    auto record = [](uint8_t type, uint32_t stamp) {
        Bytes r(16, 0xAB);
        r[0] = 0x34; // the ID a caller sends is not the one the controller gives
        r[1] = 0x12;
        r[2] = type;
        for (int i = 0; i < 4; ++i) r[3 + i] = uint8_t(stamp >> (8 * i));
        return r;
    };
    const struct {
        uint8_t type;
        uint32_t sent, stored;
    } cases[] = {
        // clang-format off
        {0x02, 0x11223344, kFixedNow},                                  // system events: the controller's time
        {0xC5, 0, kFixedNow}, {0xC5, 0x01020304, 0x01020304}, // timestamped OEM: only when unset
        {0xE2, 0x01020304, 0x01020304},                       // no timestamp at all
        // clang-format on
    };
    uint16_t expectedId = static_cast<uint16_t>(doc["sel"]["records"].size() + 1);
    for (const auto &c : cases) {
        Bytes sent = record(c.type, c.sent);
        Bytes r = storage(kAdd, sent);
        ASSERT_EQ(r.size(), 3u);
        EXPECT_EQ(r[0], 0x00);
        uint16_t id = le16(r, 1);
        EXPECT_EQ(id, expectedId++);
        Bytes stored = entry(id);
        ASSERT_EQ(stored.size(), 19u);
        Bytes want = sent;
        want[0] = uint8_t(id);
        want[1] = uint8_t(id >> 8);
        for (int i = 0; i < 4; ++i) want[3 + i] = uint8_t(c.stored >> (8 * i));
        EXPECT_EQ(Bytes(stored.begin() + 3, stored.end()), want) << std::hex << int(c.type);
        EXPECT_EQ(le16(stored, 1), 0xFFFF); // the newest is the last
    }
    EXPECT_EQ(le32(storage(kGetSelInfo), 6), kFixedNow);
}

TEST_F(SelCommands, FullLogRefusesAndClearEmptiesItCancellingTheReservation)
{
    start();
    const unsigned capacity = profile_["sel"]["capacity"];
    const std::size_t initial = profile_["sel"]["records"].size();
    ASSERT_NE(lastAddOf(profile_), kFixedNow);
    EXPECT_EQ(le32(storage(kGetSelInfo), 6), lastAddOf(profile_));
    Bytes rec(16, 0);
    rec[2] = 0xE0;
    for (std::size_t n = initial; n < capacity; ++n) ASSERT_EQ(storage(kAdd, rec)[0], 0x00);
    // Additions set the last addition time, also for records without a timestamp of their own.
    EXPECT_EQ(le32(storage(kGetSelInfo), 6), kFixedNow);
    EXPECT_EQ(storage(kAdd, rec), Bytes{0xC4});
    Bytes info = storage(kGetSelInfo);
    EXPECT_EQ(le16(info, 2), capacity);
    EXPECT_EQ(le16(info, 4), 0);
    EXPECT_EQ(info[14] & 0x80, 0x80); // overflow: an addition was refused
    Bytes alloc = storage(kGetAllocInfo);
    EXPECT_EQ(le16(alloc, 5), 0);
    EXPECT_EQ(le16(alloc, 7), 0);

    // A new reservation cancels the old one.
    uint16_t first = reserve();
    uint16_t second = reserve();
    EXPECT_NE(first, second);
    EXPECT_EQ(clear(first), Bytes{0xC5});
    EXPECT_EQ(clear(second), (Bytes{0x00, 0x01}));

    info = storage(kGetSelInfo);
    EXPECT_EQ(le16(info, 2), 0);
    EXPECT_EQ(le16(info, 4), capacity * 16);
    EXPECT_EQ(le32(info, 6), kFixedNow); // a clear is no addition
    EXPECT_EQ(le32(info, 10), kFixedNow);
    EXPECT_EQ(info[14], 0x03);
    EXPECT_EQ(entry(0x0000), Bytes{0xCB});
    EXPECT_EQ(entry(0xFFFF), Bytes{0xCB});
    // The clear cancelled the reservation: neither a status query nor a partial read takes it.
    EXPECT_EQ(clear(second, 0x00), Bytes{0xC5});
    EXPECT_EQ(storage(kGetEntry, {uint8_t(second), uint8_t(second >> 8), 0, 0, 0, 0xFF}), Bytes{0xC5});
    EXPECT_EQ(clear(reserve(), 0x00), (Bytes{0x00, 0x01}));
    // Record IDs start afresh.
    EXPECT_EQ(storage(kAdd, rec), (Bytes{0x00, 0x01, 0x00}));
}

// Clock, offset and log are kept for the next program; an old state gets the log, a broken one is named.
TEST_F(SelCommands, StateIsKeptForTheNextControllerAndABrokenOneIsNamed)
{
    start();
    const std::size_t initial = profile_["sel"]["records"].size();
    EXPECT_EQ(le32(storage(kGetTime), 1), kFixedNow);
    EXPECT_EQ(storage(kGetUtc), (Bytes{0x00, 0xC4, 0xFF})); // -60 minutes
    // The offset first: the time must be kept by its own request, not by a later one.
    EXPECT_EQ(storage(kSetUtc, {0xFF, 0x07}), Bytes{0x00});
    EXPECT_EQ(storage(kSetTime, {0x78, 0x56, 0x34, 0x12}), Bytes{0x00});
    auto running = std::move(ctl_);
    start(); // another program on the same machine
    EXPECT_EQ(le32(storage(kGetTime), 1), 0x12345678u);
    EXPECT_EQ(storage(kGetUtc), (Bytes{0x00, 0xFF, 0x07}));
    Bytes rec(16, 0);
    rec[2] = 0x02;
    Bytes r = storage(kAdd, rec);
    ASSERT_EQ(r[0], 0x00);
    EXPECT_EQ(le32(entry(le16(r, 1)), 6), 0x12345678u) << "stamped with the time set";
    Bytes res = running->handle(kStorage, 0, kReserve, {}).bytes;
    EXPECT_EQ(running->handle(kStorage, 0, kGetEntry, Bytes{0, 0, r[1], r[2], 0, 0xFF}).bytes[0], 0x00);
    EXPECT_EQ(running->handle(kStorage, 0, kClear, Bytes{res[1], res[2], 'C', 'L', 'R', 0xAA}).bytes,
              (Bytes{0x00, 0x01}));
    EXPECT_EQ(le16(storage(kGetSelInfo), 2), 0) << "the clear of the first controller is seen";
    TempDir elsewhere;
    tvxsim::Controller fresh(tvxsim::parseProfile(profile_.dump(), "selmachine.json"), elsewhere.path());
    EXPECT_EQ(le16(fresh.handle(kStorage, 0, kGetSelInfo, {}).bytes, 2), initial);

    running.reset();
    writeFile(dir_.file("selmachine.state.json"),
              R"({"format": 1, "profile": "x", "state": {"acpi": {"system": 0, "device": 0}}})");
    start();
    EXPECT_EQ(le16(storage(kGetSelInfo), 2), initial);
    EXPECT_NE(tvxtest::readFile(dir_.file("selmachine.state.json")).find("\"sel\""), std::string::npos);
    for (const auto &[state, where] :
         {std::pair{R"({"format": 1, "state": {"sel": {"records": 7}}})", "/sel/records: "},
          {R"({"format": 1, "state": {"sel": {"records": [], "last_add": -5}}})", "/sel/last_add: "}}) {
        writeFile(dir_.file("selmachine.state.json"), state);
        start();
        try {
            ctl_->handle(kStorage, 0, kGetSelInfo, {});
            ADD_FAILURE() << "no complaint about " << state;
        } catch (const tvxsim::ProfileError &e) {
            EXPECT_NE(std::string(e.what()).find(where), std::string::npos) << e.what();
            EXPECT_NE(std::string(e.what()).find("tvxctl reset"), std::string::npos) << e.what();
        }
    }
}

constexpr uint8_t kErrorCode = 0x72, kTextChunk = 0x73, kEntryText = 0x45, kFollowUp = 0x71, kEntryAsText = 0x89;

std::string hex4(const Bytes &r, std::size_t at)
{
    char hex[9];
    std::snprintf(hex, sizeof hex, "%02X%02X%02X%02X", r.at(at), r.at(at + 1), r.at(at + 2), r.at(at + 3));
    return hex;
}

// What a 0x72 answer says: "CODE flags|param|param...".
std::string label(const Bytes &r)
{
    std::string l = hex4(r, 1) + " " + std::to_string(r.at(5));
    std::size_t pos = 7;
    for (unsigned i = 0; i < r.at(6); ++i, pos += 1 + r.at(pos))
        l += "|" + std::string(r.begin() + long(pos) + 1, r.begin() + long(pos + 1 + r.at(pos)));
    EXPECT_EQ(pos, r.size()) << "bytes after the parameters";
    return l;
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
        const char *lcid;                         // the language the text is in
    } cases[] = {{1, 0x03, 0x0407, 0, "0x0407"},  // first chunk length 0: the chunk size
                 {1, 0x02, 0x040C, 20, "0x0409"}, // a language without texts gets English
                 {1, 0x01, 0x0409, 250, "0x0409"},
                 {0x0000, 0x00, 0x0000, 3, "0x0409"}, // ID 0: the first
                 {1, 0x00, 0x0407, 2, "0x0407"}};     // the first chunk ends after half the ü of "Lü..."
    for (const auto &c : cases) {
        uint16_t id = c.id ? c.id : 1;
        const json &rec = recs[id - 1];
        std::string want = message(profile_, rec, c.lcid);
        if (c.form & 1) want = timeText(timeOf(rec["time"])) + " " + want;
        if (c.form & 2) want += " (" + severity(profile_, rec) + ")";
        Bytes r = text(kEntryAsText, {0x00, uint8_t(c.id), uint8_t(c.id >> 8), c.form, uint8_t(c.lang),
                                      uint8_t(c.lang >> 8), c.first, 0x00, 0x00});
        ASSERT_EQ(r.at(0), 0x00);
        EXPECT_EQ(le16(r, 1), id);
        EXPECT_EQ(le16(r, 3), recordBytes(rec, id)[2]);
        EXPECT_EQ(le16(r, 5), std::stoul(c.lcid, nullptr, 16));
        EXPECT_EQ(hex4(r, 7), rec["error_code"]);
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
            ASSERT_EQ(f.size(), 4u + f.at(3));
            got.append(f.begin() + 4, f.end() - 1);
            size += f.at(3);
            EXPECT_EQ(le16(f, 1), declared - size); // what remains, terminators counted
            if (le16(f, 1) == 0) break;
        }
        EXPECT_EQ(got, want) << int(c.form) << " " << c.lcid;
        EXPECT_EQ(declared, size);
        EXPECT_EQ(handle ? text(kFollowUp, {handle}) : Bytes{0xCB}, Bytes{0xCB}) << "used up";
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
    auto add = [&](uint8_t generator, uint8_t lunByte, uint8_t sensorType, uint8_t sensor, uint8_t dirType,
                   Bytes data) {
        Bytes rec = {0,       0,    0x02,       0,      0,       0,       0,       generator,
                     lunByte, 0x04, sensorType, sensor, dirType, data[0], data[1], data[2]};
        Bytes r = storage(kAdd, rec);
        EXPECT_EQ(r.at(0), 0x00);
        return le16(r, 1);
    };
    const struct {
        uint8_t generator, lun, sensorType, sensor, dirType;
        Bytes data;
        std::string label;
    } cases[] = {
        // A threshold event with its reading and threshold, from a named sensor; its deassertion
        // has no rule of its own: the catch-all.
        {0x20, 0, 0x01, 0x01, 0x01, {0x57, 0x2B, 0x2A}, "00000003 16|Inlet Temp|43|42"},
        {0x20, 0, 0x01, 0x01, 0x81, {0x57, 0x29, 0x2A}, "00000004 0|Inlet Temp|0x01|0x01|7"},
        // A rule for one sensor number, with the severity of its own.
        {0x20, 1, 0x04, 0x21, 0x01, {0x52, 0, 0}, "00000001 48|sensor 0x21|lun 1"},
        // Names are looked up by LUN and number, for the controller's own sensors only.
        {0x20, 1, 0x30, 0x05, 0x6F, {0x03, 0, 0}, "00000004 0|Other LUN|0x30|0x05|3"},
        {0x41, 0, 0x01, 0x01, 0x01, {0x57, 0x2B, 0x2A}, "00000003 16|sensor 0x01|43|42"},
        {0x20, 0, 0x2A, 0x09, 0x6F, {0x00, 0, 0}, "00000002 0|" + std::string(63, 'x')},
    };
    for (const auto &c : cases) {
        uint16_t id = add(c.generator, c.lun, c.sensorType, c.sensor, c.dirType, c.data);
        Bytes r = text(kErrorCode, {0, uint8_t(id), uint8_t(id >> 8)});
        ASSERT_EQ(r.at(0), 0x00);
        EXPECT_EQ(label(r), c.label);
    }
    // A record other than a system event gets no message.
    Bytes oem(16, 0);
    oem[2] = 0xC0;
    uint16_t id = le16(storage(kAdd, oem), 1);
    EXPECT_EQ(text(kErrorCode, {0, uint8_t(id), uint8_t(id >> 8)}), Bytes{0xCB});
}

// Random requests to every log and text command are answered (the sanitizer watches the reads).
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
    const uint8_t storageCommands[] = {kGetSelInfo, kGetAllocInfo, kReserve, kGetEntry, kAdd,
                                       kClear,      kGetTime,      kSetTime, kGetUtc,   kSetUtc};
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

TEST(SelProfile, BadSectionsAreNamedWithTheirPlace)
{
    const struct {
        const char *pointer;
        json value;
        std::string message; // after "selmachine.json: "
    } cases[] = {
        {"/sel/records/0/colour", "red", "/sel/records/0/colour: unknown key"},
        {"/sel/utc_offset_minutes", 1441, "/sel/utc_offset_minutes: expected an integer from -1440 to 1440"},
        {"/sel/records/0/error_code", "0000000F", "/sel/records/0/error_code: error code \"0000000F\" has no message"},
        {"/event_texts/sensor_events/0/parameters",
         {"{name}"},
         "/event_texts/sensor_events/0/parameters/0: unknown field {name}"},
    };
    for (const auto &c : cases) {
        json doc = smallMachine();
        doc[json::json_pointer(c.pointer)] = c.value;
        TempDir state;
        try {
            tvxsim::Controller ctl(tvxsim::parseProfile(doc.dump(), "selmachine.json"), state.path());
            ADD_FAILURE() << "accepted, expected: " << c.message;
        } catch (const tvxsim::ProfileError &e) {
            EXPECT_EQ(std::string(e.what()).rfind("selmachine.json: " + c.message, 0), 0u) << e.what();
        }
        EXPECT_FALSE(std::filesystem::exists(state.file("selmachine.state.json"))) << "no state written for " << c.message;
    }
}

} // namespace
} // namespace simsel
