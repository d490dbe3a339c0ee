// The virtual controller's event log and event texts where the library never goes.
#include "sel_machine.h"

namespace simsel {
namespace {

using SelCommands = Machine;
using EventTexts = Machine;

constexpr uint8_t kErrorCode = 0x72, kFollowUp = 0x71, kEntryAsText = 0x89;
const Bytes kNow = le32(kFixedNow), kLastAdd = {0xA0, 0x5F, 0xA5, 0x69}, kLastErase = {0xA5, 0x35, 0x57, 0x69};

TEST_F(SelCommands, MalformedAndMisplacedRequestsGetTheirCompletionCodes)
{
    start();
    const Bytes res = reserve();
    const struct {
        uint8_t cmd;
        Bytes data;
        uint8_t cc;
    } cases[] = {
        // clang-format off
        {kGetSelInfo, {0x00}, 0xC7},
        {kGetEntry, {0, 0, 1, 0, 4, 4}, 0xC5},          // a partial read needs a reservation
        {kGetEntry, {res[0], res[1], 1, 0, 16, 1}, 0xC9}, // offset beyond the record
        {kAdd, Bytes(17, 0), 0xC7},
        {kClear, {0x77, 0x77, 'C', 'L', 'R', 0xAA}, 0xC5}, {kClear, {res[0], res[1], 'C', 'L', 'R'}, 0xC7},
        {kClear, {res[0], res[1], 'C', 'L', 'R', 0x55}, 0xCC},
        {kSetUtc, {0xA1, 0x05}, 0xC9}, {0x46, {0, 0, 1, 0}, 0xC1}, // 1441 minutes; Delete SEL Entry is not offered
        // clang-format on
    };
    for (const auto &c : cases)
        EXPECT_EQ(storage(c.cmd, c.data), Bytes{c.cc})
            << std::hex << "command 0x" << int(c.cmd) << " " << c.data.size();
    // The event-text service: a record without error code, a short request, a handle never given.
    EXPECT_EQ(text(kEntryAsText, {0, 3, 0, 0, 0, 0, 0, 0, 0}), Bytes{0xCB});
    EXPECT_EQ(text(kEntryAsText, {0, 1, 0, 0, 0, 0, 0, 0}), Bytes{0xC7});
    EXPECT_EQ(text(kFollowUp, {0x42}), Bytes{0xCB});
    EXPECT_EQ(text(kFollowUp, {}), Bytes{0xC7});
    // None of the refused clears erased anything: 3 entries, 2 of 5 free, the profile's times.
    EXPECT_EQ(storage(kGetSelInfo), cat({{0x00, 0x51, 3, 0, 32, 0}, kLastAdd, kLastErase, {0x03}}));
}

TEST_F(SelCommands, AddAssignsIdsAndStampsTheTimeByRecordType)
{
    json doc = smallMachine();
    doc["sel"]["capacity"] = 20;
    start(doc);
    const Bytes stamp = {4, 3, 2, 1}, unset = {0, 0, 0, 0}, tail(9, 0xAB);
    const struct {
        uint8_t type;
        Bytes sent, stored;
    } cases[] = {
        {0x02, stamp, kNow}, // system events: the controller's time
        {0xC5, unset, kNow},
        {0xC5, stamp, stamp}, // timestamped OEM: only when unset
        {0xE2, stamp, stamp}, // no timestamp at all
    };
    uint8_t id = 4;
    for (const auto &c : cases) {
        // The ID a caller sends is not the one the controller gives.
        EXPECT_EQ(storage(kAdd, cat({{0x34, 0x12, c.type}, c.sent, tail})), (Bytes{0x00, id, 0x00}));
        // The newest is the last.
        EXPECT_EQ(entry(id), cat({{0x00, 0xFF, 0xFF, id, 0x00, c.type}, c.stored, tail})) << std::hex << int(c.type);
        ++id;
    }
    const Bytes info = storage(kGetSelInfo);
    EXPECT_EQ(Bytes(info.begin() + 6, info.begin() + 10), kNow);
}

TEST_F(SelCommands, FullLogRefusesAndClearEmptiesItCancellingTheReservation)
{
    start();
    Bytes rec(16, 0);
    rec[2] = 0xE0;
    for (int n = 3; n < 5; ++n) ASSERT_EQ(storage(kAdd, rec)[0], 0x00);
    EXPECT_EQ(storage(kAdd, rec), Bytes{0xC4});
    // Full, and an addition was refused; additions set the last addition time, also for records
    // without a timestamp of their own.
    EXPECT_EQ(storage(kGetSelInfo), cat({{0x00, 0x51, 5, 0, 0, 0}, kNow, kLastErase, {0x83}}));
    EXPECT_EQ(storage(kGetAllocInfo), (Bytes{0x00, 5, 0, 16, 0, 0, 0, 0, 0, 1}));

    // A new reservation cancels the old one.
    const Bytes first = reserve(), second = reserve();
    EXPECT_NE(first, second);
    EXPECT_EQ(clear(first), Bytes{0xC5});
    EXPECT_EQ(clear(second), (Bytes{0x00, 0x01}));
    // Empty; a clear is no addition.
    EXPECT_EQ(storage(kGetSelInfo), cat({{0x00, 0x51, 0, 0, 80, 0}, kNow, kNow, {0x03}}));
    EXPECT_EQ(entry(0x0000), Bytes{0xCB});
    EXPECT_EQ(entry(0xFFFF), Bytes{0xCB});
    // The clear cancelled the reservation: neither a status query nor a partial read takes it.
    EXPECT_EQ(clear(second, 0x00), Bytes{0xC5});
    EXPECT_EQ(storage(kGetEntry, {second[0], second[1], 0, 0, 0, 0xFF}), Bytes{0xC5});
    EXPECT_EQ(clear(reserve(), 0x00), (Bytes{0x00, 0x01}));
    // Record IDs start afresh.
    EXPECT_EQ(storage(kAdd, rec), (Bytes{0x00, 0x01, 0x00}));
}

// Clock, offset and log are kept for the next program; an old state gets the log, a broken one is named.
TEST_F(SelCommands, StateIsKeptForTheNextControllerAndABrokenOneIsNamed)
{
    start();
    EXPECT_EQ(storage(kGetTime), cat({{0x00}, kNow}));
    EXPECT_EQ(storage(kGetUtc), (Bytes{0x00, 0xC4, 0xFF})); // -60 minutes
    // The offset first: the time must be kept by its own request, not by a later one.
    EXPECT_EQ(storage(kSetUtc, {0xFF, 0x07}), Bytes{0x00});
    EXPECT_EQ(storage(kSetTime, {0x78, 0x56, 0x34, 0x12}), Bytes{0x00});
    auto running = std::move(ctl_);
    start(); // another program on the same machine
    EXPECT_EQ(storage(kGetTime), (Bytes{0x00, 0x78, 0x56, 0x34, 0x12}));
    EXPECT_EQ(storage(kGetUtc), (Bytes{0x00, 0xFF, 0x07}));
    Bytes rec(16, 0);
    rec[2] = 0x02;
    ASSERT_EQ(storage(kAdd, rec), (Bytes{0x00, 0x04, 0x00}));
    const Bytes added = entry(4);
    EXPECT_EQ(Bytes(added.begin() + 6, added.begin() + 10), (Bytes{0x78, 0x56, 0x34, 0x12}))
        << "stamped with the time set";
    // The first controller sees the record, and the second its clear.
    Bytes res = running->handle(kStorage, 0, kReserve, {}).bytes;
    EXPECT_EQ(running->handle(kStorage, 0, kGetEntry, Bytes{0, 0, 4, 0, 0, 0xFF}).bytes[0], 0x00);
    EXPECT_EQ(running->handle(kStorage, 0, kClear, Bytes{res[1], res[2], 'C', 'L', 'R', 0xAA}).bytes,
              (Bytes{0x00, 0x01}));
    EXPECT_EQ(storage(kGetSelInfo)[2], 0);
    running.reset();

    // A state from an older program gets the profile's log.
    tvxtest::writeFile(dir_.file("selmachine.state.json"),
                       R"({"format": 1, "profile": "x", "state": {"acpi": {"system": 0, "device": 0}}})");
    start();
    EXPECT_EQ(storage(kGetSelInfo)[2], 3);
    // A broken one is named, with the way out.
    tvxtest::writeFile(dir_.file("selmachine.state.json"), R"({"format": 1, "state": {"sel": {"records": 7}}})");
    start();
    std::string error;
    try {
        ctl_->handle(kStorage, 0, kGetSelInfo, {});
    } catch (const tvxsim::ProfileError &e) {
        error = e.what();
    }
    EXPECT_NE(error.find("/sel/records: "), std::string::npos) << error;
    EXPECT_NE(error.find("tvxctl reset"), std::string::npos) << error;
}

// What a 0x72 answer says: "CODE flags|param|param...".
std::string label(const Bytes &r)
{
    char head[16];
    std::snprintf(head, sizeof head, "%02X%02X%02X%02X %d", r.at(1), r.at(2), r.at(3), r.at(4), r.at(5));
    std::string l = head;
    std::size_t pos = 7;
    for (unsigned i = 0; i < r.at(6); ++i, pos += 1 + r.at(pos))
        l += "|" + std::string(r.begin() + long(pos) + 1, r.begin() + long(pos + 1 + r.at(pos)));
    EXPECT_EQ(pos, r.size()) << "bytes after the parameters";
    return l;
}

TEST_F(EventTexts, RecordsAddedAtRunTimeAreLabelledBySensorEvent)
{
    json doc = smallMachine();
    doc["sel"]["capacity"] = 50;
    // A parameter cut to its 64 bytes loses a character split by the cut as a whole.
    json &rules = doc["event_texts"]["sensor_events"];
    const json cut = {
        {"sensor_type", "0x2A"}, {"error_code", "00000002"}, {"parameters", {std::string(63, 'x') + "\u00fc{sensor}"}}};
    rules.insert(rules.begin(), cut);
    // The SDR part of the profile names some sensors.
    start(doc, json::parse(R"([
      {"record": "compact", "number": "0x01", "name": "Inlet Temp", "entity": "0x37", "instance": 1,
       "type": "0x01", "event_reading_type": "0x6F"},
      {"record": "compact", "number": 5, "lun": 1, "name": "Other LUN", "entity": "0x07", "instance": 1,
       "type": "0x30", "event_reading_type": "0x6F"},
      {"record": "compact", "number": 9, "name": "Nine", "entity": "0x07", "instance": 2,
       "type": "0x2A", "event_reading_type": "0x6F"}])"));
    const struct {
        Bytes event; // generator, LUN byte, revision, sensor type and number, direction and type, data
        std::string label;
    } cases[] = {
        // A threshold event with its reading and threshold, from a named sensor; its deassertion
        // has no rule of its own: the catch-all.
        {{0x20, 0, 4, 0x01, 0x01, 0x01, 0x57, 0x2B, 0x2A}, "00000003 16|Inlet Temp|43|42"},
        {{0x20, 0, 4, 0x01, 0x01, 0x81, 0x57, 0x29, 0x2A}, "00000004 0|Inlet Temp|0x01|0x01|7"},
        // A rule for one sensor number, with the severity of its own.
        {{0x20, 1, 4, 0x04, 0x21, 0x01, 0x52, 0, 0}, "00000001 48|sensor 0x21|lun 1"},
        // Names are looked up by LUN and number, for the controller's own sensors only.
        {{0x20, 1, 4, 0x30, 0x05, 0x6F, 0x03, 0, 0}, "00000004 0|Other LUN|0x30|0x05|3"},
        {{0x41, 0, 4, 0x01, 0x01, 0x01, 0x57, 0x2B, 0x2A}, "00000003 16|sensor 0x01|43|42"},
        {{0x20, 0, 4, 0x2A, 0x09, 0x6F, 0x00, 0, 0}, "00000002 0|" + std::string(63, 'x')},
    };
    uint8_t id = 4;
    for (const auto &c : cases) {
        ASSERT_EQ(storage(kAdd, cat({{0, 0, 0x02, 0, 0, 0, 0}, c.event})), (Bytes{0x00, id, 0x00}));
        Bytes r = text(kErrorCode, {0, id++, 0});
        ASSERT_EQ(r.at(0), 0x00);
        EXPECT_EQ(label(r), c.label);
    }
    // A record other than a system event gets no message.
    Bytes oem(16, 0);
    oem[2] = 0xC0;
    ASSERT_EQ(storage(kAdd, oem), (Bytes{0x00, id, 0x00}));
    EXPECT_EQ(text(kErrorCode, {0, id, 0}), Bytes{0xCB});
}

} // namespace
} // namespace simsel
