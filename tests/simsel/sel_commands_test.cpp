// The Storage SEL commands of the virtual controller, request by request: what they answer,
// what they refuse with which completion code, and what they keep in the machine state.
#include <ctime>

#include "machine_fixture.h"

namespace simsel {
namespace {

using SelCommands = Machine;

TEST_F(SelCommands, MalformedAndMisplacedRequestsGetTheirCompletionCodes)
{
    start();
    const struct {
        uint8_t cmd;
        Bytes data;
        uint8_t cc;
    } cases[] = {
        {kGetSelInfo, {0x00}, 0xC7},
        {kGetAllocInfo, {0x00}, 0xC7},
        {kReserve, {0x00}, 0xC7},
        {kGetEntry, {0, 0, 1, 0, 0}, 0xC7},
        {kGetEntry, {0, 0, 1, 0, 0, 0xFF, 0}, 0xC7},
        {kGetEntry, {0, 0, 0x99, 0, 0, 0xFF}, 0xCB},   // no such record
        {kGetEntry, {0, 0, 1, 0, 4, 4}, 0xC5},         // a partial read needs a reservation
        {kGetEntry, {0x77, 0x77, 1, 0, 0, 0xFF}, 0xC5}, // a reservation never made
        {kAdd, Bytes(15, 0), 0xC7},
        {kAdd, Bytes(17, 0), 0xC7},
        {kClear, {0, 0, 'C', 'L', 'R', 0xAA}, 0xC5},
        {kClear, {0, 0, 'C', 'L', 'R'}, 0xC7},
        {kGetTime, {0x00}, 0xC7},
        {kSetTime, {1, 2, 3}, 0xC7},
        {kGetUtc, {0x00}, 0xC7},
        {kSetUtc, {0xA1, 0x05}, 0xC9}, // 1441 minutes
        {kSetUtc, {0x5F, 0xFA}, 0xC9}, // -1441
        {kSetUtc, {0x3C}, 0xC7},
        {0x46, {0, 0, 1, 0}, 0xC1},    // Delete SEL Entry is not offered
    };
    for (const auto &c : cases) {
        Bytes r = storage(c.cmd, c.data);
        ASSERT_FALSE(r.empty());
        EXPECT_EQ(r, Bytes{c.cc}) << std::hex << "command 0x" << int(c.cmd) << " with " << c.data.size() << " bytes";
    }

    uint16_t res = reserve();
    const struct {
        uint8_t cmd;
        Bytes data;
        uint8_t cc;
    } reserved[] = {
        {kGetEntry, {uint8_t(res), uint8_t(res >> 8), 1, 0, 16, 1}, 0xC9}, // offset beyond the record
        {kClear, {uint8_t(res), uint8_t(res >> 8), 'C', 'L', 'X', 0xAA}, 0xCC},
        {kClear, {uint8_t(res), uint8_t(res >> 8), 'c', 'l', 'r', 0xAA}, 0xCC},
        {kClear, {uint8_t(res), uint8_t(res >> 8), 'C', 'L', 'R', 0x55}, 0xCC},
    };
    for (const auto &c : reserved) EXPECT_EQ(storage(c.cmd, c.data), Bytes{c.cc}) << std::hex << int(c.data[5]);
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
        {0x02, 0, kFixedNow},          {0x02, 0x11223344, kFixedNow}, // system events: the controller's time
        {0xC5, 0, kFixedNow},          {0xC5, 0x01020304, 0x01020304}, // timestamped OEM: only when unset
        {0xE2, 0, 0},                  {0xE2, 0x01020304, 0x01020304}, // no timestamp at all
        {0x01, 0x0A0B0C0D, 0x0A0B0C0D},
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

TEST_F(SelCommands, ClockAndUtcOffsetAreKeptInTheState)
{
    start();
    EXPECT_EQ(le32(storage(kGetTime), 1), kFixedNow);
    EXPECT_EQ(storage(kGetUtc), (Bytes{0x00, 0xC4, 0xFF})); // -60 minutes
    EXPECT_EQ(storage(kSetTime, {0x78, 0x56, 0x34, 0x12}), Bytes{0x00});
    EXPECT_EQ(storage(kSetUtc, {0xFF, 0x07}), Bytes{0x00});
    start(); // another program on the same machine
    EXPECT_EQ(le32(storage(kGetTime), 1), 0x12345678u);
    EXPECT_EQ(storage(kGetUtc), (Bytes{0x00, 0xFF, 0x07}));
    // An addition is stamped with the time set.
    Bytes rec(16, 0);
    rec[2] = 0x02;
    Bytes r = storage(kAdd, rec);
    ASSERT_EQ(r[0], 0x00);
    EXPECT_EQ(le32(entry(le16(r, 1)), 6), 0x12345678u);

    const struct {
        json setting;
        Bytes answer;
    } offsets[] = {{60, {0x00, 0x3C, 0x00}}, {"unspecified", {0x00, 0xFF, 0x07}}, {-1440, {0x00, 0x60, 0xFA}}};
    for (const auto &o : offsets) {
        json doc = smallMachine();
        doc["sel"]["utc_offset_minutes"] = o.setting;
        TempDir elsewhere;
        tvxsim::Controller c(tvxsim::parseProfile(doc.dump(), "utc.json"), elsewhere.path());
        EXPECT_EQ(c.handle(kStorage, 0, kGetUtc, {}).bytes, o.answer) << o.setting;
    }
}

TEST_F(SelCommands, ChangesPersistAcrossControllersOnTheSameState)
{
    start();
    const std::size_t initial = profile_["sel"]["records"].size();
    Bytes rec(16, 0);
    rec[2] = 0x02;
    rec[10] = 0x01;
    ASSERT_EQ(storage(kAdd, rec)[0], 0x00);

    auto other = std::make_unique<tvxsim::Controller>(tvxsim::parseProfile(profile_.dump(), "selmachine.json"), dir_.path());
    EXPECT_EQ(le16(other->handle(kStorage, 0, kGetSelInfo, {}).bytes, 2), initial + 1);
    Bytes res = other->handle(kStorage, 0, kReserve, {}).bytes;
    EXPECT_EQ(other->handle(kStorage, 0, kClear, Bytes{res[1], res[2], 'C', 'L', 'R', 0xAA}).bytes, (Bytes{0x00, 0x01}));
    EXPECT_EQ(le16(storage(kGetSelInfo), 2), 0); // the first controller sees the clear

    // The same machine with its state elsewhere still has the profile's log.
    TempDir elsewhere;
    tvxsim::Controller fresh(tvxsim::parseProfile(profile_.dump(), "selmachine.json"), elsewhere.path());
    EXPECT_EQ(le16(fresh.handle(kStorage, 0, kGetSelInfo, {}).bytes, 2), initial);
}

TEST_F(SelCommands, StateWithoutALogGetsTheProfilesAndABrokenLogIsNamed)
{
    // A state kept before the machine had a log.
    writeFile(dir_.file("selmachine.state.json"), R"({"format": 1, "profile": "x", "state": {"acpi": {"system": 0, "device": 0}}})");
    start();
    EXPECT_EQ(le16(storage(kGetSelInfo), 2), profile_["sel"]["records"].size());
    EXPECT_NE(readFile(dir_.file("selmachine.state.json")).find("\"sel\""), std::string::npos);

    const struct {
        const char *state;
        const char *where;
    } broken[] = {
        {R"({"format": 1, "state": {"sel": {"records": 7}}})", "/sel/records: "},
        {R"({"format": 1, "state": {"sel": {"records": [{"id": 1, "record": "01 00"}], "reservation": 0}}})",
         "/sel/records/0/record: "},
        {R"({"format": 1, "state": {"sel": {"records": [], "last_add": -5}}})", "/sel/last_add: "},
    };
    for (const auto &b : broken) {
        writeFile(dir_.file("selmachine.state.json"), b.state);
        start();
        Bytes req = {0, 0, 0, 0, 0, 0xFF};
        try {
            ctl_->handle(kStorage, 0, kGetEntry, req);
            ctl_->handle(kStorage, 0, kGetSelInfo, {});
            ADD_FAILURE() << "no complaint about " << b.state;
        } catch (const tvxsim::ProfileError &e) {
            std::string what = e.what();
            EXPECT_NE(what.find(b.where), std::string::npos) << what;
            EXPECT_NE(what.find("tvxctl reset"), std::string::npos) << what;
        }
    }
}

} // namespace
} // namespace simsel
